#include "rshexception.h"

#include "qelexceptionrow_p.h"

QEL_LABELS(rshError, "rshlib::Error", rshNoDaemon, rshNoNameService, rshNoPermission, rshProtocolMismatch,
           rshDaemonError);

constinit qelClass rshXException::rtti = {
    .name = "rshlib::XException",
    .attrs = {QEL_ATTR(Error), QEL_ATTR(Msg, qelOptional)},
};

QEL_EXCEPTION(rshXProcess, rshXException, "rshlib::XProcess", qelNotCounted, QEL_ATTR(CreateError));
QEL_EXCEPTION(rshXServer, rshXException, "rshlib::XServer", qelNotCounted);
QEL_EXCEPTION(rshXConnection, rshXException, "rshlib::XConnection", qelNotCounted);

xstring rshXException::getMsg()
{
    return getMsgImpl();
}

xstring rshXException::getMsgImpl()
{
    static constexpr const char* texts[] = {
        "Remote shell server is not active on remote host",
        "Name Server not found",
        "No authorization to connect to remote shell",
        "Protocol mismatch",
        "Remote process launching error",
    };
    return Error >= rshNoDaemon && Error <= rshDaemonError ? texts[Error] : "Undefined error";
}

rshXProcess::rshXProcess(rshError error, pcCreateError createError, const char* text)
    : rshXException(error), CreateError(createError), Text(text)
{
}

void rshXProcess::Throw(rshError error, pcCreateError createError, const char* text)
{
    qelThrowNew<self>(error, createError, text);
}

xstring rshXProcess::getMsgImpl()
{
    return Text != nullptr ? Text : rshXException::getMsgImpl();
}
