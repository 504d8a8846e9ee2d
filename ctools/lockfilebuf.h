#pragma once

#include <cstddef>
#include <streambuf>
#include <string>

#include <qel/base/baseexport.h>

/// A stream buffer that reads a file and keeps a lock on it while it is open: a shared one for reading, an
/// exclusive one for updating. Who opens the file in this way waits for its turn. The lock is on the file
/// itself, between all openings of it, those of one process included: opening a file twice for update in one
/// thread waits for ever. The operations answer true when they FAIL, with the reason in errno. Used by one
/// thread at a time.
class BASE_API lockFileBuf : public std::streambuf
{
public:
    lockFileBuf() = default;
    lockFileBuf(const lockFileBuf&) = delete;
    lockFileBuf& operator=(const lockFileBuf&) = delete;
    ~lockFileBuf() override;

    /// Opens `path`, a path of the host, and waits for the lock. `mode` is std::ios_base::in, or in and out
    /// for updating, which creates a missing file with `permissions`. When the file that was locked is no
    /// longer the one at `path`, because it was replaced during the wait, the one that is there now is locked
    /// instead.
    bool Open(const char* path, int mode, int permissions);
    bool Close();
    /// Whether reading has ended in an error, and not at the end of the file.
    bool HasFailed() const { return failed; }

    /// Replaces the content of a file that is open for updating, in one step: whoever reads it, and whenever
    /// this process or the machine stops, finds the old content or the new one. Mode and owner are kept; soft
    /// links on the way to the file stay. A file with several hard links, and one in a directory that cannot
    /// be written to, is overwritten in place instead. When it fails, the old content stays and no other file
    /// is left. The lock stays with this buffer, but guards the replaced file: close it next.
    bool Replace(const char* content, std::size_t size);

protected:
    int_type underflow() override;

private:
    bool openOnce(const char* path, int flags, int permissions);
    bool locate(const char* path);
    void release();

    int file = -1;
    bool failed = false;
    int folder = -1;  // the directory that holds the file
    std::string name; // of the file in it
    char buffer[16384] = {};
};
