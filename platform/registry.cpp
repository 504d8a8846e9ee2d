#include <qel/platform/registry.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>

#include <qel/platform/errortable.h>
#include <qel/platform/filecopy.h>
#include <qel/platform/files.h>
#include <qel/platform/folder.h>
#include <qel/platform/registryname.h>

namespace {

/// The names in a key as they were when somebody began to enumerate them.
struct Listing
{
    std::mutex lock;
    std::vector<std::string> names;
};

/// Which names of a key.
enum Listed { listedKeys, listedValues };

} // namespace

/// An open key below a root.
struct HKEY__
{
    platDescriptor folder;
    std::string store; // the store that it belongs to, for its lock
    Listing listings[2] = {};
};

namespace {

constexpr unsigned folderMode = 0700;
constexpr unsigned fileMode = 0600;
constexpr DWORD largestValue = 16 * 1024 * 1024;
constexpr const char* lockName = "/.lock";
constexpr const char* writtenNameFile = ".name";
constexpr const char* unfinishedFile = ".new";
constexpr const char* deletedFolder = ".deleted";
constexpr std::string_view valueEnding = ".value";
constexpr std::size_t longestHead = 16384; // of a value's file, and of the file of a key's name
constexpr std::size_t longestPath = 4096;

long hostError()
{
    return static_cast<long>(platErrorOf(errno));
}

std::string storePath()
{
    if (const char* given = std::getenv("QELSTD_REGISTRY"); given != nullptr && *given != '\0')
        return given;
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config == '/')
        return std::string(config) + "/qelstd/registry";
    if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/')
        return std::string(home) + "/.config/qelstd/registry";
    return {};
}

/// Where a call works: a directory and the beginning of the paths in it.
struct Place
{
    int folder = AT_FDCWD;
    std::string prefix; // empty or with "/" at its end
    std::string store;
};

const char* rootName(HKEY key)
{
    return key == HKEY_CLASSES_ROOT ? "System" : key == HKEY_CURRENT_USER ? "User" : nullptr;
}

/// An error for a key that is none, or when nothing says where the store is.
long findPlace(HKEY key, Place& place)
{
    if (key == nullptr)
        return ERROR_INVALID_HANDLE;
    const char* root = rootName(key);
    if (root == nullptr) {
        place = {key->folder.get(), "", key->store};
        return ERROR_SUCCESS;
    }
    place.store = storePath();
    place.prefix = place.store + '/' + root + '/';
    return static_cast<long>(place.store.empty() ? ERROR_ENVVAR_NOT_FOUND : ERROR_SUCCESS);
}

/// Makes the directory `path` and those on the way to it.
bool makeFolders(const std::string& path)
{
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        if (mkdir(path.substr(0, end).c_str(), folderMode) != 0 && errno != EEXIST)
            return false;
        if (end == std::string::npos)
            return true;
    }
}

/// Says once if other users can change the store: it decides who may connect to servers.
void warnOfOtherWriters(int folder, const std::string& store)
{
    static std::atomic<bool> warned = false;
    struct stat status;
    if (fstat(folder, &status) == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !warned.exchange(true))
        std::fprintf(stderr, "Warning: other users can write to the registry in %s\n", store.c_str());
}

/// Keeps other changes to a store out, those of other processes and threads included.
class StoreLock
{
public:
    /// Makes the store when it is missing and `create` is true.
    StoreLock(const std::string& store, bool create)
    {
        const std::string path = store + lockName;
        lock = open(path);
        if (!lock && errno == ENOENT && create && makeFolders(store))
            lock = open(path);
        if (lock && platRetry([&] { return flock(lock.get(), LOCK_EX); }) != 0)
            lock = platDescriptor();
    }

    explicit operator bool() const { return static_cast<bool>(lock); }

private:
    static platDescriptor open(const std::string& path)
    {
        return platDescriptor(platOpenAt(AT_FDCWD, path.c_str(), O_RDWR | O_CREAT, fileMode));
    }

    platDescriptor lock;
};

