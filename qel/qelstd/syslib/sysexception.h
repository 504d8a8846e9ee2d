#pragma once

#include <iosfwd>

#include <qel/qelexception.h>

/// The base of the system library's failures. They are printed, not thrown. Not counted.
///
///     sysXCantPutEnv failure("no room", nullptr, "HOME");
///     failure.Print(std::cerr);
class QEL_API sysXException : public virtual qelXExternFunc
{
    QEL_OBJECT(sysXException); // "syslib::XException"
    QEL_NOT_COUNTED;

public:
    sysXException(const char* description, qelXFunc* func);
    /// Writes the description, the function and the values, a line each.
    virtual void Print(std::ostream& os);
};

/// "Can't get host name"
QEL_FAILURE(sysXCantGetHostName, sysXException);
/// "Can't get user name"
QEL_FAILURE(sysXCantGetUserName, sysXException);

/// "Can't set environment variable"
class QEL_API sysXCantPutEnv : public virtual sysXException
{
    QEL_OBJECT(sysXCantPutEnv); // "syslib::XCantPutEnv"

public:
    sysXCantPutEnv(const char* description, qelXFunc* func, const char* var);
    void Print(std::ostream& os) override;

    virtual xstring getVar();

private:
    xstring Var;
};

/// The failures of the library by number.
enum sysErrorCode { sysCantGetHostName = 0, sysCantGetUserName = 1, sysCantPutEnv = 2, sysInternalError = 3 };

/// The text of a failure; "No description" for an unknown number.
QEL_API const char* sysGetDescription(int code);

/// Prints the exception for `code`, raised by `function`, on the standard error stream. `var` is the variable
/// that could not be set. A code without an exception prints nothing.
QEL_API void sysHandleKnownError(sysErrorCode code, const char* function, const char* var);
