#include "btkfolder.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <utility>

#include <qel/base/btkfilecopy.h>
#include <qel/base/btkpath.h>

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

btkNodeKind kindOf(mode_t mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        return btkFile;
    case S_IFDIR:
        return btkDirectory;
    case S_IFLNK:
        return btkLink;
    default:
        return btkSpecial;
    }
}

btkNodeId idOf(const struct stat& status)
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

btkFolder::~btkFolder()
{
    const int error = errno;
    Close();
    errno = error;
}

bool btkFolder::adopt(int opened)
{
    if (opened < 0)
        return false;
    Close();
    descriptor = opened;
    return true;
}

bool btkFolder::Open(const char* path)
{
    std::string host;
    return btkHostPath(path, host) && adopt(btkOpenAt(AT_FDCWD, host.c_str(), O_RDONLY | O_DIRECTORY));
}

bool btkFolder::Open(const btkFolder& parent, const char* name, btkLinks links)
{
    return adopt(btkOpenAt(parent.descriptor, name,
                           O_RDONLY | O_DIRECTORY | (links == btkKeepLinks ? O_NOFOLLOW : 0)));
}

bool btkFolder::OpenParent(const char* path, std::string& hostName, btkLinks links)
{
    std::string host, directory;
    if (!btkHostPath(path, host))
        return false;
    if (links == btkFollowLinks) {
        const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(host.c_str(), nullptr),
                                                                   &std::free);
        if (resolved == nullptr)
            return false;
        host = resolved.get();
    }
    splitHost(btkWithoutEndSeparators(std::move(host)), directory, hostName);
    const int opened = btkOpenAt(AT_FDCWD, directory.c_str(), O_PATH | O_DIRECTORY);
    return opened < 0 && errno == ENOENT ? failWith(ENOTDIR) : adopt(opened);
}

bool btkFolder::OpenNearest(const char* path)
{
    std::string host;
    if (!btkHostPath(path, host))
        return false;
    host = btkWithoutEndSeparators(std::move(host));
    int links = O_NOFOLLOW; // the node itself; on the way to it they are followed
    for (;;) {
        const int opened = btkOpenAt(AT_FDCWD, host.c_str(), O_PATH | O_DIRECTORY | links);
        if (opened >= 0)
            return adopt(opened);
        const std::size_t slash = host.rfind('/');
        if (host == "." || host == "/")
            return adopt(opened);
        host = slash == std::string::npos ? "." : btkWithoutEndSeparators(host.substr(0, slash + 1));
        links = 0;
    }
}

bool btkFolder::OpenHost(int from, const char* hostPath)
{
    return adopt(btkOpenAt(from, hostPath, O_RDONLY | O_DIRECTORY));
}

