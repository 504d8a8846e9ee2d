#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <qel/platform/errortable.h>
#include <qel/platform/filecopy.h>
#include <qel/platform/folder.h>
#include <qel/platform/pathmapping.h>

#include "filelib.h"
#include "fserror_p.h"
#include "fspath_p.h"
#include "fstree_p.h"

namespace {

constexpr const char* function = "fsCopy";

[[noreturn]] void raiseLast(const fsNativePath& about)
{
    fsRaiseLastError(function, about.text());
}

[[noreturn]] void raise(fsErrorCode code, const fsNativePath& about)
{
    fsRaise(code, function, about.text());
}

/// A further name on a path while the object lives.
class PathStep
{
public:
    PathStep(fsNativePath& extended, const char* name) : path(extended), length(extended.length())
    {
        fsJoin(path, name, function);
    }
    ~PathStep() { path.Cut(length); }
    PathStep(const PathStep&) = delete;
    PathStep& operator=(const PathStep&) = delete;

private:
    fsNativePath& path;
    std::size_t length;
};

/// Gives a new directory the mode and time of its source when it is filled, also when filling it ends in a
/// failure.
class StatusKeeper
{
public:
    StatusKeeper(const platFolder& original, platFolder& made, bool isNew)
        : from(original), to(made), pending(isNew)
    {
    }
    ~StatusKeeper() { Keep(); }
    StatusKeeper(const StatusKeeper&) = delete;
    StatusKeeper& operator=(const StatusKeeper&) = delete;

    bool Keep() { return !std::exchange(pending, false) || from.CopyStatus(to); }

private:
    const platFolder& from;
    platFolder& to;
    bool pending;
};

/// A node to be copied: its name in an open directory, and whether a link of that name is followed.
struct Source
{
    const platFolder& folder;
    const char* name;
    platNodeKind kind;
    platLinks links = platKeepLinks;
};

/// Adds up the sizes of the files that are to be copied, as far as they can be found out.
class Measure
{
public:
    explicit Measure(fsSoftLinkCopyMode mode) : linkMode(mode) {}

    void Add(Source source)
    {
        if (source.kind == platLink && linkMode == fsExpand) {
            source.links = platFollowLinks;
            source.kind = source.folder.Kind(source.name, platFollowLinks);
        }
        if (source.kind == platFile)
            total += static_cast<double>(source.folder.Size(source.name, source.links));
        else if (source.kind == platDirectory)
            addDirectory(source);
    }

    double Total() const { return total; }

private:
    void addDirectory(const Source& source)
    {
        platFolder folder;
        if (entered.size() == deepest || !folder.Open(source.folder, source.name, source.links))
            return;
        if (std::find(entered.begin(), entered.end(), folder.Id()) != entered.end())
            return;
        entered.push_back(folder.Id());
        platEntry entry;
        while (folder.Read(entry))
            Add({folder, entry.hostName, entry.kind});
        entered.pop_back();
    }

    static constexpr std::size_t deepest = MAX_PATH / 2; // each level takes two characters of a path

    fsSoftLinkCopyMode linkMode;
    double total = 0;
    std::vector<platNodeId> entered; // the directories on the way
};

/// Passes on how a copy gets on.
class Progress : public platWatcher
{
public:
    Progress(fsProgressHandler& told, const fsNativePath& current) : handler(told), path(current) {}

    void SetTotal(double bytes) { total = bytes; }
    bool IsEnded() const { return ended; }

    bool Advance(off_t size) override
    {
        done += static_cast<double>(size);
        // The end of a file is told when the file is complete.
        return (unheard += size) < step || Tell();
    }
    bool Tell()
    {
        unheard = 0;
        ended = !handler.Invoke(path.text(), done, total);
        return !ended;
    }

private:
    static constexpr off_t step = 8 << 20;

    fsProgressHandler& handler;
    const fsNativePath& path;
    double done = 0, total = 0;
    off_t unheard = 0;
    bool ended = false;
};

/// One copy. The paths are those of the nodes at hand, for the exceptions; the work is done on directories
/// that are held open.
class Copy
{
public:
    /// `told` may be null.
    Copy(const fsNativePath& from, const fsNativePath& to, fsSoftLinkCopyMode mode, fsProgressHandler* told)
        : sourcePath(from), targetPath(to), linkMode(mode)
    {
        if (told != nullptr)
            progress.emplace(*told, sourcePath);
    }

