#pragma once

/// Work on the nodes of a directory through its descriptor. While a tree is copied or removed this way,
/// nothing that others do to the tree (a directory replaced by a link, a rename) leads outside it.
///
/// Paths are native or mixed, as the calls by path take them; names of nodes are host names, as Read gives
/// them. A call that fails sets the last error. Links are not followed unless a call says so. An object is
/// used by one thread at a time.

#include <cstddef>
#include <string>

class platWatcher;

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

/// For paths that may have any length.
inline constexpr std::size_t platNoLimit = static_cast<std::size_t>(-1);

enum platLinks { platKeepLinks, platFollowLinks };

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
    /// Removes everything in this folder, depth first; links are unlinked and never entered. The first node
    /// that cannot be removed ends it; one that is gone already does not. `room` is how long the shown path
    /// of a node below this folder may be: ERROR_BUFFER_OVERFLOW for a longer one. `watcher`, unless null, is
    /// told after each node.
    bool RemoveContents(std::size_t room, platWatcher* watcher = nullptr);
    /// Makes `newName` in `target` a link with the same text as the link `name`.
    bool CopyLink(const char* name, platFolder& target, const char* newName) const;
    /// Gives `target`, a folder opened for reading, this folder's mode (the nine permission bits) and
    /// modification time.
    bool CopyStatus(platFolder& target) const;

    platNodeId Id() const;
    /// Whether this folder is the directory `other` or lies below it.
    bool IsWithin(const platNodeId& other) const;

private:
    friend class platSource;
    bool adopt(int opened);

    int descriptor = -1;
    void* stream = nullptr; // the host's directory stream, from the first Read on
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
    /// Copies contents, mode and modification time to the new file `name` of `folder`; a part of it is
    /// removed when that fails. `watcher` may be null.
    bool CopyTo(platFolder& folder, const char* name, platWatcher* watcher = nullptr);

private:
    int descriptor = -1;
};
