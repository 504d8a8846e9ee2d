#pragma once

#include <ios>
#include <utility>

#include <qel/base/btkfilepart.h>
#include <qel/base/xinputbuf.h>

/// Buffered reading and writing of a file with one position for both; no seek is needed between them.
/// Read-ahead is small after a seek and grows with sequential reading. A file without positions (a terminal,
/// a named pipe) is read and written like a pipe.
class BASE_API xfilebuf : public xinputbuf
{
public:
    /// How a file is opened.
    enum Mode {
        Read = btkOpenRead,      // an existing file
        Write = btkOpenWrite,    // a new file; an existing one is emptied
        ReadWrite = Read | Write // an existing file, with its content
    };

    /// Opens `path`, in native form. Null on failure; the reason is in errno. The caller owns the buffer.
    static xfilebuf* Open(const char* path, Mode mode);
    /// Returns a buffer for an open file, at its beginning. The caller owns the buffer.
    static xfilebuf* Adopt(btkFd opened, Mode mode) { return new xfilebuf(std::move(opened), mode); }
    /// Writes out pending output; output that cannot be written is lost. Call Finish first to find out.
    ~xfilebuf() override;
    bool Finish() override { return WritePending(); }
    bool GiveBack() override { return hasPositions || xinputbuf::GiveBack(); }
    /// For a file without a size of its own, such as those that the kernel generates when they are read: the
    /// number of bytes it returns at once.
    std::size_t CountReadable() override;

    /// Moves the position to `offset` bytes from the beginning, from the position or from the end of the
    /// file. Pending output is written first and read-ahead dropped, so that later reads see the file's
    /// present content. Returns the new position, or -1 without moving when there is no such position or the
    /// output cannot be written.
    long long Seek(long long offset, std::ios_base::seekdir from);
    /// Returns the position; -1 when there is none. Moves and writes nothing.
    long long Tell() const;
    /// Announces that the next read takes `size` bytes: the buffer then reads exactly that many at once, up
    /// to its usual size.
    void ExpectRead(std::size_t size) { readAhead = size < usualSize ? size : usualSize; }
    /// From now on, rewrites in the file are atomic as btkPartWriter defines: values of up to 4096 bytes that
    /// are written and synchronized one by one survive a kill in their old or in their new form.
    void KeepWhole() { keepsWhole = true; }
    /// Rewrites a value in this way, at once, at any position. Nothing may be pending.
    std::size_t Rewrite(const void* from, std::size_t size, long long position,
                        btkPartWriter::Notice notice = btkPartWriter::AtOnce)
    {
        return parts.Write(file.Get(), from, size, position, notice);
    }
    /// Drops pending output that could not be written.
    void DropPending();
    /// Returns the present size of the file, including data appended by others and pending output; -1 when it
    /// has none. Writes out pending output; does not move the position.
    long long GetFileSize();

protected:
    std::ptrdiff_t ReadSome(char* to, std::size_t size) override;
    std::size_t FillSize() override;
    std::size_t CountPending() override;

    btkPlace GetSourcePlace() override;
    btkPlace GetTargetPlace() override;

    int_type underflow() override;
    std::streamsize xsgetn(char* to, std::streamsize count) override;
    int_type overflow(int_type byte) override { return PutOne(byte); }
    std::streamsize xsputn(const char* from, std::streamsize count) override;
    int sync() override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode) override;
    std::streambuf* OnGetTryIBuf() override;
    void OnFreeTryIBuf() override;
    btkBaseEvent* OnGetInputEvent() override;

private:
    xfilebuf(btkFd opened, Mode wanted);

    void MoveTo(long long position);
    bool BeginReading();
    bool BeginWriting();
    bool WritePending();
    std::size_t WriteOut(const char* from, std::size_t count);
    long long Pending() const { return pendingStart == nullptr ? 0 : pptr() - pendingStart; }
    std::size_t Room() const { return static_cast<std::size_t>(epptr() - pptr()); }

    btkFd file;
    Mode mode;
    bool hasPositions;
    bool keepsWhole = false;
    btkPartWriter parts;
    // The file position of the end of the get area while reading, of the first pending byte while writing.
    long long filePosition = 0;
    char* pendingStart = nullptr; // null while reading
    std::size_t readAhead;
    long long savedPosition = 0; // of a try view
};
