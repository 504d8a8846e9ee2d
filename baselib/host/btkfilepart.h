#pragma once

#include <qel/base/btkfd.h>

// For processes that share a file and rewrite parts of it in place.

/// Sets the file's size to `size` bytes: truncates it, or extends it with zeros.
BASE_API bool btkSetFileSize(btkHandle handle, long long size);

/// Identity and state of a file, to detect changes by others.
struct btkFileState
{
    /// Together they identify the file.
    unsigned long long device = 0;
    unsigned long long node = 0;
    /// Bytes.
    long long size = 0;
    bool hasName = false; // in any folder
    bool isPlain = false; // not a folder, pipe or device

    /// Whether both states are of one file.
    bool IsSameFile(const btkFileState& other) const { return device == other.device && node == other.node; }
};

/// Stores the state of an open file, or of the file at `path`, in native form. False with the reason in
/// errno.
BASE_API bool btkGetFileState(btkHandle handle, btkFileState& state);
BASE_API bool btkGetFileState(const char* path, btkFileState& state);

/// Reopens the descriptor's file and replaces the descriptor's open file description: a forked child shares
/// open file descriptions, and their locks, with its parent. The file may have lost its name. False, with
/// nothing changed and the reason in errno, when it cannot be opened.
BASE_API bool btkOpenAnew(btkHandle handle);

/// Rewrites parts of one file. If the process is killed meanwhile, the file holds all the old bytes of the
/// part or all the new ones. Not guaranteed for more than 4096 bytes, nor where the file cannot be mapped or
/// the system does not permit process_vm_readv: those parts are written as by btkWriteAt.
class BASE_API btkPartWriter
{
public:
    btkPartWriter() = default;
    ~btkPartWriter() { Forget(); }
    btkPartWriter(const btkPartWriter&) = delete;
    btkPartWriter& operator=(const btkPartWriter&) = delete;

    /// When watchers of the file are notified of a part.
    enum Notice {
        // Watchers are notified of every part, and the file's modification time is that of the last one.
        AtOnce,
        // The same, but at most once a second: saves a system call.
        Quietly
    };

    /// Like btkWriteAt. `handle` is the same file each time, open for reading and writing. A part that
    /// crosses a page boundary takes one system call and one for the notification; the first one maps the
    /// file, which stays mapped. `notice` applies to such parts; watchers are notified of other parts at
    /// once.
    std::size_t Write(btkHandle handle, const void* from, std::size_t size, long long position,
                      Notice notice = AtOnce);
    /// Whether a part crosses a page boundary.
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

/// Pauses between attempts at an operation that others will soon have finished.
class BASE_API btkPatience
{
public:
    explicit btkPatience(btkTimeval longest) : limit(longest) {}
    /// Sleeps for a moment, except the first time: others may finish at any time. False when `longest` has
    /// passed since the first rest.
    bool Rest();

private:
    btkTimeval limit;
    btkTimeval end;
    int rests = 0;
};

/// An advisory lock on bytes of an open file; the bytes need not exist. It excludes other open file
/// descriptions of the file, in this process and in others. Duplicates of a descriptor, and a forked child's
/// copies of it, share one open file description. The lock is released with the object, and when the process
/// exits.
class BASE_API btkRangeLock
{
public:
    /// How a range is locked.
    enum Kind { Shared, Exclusive };
    /// The result of an attempt: the lock is held, another holder conflicts, or the file system has no locks.
    enum Answer { Held, Busy, Unsupported };

    /// `size` bytes from `start`; 0: all that follow. Holds nothing yet. The descriptor must stay open
    /// meanwhile, and must allow reading for a shared lock and writing for an exclusive one.
    btkRangeLock(btkHandle file, long long start, long long size) : handle(file), first(start), count(size) {}
    btkRangeLock(const btkRangeLock&) = delete;
    btkRangeLock& operator=(const btkRangeLock&) = delete;
    ~btkRangeLock() { Release(); }

    /// Takes the lock unless another open file description holds a conflicting one: exclusive locks conflict
    /// with all, shared ones with exclusive ones. Never waits.
    Answer Try(Kind kind);
    /// Retries until the result is not Busy or `limit` has passed.
    Answer Wait(Kind kind, btkTimeval limit);
    /// Whether Try would return Busy. Takes nothing.
    bool IsBusy(Kind kind) const;
    void Release();
    /// Keeps the lock beyond this object's life: it is released when the last descriptor of the open file
    /// description is closed.
    void Leave() { held = false; }

private:
    btkHandle handle;
    long long first;
    long long count;
    bool held = false;
};
