#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <qel/base/btkfilecopy.h>
#include <qel/base/btkfolder.h>
#include <qel/base/btkpath.h>
#include <qel/platform/errortable.h>

#include "filelib.h"
#include "fsexception_p.h"
#include "fspath_p.h"
#include "fstree_p.h"

namespace {

constexpr const char* function = "fsCopy";

[[noreturn]] void raiseLast(const std::string& about)
{
    fsRaiseLastError(function, about.c_str());
}

[[noreturn]] void raise(fsErrorCode code, const std::string& about, unsigned platformError = 0)
{
    fsRaise(code, function, about.c_str(), platformError);
}

/// A node to be copied: its name in the current folder, and whether a link of that name is followed.
struct Source
{
    const char* name;
    btkNodeKind kind;
    btkLinks links = btkKeepLinks;
};

/// Whether an entry belongs to another mount than `mount`, the only one that is copied; 0: all are.
bool isElsewhere(const btkFolder& folder, const btkEntry& entry, fsSoftLinkCopyMode linkMode,
                 unsigned long long mount)
{
    if (mount == 0)
        return false;
    const bool follows = entry.kind == btkLink && linkMode == fsExpand;
    const unsigned long long own = folder.Mount(entry.hostName, follows ? btkFollowLinks : btkKeepLinks);
    return own != 0 && own != mount;
}

/// Adds up the sizes of the files to be copied, as far as they can be determined.
class Measure
{
public:
    Measure(btkFolder& folder, fsSoftLinkCopyMode links, unsigned long long onlyMount)
        : way(folder), linkMode(links), mount(onlyMount)
    {
    }

    double Of(const Source& top)
    {
        add(top);
        while (way.Depth() > 0) {
            btkEntry entry;
            if (way.Last().Read(entry)) {
                if (!isElsewhere(way.Last(), entry, linkMode, mount))
                    add({entry.hostName, entry.kind});
            } else if (!way.Leave()) {
                break;
            }
        }
        return total;
    }

private:
    void add(Source source)
    {
        const btkFolder& folder = way.Last();
        if (source.kind == btkLink && linkMode == fsExpand) {
            btkNodeId id;
            source.links = btkFollowLinks;
            source.kind = folder.Kind(source.name, btkFollowLinks, &id);
            // Each once: links can lead back.
            if (source.kind == btkDirectory && !followed.insert({id.device, id.number}).second)
                return;
        }
        if (source.kind == btkFile)
            total += static_cast<double>(folder.Size(source.name, source.links));
        else if (source.kind == btkDirectory)
            way.Enter(source.name, source.links);
    }

    btkDescent way;
    fsSoftLinkCopyMode linkMode;
    unsigned long long mount; // 0: all
    double total = 0;
    std::set<std::pair<unsigned long long, unsigned long long>> followed;
};

/// Forwards the progress of a copy.
class Progress : public btkCopyWatcher
{
public:
    Progress(fsProgressHandler& told, const std::string& current) : handler(told), path(current) {}

    void SetTotal(double bytes) { total = bytes; }
    bool IsEnded() const { return ended; }

    bool Advance(long long size) override
    {
        done += static_cast<double>(size);
        // The end of a file is reported when the file is complete.
        return (unheard += size) < step || Tell();
    }
    bool Tell()
    {
        unheard = 0;
        ended = !handler.Invoke(path.c_str(), done, total);
        return !ended;
    }

private:
    static constexpr long long step = 8 << 20;

    fsProgressHandler& handler;
    const std::string& path;
    double done = 0, total = 0;
    long long unheard = 0;
    bool ended = false;
};

struct Ways
{
    fsRecursiveCopyMode existing;
    fsSoftLinkCopyMode links;
    fsMountMode mounts = fsCrossMounts;
    fsFailureHandler* failures = nullptr; // null: the first one ends the copy
    fsProgressHandler* progress = nullptr;
};

/// One copy. The paths are those of the current nodes, for the exceptions and handlers; the work is done on
/// folders that are held open.
class Copy
{
public:
    Copy(fsPlace& source, const char* from, fsPlace& destination, const char* to, const Ways& chosen)
        : origin(source), target(destination), sources(source.folder), targets(destination.folder),
          sourcePath(from), targetPath(to), ways(chosen)
    {
        if (ways.progress != nullptr)
            progress.emplace(*ways.progress, sourcePath);
    }

