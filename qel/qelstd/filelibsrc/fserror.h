#pragma once

#include <iosfwd>

#include <qel/qelexception.h>

/// The base of all exceptions of the file library; each failure has its own class below. All of them are
/// counted; the text and the path are copies.
///
/// An exception stores the thread's last error at its construction; the library sets that error before it
/// throws.
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

#define QEL_FS_EXCEPTION(C)                                                            \
    class QEL_API C : public virtual fsXException                                      \
    {                                                                                  \
        QEL_OBJECT(C);                                                                 \
                                                                                       \
    public:                                                                            \
        C(const char* path, const char* description, qelXFunc* func)                   \
            : qelXExternFunc(description, func), fsXException(path, description, func) \
        {                                                                              \
        }                                                                              \
    }

QEL_FS_EXCEPTION(fsXIOError);           // "IO Error"
QEL_FS_EXCEPTION(fsXQuotaExhausted);    // "Quota Exhausted"
QEL_FS_EXCEPTION(fsXDiskFull);          // "Disk Full"
QEL_FS_EXCEPTION(fsXInvalidName);       // "Invalid file name"
QEL_FS_EXCEPTION(fsXInvalidPath);       // "Invalid path"
QEL_FS_EXCEPTION(fsXDoesNotExist);      // "File or directory does not exist"
QEL_FS_EXCEPTION(fsXFileExists);        // "File exists"
QEL_FS_EXCEPTION(fsXLinksNotSupported); // "Symbolic links not supported"
QEL_FS_EXCEPTION(fsXNoPermission);      // "Permission Denied"
QEL_FS_EXCEPTION(fsXSignal);            // "Signal caught"
QEL_FS_EXCEPTION(fsXOther);             // "Internal error"

#undef QEL_FS_EXCEPTION
