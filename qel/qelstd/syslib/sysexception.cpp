#include "sysexception.h"

#include <iostream>

#include "qeltable.h"

constinit qelClass sysXException::rtti = {
    .name = "syslib::XException",
    .parents = {QEL_PARENT(qelXExternFunc)},
};

constinit qelClass sysXCantGetHostName::rtti = {
    .name = "syslib::XCantGetHostName",
    .parents = {QEL_PARENT(sysXException)},
};

constinit qelClass sysXCantGetUserName::rtti = {
    .name = "syslib::XCantGetUserName",
    .parents = {QEL_PARENT(sysXException)},
};

constinit qelClass sysXCantPutEnv::rtti = {
    .name = "syslib::XCantPutEnv",
    .parents = {QEL_PARENT(sysXException)},
    .attrs = {QEL_ATTR(Var)},
};

namespace {

template<class X>
sysXException* create(const char* text, qelXFunc* func, const char*)
{
    return new (pDefMemMgr) X(text, func);
}

sysXException* createPutEnv(const char* text, qelXFunc* func, const char* var)
{
    return new (pDefMemMgr) sysXCantPutEnv(text, func, var);
}

struct ErrorRow
{
    sysErrorCode code;
    const char* text;
    sysXException* (*create)(const char* text, qelXFunc* func, const char* var);
};

constexpr ErrorRow errors[] = {
    {sysCantGetHostName, "Can't get host name", &create<sysXCantGetHostName>},
    {sysCantGetUserName, "Can't get user name", &create<sysXCantGetUserName>},
    {sysCantPutEnv, "Can't set environment variable", &createPutEnv},
    {sysInternalError, "Internal error", nullptr},
};

} // namespace

sysXException::sysXException(const char* description, qelXFunc* func) : qelXExternFunc(description, func)
{
}

void sysXException::Print(std::ostream& os)
{
    PrintHead(os);
}

sysXCantGetHostName::sysXCantGetHostName(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), sysXException(description, func)
{
}

sysXCantGetUserName::sysXCantGetUserName(const char* description, qelXFunc* func)
    : qelXExternFunc(description, func), sysXException(description, func)
{
}

sysXCantPutEnv::sysXCantPutEnv(const char* description, qelXFunc* func, const char* var)
    : qelXExternFunc(description, func), sysXException(description, func), Var(var)
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
    for (const ErrorRow& row : errors)
        if (row.code == code)
            return row.text;
    return "No description";
}

void sysHandleKnownError(sysErrorCode code, const char* function, const char* var)
{
    for (const ErrorRow& row : errors) {
        if (row.code != code || row.create == nullptr)
            continue;
        sysXException* const failure =
            row.create(row.text, xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc(function)).get(), var);
        failure->Print(std::cerr);
        xdelete(failure);
    }
}