    void Run()
    {
        try {
            attempt([this] { begin(); });
            while (!levels.empty())
                goOn();
        } catch (...) {
            keepStatuses();
            throw;
        }
    }

private:
    /// A directory that is being copied.
    struct Level
    {
        std::size_t sourceLength, targetLength; // of its paths
        bool isNew;
        btkNodeId id; // of the source, when links are followed
    };

    void begin()
    {
        if (origin.kind == btkAbsent)
            origin.Find(sourcePath.c_str());
        Source top{origin.name.c_str(), origin.kind};
        if (!resolve(top))
            return;
        if (ways.mounts == fsOneFileSystem)
            mount = origin.folder.Mount(top.name, top.links);
        if (progress)
            progress->SetTotal(Measure(origin.folder, ways.links, mount).Of(top));
        if (!target.isHeld) {
            const bool isDirectory = top.kind == btkDirectory;
            if (isDirectory)
                fsEnsureParent(targetPath.c_str(), function);
            target.Find(targetPath.c_str());
            if (!target.isHeld)
                raiseLast(isDirectory ? targetPath : sourcePath);
        }
        copyNode(top, target.name.c_str(), target.kind, ways.existing == fsReplace);
    }

    /// Copies the next entry of the current directory, or returns to the parent at its end.
    void goOn()
    {
        const std::size_t depth = levels.size();
        btkEntry entry;
        if (!platDone(sources.Last().Read(entry))) {
            if (sources.Last().IsAtEnd() ||
                fsAsk(ways.failures, sourcePath, [this] { raiseLast(sourcePath); }) != fsRetry)
                leave();
            return;
        }
        platDone(entry.kind != btkAbsent);
        if (isElsewhere(sources.Last(), entry, ways.links, mount))
            return;
        const bool toIsNew = levels.back().isNew;
        const std::string shown = btkNativeName(entry.hostName);
        sourcePath.append(1, fsSeparator).append(shown);
        targetPath.append(1, fsSeparator).append(shown);
        bool isFirst = true;
        attempt([&] {
            Source child{entry.hostName, entry.kind};
            if (resolve(child))
                copyNode(child, entry.hostName,
                         toIsNew && std::exchange(isFirst, false) ? btkAbsent : presentAt(entry.hostName),
                         false);
        });
        if (levels.size() == depth)
            cutPaths();
    }

    /// Repeats `work` until it succeeds or the current node is to be skipped.
    template<class Work>
    void attempt(Work work)
    {
        while (fsAsk(ways.failures, sourcePath, work) == fsRetry) {
        }
    }

    /// Determines what to copy for a node that may be a link. False: nothing.
    bool resolve(Source& source)
    {
        if (source.kind == btkAbsent)
            raiseAbsent();
        if (source.kind == btkLink) {
            if (ways.links == fsIgnore)
                return false;
            if (ways.links == fsExpand) {
                source.links = btkFollowLinks;
                source.kind = sources.Last().Kind(source.name, btkFollowLinks);
                if (!platDone(source.kind != btkAbsent))
                    raise(fsInvalidPath, sourcePath, GetLastError());
            }
        }
        if (source.kind == btkSpecial) {
            platFailWith(ERROR_ACCESS_DENIED);
            raiseLast(sourcePath);
        }
        return true;
    }

    /// The node `newName` of the current target folder.
    btkNodeKind presentAt(const char* newName)
    {
        const btkNodeKind kind = targets.Last().Kind(newName, btkKeepLinks);
        if (!platDone(kind != btkAbsent) && !fsIsAbsence(GetLastError()))
            raiseLast(targetPath);
        return kind;
    }

    [[noreturn]] void raiseAbsent() const
    {
        if (fsCodeOf(GetLastError()) == fsIOError)
            raiseLast(sourcePath);
        raise(fsInvalidPath, sourcePath, GetLastError());
    }

    /// Copies to the name `newName` of the current target folder; `present` is the node there now. `replaces`: a
    /// directory there gives way.
    void copyNode(const Source& source, const char* newName, btkNodeKind present, bool replaces)
    {
        if (source.kind == btkDirectory)
            enter(source, newName, present, replaces);
        else if (present == btkDirectory && !replaces)
            raise(fsFileExists, targetPath);
        else if (source.kind == btkLink)
            copyLink(source, newName, present);
        else
            copyFile(source, newName, present);
    }

