#pragma once

/// The calling thread's last error, in the numbers of Windows (2 is "file not found"). Calls that fail set
/// it; calls that succeed leave it, unless they say otherwise. Safe to call from any thread.
__attribute__((visibility("default"))) unsigned int GetLastError();

/// Sets the calling thread's last error.
__attribute__((visibility("default"))) void SetLastError(unsigned int error);
