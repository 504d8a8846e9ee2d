#pragma once

#include <iosfwd>

#include <qel/qelexception.h>

/// The base of all exceptions of the file library; each failure has its own class below. All of them are
/// counted; the text and the path are copies.
///
/// An exception stores the thread's last error at its construction; the library sets that error before it
/// throws.
///
///     try {
///         fsRemove("/no/such/file", fsSimple);
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         if (auto* const cause = failure.as<fsXDoesNotExist>())
///             std::cerr << cause->getPath() << ": " << cause->getPlatformText() << '\n';
///     }
class QEL_API fsXException : public virtual qelXExternFunc
{
    QEL_OBJECT(fsXException); // "filelib::XException"

public:
    /// Null `path`: the failure concerns no path.
    fsXException(const char* path, const char* description, qelXFunc* func);
    /// A new exception, not thrown, with `path` in native form if it has one (else as given); null when
    /// memory is exhausted. The caller owns it.
    static fsXException* Create(const char* path, const char* description, qelXFunc* func);

    /// The path that the failure concerns, or null.
    virtual xstring getPath();

    /// The reason as a GetLastError() number, and as text; null when there is no text.
    unsigned getPlatformError() const { return platformError; }
    xstring getPlatformText() const;

    /// Writes the description, the function and, when there is one, the path, a line each.
    virtual void Print(std::ostream& os);

private:
    xstring Path;
    unsigned platformError;
};

/// "IO Error"
QEL_FAILURE(fsXIOError, fsXException);
/// "Quota Exhausted"
QEL_FAILURE(fsXQuotaExhausted, fsXException);
/// "Disk Full"
QEL_FAILURE(fsXDiskFull, fsXException);
/// "Invalid file name"
QEL_FAILURE(fsXInvalidName, fsXException);
/// "Invalid path"
QEL_FAILURE(fsXInvalidPath, fsXException);
/// "File or directory does not exist"
QEL_FAILURE(fsXDoesNotExist, fsXException);
/// "File exists"
QEL_FAILURE(fsXFileExists, fsXException);
/// "Symbolic links not supported"
QEL_FAILURE(fsXLinksNotSupported, fsXException);
/// "Permission Denied"
QEL_FAILURE(fsXNoPermission, fsXException);
/// "Signal caught"
QEL_FAILURE(fsXSignal, fsXException);
/// "Internal error"
QEL_FAILURE(fsXOther, fsXException);
