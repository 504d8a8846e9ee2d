#include "monlock_p.h"

namespace {

constexpr btkTimeval writerLimit(0, 1000);
constexpr btkTimeval readerLimit(0, 100000);
constexpr btkTimeval shortLimit(0, 10000);
// Less than the writer's, since the clock shows whole microseconds.
constexpr btkTimeval sureLimit(0, 990);

// The positions of the locks by which a writer or a reader announces that it waits for a value.
constexpr long long writerAnnounced(int position)
{
    return position + (1LL << 32);
}

constexpr long long readerAnnounced(int position)
{
    return position + (2LL << 32);
}

} // namespace

void monLetReadersGo(btkHandle file, int position, int size, bool& isPolite)
{
    const btkRangeLock readers(file, readerAnnounced(position), size);
    btkPatience patience(writerLimit);
    bool wait = readers.IsBusy(btkRangeLock::Exclusive);
    while (wait && isPolite && patience.Rest())
        wait = readers.IsBusy(btkRangeLock::Exclusive);
    isPolite = !wait;
}

monWriteLock::monWriteLock(btkHandle file, int position, int size, bool isKnown)
    : value(file, position, size), unwatched(file, position - 1, size + 1),
      waiting(file, writerAnnounced(position), size)
{
    isWatched = isKnown || unwatched.Try(btkRangeLock::Exclusive) == btkRangeLock::Busy;
    if (!isWatched)
        return;
    if (value.Try(btkRangeLock::Exclusive) != btkRangeLock::Busy)
        return;
    waiting.Try(btkRangeLock::Exclusive);
    value.Wait(btkRangeLock::Exclusive, writerLimit);
}

void monWatchNumber(btkHandle file, int position)
{
    // Without the lock, because a writer has stopped, its stores are still detected within a second.
    btkRangeLock lock(file, position - 1, 1);
    lock.Wait(btkRangeLock::Shared, readerLimit);
    lock.Leave();
}

monReadLock::monReadLock(btkHandle file, int position, int size, bool& isPatient)
    : value(file, position, size), writers(file, writerAnnounced(position), size)
{
    btkRangeLock waiting(file, readerAnnounced(position), size);
    bool isAnnounced = false;
    btkPatience patience(isPatient ? readerLimit : shortLimit);
    for (;;) {
        begin = btkTimeval::Now();
        answer = value.Try(btkRangeLock::Shared);
        if (answer == btkRangeLock::Held && writers.IsBusy(btkRangeLock::Shared)) {
            value.Release();
            answer = btkRangeLock::Busy;
        }
        if (answer != btkRangeLock::Busy || !patience.Rest())
            break;
        if (!isAnnounced)
            isAnnounced = waiting.Try(btkRangeLock::Shared) == btkRangeLock::Held;
    }
    isPatient = answer != btkRangeLock::Busy;
}

bool monReadLock::IsSure() const
{
    return answer == btkRangeLock::Unsupported ||
           (answer == btkRangeLock::Held && btkTimeval::Now() - begin < sureLimit);
}

bool monReadLock::IsQuiet() const
{
    return !writers.IsBusy(btkRangeLock::Shared) && !value.IsBusy(btkRangeLock::Shared);
}
