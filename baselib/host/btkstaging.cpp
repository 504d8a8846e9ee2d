#include "btkstaging.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <qel/base/btkretry.h>

#include "btkfilecopy.h"
#include "btkfolder.h"
#include "btkprivatename_p.h"

namespace {

constexpr unsigned privateFolder = 0700;
constexpr unsigned privateFile = 0600;

/// A unique name; empty, which no file is called, when there is none.
std::string temporaryName()
{
    std::string name;
    btkAppendDigits(name);
    return name;
}

/// Removes an unfinished file or folder, with the files in it that `owns` accepts.
void removeLeftOver(btkFolder& around, const btkEntry& found, const btkStaging::Owns& owns)
{
    const std::string name = found.hostName;
    if (found.kind == btkFile)
        around.DeleteFile(name.c_str());
    btkFolder folder;
    if (found.kind != btkDirectory || !folder.Open(around, name.c_str(), btkKeepLinks))
        return;
    btkEntry entry;
    while (folder.Read(entry))
        if (entry.kind == btkFile ? owns(entry.hostName) : !std::string_view(entry.hostName).starts_with('.'))
            removeLeftOver(folder, entry, owns);
    around.RemoveFolder(name.c_str());
}

bool writeFile(btkHandle folder, const char* name, std::string_view text, const btkStaging::Kind& kind)
{
    btkFd file(btkOpenAt(folder, name, O_WRONLY | O_CREAT | O_EXCL, privateFile));
    if (!file || btkWrite(file.Get(), text.data(), text.size()) < text.size())
        return false;
    // Flushed before its rename: after a loss of power, the old or the new content exists.
    return (kind.fileMode == 0 || fchmod(file.Get(), kind.fileMode) == 0) &&
           (!kind.isFlushed || btkRetry([&] { return fdatasync(file.Get()); }) == 0) &&
           close(file.Release()) == 0;
}

} // namespace

bool btkStaging::Open(btkHandle inFolder, const char* name)
{
    const auto open = [=] { return btkFd(btkOpenAt(inFolder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW)); };
    folder = open();
    if (!folder && errno == ENOENT && mkdirat(inFolder, name, privateFolder) == 0)
        folder = open();
    return static_cast<bool>(folder);
}

void btkStaging::removeUnfinished(std::string_view name) const
{
    const int error = errno;
    btkFolder all;
    btkEntry entry;
    if (all.OpenHost(folder.Get(), "."))
        while (all.Read(entry))
            if (name.empty() ? btkIsPrivateName(entry.hostName) : name == entry.hostName)
                removeLeftOver(all, entry, owns);
    errno = error;
}

bool btkStaging::IsFileOrAbsent(btkHandle target, const char* name)
{
    struct stat status;
    if (fstatat(target, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    errno = S_ISLNK(status.st_mode) ? ELOOP : EACCES;
    return S_ISREG(status.st_mode);
}

bool btkStaging::Replace(btkHandle target, const char* name, std::string_view text, const Kind& kind) const
{
    const std::string temporary = temporaryName();
    if (!IsFileOrAbsent(target, name))
        return false;
    if (writeFile(folder.Get(), temporary.c_str(), text, kind) &&
        renameat(folder.Get(), temporary.c_str(), target, name) == 0)
        return true;
    const int error = errno;
    unlinkat(folder.Get(), temporary.c_str(), 0);
    errno = error;
    return false;
}

bool btkStaging::makeTree(const std::string& name, std::span<const Step> steps, const char* textFile,
                          const Kind& kind) const
{
    btkFd last;
    for (const Step& step : steps) {
        const btkHandle around = last ? last.Get() : folder.Get();
        const char* const made = last ? step.folder.c_str() : name.c_str();
        if (mkdirat(around, made, privateFolder) != 0)
            return false;
        last = btkFd(btkOpenAt(around, made, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
        if (!last || (kind.folderMode != 0 && fchmod(last.Get(), kind.folderMode) != 0) ||
            (!step.text.empty() && !writeFile(last.Get(), textFile, step.text, kind)))
            return false;
    }
    return true;
}

bool btkStaging::Build(btkHandle target, std::span<const Step> steps, const char* textFile,
                       const Kind& kind) const
{
    const std::string temporary = temporaryName();
    if (makeTree(temporary, steps, textFile, kind) &&
        renameat(folder.Get(), temporary.c_str(), target, steps.front().folder.c_str()) == 0)
        return true;
    removeUnfinished(temporary);
    return false;
}

bool btkStaging::Remove(btkHandle target, const char* name) const
{
    const std::string temporary = temporaryName();
    if (renameat(target, name, folder.Get(), temporary.c_str()) != 0)
        return false;
    // The rename removes it; its remains may stay until the next sweep.
    removeUnfinished(temporary);
    return true;
}
