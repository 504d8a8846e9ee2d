#include "sysexception.h"

#include <iostream>
#include <iterator>

#include "qelexceptionrow_p.h"

QEL_EXCEPTION(sysXException, qelXExternFunc, "syslib::XException", qelNotCounted);
QEL_EXCEPTION(sysXCantGetHostName, sysXException, "syslib::XCantGetHostName", qelNotCounted);
QEL_EXCEPTION(sysXCantGetUserName, sysXException, "syslib::XCantGetUserName", qelNotCounted);
QEL_EXCEPTION(sysXCantPutEnv, sysXException, "syslib::XCantPutEnv", qelNotCounted, QEL_ATTR(Var));

namespace {

// By sysErrorCode.
constexpr const char* texts[] = {"Can't get host name", "Can't get user name",
                                 "Can't set environment variable", "Internal error"};

template<class X, class... Values>
void print(sysErrorCode code, const char* function, Values... values)
{
    const xrchandle<qelXFunc> func(new (pDefMemMgr) qelXFunc(function));
    X(texts[code], func.get(), values...).Print(std::cerr);
}

} // namespace

sysXException::sysXException(const char* description, qelXFunc* func)
{
    describe(description, func);
}

void sysXException::Print(std::ostream& os)
{
    PrintHead(os);
}

sysXCantPutEnv::sysXCantPutEnv(const char* description, qelXFunc* func, const char* var)
    : sysXException(description, func), Var(var)
{
}

void sysXCantPutEnv::Print(std::ostream& os)
{
    PrintHead(os);
    PrintValue(os, "Environment variable", Var);
}

xstring sysXCantPutEnv::getVar()
{
    return Var;
}

const char* sysGetDescription(int code)
{
    return code >= 0 && code < std::ssize(texts) ? texts[code] : "No description";
}

void sysHandleKnownError(sysErrorCode code, const char* function, const char* var)
{
    switch (code) {
    case sysCantGetHostName:
        return print<sysXCantGetHostName>(code, function);
    case sysCantGetUserName:
        return print<sysXCantGetUserName>(code, function);
    case sysCantPutEnv:
        return print<sysXCantPutEnv>(code, function, var);
    case sysInternalError:
        break;
    }
}
