#include "folder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <qel/base/btkfilecopy.h>
#include <qel/base/btkfilepart.h>
#include <qel/base/btkreplace.h>
#include <qel/base/btkruntime.h>
#include <qel/base/btkservice.h>

#include "output.h"

namespace {

constexpr btkTimeval lockLimit(30, 0);
// Lists of a large authority: 40 bytes for each certificate.
constexpr std::size_t largestFile = 64U << 20;

[[noreturn]] void failFor(const std::string& path, int error)
{
    Fail(error == ENOENT || error == EACCES ? Exit::no : Exit::peer, path, std::strerror(error));
}

} // namespace

Folder::Folder(std::string opened) : path(std::move(opened)), handle(btkOpenFolder(path.c_str()))
{
    if (!handle)
        failFor(path, errno);
}

Folder Folder::Make(const std::string& path)
{
    std::error_code failed;
    if (std::filesystem::create_directories(path, failed))
        std::filesystem::permissions(path, std::filesystem::perms::owner_all, failed);
    if (failed)
        failFor(path, failed.value());
    return Folder(path);
}

bool Folder::Has(const char* name) const
{
    std::error_code failed;
    return std::filesystem::exists(std::filesystem::symlink_status(PathOf(name), failed));
}

std::string Folder::Read(const char* name) const
{
    std::string content;
    if (!btkReadRegular(handle.Get(), name, content, largestFile) && errno != ENOENT)
        failFor(PathOf(name), errno);
    return content;
}

void Folder::Write(const char* name, const std::string& content) const
{
    btkReplacement file; // for its owner only from the start
    if (!file.Create(handle.Get()) || (btkIsSuperuser() && !btkCopyOwner(handle.Get(), file.Get())) ||
        !file.Write(content.data(), content.size()) || !file.TakePlace(name))
        failFor(PathOf(name), errno);
}

btkFd Folder::Lock() const
{
    btkPatience patience(lockLimit);
    for (;;) {
        btkFd held = btkHoldFile(PathOf(".").c_str());
        if (held)
            return held;
        if (errno != EWOULDBLOCK)
            failFor(path, errno);
        if (!patience.Rest())
            Fail(Exit::peer, path, "another process works there");
    }
}

std::vector<std::string> Folder::List() const
{
    std::vector<std::string> names;
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator(path, failed))
        names.push_back(entry.path().filename().string());
    if (failed)
        failFor(path, failed.value());
    std::sort(names.begin(), names.end());
    return names;
}