    void Run()
    {
        platFolder from, to;
        std::string name, newName;
        Source top{from, nullptr, platAbsent};
        if (from.OpenParent(sourcePath.text(), name)) {
            top.name = name.c_str();
            top.kind = from.Kind(top.name, platKeepLinks);
        }
        if (!resolve(top))
            return;
        if (progress) {
            Measure measure(linkMode);
            measure.Add(top);
            progress->SetTotal(measure.Total());
        }
        if (!to.OpenParent(targetPath.text(), newName)) {
            if (top.kind != platDirectory)
                raiseLast(sourcePath);
            fsEnsureParent(targetPath, function);
            if (!to.OpenParent(targetPath.text(), newName))
                raiseLast(targetPath);
        }
        copyNode(top, to, newName.c_str(), to.Kind(newName.c_str(), platKeepLinks));
    }

private:
    /// Settles what is to be copied of a node that may be a link. False: nothing.
    bool resolve(Source& source) const
    {
        if (source.kind == platAbsent)
            raiseAbsent();
        if (source.kind == platLink) {
            if (linkMode == fsIgnore)
                return false;
            if (linkMode == fsExpand) {
                source.links = platFollowLinks;
                source.kind = source.folder.Kind(source.name, platFollowLinks);
                if (source.kind == platAbsent)
                    raise(fsInvalidPath, sourcePath);
            }
        }
        if (source.kind == platSpecial) {
            platFailWith(ERROR_ACCESS_DENIED);
            raiseLast(sourcePath);
        }
        return true;
    }

    [[noreturn]] void raiseAbsent() const
    {
        if (fsCodeOf(GetLastError()) == fsIOError)
            raiseLast(sourcePath);
        raise(fsInvalidPath, sourcePath);
    }

    /// Copies to the name `newName` of the directory `to`, where `present` is now.
    void copyNode(const Source& source, platFolder& to, const char* newName, platNodeKind present)
    {
        if (source.kind == platDirectory) {
            if (present != platAbsent && present != platDirectory)
                raise(fsFileExists, sourcePath);
            copyDirectory(source, to, newName, present == platAbsent);
            return;
        }
        if (present == platDirectory)
            raise(fsFileExists, targetPath);
        // Open first: when both names are one file, its content outlives the name that is deleted.
        platSource file;
        if (source.kind == platFile && !file.Open(source.folder, source.name, source.links))
            raiseLast(sourcePath);
        if (present != platAbsent && !to.DeleteFile(newName))
            raiseLast(targetPath);
        const bool copied = source.kind == platFile
                                ? file.CopyTo(to, newName, progress ? &*progress : nullptr)
                                : source.folder.CopyLink(source.name, to, newName);
        if (copied ? progress && !progress->Tell() : progress && progress->IsEnded())
            raise(fsSignal, sourcePath);
        if (!copied)
            raiseLast(sourcePath);
    }

    void copyDirectory(const Source& source, platFolder& to, const char* newName, bool isNew)
    {
        if (source.links == platFollowLinks && leadsBack(source, to))
            raise(fsInvalidPath, sourcePath);
        if (isNew && !to.Create(newName))
            raiseLast(targetPath);
        platFolder from, target;
        if (!from.Open(source.folder, source.name, source.links))
            raiseLast(sourcePath);
        if (!target.Open(to, newName, platKeepLinks))
            raiseLast(targetPath);
        entered.push_back(from.Id());
        StatusKeeper status(from, target, isNew);
        copyEntries(from, target, isNew);
        if (!status.Keep())
            raiseLast(targetPath);
        if (!from.Close())
            raiseLast(sourcePath);
        entered.pop_back();
    }

