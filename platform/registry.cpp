#include "registry.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <vector>

#include <qel/base/btkfolder.h>
#include <qel/base/btkretry.h>
#include <qel/platform/errortable.h>
#include <qel/platform/files.h>
#include <qel/platform/registryname.h>

#include "registrystore.h"

/// An open key below a root.
struct HKEY__
{
    btkFd folder;
    std::shared_ptr<const platStore> store;
};

namespace {

constexpr DWORD largestValue = 16 * 1024 * 1024;
constexpr std::string_view valueEnding = ".value";
constexpr std::size_t longestHead = 16384; // of a value's file, and of the file of a key's name
constexpr std::size_t longestPath = 4096;

/// The kind of a key's names.
enum Listed { listedKeys, listedValues };

/// The names in a key as they were when the thread began to enumerate them. Per thread, so that concurrent
/// enumerations of one key, or a root, are independent.
thread_local std::map<std::pair<HKEY, Listed>, std::vector<std::string>> listings;

/// Only a node that is absent is "not found"; anything but a folder where one belongs is another error.
long hostError()
{
    return static_cast<long>(errno == ENOTDIR ? ERROR_DIRECTORY : platErrorOf(errno));
}

/// The location of a call: a folder, and the prefix of the paths in it.
struct Place
{
    int folder = -1;
    std::string prefix; // empty, or the folder of a root with "/" at its end
    std::shared_ptr<const platStore> store;

    bool IsRoot() const { return !prefix.empty(); }
};

bool isRoot(HKEY key)
{
    return key == HKEY_CLASSES_ROOT || key == HKEY_CURRENT_USER;
}

/// Returns an error for an invalid key, or when the store of a root cannot be opened. Makes a missing store
/// when `create` is true.
long findPlace(HKEY key, bool create, Place& place)
{
    if (key == nullptr)
        return ERROR_INVALID_HANDLE;
    if (!isRoot(key)) {
        place = {key->folder.Get(), "", key->store};
        return ERROR_SUCCESS;
    }
    const bool isSystem = key == HKEY_CLASSES_ROOT;
    if (const long error = platStore::Open(isSystem, create, place.store); error != ERROR_SUCCESS)
        return error;
    place.folder = place.store->folder.Get();
    place.prefix = isSystem ? "System/" : "User/";
    return ERROR_SUCCESS;
}

/// Finds the place and, below it, the folder of the key `path`.
long findKey(HKEY parent, const char* path, bool create, Place& place, std::string& folder)
{
    const std::optional<std::string> below = platKeyPath(path == nullptr ? "" : path);
    if (parent != nullptr && !below)
        return ERROR_BAD_PATHNAME;
    if (below && create && below->size() >= longestPath)
        return ERROR_FILENAME_EXCED_RANGE;
    const long error = findPlace(parent, create, place);
    if (error == ERROR_SUCCESS)
        folder = place.prefix + *below;
    return error;
}

/// The error of a change inside a key: its folder no longer exists when the key was deleted meanwhile.
long changeError(const Place& place)
{
    return errno == ENOENT && !place.IsRoot() ? static_cast<long>(ERROR_KEY_DELETED) : hostError();
}

/// Appends the folders on `path`; the last one stores `name` unless that is empty.
void addSteps(std::vector<platStep>& steps, std::string_view path, const std::string& name)
{
    for (std::size_t slash; (slash = path.find('/')) != std::string_view::npos; path.remove_prefix(slash + 1))
        steps.push_back({std::string(path.substr(0, slash)), {}});
    if (!path.empty())
        steps.push_back({std::string(path), name});
}

/// The folders of the key `path`, with its names as they were written where their folders do not show them.
std::vector<platStep> stepsOf(const Place& place, std::string_view path)
{
    std::vector<platStep> steps;
    addSteps(steps, place.prefix, {});
    while (!path.empty()) {
        const std::string_view name = path.substr(0, path.find('\\'));
        const std::string folder = *platKeyPath(name);
        addSteps(steps, folder, folder == name ? std::string() : platWrittenName(name));
        path.remove_prefix(std::min(name.size() + 1, path.size()));
    }
    return steps;
}

/// Opens the existing folders of `steps`.
class Walk
{
public:
    Walk(const Place& place, const std::vector<platStep>& allSteps) : begin(place.folder), steps(allSteps) {}

    /// Writes names that are missing, unless `repair` is null. Returns an error number; success also for a
    /// missing folder.
    long Go(platChange* repair)
    {
        opened = btkFd();
        for (done = 0; done < steps.size(); ++done) {
            const platStep& step = steps[done];
            btkFd next = platOpenInside(Folder(), step.folder);
            if (!next)
                return errno == ENOENT ? static_cast<long>(ERROR_SUCCESS) : hostError();
            opened = std::move(next);
            if (step.name.empty() || faccessat(Folder(), platNameFile, F_OK, AT_SYMLINK_NOFOLLOW) == 0 ||
                errno != ENOENT)
                continue;
            lacksName = true;
            if (repair != nullptr)
                repair->Replace(Folder(), platNameFile, step.name); // the key works without it, too
        }
        return ERROR_SUCCESS;
    }