bool writeFile(int folder, const std::string& path, std::string_view text)
{
    platDescriptor file(platOpenAt(folder, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, fileMode));
    if (!file)
        return false;
    while (!text.empty()) {
        const ssize_t count = platRetry([&] { return write(file.get(), text.data(), text.size()); });
        if (count < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    // On the disk before its name is: after a loss of power, the old value is there or the new one.
    return platRetry([&] { return fdatasync(file.get()); }) == 0 && close(file.release()) == 0;
}

/// Puts a whole file at `path`, or leaves what was there. `prefix` is the key's place in `folder`.
bool replaceFile(int folder, const std::string& prefix, const std::string& path, std::string_view text)
{
    const std::string unfinished = prefix + unfinishedFile;
    if (writeFile(folder, unfinished, text) &&
        renameat(folder, unfinished.c_str(), folder, path.c_str()) == 0)
        return true;
    const int error = errno;
    unlinkat(folder, unfinished.c_str(), 0);
    errno = error;
    return false;
}

/// Where the directories of the store begin in the paths of a place.
std::size_t partsBegin(const Place& place)
{
    return place.folder == AT_FDCWD ? place.store.size() + 1 : 0;
}

/// Makes the directories of `path` from byte `from` on, the last one only when `whole`. Answers whether any
/// was missing, or -1.
int makeParts(int folder, const std::string& path, std::size_t from, bool whole)
{
    int made = 0;
    for (std::size_t end = path.find('/', from); whole || end != std::string::npos;
         end = path.find('/', end + 1)) {
        if (mkdirat(folder, path.substr(0, end).c_str(), folderMode) == 0)
            made = 1;
        else if (errno != EEXIST)
            return -1;
        if (end == std::string::npos)
            break;
    }
    return made;
}

/// Keeps the names of the keys on `path` as they were written, where their directories do not show them.
bool keepWrittenNames(const Place& place, std::string_view path)
{
    std::string folder = place.prefix;
    while (!path.empty()) {
        const std::string_view name = path.substr(0, path.find('\\'));
        const std::string fileName = *platKeyPath(name);
        folder += fileName + '/';
        path.remove_prefix(std::min(name.size() + 1, path.size()));
        if (fileName == name || faccessat(place.folder, (folder + writtenNameFile).c_str(), F_OK, 0) == 0)
            continue;
        if (!replaceFile(place.folder, folder, folder + writtenNameFile, platWrittenName(name)))
            return false;
    }
    return true;
}

/// Removes the directories that carry parts of the long name of `path`, as far as they are empty.
void removeParts(const Place& place, std::string path)
{
    for (;;) {
        const std::size_t slash = path.rfind('/');
        if (slash == std::string::npos)
            return;
        path.resize(slash);
        if (!platIsNamePart(path) || unlinkat(place.folder, (place.prefix + path).c_str(), AT_REMOVEDIR) != 0)
            return;
    }
}

/// Whether the opened directory of a key holds subkeys.
bool hasSubkeys(platFolder& folder)
{
    platEntry entry;
    while (folder.Read(entry)) {
        if (entry.kind != platDirectory || entry.hostName[0] == '.')
            continue;
        platFolder part;
        if (!platIsNamePart(entry.hostName) || !part.Open(folder, entry.hostName, platKeepLinks) ||
            hasSubkeys(part))
            return true;
    }
    return GetLastError() != ERROR_NO_MORE_FILES;
}

/// A value's file is a line with the type's number and the name as written, then the data.
struct Value
{
    DWORD type = 0;
    std::string data;
};

std::string valueText(DWORD type, const char* name, std::string_view data)
{
    return std::to_string(type) + ' ' + platWrittenName(name) + '\n' + std::string(data);
}

/// The type and the name in the first line of a value's file. False when it has no such line.
bool parseHead(std::string_view line, DWORD& type, std::string_view& name)
{
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), type);
    if (error != std::errc() || end == line.data() + line.size() || *end != ' ')
        return false;
    name = line.substr(static_cast<std::size_t>(end + 1 - line.data()));
    return true;
}

long readValue(const Place& place, const char* name, Value& value)
{
    struct stat status;
    const platDescriptor file(
        platOpenRegular(place.folder, (place.prefix + platValuePath(name)).c_str(), O_RDONLY, 0, status));
    if (!file)
        return errno == ENOENT ? static_cast<long>(ERROR_FILE_NOT_FOUND) : hostError();
    std::string text;
    char block[4096];
    ssize_t count;
    do {
        count = platRetry([&] { return read(file.get(), block, sizeof block); });
        text.append(block, static_cast<std::size_t>(std::max(count, ssize_t{0})));
        if (text.size() > 2 * largestValue)
            return ERROR_FILE_CORRUPT;
    } while (count == sizeof block); // what is less ends the file, which never grows
    if (count < 0)
        return hostError();
    const std::size_t line = text.find('\n');
    std::string_view written;
    if (line == std::string::npos || !parseHead({text.data(), line}, value.type, written))
        return ERROR_FILE_CORRUPT;
    value.data = text.substr(line + 1);
    return ERROR_SUCCESS;
}

