#include "netexception.h"

#include "qelexception.h"
#include "qeltable.h"

QEL_LABELS(netError, "netlib::Error", netNameServiceProblem, netInvalidAddress, netServerNotFound,
           netConnectionRefused);

constinit qelClass netXException::rtti = {
    .name = "netlib::XException",
    .attrs = {QEL_ATTR(Error), QEL_ATTR(Msg, qelOptional)},
};

void netXException::Throw(netError code, const char* text)
{
    qelThrowNew<netXException>(code, text);
}
