#include "btkpath.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <list>
#include <mutex>
#include <optional>
#include <unistd.h>
#include <vector>

#include <qel/base/btkenvironment.h>

namespace {

constexpr std::string_view shownBackslash = "\xEF\x81\x9C"; // U+F05C
constexpr std::string_view shownEscape = "\xEF\x81\x9D";    // U+F05D
constexpr std::string_view shownColon = "\xEF\x80\xBA";     // U+F03A

/// The substitute forms of bytes in names that would otherwise be misread.
struct Shown
{
    std::string_view form;
    char hostByte; // 0: the escape that precedes each of these when the host name contains it
};
constexpr Shown shownForms[] = {{shownBackslash, '\\'}, {shownColon, ':'}, {shownEscape, '\0'}};
constexpr std::string_view drivePrefix = "QELSTD_DRIVE_";
constexpr char defaultDrive = 'C';

struct Drive
{
    char letter;
    std::string root; // without separator at the end: the root "/" is empty

    bool operator==(const Drive&) const = default;
};
using Drives = std::vector<Drive>;

bool isSeparator(char c)
{
    return c == '/' || c == '\\';
}

bool isLetter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

/// The form at the beginning of `text`, or null.
const Shown* shownAtBegin(std::string_view text)
{
    for (const Shown& shown : shownForms)
        if (text.starts_with(shown.form))
            return &shown;
    return nullptr;
}

/// Whether the ":" at `at` would turn the beginning of a name into a drive, or the name into a remote path.
bool isTakenForMore(std::string_view hostName, std::size_t at)
{
    const auto byteAt = [hostName](std::size_t place) { // 0 before and behind the name
        return place < hostName.size() ? hostName[place] : '\0';
    };
    const bool isDrive = at >= 1 && isLetter(byteAt(at - 1)) && (at == 1 || byteAt(at - 2) == '/');
    return isDrive || byteAt(at + 1) == ':' || byteAt(at - 1) == ':';
}

/// The drive letter of `path`, in upper case; 0 when there is none.
char driveLetter(const char* path)
{
    return isLetter(path[0]) && path[1] == ':' ? static_cast<char>(path[0] & ~0x20) : '\0';
}

Drives readDrives()
{
    Drives drives{{defaultDrive, ""}};
    for (const std::string& text : btkEnvironment::WithPrefix(drivePrefix)) {
        const char* letter = text.c_str() + drivePrefix.size();
        if (*letter < 'A' || *letter > 'Z' || letter[1] != '=' || letter[2] != '/')
            continue;
        std::string root = btkWithoutEndSeparators(letter + 2);
        if (root == "/")
            root.clear();
        if (*letter == defaultDrive)
            drives.front().root = std::move(root);
        else
            drives.push_back({*letter, std::move(root)});
    }
    return drives;
}

/// The current drives of the environment, which is read again only after a change.
class DriveTable
{
public:
    static const Drives& Get()
    {
        static DriveTable* const only = new DriveTable; // never freed: used during process exit
        return only->asOf(btkEnvironment::Changes());
    }

private:
    const Drives& asOf(std::uint64_t changes)
    {
        if (const Drives* known = current.load(std::memory_order_acquire);
            known != nullptr && readAt.load(std::memory_order_acquire) == changes)
            return *known;
        const std::lock_guard lock(guard);
        changes = btkEnvironment::Changes();
        Drives drives = readDrives();
        auto same = std::find(seen.begin(), seen.end(), drives);
        if (same == seen.end())
            same = seen.insert(seen.end(), std::move(drives));
        current.store(&*same, std::memory_order_release);
        readAt.store(changes, std::memory_order_release);
        return *same;
    }

    std::mutex guard;
    std::list<Drives> seen; // all tables so far: readers use them without a lock
    std::atomic<const Drives*> current = nullptr;
    std::atomic<std::uint64_t> readAt = 0;
};

/// Whether C is the only drive and is the host's root: paths are then host paths.
bool isPlain(const Drives& drives)
{
    return drives.size() == 1 && drives.front().root.empty();
}

const Drive* findDrive(const Drives& drives, char letter)
{
    for (const Drive& drive : drives)
        if (drive.letter == letter)
            return &drive;
    return nullptr;
}

/// The drive whose root is the longest prefix of `host`, or null.
const Drive* driveOf(const Drives& drives, std::string_view host)
{
    const Drive* best = nullptr;
    for (const Drive& drive : drives) {
        const std::size_t size = drive.root.size();
        const bool holds = host.starts_with(drive.root) && (host.size() == size || host[size] == '/');
        if (holds && (best == nullptr || size > best->root.size()))
            best = &drive;
    }
    return best;
}

std::optional<std::string> currentHostDirectory()
{
    char buffer[PATH_MAX];
    if (getcwd(buffer, sizeof buffer) == nullptr)
        return std::nullopt;
    return buffer;
}

/// `path` without the steps "." and "..", and with one separator before each step. Steps above the root are
/// dropped.
std::string resolvedInText(std::string_view path)
{
    std::vector<std::string_view> steps;
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view step = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (step == "..") {
            if (!steps.empty())
                steps.pop_back();
        } else if (!step.empty() && step != ".") {
            steps.push_back(step);
        }
    }
    std::string result;
    for (std::string_view step : steps)
        result.append("/").append(step);
    return result;
}

