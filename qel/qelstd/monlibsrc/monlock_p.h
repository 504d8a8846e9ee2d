#pragma once

#include <qel/base/btkfilepart.h>

// Locks between the writer of a value and its readers. Exclusive for the writer, shared for readers, on the
// value's own bytes. All waits are short, since the other side may have stopped.
//
// A writer or a reader that does not get its lock announces that it waits, by a lock on the same bytes beyond
// all positions. A writer of a text that arrives then lets the readers go first, for `writerLimit` at most,
// so that a writer without pauses does not starve them. A number is written by one call, so readers soon find
// it unlocked.
//
// A watcher that waits for changes holds a shared lock on the byte before each number that crosses a page
// boundary (the last byte of its head, which is not locked otherwise). A writer tries to lock that byte too:
// if it succeeds, no watcher needs to be notified of the store.
//
// While a writer waits, new readers step back; if the current readers have not released their locks after
// `writerLimit`, it writes anyway. A value read in less time than that is certain. A slower reading is
// accepted when no writer was active at its end and the previous reading gave the same value.

/// Whether a value can be seen half written without locks. Bytes within one cache line are copied in one
/// step; others are not.
inline bool monIsSplit(int position, int size)
{
    constexpr int line = 64;
    return position / line != (position + size - 1) / line;
}

/// Lets readers that wait for the value go first. `isPolite` is false while the last such wait was in vain:
/// the readers may have stopped, and are not waited for again until they have left.
void monLetReadersGo(btkHandle file, int position, int size, bool& isPolite);

class monWriteLock
{
public:
    /// `isKnown`: the caller does not need IsWatched.
    monWriteLock(btkHandle file, int position, int size, bool isKnown = true);
    /// Whether there may be a watcher.
    bool IsWatched() const { return isWatched; }

private:
    bool isWatched = true;
    btkRangeLock value;
    btkRangeLock unwatched;
    btkRangeLock waiting;
};

/// Makes writers notify watchers of stores to the number at `position`, until this opening is closed.
void monWatchNumber(btkHandle file, int position);

class monReadLock
{
public:
    /// `isPatient` is false while the last wait was in vain: the next wait is then a short one.
    monReadLock(btkHandle file, int position, int size, bool& isPatient);
    /// Whether no writer can have written since.
    bool IsSure() const;
    /// Whether no writer is writing or about to write. Call it after the reading.
    bool IsQuiet() const;

private:
    btkRangeLock value;
    btkRangeLock writers;
    btkTimeval begin;
    btkRangeLock::Answer answer;
};
