#pragma once

/// Small owners of host descriptors, and the copying of a file's contents.

#include <sys/stat.h>
#include <unistd.h>
#include <utility>

/// Holds a host descriptor and closes it.
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

/// openat with close-on-exec, not disturbed by signals. -1 when it fails, with errno set.
int platOpenAt(int folder, const char* name, int flags, unsigned mode = 0);

/// Opens the regular file `name` of the host directory `folder`. -1 when it fails, with errno set; EACCES for
/// what is no regular file, which is not waited on. `status` receives the status of the opened file.
int platOpenRegular(int folder, const char* name, int flags, unsigned mode, struct stat& status);

/// Is told how long work gets on.
class platWatcher
{
public:
    virtual ~platWatcher() = default;
    /// So many more bytes have been copied or are a hole. False ends the work with ERROR_OPERATION_ABORTED.
    virtual bool Advance(off_t amount) = 0;
};

/// Copies the contents of `source`, whose status is `status`, to the empty file `target`; holes stay. False
/// when it fails, with errno set. `watcher` is told after 8 MiB at most; null: nobody watches.
bool platCopyContents(int source, const struct stat& status, int target, platWatcher* watcher = nullptr);
