#pragma once

/// Opening a file by its folder, and copying a file's contents.

#include <cstddef>
#include <string>

#include <qel/base/btkfd.h>

struct stat;

/// openat with close-on-exec, retried after signals. -1 when it fails, with errno set.
BASE_API int btkOpenAt(int folder, const char* name, int flags, unsigned mode = 0);

/// Opens the regular file `name` of the directory descriptor `folder`. -1 when it fails, with errno set;
/// EACCES for anything but a regular file, without blocking on it. `status` receives the status of the opened
/// file.
BASE_API int btkOpenRegular(int folder, const char* name, int flags, unsigned mode, struct stat& status);

/// Opens the directory `path` of the operating system. Owns nothing when that fails, with errno set.
BASE_API btkFd btkOpenFolder(const char* path);

/// Reads the regular file `name` of the directory descriptor `folder`; a link is not followed. False when it fails,
/// with errno set: EFBIG for a file of more than `limit` bytes. `content` is unchanged then.
BASE_API bool btkReadRegular(int folder, const char* name, std::string& content, std::size_t limit);

/// Receives the progress of a copy.
class BASE_API btkCopyWatcher
{
public:
    virtual ~btkCopyWatcher() = default;
    /// `amount` more bytes have been copied or are a hole. False ends the work with ECANCELED.
    virtual bool Advance(long long amount) = 0;
};

/// Copies the contents of `source`, whose status is `status`, to the empty file `target`; holes stay. False
/// when it fails, with errno set. `watcher` is called after at most 8 MiB each; null: no calls.
BASE_API bool btkCopyContents(int source, const struct stat& status, int target,
                              btkCopyWatcher* watcher = nullptr);
