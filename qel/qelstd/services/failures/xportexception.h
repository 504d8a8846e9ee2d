#pragma once

#include <qel/qelexception.h>

// Exceptions of the framework's socket transport. Unlike the other exceptions these are not reference
// countable: the catcher frees them with xdelete, and releases do not free them. Text arguments may be null.

/// "Cannot connect"
class QEL_API xportXCannotConnect : public virtual qelXException
{
    QEL_OBJECT(xportXCannotConnect); // "qeljava::XCannotConnect"
    QEL_NOT_COUNTED;
    QEL_FIELD(xstring, Host);
    QEL_FIELD(int, Port);

public:
    xportXCannotConnect(const char* host, int port);
    [[noreturn]] static void Throw(const char* host, int port);
};

/// "Message too long"
class QEL_API xportXMsgStringTooLong : public virtual qelXException
{
    QEL_OBJECT(xportXMsgStringTooLong); // "qeljava::XMsgStringTooLong"
    QEL_NOT_COUNTED;
    QEL_FIELD(xstring, Msg);

public:
    explicit xportXMsgStringTooLong(const char* msg);
    [[noreturn]] static void Throw(const char* msg);
};

/// "Flush on socket failed"
class QEL_API xportXFlushFailed : public virtual qelXException
{
    QEL_OBJECT(xportXFlushFailed); // "qeljava::XFlushFailed"
    QEL_NOT_COUNTED;

public:
    xportXFlushFailed();
    [[noreturn]] static void Throw();
};

/// "Null passed to non optional parameter argument"
class QEL_API xportXNullInNonOptArg : public virtual qelXException
{
    QEL_OBJECT(xportXNullInNonOptArg); // "qeljava::XNullInNonOptArg"
    QEL_NOT_COUNTED;
    QEL_FIELD(xstring, ParamName);

public:
    explicit xportXNullInNonOptArg(const char* paramName);
    [[noreturn]] static void Throw(const char* paramName);
    /// Returns a new exception, not thrown. The caller owns it.
    static xportXNullInNonOptArg* Create(const char* paramName);
};

/// "communication timeout"
class QEL_API xportXTimeout : public virtual qelXException
{
    QEL_OBJECT(xportXTimeout); // "qeljava::XTimeout"
    QEL_NOT_COUNTED;
    /// The operation that timed out.
    QEL_FIELD(xstring, OpName);

public:
    explicit xportXTimeout(const char* opName);
    [[noreturn]] static void Throw(const char* opName);
};
