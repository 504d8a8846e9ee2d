#pragma once

#include <qel/xobject.h>
#include <qel/xstring.h>

class netAddress;

/// The kind of a failure of the network.
enum netError : int { netNameServiceProblem, netInvalidAddress, netServerNotFound, netConnectionRefused };
QEL_ENUM(netError); // "netlib::Error"

/// The listening socket of a server failed; not a value of the enumeration.
inline constexpr netError netListeningFailed = static_cast<netError>(4);

/// A failure of the network library. Thrown as an `xthrowable*`; not counted: the catcher frees it with
/// xdelete.
///
///     try {
///         const auto words = qel::connect("words", 5s);
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         if (auto* const cause = failure.as<netXException>(); cause && cause->getError() == netServerNotFound)
///             std::cerr << "no server of that name\n";
///     }
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

    /// The kind, or netListeningFailed.
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
