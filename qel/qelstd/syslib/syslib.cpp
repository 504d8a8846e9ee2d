#include "syslib.h"

#include <limits>
#include <string>

#include <qel/base/btksystem.h>
#include <qel/base/ctenv.h>
#include <qel/platform/environment.h>

namespace {

constexpr DWORD nameSize = 256;

/// The name that `ask` writes into a buffer; null when it fails, which is reported.
template<class Ask>
xstring askName(Ask ask, sysErrorCode failure, const char* function)
{
    char name[nameSize];
    DWORD size = nameSize;
    if (ask(name, &size))
        return name;
    sysHandleKnownError(failure, function, nullptr);
    return {};
}

} // namespace

xstring sysGetCurHostName()
{
    return askName(GetComputerNameA, sysCantGetHostName, "sysGetCurHostName");
}

xstring sysGetCurUserName()
{
    return askName(GetUserNameA, sysCantGetUserName, "sysGetCurUserName");
}

xstring sysGetPlatform()
{
    return ZUN_MACHINE_TYPE;
}

xstring sysGetOSType()
{
    return ZUN_OS_TYPE;
}

xstring sysGetEnv(const char* name)
{
    std::string value;
    return qelIsObject(name) && Getenv(name, value) ? xstring(value.c_str()) : xstring();
}

void sysPutEnv(const char* name, const char* value)
{
    if (!qelIsObject(name) || !qelIsObject(value) || !Putenv(name, value))
        sysHandleKnownError(sysCantPutEnv, "sysPutEnv", name);
}

int sysOSCall(const char* command)
{
    return System(qelIsObject(command) ? command : nullptr);
}

void sysSleep(int seconds)
{
    constexpr DWORD perSecond = 1000;
    constexpr int longest = std::numeric_limits<DWORD>::max() / perSecond; // of one call
    for (; seconds > longest; seconds -= longest)
        Sleep(longest * perSecond);
    if (seconds > 0)
        Sleep(static_cast<DWORD>(seconds) * perSecond);
}
