#pragma once

#include <cstddef>

#include <qel/base/btktimeval.h>

/// A descriptor of a file, pipe end, socket or event. -1: none.
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

    /// The descriptor, which stays owned; -1 for none.
    btkHandle Get() const { return handle; }
    /// Whether it owns a descriptor.
    explicit operator bool() const { return handle >= 0; }
    /// Releases the descriptor to the caller.
    btkHandle Release()
    {
        const btkHandle released = handle;
        handle = -1;
        return released;
    }
    /// Closes the owned descriptor and owns `owned` instead. Keeps errno.
    void Reset(btkHandle owned = -1);
    /// Returns a duplicate of the descriptor, closed on exec; owns nothing when that fails.
    btkFd Duplicate() const;

private:
    btkHandle handle = -1;
};

/// Transfers on descriptors. Interrupted calls are repeated, and a non-blocking descriptor is waited for, so
/// that these calls always block. On failure each returns -1 and leaves the reason in errno.

/// Reads the available bytes, at least one and at most `size`; 0 at the end of the input.
BASE_API std::ptrdiff_t btkRead(btkHandle handle, void* to, std::size_t size);
/// Reads from the byte offset `position`: `size` bytes, or fewer at the end.
BASE_API std::ptrdiff_t btkReadAt(btkHandle handle, void* to, std::size_t size, long long position);
/// Writes all `size` bytes. Returns the number written, which is less than `size` only when writing failed;
/// the reason is then in errno. If the reader has closed its end, fails with EPIPE and never raises SIGPIPE.
BASE_API std::size_t btkWrite(btkHandle handle, const void* from, std::size_t size);
/// Writes what can be written without waiting, at most `size` bytes. Returns the number written, 0 if none;
/// -1 when writing failed. Like btkWrite, it never raises SIGPIPE. A pipe must have no other writer, or the
/// call may wait after all.
BASE_API std::ptrdiff_t btkTryWrite(btkHandle handle, const void* from, std::size_t size);
/// Like btkWrite, at the byte offset `position`. For files only.
BASE_API std::size_t btkWriteAt(btkHandle handle, const void* from, std::size_t size, long long position);

/// Modes of btkOpenFile, as bits.
enum btkOpenMode {
    btkOpenRead = 1,
    btkOpenWrite = 2,
    btkOpenCreate = 4, // creates a missing file
    btkOpenEmpty = 8   // empties an existing file
};

/// Opens the file `path`, in native form, with bits of btkOpenMode. On failure, and when `path` is a
/// directory, the result owns nothing; the reason is in errno.
BASE_API btkFd btkOpenFile(const char* path, int mode);
/// Returns the present size of a file in bytes, -1 when it has none.
BASE_API long long btkGetFileSize(btkHandle handle);
/// Whether the descriptor has positions: files do; pipes, sockets and terminals do not.
BASE_API bool btkHasPositions(btkHandle handle);
/// Sets the position of a descriptor that has positions to `position` bytes from the beginning.
BASE_API bool btkSetPosition(btkHandle handle, long long position);

/// Whether the descriptor is a terminal.
BASE_API bool btkIsTerminal(btkHandle handle);

/// Returns the number of bytes that can be read at once from a pipe, socket, terminal or file; 0 when it is
/// not known.
BASE_API std::size_t btkCountReadable(btkHandle handle);
/// Whether a read would return at once: with bytes, with the end or with an error.
BASE_API bool btkIsReadable(btkHandle handle, btkTimeval limit = {});
/// Returns the number of bytes that can certainly be written without blocking. For a pipe that is not empty
/// this is one page or none: the kernel stores a pipe in pages, each of which may hold only a few bytes. Also
/// 0 for a descriptor that cannot be written: `broken` is set then.
BASE_API std::size_t btkCountWritable(btkHandle handle, bool& broken);
/// Returns the number of bytes that an empty pipe holds; SIZE_MAX if the descriptor is not a pipe.
BASE_API std::size_t btkGetPipeSize(btkHandle handle);
/// Whether both descriptors refer to the same plain file.
BASE_API bool btkIsSameFile(btkHandle a, btkHandle b);

/// A descriptor and the position of its next byte: `*position`, or, if that is null, the descriptor's own.
struct btkPlace
{
    /// The descriptor; -1 for none.
    btkHandle handle = -1;
    /// The offset in the file, which is advanced; null: the descriptor's own.
    long long* position = nullptr;
};
/// Transfers bytes inside the kernel, as many as one call allows, without copying them through the process:
/// from file to file, and out of a pipe, where it waits for some. Returns the number of bytes moved and
/// advances the positions; 0 at the end of the input; -1 when the kernel cannot do that for these two:
/// nothing has happened then, and reading and writing show whether there is a fault.
BASE_API std::ptrdiff_t btkMove(const btkPlace& from, const btkPlace& to);

/// Scope guard that keeps SIGPIPE from the calling thread: a write without a reader fails with EPIPE, and the
/// signal that the block caused is discarded. A signal that was pending before stays pending.
class BASE_API btkNoSigPipe
{
public:
    btkNoSigPipe();
    ~btkNoSigPipe();
    btkNoSigPipe(const btkNoSigPipe&) = delete;
    btkNoSigPipe& operator=(const btkNoSigPipe&) = delete;

    /// Call it after a write has failed with EPIPE.
    void Raised() { raised = true; }

private:
    bool blocked = false; // by this object; false when the caller had it blocked already
    bool wasPending = false;
    bool raised = false;
};
