#include "xportexception.h"

#include "qeltable.h"

constinit qelClass xportXCannotConnect::rtti = {
    .name = "qeljava::XCannotConnect",
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(Host), QEL_ATTR(Port)},
};

constinit qelClass xportXMsgStringTooLong::rtti = {
    .name = "qeljava::XMsgStringTooLong",
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(Msg)},
};

constinit qelClass xportXFlushFailed::rtti = {
    .name = "qeljava::XFlushFailed",
    .parents = {QEL_PARENT(qelXException)},
};

constinit qelClass xportXNullInNonOptArg::rtti = {
    .name = "qeljava::XNullInNonOptArg",
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(ParamName)},
};

constinit qelClass xportXTimeout::rtti = {
    .name = "qeljava::XTimeout",
    .parents = {QEL_PARENT(qelXException)},
    .attrs = {QEL_ATTR(OpName)},
};

xportXCannotConnect::xportXCannotConnect(const char* host, int port) : Host(host), Port(port)
{
    describe("Cannot connect");
}

void xportXCannotConnect::Throw(const char* host, int port)
{
    qelThrowNew<xportXCannotConnect>(host, port);
}

xportXMsgStringTooLong::xportXMsgStringTooLong(const char* msg) : Msg(msg)
{
    describe("Message too long");
}

void xportXMsgStringTooLong::Throw(const char* msg)
{
    qelThrowNew<xportXMsgStringTooLong>(msg);
}

xportXFlushFailed::xportXFlushFailed()
{
    describe("Flush on socket failed");
}

void xportXFlushFailed::Throw()
{
    qelThrowNew<xportXFlushFailed>();
}

xportXNullInNonOptArg::xportXNullInNonOptArg(const char* paramName) : ParamName(paramName)
{
    describe("Null passed to non optional parameter argument");
}

void xportXNullInNonOptArg::Throw(const char* paramName)
{
    qelThrowNew<xportXNullInNonOptArg>(paramName);
}

xportXNullInNonOptArg* xportXNullInNonOptArg::Create(const char* paramName)
{
    return new (pDefMemMgr) xportXNullInNonOptArg(paramName);
}

xportXTimeout::xportXTimeout(const char* opName) : OpName(opName)
{
    describe("communication timeout");
}

void xportXTimeout::Throw(const char* opName)
{
    qelThrowNew<xportXTimeout>(opName);
}
