#pragma once

#include <qel/base/btkfd.h>

// What processes need that share a file and rewrite parts of it in place.

/// Makes the file `size` bytes long: what stands behind is dropped, what is missing is zero.
BASE_API bool btkSetFileSize(btkHandle handle, long long size);

/// Which file it is, and what others may have done with it.
struct btkFileState
{
    unsigned long long device = 0, node = 0;
    long long size = 0;
    bool hasName = false; // somewhere
    bool isPlain = false; // no folder, pipe or device

    bool IsSameFile(const btkFileState& other) const { return device == other.device && node == other.node; }
};

/// The state of an open file, or of the one that `path`, as the host names it, leads to. False with the
/// reason in errno.
BASE_API bool btkGetFileState(btkHandle handle, btkFileState& state);
BASE_API bool btkGetFileState(const char* path, btkFileState& state);

/// Opens the file of the descriptor anew and puts that in the place of the descriptor's opening: a forked
/// child shares openings, with their locks, with its parent. The file may have lost its name. False, with
/// nothing changed and the reason in errno, when it cannot be opened.
BASE_API bool btkOpenAnew(btkHandle handle);

/// Rewrites parts of one file. When the process is killed meanwhile, the file holds all the old bytes of the
/// part or all the new ones. That cannot be had for more than 4096 bytes, nor where the file cannot be mapped
/// or the system does not permit process_vm_readv: those parts are written as btkWriteAt does.
class BASE_API btkPartWriter
{
public:
    btkPartWriter() = default;
    ~btkPartWriter() { Forget(); }
    btkPartWriter(const btkPartWriter&) = delete;
    btkPartWriter& operator=(const btkPartWriter&) = delete;

    enum Notice {
        AtOnce, // who watches the file learns of every part, and its time of change is that of the last one
        Quietly // the same, but not more often than once a second: saves a system call
    };

    /// As btkWriteAt. `handle` is the same file each time, open for reading and writing. A part that lies
    /// across a page's end takes one system call and one for the notice; the first one has the file mapped,
    /// and it stays so. `notice`: of such a part; of others all learn at once.
    std::size_t Write(btkHandle handle, const void* from, std::size_t size, long long position,
                      Notice notice = AtOnce);
    /// Whether a part lies across a page's end.
    static bool LiesAcross(long long position, std::size_t size);

private:
    static constexpr std::size_t greatestWhole = 4096; // no page is smaller

    bool Map(btkHandle handle, long long end);
    void MakeKnown(btkHandle handle, Notice notice);
    void Forget();

    btkTimeval madeKnown;
    char* pages = nullptr; // from the file's beginning
    long long mapped = 0;  // bytes
};

/// Rests between attempts at something that others will soon have finished.
class BASE_API btkPatience
{
public:
    explicit btkPatience(btkTimeval longest) : limit(longest) {}
    /// Sleeps for a moment, but not at first: others may be through any time. False when `longest` has passed
    /// since the first rest.
    bool Rest();

private:
    btkTimeval limit;
    btkTimeval end;
    int rests = 0;
};

/// A lock on bytes of an open file, which need not exist. It is held against other openings of the file, in
/// this process and in others, and binds only those who ask for locks. Duplicates of a descriptor, and a
/// forked child's copies of it, belong to one opening. The lock is gone with the object, and with the
/// process.
class BASE_API btkRangeLock
{
public:
    enum Kind { Shared, Exclusive };
    enum Answer { Held, Busy, Unsupported };

    /// `size` bytes from `start`; 0: all that follow. Holds nothing yet. The descriptor stays open meanwhile;
    /// it must allow reading for a shared lock and writing for an exclusive one.
    btkRangeLock(btkHandle file, long long start, long long size) : handle(file), first(start), count(size) {}
    btkRangeLock(const btkRangeLock&) = delete;
    btkRangeLock& operator=(const btkRangeLock&) = delete;
    ~btkRangeLock() { Release(); }

    /// Takes the lock unless another opening holds one against it: exclusive ones against all, shared ones
    /// against exclusive ones. Never waits.
    Answer Try(Kind kind);
    /// Waits until the answer is not Busy or `limit` has passed.
    Answer Wait(Kind kind, btkTimeval limit);
    /// Whether Try would answer Busy. Takes nothing.
    bool IsBusy(Kind kind) const;
    void Release();
    /// Lets the opening keep the lock beyond this object's life: it ends when the opening's last descriptor
    /// is closed.
    void Leave() { held = false; }

private:
    btkHandle handle;
    long long first;
    long long count;
    bool held = false;
};
