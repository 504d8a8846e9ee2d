#pragma once

#include <qel/base/btkfd.h>
#include <qel/fspathargument.h>
#include <qel/iobasestream.h>

class xfilebuf;

/// How a file is opened.
enum ioOpenMode : int { ioReadOnly, ioWriteOnly, ioReadWrite };
QEL_ENUM(ioOpenMode); // "iolib::OpenMode"

/// Note the order: the end comes before the current position.
enum ioDirection : int { ioBegin, ioEnd, ioCur };
QEL_ENUM(ioDirection); // "iolib::Direction"

/// A stream over a file, with one position for reading and writing. ASCII form unless set otherwise. Buffered:
/// a value costs a system call only when the buffer is empty or full. Not counted: freed with xdelete.
///
///     const auto file = qel::own(ioFileStream::Open("numbers.txt", ioWriteOnly));
///     if (file == nullptr)
///         std::cerr << "numbers.txt: error " << GetLastError() << '\n';
///     else
///         file->WriteInt(42), file->Close(); // Close reports what cannot be written, by ioXStream
class QEL_API ioFileStream : public ioStream
{
    QEL_OBJECT(ioFileStream); // "iolib::FileStream"

public:
    /// Opens `path`, in native or remote form: ioReadOnly an existing file; ioWriteOnly a new one, or an
    /// existing one that is emptied; ioReadWrite, and any other value, an existing one with its content. Null
    /// when it cannot be opened; GetLastError() gives the reason. The caller owns the stream.
    static ioFileStream* Open(const char* path, ioOpenMode mode);
    template<fsPathObject P>
    static ioFileStream* Open(const P& path, ioOpenMode mode)
    {
        return Open(fsPathArgument(path), mode);
    }
    /// The same; `flag` has no meaning.
    static ioFileStream* Create(const char* path, ioOpenMode mode, unsigned char flag);
    template<fsPathObject P>
    static ioFileStream* Create(const P& path, ioOpenMode mode, unsigned char flag)
    {
        return Create(fsPathArgument(path), mode, flag);
    }
    ~ioFileStream() override;

    /// Moves the position, in bytes, and clears the end-of-file state. Later reads see the file's content at
    /// that time.
    /// @throws ioXStream  there is no such position, or buffered data cannot be written to the file; the
    ///                    position is unchanged
    void SeekOff(int offset, ioDirection dir);
    /// The position in bytes; xnullint when there is none or an int cannot hold it.
    int TellPos();
    /// The current size of the file in bytes, including bytes that other processes have appended and bytes
    /// written here; xnullint when there is none or an int cannot hold it.
    int TellSize();
    /// Truncates nothing in this version. Writes buffered data to the file.
    void Truncate(int size);
    /// The path as it was given.
    xstring getPath();

private:
    friend class monFile; // shares its file with other processes: locks and truncates it

    ioFileStream(xfilebuf* opened, const char* name, bool writable, bool readable);

    void OnClose() override;
    btkHandle GetInheritHandle() override;

    xfilebuf* fileBuf;
    xstring path;
    btkFd inheritHandle; // a second descriptor, opened on first use
};
