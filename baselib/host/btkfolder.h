#pragma once

/// Work on the nodes of a directory through its descriptor. While a tree is copied or removed this way,
/// concurrent changes of the tree (a directory replaced by a link, a rename) cannot lead outside it.
///
/// Paths are native or mixed, as for the calls by path; names of nodes are host names, in the operating
/// system's form, as returned by Read. A call that fails leaves the reason in errno. Links are not followed
/// unless documented. An object is used by one thread at a time.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btkreplace.h>

class btkCopyWatcher;
class btkTreeWatcher;

/// The kind of a node itself, without following links. `btkSpecial` is a pipe, socket or device.
enum btkNodeKind { btkAbsent, btkFile, btkDirectory, btkLink, btkSpecial };

/// The identity of a node (device and inode number), independent of its names.
struct btkNodeId
{
    unsigned long long device = 0;
    unsigned long long number = 0;
    bool operator==(const btkNodeId&) const = default;
};

struct btkEntry
{
    const char* hostName; // valid until the next Read
    btkNodeKind kind;
};

enum btkLinks { btkKeepLinks, btkFollowLinks };
/// Whether file systems mounted below a folder belong to it.
enum btkMounts { btkCrossMounts, btkOneMount };

class BASE_API btkFolder
{
public:
    btkFolder() = default;
    btkFolder(const btkFolder&) = delete;
    btkFolder& operator=(const btkFolder&) = delete;
    ~btkFolder();

    /// Opens the directory `path` for reading; follows links.
    bool Open(const char* path);
    /// Opens the directory `name` of `parent` for reading.
    bool Open(const btkFolder& parent, const char* name, btkLinks links);
    /// Opens the directory that holds the node `path`, or its target when links are followed, for everything
    /// but Read, and returns the node's name in it. ENOTDIR when there is no such directory.
    bool OpenParent(const char* path, std::string& hostName, btkLinks links = btkKeepLinks);
    /// Opens the deepest directory on the way to `path` that exists, itself included, for Id and IsWithin.
    bool OpenNearest(const char* path);
    /// Opens the directory `hostPath`, relative to the descriptor `from`, for reading.
    bool OpenHost(int from, const char* hostPath);
    bool Close();

    /// The next entry; "." and ".." are left out. False when it fails and at the end: IsAtEnd tells which.
    bool Read(btkEntry& entry);
    bool IsAtEnd() const { return isEnd; }

    /// The kind of the node `name`; btkAbsent also when that cannot be determined, with errno set.
    /// `id`, unless null, receives the node's identity.
    btkNodeKind Kind(const char* name, btkLinks links, btkNodeId* id = nullptr) const;
    /// The size of the file `name` in bytes; 0 when that cannot be determined.
    long long Size(const char* name, btkLinks links) const;
    bool Create(const char* name);
    bool DeleteFile(const char* name);
    bool RemoveFolder(const char* name);
    bool Rename(const char* name, const char* newName);
    /// btkMoveAside in this folder.
    bool MoveAside(const char* name, std::string& aside);
    /// Removes everything in this folder, depth first, at any depth; links are unlinked and never entered. A
    /// node that no longer exists is not a failure. The first other failure ends the removal, unless
    /// `watcher`, which may be null, decides otherwise. btkOneMount: mount points in it stay, and are not a
    /// failure. True when nothing is left; ENOTEMPTY when nodes were skipped.
    bool RemoveContents(btkTreeWatcher* watcher = nullptr, btkMounts mounts = btkCrossMounts);
    /// Makes `newName` in `target` a link with the same text as the link `name`. `replaced`: a node other
    /// than a directory may have that name; it is replaced atomically.
    bool CopyLink(const char* name, btkFolder& target, const char* newName, bool replaced) const;
    /// Gives `target`, a folder opened for reading, this folder's rights (mode without setuid, access lists,
    /// user attributes) and modification time.
    bool CopyStatus(btkFolder& target) const;

    btkNodeId Id() const;
    /// The number of the mount that this folder, or the node `name` in it, belongs to; 0 when that cannot be
    /// determined.
    unsigned long long Mount(const char* name = "", btkLinks links = btkKeepLinks) const;
    /// Whether this folder is the directory `other` or lies below it.
    bool IsWithin(const btkNodeId& other) const;

private:
    friend class btkSource;
    friend class btkDescent;
    bool adopt(int opened);
    void release();
    bool regain(const btkFolder& below);

    struct Remembered
    {
        std::string name;
        btkNodeKind kind;
    };

    int descriptor = -1;
    void* stream = nullptr;       // the directory stream (DIR*), from the first Read on
    btkNodeId left;               // the identity of the released directory
    std::vector<Remembered> rest; // the entries unread at that time, in reverse order
    Remembered given = {};        // the one of them that Read returned
    bool isReleased = false, isRemembered = false, isEnd = false;
};

/// The chain of folders from a top folder down to a nested one. At any depth only a few are held open. The
/// others are closed, with their unread entries remembered, and reopened from below through ".."; a folder
/// that has moved meanwhile ends the descent.
class BASE_API btkDescent
{
public:
    /// `top` must live as long as this.
    explicit btkDescent(btkFolder& top) : first(top) {}

    btkFolder& Last() { return steps.empty() ? first : *steps.back().folder; }
    std::size_t Depth() const { return steps.size(); }
    /// Opens the directory `name` of the last folder, and makes it the last one.
    bool Enter(const char* name, btkLinks links);
    /// Closes the last folder; its parent becomes the last one. False when the parent cannot be
    /// reopened; ENOTDIR when it has moved.
    bool Leave();

private:
    struct Step
    {
        std::unique_ptr<btkFolder> folder;
        bool isFollowed; // entered through a link: it does not know the folder above
    };
    btkFolder& first;
    std::vector<Step> steps;
};

/// How work on a tree continues after a node failed.
enum class btkTreeAction { skip, retry, stop };

/// Receives the progress and failures of the removal of a tree.
class BASE_API btkTreeWatcher
{
public:
    virtual ~btkTreeWatcher() = default;
    /// A node has been removed. False ends the work with ECANCELED.
    virtual bool Removed() = 0;
    /// The node at `path`, in host names below the folder, cannot be removed; errno gives the reason.
    virtual btkTreeAction Failed(const std::string& path) = 0;
};

/// The open source file of a copy: later changes of its name have no effect.
class BASE_API btkSource
{
public:
    btkSource() = default;
    btkSource(const btkSource&) = delete;
    btkSource& operator=(const btkSource&) = delete;
    ~btkSource();

    /// Opens the file `name` of `folder`. EACCES for anything but a regular file.
    bool Open(const btkFolder& folder, const char* name, btkLinks links);
    /// Copies contents, rights (as btkFolder::CopyStatus) and modification time to a new file in `folder`,
    /// which must stay open. The file has no published name yet, and is removed with this object. `watcher`
    /// may be null.
    bool Copy(const btkFolder& folder, btkCopyWatcher* watcher = nullptr);
    /// Gives the copy its name. `replaced`: as for btkFolder::CopyLink. On failure nothing has changed.
    bool Place(const char* name, bool replaced);

private:
    int descriptor = -1;
    btkReplacement copy;
};
