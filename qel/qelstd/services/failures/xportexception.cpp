#include "xportexception.h"

#include "qelexceptiontext_p.h"
#include "qeltable.h"

constinit qelClass xportXCannotConnect::rtti = {.name = "qeljava::XCannotConnect",
                                                .parents = {QEL_PARENT(qelXException)},
                                                .attrs = {QEL_ATTR(Host), QEL_ATTR(Port)}};
constinit qelClass xportXMsgStringTooLong::rtti = {
    .name = "qeljava::XMsgStringTooLong", .parents = {QEL_PARENT(qelXException)}, .attrs = {QEL_ATTR(Msg)}};
constinit qelClass xportXFlushFailed::rtti = {.name = "qeljava::XFlushFailed",
                                              .parents = {QEL_PARENT(qelXException)}};
constinit qelClass xportXNullInNonOptArg::rtti = {.name = "qeljava::XNullInNonOptArg",
                                                  .parents = {QEL_PARENT(qelXException)},
                                                  .attrs = {QEL_ATTR(ParamName)}};
constinit qelClass xportXTimeout::rtti = {
    .name = "qeljava::XTimeout", .parents = {QEL_PARENT(qelXException)}, .attrs = {QEL_ATTR(OpName)}};

QEL_EXCEPTION_TEXT(xportXCannotConnect, "Cannot connect", (const char* host, int port), (host, port),
                   Host(host), Port(port))
QEL_EXCEPTION_TEXT(xportXMsgStringTooLong, "Message too long", (const char* msg), (msg), Msg(msg))
QEL_EXCEPTION_TEXT(xportXFlushFailed, "Flush on socket failed", (), ())
QEL_EXCEPTION_TEXT(xportXNullInNonOptArg, "Null passed to non optional parameter argument",
                   (const char* paramName), (paramName), ParamName(paramName))

xportXNullInNonOptArg* xportXNullInNonOptArg::Create(const char* paramName)
{
    return new (pDefMemMgr) xportXNullInNonOptArg(paramName);
}

QEL_EXCEPTION_TEXT(xportXTimeout, "communication timeout", (const char* opName), (opName), OpName(opName))
