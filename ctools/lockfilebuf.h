#pragma once

#include <cstddef>
#include <memory>
#include <streambuf>
#include <vector>

#include <qel/base/baseexport.h>
#include <qel/base/btktimeval.h>

/// A stream buffer that reads a file and keeps a lock on it while it is open: a shared one for reading, an
/// exclusive one for updating. Openings of this kind wait for their turn; readers that come while an update
/// waits are let in after it. The lock is on the file itself, between all openings of it, those of one
/// process included. A thread that would wait for itself is refused instead (EDEADLK): it has the file open,
/// and one of the two openings is for updating. The operations return true when they FAIL, with the reason in
/// errno. Used by one thread at a time. Closing unlocks, also while a forked child has a copy of the
/// descriptor; the child itself unlocks nothing.
class BASE_API lockFileBuf : public std::streambuf
{
public:
    lockFileBuf();
    lockFileBuf(const lockFileBuf&) = delete;
    lockFileBuf& operator=(const lockFileBuf&) = delete;
    ~lockFileBuf() override;

    /// Opens `path`, a path of the host, and waits for the lock, `limit` at most: EAGAIN when that has
    /// passed. `mode` is std::ios_base::in, or in and out for updating, which creates a missing file with
    /// `permissions`. When the file that was locked is no longer the one at `path`, because it was replaced
    /// during the wait, the one that is there now is locked instead.
    bool Open(const char* path, int mode, int permissions, btkTimeval limit);
    /// The same without a limit.
    bool Open(const char* path, int mode, int permissions);
    bool Close();
    /// Whether reading has ended in an error, and not at the end of the file.
    bool HasFailed() const { return failed; }

    /// Replaces the content of a file that is open for updating. Fails with ESTALE, and writes nothing, when
    /// the name leads to another file by now, or when the size or the modification time of the file is not
    /// that of its opening: others have changed it without asking for the lock. A file that was deleted since
    /// is written anew. The lock stays with this buffer, but guards the replaced file: close it next.
    ///
    /// As a rule a new file takes the place of the old one in one step: whoever reads it, and whenever this
    /// process or the machine stops, finds the old content or the new one. Owner, mode, access list and
    /// user attributes are kept; soft links on the way to the file stay. When it fails, the old content stays
    /// and no other file is left.
    ///
    /// A file is overwritten in place instead when it has several hard links, when its folder cannot be
    /// written to, when this process cannot give the new file to the owner, and when the host does not let it
    /// be replaced, as one that is a mount of its own. Then:
    /// - The space is reserved first, so that a full disk changes nothing; what fails later is taken back.
    /// - Where the folder can be written to, both contents are kept beside the file, on the disk, until it is
    ///   done. After a kill or a loss of power, openings of this kind through a name in that folder find the
    ///   new content, and the next one for updating completes the file. Other programs, and names in other
    ///   folders, find a mixture of both until then.
    /// - Elsewhere a kill or a loss of power in the middle leaves such a mixture.
    bool Replace(const char* content, std::size_t size);

    /// The numbers of the processes that hold the lock of the file `path`, as far as the host shows them.
    static std::vector<int> GetHolders(const char* path);

protected:
    int_type underflow() override;

private:
    struct State;

    std::unique_ptr<State> state; // null: closed
    bool failed = false;
};
