#include "nmsexception.h"

#include <string>

#include "qelexceptionrow_p.h"
#include "recnms.h"
#include "xiolib.h"

QEL_EXCEPTION(nmsXException, qelXExternFunc, "nmsclib::XException", qelCounted);
QEL_EXCEPTION(nmsXCantConnectLocal, nmsXException, "nmsclib::XCantConnectLocal", qelCounted);
QEL_EXCEPTION(nmsXCantConnectByName, nmsXException, "nmsclib::XCantConnectByName", qelCounted,
              QEL_ATTR(ServerName));
QEL_EXCEPTION(nmsXCantRegisterRecord, nmsXException, "nmsclib::XCantRegisterRecord", qelCounted,
              QEL_ATTR(Record));
QEL_EXCEPTION(nmsXCantDelete, nmsXException, "nmsclib::XCantDelete", qelCounted, QEL_ATTR(Template));
QEL_EXCEPTION(nmsXCantQuery, nmsXException, "nmsclib::XCantQuery", qelCounted, QEL_ATTR(Template));
QEL_EXCEPTION(nmsXCantShutdown, nmsXException, "nmsclib::XCantShutdown", qelCounted);
QEL_EXCEPTION(nmsXCantGetVersion, nmsXException, "nmsclib::XCantGetVersion", qelCounted);

namespace {

// The fields of a record, `name=value` between blanks; null for none.
xstring textOf(nmsRecord* record)
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

nmsXException::nmsXException(const char* description, qelXFunc* func)
    : nmsXException(description, func, nullptr, nullptr)
{
}

nmsXException::nmsXException(const char* description, qelXFunc* func, const char* label, const xstring& value)
    : valueLabel(label), shownValue(value)
{
    describe(description, func);
}

void nmsXException::Throw(const char* description, qelXFunc* func)
{
    qelThrowNew<self>(description, func);
}

void nmsXException::Print(std::ostream& os)
{
    PrintHead(os);
    PrintValue(os, valueLabel, shownValue);
}

nmsXCantConnectByName::nmsXCantConnectByName(const char* description, qelXFunc* func, const char* serverName)
    : nmsXException(description, func, "Server", serverName), ServerName(serverName)
{
}

void nmsXCantConnectByName::Throw(const char* description, qelXFunc* func, const char* serverName)
{
    qelThrowNew<self>(description, func, serverName);
}

nmsXCantRegisterRecord::nmsXCantRegisterRecord(const char* description, qelXFunc* func, nmsRecord* record)
    : nmsXException(description, func, "Record", textOf(record)), Record(record)
{
}

void nmsXCantRegisterRecord::Throw(const char* description, qelXFunc* func, nmsRecord* record)
{
    qelThrowNew<self>(description, func, record);
}

nmsXCantDelete::nmsXCantDelete(const char* description, qelXFunc* func, nmsRecord* pattern)
    : nmsXException(description, func, "Template", textOf(pattern)), Template(pattern)
{
}

void nmsXCantDelete::Throw(const char* description, qelXFunc* func, nmsRecord* pattern)
{
    qelThrowNew<self>(description, func, pattern);
}

nmsXCantQuery::nmsXCantQuery(const char* description, qelXFunc* func, nmsRecord* pattern)
    : nmsXException(description, func, "Template", textOf(pattern)), Template(pattern)
{
}

void nmsXCantQuery::Throw(const char* description, qelXFunc* func, nmsRecord* pattern)
{
    qelThrowNew<self>(description, func, pattern);
}
