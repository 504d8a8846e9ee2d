#include <algorithm>
#include <cstring>
#include <string>

#include <qel/base/btkpath.h>
#include <qel/base/ctenv.h>
#include <qel/platform/directories.h>
#include <qel/platform/errortable.h>
#include <qel/platform/files.h>

#include "filelib.h"
#include "fsexception_p.h"
#include "fspath_p.h"

namespace {

/// The value of `name` when it has 1 to `longest` bytes, else the empty text.
std::string homePart(const char* name, std::size_t longest)
{
    std::string value;
    return Getenv(name, value) && value.size() <= longest ? value : std::string();
}

/// The native form of HOME; empty when that cannot be the beginning of a path.
std::string nativeHome()
{
    std::string home, native;
    if (!Getenv("HOME", home) || !home.starts_with('/') ||
        !btkNativePath(btkWithoutEndSeparators(home), native) || native.size() > fsNativePath::maxLength)
        return {};
    return native;
}

/// The common part of creating a temporary file or directory.
xstring makeTemporary(unsigned (*make)(const char* directory, const char* prefix, unsigned unique,
                                       char* name),
                      const char* directory, const char* prefix, const char* function)
{
    char name[MAX_PATH];
    if (std::strpbrk(fsTextOf(prefix), "/\\") != nullptr)
        fsRaise(fsInvalidName, function, prefix);
    if (make(fsTextOf(directory), fsTextOf(prefix), 0, name) == 0)
        fsRaiseLastError(function, directory);
    std::replace(name, name + std::strlen(name), '/', fsSeparator);
    return name;
}

/// Cuts the last entry off. False at a root, a drive and the current directory.
bool cutToParent(std::string& path)
{
    const std::size_t root =
        std::max<std::size_t>(fsRootLength(path.c_str()), fsHasDrive(path.c_str()) ? 2 : 0);
    if (path.size() <= root || path == ".")
        return false;
    const std::size_t entry = path.find_last_not_of(fsSeparator);
    const std::size_t cut = path.find_last_of(fsSeparator, entry);
    path.resize(cut == std::string::npos ? root : std::max(cut, root));
    if (path.empty())
        path = ".";
    return true;
}

} // namespace

xstring fsGetHomeDir()
{
    constexpr std::size_t longestDrive = 3;
    constexpr std::size_t longestPath = 255;
    std::string given;
    const bool isGiven = Getenv("HOMEDRIVE", given) || Getenv("HOMEPATH", given);
    const std::string drive = homePart("HOMEDRIVE", longestDrive), path = homePart("HOMEPATH", longestPath);
    const std::string home = !isGiven                        ? nativeHome()
                             : drive.empty() || path.empty() ? std::string()
                                                             : drive + path;
    if (home.empty())
        fsRaise(fsOther, "fsGetHomeDir", nullptr);
    return home.c_str();
}

xstring fsGetCurDir()
{
    std::string directory(fsNativePath::maxLength + 1, '\0');
    for (;;) {
        const DWORD length = GetCurrentDirectoryA(static_cast<DWORD>(directory.size()), directory.data());
        if (length == 0)
            fsRaiseLastError("fsGetCurDir", nullptr);
        if (length < directory.size())
            return directory.c_str();
        directory.resize(length + 1);
    }
}

void fsChangeDir(const char* path)
{
    constexpr const char* function = "fsChangeDir";
    fsNativePath native;
    fsCheckEmpty(path, function);
    if (!SetCurrentDirectoryA(fsConvertSlashes(native, path, function)))
        fsRaiseLastError(function, path);
}

xstring fsMkTmpName(const char* directory, const char* prefix)
{
    return makeTemporary(&GetTempFileNameA, directory, prefix, "fsMkTmpName");
}

xstring fsMkTmpDir(const char* directory, const char* prefix)
{
    return makeTemporary(&platMakeTempDirectory, directory, prefix, "fsMkTmpDir");
}

double fsGetAvailableDiskSpace(const char* path)
{
    constexpr const char* function = "fsGetAvailableDiskSpace";
    fsNativePath native;
    const char* const text = fsCheckPathSlashes(native, path, function);
    std::string place = text;
    DWORD sectors, bytes, available, all;
    while (!GetDiskFreeSpaceA(place.c_str(), &sectors, &bytes, &available, &all))
        if (!fsIsAbsence(GetLastError()) || !cutToParent(place))
            fsRaiseLastError(function, text);
    return static_cast<double>(sectors) * static_cast<double>(bytes) * static_cast<double>(available);
}
