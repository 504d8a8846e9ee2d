#pragma once

#include <string>

#include <qel/base/btkfd.h>

// How a file takes the place of another one, and what it takes over from it.

/// Gives `to` the owner and the group of `from`, both open. False, with the reason in errno, when this
/// process may not do that.
BASE_API bool btkCopyOwner(btkHandle from, btkHandle to);

/// Gives the new file or folder `to` the rights of `from`, both open for reading or writing: the bits
/// `modeBits` of its mode, its access list (of folders the default list, too) and its attributes in the
/// "user." namespace. What `to` has inherited from its folder gives way: without a list in `from` it has
/// none. Where the file system of `to` keeps no lists, or not these, its group gets what the list gives to
/// the group, within the list's mask, and attributes that it cannot keep are left out. False with the reason
/// in errno.
BASE_API bool btkCopyRights(btkHandle from, btkHandle to, unsigned modeBits = 07777);

/// Has the names in the open folder reach the disk. False, with the reason in errno, when that fails and
/// where the folder may not be read.
BASE_API bool btkSyncFolder(btkHandle folder);

/// Makes `name` in the open folder a soft link with `text`, in one step where something else has the name,
/// which must be no folder. False with the reason in errno.
BASE_API bool btkReplaceByLink(btkHandle folder, const char* text, const char* name);

/// A new file that is to take the place of another one in its folder, in one step: whoever opens the name,
/// and whenever this process is killed, finds the old file or the whole new one. Until then the new file has
/// no name, or one that nobody knows, and it is removed with the object. Used by one thread at a time; a
/// forked child's copy of the object removes nothing.
///
/// Before a file gets such a name, what processes that were killed have left in the folder is removed: files
/// whose name has the mark of this class and that no process holds, among the first 10,000 names. After a
/// look at n names, a thread leaves the next n / 16 replacements in that folder out.
class BASE_API btkReplacement
{
public:
    /// Whether the content, and the name in its folder, must have reached the disk.
    enum Durability { Synced, Unsynced };
    /// Whether another file of that name is replaced.
    enum Existing { Replaced, Kept };
    /// Whether the file has a name before TakePlace. Without one a process that is killed leaves nothing.
    enum Name { Unnamed, Named };

    btkReplacement() = default;
    btkReplacement(const btkReplacement&) = delete;
    btkReplacement& operator=(const btkReplacement&) = delete;
    ~btkReplacement();

    /// Makes the file in the open folder, which stays the caller's and must stay open; a descriptor that only
    /// names the folder will do. Until btkCopyRights, or another call, changes that, the file is its owner's
    /// alone. It is named all the same where the file system has no files without a name. False with the
    /// reason in errno.
    bool Create(btkHandle inFolder, Name name = Unnamed);
    /// Whether the file has a name that would stay if this process were killed.
    bool IsNamed() const { return !ownName.empty(); }
    /// Makes the file in the folder of the one that `path` leads to, soft links resolved, whose owner and
    /// rights it gets. Without such a file it is for everybody, as the process's mask allows. EINVAL for what
    /// is no plain file; a file that this process may not write is not replaced either.
    bool CreateBeside(const char* path);
    /// Gives it the name for which CreateBeside has made it.
    bool TakePlace(Durability durability = Synced) { return TakePlace(target.c_str(), durability); }
    /// The new file, open for reading and writing. -1 before Create.
    btkHandle Get() const { return file.Get(); }
    /// Another descriptor of it, which outlives this object; owns nothing when the host has none left.
    btkFd Duplicate() const { return file.Duplicate(); }
    /// Appends `size` bytes. False with the reason in errno.
    bool Write(const void* content, std::size_t size);
    /// Gives the file the name `name` in the folder. The descriptor stays open. When that fails, with the
    /// reason in errno (EEXIST: the name is taken, and `Kept` was asked for), nothing has changed. Where the
    /// folder cannot be synchronized, its name reaches the disk in time.
    bool TakePlace(const char* name, Durability durability = Synced, Existing existing = Replaced);
    /// Whether an error of making the file, or of taking the place, means that the host does not let the old
    /// file be replaced: it can only be overwritten.
    static bool IsKeptOut(int error);

private:
    bool create(unsigned permissions, Name name);
    bool createNamed(unsigned permissions);
    bool nameIt();
    bool lockIt();

    btkHandle folder = -1;
    btkFd ownFolder;    // of CreateBeside
    std::string target; // the name in it
    btkFd file;
    std::string ownName; // empty: there is nothing to remove
    int creator = 0;     // the process
};
