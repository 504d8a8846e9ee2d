#include "fserror.h"

#include <new>

#include <qel/base/btkabort.h>
#include <qel/platform/lasterror.h>

#include "fserror_p.h"
#include "fspath_p.h"
#include "qeltable.h"

constinit qelClass fsXException::rtti = {
    .name = "filelib::XException",
    .counted = true,
    .parents = {QEL_PARENT(qelXExternFunc)},
    .attrs = {QEL_ATTR(Path, qelOptional)},
};

#define QEL_FS_EXCEPTION(name_)            \
    constinit qelClass fs##name_::rtti = { \
        .name = "filelib::" #name_, .counted = true, .parents = {QEL_PARENT(fsXException)}}

QEL_FS_EXCEPTION(XIOError);
QEL_FS_EXCEPTION(XQuotaExhausted);
QEL_FS_EXCEPTION(XDiskFull);
QEL_FS_EXCEPTION(XInvalidName);
QEL_FS_EXCEPTION(XInvalidPath);
QEL_FS_EXCEPTION(XDoesNotExist);
QEL_FS_EXCEPTION(XFileExists);
QEL_FS_EXCEPTION(XLinksNotSupported);
QEL_FS_EXCEPTION(XNoPermission);
QEL_FS_EXCEPTION(XSignal);
QEL_FS_EXCEPTION(XOther);

namespace {

template<class X>
[[noreturn]] void throwNew(const char* path, const char* text, qelXFunc* func)
{
    qelThrowNew<X>(path, text, func);
}

struct ErrorRow
{
    fsErrorCode code;
    const char* text;
    void (*raise)(const char* path, const char* text, qelXFunc* func);
};

constexpr ErrorRow errors[] = {
    {fsSuccess, "Success", nullptr},
    {fsIOError, "IO Error", &throwNew<fsXIOError>},
    {fsQuotaExhausted, "Quota Exhausted", &throwNew<fsXQuotaExhausted>},
    {fsDiskFull, "Disk Full", &throwNew<fsXDiskFull>},
    {fsInvalidName, "Invalid file name", &throwNew<fsXInvalidName>},
    {fsInvalidPath, "Invalid path", &throwNew<fsXInvalidPath>},
    {fsDoesNotExist, "File or directory does not exist", &throwNew<fsXDoesNotExist>},
    {fsFileExists, "File exists", &throwNew<fsXFileExists>},
    {fsLinksNotSupported, "Symbolic links not supported", &throwNew<fsXLinksNotSupported>},
    {fsNoPermission, "Permission Denied", &throwNew<fsXNoPermission>},
    {fsSignal, "Signal caught", &throwNew<fsXSignal>},
    {fsOther, "Internal error", &throwNew<fsXOther>},
};

struct PlatformRow
{
    unsigned error;
    fsErrorCode code;
};

constexpr PlatformRow platformErrors[] = {
    {2, fsDoesNotExist},          // file not found
    {3, fsDoesNotExist},          // path not found
    {267, fsDoesNotExist},        // no directory
    {1751, fsDoesNotExist},       // entry not found
    {5, fsNoPermission},          // access denied
    {12, fsNoPermission},         // invalid access
    {65, fsNoPermission},         // network access denied
    {994, fsNoPermission},        // access to extended attribute denied
    {0x80030005, fsNoPermission}, // the same of storage objects,
    {0x80070005, fsNoPermission}, // and in general
    {32, fsInvalidPath},          // sharing violation
    {206, fsInvalidPath},         // name too long
    {39, fsDiskFull},             // of a handle
    {112, fsDiskFull},            // of a volume
    {0x80030070, fsDiskFull},     // medium full
    {80, fsFileExists},           // file exists
    {145, fsFileExists},          // directory not empty
    {183, fsFileExists},          // already exists
    {162, fsSignal},              // signal pending
    {995, fsIOError},             // operation aborted
    {996, fsIOError},             // incomplete
    {997, fsIOError},             // pending
    {1016, fsIOError},            // registry input or output failed
    {1117, fsIOError},            // device error
    {0x80028CA2, fsIOError},      // input or output of a type library
    {1816, fsQuotaExhausted},     // not enough quota
};

} // namespace

fsXException::fsXException(const char* path, const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), Path(path)
{
}

fsXException* fsXException::Create(const char* path, const char* description, qelXFunc* func)
{
    fsNativePath native;
    const bool hasNative = qelIsObject(path) && native.Assign(path);
    try {
        return new (pDefMemMgr) fsXException(hasNative ? native.text() : path, description, func);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

xstring fsXException::getPath()
{
    return Path;
}

void fsXException::Print(std::ostream& os)
{
    PrintHead(os);
    PrintValue(os, "Path", Path);
}

const char* fsDescription(int code)
{
    for (const ErrorRow& row : errors)
        if (row.code == code)
            return row.text;
    return "No description";
}

fsErrorCode fsCodeOf(unsigned platformError)
{
    for (const PlatformRow& row : platformErrors)
        if (row.error == platformError)
            return row.code;
    return fsOther;
}

void fsRaise(fsErrorCode code, const char* function, const char* path)
{
    for (const ErrorRow& row : errors)
        if (row.code == code && row.raise != nullptr)
            row.raise(path, row.text, xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc(function)).get());
    if (code == fsOther)
        QEL_ABORT("The table has no row to raise.");
    fsRaise(fsOther, function, path);
}

void fsRaiseLastError(const char* function, const char* path)
{
    fsRaise(fsCodeOf(GetLastError()), function, path);
}
