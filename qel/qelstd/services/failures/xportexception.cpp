#include "xportexception.h"

#include "qelexceptionrow_p.h"

QEL_EXCEPTION(xportXCannotConnect, qelXException, "qeljava::XCannotConnect", qelNotCounted, QEL_ATTR(Host),
              QEL_ATTR(Port));
QEL_EXCEPTION(xportXMsgStringTooLong, qelXException, "qeljava::XMsgStringTooLong", qelNotCounted,
              QEL_ATTR(Msg));
QEL_EXCEPTION(xportXFlushFailed, qelXException, "qeljava::XFlushFailed", qelNotCounted);
QEL_EXCEPTION(xportXNullInNonOptArg, qelXException, "qeljava::XNullInNonOptArg", qelNotCounted,
              QEL_ATTR(ParamName));
QEL_EXCEPTION(xportXTimeout, qelXException, "qeljava::XTimeout", qelNotCounted, QEL_ATTR(OpName));

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
