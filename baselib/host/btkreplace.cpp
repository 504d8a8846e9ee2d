#include "btkreplace.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <qel/base/btkfilepart.h>
#include <qel/base/btkretry.h>

#include "btkprivatename_p.h"

namespace {

// ---- owner and rights

// The kernel's limit, for a list of names as well.
constexpr std::size_t largestAttribute = 65536;
constexpr const char* accessList = "system.posix_acl_access";
constexpr const char* defaultList = "system.posix_acl_default";

using Bytes = std::unique_ptr<char[]>;

Bytes room()
{
    Bytes bytes(new (std::nothrow) char[largestAttribute]);
    if (bytes == nullptr)
        errno = ENOMEM;
    return bytes;
}

/// Whether an attribute failed because the file system does not support its kind, or cannot store this one:
/// names of users that a container does not have.
bool isNotKept(int error)
{
    return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

bool dropList(btkHandle file, const char* name)
{
    // There is nearly always none, and checking is cheaper than removing.
    return fgetxattr(file, name, nullptr, 0) < 0 || fremovexattr(file, name) == 0 || errno == ENODATA ||
           isNotKept(errno);
}

/// Returns the group's permission bits of an access list in the kernel's form, within the list's mask; none
/// when it cannot be read.
mode_t groupBits(const char* list, std::size_t size)
{
    struct Entry
    {
        std::uint16_t tag;
        std::uint16_t bits;
        std::uint32_t id;
    };
    constexpr std::uint16_t groupTag = 4, maskTag = 16;
    constexpr std::size_t head = 4; // the version
    mode_t group = 0, mask = 7;
    for (std::size_t at = head; at + sizeof(Entry) <= size; at += sizeof(Entry)) {
        Entry entry;
        std::memcpy(&entry, list + at, sizeof entry);
        if (entry.tag == groupTag)
            group = entry.bits;
        if (entry.tag == maskTag)
            mask = entry.bits;
    }
    return (group & mask & 7U) << 3;
}

/// Copies the attribute `name`. Leaves its value in `value`, and its size in `size`.
bool copyAttribute(btkHandle from, btkHandle to, const char* name, char* value, std::size_t& size)
{
    const ssize_t count = fgetxattr(from, name, value, largestAttribute);
    size = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    if (count < 0)
        return errno == ENODATA; // removed meanwhile
    return fsetxattr(to, name, value, size, 0) == 0;
}

/// Copies the rights that `from` has besides its mode. `mode` loses the bits of the group where its list is
/// not supported.
bool copyAttributes(btkHandle from, btkHandle to, bool isFolder, mode_t& mode)
{
    bool hasAccess = false, hasDefault = false;
    const ssize_t some = flistxattr(from, nullptr, 0);
    if (some < 0 && !isNotKept(errno))
        return false;
    if (some > 0) {
        const Bytes names = room(), value = room();
        if (names == nullptr || value == nullptr)
            return false;
        const ssize_t length = flistxattr(from, names.get(), largestAttribute);
        if (length < 0)
            return false;
        std::size_t size = 0;
        for (const char* name = names.get(); name < names.get() + length; name += std::strlen(name) + 1) {
            hasAccess |= std::strcmp(name, accessList) == 0;
            hasDefault |= isFolder && std::strcmp(name, defaultList) == 0;
            if (std::string_view(name).starts_with("user.") &&
                !copyAttribute(from, to, name, value.get(), size) && !isNotKept(errno))
                return false;
        }
        // The lists come last: they may keep their owner from setting attributes.
        if (hasDefault && !copyAttribute(from, to, defaultList, value.get(), size)) {
            if (!isNotKept(errno))
                return false;
            hasDefault = false;
        }
        if (hasAccess && !copyAttribute(from, to, accessList, value.get(), size)) {
            if (!isNotKept(errno))
                return false;
            mode = (mode & ~static_cast<mode_t>(S_IRWXG)) | groupBits(value.get(), size);
            hasAccess = false;
        }
    }
    return (hasAccess || dropList(to, accessList)) && (!isFolder || hasDefault || dropList(to, defaultList));
}

// ---- private names

constexpr std::string_view mark = ".qelnew-";
// Scanned in a folder.
constexpr int mostNames = 10000;
// The age of a leftover link, in seconds. A link cannot be locked.
constexpr std::time_t linkAge = 60;
// To find a free name.
constexpr int attempts = 100;
// Of a new file: no lock on its content reaches there.
constexpr long long lockedByte = 1LL << 62;

bool newName(std::string& name)
{
    name = mark;
    return btkAppendDigits(name);
}

/// Removes leftovers of killed processes from the open folder. Returns the number of names scanned.
int removeLeftOvers(btkHandle folder)
{
    btkFd own(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> names(own ? fdopendir(own.Get()) : nullptr, &closedir);
    if (names == nullptr)
        return 0;
    own.Release();
    const dirent* entry;
    int count = 0;
    for (; count < mostNames && (entry = readdir(names.get())) != nullptr; ++count) {
        if (!btkIsPrivateName(entry->d_name, mark))
            continue;
        struct stat status;
        if (fstatat(folder, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISLNK(status.st_mode) && std::time(nullptr) - status.st_mtim.tv_sec > linkAge)
            unlinkat(folder, entry->d_name, 0);
        if (!S_ISREG(status.st_mode))
            continue;
        const btkFd left(
            openat(folder, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        if (!left || fstat(left.Get(), &status) != 0 || !S_ISREG(status.st_mode))
            continue;
        btkRangeLock lock(left.Get(), lockedByte, 1);
        if (lock.Try(btkRangeLock::Shared) == btkRangeLock::Held)
            unlinkat(folder, entry->d_name, 0);
    }
    return count;
}

/// The same before a replacement in the folder. The cost is amortized: after scanning many names, this thread
/// skips the scan for the next replacements in that folder, one for every 16 names.
void sweepFor(btkHandle folder)
{
    constexpr int namesForOne = 16;
    thread_local struct
    {
        dev_t device;
        ino_t number;
        // Replacements that skip the scan.
        int left;
    } last = {};
    struct stat status;
    if (fstat(folder, &status) != 0)
        return;
    if (status.st_dev == last.device && status.st_ino == last.number && last.left > 0)
        --last.left;
    else
        last = {status.st_dev, status.st_ino, removeLeftOvers(folder) / namesForOne};
}

/// Reports write errors that the operating system reports on close only.
bool hasKeptWrites(const btkFd& file)
{
    btkFd copy = file.Duplicate();
    return copy && (close(copy.Release()) == 0 || errno == EINTR);
}

/// The folder in which this process finds its open files by name.
constexpr const char* openFiles = "/proc/self/fd/";

/// Gives an open unnamed file the name `name`.
bool linkOpen(btkHandle file, int folder, const char* name)
{
    // Older kernels require a capability for the first way.
    return linkat(file, "", folder, name, AT_EMPTY_PATH) == 0 ||
           (errno == ENOENT && linkat(AT_FDCWD, (openFiles + std::to_string(file)).c_str(), folder, name,
                                      AT_SYMLINK_FOLLOW) == 0);
}

/// Whether an open unnamed file can be given a name.
bool canLinkOpen()
{
    static const bool can = access(openFiles, X_OK) == 0;
    return can;
}

bool renameToFree(int folder, const char* name, const char* newName)
{
    if (renameat2(folder, name, folder, newName, RENAME_NOREPLACE) == 0)
        return true;
    // EINVAL: the file system does not support it.
    if (errno != EINVAL)
        return false;
    return linkat(folder, name, folder, newName, 0) == 0 && unlinkat(folder, name, 0) == 0;
}

} // namespace

bool btkCopyOwner(btkHandle from, btkHandle to)
{
    struct stat old, mine;
    if (fstat(from, &old) != 0 || fstat(to, &mine) != 0)
        return false;
    return (mine.st_uid == old.st_uid && mine.st_gid == old.st_gid) ||
           fchown(to, old.st_uid, old.st_gid) == 0;
}

bool btkCopyRights(btkHandle from, btkHandle to, unsigned modeBits)
{
    struct stat old;
    if (fstat(from, &old) != 0)
        return false;
    mode_t mode = old.st_mode & modeBits & 07777;
    return copyAttributes(from, to, S_ISDIR(old.st_mode), mode) && fchmod(to, mode) == 0;
}

bool btkSyncFolder(btkHandle folder)
{
    const btkFd readable(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return readable && btkRetry([&] { return fsync(readable.Get()); }) == 0;
}

bool btkReplaceByLink(btkHandle folder, const char* text, const char* name)
{
    sweepFor(folder);
    std::string own;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (!newName(own))
            return false;
        if (symlinkat(text, folder, own.c_str()) != 0) {
            if (errno != EEXIST)
                return false;
            continue;
        }
        if (renameat(folder, own.c_str(), folder, name) == 0)
            return true;
        const int error = errno;
        const bool isSwept = unlinkat(folder, own.c_str(), 0) != 0 && errno == ENOENT;
        errno = error;
        if (!isSwept) // while this process was stopped, another took the link for a leftover
            return false;
    }
    return false;
}

bool btkMoveAside(btkHandle folder, const char* name, std::string& aside)
{
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (!newName(aside))
            return false;
        if (renameToFree(folder, name, aside.c_str()))
            return true;
        if (errno != EEXIST)
            return false;
    }
    return false;
}

btkReplacement::~btkReplacement()
{
    const int error = errno;
    if (!ownName.empty() && creator == getpid())
        unlinkat(folder, ownName.c_str(), 0);
    errno = error;
}

bool btkReplacement::Create(btkHandle inFolder, Name name)
{
    folder = inFolder;
    return create(S_IRUSR | S_IWUSR, name);
}

bool btkReplacement::create(unsigned permissions, Name name)
{
    creator = getpid();
    if (name == Unnamed && canLinkOpen()) {
        file =
            btkFd(btkRetry([&] { return openat(folder, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, permissions); }));
        if (file || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
            return static_cast<bool>(file);
    }
    sweepFor(folder);
    for (int attempt = 0; attempt < attempts; ++attempt)
        if (createNamed(permissions) || errno != EEXIST)
            return static_cast<bool>(file);
    return false;
}

bool btkReplacement::CreateBeside(const char* path)
{
    constexpr unsigned forEverybody = 0666;
    struct stat status;
    bool exists = stat(path, &status) == 0;
    if (!exists && errno == ENOENT && lstat(path, &status) == 0) {
        // The link must stay: the file is created at its target.
        const btkFd made(open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, forEverybody));
        exists = made && fstat(made.Get(), &status) == 0;
    }
    if (exists && !S_ISREG(status.st_mode))
        errno = EINVAL;
    if (exists ? !S_ISREG(status.st_mode) : errno != ENOENT)
        return false;
    const std::unique_ptr<char, void (*)(void*)> real(exists ? realpath(path, nullptr) : strdup(path),
                                                      &std::free);
    if (real == nullptr)
        return false;
    const std::string whole = real.get();
    const std::size_t last = whole.rfind('/') + 1;
    target = whole.substr(last);
    ownFolder.Reset(open(last == 0 ? "." : whole.substr(0, last).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    folder = ownFolder.Get();
    if (!ownFolder)
        return false;
    if (!exists)
        return create(forEverybody, Unnamed);
    const btkFd old(openat(folder, target.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    return old && Create(folder) && btkCopyOwner(old.Get(), file.Get()) &&
           btkCopyRights(old.Get(), file.Get());
}

bool btkReplacement::IsKeptOut(int error)
{
    return error == EACCES || error == EPERM || error == EROFS || error == ENAMETOOLONG || error == EBUSY ||
           error == EXDEV || error == EOPNOTSUPP;
}

/// EEXIST: another name must be tried.
bool btkReplacement::createNamed(unsigned permissions)
{
    std::string name;
    if (!newName(name))
        return false;
    file = btkFd(btkRetry([&] {
        return openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY,
                      permissions);
    }));
    if (!file)
        return false;
    // Before it was locked, another process may have taken the file for a leftover.
    struct stat status;
    if (!lockIt() || fstat(file.Get(), &status) != 0 || status.st_nlink == 0) {
        unlinkat(folder, name.c_str(), 0);
        file.Reset();
        errno = EEXIST;
        return false;
    }
    ownName = std::move(name);
    return true;
}

/// Marks the file as in use, until its descriptor is closed. False when another open file description has
/// marked it.
bool btkReplacement::lockIt()
{
    btkRangeLock lock(file.Get(), lockedByte, 1);
    const bool busy = lock.Try(btkRangeLock::Exclusive) == btkRangeLock::Busy;
    lock.Leave();
    return !busy;
}

/// Gives the file a private name.
bool btkReplacement::nameIt()
{
    sweepFor(folder);
    lockIt();
    std::string name;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (!newName(name))
            return false;
        if (linkOpen(file.Get(), folder, name.c_str())) {
            ownName = std::move(name);
            return true;
        }
        if (errno != EEXIST)
            return false;
    }
    return false;
}

bool btkReplacement::Write(const void* content, std::size_t size)
{
    return btkWrite(file.Get(), content, size) == size;
}

bool btkReplacement::TakePlace(const char* name, Durability durability, Existing existing)
{
    if (durability == Synced && btkRetry([&] { return fsync(file.Get()); }) != 0)
        return false;
    if (!hasKeptWrites(file))
        return false;
    const bool isPlaced =
        ownName.empty() && existing == Kept
            ? linkOpen(file.Get(), folder, name)
            : (!ownName.empty() || nameIt()) &&
                  (existing == Replaced ? renameat(folder, ownName.c_str(), folder, name) == 0
                                        : renameToFree(folder, ownName.c_str(), name));
    if (!isPlaced)
        return false;
    ownName.clear();
    if (durability == Synced)
        btkSyncFolder(folder);
    return true;
}