    /// The deepest existing folder.
    int Folder() const { return opened ? opened.Get() : begin; }
    btkFd Take() { return std::move(opened); }
    bool IsWhole() const { return done == steps.size(); }
    bool LacksName() const { return lacksName; }
    std::span<const platStep> Missing() const { return std::span(steps).subspan(done); }

private:
    int begin;
    const std::vector<platStep>& steps;
    std::size_t done = 0;
    bool lacksName = false;
    btkFd opened;
};

/// Opens the folders of `steps`, creates the missing ones, and writes missing names. `made` receives whether
/// any folder was missing.
long makeFolders(const Place& place, platChange& change, Walk& walk, bool& made)
{
    made = false;
    if (!change)
        return hostError();
    long error = walk.Go(&change);
    if (error != ERROR_SUCCESS || walk.IsWhole())
        return error;
    if (!change.Build(walk.Folder(), walk.Missing()))
        return changeError(place);
    made = true;
    error = walk.Go(nullptr);
    return error != ERROR_SUCCESS || walk.IsWhole() ? error : static_cast<long>(ERROR_KEY_DELETED);
}

/// Removes the empty folders that hold parts of the long name of `path`.
void removeParts(const Place& place, std::string path)
{
    for (std::size_t slash; (slash = path.rfind('/')) != std::string::npos;) {
        path.resize(slash);
        platSpot spot;
        if (!platIsNamePart(path) || !platFindSpot(place.folder, path, spot) ||
            unlinkat(spot.folder, spot.name.c_str(), AT_REMOVEDIR) != 0)
            return;
    }
}

/// Whether the file `path` below a key has the name of a value's file.
bool isValueFile(std::string_view path)
{
    return path.ends_with(valueEnding) &&
           platNameOfFile(path.substr(0, path.size() - valueEnding.size())).has_value();
}

/// Checks that a key's folder holds only values. Returns an error number: ERROR_ACCESS_DENIED for subkeys,
/// ERROR_DIR_NOT_EMPTY for foreign files. `prefix` leads to `folder`, which carries a part of a long name
/// when it is not empty.
long checkDeletable(btkFolder& folder, const std::string& prefix)
{
    btkEntry entry;
    bool isOwn = true;
    while (folder.Read(entry)) {
        const std::string path = prefix + entry.hostName;
        if (entry.kind != btkDirectory) {
            isOwn = isOwn && entry.kind == btkFile && (path == platNameFile || isValueFile(path));
        } else if (!platIsNamePart(entry.hostName)) {
            if (platNameOfFile(path))
                return ERROR_ACCESS_DENIED;
            isOwn = false;
        } else {
            btkFolder part;
            const long error = part.Open(folder, entry.hostName, btkKeepLinks)
                                   ? checkDeletable(part, path + '/')
                                   : hostError();
            if (error != ERROR_SUCCESS && error != ERROR_DIR_NOT_EMPTY)
                return error;
            isOwn = isOwn && error == ERROR_SUCCESS;
        }
    }
    if (!folder.IsAtEnd())
        return hostError();
    return static_cast<long>(isOwn ? ERROR_SUCCESS : ERROR_DIR_NOT_EMPTY);
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
    const btkFd file = platOpenFileInside(place.folder, place.prefix + platValuePath(name));
    if (!file)
        return hostError();
    std::string text;
    char block[4096];
    ssize_t count;
    do {
        count = btkRetry([&] { return read(file.Get(), block, sizeof block); });
        text.append(block, static_cast<std::size_t>(std::max(count, ssize_t{0})));
        if (text.size() > 2 * largestValue)
            return ERROR_FILE_CORRUPT;
    } while (count == sizeof block); // a shorter read is the end of the file, which never grows
    if (count < 0)
        return hostError();
    const std::size_t line = text.find('\n');
    std::string_view written;
    if (line == std::string::npos || !parseHead({text.data(), line}, value.type, written))
        return ERROR_FILE_CORRUPT;
    value.data = text.substr(line + 1);
    return ERROR_SUCCESS;
}

// ---- enumerating

/// The first line of a file of the store; empty when there is none.
std::string firstLine(int folder, const std::string& path)
{
    const btkFd file = platOpenFileInside(folder, path);
    std::string text(longestHead, '\0');
    const ssize_t count = file ? btkRetry([&] { return read(file.Get(), text.data(), text.size()); }) : 0;
    text.resize(static_cast<std::size_t>(std::max(count, ssize_t{0})));
    return text.substr(0, text.find('\n'));
}

/// Collects the paths of the keys or values in a key's folder; a link is neither. `prefix` leads to `folder`,
/// which carries a part of a long name when it is not empty.
bool collectFiles(btkFolder& folder, const std::string& prefix, Listed what, std::vector<std::string>& files)
{
    btkEntry entry;
    while (folder.Read(entry)) {
        const std::string path = prefix + entry.hostName;
        if (entry.kind == btkDirectory && platIsNamePart(entry.hostName)) {
            btkFolder part;
            if (path.size() < longestPath && part.Open(folder, entry.hostName, btkKeepLinks) &&
                !collectFiles(part, path + '/', what, files))
                return false;
        } else if (what == listedKeys ? entry.kind == btkDirectory && entry.hostName[0] != '.'
                                      : entry.kind == btkFile && path.ends_with(valueEnding)) {
            files.push_back(path);
        }
    }
    return folder.IsAtEnd();
}

/// Whether a caller can use this as the name of a single key or value.
bool canBeAsked(std::string_view name, Listed what)
{
    return name.find('\0') == std::string_view::npos &&
           (what == listedValues || name.find('\\') == std::string_view::npos);
}

/// The name of the key or value that `file` stores, as it was written. A name that does not map back to the
/// file is ignored. Nothing when the file is not part of the store.
std::optional<std::string> nameIn(const Place& place, const std::string& file, Listed what)
{
    if (what == listedKeys) {
        std::string name =
            platNameAsWritten(firstLine(place.folder, place.prefix + file + '/' + platNameFile));
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
    return !place.IsRoot() && fstat(place.folder, &status) == 0 && status.st_nlink == 0;
}

long takeListing(HKEY key, Listed what, std::vector<std::string>& names)
{
    Place place;
    long error = findPlace(key, false, place);
    btkFd opened;
    btkFolder folder;
    std::vector<std::string> files;
    if (error == ERROR_SUCCESS) {
        if (place.IsRoot())
            opened = platOpenInside(place.folder, place.prefix.substr(0, place.prefix.size() - 1));
        if ((place.IsRoot() && !opened) || !folder.OpenHost(opened ? opened.Get() : place.folder, ".") ||
            !collectFiles(folder, "", what, files))
            error = hostError();
    }
    // A root without any written key does not exist.
    if (error == ERROR_FILE_NOT_FOUND)
        return static_cast<long>(isRoot(key) ? ERROR_SUCCESS : ERROR_KEY_DELETED);
    if (error != ERROR_SUCCESS)
        return error;
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

/// Copies the name `index` of a listing to a buffer, and to `found`.
long enumerate(HKEY key, Listed what, DWORD index, char* name, DWORD* size, std::string& found)
{
    if (name == nullptr || size == nullptr)
        return ERROR_INVALID_PARAMETER;
    auto listing = listings.find({key, what});
    if (index == 0 || listing == listings.end()) {
        std::vector<std::string> names;
        if (const long error = takeListing(key, what, names); error != ERROR_SUCCESS)
            return error;
        listing = listings.insert_or_assign({key, what}, std::move(names)).first;
    }
    if (index >= listing->second.size()) {
        listings.erase(listing);
        return ERROR_NO_MORE_ITEMS;
    }
    found = listing->second[index];
    const DWORD room = *size;
    *size = static_cast<DWORD>(found.size());
    if (room <= found.size())
        return ERROR_MORE_DATA;
    std::memcpy(name, found.c_str(), found.size() + 1);
    return ERROR_SUCCESS;
}

/// Copies the data of a value to the caller's buffers.
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
    std::string folder;
    if (const long error = findKey(parent, path, false, place, folder); error != ERROR_SUCCESS)
        return error;
    btkFd opened = platOpenInside(place.folder, folder);
    if (!opened)
        return hostError();
    *key = new HKEY__{std::move(opened), std::move(place.store)};
    return ERROR_SUCCESS;
}

long RegCreateKeyExA(HKEY parent, const char* path, DWORD, char*, DWORD, DWORD, SECURITY_ATTRIBUTES*,
                     HKEY* key, DWORD* disposition)
{
    Place place;
    std::string folder;
    if (const long error = findKey(parent, path, true, place, folder); error != ERROR_SUCCESS)
        return error;
    const std::vector<platStep> steps = stepsOf(place, path);
    Walk walk(place, steps);
    if (const long error = walk.Go(nullptr); error != ERROR_SUCCESS)
        return error;
    bool made = false;
    if (!walk.IsWhole() || walk.LacksName()) {
        platChange change(*place.store);
        if (const long error = makeFolders(place, change, walk, made);
            error != ERROR_SUCCESS && !walk.IsWhole())
            return error;
    }
    *key = new HKEY__{walk.Take(), std::move(place.store)};
    if (disposition != nullptr)
        *disposition = made ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return ERROR_SUCCESS;
}

long RegCloseKey(HKEY key)
{
    if (key == nullptr)
        return ERROR_INVALID_HANDLE;
    listings.erase({key, listedKeys});
    listings.erase({key, listedValues});
    if (!isRoot(key))
        delete key;
    return ERROR_SUCCESS;
}

long RegDeleteKeyA(HKEY parent, const char* path)
{
    Place place;
    std::string folder;
    if (const long error = findKey(parent, path, false, place, folder); error != ERROR_SUCCESS)
        return error;
    platChange change(*place.store);
    platSpot spot;
    if (!change || !platFindSpot(place.folder, folder, spot))
        return hostError();
    const btkFd opened = platOpenInside(spot.folder, spot.name);
    btkFolder key;
    if (!opened || !key.OpenHost(opened.Get(), "."))
        return hostError();
    if (const long error = checkDeletable(key, ""); error != ERROR_SUCCESS)
        return error;
    if (!change.RemoveTree(spot.folder, spot.name.c_str()))
        return hostError();
    removeParts(place, folder);
    return ERROR_SUCCESS;
}

long RegSetValueExA(HKEY key, const char* name, DWORD, DWORD type, const unsigned char* data, DWORD size)
{
    if (size > largestValue)
        return ERROR_INVALID_PARAMETER;
    if (name == nullptr)
        name = "";
    Place place;
    if (const long error = findPlace(key, true, place); error != ERROR_SUCCESS)
        return error;
    const std::string path = place.prefix + platValuePath(name);
    if (path.size() >= longestPath)
        return ERROR_FILENAME_EXCED_RANGE;
    const std::size_t leaf = path.rfind('/') + 1; // 0 when there is none
    std::vector<platStep> steps;
    addSteps(steps, std::string_view(path).substr(0, leaf), {});
    Walk walk(place, steps);
    platChange change(*place.store);
    bool made;
    if (const long error = makeFolders(place, change, walk, made); error != ERROR_SUCCESS)
        return error;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (!change.Replace(walk.Folder(), path.c_str() + leaf, valueText(type, name, bytes)))
        return changeError(place);
    return ERROR_SUCCESS;
}

long RegQueryValueExA(HKEY key, const char* name, DWORD*, DWORD* type, unsigned char* data, DWORD* size)
{
    Place place;
    if (const long error = findPlace(key, false, place); error != ERROR_SUCCESS)
        return error;
    Value value;
    if (const long error = readValue(place, name == nullptr ? "" : name, value); error != ERROR_SUCCESS)
        return error;
    return answerValue(value, type, data, size);
}

long RegDeleteValueA(HKEY key, const char* name)
{
    Place place;
    if (const long error = findPlace(key, false, place); error != ERROR_SUCCESS)
        return error;
    const std::string path = place.prefix + platValuePath(name == nullptr ? "" : name);
    platChange change(*place.store);
    platSpot spot;
    if (!change || !platFindSpot(place.folder, path, spot) ||
        !change.RemoveFile(spot.folder, spot.name.c_str()))
        return hostError();
    removeParts(place, path);
    return ERROR_SUCCESS;
}

long RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* size, DWORD*, char* className, DWORD* classSize,
                   FILETIME* lastWrite)
{
    Place place;
    std::string found;
    if (const long error = enumerate(key, listedKeys, index, name, size, found); error != ERROR_SUCCESS)
        return error;
    if (className != nullptr && classSize != nullptr && *classSize > 0)
        *className = '\0';
    if (classSize != nullptr)
        *classSize = 0;
    if (lastWrite != nullptr) {
        struct stat status = {};
        if (findPlace(key, false, place) == ERROR_SUCCESS)
            if (const btkFd sub = platOpenInside(place.folder, place.prefix + *platKeyPath(found)); sub)
                fstat(sub.Get(), &status);
        *lastWrite = platFileTime(status.st_mtim);
    }
    return ERROR_SUCCESS;
}

long RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* size, DWORD*, DWORD* type, unsigned char* data,
                   DWORD* dataSize)
{
    std::string found;
    if (const long error = enumerate(key, listedValues, index, name, size, found); error != ERROR_SUCCESS)
        return error;
    Place place;
    Value value;
    if ((type != nullptr || dataSize != nullptr) && (findPlace(key, false, place) != ERROR_SUCCESS ||
                                                     readValue(place, found.c_str(), value) != ERROR_SUCCESS))
        value = {};
    return answerValue(value, type, data, dataSize);
}

// ---- batches and the location of the store

std::string platRegistryFolder(HKEY root)
{
    const std::string store = platStorePath(root == HKEY_CLASSES_ROOT);
    return store.empty() ? store : store + (root == HKEY_CLASSES_ROOT ? "/System" : "/User");
}