/// Opens the directory `path` as a key.
long openKey(const Place& place, const std::string& path, HKEY* key)
{
    platDescriptor folder(platOpenAt(place.folder, (place.prefix + path).c_str(), O_PATH | O_DIRECTORY));
    if (!folder)
        return errno == ENOENT || errno == ENOTDIR ? static_cast<long>(ERROR_FILE_NOT_FOUND) : hostError();
    if (place.folder == AT_FDCWD) {
        const platDescriptor store(platOpenAt(AT_FDCWD, place.store.c_str(), O_PATH | O_DIRECTORY));
        warnOfOtherWriters(store.get(), place.store);
    }
    *key = new HKEY__{std::move(folder), place.store};
    return ERROR_SUCCESS;
}

/// The error of a change inside a key: its directory is gone when it was deleted meanwhile.
long changeError(const Place& place)
{
    return errno == ENOENT && place.folder != AT_FDCWD ? static_cast<long>(ERROR_KEY_DELETED) : hostError();
}

// ---- enumerating

/// The first line of a file of the store; empty when there is none.
std::string firstLine(int folder, const std::string& path)
{
    struct stat status;
    const platDescriptor file(platOpenRegular(folder, path.c_str(), O_RDONLY, 0, status));
    std::string text(longestHead, '\0');
    const ssize_t count = file ? platRetry([&] { return read(file.get(), text.data(), text.size()); }) : 0;
    text.resize(static_cast<std::size_t>(std::max(count, ssize_t{0})));
    return text.substr(0, text.find('\n'));
}

/// Collects the paths of the keys or values in a key's directory. `prefix` leads to `folder`, which carries a
/// part of a long name when it is not empty.
bool collectFiles(platFolder& folder, const std::string& prefix, Listed what, std::vector<std::string>& files)
{
    platEntry entry;
    while (folder.Read(entry)) {
        const std::string path = prefix + entry.hostName;
        const platNodeKind kind =
            entry.kind == platLink ? folder.Kind(entry.hostName, platFollowLinks) : entry.kind;
        if (kind == platDirectory && platIsNamePart(entry.hostName)) {
            platFolder part;
            if (path.size() < longestPath && part.Open(folder, entry.hostName, platKeepLinks) &&
                !collectFiles(part, path + '/', what, files))
                return false;
        } else if (what == listedKeys ? kind == platDirectory && entry.hostName[0] != '.'
                                      : kind != platDirectory && path.ends_with(valueEnding)) {
            files.push_back(path);
        }
    }
    return GetLastError() == ERROR_NO_MORE_FILES;
}

/// Whether a caller can name a single key or value so.
bool canBeAsked(std::string_view name, Listed what)
{
    return name.find('\0') == std::string_view::npos &&
           (what == listedValues || name.find('\\') == std::string_view::npos);
}

/// The name of the key or value that `file` keeps, as it was written. A text that does not lead to the file
/// is not believed. Nothing when the file is none of the store's.
std::optional<std::string> nameIn(const Place& place, const std::string& file, Listed what)
{
    if (what == listedKeys) {
        std::string name =
            platNameAsWritten(firstLine(place.folder, place.prefix + file + '/' + writtenNameFile));
        if (canBeAsked(name, what) && platKeyPath(name) == file)
            return name;
        return platNameOfFile(file);
    }
    const std::string head = firstLine(place.folder, place.prefix + file);
    DWORD type;
    std::string_view written;
    if (parseHead(head, type, written)) {
        std::string name = platNameAsWritten(written);
        if (canBeAsked(name, what) && platValuePath(name) == file)
            return name;
    }
    return platNameOfFile(std::string_view(file).substr(0, file.size() - valueEnding.size()));
}

/// Whether an open key has been deleted.
bool isDeleted(const Place& place)
{
    struct stat status;
    return place.folder != AT_FDCWD && fstat(place.folder, &status) == 0 && status.st_nlink == 0;
}

