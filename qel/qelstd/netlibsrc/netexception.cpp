#include "netexception.h"

#include "netaddress.h"
#include "qelexception.h"
#include "qeltable.h"

QEL_LABELS(netError, "netlib::Error", netNameServiceProblem, netInvalidAddress, netServerNotFound,
           netConnectionRefused);

constinit qelClass netXException::rtti = {
    .name = "netlib::XException",
    .attrs = {QEL_ATTR(Error), QEL_ATTR(Msg, qelOptional)},
    .explain = [](xobject* failure) { return self::cast(failure)->explain(); },
};

void netXException::Throw(netError code, const char* text)
{
    qelThrowNew<netXException>(code, text);
}

void netXException::Throw(netError code, const char* text, netAddress* about)
{
    qelThrowNew<netXException>(code, text, about);
}

netXException::netXException(netError code, const char* text, netAddress* about) : error(code), msg(text)
{
    if (!qelIsObject(about))
        return;
    hostName = about->getHostName();
    portN = about->getPortN();
    serverName = about->getServerName();
}

xstring netXException::explain() const
{
    xstring facts;
    const auto add = [&facts](const char* what, const xstring& value) {
        if (!value.isNull())
            facts += (facts.isNull() ? "" : ", ") + (what + value);
    };
    add("server ", serverName);
    add("host ", hostName);
    if (portN != 0)
        add("port ", xstring::Printf("%d", portN));
    return facts;
}