    void copyEntries(platFolder& from, platFolder& to, bool toIsNew)
    {
        platEntry entry;
        while (from.Read(entry)) {
            const std::string shown = platNativeName(entry.hostName);
            const PathStep inSource(sourcePath, shown.c_str()), inTarget(targetPath, shown.c_str());
            Source child{from, entry.hostName, entry.kind};
            if (resolve(child))
                copyNode(child, to, entry.hostName,
                         toIsNew ? platAbsent : to.Kind(entry.hostName, platKeepLinks));
        }
        if (GetLastError() != ERROR_NO_MORE_FILES)
            raiseLast(sourcePath);
    }

    /// Whether a link leads to a directory that is being copied, or to one that the copy lies in: its
    /// contents would be copied without end.
    bool leadsBack(const Source& link, const platFolder& to) const
    {
        platNodeId id;
        link.folder.Kind(link.name, platFollowLinks, &id);
        return std::find(entered.begin(), entered.end(), id) != entered.end() || to.IsWithin(id);
    }

    fsNativePath sourcePath, targetPath;
    fsSoftLinkCopyMode linkMode;
    std::optional<Progress> progress; // when somebody wants to know
    std::vector<platNodeId> entered;  // the source directories that are being copied
};

/// What is at the path itself: a link is a link.
platNodeKind kindOf(const fsNativePath& path, platNodeId* id = nullptr)
{
    platFolder parent;
    std::string name;
    return parent.OpenParent(path.text(), name) ? parent.Kind(name.c_str(), platKeepLinks, id) : platAbsent;
}

/// Whether the directory that holds `path` is the directory `id` or below it.
bool isHeldBy(const fsNativePath& path, platLinks links, const platNodeId& id)
{
    platFolder parent;
    std::string name;
    return parent.OpenParent(path.text(), name, links) && parent.IsWithin(id);
}

/// Whether the copy would be onto the source, into it, or onto a directory that holds it.
bool meetItself(const fsNativePath& from, const fsNativePath& to, fsSoftLinkCopyMode linkMode)
{
    const platLinks links = linkMode == fsExpand ? platFollowLinks : platKeepLinks;
    platFolder parent, nearest;
    std::string name;
    platNodeId source, target;
    if (!parent.OpenParent(from.text(), name))
        return false;
    const platNodeKind kind = parent.Kind(name.c_str(), links, &source);
    if (kind == platAbsent)
        return false;
    if (kind == platDirectory && nearest.OpenNearest(to.text()) && nearest.IsWithin(source))
        return true;
    const platNodeKind present = kindOf(to, &target);
    if (present == platAbsent)
        return false;
    return source == target || (present == platDirectory &&
                                (isHeldBy(from, platKeepLinks, target) || isHeldBy(from, links, target)));
}

/// `progress` may be null.
void copy(const char* from, const char* to, fsRecursiveCopyMode copyMode, fsSoftLinkCopyMode linkMode,
          fsOpMode mode, fsProgressHandler* progress)
{
    fsNativePath nativeFrom, nativeTo;
    const char* const source = fsCheckTwoPaths(nativeFrom, from, nativeTo, to, function);
    if (!nativeFrom.Assign(source))
        fsRaise(fsInvalidPath, function, source);

    const bool exists = kindOf(nativeTo) != platAbsent;
    if (copyMode == fsForceNew && exists)
        raise(fsFileExists, nativeTo);
    if (meetItself(nativeFrom, nativeTo, linkMode))
        raise(fsInvalidPath, nativeFrom);
    if (mode != fsSimple)
        fsEnsureParent(nativeTo, function);
    if (copyMode == fsReplace && exists) {
        if (kindOf(nativeFrom) == platAbsent)
            raise(fsInvalidPath, nativeFrom);
        fsRemoveNode(nativeTo.text(), true, function);
    }
    Copy(nativeFrom, nativeTo, linkMode, progress).Run();
}

} // namespace

void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode, fsSoftLinkCopyMode linkMode,
            fsOpMode mode)
{
    copy(from, to, copyMode, linkMode, mode, nullptr);
}

void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode, fsSoftLinkCopyMode linkMode,
            fsOpMode mode, fsProgressHandler& progress)
{
    copy(from, to, copyMode, linkMode, mode, &progress);
}
