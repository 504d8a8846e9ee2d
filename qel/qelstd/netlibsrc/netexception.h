#pragma once

#include <qel/xobject.h>
#include <qel/xstring.h>

enum netError : int { netNameServiceProblem, netInvalidAddress, netServerNotFound, netConnectionRefused };
QEL_ENUM(netError); // "netlib::Error"

/// A failure of the network library. Thrown as an `xthrowable*`; not counted: the catcher frees it with
/// xdelete.
class QEL_API netXException : public virtual xthrowable
{
    QEL_OBJECT(netXException); // "netlib::XException"
    QEL_NOT_COUNTED;

public:
    netXException(netError code, const char* text) : error(code), msg(text) {}
    /// Throws a new one.
    [[noreturn]] static void Throw(netError code, const char* text);

    /// 4, which has no name, when the listening socket failed.
    netError getError() { return error; }
    xstring getMsg() { return msg; }

private:
    netError error;
    xstring msg;
};
