#include "filelib.h"

#include <algorithm>
#include <cstring>
#include <string>

#include <qel/platform/directories.h>
#include <qel/platform/errortable.h>
#include <qel/platform/filecopy.h>
#include <qel/platform/files.h>
#include <qel/platform/folder.h>

#include "fserror_p.h"
#include "fsfile.h"
#include "fspath_p.h"
#include "fstree_p.h"
#include "qeltable.h"

QEL_LABELS(fsOpMode, "filelib::OpMode", fsRecursive, fsSimple);
QEL_LABELS(fsSoftLinkCopyMode, "filelib::SoftLinkCopyMode", fsNewLink, fsExpand, fsIgnore);
QEL_LABELS(fsRecursiveCopyMode, "filelib::RecursiveCopyMode", fsForceNew, fsMerge, fsReplace);

namespace {

bool endsWithSeparator(const char* native)
{
    const std::size_t length = std::strlen(native);
    return length > 0 && native[length - 1] == fsSeparator;
}

/// Removes everything in a directory and then the directory. False with the last error set;
/// ERROR_BUFFER_OVERFLOW when a path below `length` bytes of path is too long.
bool removeDirectory(platFolder& parent, const char* name, std::size_t length, platWatcher* watcher)
{
    platFolder folder;
    const std::size_t room = fsNativePath::maxLength - std::min(length + 1, fsNativePath::maxLength);
    return folder.Open(parent, name, platKeepLinks) && folder.RemoveContents(room, watcher) &&
           folder.Close() && parent.RemoveFolder(name);
}

bool removeNode(const char* path, bool recursive, platWatcher* watcher)
{
    platFolder parent;
    std::string name;
    if (!parent.OpenParent(path, name))
        return false;
    const platNodeKind kind = parent.Kind(name.c_str(), platKeepLinks);
    if (kind == platAbsent)
        return false;
    if (kind != platDirectory) {
        if (endsWithSeparator(path))
            return platFailWith(ERROR_DIRECTORY); // what the link leads to is meant, or nothing
        return parent.DeleteFile(name.c_str());
    }
    // A root, and a directory named "." or "..", cannot be removed in the end: nothing in it is touched
    // either.
    if (!recursive || name == ".")
        return parent.RemoveFolder(name.c_str());
    return removeDirectory(parent, name.c_str(), std::strlen(path), watcher);
}

/// Passes on how a removal gets on.
class RemovalProgress : public platWatcher
{
public:
    RemovalProgress(fsProgressHandler& told, const fsNativePath& top) : handler(told), path(top) {}

    bool IsEnded() const { return ended; }

    bool Advance(off_t nodes) override
    {
        done += static_cast<double>(nodes);
        ended = !handler.Invoke(path.text(), done, 0);
        return !ended;
    }

private:
    fsProgressHandler& handler;
    const fsNativePath& path;
    double done = 0;
    bool ended = false;
};

void move(const char* from, const char* to, const char* function, const char* about)
{
    if (!MoveFileExA(from, to, 0))
        fsRaiseLastError(function, about);
}

/// Appends zero bytes to a file of `current` bytes until it has `wanted`.
bool extend(fsiFile& file, double current, double wanted)
{
    constexpr double blockSize = 4096;
    static constexpr char zeros[4096] = {};
    if (!file.Seek(fsFromEnd, 0))
        return false;
    while (current < wanted) {
        const double step = std::min(blockSize, wanted - current);
        if (file.Write(zeros, static_cast<unsigned long>(step), nullptr) != fsIOOk)
            return false;
        current += step;
    }
    return true;
}

/// Creates a directory unless there is a node already, which must be a directory if it is the last level.
/// False with the last error set.
bool createLevel(const char* path, bool isLast)
{
    const auto isThere = [&] { return (isLast ? fshIsDirectory(path) : fshExists(path)) == 1; };
    if (isThere() || CreateDirectoryA(path, nullptr))
        return true;
    const unsigned error = GetLastError();
    if (isThere()) // another has made it meanwhile
        return true;
    SetLastError(error);
    return false;
}

} // namespace

void fsRemoveNode(const char* path, bool recursive, const char* function, platWatcher* watcher)
{
    if (removeNode(path, recursive, watcher))
        return;
    if (GetLastError() == ERROR_BUFFER_OVERFLOW)
        fsRaise(fsInvalidPath, function, nullptr);
    fsRaiseLastError(function, path);
}

