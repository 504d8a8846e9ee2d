#include "btkruntime.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "btkenvironment.h"
#include "btkretry.h"

namespace {

bool isOwnFolder(const std::string& path)
{
    struct stat state = {};
    return lstat(path.c_str(), &state) == 0 && S_ISDIR(state.st_mode) && state.st_uid == geteuid() &&
           (state.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

btkFd hold(const char* path, int kind)
{
    // Without waiting: the name may be that of a pipe.
    btkFd file(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file && btkRetry([&] { return flock(file.Get(), kind | LOCK_NB); }) != 0)
        file.Reset();
    return file;
}

} // namespace

std::string btkRuntimeFolder()
{
    std::string folder;
    if (btkEnvironment::GetTrusted("RUNTIME_DIRECTORY", folder)) {
        folder.resize(std::min(folder.find(':'), folder.size()));
    } else if (btkEnvironment::GetTrusted("XDG_RUNTIME_DIR", folder) && !folder.empty()) {
        folder += "/qelstd";
        mkdir(folder.c_str(), S_IRWXU);
    }
    return !folder.empty() && folder[0] == '/' && isOwnFolder(folder) ? folder : std::string();
}

btkFd btkHoldFile(const char* path)
{
    return hold(path, LOCK_EX);
}

bool btkIsHeld(const char* path)
{
    return !hold(path, LOCK_SH) && errno == EWOULDBLOCK;
}

void btkRemoveUnheld(const char* path)
{
    const btkFd held = hold(path, LOCK_EX);
    struct stat opened = {};
    struct stat named = {};
    // The name may lead to a newer file by now.
    if (held && fstat(held.Get(), &opened) == 0 && lstat(path, &named) == 0 &&
        opened.st_ino == named.st_ino && opened.st_dev == named.st_dev)
        unlink(path);
}
