#pragma once

#include <cstddef>
#include <memory>
#include <streambuf>
#include <vector>

#include <qel/base/baseexport.h>
#include <qel/base/btktimeval.h>

/// A stream buffer that reads a file and locks it while it is open, with a shared lock for reading and an
/// exclusive lock for updating. Openings of this kind wait for their turn; readers that arrive while an
/// update waits are admitted after it. The lock applies to the file itself, between all openings of it,
/// including those of one process. Open fails with EDEADLK when the thread would wait for itself: it has the
/// file open, and one of the two openings is for updating. The operations return true when they FAIL, with
/// the reason in errno. Used by one thread at a time. Closing unlocks, also while a forked child has a copy
/// of the descriptor; the child itself unlocks nothing.
class BASE_API lockFileBuf : public std::streambuf
{
public:
    lockFileBuf();
    lockFileBuf(const lockFileBuf&) = delete;
    lockFileBuf& operator=(const lockFileBuf&) = delete;
    ~lockFileBuf() override;

    /// Opens `path`, a path of the operating system, and waits for the lock, `limit` at most: EAGAIN when
    /// that has expired. `mode` is std::ios_base::in, or in and out for updating, which creates a missing
    /// file with `permissions`. If the file at `path` was replaced during the wait, the new one is locked
    /// instead.
    bool Open(const char* path, int mode, int permissions, btkTimeval limit);
    /// The same without a limit.
    bool Open(const char* path, int mode, int permissions);
    bool Close();
    /// Whether reading stopped because of an error, not at the end of the file.
    bool HasFailed() const { return failed; }

    /// Replaces the content of a file that is open for updating. Fails with ESTALE, and writes nothing, when
    /// the name now leads to another file, or when the file's size or modification time has changed since it
    /// was opened: another process changed it without the lock. A file that was deleted since is created
    /// again. The lock stays with this buffer, but guards the replaced file: close it next.
    ///
    /// Normally a new file replaces the old one atomically: readers find the old or the new content, even
    /// when this process or the machine stops at any moment. Owner, mode, access list and user attributes are
    /// kept; soft links on the way to the file stay. When it fails, the old content stays and no other file
    /// is left.
    ///
    /// A file is overwritten in place instead when it has several hard links, when its folder cannot be
    /// written to, when this process cannot give the new file to the owner, and when the operating system
    /// does not allow the replacement (the file is a mount point, for example). Then:
    /// - The space is reserved first, so that a full disk changes nothing; a later failure restores the old
    ///   content.
    /// - If the folder is writable, both contents are stored in a journal beside the file, on the disk, until
    ///   the write is complete. After a kill or a loss of power, openings of this kind through a name in that
    ///   folder find the new content, and the next one for updating completes the file. Other programs, and
    ///   names in other folders, find a mixture of both until then.
    /// - Otherwise a kill or a loss of power midway leaves such a mixture.
    bool Replace(const char* content, std::size_t size);

    /// The numbers of the processes that hold the lock of the file `path`, as far as the operating system
    /// shows them.
    static std::vector<int> GetHolders(const char* path);

protected:
    int_type underflow() override;

private:
    struct State;

    std::unique_ptr<State> state; // null: closed
    bool failed = false;
};
