#include "lockfilebuf.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <ios>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <qel/base/btkfilepart.h>
#include <qel/base/btkreplace.h>
#include <qel/base/btkretry.h>

#include "updatejournal_p.h"

namespace {

constexpr int attempts = 10000;                  // limit for a file that others keep replacing
constexpr long long queueByte = (1LL << 62) + 1; // of the file: locked by those that wait for an update

bool isSame(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// An opening of a file by this thread; any thread may have closed it again.
struct Opening
{
    struct stat status;
    pid_t process;
    bool forUpdate;
    std::atomic<bool> isOpen = true;
};

thread_local std::vector<std::shared_ptr<Opening>> openings;

enum class Own { none, reading, updating };

/// The mode in which this thread already has the file open.
Own ownOpeningOf(const struct stat& status)
{
    std::erase_if(openings, [](const auto& each) { return !each->isOpen; });
    Own found = Own::none;
    for (const auto& each : openings)
        if (isSame(each->status, status) && each->process == getpid() && found != Own::updating)
            found = each->forUpdate ? Own::updating : Own::reading;
    return found;
}

/// Takes the lock of the file before `end`.
bool lockBefore(int file, bool forUpdate, btkTimeval end)
{
    const int kind = forUpdate ? LOCK_EX : LOCK_SH;
    if (end.IsForever())
        return btkRetry([&] { return flock(file, kind); }) == 0;
    btkPatience patience(end - btkTimeval::Now());
    do {
        if (flock(file, kind | LOCK_NB) == 0)
            return true;
        if (errno != EWOULDBLOCK && errno != EINTR)
            return false;
    } while (patience.Rest());
    errno = EAGAIN;
    return false;
}

/// Takes the lock of the file before `end`, after those that wait for an update.
bool queueForLock(int file, bool forUpdate, btkTimeval end)
{
    btkRangeLock queue(file, queueByte, 1);
    const btkTimeval limit = end.IsForever() ? end : end - btkTimeval::Now();
    if (queue.Wait(forUpdate ? btkRangeLock::Exclusive : btkRangeLock::Shared, limit) == btkRangeLock::Busy) {
        errno = EAGAIN;
        return false;
    }
    return lockBefore(file, forUpdate, end);
}

/// Reserves the space for `size` bytes. False when there is not enough. Changes no visible content.
bool reserve(int file, std::size_t size)
{
    const auto bytes = static_cast<off_t>(size);
    return size == 0 || btkRetry([&] { return fallocate(file, FALLOC_FL_KEEP_SIZE, 0, bytes); }) == 0 ||
           (errno != ENOSPC && errno != EDQUOT && errno != EFBIG && errno != EIO);
}

/// Writes the added part first: until it is complete, truncation restores the old content.
bool writeInPlace(int file, std::size_t oldSize, const char* content, std::size_t size)
{
    const std::size_t head = size < oldSize ? size : oldSize;
    return btkWriteAt(file, content + head, size - head, static_cast<long long>(head)) == size - head &&
           btkWriteAt(file, content, head, 0) == head && btkSetFileSize(file, static_cast<long long>(size)) &&
           btkRetry([&] { return fsync(file); }) == 0;
}

/// Overwrites the file in place; `folder` holds its name.
bool overwrite(int folder, int file, const char* content, std::size_t size)
{
    std::string old;
    if (!readWhole(file, old))
        return false;
    if (!reserve(file, size)) {
        const int error = errno;
        btkSetFileSize(file, static_cast<long long>(old.size())); // releases the reserved space
        errno = error;
        return false;
    }
    const updateJournal journal(folder, file);
    const bool kept = journal.Write(old, content, size);
    if (writeInPlace(file, old.size(), content, size)) {
        if (kept)
            journal.Remove(); // if it stays, it matches the file
        return true;
    }
    const int error = errno;
    const bool takenBack = btkSetFileSize(file, static_cast<long long>(old.size())) &&
                           writeInPlace(file, old.size(), old.data(), old.size());
    if (kept && !takenBack)
        return true; // readers find the new content in the journal
    if (kept)
        journal.Remove();
    errno = error;
    return false;
}

} // namespace

struct lockFileBuf::State
{
    btkFd file;
    btkFd folder;     // the one that holds the file
    std::string name; // of the file in it
    struct stat opened = {};
    std::shared_ptr<Opening> opening; // null: not locked
    std::string fromJournal;          // content to read instead of the file's
    bool usesJournal = false;
    char buffer[16384];

