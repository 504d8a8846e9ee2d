#pragma once

#include <ios>
#include <utility>

#include <qel/base/btkfilepart.h>
#include <qel/base/xinputbuf.h>

/// Buffered reading and writing of a file with one position for both; no seek is needed between them.
/// Read-ahead begins small after a seek and grows as reading goes on. Something without positions that is
/// opened as a file (a terminal, a named pipe) is read and written as a pipe is.
class BASE_API xfilebuf : public xinputbuf
{
public:
    enum Mode {
        Read = btkOpenRead,      // an existing file
        Write = btkOpenWrite,    // a new file; an existing one is emptied
        ReadWrite = Read | Write // an existing file, with its content
    };

    /// Opens `path`, as the host names it. Null when that fails; the reason is in errno. The caller owns the
    /// buffer.
    static xfilebuf* Open(const char* path, Mode mode);
    /// The buffer of a file that is open already, at its beginning. The caller owns the buffer.
    static xfilebuf* Adopt(btkFd opened, Mode mode) { return new xfilebuf(std::move(opened), mode); }
    /// Writes out what is pending; what cannot be written is lost. Ask Finish first to know.
    ~xfilebuf() override;
    bool Finish() override { return WritePending(); }
    bool GiveBack() override { return hasPositions || xinputbuf::GiveBack(); }
    /// Where the file has no size of its own, as those that the kernel makes up when they are read: what it
    /// gives at once.
    std::size_t CountReadable() override;

    /// Moves the position `offset` bytes from the beginning, from the position or from the end of the file.
    /// Pending output is written first and read-ahead dropped, so that what follows sees the file as it is.
    /// Answers the new position, or -1 and stays when there is no such position or the output cannot be
    /// written.
    long long Seek(long long offset, std::ios_base::seekdir from);
    /// The position; -1 when there are none. Moves and writes nothing.
    long long Tell() const;
    /// Says that the next read takes `size` bytes: so many, if not too many, are asked for at once, and no
    /// more.
    void ExpectRead(std::size_t size) { readAhead = size < usualSize ? size : usualSize; }
    /// From now on, what is rewritten in the file is whole as btkPartWriter says: values of up to 4096 bytes
    /// that are written and synchronized one by one survive a kill in their old or in their new form.
    void KeepWhole() { keepsWhole = true; }
    /// Writes a value so, at once, wherever the position is. Nothing is pending.
    std::size_t Rewrite(const void* from, std::size_t size, long long position,
                        btkPartWriter::Notice notice = btkPartWriter::AtOnce)
    {
        return parts.Write(file.Get(), from, size, position, notice);
    }
    /// Forgets what is pending, which could not be written.
    void DropPending();
    /// The size of the file as it is now, with what others have appended and what is still pending here; -1
    /// when it has none. Writes out what is pending; moves nothing.
    long long GetFileSize();

protected:
    std::ptrdiff_t ReadSome(char* to, std::size_t size) override;
    std::size_t FillSize() override;
    std::size_t CountPending() override;

    btkPlace GetSourcePlace() override;
    btkPlace GetTargetPlace() override;

    int_type underflow() override;
    std::streamsize xsgetn(char* to, std::streamsize count) override;
    int_type overflow(int_type byte) override;
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
    // The position in the file of the end of the get area while reading, of the first pending byte while
    // writing.
    long long filePosition = 0;
    char* pendingStart = nullptr; // null while reading
    std::size_t readAhead;
    long long savedPosition = 0; // of a try view
};
