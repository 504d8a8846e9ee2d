#include "folder.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/sysmacros.h>
#include <utility>

#include <qel/platform/filecopy.h>
#include <qel/platform/pathmapping.h>

namespace {

/// The mode of a new folder while its contents are copied: accessible to its owner only.
constexpr unsigned newFolderMode = 0700;
/// The mode bits that a copy keeps: for a folder also setgid and the sticky bit.
constexpr unsigned keptFileBits = 0777;
constexpr unsigned keptFolderBits = 03777;

/// The number of the lowest folders of a descent that are held open.
constexpr std::size_t mostOpen = 32;

/// False with `errno` set to `error`.
bool failWith(int error)
{
    errno = error;
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
/// ".." are named "." within themselves: they have no other reliable name.
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
    const int error = errno;
    Close();
    errno = error;
}

bool platFolder::adopt(int opened)
{
    if (opened < 0)
        return false;
    Close();
    descriptor = opened;
    return true;
}

bool platFolder::Open(const char* path)
{
    std::string host;
    return platHostPath(path, host) && adopt(platOpenAt(AT_FDCWD, host.c_str(), O_RDONLY | O_DIRECTORY));
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
            return false;
        host = resolved.get();
    }
    splitHost(platWithoutEndSeparators(std::move(host)), directory, hostName);
    const int opened = platOpenAt(AT_FDCWD, directory.c_str(), O_PATH | O_DIRECTORY);
    return opened < 0 && errno == ENOENT ? failWith(ENOTDIR) : adopt(opened);
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
    rest.clear();
    isReleased = isRemembered = isEnd = false;
    return closed == 0;
}

/// Closes the folder and remembers its unread entries. If they cannot be read, it stays open.
void platFolder::release()
{
    struct stat status;
    if (isReleased || fstat(descriptor, &status) != 0)
        return;
    if (stream != nullptr && !isRemembered) {
        const long position = telldir(static_cast<DIR*>(stream));
        platEntry entry;
        while (Read(entry))
            rest.push_back({entry.hostName, entry.kind});
        if (!isEnd) {
            seekdir(static_cast<DIR*>(stream), position);
            rest.clear();
            return;
        }
        std::reverse(rest.begin(), rest.end());
        isRemembered = true;
        isEnd = false;
    }
    if (stream != nullptr)
        closedir(static_cast<DIR*>(stream));
    else
        close(descriptor);
    stream = nullptr;
    descriptor = -1;
    left = idOf(status);
    isReleased = true;
}

/// Opens the released folder again, which must hold the folder `below`.
bool platFolder::regain(const platFolder& below)
{
    platDescriptor opened(platOpenAt(below.descriptor, "..", O_RDONLY | O_DIRECTORY));
    struct stat status;
    if (!opened || fstat(opened.get(), &status) != 0)
        return false;
    if (!(idOf(status) == left))
        return failWith(ENOTDIR);
    descriptor = opened.release();
    isReleased = false;
    return true;
}

bool platFolder::Read(platEntry& entry)
{
    if (isRemembered) {
        isEnd = rest.empty();
        if (isEnd)
            return false;
        given = std::move(rest.back());
        rest.pop_back();
        entry = {given.name.c_str(), given.kind};
        return true;
    }
    if (stream == nullptr)
        stream = fdopendir(descriptor);
    if (stream == nullptr)
        return false;
    const struct dirent* found;
    do {
        errno = 0;
        found = readdir(static_cast<DIR*>(stream));
    } while (found != nullptr && isDots(found->d_name));
    isEnd = found == nullptr && errno == 0;
    if (found == nullptr)
        return false;
    entry.hostName = found->d_name;
    entry.kind =
        found->d_type == DT_UNKNOWN ? Kind(found->d_name, platKeepLinks) : kindOf(DTTOIF(found->d_type));
    return true;
}

platNodeKind platFolder::Kind(const char* name, platLinks links, platNodeId* id) const
{
    struct stat status;
    if (fstatat(descriptor, name, &status, links == platKeepLinks ? AT_SYMLINK_NOFOLLOW : 0) != 0)
        return platAbsent;
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
    return mkdirat(descriptor, name, newFolderMode) == 0;
}

bool platFolder::DeleteFile(const char* name)
{
    return unlinkat(descriptor, name, 0) == 0;
}

bool platFolder::RemoveFolder(const char* name)
{
    return unlinkat(descriptor, name, AT_REMOVEDIR) == 0;
}

bool platFolder::Rename(const char* name, const char* newName)
{
    return renameat(descriptor, name, descriptor, newName) == 0;
}

bool platFolder::CopyLink(const char* name, platFolder& target, const char* newName, bool replaced) const
{
    char text[PATH_MAX];
    const ssize_t length = readlinkat(descriptor, name, text, sizeof text);
    if (length == static_cast<ssize_t>(sizeof text))
        return failWith(ENAMETOOLONG);
    if (length < 0)
        return false;
    text[length] = '\0';
    return replaced ? btkReplaceByLink(target.descriptor, text, newName)
                    : symlinkat(text, target.descriptor, newName) == 0;
}

bool platFolder::CopyStatus(platFolder& target) const
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return false;
    const struct timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
    return futimens(target.descriptor, times) == 0 &&
           btkCopyRights(descriptor, target.descriptor, keptFolderBits);
}

platNodeId platFolder::Id() const
{
    struct stat status;
    return fstat(descriptor, &status) == 0 ? idOf(status) : platNodeId{};
}

