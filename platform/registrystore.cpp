#include "registrystore.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <qel/base/btkenvironment.h>
#include <qel/base/btkreplace.h>
#include <qel/base/btkretry.h>
#include <qel/platform/errortable.h>
#include <qel/platform/registry.h>

namespace {

constexpr const char* systemStore = "/etc/qelstd/registry";
constexpr unsigned privateFolder = 0700;
constexpr unsigned privateFile = 0600;
constexpr unsigned sharedFolder = 0755;
constexpr unsigned sharedFile = 0644;
constexpr const char* lockFile = ".lock";
constexpr const char* unfinishedFolder = ".unfinished";

/// The deferred syncs of the thread's batch.
struct Batch
{
    int depth = 0;
    std::vector<std::pair<dev_t, btkFd>> changed; // a folder on each file system
};
thread_local Batch batch;

/// Whether the thread's batch will sync the store's file system already.
bool isInBatch(const platStore& store)
{
    return std::ranges::any_of(batch.changed,
                               [&store](const auto& other) { return other.first == store.device; });
}

std::string variable(const char* name)
{
    std::string value;
    btkEnvironment::Get(name, value);
    return value;
}

std::string userStorePath()
{
    if (const std::string config = variable("XDG_CONFIG_HOME"); config.starts_with('/'))
        return config + "/qelstd/registry";
    if (const std::string home = variable("HOME"); home.starts_with('/'))
        return home + "/.config/qelstd/registry";
    return {};
}

/// Whether `path` does not exist and its nearest existing parent is a folder, not a dangling link, which may
/// belong to an unmounted file system.
bool isAbsent(std::string path)
{
    struct stat status;
    while (lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT)
            return false;
        const std::size_t slash = path.find_last_not_of('/', path.rfind('/'));
        if (slash == std::string::npos || path.find('/') == std::string::npos)
            return true; // below the root, or the current directory
        path.resize(slash + 1);
    }
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Creates the directory `path` and its missing parents.
bool makeFolders(const std::string& path)
{
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        if (mkdir(path.substr(0, end).c_str(), privateFolder) != 0 && errno != EEXIST)
            return false;
        if (end == std::string::npos)
            return true;
    }
}

/// Warns once if other users can change the store: it holds the rights to connect to servers.
void warnOfOtherWriters(const struct stat& status, const std::string& path)
{
    static std::atomic<bool> warned = false;
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !warned.exchange(true))
        std::fprintf(stderr, "Warning: other users can write to the registry in %s\n", path.c_str());
}

/// Whether a file in the folder of a key belongs to the store.
bool isOwn(std::string_view name)
{
    return name == platNameFile || name.ends_with(".value");
}

} // namespace

std::string platStorePath(bool ofSystem)
{
    if (std::string given = variable("QELSTD_REGISTRY"); !given.empty())
        return given;
    struct stat status;
    // Any existing node takes precedence: a dangling link is an error and does not select the user's own
    // tree.
    if (ofSystem && (lstat(systemStore, &status) == 0 || (errno != ENOENT && errno != ENOTDIR)))
        return systemStore;
    return userStorePath();
}

long platStore::Open(bool ofSystem, bool create, std::shared_ptr<const platStore>& store)
{
    const std::string path = platStorePath(ofSystem);
    if (path.empty())
        return ERROR_ENVVAR_NOT_FOUND;
    const auto open = [&path] { return btkOpenAt(AT_FDCWD, path.c_str(), O_PATH | O_DIRECTORY); };
    btkFd folder(open());
    if (!folder && errno == ENOENT) {
        if (!isAbsent(path))
            return ERROR_CANT_RESOLVE_FILENAME;
        if (!create)
            return ERROR_FILE_NOT_FOUND;
        if (makeFolders(path))
            folder = btkFd(open());
    }
    struct stat status = {};
    if (!folder || fstat(folder.Get(), &status) != 0)
        return static_cast<long>(errno == ENOTDIR ? ERROR_DIRECTORY : platErrorOf(errno));
    warnOfOtherWriters(status, path);
    store =
        std::make_shared<const platStore>(platStore{std::move(folder), status.st_dev, path == systemStore});
    return ERROR_SUCCESS;
}

