#pragma once

#include <iosfwd>

#include <qel/qelexception.h>

class nmsRecord;

// The failures of a name-service proxy, thrown as `xthrowable*`. The description is the line that reports the
// status. All are counted. A record in an exception is the caller's own, not counted: it is valid as long as
// the caller keeps it; Print does not need it. Each is thrown by its Throw.

/// The base of them.
class QEL_API nmsXException : public virtual qelXExternFunc
{
    QEL_OBJECT(nmsXException); // "nmsclib::XException"

public:
    nmsXException(const char* description, qelXFunc* func);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func);

    /// Writes the description, the function and the subclass's fields, a line each.
    virtual void Print(std::ostream& os);
};

/// "Can't connect locally"
class QEL_API nmsXCantConnectLocal : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantConnectLocal); // "nmsclib::XCantConnectLocal"

public:
    nmsXCantConnectLocal(const char* description, qelXFunc* func);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func);
};

/// "ERROR  : can't connect by name"
class QEL_API nmsXCantConnectByName : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantConnectByName); // "nmsclib::XCantConnectByName"

public:
    nmsXCantConnectByName(const char* description, qelXFunc* func, const char* serverName);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, const char* serverName);
    xstring getServerName();
    void Print(std::ostream& os) override;

private:
    xstring ServerName;
};

class QEL_API nmsXCantRegisterRecord : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantRegisterRecord); // "nmsclib::XCantRegisterRecord"

public:
    nmsXCantRegisterRecord(const char* description, qelXFunc* func, nmsRecord* record);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, nmsRecord* record);
    nmsRecord* getRecord();
    void Print(std::ostream& os) override;

private:
    nmsRecord* Record;
    xstring text; // of its fields
};

class QEL_API nmsXCantDelete : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantDelete); // "nmsclib::XCantDelete"

public:
    nmsXCantDelete(const char* description, qelXFunc* func, nmsRecord* pattern);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, nmsRecord* pattern);
    nmsRecord* getTemplate();
    void Print(std::ostream& os) override;

private:
    nmsRecord* Template;
    xstring text; // of its fields
};

class QEL_API nmsXCantQuery : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantQuery); // "nmsclib::XCantQuery"

public:
    nmsXCantQuery(const char* description, qelXFunc* func, nmsRecord* pattern);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func, nmsRecord* pattern);
    nmsRecord* getTemplate();
    void Print(std::ostream& os) override;

private:
    nmsRecord* Template;
    xstring text; // of its fields
};

class QEL_API nmsXCantShutdown : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantShutdown); // "nmsclib::XCantShutdown"

public:
    nmsXCantShutdown(const char* description, qelXFunc* func);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func);
};

class QEL_API nmsXCantGetVersion : public virtual nmsXException
{
    QEL_OBJECT(nmsXCantGetVersion); // "nmsclib::XCantGetVersion"

public:
    nmsXCantGetVersion(const char* description, qelXFunc* func);
    [[noreturn]] static void Throw(const char* description, qelXFunc* func);
};