long takeListing(const Place& place, Listed what, std::vector<std::string>& names)
{
    names.clear();
    platFolder folder;
    std::vector<std::string> files;
    if (!folder.OpenHost(place.folder, (place.prefix + '.').c_str()) ||
        !collectFiles(folder, "", what, files)) {
        const DWORD error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND)
            return static_cast<long>(error);
        // A root that nothing has been written to is not there.
        return static_cast<long>(place.folder == AT_FDCWD ? ERROR_SUCCESS : ERROR_KEY_DELETED);
    }
    if (files.empty() && isDeleted(place))
        return ERROR_KEY_DELETED;
    std::vector<std::pair<std::string, std::string>> inOrder; // without case, and as written
    for (const std::string& file : files)
        if (std::optional<std::string> name = nameIn(place, file, what); name && canBeAsked(*name, what)) {
            std::string order = *name;
            std::transform(order.begin(), order.end(), order.begin(), [](char c) {
                return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
            });
            inOrder.emplace_back(std::move(order), std::move(*name));
        }
    std::sort(inOrder.begin(), inOrder.end());
    for (auto& [order, name] : inOrder)
        names.push_back(std::move(name));
    return ERROR_SUCCESS;
}

Listing& listingOf(HKEY key, Listed what)
{
    static Listing ofSystem[2], ofUser[2];
    return (key == HKEY_CLASSES_ROOT ? ofSystem : key == HKEY_CURRENT_USER ? ofUser : key->listings)[what];
}

/// Copies the name `index` of a listing to a buffer, and to `found`.
long enumerate(HKEY key, const Place& place, Listed what, DWORD index, char* name, DWORD* size,
               std::string& found)
{
    if (name == nullptr || size == nullptr)
        return ERROR_INVALID_PARAMETER;
    Listing& listing = listingOf(key, what);
    const std::lock_guard<std::mutex> held(listing.lock);
    if (index == 0)
        if (const long error = takeListing(place, what, listing.names); error != ERROR_SUCCESS)
            return error;
    if (index >= listing.names.size())
        return ERROR_NO_MORE_ITEMS;
    found = listing.names[index];
    const DWORD room = *size;
    *size = static_cast<DWORD>(found.size());
    if (room <= found.size())
        return ERROR_MORE_DATA;
    std::memcpy(name, found.c_str(), found.size() + 1);
    return ERROR_SUCCESS;
}

/// Gives out the data of a value as far as the caller asked for it.
long answerValue(const Value& value, DWORD* type, unsigned char* data, DWORD* size)
{
    if (type != nullptr)
        *type = value.type;
    if (size == nullptr)
        return data == nullptr ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
    const DWORD room = *size;
    *size = static_cast<DWORD>(value.data.size());
    if (data == nullptr)
        return ERROR_SUCCESS;
    if (room < *size)
        return ERROR_MORE_DATA;
    std::memcpy(data, value.data.data(), value.data.size());
    return ERROR_SUCCESS;
}

} // namespace

long RegOpenKeyExA(HKEY parent, const char* path, DWORD, DWORD, HKEY* key)
{
    Place place;
    if (const long error = findPlace(parent, place); error != ERROR_SUCCESS)
        return error;
    const std::optional<std::string> fileName = platKeyPath(path == nullptr ? "" : path);
    return fileName ? openKey(place, *fileName, key) : static_cast<long>(ERROR_BAD_PATHNAME);
}

long RegCreateKeyExA(HKEY parent, const char* path, DWORD, char*, DWORD, DWORD, SECURITY_ATTRIBUTES*,
                     HKEY* key, DWORD* disposition)
{
    Place place;
    if (const long error = findPlace(parent, place); error != ERROR_SUCCESS)
        return error;
    if (path == nullptr)
        path = "";
    const std::optional<std::string> fileName = platKeyPath(path);
    if (!fileName)
        return ERROR_BAD_PATHNAME;
    DWORD outcome = REG_OPENED_EXISTING_KEY;
    long error = openKey(place, *fileName, key);
    if (error == ERROR_FILE_NOT_FOUND) {
        const StoreLock lock(place.store, true);
        const int made =
            lock ? makeParts(place.folder, place.prefix + *fileName, partsBegin(place), true) : -1;
        if (made < 0 || !keepWrittenNames(place, path))
            return changeError(place);
        if (made > 0)
            outcome = REG_CREATED_NEW_KEY;
        error = openKey(place, *fileName, key);
    }
    if (error == ERROR_SUCCESS && disposition != nullptr)
        *disposition = outcome;
    return error;
}

long RegCloseKey(HKEY key)
{
    if (key == nullptr)
        return ERROR_INVALID_HANDLE;
    if (rootName(key) == nullptr)
        delete key;
    return ERROR_SUCCESS;
}

