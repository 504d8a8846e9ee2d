#include <qel/platform/lasterror.h>

#include "filelib.h"
#include "fsexception_p.h"
#include "fspath_p.h"

namespace {

/// Takes the status of `path`. False for a node that counts as absent.
bool ask(fsNodeInfo& info, const char* path, const char* function)
{
    fsNativePath native;
    path = fsConvertSlashes(native, path, function);
    if (info.Initialize(path))
        return true;
    if (fsCodeOf(GetLastError()) == fsIOError)
        fsRaiseLastError(function, path);
    return false;
}

unsigned char isOfType(const char* path, fsNodeType type, const char* function)
{
    xauto<fsNodeInfo> info;
    return ask(info, path, function) && info.getType() == type;
}

} // namespace

xrchandle<fsNodeInfo> fsGetNodeInfo(const char* path)
{
    constexpr const char* function = "fsGetNodeInfo";
    fsNativePath native;
    path = fsCheckPathSlashes(native, path, function);
    xrchandle<fsNodeInfo> info(new (pDefMemMgr) fsNodeInfo);
    if (!info->Initialize(path))
        fsRaiseLastError(function, path);
    return info;
}

tmTime* fshGetModTime(const char* path)
{
    xauto<fsNodeInfo> info;
    return ask(info, path, "fshGetModTime") ? info.getModTime() : nullptr;
}

double fshGetSize(const char* path)
{
    xauto<fsNodeInfo> info;
    return ask(info, path, "fshGetSize") ? info.getSize() : xnullreal;
}

fsNodeType fshGetNodeType(const char* path)
{
    xauto<fsNodeInfo> info;
    return ask(info, path, "fshGetNodeType") ? info.getType() : static_cast<fsNodeType>(fsNodeAbsent);
}

unsigned char fshIsDirectory(const char* path)
{
    return isOfType(path, fsDirectory, "fshIsDirectory");
}

unsigned char fshIsFile(const char* path)
{
    return isOfType(path, fsFile, "fshIsFile");
}

unsigned char fshIsSoftLink(const char* path)
{
    return isOfType(path, fsSoftLink, "fshIsSoftLink");
}

unsigned char fshExists(const char* path)
{
    xauto<fsNodeInfo> info;
    return ask(info, path, "fshExists");
}
