#pragma once

#include <string>

#include <qel/base/btkfd.h>

// Replacing a file by another one, and preserving its owner and rights.

/// Gives `to` the owner and the group of `from`, both open. False, with the reason in errno, when this
/// process is not permitted to.
BASE_API bool btkCopyOwner(btkHandle from, btkHandle to);

/// Gives the new file or folder `to` the rights of `from`, both open for reading or writing: the bits
/// `modeBits` of its mode, its access list (of folders the default list, too) and its attributes in the
/// "user." namespace. These replace anything that `to` has inherited from its folder: if `from` has no list,
/// `to` has none. Where the file system of `to` does not support these lists, its group gets the list's
/// permissions for the group, within the list's mask, and attributes that it cannot store are omitted. False
/// with the reason in errno.
BASE_API bool btkCopyRights(btkHandle from, btkHandle to, unsigned modeBits = 07777);

/// Flushes the names in the open folder to the disk. False, with the reason in errno, when that fails and
/// where the folder may not be read.
BASE_API bool btkSyncFolder(btkHandle folder);

/// Makes `name` in the open folder a soft link with `text`. Replaces anything else of that name, except a
/// folder, in one step. False with the reason in errno.
BASE_API bool btkReplaceByLink(btkHandle folder, const char* text, const char* name);

/// Gives the node `name` of the open folder a private name, which `aside` receives. If this process is killed
/// before it renames or removes the node, the node stays under that name. False with the reason in errno.
BASE_API bool btkMoveAside(btkHandle folder, const char* name, std::string& aside);

/// A new file that replaces another one in its folder in one step: at any time, also after this process is
/// killed, the name opens the old file or the complete new one. Until then the new file has no name, or a
/// private one, and is removed with the object. Used by one thread at a time; a forked child's copy of the
/// object removes nothing.
///
/// Before a file or link gets a private name, leftovers of killed processes are removed from the folder: files
/// whose name has the mark of this class and that no process holds, and links of such a name that are older
/// than a minute, among the first 10,000 names. After scanning n
/// names, a thread skips the scan for the next n / 16 replacements in that folder.
class BASE_API btkReplacement
{
public:
    /// Whether the content, and the name in its folder, must be flushed to the disk.
    enum Durability { Synced, Unsynced };
    /// Whether another file of that name is replaced.
    enum Existing { Replaced, Kept };
    /// Whether the file has a name before TakePlace. Without one a killed process leaves nothing behind.
    enum Name { Unnamed, Named };

    btkReplacement() = default;
    btkReplacement(const btkReplacement&) = delete;
    btkReplacement& operator=(const btkReplacement&) = delete;
    ~btkReplacement();

    /// Creates the file in the open folder, which stays the caller's and must stay open; a descriptor that
    /// only names the folder is sufficient. Only the owner has access until btkCopyRights, or another call,
    /// changes that. The file gets a name regardless where the file system does not support unnamed files.
    /// False with the reason in errno.
    bool Create(btkHandle inFolder, Name name = Unnamed);
    /// Whether the file has a name that would stay if this process were killed.
    bool IsNamed() const { return !ownName.empty(); }
    /// Creates the file in the folder of the file at `path`, soft links resolved, with that file's owner and
    /// rights. If there is no such file, everybody has access, as far as the process's mask allows. EINVAL if
    /// it is not a plain file; a file that this process may not write is not replaced either.
    bool CreateBeside(const char* path);
    /// Gives it the name for which CreateBeside created it.
    bool TakePlace(Durability durability = Synced) { return TakePlace(target.c_str(), durability); }
    /// The new file, open for reading and writing. -1 before Create.
    btkHandle Get() const { return file.Get(); }
    /// Returns another descriptor of it, which outlives this object; owns nothing when no descriptor is left.
    btkFd Duplicate() const { return file.Duplicate(); }
    /// Appends `size` bytes. False with the reason in errno.
    bool Write(const void* content, std::size_t size);
    /// Gives the file the name `name` in the folder. The descriptor stays open. When that fails, with the
    /// reason in errno (EEXIST: the name is taken and `Kept` was given), nothing has changed. Where the
    /// folder cannot be synchronized, its name reaches the disk later.
    bool TakePlace(const char* name, Durability durability = Synced, Existing existing = Replaced);
    /// Whether an error of creating the file, or of TakePlace, means that the system does not permit
    /// replacing the old file: it can only be overwritten.
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