    void copyLink(const Source& source, const char* newName, btkNodeKind present)
    {
        const bool isTaken = present != btkAbsent && present != btkDirectory;
        insteadOf(newName, present, [&] {
            if (!platDone(sources.Last().CopyLink(source.name, targets.Last(), newName, isTaken)))
                raiseLast(isTaken && isRefusal() ? targetPath : sourcePath);
        });
        tell();
    }

    /// The node that has the copy's name stays until the copy is complete.
    void copyFile(const Source& source, const char* newName, btkNodeKind present)
    {
        btkSource file;
        if (!platDone(file.Open(sources.Last(), source.name, source.links)))
            raiseLast(sourcePath);
        if (!platDone(file.Copy(targets.Last(), progress ? &*progress : nullptr))) {
            if (progress && progress->IsEnded())
                raise(fsSignal, sourcePath, GetLastError());
            raiseLast(present != btkAbsent && isRefusal() ? targetPath : sourcePath);
        }
        const bool isTaken = present != btkAbsent && present != btkDirectory;
        insteadOf(newName, present, [&] {
            if (!platDone(file.Place(newName, isTaken)))
                raiseLast(isTaken ? targetPath : sourcePath);
        });
        tell();
    }

    /// Whether the last error concerns access rights.
    static bool isRefusal()
    {
        return fsCodeOf(GetLastError()) == fsNoPermission || GetLastError() == ERROR_WRITE_PROTECT;
    }

    void tell()
    {
        if (progress && !progress->Tell())
            raise(fsSignal, sourcePath);
    }

    /// Runs `place`, which puts the copy into its place. A directory of that name moves aside before, is removed
    /// afterwards, and gets its name back when either fails.
    template<class Place>
    void insteadOf(const char* newName, btkNodeKind present, Place place)
    {
        if (present != btkDirectory)
            return place();
        std::string aside;
        if (!platDone(targets.Last().MoveAside(newName, aside)))
            raiseLast(targetPath);
        try {
            place();
            if (!fsRemoveAt(targets.Last(), aside.c_str(), btkDirectory)) {
                targets.Last().DeleteFile(newName);
                raiseLast(targetPath);
            }
        } catch (...) {
            targets.Last().Rename(aside.c_str(), newName);
            throw;
        }
    }

    /// Removes the node that the copy replaces.
    void clear(const char* newName, btkNodeKind present)
    {
        if (!fsRemoveAt(targets.Last(), newName, present))
            raiseLast(targetPath);
    }

    /// Begins the copy of a directory.
    void enter(const Source& source, const char* newName, btkNodeKind present, bool replaces)
    {
        if (present != btkAbsent && present != btkDirectory && !replaces)
            raise(fsFileExists, sourcePath);
        if (source.links == btkFollowLinks && leadsBack(source))
            raise(fsInvalidPath, sourcePath, ERROR_CANNOT_COPY);
        if (!platDone(sources.Enter(source.name, source.links)))
            raiseLast(sourcePath);
        try {
            if (replaces && present != btkAbsent)
                clear(newName, std::exchange(present, btkAbsent));
            if (present == btkAbsent && !platDone(targets.Last().Create(newName)))
                raiseLast(targetPath);
            if (!platDone(targets.Enter(newName, btkKeepLinks))) {
                if (present == btkAbsent)
                    targets.Last().RemoveFolder(newName);
                raiseLast(targetPath);
            }
        } catch (...) {
            sources.Leave();
            throw;
        }
        levels.push_back({sourcePath.size(), targetPath.size(), present == btkAbsent,
                          ways.links == fsExpand ? sources.Last().Id() : btkNodeId{}});
    }

    /// Gives a filled new directory the rights and the time of its source, and returns to its parent.
    void leave()
    {
        attempt([this] {
            if (levels.back().isNew && !platDone(sources.Last().CopyStatus(targets.Last())))
                raiseLast(targetPath);
        });
        levels.pop_back();
        if (!platDone(sources.Leave()))
            raiseLast(sourcePath);
        if (!platDone(targets.Leave()))
            raiseLast(targetPath);
        cutPaths();
    }

