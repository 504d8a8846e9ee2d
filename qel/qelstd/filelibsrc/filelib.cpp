#include "filelib.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <qel/base/btkfilecopy.h>
#include <qel/base/btkfolder.h>
#include <qel/base/btkpath.h>
#include <qel/platform/directories.h>
#include <qel/platform/errortable.h>
#include <qel/platform/files.h>

#include "fsexception_p.h"
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

struct RemovalWays
{
    bool isRecursive;
    fsMountMode mounts = fsCrossMounts;
    fsFailureHandler* failures = nullptr; // null: the first one ends the removal
    fsProgressHandler* progress = nullptr;
};

/// One removal. Its exceptions concern the top node.
class Removal : public btkTreeWatcher
{
public:
    Removal(const fsNativePath& top, const RemovalWays& chosen) : path(top), ways(chosen) {}

    void Run()
    {
        while (fsAsk(ways.failures, path.text(), [this] { removeTop(); }) == fsRetry) {
        }
    }

    bool Removed() override
    {
        isEnded = ways.progress != nullptr && !ways.progress->Invoke(path.text(), ++done, 0);
        return !isEnded;
    }

    btkTreeAction Failed(const std::string& below) override
    {
        if (ways.failures == nullptr || below.empty())
            return btkTreeAction::stop; // as a failure of the top itself
        platFail();
        std::string node = btkNativeName(below);
        std::replace(node.begin(), node.end(), '/', fsSeparator);
        node.insert(0, 1, fsSeparator).insert(0, path.text());
        fsFailureAction action = fsStop;
        try {
            fsRaiseLastError(function, node.c_str());
        } catch (xthrowable* failure) {
            action = ways.failures->OnFailure(node.c_str(), fsXException::softcast(failure));
            xrcrelease(failure);
        }
        if (action == fsSkip)
            isLeft = true;
        else if (action != fsRetry)
            ways.failures = nullptr; // no further report that the top stays
        return action == fsSkip    ? btkTreeAction::skip
               : action == fsRetry ? btkTreeAction::retry
                                   : btkTreeAction::stop;
    }

private:
    static constexpr const char* function = "fsRemove";

    void removeTop()
    {
        isLeft = false;
        if (removeNode())
            return;
        const bool mayStay = ways.isRecursive && (isLeft || ways.mounts == fsOneFileSystem);
        if (GetLastError() == ERROR_DIR_NOT_EMPTY && mayStay)
            return;
        if (isEnded)
            fsRaise(fsSignal, function, path.text(), GetLastError());
        fsRaiseLastError(function, path.text());
    }

    bool removeNode()
    {
        fsPlace place;
        if (!place.Find(path.text()))
            return false;
        if (place.kind != btkDirectory)
            // With a trailing separator the path means the target of a link, or nothing.
            return endsWithSeparator(path.text()) ? platFailWith(ERROR_DIRECTORY)
                                                  : platDone(place.folder.DeleteFile(place.name.c_str()));
        // A root, and a directory named "." or "..", cannot be removed: nothing in it is touched either.
        if (!ways.isRecursive || place.name == ".")
            return platDone(place.folder.RemoveFolder(place.name.c_str()));
        return fsRemoveAt(place.folder, place.name.c_str(), place.kind, this,
                          ways.mounts == fsOneFileSystem ? btkOneMount : btkCrossMounts);
    }

    const fsNativePath& path;
    RemovalWays ways;
    double done = 0;
    bool isEnded = false, isLeft = false;
};

void remove(const char* path, const RemovalWays& ways)
{
    fsNativePath native;
    fsCheckPath(native, path, "fsRemove");
    Removal(native, ways).Run();
}

void move(const char* from, const char* to, const char* function, const char* about)
{
    if (!MoveFileExA(from, to, 0))
        fsRaiseLastError(function, about);
}

/// Appends zero bytes to a file of `current` bytes until it has `wanted`. Cuts it again when that fails.
bool extend(fsiFile& file, double current, double wanted)
{
    constexpr std::size_t blockSize = 1 << 20;
    const std::vector<char> zeros(blockSize);
    double size = current;
    if (!file.Seek(fsFromEnd, 0))
        return false;
    while (size < wanted) {
        const double step = std::min(static_cast<double>(blockSize), wanted - size);
        if (file.Write(zeros.data(), static_cast<unsigned long>(step), nullptr) != fsIOOk) {
            const unsigned error = GetLastError();
            file.Truncate(current);
            SetLastError(error);
            return false;
        }
        size += step;
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
    if (isThere()) // another process has created it meanwhile
        return true;
    SetLastError(error);
    return false;
}

} // namespace

bool fsPlace::Find(const char* path)
{
    isHeld = folder.OpenParent(path, name);
    kind = isHeld ? folder.Kind(name.c_str(), btkKeepLinks, &id) : btkAbsent;
    return platDone(kind != btkAbsent);
}

bool fsRemoveAt(btkFolder& parent, const char* name, btkNodeKind kind, btkTreeWatcher* watcher,
                btkMounts mounts)
{
    if (kind != btkDirectory)
        return platDone(parent.DeleteFile(name));
    btkFolder folder;
    return platDone(folder.Open(parent, name, btkKeepLinks) && folder.RemoveContents(watcher, mounts) &&
                    folder.Close() && parent.RemoveFolder(name));
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

void fsEnsureParent(const char* path, const char* function)
{
    const char* const separator = std::strrchr(path, fsSeparator);
    if (separator == nullptr)
        return;
    fsNativePath parent;
    fsConvert(parent, path, function);
    parent.Cut(static_cast<std::size_t>(separator - path));
    // A root exists.
    if (!fsIsEmptyPath(parent.text()) && !fshExists(parent.text()) && !fsCreateLevels(parent))
        fsRaiseLastError(function, path);
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
    remove(path, {.isRecursive = mode != fsSimple});
}

void fsRemove(const char* path, fsOpMode mode, fsProgressHandler& progress)
{
    remove(path, {.isRecursive = mode != fsSimple, .progress = &progress});
}

void fsRemove(const char* path, fsOpMode mode, fsFailureHandler& failures, fsProgressHandler* progress,
              fsMountMode mounts)
{
    remove(path,
           {.isRecursive = mode != fsSimple, .mounts = mounts, .failures = &failures, .progress = progress});
}

void fsMove(const char* from, const char* to, fsOpMode mode)
{
    constexpr const char* function = "fsMove";
    fsNativePath nativeFrom, nativeTo;
    const char* const source = fsCheckTwoPaths(nativeFrom, from, nativeTo, to, function);
    if (mode != fsSimple)
        fsEnsureParent(nativeTo.text(), function);
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

    const double current = fshGetSize(file); // null exceeds any size: a missing file is created and truncated
    if (current == size)
        return;
    fsiFile opened;
    if (!opened.Open(file, fsWriteOnly) ||
        !(current > size ? opened.Truncate(size) : extend(opened, current, size)) || !opened.Close())
        fsRaiseLastError(function, file);
}