unsigned long long platFolder::Mount(const char* name, platLinks links) const
{
    struct statx status;
    const int flags = AT_EMPTY_PATH | AT_NO_AUTOMOUNT | (links == platKeepLinks ? AT_SYMLINK_NOFOLLOW : 0);
    if (statx(descriptor, name, flags, STATX_MNT_ID, &status) != 0)
        return 0;
    // Kernels without mount numbers: use the device number.
    return (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id
                                                 : makedev(status.stx_dev_major, status.stx_dev_minor);
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
        return false;
    if (descriptor >= 0)
        close(descriptor);
    descriptor = opened;
    return true;
}

bool platSource::Copy(const platFolder& folder, platWatcher* watcher)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0 || !copy.Create(folder.descriptor) ||
        !platCopyContents(descriptor, status, copy.Get(), watcher) ||
        !btkCopyRights(descriptor, copy.Get(), keptFileBits))
        return false;
    const struct timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
    return futimens(copy.Get(), times) == 0;
}

bool platSource::Place(const char* name, bool replaced)
{
    return copy.TakePlace(name, btkReplacement::Unsynced,
                          replaced ? btkReplacement::Replaced : btkReplacement::Kept);
}

// ---- trees

bool platDescent::Enter(const char* name, platLinks links)
{
    auto folder = std::make_unique<platFolder>();
    if (!folder->Open(Last(), name, links))
        return false;
    steps.push_back({std::move(folder), links == platFollowLinks});
    const std::size_t count = steps.size();
    if (count > mostOpen && !steps[count - mostOpen].isFollowed)
        steps[count - mostOpen - 1].folder->release();
    return true;
}

bool platDescent::Leave()
{
    const Step left = std::move(steps.back());
    steps.pop_back();
    return !Last().isReleased || Last().regain(*left.folder);
}

namespace {

/// The removal of a folder's contents.
class Removal
{
public:
    Removal(platFolder& folder, platTreeWatcher* told, platMounts mounts)
        : way(folder), watcher(told), mount(mounts == platOneMount ? folder.Mount() : 0)
    {
    }

    bool Run()
    {
        for (;;) {
            bool goesOn;
            platEntry entry;
            if (way.Last().Read(entry)) {
                path.append("/").append(entry.hostName);
                goesOn = isElsewhere() ? passOver() : entry.kind == platDirectory ? enter() : removeFile();
            } else if (!way.Last().IsAtEnd()) {
                const Outcome outcome = decide();
                goesOn = outcome == Outcome::again || (outcome == Outcome::left && finish());
            } else {
                goesOn = finish();
            }
            if (!goesOn || isFinished)
                return goesOn && (!isLeftAt(0) || failWith(ENOTEMPTY));
        }
    }

private:
    enum class Outcome { done, gone, left, again, ended };

    const char* name() const { return path.c_str() + path.rfind('/') + 1; }
    /// The current node is finished; the folder that holds it becomes the current one.
    bool next(Outcome outcome)
    {
        path.resize(path.rfind('/'));
        if (outcome == Outcome::done && watcher != nullptr && !watcher->Removed())
            return failWith(ECANCELED);
        return outcome != Outcome::ended;
    }

    bool isElsewhere() { return mount != 0 && way.Last().Mount(name()) != mount; }
    /// Whether the folder at `depth` will not be empty.
    bool isLeftAt(std::size_t depth) const { return leftAt && *leftAt >= depth; }
    bool passOver()
    {
        leftAt = way.Depth();
        return next(Outcome::left);
    }

    bool removeFile()
    {
        return next(attempt([this] { return way.Last().DeleteFile(name()); }));
    }

    bool enter()
    {
        const Outcome outcome = attempt([this] { return way.Enter(name(), platKeepLinks); });
        return outcome == Outcome::done || next(outcome);
    }

    /// Removes the current folder, whose contents are finished.
    bool finish()
    {
        const std::size_t depth = way.Depth();
        isFinished = depth == 0;
        if (isFinished)
            return true;
        if (!way.Leave())
            return false;
        return isLeftAt(depth) ? passOver()
                               : next(attempt([this] { return way.Last().RemoveFolder(name()); }));
    }

    template<typename Work>
    Outcome attempt(Work work)
    {
        Outcome outcome = Outcome::again;
        while (outcome == Outcome::again)
            outcome = work() ? Outcome::done : errno == ENOENT ? Outcome::gone : decide();
        return outcome;
    }

    /// How to continue with the current node after a failure.
    Outcome decide()
    {
        const int error = errno;
        const platAction action =
            watcher == nullptr ? platAction::stop : watcher->Failed(path.empty() ? path : path.substr(1));
        errno = error;
        if (action == platAction::skip)
            leftAt = way.Depth();
        return action == platAction::skip    ? Outcome::left
               : action == platAction::retry ? Outcome::again
                                             : Outcome::ended;
    }

    platDescent way;
    platTreeWatcher* watcher;
    unsigned long long mount;          // the only mount to work on; 0: all
    std::string path;                  // the current node's host names, each with a separator before it
    std::optional<std::size_t> leftAt; // the depth of the lowest folder on the path with nodes left in it
    bool isFinished = false;
};

} // namespace

bool platFolder::RemoveContents(platTreeWatcher* watcher, platMounts mounts)
{
    return Removal(*this, watcher, mounts).Run();
}