long RegDeleteKeyA(HKEY parent, const char* path)
{
    Place place;
    if (const long error = findPlace(parent, place); error != ERROR_SUCCESS)
        return error;
    const std::optional<std::string> fileName = platKeyPath(path == nullptr ? "" : path);
    if (!fileName)
        return ERROR_BAD_PATHNAME;
    const StoreLock lock(place.store, false);
    if (!lock)
        return hostError();
    const std::size_t leaf = fileName->rfind('/') + 1; // 0 when there is none
    const std::string name = fileName->substr(leaf);
    platFolder around, key, deleted;
    if (!around.OpenHost(place.folder, (place.prefix + fileName->substr(0, leaf) + '.').c_str()) ||
        !key.OpenHost(place.folder, (place.prefix + *fileName).c_str()))
        return static_cast<long>(GetLastError());
    if (hasSubkeys(key))
        return ERROR_ACCESS_DENIED;
    // The key goes in one step; what is in the way is left over from a process that was ended.
    const auto removeDeleted = [&] {
        return deleted.Open(around, deletedFolder, platKeepLinks) && deleted.RemoveContents(platNoLimit) &&
               around.RemoveFolder(deletedFolder);
    };
    removeDeleted();
    if (!around.Rename(name.c_str(), deletedFolder) || !removeDeleted())
        return static_cast<long>(GetLastError());
    removeParts(place, *fileName);
    return ERROR_SUCCESS;
}

long RegSetValueExA(HKEY key, const char* name, DWORD, DWORD type, const unsigned char* data, DWORD size)
{
    Place place;
    if (const long error = findPlace(key, place); error != ERROR_SUCCESS)
        return error;
    if (size > largestValue)
        return ERROR_INVALID_PARAMETER;
    if (name == nullptr)
        name = "";
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::string path = place.prefix + platValuePath(name);
    const StoreLock lock(place.store, true);
    if (!lock)
        return hostError();
    if (makeParts(place.folder, path, partsBegin(place), false) < 0 ||
        !replaceFile(place.folder, place.prefix, path, valueText(type, name, bytes)))
        return changeError(place);
    return ERROR_SUCCESS;
}

long RegQueryValueExA(HKEY key, const char* name, DWORD*, DWORD* type, unsigned char* data, DWORD* size)
{
    Place place;
    if (const long error = findPlace(key, place); error != ERROR_SUCCESS)
        return error;
    Value value;
    if (const long error = readValue(place, name == nullptr ? "" : name, value); error != ERROR_SUCCESS)
        return error;
    return answerValue(value, type, data, size);
}

long RegDeleteValueA(HKEY key, const char* name)
{
    Place place;
    if (const long error = findPlace(key, place); error != ERROR_SUCCESS)
        return error;
    const std::string path = platValuePath(name == nullptr ? "" : name);
    const StoreLock lock(place.store, false);
    if (!lock || unlinkat(place.folder, (place.prefix + path).c_str(), 0) != 0)
        return hostError();
    removeParts(place, path);
    return ERROR_SUCCESS;
}

long RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* size, DWORD*, char* className, DWORD* classSize,
                   FILETIME* lastWrite)
{
    Place place;
    if (const long error = findPlace(key, place); error != ERROR_SUCCESS)
        return error;
    std::string found;
    if (const long error = enumerate(key, place, listedKeys, index, name, size, found);
        error != ERROR_SUCCESS)
        return error;
    if (className != nullptr && classSize != nullptr && *classSize > 0)
        *className = '\0';
    if (classSize != nullptr)
        *classSize = 0;
    if (lastWrite != nullptr) {
        struct stat status = {};
        fstatat(place.folder, (place.prefix + *platKeyPath(found)).c_str(), &status, 0);
        *lastWrite = platFileTime(status.st_mtim);
    }
    return ERROR_SUCCESS;
}

long RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* size, DWORD*, DWORD* type, unsigned char* data,
                   DWORD* dataSize)
{
    Place place;
    if (const long error = findPlace(key, place); error != ERROR_SUCCESS)
        return error;
    std::string found;
    if (const long error = enumerate(key, place, listedValues, index, name, size, found);
        error != ERROR_SUCCESS)
        return error;
    Value value;
    if ((type != nullptr || dataSize != nullptr) && readValue(place, found.c_str(), value) != ERROR_SUCCESS)
        value = {};
    return answerValue(value, type, data, dataSize);
}
