#pragma once

#include <string>

#include <qel/base/btkfd.h>

/// The folder in which running programs keep files for others to find, which the machine clears when it
/// restarts: the first of RUNTIME_DIRECTORY, of a service, or else qelstd in XDG_RUNTIME_DIR, created when it
/// is missing. Empty: none, or one that belongs to another user or that others may write. A program with more
/// rights than its caller has none.
BASE_API std::string btkRuntimeFolder();

// ---- files of living processes: each is held while its process lives, and by its forked children

/// Holds the file, until the descriptor is closed. Owns nothing when another holder exists, or the file cannot
/// be opened for reading; the reason is in errno. Follows no link.
BASE_API btkFd btkHoldFile(const char* path);
/// Whether somebody holds the file.
BASE_API bool btkIsHeld(const char* path);
/// Removes the file unless somebody holds it.
BASE_API void btkRemoveUnheld(const char* path);
