#pragma once

#include <qel/xobject.h>
#include <qel/xstring.h>

class netAddress;

/// The kind of a failure of the network.
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
    netXException(netError code, const char* text, netAddress* about);
    /// Throws a new one.
    [[noreturn]] static void Throw(netError code, const char* text);
    /// The same about a server, whose address is copied; it may be null.
    [[noreturn]] static void Throw(netError code, const char* text, netAddress* about);

    /// 4, which has no name, when the listening socket failed.
    netError getError() { return error; }
    xstring getMsg() { return msg; }

    // The server that the failure is about, which are no attributes. qelTextOf names them.

    /// Null: not known, or this machine.
    xstring getHostName() const { return hostName; }
    /// 0: not known.
    int getPortN() const { return portN; }
    /// Null: not known, or a server without a name.
    xstring getServerName() const { return serverName; }

private:
    xstring explain() const;

    netError error;
    xstring msg;
    xstring hostName;
    int portN = 0;
    xstring serverName;
};