// ---- nodes

bool platFindSpot(int folder, const std::string& path, platSpot& spot)
{
    spot = {btkFd(), folder, {}};
    std::size_t begin = 0;
    for (std::size_t slash; (slash = path.find('/', begin)) != std::string::npos; begin = slash + 1) {
        spot.opened = btkFd(btkOpenAt(spot.folder, path.substr(begin, slash - begin).c_str(),
                                      O_PATH | O_DIRECTORY | O_NOFOLLOW));
        if (!spot.opened)
            return false;
        spot.folder = spot.opened.Get();
    }
    spot.name = path.substr(begin);
    return true;
}

btkFd platOpenInside(int folder, const std::string& path)
{
    platSpot spot;
    return btkFd(platFindSpot(folder, path, spot)
                     ? btkOpenAt(spot.folder, spot.name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW)
                     : -1);
}

btkFd platOpenFileInside(int folder, const std::string& path)
{
    platSpot spot;
    struct stat status;
    return btkFd(platFindSpot(folder, path, spot)
                     ? btkOpenRegular(spot.folder, spot.name.c_str(), O_RDONLY | O_NOFOLLOW, 0, status)
                     : -1);
}

// ---- changes

platChange::platChange(const platStore& changed) : store(changed), owner(getpid()), staging(&isOwn)
{
    const int folder = store.folder.Get();
    lock = btkFd(btkOpenAt(folder, lockFile, O_RDWR | O_CREAT | O_NOFOLLOW, privateFile));
    isReady = lock && btkRetry([this] { return flock(lock.Get(), LOCK_EX); }) == 0 &&
              staging.Open(folder, unfinishedFolder);
    if (isReady && !isInBatch(store)) // once for all changes of a batch
        staging.Sweep();
}

platChange::~platChange()
{
    // Closing would not unlock while a child forked meanwhile holds the descriptor.
    if (lock && getpid() == owner)
        flock(lock.Get(), LOCK_UN);
}

btkStaging::Kind platChange::kind() const
{
    return {batch.depth == 0, store.isShared ? sharedFile : 0, store.isShared ? sharedFolder : 0};
}

bool platChange::Replace(int folder, const char* name, std::string_view text)
{
    return staging.Replace(folder, name, text, kind()) && sync(folder);
}

bool platChange::Build(int folder, std::span<const platStep> steps)
{
    return staging.Build(folder, steps, platNameFile, kind()) && sync(folder);
}

bool platChange::RemoveTree(int folder, const char* name)
{
    return staging.Remove(folder, name) && sync(folder);
}

bool platChange::RemoveFile(int folder, const char* name)
{
    return btkStaging::IsFileOrAbsent(folder, name) && unlinkat(folder, name, 0) == 0 && sync(folder);
}

bool platChange::sync(int folder) const
{
    if (batch.depth > 0) {
        if (isInBatch(store))
            return true;
        if (btkFd kept(fcntl(staging.Get(), F_DUPFD_CLOEXEC, 0)); kept) {
            batch.changed.emplace_back(store.device, std::move(kept));
            return true;
        }
    }
    return btkSyncFolder(folder) || errno == EINVAL; // a file system that cannot sync a folder
}

// ---- batches

void platBeginBatch()
{
    ++batch.depth;
}

long platCommitBatch()
{
    long error = ERROR_SUCCESS;
    for (const auto& [device, folder] : std::exchange(batch.changed, {}))
        if (syncfs(folder.Get()) != 0)
            error = static_cast<long>(platErrorOf(errno));
    return error;
}

void platEndBatch()
{
    if (--batch.depth == 0)
        platCommitBatch();
}