bool hasUpStep(std::string_view hostPath)
{
    for (std::size_t at = hostPath.find(".."); at != std::string_view::npos;
         at = hostPath.find("..", at + 1)) {
        const bool begins = at == 0 || hostPath[at - 1] == '/';
        const bool ends = at + 2 == hostPath.size() || hostPath[at + 2] == '/';
        if (begins && ends)
            return true;
    }
    return false;
}

/// False with `errno` set to `error`.
bool failWith(int error)
{
    errno = error;
    return false;
}

/// `path`, which begins with a separator or is empty, below the root of `drive`.
std::string below(const Drive& drive, std::string path)
{
    if (!drive.root.empty() && hasUpStep(path))
        path = resolvedInText(path);
    path.insert(0, drive.root);
    return path.empty() ? "/" : path;
}

} // namespace

bool btkHostPath(const char* path, std::string& host)
{
    if (path == nullptr || *path == '\0')
        return failWith(ENOTDIR);
    const char letter = driveLetter(path);
    if (letter != '\0')
        path += 2;
    const bool rooted = isSeparator(*path);
    std::string tail = btkHostName(path);

    const Drives& drives = DriveTable::Get();
    const bool single = isPlain(drives);
    if (!rooted && single && (letter == '\0' || letter == defaultDrive)) {
        host = tail.empty() ? "." : std::move(tail);
        return true;
    }

    // All forms but `D:\x` depend on the drive of the current directory.
    const std::optional<std::string> directory =
        rooted && (single || letter != '\0') ? std::nullopt : currentHostDirectory();
    const Drive* current = directory ? driveOf(drives, *directory) : nullptr;
    if (!rooted && (letter == '\0' || (current != nullptr && current->letter == letter))) {
        if (current != nullptr && !current->root.empty() && hasUpStep(tail))
            host = below(*current, directory->substr(current->root.size()) + '/' + tail);
        else
            host = tail.empty() ? "." : std::move(tail);
        return true;
    }

    const Drive* drive = letter != '\0' ? findDrive(drives, letter) : current;
    if (drive == nullptr && letter == '\0')
        drive = &drives.front();
    if (drive == nullptr)
        return failWith(ENOTDIR);
    if (!rooted)
        tail.insert(0, "/");
    host = below(*drive, std::move(tail));
    return true;
}

bool btkNativePath(std::string_view host, std::string& native)
{
    const Drives& drives = DriveTable::Get();
    const Drive* drive = driveOf(drives, host);
    if (drive == nullptr)
        return failWith(ENODEV);
    std::string tail = btkNativeName(host.substr(drive->root.size()));
    for (char& c : tail)
        if (c == '/')
            c = '\\';
    native = std::string{drive->letter, ':'} + (tail.empty() ? "\\" : tail);
    return true;
}

bool btkPathOfHost(std::string_view host, std::string& path)
{
    if (!host.starts_with('/') || isPlain(DriveTable::Get())) {
        path = btkNativeName(host);
        return true;
    }
    return btkNativePath(hasUpStep(host) ? resolvedInText(host) : std::string(host), path);
}

std::string btkNativeName(std::string_view hostName)
{
    std::string native;
    native.reserve(hostName.size());
    for (std::size_t at = 0; at < hostName.size();) {
        const std::string_view rest = hostName.substr(at);
        if (const Shown* escaped = shownAtBegin(rest)) {
            native.append(shownEscape).append(escaped->form);
            at += escaped->form.size();
            continue;
        }
        if (rest.front() == '\\')
            native.append(shownBackslash);
        else if (rest.front() == ':' && isTakenForMore(hostName, at))
            native.append(shownColon);
        else
            native.push_back(rest.front());
        ++at;
    }
    return native;
}

bool btkIsShownAsIs(const char* hostName)
{
    constexpr const char* firstBytes = "\\:\xEF"; // of all bytes that may be shown otherwise
    return std::strpbrk(hostName, firstBytes) == nullptr;
}

std::string btkHostName(std::string_view nativeName)
{
    std::string host;
    host.reserve(nativeName.size());
    while (!nativeName.empty()) {
        const Shown* form = shownAtBegin(nativeName);
        if (form != nullptr && form->hostByte == '\0') { // the escape, before another form
            const Shown* const escaped = shownAtBegin(nativeName.substr(form->form.size()));
            if (escaped != nullptr) {
                nativeName.remove_prefix(form->form.size());
                form = escaped;
            }
            host.append(form->form);
        } else if (form != nullptr) {
            host.push_back(form->hostByte);
        } else {
            host.push_back(nativeName.front() == '\\' ? '/' : nativeName.front());
        }
        nativeName.remove_prefix(form != nullptr ? form->form.size() : 1);
    }
    return host;
}

std::string btkWithoutEndSeparators(std::string hostPath)
{
    while (hostPath.size() > 1 && hostPath.back() == '/')
        hostPath.pop_back();
    return hostPath;
}