    ~State()
    {
        const int error = errno;
        Unlock();
        errno = error;
    }

    /// A forked child's copy of the descriptor would keep the lock.
    void Unlock()
    {
        if (opening == nullptr)
            return;
        opening->isOpen = false;
        std::erase(openings, opening); // after a close in another thread, the opening thread finds it closed
        if (opening->process == getpid())
            flock(file.Get(), LOCK_UN);
        opening.reset();
    }

    bool Open(const char* path, int flags, int permissions, btkTimeval end)
    {
        // O_NONBLOCK: opening a pipe fails instead of blocking.
        file.Reset(
            btkRetry([&] { return open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, permissions); }));
        if (!file || fstat(file.Get(), &opened) != 0)
            return false;
        if (!S_ISREG(opened.st_mode)) {
            errno = EACCES;
            return false;
        }
        return Lock((flags & O_ACCMODE) == O_RDWR, end);
    }

    bool Lock(bool forUpdate, btkTimeval end)
    {
        const Own own = ownOpeningOf(opened);
        if (own == Own::updating || (own == Own::reading && forUpdate)) {
            errno = EDEADLK;
            return false;
        }
        auto made = std::make_shared<Opening>();
        made->status = opened;
        made->process = getpid();
        made->forUpdate = forUpdate;
        openings.push_back(made);
        // Must not wait for an update that itself waits for this thread's other opening.
        const bool locked = own == Own::reading ? lockBefore(file.Get(), forUpdate, end)
                                                : queueForLock(file.Get(), forUpdate, end);
        if (locked)
            opening = std::move(made);
        else
            std::erase(openings, made);
        return locked;
    }

