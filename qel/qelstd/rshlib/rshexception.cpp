#include "rshexception.h"

#include "qeltable.h"

QEL_LABELS(rshError, "rshlib::Error", rshNoDaemon, rshNoNameService, rshNoPermission, rshProtocolMismatch,
           rshDaemonError);

constinit qelClass rshXException::rtti = {
    .name = "rshlib::XException",
    .attrs = {QEL_ATTR(Error), QEL_ATTR(Msg, qelOptional)},
};

constinit qelClass rshXProcess::rtti = {
    .name = "rshlib::XProcess",
    .parents = {QEL_PARENT(rshXException)},
    .attrs = {QEL_ATTR(CreateError)},
};

constinit qelClass rshXServer::rtti = {
    .name = "rshlib::XServer",
    .parents = {QEL_PARENT(rshXException)},
};

constinit qelClass rshXConnection::rtti = {
    .name = "rshlib::XConnection",
    .parents = {QEL_PARENT(rshXException)},
};

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
    xthrow(xrcunihandle<xthrowable>(new (pDefMemMgr) rshXProcess(error, createError, text)));
}

xstring rshXProcess::getMsgImpl()
{
    return Text != nullptr ? Text : rshXException::getMsgImpl();
}