bool btkFolder::Close()
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
void btkFolder::release()
{
    struct stat status;
    if (isReleased || fstat(descriptor, &status) != 0)
        return;
    if (stream != nullptr && !isRemembered) {
        const long position = telldir(static_cast<DIR*>(stream));
        btkEntry entry;
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
bool btkFolder::regain(const btkFolder& below)
{
    btkFd opened(btkOpenAt(below.descriptor, "..", O_RDONLY | O_DIRECTORY));
    struct stat status;
    if (!opened || fstat(opened.Get(), &status) != 0)
        return false;
    if (!(idOf(status) == left))
        return failWith(ENOTDIR);
    descriptor = opened.Release();
    isReleased = false;
    return true;
}

bool btkFolder::Read(btkEntry& entry)
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
        found->d_type == DT_UNKNOWN ? Kind(found->d_name, btkKeepLinks) : kindOf(DTTOIF(found->d_type));
    return true;
}

btkNodeKind btkFolder::Kind(const char* name, btkLinks links, btkNodeId* id) const
{
    struct stat status;
    if (fstatat(descriptor, name, &status, links == btkKeepLinks ? AT_SYMLINK_NOFOLLOW : 0) != 0)
        return btkAbsent;
    if (id != nullptr)
        *id = idOf(status);
    return kindOf(status.st_mode);
}

long long btkFolder::Size(const char* name, btkLinks links) const
{
    struct stat status;
    const bool known =
        fstatat(descriptor, name, &status, links == btkKeepLinks ? AT_SYMLINK_NOFOLLOW : 0) == 0;
    return known ? status.st_size : 0;
}

bool btkFolder::Create(const char* name)
{
    return mkdirat(descriptor, name, newFolderMode) == 0;
}

bool btkFolder::DeleteFile(const char* name)
{
    return unlinkat(descriptor, name, 0) == 0;
}

bool btkFolder::RemoveFolder(const char* name)
{
    return unlinkat(descriptor, name, AT_REMOVEDIR) == 0;
}

bool btkFolder::Rename(const char* name, const char* newName)
{
    return renameat(descriptor, name, descriptor, newName) == 0;
}

bool btkFolder::MoveAside(const char* name, std::string& aside)
{
    return btkMoveAside(descriptor, name, aside);
}

bool btkFolder::CopyLink(const char* name, btkFolder& target, const char* newName, bool replaced) const
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

bool btkFolder::CopyStatus(btkFolder& target) const
{
    struct stat status;
    if (fstat(descriptor, &status) != 0)
        return false;
    const struct timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
    return futimens(target.descriptor, times) == 0 &&
           btkCopyRights(descriptor, target.descriptor, keptFolderBits);
}

btkNodeId btkFolder::Id() const
{
    struct stat status;
    return fstat(descriptor, &status) == 0 ? idOf(status) : btkNodeId{};
}

unsigned long long btkFolder::Mount(const char* name, btkLinks links) const
{
    struct statx status;
    const int flags = AT_EMPTY_PATH | AT_NO_AUTOMOUNT | (links == btkKeepLinks ? AT_SYMLINK_NOFOLLOW : 0);
    if (statx(descriptor, name, flags, STATX_MNT_ID, &status) != 0)
        return 0;
    // Kernels without mount numbers: use the device number.
    return (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id
                                                 : makedev(status.stx_dev_major, status.stx_dev_minor);
}

bool btkFolder::IsWithin(const btkNodeId& other) const
{
    btkNodeId here = Id();
    btkFd folder(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    while (!(here == other)) {
        struct stat status;
        btkFd above(btkOpenAt(folder.Get(), "..", O_PATH | O_DIRECTORY));
        if (!above || fstat(above.Get(), &status) != 0 || idOf(status) == here)
            return false;
        here = idOf(status);
        folder = std::move(above);
    }
    return true;
}

btkSource::~btkSource()
{
    if (descriptor >= 0)
        close(descriptor);
}

bool btkSource::Open(const btkFolder& folder, const char* name, btkLinks links)
{
    struct stat status;
    const int opened = btkOpenRegular(folder.descriptor, name,
                                      O_RDONLY | (links == btkKeepLinks ? O_NOFOLLOW : 0), 0, status);
    if (opened < 0)
        return false;
    if (descriptor >= 0)
        close(descriptor);
    descriptor = opened;
    return true;
}

bool btkSource::Copy(const btkFolder& folder, btkCopyWatcher* watcher)
{
    struct stat status;
    if (fstat(descriptor, &status) != 0 || !copy.Create(folder.descriptor) ||
        !btkCopyContents(descriptor, status, copy.Get(), watcher) ||
        !btkCopyRights(descriptor, copy.Get(), keptFileBits))
        return false;
    const struct timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
    return futimens(copy.Get(), times) == 0;
}

bool btkSource::Place(const char* name, bool replaced)
{
    return copy.TakePlace(name, btkReplacement::Unsynced,
                          replaced ? btkReplacement::Replaced : btkReplacement::Kept);
}

// ---- trees

bool btkDescent::Enter(const char* name, btkLinks links)
{
    auto folder = std::make_unique<btkFolder>();
    if (!folder->Open(Last(), name, links))
        return false;
    steps.push_back({std::move(folder), links == btkFollowLinks});
    const std::size_t count = steps.size();
    if (count > mostOpen && !steps[count - mostOpen].isFollowed)
        steps[count - mostOpen - 1].folder->release();
    return true;
}

bool btkDescent::Leave()
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
    Removal(btkFolder& folder, btkTreeWatcher* told, btkMounts mounts)
        : way(folder), watcher(told), mount(mounts == btkOneMount ? folder.Mount() : 0)
    {
    }

    bool Run()
    {
        for (;;) {
            bool goesOn;
            btkEntry entry;
            if (way.Last().Read(entry)) {
                path.append("/").append(entry.hostName);
                goesOn = isElsewhere() ? passOver() : entry.kind == btkDirectory ? enter() : removeFile();
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
        const Outcome outcome = attempt([this] { return way.Enter(name(), btkKeepLinks); });
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
        const btkTreeAction action =
            watcher == nullptr ? btkTreeAction::stop : watcher->Failed(path.empty() ? path : path.substr(1));
        errno = error;
        if (action == btkTreeAction::skip)
            leftAt = way.Depth();
        return action == btkTreeAction::skip    ? Outcome::left
               : action == btkTreeAction::retry ? Outcome::again
                                                : Outcome::ended;
    }

    btkDescent way;
    btkTreeWatcher* watcher;
    unsigned long long mount;          // the only mount to work on; 0: all
    std::string path;                  // the current node's host names, each with a separator before it
    std::optional<std::size_t> leftAt; // the depth of the lowest folder on the path with nodes left in it
    bool isFinished = false;
};

} // namespace

bool btkFolder::RemoveContents(btkTreeWatcher* watcher, btkMounts mounts)
{
    return Removal(*this, watcher, mounts).Run();
}