    /// The same for directories that a failure has left half filled.
    void keepStatuses()
    {
        bool known = true;
        for (; known && !levels.empty(); levels.pop_back()) {
            if (levels.back().isNew)
                sources.Last().CopyStatus(targets.Last());
            known = sources.Leave() && targets.Leave();
        }
    }

    /// Sets the paths to those of the current directory.
    void cutPaths()
    {
        if (levels.empty())
            return;
        sourcePath.resize(levels.back().sourceLength);
        targetPath.resize(levels.back().targetLength);
    }

    /// Whether a link leads to a directory that is being copied, or to one that the copy lies in: its
    /// contents would be copied without end.
    bool leadsBack(const Source& link)
    {
        btkNodeId id;
        sources.Last().Kind(link.name, btkFollowLinks, &id);
        return std::any_of(levels.begin(), levels.end(),
                           [&id](const Level& level) { return level.id == id; }) ||
               targets.Last().IsWithin(id);
    }

    fsPlace& origin;
    fsPlace& target;
    btkDescent sources, targets; // the current folders
    std::string sourcePath, targetPath;
    const Ways& ways;
    std::optional<Progress> progress; // if there is a progress handler
    unsigned long long mount = 0;     // the only one that is copied; 0: all are
    std::vector<Level> levels;
};

/// Whether the copy would be onto the source, into it, or onto a directory that holds it.
bool meetItself(const fsPlace& from, const fsPlace& to, const fsNativePath& fromPath,
                const fsNativePath& toPath, fsSoftLinkCopyMode linkMode)
{
    btkNodeId source = from.id;
    btkNodeKind kind = from.kind;
    const bool follows = kind == btkLink && linkMode == fsExpand;
    if (follows)
        kind = from.folder.Kind(from.name.c_str(), btkFollowLinks, &source);
    if (kind == btkAbsent)
        return false;
    if (kind == btkDirectory) {
        btkFolder nearest;
        if (to.isHeld ? to.folder.IsWithin(source)
                      : nearest.OpenNearest(toPath.text()) && nearest.IsWithin(source))
            return true;
    }
    if (to.kind == btkAbsent)
        return false;
    if (source == to.id)
        return true;
    if (to.kind != btkDirectory)
        return false;
    btkFolder real; // the folder that holds the link's target
    std::string name;
    return from.folder.IsWithin(to.id) ||
           (follows && real.OpenParent(fromPath.text(), name, btkFollowLinks) && real.IsWithin(to.id));
}

/// Finds the destination, which may not exist yet.
void findTarget(fsPlace& target, const fsNativePath& path)
{
    if (!target.Find(path.text()) && target.isHeld && !fsIsAbsence(GetLastError()))
        raiseLast(path.text());
}

void copy(const char* from, const char* to, fsOpMode mode, const Ways& ways)
{
    fsNativePath nativeFrom, nativeTo;
    fsConvert(nativeFrom, fsCheckTwoPaths(nativeFrom, from, nativeTo, to, function), function);

    fsPlace target, origin;
    findTarget(target, nativeTo);
    if (ways.existing == fsForceNew && target.kind != btkAbsent)
        raise(fsFileExists, nativeTo.text());
    origin.Find(nativeFrom.text());
    if (meetItself(origin, target, nativeFrom, nativeTo, ways.links))
        raise(fsInvalidPath, nativeFrom.text(), ERROR_CANNOT_COPY);
    if (mode != fsSimple && !target.isHeld) {
        fsEnsureParent(nativeTo.text(), function);
        findTarget(target, nativeTo);
    }
    Copy(origin, nativeFrom.text(), target, nativeTo.text(), ways).Run();
}

} // namespace

void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode, fsSoftLinkCopyMode linkMode,
            fsOpMode mode)
{
    copy(from, to, mode, {.existing = copyMode, .links = linkMode});
}

void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode, fsSoftLinkCopyMode linkMode,
            fsOpMode mode, fsProgressHandler& progress)
{
    copy(from, to, mode, {.existing = copyMode, .links = linkMode, .progress = &progress});
}

void fsCopy(const char* from, const char* to, fsRecursiveCopyMode copyMode, fsSoftLinkCopyMode linkMode,
            fsOpMode mode, fsFailureHandler& failures, fsProgressHandler* progress, fsMountMode mounts)
{
    copy(from, to, mode,
         {.existing = copyMode,
          .links = linkMode,
          .mounts = mounts,
          .failures = &failures,
          .progress = progress});
}
