#pragma once

/// An RAII owner of a file descriptor, and the copying of a file's contents.

#include <sys/stat.h>
#include <unistd.h>
#include <utility>

/// Owns a file descriptor and closes it.
class platDescriptor
{
public:
    explicit platDescriptor(int value = -1) : descriptor(value) {}
    platDescriptor(platDescriptor&& other) noexcept : descriptor(other.release()) {}
    platDescriptor& operator=(platDescriptor&& other) noexcept
    {
        std::swap(descriptor, other.descriptor);
        return *this;
    }
    ~platDescriptor()
    {
        if (descriptor >= 0)
            ::close(descriptor);
    }

    int get() const { return descriptor; }
    explicit operator bool() const { return descriptor >= 0; }
    int release() { return std::exchange(descriptor, -1); }

private:
    int descriptor;
};

/// openat with close-on-exec, retried after signals. -1 when it fails, with errno set.
int platOpenAt(int folder, const char* name, int flags, unsigned mode = 0);

/// Opens the regular file `name` of the directory descriptor `folder`. -1 when it fails, with errno set;
/// EACCES for anything but a regular file, without blocking on it. `status` receives the status of the opened
/// file.
int platOpenRegular(int folder, const char* name, int flags, unsigned mode, struct stat& status);

/// Receives the progress of a copy.
class platWatcher
{
public:
    virtual ~platWatcher() = default;
    /// `amount` more bytes have been copied or are a hole. False ends the work with ECANCELED.
    virtual bool Advance(long long amount) = 0;
};

/// Copies the contents of `source`, whose status is `status`, to the empty file `target`; holes stay. False
/// when it fails, with errno set. `watcher` is called after at most 8 MiB each; null: no calls.
bool platCopyContents(int source, const struct stat& status, int target, platWatcher* watcher = nullptr);
