#include "nmsexception.h"

#include "qeltable.h"
#include "recnms.h"

constinit qelClass nmsXException::rtti = {
    .name = "nmsclib::XException",
    .counted = true,
    .parents = {QEL_PARENT(qelXExternFunc)},
};

constinit qelClass nmsXCantConnectLocal::rtti = {
    .name = "nmsclib::XCantConnectLocal",
    .counted = true,
    .parents = {QEL_PARENT(nmsXException)},
};

constinit qelClass nmsXCantConnectByName::rtti = {
    .name = "nmsclib::XCantConnectByName",
    .counted = true,
    .parents = {QEL_PARENT(nmsXException)},
    .attrs = {QEL_ATTR(ServerName)},
};

constinit qelClass nmsXCantRegisterRecord::rtti = {
    .name = "nmsclib::XCantRegisterRecord",
    .counted = true,
    .parents = {QEL_PARENT(nmsXException)},
    .attrs = {QEL_ATTR(Record)},
};

constinit qelClass nmsXCantDelete::rtti = {
    .name = "nmsclib::XCantDelete",
    .counted = true,
    .parents = {QEL_PARENT(nmsXException)},
    .attrs = {QEL_ATTR(Template)},
};

constinit qelClass nmsXCantQuery::rtti = {
    .name = "nmsclib::XCantQuery",
    .counted = true,
    .parents = {QEL_PARENT(nmsXException)},
    .attrs = {QEL_ATTR(Template)},
};

constinit qelClass nmsXCantShutdown::rtti = {
    .name = "nmsclib::XCantShutdown",
    .counted = true,
    .parents = {QEL_PARENT(nmsXException)},
};

constinit qelClass nmsXCantGetVersion::rtti = {
    .name = "nmsclib::XCantGetVersion",
    .counted = true,
    .parents = {QEL_PARENT(nmsXException)},
};

nmsXException::nmsXException(const char* description, qelXFunc* func) : qelXExternFunc(description, func)
{
}

nmsXCantConnectLocal::nmsXCantConnectLocal(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), nmsXException(description, func)
{
}

nmsXCantConnectByName::nmsXCantConnectByName(const char* description, qelXFunc* func, const char* serverName)
    : qelXExternFunc(description, func), nmsXException(description, func), ServerName(serverName)
{
}

xstring nmsXCantConnectByName::getServerName()
{
    return ServerName;
}

nmsXCantRegisterRecord::nmsXCantRegisterRecord(const char* description, qelXFunc* func, nmsRecord* record)
    : qelXExternFunc(description, func), nmsXException(description, func), Record(record)
{
}

nmsRecord* nmsXCantRegisterRecord::getRecord()
{
    return Record;
}

nmsXCantDelete::nmsXCantDelete(const char* description, qelXFunc* func, nmsRecord* pattern)
    : qelXExternFunc(description, func), nmsXException(description, func), Template(pattern)
{
}

nmsRecord* nmsXCantDelete::getTemplate()
{
    return Template;
}

nmsXCantQuery::nmsXCantQuery(const char* description, qelXFunc* func, nmsRecord* pattern)
    : qelXExternFunc(description, func), nmsXException(description, func), Template(pattern)
{
}

nmsRecord* nmsXCantQuery::getTemplate()
{
    return Template;
}

nmsXCantShutdown::nmsXCantShutdown(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), nmsXException(description, func)
{
}

nmsXCantGetVersion::nmsXCantGetVersion(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), nmsXException(description, func)
{
}