    /// Finds the folder that holds the file. False, with ENOENT, when the file at `path` is now another one.
    bool Locate(const char* path)
    {
        const std::unique_ptr<char, decltype(&std::free)> real(realpath(path, nullptr), &std::free);
        if (real == nullptr)
            return false;
        const std::string whole = real.get();
        const std::size_t last = whole.rfind('/') + 1;
        name = whole.substr(last);
        folder.Reset(open(whole.substr(0, last).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat there;
        if (!folder || fstatat(folder.Get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        errno = ENOENT;
        return isSame(there, opened);
    }

    /// Completes an interrupted update, or reads its content from the journal.
    bool Recover()
    {
        const updateJournal journal(folder.Get(), file.Get());
        updateJournal::Standing standing;
        if (!journal.Find(standing, fromJournal))
            return false;
        usesJournal = standing == updateJournal::current;
        if (standing == updateJournal::absent || !opening->forUpdate)
            return fstat(file.Get(), &opened) == 0; // it may have changed during the wait
        if (usesJournal && !writeInPlace(file.Get(), static_cast<std::size_t>(btkGetFileSize(file.Get())),
                                         fromJournal.data(), fromJournal.size()))
            return false;
        usesJournal = false;
        return journal.Remove() && fstat(file.Get(), &opened) == 0;
    }

    /// Whether the file has been deleted by others. False for any other change.
    bool CheckOthers(bool& deleted) const
    {
        struct stat there, now;
        deleted = fstatat(folder.Get(), name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0;
        if (deleted)
            return errno == ENOENT;
        const bool unchanged = isSame(there, opened) && fstat(file.Get(), &now) == 0 &&
                               now.st_size == opened.st_size && now.st_mtim.tv_sec == opened.st_mtim.tv_sec &&
                               now.st_mtim.tv_nsec == opened.st_mtim.tv_nsec;
        if (!unchanged)
            errno = ESTALE;
        return unchanged;
    }

    /// Gives the new file the old one's owner and rights. A deleted file cannot be overwritten: the new one
    /// is accessible to its creator only when the owner cannot be kept.
    bool TakeStatus(btkHandle next, bool deleted) const
    {
        constexpr unsigned ownersBits = 0700;
        if (btkCopyOwner(file.Get(), next))
            return btkCopyRights(file.Get(), next);
        return deleted && fchmod(next, opened.st_mode & ownersBits) == 0;
    }

    bool Replace(const char* content, std::size_t size)
    {
        bool deleted = false;
        if (!CheckOthers(deleted))
            return false;
        // A file made read-only meanwhile is not changed.
        if (!deleted && faccessat(folder.Get(), name.c_str(), W_OK, AT_EACCESS) != 0)
            return false;
        if (!deleted && opened.st_nlink > 1)
            return overwrite(folder.Get(), file.Get(), content, size);
        btkReplacement next;
        const bool made = next.Create(folder.Get());
        if (made && TakeStatus(next.Get(), deleted)) {
            if (!next.Write(content, size))
                return false;
            if (next.TakePlace(name.c_str(), btkReplacement::Synced,
                               deleted ? btkReplacement::Kept : btkReplacement::Replaced))
                return true;
            if (errno == EEXIST)
                errno = ESTALE;
            if (!btkReplacement::IsKeptOut(errno))
                return false;
        } else if (!made && !btkReplacement::IsKeptOut(errno)) {
            return false;
        }
        return !deleted && overwrite(folder.Get(), file.Get(), content, size);
    }
};

lockFileBuf::lockFileBuf() = default;
lockFileBuf::~lockFileBuf() = default;

bool lockFileBuf::Open(const char* path, int mode, int permissions)
{
    return Open(path, mode, permissions, btkTimeval::Forever());
}

bool lockFileBuf::Open(const char* path, int mode, int permissions, btkTimeval limit)
{
    const int flags = (mode & static_cast<int>(std::ios_base::out)) != 0 ? O_RDWR | O_CREAT : O_RDONLY;
    const btkTimeval end = limit.IsForever() ? limit : btkTimeval::Now() + limit;
    setg(nullptr, nullptr, nullptr);
    failed = false;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        state = std::make_unique<State>();
        if (!state->Open(path, flags, permissions, end))
            break;
        if (state->Locate(path)) {
            if (state->Recover())
                return false;
            break;
        }
        if (errno != ENOENT)
            break;
        errno = EAGAIN;
    }
    state.reset();
    return true;
}

bool lockFileBuf::Close()
{
    if (state == nullptr) {
        errno = EBADF;
        return true;
    }
    setg(nullptr, nullptr, nullptr);
    failed = false;
    state->Unlock();
    const int closed = close(state->file.Release());
    state.reset();
    return closed != 0 && errno != EINTR; // the kernel has closed it then
}

bool lockFileBuf::Replace(const char* content, std::size_t size)
{
    if (state != nullptr)
        return !state->Replace(content, size);
    errno = EBADF;
    return true;
}

std::vector<int> lockFileBuf::GetHolders(const char* path)
{
    std::vector<int> holders;
    struct stat status;
    if (stat(path, &status) != 0)
        return holders;
    // 1: FLOCK  ADVISORY  WRITE 4711 fe:00:131 0 EOF; the lines of waiting processes have "->" behind the
    // number.
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        int process = 0;
        unsigned major = 0, minor = 0;
        unsigned long node = 0;
        if (std::sscanf(line.c_str(), "%*d: FLOCK %*s %*s %d %x:%x:%lu", &process, &major, &minor, &node) ==
                4 &&
            process > 0 && makedev(major, minor) == status.st_dev && node == status.st_ino &&
            // The list is read in parts: a lock may move to a later one meanwhile.
            std::find(holders.begin(), holders.end(), process) == holders.end())
            holders.push_back(process);
    }
    return holders;
}

lockFileBuf::int_type lockFileBuf::underflow()
{
    if (state == nullptr)
        return traits_type::eof();
    if (state->usesJournal) {
        // Returned as a whole; nothing follows it.
        char* const begin = state->fromJournal.data();
        if (gptr() != nullptr || state->fromJournal.empty())
            return traits_type::eof();
        setg(begin, begin, begin + state->fromJournal.size());
        return traits_type::to_int_type(*begin);
    }
    const std::ptrdiff_t count = btkRead(state->file.Get(), state->buffer, sizeof state->buffer);
    failed = count < 0;
    if (count <= 0)
        return traits_type::eof();
    setg(state->buffer, state->buffer, state->buffer + count);
    return traits_type::to_int_type(state->buffer[0]);
}
