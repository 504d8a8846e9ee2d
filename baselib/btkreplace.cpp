#include <qel/base/btkreplace.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <qel/base/btkfilepart.h>

namespace {

// ---- owner and rights

constexpr std::size_t largestAttribute = 65536; // the host's limit, for a list of names as well
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

/// Whether an attribute failed because the file system has none of its kind, or cannot hold this one: names
/// of users that a container does not have.
bool isNotKept(int error)
{
    return error == EOPNOTSUPP || error == ENOSYS || error == EINVAL;
}

bool dropList(btkHandle file, const char* name)
{
    return fremovexattr(file, name) == 0 || errno == ENODATA || isNotKept(errno);
}

/// The permission bits of the group in an access list in the host's form, within the list's mask; none when
/// it cannot be read.
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

/// Copies the attribute `name`. Its value stays in `value`, and its size in `size`.
bool copyAttribute(btkHandle from, btkHandle to, const char* name, char* value, std::size_t& size)
{
    const ssize_t count = fgetxattr(from, name, value, largestAttribute);
    size = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    if (count < 0)
        return errno == ENODATA; // removed meanwhile
    return fsetxattr(to, name, value, size, 0) == 0;
}

/// Copies what `from` has beside its mode. `mode` loses the bits of the group where its list is not kept.
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
        for (const char* name = names.get(); name < names.get() + length; name += std::strlen(name) + 1) {
            const bool isAccess = std::strcmp(name, accessList) == 0;
            const bool isDefault = std::strcmp(name, defaultList) == 0;
            if (!isAccess && !(isDefault && isFolder) && !std::string_view(name).starts_with("user."))
                continue;
            std::size_t size = 0;
            const bool copied = copyAttribute(from, to, name, value.get(), size);
            if (!copied && !isNotKept(errno))
                return false;
            if (!copied && isAccess)
                mode = (mode & ~static_cast<mode_t>(S_IRWXG)) | groupBits(value.get(), size);
            hasAccess |= copied && isAccess;
            hasDefault |= copied && isDefault;
        }
    }
    return (hasAccess || dropList(to, accessList)) && (!isFolder || hasDefault || dropList(to, defaultList));
}

// ---- names that nobody has

constexpr std::string_view mark = ".qelnew-";
constexpr std::size_t digits = 16;
constexpr int mostNames = 10000;            // to look at in a folder
constexpr int attempts = 100;               // to find a free name
constexpr long long lockedByte = 1LL << 62; // of a new file: nobody locks its content there

bool hasMark(std::string_view name)
{
    return name.size() == mark.size() + digits && name.starts_with(mark) &&
           name.find_first_not_of("0123456789abcdef", mark.size()) == std::string_view::npos;
}

bool newName(std::string& name)
{
    std::uint64_t number;
    char text[digits + 1];
    if (getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
        return false;
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(number));
    name.assign(mark).append(text);
    return true;
}

template<typename Call>
auto retried(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

/// What the host has to say about writes on closing only.
bool hasKeptWrites(const btkFd& file)
{
    btkFd copy = file.Duplicate();
    return copy && (close(copy.Release()) == 0 || errno == EINTR);
}

bool renameToFree(int folder, const char* name, const char* newName)
{
    if (renameat2(folder, name, folder, newName, RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL) // which means that the file system cannot do it
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
    return readable && retried([&] { return fsync(readable.Get()); }) == 0;
}

btkReplacement::~btkReplacement()
{
    const int error = errno;
    if (!ownName.empty() && creator == getpid())
        unlinkat(folder, ownName.c_str(), 0);
    errno = error;
}

bool btkReplacement::Create(btkHandle inFolder)
{
    folder = inFolder;
    creator = getpid();
    for (int attempt = 0; attempt < attempts; ++attempt)
        if (createOnce() || errno != EEXIST)
            return static_cast<bool>(file);
    return false;
}

/// EEXIST: another name is to be tried.
bool btkReplacement::createOnce()
{
    std::string name;
    if (!newName(name))
        return false;
    btkFd made(retried([&] {
        return openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY,
                      S_IRUSR | S_IWUSR);
    }));
    if (!made)
        return false;
    // The lock shows that the file is in use. Before it was there, the file may have been taken for a
    // left-over. It stays until the descriptor is closed.
    btkRangeLock lock(made.Get(), lockedByte, 1);
    struct stat status;
    const bool busy = lock.Try(btkRangeLock::Exclusive) == btkRangeLock::Busy;
    lock.Leave();
    if (busy || fstat(made.Get(), &status) != 0 || status.st_nlink == 0) {
        unlinkat(folder, name.c_str(), 0);
        errno = EEXIST;
        return false;
    }
    file = std::move(made);
    ownName = std::move(name);
    return true;
}

bool btkReplacement::Write(const void* content, std::size_t size)
{
    return btkWrite(file.Get(), content, size) == size;
}

bool btkReplacement::TakePlace(const char* name, Durability durability, Existing existing)
{
    if (durability == Synced && retried([&] { return fsync(file.Get()); }) != 0)
        return false;
    if (!hasKeptWrites(file))
        return false;
    const bool renamed = existing == Replaced ? renameat(folder, ownName.c_str(), folder, name) == 0
                                              : renameToFree(folder, ownName.c_str(), name);
    if (!renamed)
        return false;
    ownName.clear();
    if (durability == Synced)
        btkSyncFolder(folder);
    return true;
}

void btkReplacement::RemoveLeftOvers(btkHandle folder)
{
    btkFd own(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> names(own ? fdopendir(own.Get()) : nullptr, &closedir);
    if (names == nullptr)
        return;
    own.Release();
    const dirent* entry;
    for (int count = 0; count < mostNames && (entry = readdir(names.get())) != nullptr; ++count) {
        if (!hasMark(entry->d_name))
            continue;
        const btkFd left(
            openat(folder, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        struct stat status;
        if (!left || fstat(left.Get(), &status) != 0 || !S_ISREG(status.st_mode))
            continue;
        btkRangeLock lock(left.Get(), lockedByte, 1);
        if (lock.Try(btkRangeLock::Shared) == btkRangeLock::Held)
            unlinkat(folder, entry->d_name, 0);
    }
}
