#pragma once

#include <qel/pcexception.h>

/// The kind of a failure of the remote shell.
enum rshError : int { rshNoDaemon, rshNoNameService, rshNoPermission, rshProtocolMismatch, rshDaemonError };
QEL_ENUM(rshError); // "rshlib::Error"

/// The base of the remote shell's failures. Thrown as an `xthrowable*`; not counted: the catcher frees it
/// with xdelete.
///
///     try {
///         const auto connection = qel::connect("rsh", 5s);
///         qel::own(rshProcess::Create(connection.get(), "ls", nullptr, nullptr, nullptr, nullptr, 0, 0));
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         if (failure.as<rshXProcess>())
///             std::cerr << failure.what() << '\n'; // why the other end did not start it
///     }
class QEL_API rshXException : public virtual xthrowable
{
    QEL_OBJECT(rshXException); // "rshlib::XException"
    QEL_NOT_COUNTED;

public:
    rshError getError() { return Error; }
    /// The text of the failure, from getMsgImpl.
    xstring getMsg();

protected:
    explicit rshXException(rshError error) : Error(error) {}
    /// The text of the error.
    virtual xstring getMsgImpl();

private:
    rshError Error;
};

/// The other end could not start the command.
class QEL_API rshXProcess : public virtual rshXException
{
    QEL_OBJECT(rshXProcess); // "rshlib::XProcess"

public:
    /// `text`: the reason given by the other end; null: none.
    rshXProcess(rshError error, pcCreateError createError, const char* text);
    [[noreturn]] static void Throw(rshError error, pcCreateError createError, const char* text);

    /// The other end's number, one of pcCreateCode; 0 when it had no pipes left.
    pcCreateError getCreateError() { return CreateError; }

protected:
    xstring getMsgImpl() override;

private:
    pcCreateError CreateError;
    xstring Text;
};

/// A failure of the server. Not thrown by this library.
class QEL_API rshXServer : public virtual rshXException
{
    QEL_OBJECT(rshXServer); // "rshlib::XServer"

public:
    explicit rshXServer(rshError error) : rshXException(error) {}
};

/// A failure to connect. Not thrown by this library.
class QEL_API rshXConnection : public virtual rshXException
{
    QEL_OBJECT(rshXConnection); // "rshlib::XConnection"

public:
    explicit rshXConnection(rshError error) : rshXException(error) {}
};
