#include "nmsexception.h"

#include <string>

#include "qeltable.h"
#include "recnms.h"
#include "xiolib.h"

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

namespace {

// The fields of a record, `name=value` between blanks; null for none.
xstring TextOf(nmsRecord* record)
{
    if (!qelIsObject(record))
        return nullptr;
    const xrchandle<xstringdictionary> fields = record->getFields();
    std::string text;
    xstring name, value;
    for (int slot = 0; slot < fields->getarraysize(); ++slot)
        if (fields->getkeybyindex(slot, &name) && fields->getbyindex(slot, &value))
            text.append(text.empty() ? "" : " ")
                .append(name.CastToCString())
                .append("=")
                .append(value.CastToCString());
    return text.c_str();
}

} // namespace

nmsXException::nmsXException(const char* description, qelXFunc* func) : qelXExternFunc(description, func)
{
}

void nmsXException::Throw(const char* description, qelXFunc* func)
{
    qelThrowNew<nmsXException>(description, func);
}

void nmsXException::Print(std::ostream& os)
{
    PrintHead(os);
}

nmsXCantConnectLocal::nmsXCantConnectLocal(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), nmsXException(description, func)
{
}

void nmsXCantConnectLocal::Throw(const char* description, qelXFunc* func)
{
    qelThrowNew<nmsXCantConnectLocal>(description, func);
}

nmsXCantConnectByName::nmsXCantConnectByName(const char* description, qelXFunc* func, const char* serverName)
    : qelXExternFunc(description, func), nmsXException(description, func), ServerName(serverName)
{
}

void nmsXCantConnectByName::Throw(const char* description, qelXFunc* func, const char* serverName)
{
    qelThrowNew<nmsXCantConnectByName>(description, func, serverName);
}

void nmsXCantConnectByName::Print(std::ostream& os)
{
    nmsXException::Print(os);
    PrintValue(os, "Server", ServerName);
}

xstring nmsXCantConnectByName::getServerName()
{
    return ServerName;
}

nmsXCantRegisterRecord::nmsXCantRegisterRecord(const char* description, qelXFunc* func, nmsRecord* record)
    : qelXExternFunc(description, func), nmsXException(description, func), Record(record),
      text(TextOf(record))
{
}

void nmsXCantRegisterRecord::Throw(const char* description, qelXFunc* func, nmsRecord* record)
{
    qelThrowNew<nmsXCantRegisterRecord>(description, func, record);
}

void nmsXCantRegisterRecord::Print(std::ostream& os)
{
    nmsXException::Print(os);
    PrintValue(os, "Record", text);
}

nmsRecord* nmsXCantRegisterRecord::getRecord()
{
    return Record;
}

nmsXCantDelete::nmsXCantDelete(const char* description, qelXFunc* func, nmsRecord* pattern)
    : qelXExternFunc(description, func), nmsXException(description, func), Template(pattern),
      text(TextOf(pattern))
{
}

void nmsXCantDelete::Throw(const char* description, qelXFunc* func, nmsRecord* pattern)
{
    qelThrowNew<nmsXCantDelete>(description, func, pattern);
}

void nmsXCantDelete::Print(std::ostream& os)
{
    nmsXException::Print(os);
    PrintValue(os, "Template", text);
}

nmsRecord* nmsXCantDelete::getTemplate()
{
    return Template;
}

nmsXCantQuery::nmsXCantQuery(const char* description, qelXFunc* func, nmsRecord* pattern)
    : qelXExternFunc(description, func), nmsXException(description, func), Template(pattern),
      text(TextOf(pattern))
{
}

void nmsXCantQuery::Throw(const char* description, qelXFunc* func, nmsRecord* pattern)
{
    qelThrowNew<nmsXCantQuery>(description, func, pattern);
}

void nmsXCantQuery::Print(std::ostream& os)
{
    nmsXException::Print(os);
    PrintValue(os, "Template", text);
}

nmsRecord* nmsXCantQuery::getTemplate()
{
    return Template;
}

nmsXCantShutdown::nmsXCantShutdown(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), nmsXException(description, func)
{
}

void nmsXCantShutdown::Throw(const char* description, qelXFunc* func)
{
    qelThrowNew<nmsXCantShutdown>(description, func);
}

nmsXCantGetVersion::nmsXCantGetVersion(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), nmsXException(description, func)
{
}

void nmsXCantGetVersion::Throw(const char* description, qelXFunc* func)
{
    qelThrowNew<nmsXCantGetVersion>(description, func);
}
