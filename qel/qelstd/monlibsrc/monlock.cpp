#include "monlock_p.h"

namespace {

constexpr btkTimeval writerLimit(0, 1000);
constexpr btkTimeval readerLimit(0, 100000);
constexpr btkTimeval shortLimit(0, 10000);
// Less than the writer's, since the clock shows whole microseconds.
constexpr btkTimeval sureLimit(0, 990);

// Where the lock stands by which a writer announces that it waits for a value.
constexpr long long Announced(int position)
{
    return position + (1LL << 32);
}

} // namespace

monWriteLock::monWriteLock(btkHandle file, int position, int size)
    : value(file, position, size), waiting(file, Announced(position), size)
{
    if (value.Try(btkRangeLock::Exclusive) != btkRangeLock::Busy)
        return;
    waiting.Try(btkRangeLock::Exclusive);
    value.Wait(btkRangeLock::Exclusive, writerLimit);
}

monReadLock::monReadLock(btkHandle file, int position, int size, bool& isPatient)
    : value(file, position, size), waiting(file, Announced(position), size)
{
    btkPatience patience(isPatient ? readerLimit : shortLimit);
    do {
        begin = btkTimeval::Now();
        answer = value.Try(btkRangeLock::Shared);
        if (answer == btkRangeLock::Held && waiting.IsBusy(btkRangeLock::Shared)) {
            value.Release();
            answer = btkRangeLock::Busy;
        }
    } while (answer == btkRangeLock::Busy && patience.Rest());
    isPatient = answer != btkRangeLock::Busy;
}

bool monReadLock::IsSure() const
{
    return answer == btkRangeLock::Unsupported ||
           (answer == btkRangeLock::Held && btkTimeval::Now() - begin < sureLimit);
}

bool monReadLock::IsQuiet() const
{
    return !waiting.IsBusy(btkRangeLock::Shared) && !value.IsBusy(btkRangeLock::Shared);
}
