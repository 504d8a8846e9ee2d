#pragma once

#include <qel/qelexport.h>

/// The result of reading a file or directory.
enum fsIOStatus {
    fsIOOk,    // done
    fsIOEnd,   // the end of the file, or no more entries
    fsIOFailed // GetLastError() gives the reason
};
/// How a file is opened.
enum fsFileMode { fsReadOnly, fsWriteOnly };
/// Where an offset counts from.
enum fsFilePosition { fsFromStart, fsFromCurrent, fsFromEnd };

/// An open file, read and written without a buffer. Nothing is thrown: a failed call returns false or
/// fsIOFailed, and GetLastError() gives the reason. Positions and sizes are bytes, truncated to whole
/// ones; one that is not a number or does not fit fails. Calls on a file that is not open fail. Used by one
/// thread at a time.
///
///     fsiFile file;
///     char start[512];
///     unsigned long done = 0;
///     if (!file.Open("/etc/hostname", fsReadOnly) || file.Read(start, sizeof start, &done) == fsIOFailed)
///         std::cerr << "error " << GetLastError() << '\n';
class QEL_API fsiFile
{
public:
    fsiFile() = default;
    fsiFile(const fsiFile&) = delete;
    fsiFile& operator=(const fsiFile&) = delete;
    /// Closes; leaves the last error as it was.
    ~fsiFile();

    /// fsReadOnly: an existing file, which others may read too. fsWriteOnly: the file is created if it is
    /// missing, and its content kept; a second writer of this kind is refused. A file that is open is closed
    /// first.
    bool Open(const char* name, fsFileMode mode);
    bool Close();

    /// One read of at most `count` bytes. `*done`, unless null, receives the number read; 0 is fsIOEnd.
    fsIOStatus Read(char* buffer, unsigned long count, unsigned long* done);
    /// Writes `count` bytes. `*done`, unless null, receives how many were written.
    fsIOStatus Write(const char* buffer, unsigned long count, unsigned long* done);

    /// Makes `size` the position and the end of the file.
    bool Truncate(double size);
    bool Seek(fsFilePosition from, double offset);

private:
    bool open = false;
    void* handle = nullptr; // of the platform
};
