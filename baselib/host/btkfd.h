#pragma once

#include <cstddef>

#include <qel/base/btktimeval.h>

/// The host's handle of a file, pipe end, socket or event: a descriptor. -1 is no handle.
using btkHandle = int;

/// Owns one descriptor and closes it.
class BASE_API btkFd
{
public:
    btkFd() = default;
    explicit btkFd(btkHandle owned) : handle(owned) {}
    btkFd(btkFd&& other) noexcept : handle(other.Release()) {}
    btkFd& operator=(btkFd&& other) noexcept
    {
        Reset(other.Release());
        return *this;
    }
    ~btkFd() { Reset(); }

    btkHandle Get() const { return handle; }
    explicit operator bool() const { return handle >= 0; }
    /// Gives the descriptor away.
    btkHandle Release()
    {
        const btkHandle released = handle;
        handle = -1;
        return released;
    }
    /// Closes what is owned and owns `owned` instead. Keeps errno.
    void Reset(btkHandle owned = -1);
    /// A second descriptor of the same thing, closed on exec; owns nothing when that fails.
    btkFd Duplicate() const;

private:
    btkHandle handle = -1;
};

/// Transfers on descriptors. Interrupted calls are repeated, and a descriptor that somebody made non-blocking
/// is waited for, so that these block all the same. Each answers -1 and leaves the reason in errno when it
/// fails.

/// Reads what is there, at least one byte and at most `size`; 0 at the end of the input.
BASE_API std::ptrdiff_t btkRead(btkHandle handle, void* to, std::size_t size);
/// Reads from the byte offset `position`, `size` bytes or as many as there are until the end.
BASE_API std::ptrdiff_t btkReadAt(btkHandle handle, void* to, std::size_t size, long long position);
/// Writes all `size` bytes. Answers the number written, which is less than `size` only when writing failed;
/// the reason is then in errno. A reader that is gone gives EPIPE and never the signal SIGPIPE.
BASE_API std::size_t btkWrite(btkHandle handle, const void* from, std::size_t size);
/// Writes what is taken without waiting, at most `size` bytes: 0 when nothing is, -1 when writing failed. As
/// btkWrite, it never raises SIGPIPE. A pipe must have no other writer, or the call may wait after all.
BASE_API std::ptrdiff_t btkTryWrite(btkHandle handle, const void* from, std::size_t size);
/// As btkWrite, at the byte offset `position`. For files only.
BASE_API std::size_t btkWriteAt(btkHandle handle, const void* from, std::size_t size, long long position);

/// What btkOpenFile may do, as bits.
enum btkOpenMode {
    btkOpenRead = 1,
    btkOpenWrite = 2,
    btkOpenCreate = 4, // a file that does not exist is made
    btkOpenEmpty = 8   // what an existing one holds is dropped
};

/// Opens the file `path`, as the host names it, with bits of btkOpenMode. The result owns nothing when that
/// fails, and when `path` is a directory; the reason is in errno.
BASE_API btkFd btkOpenFile(const char* path, int mode);
/// The size of a file in bytes as it is now, -1 when it has none.
BASE_API long long btkGetFileSize(btkHandle handle);
/// Whether the descriptor has positions: files do, pipes, sockets and terminals do not.
BASE_API bool btkHasPositions(btkHandle handle);
/// Moves the position of a descriptor that has positions to `position` bytes from the beginning.
BASE_API bool btkSetPosition(btkHandle handle, long long position);

/// Whether somebody may be sitting at the other end.
BASE_API bool btkIsTerminal(btkHandle handle);

/// The number of bytes that wait to be read from a pipe, socket, terminal or file; 0 when that is not known.
BASE_API std::size_t btkCountReadable(btkHandle handle);
/// Whether a read would answer at once: with bytes, with the end or with an error.
BASE_API bool btkIsReadable(btkHandle handle, btkTimeval limit = {});
/// The number of bytes that can surely be written without blocking. For a pipe that holds something it is one
/// page or none: the system keeps a pipe in pages, each of which may hold a byte or a few only. 0 is also
/// returned for a descriptor that cannot be written: `broken` is set then.
BASE_API std::size_t btkCountWritable(btkHandle handle, bool& broken);
/// The number of bytes that an empty pipe takes; SIZE_MAX for what is no pipe.
BASE_API std::size_t btkGetPipeSize(btkHandle handle);
/// Whether both descriptors are of one plain file.
BASE_API bool btkIsSameFile(btkHandle a, btkHandle b);

/// A descriptor and where in it the next byte is: at `*position`, or, when that is null, wherever the host
/// has it.
struct btkPlace
{
    btkHandle handle = -1;
    long long* position = nullptr;
};
/// Lets the host move bytes, as many as there are at once, from one place to another without bringing them
/// into the process: from file to file, and out of a pipe, where it waits for some. Answers how many were
/// moved and advances the positions; 0 at the end of the input; -1 when the host cannot do that for these
/// two: nothing has happened then, and reading and writing show whether there is a fault.
BASE_API std::ptrdiff_t btkMove(const btkPlace& from, const btkPlace& to);

/// Keeps SIGPIPE from the calling thread for the life of a block: a write to something without a reader fails
/// with EPIPE, and the signal that the block caused is taken away again. One that was pending before stays.
class BASE_API btkNoSigPipe
{
public:
    btkNoSigPipe();
    ~btkNoSigPipe();
    btkNoSigPipe(const btkNoSigPipe&) = delete;
    btkNoSigPipe& operator=(const btkNoSigPipe&) = delete;

    /// To be called when a write has failed with EPIPE.
    void Raised() { raised = true; }

private:
    bool blocked = false; // by us; false when the caller had it blocked already
    bool wasPending = false;
    bool raised = false;
};
