#include <qel/platform/folder.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>

#include <qel/platform/errortable.h>
#include <qel/platform/filecopy.h>
#include <qel/platform/pathmapping.h>

namespace {

/// The mode of a new folder while its contents are copied: nobody else may look yet.
constexpr unsigned newFolderMode = 0700;

bool hostDone(int result)
{
    if (result == 0)
        return true;
    platFail();
    return false;
}

platNodeKind kindOf(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        return platFile;
    case S_IFDIR:
        return platDirectory;
    case S_IFLNK:
        return platLink;
    default:
        return platSpecial;
    }
}

platNodeId idOf(const struct stat& status)
{
    return {status.st_dev, status.st_ino};
}

bool isDots(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

/// Splits a host path without separators at its end into the directory and the name in it. The root, "." and
/// ".." are named "." in themselves: they have no other name that is sure.
void splitHost(const std::string& host, std::string& directory, std::string& name)
{
    const std::size_t slash = host.rfind('/');
    name = slash == std::string::npos ? host : host.substr(slash + 1);
    directory = slash == std::string::npos ? "." : host.substr(0, slash + 1);
    if (name.empty() || isDots(name.c_str())) {
        directory = host;
        name = ".";
    }
}

} // namespace

platFolder::~platFolder()
{
    const DWORD error = GetLastError();
    Close();
    SetLastError(error);
}

bool platFolder::adopt(int opened)
{
    if (opened < 0) {
        platFail();
        return false;
    }
    Close();
    descriptor = opened;
    return true;
}

bool platFolder::Open(const char* path)
{
    std::string host;
    if (!platHostPath(path, host))
        return false;
    const int opened = platOpenAt(AT_FDCWD, host.c_str(), O_RDONLY | O_DIRECTORY);
    if (opened < 0 && errno == ENOTDIR) {
        platFailWith(ERROR_DIRECTORY);
        return false;
    }
    if (opened < 0) {
        platFailOn(host);
        return false;
    }
    return adopt(opened);
}

bool platFolder::Open(const platFolder& parent, const char* name, platLinks links)
{
    return adopt(platOpenAt(parent.descriptor, name,
                            O_RDONLY | O_DIRECTORY | (links == platKeepLinks ? O_NOFOLLOW : 0)));
}

bool platFolder::OpenParent(const char* path, std::string& hostName, platLinks links)
{
    std::string host, directory;
    if (!platHostPath(path, host))
        return false;
    if (links == platFollowLinks) {
        const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(host.c_str(), nullptr),
                                                                   &std::free);
        if (resolved == nullptr)
            return hostDone(-1);
        host = resolved.get();
    }
    splitHost(platWithoutEndSeparators(std::move(host)), directory, hostName);
    const int opened = platOpenAt(AT_FDCWD, directory.c_str(), O_PATH | O_DIRECTORY);
    if (opened < 0) {
        if (errno == ENOENT)
            platFailWith(ERROR_PATH_NOT_FOUND);
        else
            platFail();
        return false;
    }
    return adopt(opened);
}

bool platFolder::OpenNearest(const char* path)
{
    std::string host;
    if (!platHostPath(path, host))
        return false;
    host = platWithoutEndSeparators(std::move(host));
    int links = O_NOFOLLOW; // the node itself; on the way to it they are followed
    for (;;) {
        const int opened = platOpenAt(AT_FDCWD, host.c_str(), O_PATH | O_DIRECTORY | links);
        if (opened >= 0)
            return adopt(opened);
        const std::size_t slash = host.rfind('/');
        if (host == "." || host == "/")
            return adopt(opened);
        host = slash == std::string::npos ? "." : platWithoutEndSeparators(host.substr(0, slash + 1));
        links = 0;
    }
}

bool platFolder::OpenHost(int from, const char* hostPath)
{
    return adopt(platOpenAt(from, hostPath, O_RDONLY | O_DIRECTORY));
}

bool platFolder::Close()
{
    const int closed = stream != nullptr ? closedir(static_cast<DIR*>(stream))
                       : descriptor >= 0 ? close(descriptor)
                                         : 0;
    stream = nullptr;
    descriptor = -1;
    return hostDone(closed);
}

bool platFolder::Read(platEntry& entry)
{
    if (stream == nullptr)
        stream = fdopendir(descriptor);
    if (stream == nullptr) {
        platFail();
        return false;
    }
    const struct dirent* found;
    do {
        errno = 0;
        found = readdir(static_cast<DIR*>(stream));
    } while (found != nullptr && isDots(found->d_name));
    if (found == nullptr) {
        if (errno != 0)
            platFail();
        else
            platFailWith(ERROR_NO_MORE_FILES);
        return false;
    }
    entry.hostName = found->d_name;
    entry.kind =
        found->d_type == DT_UNKNOWN ? Kind(found->d_name, platKeepLinks) : kindOf(DTTOIF(found->d_type));
    return true;
}

