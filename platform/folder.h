#pragma once

/// Work on the nodes of a directory through its descriptor. While a tree is copied or removed this way,
/// nothing that others do to the tree (a directory replaced by a link, a rename) leads outside it.
///
/// Paths are native or mixed, as the calls by path take them; names of nodes are host names, as Read gives
/// them. A call that fails sets the last error. Links are not followed unless a call says so. An object is
/// used by one thread at a time.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btkreplace.h>

class platWatcher;
class platTreeWatcher;

/// What a node is itself. `platSpecial` is a pipe, socket or device.
enum platNodeKind { platAbsent, platFile, platDirectory, platLink, platSpecial };

/// Which node of the host it is, whatever its names.
struct platNodeId
{
    unsigned long long device = 0;
    unsigned long long number = 0;
    bool operator==(const platNodeId&) const = default;
};

struct platEntry
{
    const char* hostName; // valid until the next Read
    platNodeKind kind;
};

enum platLinks { platKeepLinks, platFollowLinks };
/// Whether what is mounted below a folder belongs to it.
enum platMounts { platCrossMounts, platOneMount };

class platFolder
{
public:
    platFolder() = default;
    platFolder(const platFolder&) = delete;
    platFolder& operator=(const platFolder&) = delete;
    ~platFolder();

    /// Opens the directory `path` for reading; follows links.
    bool Open(const char* path);
    /// Opens the directory `name` of `parent` for reading.
    bool Open(const platFolder& parent, const char* name, platLinks links);
    /// Opens the directory that holds the node `path`, or what that leads to when links are followed, for
    /// everything but Read, and gives the node's name in it.
    bool OpenParent(const char* path, std::string& hostName, platLinks links = platKeepLinks);
    /// Opens the deepest directory on the way to `path` that exists, itself included, for Id and IsWithin.
    bool OpenNearest(const char* path);
    /// Opens the directory `hostPath`, relative to the host descriptor `from`, for reading.
    bool OpenHost(int from, const char* hostPath);
    bool Close();

    /// The next entry; "." and ".." are left out. False at the end too, with ERROR_NO_MORE_FILES.
    bool Read(platEntry& entry);

    /// What the node `name` is; platAbsent also when that cannot be found out, with the last error set. `id`,
    /// when given, receives which node it is.
    platNodeKind Kind(const char* name, platLinks links, platNodeId* id = nullptr) const;
    /// The bytes that the file `name` holds; 0 when that cannot be found out.
    long long Size(const char* name, platLinks links) const;
    bool Create(const char* name);
    bool DeleteFile(const char* name);
    bool RemoveFolder(const char* name);
    bool Rename(const char* name, const char* newName);
    /// Removes everything in this folder, depth first, however deep it is; links are unlinked and never
    /// entered. A node that is gone already is no failure. The first other failure ends it, unless `watcher`,
    /// which may be null, decides otherwise. platOneMount: what is mounted in it stays, and is no failure.
    /// True when nothing is left; ERROR_DIR_NOT_EMPTY when nodes were passed over.
    bool RemoveContents(platTreeWatcher* watcher = nullptr, platMounts mounts = platCrossMounts);
    /// Makes `newName` in `target` a link with the same text as the link `name`. `replaced`: something else
    /// may have that name, which is no directory; it gives way in one step.
    bool CopyLink(const char* name, platFolder& target, const char* newName, bool replaced) const;
    /// Gives `target`, a folder opened for reading, this folder's rights (mode without setuid, access lists,
    /// user attributes) and modification time.
    bool CopyStatus(platFolder& target) const;

    platNodeId Id() const;
    /// A number of the mount that this folder, or the node `name` in it, belongs to; 0 when that cannot be
    /// found out.
    unsigned long long Mount(const char* name = "", platLinks links = platKeepLinks) const;
    /// Whether this folder is the directory `other` or lies below it.
    bool IsWithin(const platNodeId& other) const;

private:
    friend class platSource;
    friend class platDescent;
    bool adopt(int opened);
    void release();
    bool regain(const platFolder& below);

    struct Remembered
    {
        std::string name;
        platNodeKind kind;
    };

    int descriptor = -1;
    void* stream = nullptr;       // the host's directory stream, from the first Read on
    platNodeId left;              // which directory was released
    std::vector<Remembered> rest; // what was to be read then, the last one first
    Remembered given = {};        // of these, the one that Read gave
    bool isReleased = false, isRemembered = false;
};

/// The way from a folder down to one far below it. However long it is, few of its folders are held open. The
/// others are closed with what is left to read in them remembered, and opened again from below; a folder that
/// is not where it was by then ends the way.
class platDescent
{
public:
    /// `top` must live as long as this.
    explicit platDescent(platFolder& top) : first(top) {}

    platFolder& Last() { return steps.empty() ? first : *steps.back().folder; }
    std::size_t Depth() const { return steps.size(); }
    /// Opens the directory `name` of the last folder, which is the last one then. False with the last error.
    bool Enter(const char* name, platLinks links);
    /// Closes the last folder; the one above it is the last one then. False, with the last error set, when
    /// that is lost.
    bool Leave();

private:
    struct Step
    {
        std::unique_ptr<platFolder> folder;
        bool isFollowed; // entered through a link: it does not know the folder above
    };
    platFolder& first;
    std::vector<Step> steps;
};

/// What is done about a node that work on a tree fails on.
enum class platAction { skip, retry, stop };

/// Told how the removal of a tree gets on.
class platTreeWatcher
{
public:
    virtual ~platTreeWatcher() = default;
    /// A node has been removed. False ends the work with ERROR_OPERATION_ABORTED.
    virtual bool Removed() = 0;
    /// The node at `path`, in host names below the folder, cannot be removed; the last error says why.
    virtual platAction Failed(const std::string& path) = 0;
};

/// A file to be copied, held open: what happens to its name afterwards does not matter.
class platSource
{
public:
    platSource() = default;
    platSource(const platSource&) = delete;
    platSource& operator=(const platSource&) = delete;
    ~platSource();

    /// Opens the file `name` of `folder`. ERROR_ACCESS_DENIED for anything but a regular file.
    bool Open(const platFolder& folder, const char* name, platLinks links);
    /// Copies contents, rights (as platFolder::CopyStatus) and modification time to a new file in `folder`,
    /// which must stay open. The file has no name yet that anybody knows, and is removed with this object.
    /// `watcher` may be null.
    bool Copy(const platFolder& folder, platWatcher* watcher = nullptr);
    /// Gives the copy its name. `replaced`: as for platFolder::CopyLink. When it fails nothing has changed.
    bool Place(const char* name, bool replaced);

private:
    int descriptor = -1;
    btkReplacement copy;
};