bool fsCreateLevels(const fsNativePath& path)
{
    fsNativePath level = path;
    for (std::size_t from = fsRootLength(path.text());;) {
        const char* const separator = std::strchr(path.text() + from, fsSeparator);
        const std::size_t end =
            separator == nullptr ? path.length() : static_cast<std::size_t>(separator - path.text());
        level = path;
        level.Cut(end);
        const bool isLast = end + 1 >= path.length();
        if (!createLevel(level.text(), isLast))
            return false;
        if (isLast)
            return true;
        from = end + 1;
    }
}

void fsEnsureParent(const fsNativePath& path, const char* function)
{
    const char* const separator = std::strrchr(path.text(), fsSeparator);
    if (separator == nullptr)
        return;
    fsNativePath parent = path;
    parent.Cut(static_cast<std::size_t>(separator - path.text()));
    // A root exists.
    if (!fsIsEmptyPath(parent.text()) && !fshExists(parent.text()) && !fsCreateLevels(parent))
        fsRaiseLastError(function, path.text());
}

void fsCreateDir(const char* path, fsOpMode mode)
{
    constexpr const char* function = "fsCreateDir";
    fsNativePath native;
    fsCheckPath(native, path, function);
    const bool created =
        mode == fsSimple ? CreateDirectoryA(native.text(), nullptr) == TRUE : fsCreateLevels(native);
    if (!created)
        fsRaiseLastError(function, native.text());
}

void fsRemove(const char* path, fsOpMode mode)
{
    constexpr const char* function = "fsRemove";
    fsNativePath native;
    fsCheckPath(native, path, function);
    fsRemoveNode(native.text(), mode != fsSimple, function);
}

void fsRemove(const char* path, fsOpMode mode, fsProgressHandler& handler)
{
    constexpr const char* function = "fsRemove";
    fsNativePath native;
    fsCheckPath(native, path, function);
    RemovalProgress progress(handler, native);
    try {
        fsRemoveNode(native.text(), mode != fsSimple, function, &progress);
    } catch (xthrowable* failure) {
        if (!progress.IsEnded())
            throw;
        xrcrelease(failure);
        fsRaise(fsSignal, function, native.text());
    }
}

void fsMove(const char* from, const char* to, fsOpMode mode)
{
    constexpr const char* function = "fsMove";
    fsNativePath nativeFrom, nativeTo;
    const char* const source = fsCheckTwoPaths(nativeFrom, from, nativeTo, to, function);
    if (mode != fsSimple)
        fsEnsureParent(nativeTo, function);
    move(source, nativeTo.text(), function, nativeTo.text());
}

void fsRename(const char* path, const char* newName)
{
    constexpr const char* function = "fsRename";
    newName = fsTextOf(newName);
    if (std::strpbrk(newName, "/\\") != nullptr)
        fsRaise(fsInvalidName, function, newName);
    fsNativePath native, target;
    fsCheckPath(native, path, function);
    if (const char* const separator = std::strrchr(native.text(), fsSeparator)) {
        target = native;
        target.Cut(static_cast<std::size_t>(separator - native.text()));
        if (!target.Append(newName))
            fsRaise(fsInvalidPath, function, native.text());
        newName = target.text();
    }
    move(native.text(), newName, function, nullptr);
}

xstring fsReadLink(const char* path)
{
    constexpr const char* function = "fsReadLink";
    fsCheckEmpty(path, function);
    fsCheckRemote(path, function);
    fsRaise(fsLinksNotSupported, function, path);
}

void fsCreateSoftLink(const char*, const char*, fsOpMode)
{
    fsRaise(fsLinksNotSupported, "fsCreateSoftLink", nullptr);
}

void fsSetFileSize(const char* path, double size)
{
    constexpr const char* function = "fsSetFileSize";
    constexpr double beyond = 9223372036854775808.0; // 2^63
    fsNativePath native;
    const char* const file = fsCheckPathSlashes(native, path, function);
    if (!(size >= 0 && size < beyond))
        fsRaise(fsOther, function, file);
    size = static_cast<double>(static_cast<long long>(size));

    const double current = fshGetSize(file); // null is more than any size: a missing file is created and cut
    if (current == size)
        return;
    fsiFile opened;
    if (!opened.Open(file, fsWriteOnly) ||
        !(current > size ? opened.Truncate(size) : extend(opened, current, size)) || !opened.Close())
        fsRaiseLastError(function, file);
}