platNodeKind platFolder::Kind(const char* name, platLinks links, platNodeId* id) const
{
    struct stat status;
    if (fstatat(descriptor, name, &status, links == platKeepLinks ? AT_SYMLINK_NOFOLLOW : 0) != 0) {
        platFail();
        return platAbsent;
    }
    if (id != nullptr)
        *id = idOf(status);
    return kindOf(status.st_mode);
}

long long platFolder::Size(const char* name, platLinks links) const
{
    struct stat status;
    const bool known =
        fstatat(descriptor, name, &status, links == platKeepLinks ? AT_SYMLINK_NOFOLLOW : 0) == 0;
    return known ? status.st_size : 0;
}

bool platFolder::Create(const char* name)
{
    return hostDone(mkdirat(descriptor, name, newFolderMode));
}

bool platFolder::DeleteFile(const char* name)
{
    return hostDone(unlinkat(descriptor, name, 0));
}

bool platFolder::RemoveFolder(const char* name)
{
    return hostDone(unlinkat(descriptor, name, AT_REMOVEDIR));
}

bool platFolder::Rename(const char* name, const char* newName)
{
    return hostDone(renameat(descriptor, name, descriptor, newName));
}

bool platFolder::RemoveContents(std::size_t room, platWatcher* watcher)
{
    const auto removed = [this, watcher](const platEntry& entry, std::size_t roomInside) {
        if (entry.kind != platDirectory)
            return DeleteFile(entry.hostName);
        platFolder folder;
        return folder.Open(*this, entry.hostName, platKeepLinks) &&
               folder.RemoveContents(roomInside, watcher) && folder.Close() && RemoveFolder(entry.hostName);
    };
    platEntry entry;
    while (Read(entry)) {
        const std::size_t length = platNativeName(entry.hostName).size();
        if (length > room) {
            platFailWith(ERROR_BUFFER_OVERFLOW);
            return false;
        }
        const std::size_t roomInside = room == platNoLimit ? room : room > length ? room - length - 1 : 0;
        if (!removed(entry, roomInside) && GetLastError() != ERROR_FILE_NOT_FOUND)
            return false;
        if (watcher != nullptr && !watcher->Advance(1)) {
            platFailWith(ERROR_OPERATION_ABORTED);
            return false;
        }
    }
    return GetLastError() == ERROR_NO_MORE_FILES;
}

bool platFolder::CopyLink(const char* name, platFolder& target, const char* newName) const
{
    char text[PATH_MAX];
    const ssize_t length = readlinkat(descriptor, name, text, sizeof text);
    if (length < 0 || length == static_cast<ssize_t>(sizeof text)) {
        if (length >= 0)
            errno = ENAMETOOLONG;
        platFail();
        return false;
    }
    text[length] = '\0';
    return hostDone(symlinkat(text, target.descriptor, newName));
}

bool platFolder::CopyStatus(platFolder& target) const
{
    constexpr mode_t permissionBits = 0777;
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return hostDone(-1);
    const struct timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
    return hostDone(futimens(target.descriptor, times)) &&
           hostDone(fchmod(target.descriptor, status.st_mode & permissionBits));
}

platNodeId platFolder::Id() const
{
    struct stat status;
    return fstat(descriptor, &status) == 0 ? idOf(status) : platNodeId{};
}

bool platFolder::IsWithin(const platNodeId& other) const
{
    platNodeId here = Id();
    platDescriptor folder(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    while (!(here == other)) {
        struct stat status;
        platDescriptor above(platOpenAt(folder.get(), "..", O_PATH | O_DIRECTORY));
        if (!above || fstat(above.get(), &status) != 0 || idOf(status) == here)
            return false;
        here = idOf(status);
        folder = std::move(above);
    }
    return true;
}

platSource::~platSource()
{
    if (descriptor >= 0)
        close(descriptor);
}

bool platSource::Open(const platFolder& folder, const char* name, platLinks links)
{
    struct stat status;
    const int opened = platOpenRegular(folder.descriptor, name,
                                       O_RDONLY | (links == platKeepLinks ? O_NOFOLLOW : 0), 0, status);
    if (opened < 0)
        return hostDone(-1);
    if (descriptor >= 0)
        close(descriptor);
    descriptor = opened;
    return true;
}

bool platSource::CopyTo(platFolder& folder, const char* name, platWatcher* watcher)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return hostDone(-1);
    return hostDone(platCopyContents(descriptor, status, folder.descriptor, name, watcher) ? 0 : -1);
}
