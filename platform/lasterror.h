#pragma once

#include <cstdarg>

/// The calling thread's last error, in the numbers of Windows, which <qel/platform/errornumbers.h> names.
/// Calls that fail set it; calls that succeed leave it unchanged unless documented otherwise. Safe to call
/// from any thread.
__attribute__((visibility("default"))) unsigned int GetLastError();

/// Sets the calling thread's last error.
__attribute__((visibility("default"))) void SetLastError(unsigned int error);

/// The two flags of FormatMessageA. Neither changes its result.
inline constexpr unsigned int FORMAT_MESSAGE_IGNORE_INSERTS = 0x200;
inline constexpr unsigned int FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;

/// Puts a text of one line without an end, such as "access denied", for the error number `error` into
/// `buffer`, which has room for `size` bytes. Returns its length; 0 when `error` is unknown, `buffer` has no
/// room for the text and a zero byte, or `flags` has bits other than the two above. `source`, `language` and
/// `arguments` have no effect.
__attribute__((visibility("default"))) unsigned int FormatMessageA(unsigned int flags, const void* source,
                                                                   unsigned int error, unsigned int language,
                                                                   char* buffer, unsigned int size,
                                                                   std::va_list* arguments);
