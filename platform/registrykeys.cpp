#include "registrykeys.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

#include <qel/base/btkretry.h>
#include <qel/platform/errortable.h>
#include <qel/platform/registryname.h>

namespace {

constexpr std::string_view valueEnding = ".value";
constexpr std::size_t longestHead = 16384; // of a value's file, and of the file of a key's name

/// Whether the file `path` below a key has the name of a value's file.
bool isValueFile(std::string_view path)
{
    return path.ends_with(valueEnding) &&
           platNameOfFile(path.substr(0, path.size() - valueEnding.size())).has_value();
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
bool collectFiles(btkFolder& folder, const std::string& prefix, platListed what,
                  std::vector<std::string>& files)
{
    btkEntry entry;
    while (folder.Read(entry)) {
        const std::string path = prefix + entry.hostName;
        if (entry.kind == btkDirectory && platIsNamePart(entry.hostName)) {
            btkFolder part;
            if (path.size() < platLongestPath && part.Open(folder, entry.hostName, btkKeepLinks) &&
                !collectFiles(part, path + '/', what, files))
                return false;
        } else if (what == platListedKeys ? entry.kind == btkDirectory && entry.hostName[0] != '.'
                                          : entry.kind == btkFile && path.ends_with(valueEnding)) {
            files.push_back(path);
        }
    }
    return folder.IsAtEnd();
}

/// Whether a caller can use this as the name of a single key or value.
bool canBeAsked(std::string_view name, platListed what)
{
    return name.find('\0') == std::string_view::npos &&
           (what == platListedValues || name.find('\\') == std::string_view::npos);
}

/// The name of the key or value that `file` stores, as it was written. A name that does not map back to the
/// file is ignored. Nothing when the file is not part of the store.
std::optional<std::string> nameIn(const platPlace& place, const std::string& file, platListed what)
{
    if (what == platListedKeys) {
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
bool isDeleted(const platPlace& place)
{
    struct stat status;
    return !place.IsRoot() && fstat(place.folder, &status) == 0 && status.st_nlink == 0;
}

} // namespace

long platHostError()
{
    return static_cast<long>(errno == ENOTDIR ? ERROR_DIRECTORY : platErrorOf(errno));
}

long platChangeError(const platPlace& place)
{
    return errno == ENOENT && !place.IsRoot() ? static_cast<long>(ERROR_KEY_DELETED) : platHostError();
}

bool platIsRoot(HKEY key)
{
    return key == HKEY_CLASSES_ROOT || key == HKEY_CURRENT_USER;
}

long platFindPlace(HKEY key, bool create, platPlace& place)
{
    if (key == nullptr)
        return ERROR_INVALID_HANDLE;
    if (!platIsRoot(key)) {
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

long platFindKey(HKEY parent, const char* path, bool create, platPlace& place, std::string& folder)
{
    const std::optional<std::string> below = platKeyPath(path == nullptr ? "" : path);
    if (parent != nullptr && !below)
        return ERROR_BAD_PATHNAME;
    if (below && create && below->size() >= platLongestPath)
        return ERROR_FILENAME_EXCED_RANGE;
    const long error = platFindPlace(parent, create, place);
    if (error == ERROR_SUCCESS)
        folder = place.prefix + *below;
    return error;
}

// ---- keys

void platAddSteps(std::vector<platStep>& steps, std::string_view path, const std::string& name)
{
    for (std::size_t slash; (slash = path.find('/')) != std::string_view::npos; path.remove_prefix(slash + 1))
        steps.push_back({std::string(path.substr(0, slash)), {}});
    if (!path.empty())
        steps.push_back({std::string(path), name});
}

std::vector<platStep> platStepsOf(const platPlace& place, std::string_view path)
{
    std::vector<platStep> steps;
    platAddSteps(steps, place.prefix, {});
    while (!path.empty()) {
        const std::string_view name = path.substr(0, path.find('\\'));
        const std::string folder = *platKeyPath(name);
        platAddSteps(steps, folder, folder == name ? std::string() : platWrittenName(name));
        path.remove_prefix(std::min(name.size() + 1, path.size()));
    }
    return steps;
}

long platWalk::Go(platChange* repair)
{
    opened = btkFd();
    for (done = 0; done < steps.size(); ++done) {
        const platStep& step = steps[done];
        btkFd next = platOpenInside(Folder(), step.folder);
        if (!next)
            return errno == ENOENT ? static_cast<long>(ERROR_SUCCESS) : platHostError();
        opened = std::move(next);
        if (step.text.empty() || faccessat(Folder(), platNameFile, F_OK, AT_SYMLINK_NOFOLLOW) == 0 ||
            errno != ENOENT)
            continue;
        lacksName = true;
        if (repair != nullptr)
            repair->Replace(Folder(), platNameFile, step.text); // the key works without it, too
    }
    return ERROR_SUCCESS;
}

long platMakeFolders(const platPlace& place, platChange& change, platWalk& walk, bool& made)
{
    made = false;
    if (!change)
        return platHostError();
    long error = walk.Go(&change);
    if (error != ERROR_SUCCESS || walk.IsWhole())
        return error;
    if (!change.Build(walk.Folder(), walk.Missing()))
        return platChangeError(place);
    made = true;
    error = walk.Go(nullptr);
    return error != ERROR_SUCCESS || walk.IsWhole() ? error : static_cast<long>(ERROR_KEY_DELETED);
}

void platRemoveParts(const platPlace& place, std::string path)
{
    for (std::size_t slash; (slash = path.rfind('/')) != std::string::npos;) {
        path.resize(slash);
        platSpot spot;
        if (!platIsNamePart(path) || !platFindSpot(place.folder, path, spot) ||
            unlinkat(spot.folder, spot.name.c_str(), AT_REMOVEDIR) != 0)
            return;
    }
}

long platCheckDeletable(btkFolder& folder, const std::string& prefix)
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
                                   ? platCheckDeletable(part, path + '/')
                                   : platHostError();
            if (error != ERROR_SUCCESS && error != ERROR_DIR_NOT_EMPTY)
                return error;
            isOwn = isOwn && error == ERROR_SUCCESS;
        }
    }
    if (!folder.IsAtEnd())
        return platHostError();
    return static_cast<long>(isOwn ? ERROR_SUCCESS : ERROR_DIR_NOT_EMPTY);
}

// ---- values and names

std::string platValueText(DWORD type, const char* name, std::string_view data)
{
    return std::to_string(type) + ' ' + platWrittenName(name) + '\n' + std::string(data);
}

std::size_t platParseValue(std::string_view text, DWORD& type, std::string_view& writtenName)
{
    const std::size_t line = text.find('\n');
    return line != std::string_view::npos && parseHead(text.substr(0, line), type, writtenName) ? line + 1
                                                                                                : 0;
}

long platReadValue(const platPlace& place, const char* name, platValue& value)
{
    const btkFd file = platOpenFileInside(place.folder, place.prefix + platValuePath(name));
    if (!file)
        return platHostError();
    std::string text;
    char block[4096];
    ssize_t count;
    do {
        count = btkRetry([&] { return read(file.Get(), block, sizeof block); });
        text.append(block, static_cast<std::size_t>(std::max(count, ssize_t{0})));
        if (text.size() > 2 * platLargestValue)
            return ERROR_FILE_CORRUPT;
    } while (count == sizeof block); // a shorter read is the end of the file, which never grows
    if (count < 0)
        return platHostError();
    std::string_view written;
    const std::size_t dataAt = platParseValue(text, value.type, written);
    if (dataAt == 0)
        return ERROR_FILE_CORRUPT;
    value.data = text.substr(dataAt);
    return ERROR_SUCCESS;
}

long platNamesIn(HKEY key, platListed what, std::vector<std::string>& names)
{
    platPlace place;
    long error = platFindPlace(key, false, place);
    btkFd opened;
    btkFolder folder;
    std::vector<std::string> files;
    if (error == ERROR_SUCCESS) {
        if (place.IsRoot())
            opened = platOpenInside(place.folder, place.prefix.substr(0, place.prefix.size() - 1));
        if ((place.IsRoot() && !opened) || !folder.OpenHost(opened ? opened.Get() : place.folder, ".") ||
            !collectFiles(folder, "", what, files))
            error = platHostError();
    }
    // A root without any written key does not exist.
    if (error == ERROR_FILE_NOT_FOUND)
        return static_cast<long>(platIsRoot(key) ? ERROR_SUCCESS : ERROR_KEY_DELETED);
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
