#include "fsnodeinfo.h"

#include <qel/platform/files.h>

#include "fspath_p.h"
#include "qeltable.h"
#include "tmtime.h"

QEL_LABELS(fsNodeType, "filelib::NodeType", fsFile, fsDirectory, fsSoftLink);

constinit qelClass fsNodeInfo::rtti = {
    .name = "filelib::NodeInfo",
    .counted = true,
    .attrs = {QEL_ATTR(Type), QEL_ATTR_BY(ModTime, object.keptModTime()), QEL_ATTR(Size)},
};

namespace {

constexpr unsigned typeMask = 0xF000;
constexpr unsigned directoryType = 0x4000;
constexpr unsigned fileType = 0x8000;
constexpr unsigned linkType = 0xA000;

long long wide(DWORD high, DWORD low)
{
    return static_cast<long long>((static_cast<unsigned long long>(high) << 32) | low);
}

} // namespace

fsNodeInfo::fsNodeInfo(const fsNodeInfo& other)
    : xobject(other), valid(other.valid), mode(other.mode), size(other.size), modified(other.modified)
{
}

fsNodeInfo::~fsNodeInfo()
{
    xdelete(qelObjectOf(kept));
}

unsigned char fsNodeInfo::Initialize(const char* path)
{
    WIN32_FILE_ATTRIBUTE_DATA status;
    if (!GetFileAttributesExA(fsTextOf(path), GetFileExInfoStandard, &status))
        return 0;
    mode = (status.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? directoryType : fileType;
    size = wide(status.nFileSizeHigh, status.nFileSizeLow);
    modified = platSecondsOf(status.ftLastWriteTime);
    valid = true;
    return 1;
}

fsNodeType fsNodeInfo::getType()
{
    switch (mode & typeMask) {
    case linkType:
        return fsSoftLink;
    case directoryType:
        return fsDirectory;
    default:
        return fsFile;
    }
}

tmTime* fsNodeInfo::getModTime()
{
    return new (pDefMemMgr) tmTime(static_cast<long>(modified));
}

double fsNodeInfo::getSize()
{
    return static_cast<double>(size);
}

tmTime* fsNodeInfo::keptModTime()
{
    // The same object each time: variants that were read before refer to it.
    if (kept == nullptr)
        kept = getModTime();
    kept->setAbsTime(static_cast<double>(modified));
    return kept;
}
