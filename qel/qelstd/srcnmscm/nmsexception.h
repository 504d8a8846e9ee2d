#pragma once

#include <iosfwd>

#include <qel/qelexception.h>

class nmsRecord;

// The failures of a name-service proxy, thrown as `xthrowable*`. The description is the line that reports the
// status. All are counted. A record in an exception is the caller's own, not counted: it is valid as long as
// the caller keeps it; Print does not need it. Each is thrown by its Throw.

/// The base of them.
///
///     try {
///         const xrchandle<nmsServerProxy> server = nmsServerProxy::ConnectLocal();
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         if (auto* const cause = failure.as<nmsXException>())
///             cause->Print(std::cerr);
///     }
class QEL_API nmsXException : public virtual qelXExternFunc
{
    QEL_OBJECT(nmsXException); // "nmsclib::XException"

public:
    nmsXException(const char* description, qelXFunc* func);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func);

    /// Writes the description, the function and the value of the subclass, a line each.
    virtual void Print(std::ostream& os);

protected:
    /// Print writes `value`, unless it is null, under the name `label`, which must outlive the exception.
    nmsXException(const char* description, qelXFunc* func, const char* label, const xstring& value);

private:
    const char* valueLabel;
    xstring shownValue;
};

/// "Can't connect locally"
QEL_FAILURE(nmsXCantConnectLocal, nmsXException);

/// "ERROR  : can't connect by name"
class QEL_API nmsXCantConnectByName : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantConnectByName); // "nmsclib::XCantConnectByName"
    QEL_FIELD(xstring, ServerName);

public:
    nmsXCantConnectByName(const char* description, qelXFunc* func, const char* serverName);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, const char* serverName);
};

/// A record could not be registered; it holds a reference to it.
class QEL_API nmsXCantRegisterRecord : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantRegisterRecord); // "nmsclib::XCantRegisterRecord"
    QEL_FIELD(nmsRecord*, Record);

public:
    nmsXCantRegisterRecord(const char* description, qelXFunc* func, nmsRecord* record);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, nmsRecord* record);
};

/// Records could not be removed; Template is the record that was to match them.
class QEL_API nmsXCantDelete : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantDelete); // "nmsclib::XCantDelete"
    QEL_FIELD(nmsRecord*, Template);

public:
    nmsXCantDelete(const char* description, qelXFunc* func, nmsRecord* pattern);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, nmsRecord* pattern);
};

/// Records could not be queried; Template is the record that was to match them.
class QEL_API nmsXCantQuery : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantQuery); // "nmsclib::XCantQuery"
    QEL_FIELD(nmsRecord*, Template);

public:
    nmsXCantQuery(const char* description, qelXFunc* func, nmsRecord* pattern);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, nmsRecord* pattern);
};

/// The name server could not be stopped.
QEL_FAILURE(nmsXCantShutdown, nmsXException);
/// The name server did not report its version.
QEL_FAILURE(nmsXCantGetVersion, nmsXException);
