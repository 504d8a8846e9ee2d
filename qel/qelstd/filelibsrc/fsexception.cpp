#include "fsexception.h"

#include <new>

#include <qel/base/btkabort.h>
#include <qel/platform/errortable.h>

#include "fsexception_p.h"
#include "fspath_p.h"
#include "qelexceptionrow_p.h"

constinit qelClass fsXException::rtti = {
    .name = "filelib::XException",
    .counted = true,
    .parents = {QEL_PARENT(qelXExternFunc)},
    .attrs = {QEL_ATTR(Path, qelOptional)},
    .explain = [](xobject* object) -> xstring {
        self* const failure = self::cast(object);
        const xstring path = failure->getPath();
        const xstring reason = failure->getPlatformText();
        return path.isNull() ? reason : "path " + path + (reason.isNull() ? "" : ", " + reason);
    },
};
QEL_EXCEPTION(fsXIOError, fsXException, "filelib::XIOError", qelCounted);
QEL_EXCEPTION(fsXQuotaExhausted, fsXException, "filelib::XQuotaExhausted", qelCounted);
QEL_EXCEPTION(fsXDiskFull, fsXException, "filelib::XDiskFull", qelCounted);
QEL_EXCEPTION(fsXInvalidName, fsXException, "filelib::XInvalidName", qelCounted);
QEL_EXCEPTION(fsXInvalidPath, fsXException, "filelib::XInvalidPath", qelCounted);
QEL_EXCEPTION(fsXDoesNotExist, fsXException, "filelib::XDoesNotExist", qelCounted);
QEL_EXCEPTION(fsXFileExists, fsXException, "filelib::XFileExists", qelCounted);
QEL_EXCEPTION(fsXLinksNotSupported, fsXException, "filelib::XLinksNotSupported", qelCounted);
QEL_EXCEPTION(fsXNoPermission, fsXException, "filelib::XNoPermission", qelCounted);
QEL_EXCEPTION(fsXSignal, fsXException, "filelib::XSignal", qelCounted);
QEL_EXCEPTION(fsXOther, fsXException, "filelib::XOther", qelCounted);

namespace {

struct ErrorRow
{
    fsErrorCode code;
    const char* text;
    unsigned platformError; // the platform error of the row's code
    void (*raise)(const char* path, const char* text, qelXFunc* func);
};

constexpr ErrorRow errors[] = {
    {fsSuccess, "Success", ERROR_SUCCESS, nullptr},
    {fsIOError, "IO Error", ERROR_IO_DEVICE, &fsXIOError::Throw},
    {fsQuotaExhausted, "Quota Exhausted", ERROR_NOT_ENOUGH_QUOTA, &fsXQuotaExhausted::Throw},
    {fsDiskFull, "Disk Full", ERROR_DISK_FULL, &fsXDiskFull::Throw},
    {fsInvalidName, "Invalid file name", ERROR_INVALID_NAME, &fsXInvalidName::Throw},
    {fsInvalidPath, "Invalid path", ERROR_BAD_PATHNAME, &fsXInvalidPath::Throw},
    {fsDoesNotExist, "File or directory does not exist", ERROR_FILE_NOT_FOUND, &fsXDoesNotExist::Throw},
    {fsFileExists, "File exists", ERROR_FILE_EXISTS, &fsXFileExists::Throw},
    {fsLinksNotSupported, "Symbolic links not supported", ERROR_NOT_SUPPORTED, &fsXLinksNotSupported::Throw},
    {fsNoPermission, "Permission Denied", ERROR_ACCESS_DENIED, &fsXNoPermission::Throw},
    {fsSignal, "Signal caught", ERROR_OPERATION_ABORTED, &fsXSignal::Throw},
    {fsOther, "Internal error", ERROR_INVALID_PARAMETER, &fsXOther::Throw},
};

struct PlatformRow
{
    unsigned error;
    fsErrorCode code;
};

constexpr PlatformRow platformErrors[] = {
    {ERROR_FILE_NOT_FOUND, fsDoesNotExist},
    {ERROR_PATH_NOT_FOUND, fsDoesNotExist},
    {ERROR_DIRECTORY, fsDoesNotExist},
    {EPT_S_INVALID_ENTRY, fsDoesNotExist},
    {ERROR_ACCESS_DENIED, fsNoPermission},
    {ERROR_INVALID_ACCESS, fsNoPermission},
    {ERROR_NETWORK_ACCESS_DENIED, fsNoPermission},
    {ERROR_EA_ACCESS_DENIED, fsNoPermission},
    {STG_E_ACCESSDENIED, fsNoPermission},
    {E_ACCESSDENIED, fsNoPermission},
    {ERROR_SHARING_VIOLATION, fsInvalidPath},
    {ERROR_FILENAME_EXCED_RANGE, fsInvalidPath},
    {ERROR_HANDLE_DISK_FULL, fsDiskFull},
    {ERROR_DISK_FULL, fsDiskFull},
    {STG_E_MEDIUMFULL, fsDiskFull},
    {ERROR_FILE_EXISTS, fsFileExists},
    {ERROR_DIR_NOT_EMPTY, fsFileExists},
    {ERROR_ALREADY_EXISTS, fsFileExists},
    {ERROR_SIGNAL_PENDING, fsSignal},
    {ERROR_OPERATION_ABORTED, fsIOError},
    {ERROR_IO_INCOMPLETE, fsIOError},
    {ERROR_IO_PENDING, fsIOError},
    {ERROR_REGISTRY_IO_FAILED, fsIOError},
    {ERROR_IO_DEVICE, fsIOError},
    {TYPE_E_IOERROR, fsIOError},
    {ERROR_NOT_ENOUGH_QUOTA, fsQuotaExhausted},
};

} // namespace

fsXException::fsXException(const char* path, const char* description, qelXFunc* func)
    : Path(path), platformError(GetLastError())
{
    describe(description, func);
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

xstring fsXException::getPlatformText() const
{
    char text[200];
    return FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, platformError, 0, text, sizeof text, nullptr) >
                   0
               ? xstring(text)
               : xstring();
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

bool fsIsAbsence(unsigned platformError)
{
    return platformError == ERROR_FILE_NOT_FOUND || platformError == ERROR_PATH_NOT_FOUND ||
           platformError == ERROR_DIRECTORY || platformError == ERROR_FILENAME_EXCED_RANGE;
}

void fsRaise(fsErrorCode code, const char* function, const char* path, unsigned platformError)
{
    for (const ErrorRow& row : errors) {
        if (row.code != code || row.raise == nullptr)
            continue;
        SetLastError(platformError != 0 ? platformError : row.platformError);
        row.raise(path, row.text, xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc(function)).get());
    }
    if (code == fsOther)
        QEL_ABORT("The table has no row to raise.");
    fsRaise(fsOther, function, path, platformError);
}

void fsRaiseLastError(const char* function, const char* path)
{
    const unsigned error = GetLastError();
    fsRaise(fsCodeOf(error), function, path, error);
}
