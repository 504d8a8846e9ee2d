#pragma once

#include <qel/base/btkfilepart.h>

// Locks between the writer of a value and its readers. Exclusive for the writer, shared for readers, on the
// value's own bytes; and nobody waits for long, since the other side may have stopped.
//
// A writer or a reader that does not get its lock announces that it waits, by a lock on the same bytes beyond
// all positions. A writer of a text that comes then lets the readers go first, for `writerLimit` at most, so
// that one that stores without a pause does not starve them. A number is written by one call, so that readers
// find it free soon enough.
//
// A watcher that waits for changes has a shared lock on the byte before each number that lies across a page's
// end (the last one of its head, which nobody else locks). A writer tries to lock that byte too: when it gets
// it, there is nobody to whom the store has to be made known.
//
// While a writer waits, new readers step back, and when those inside have not left after `writerLimit`, it
// writes all the same. What a reader has found in less time than that is sure. What took longer is good when
// nobody was writing at the end and the same was found before.

/// Whether a value can be seen half written without locks. What lies in one line of the processor's cache is
/// copied in one step; more than that is not.
inline bool monIsSplit(int position, int size)
{
    constexpr int line = 64;
    return position / line != (position + size - 1) / line;
}

/// Lets readers go first that wait for the value. `isPolite` is false while that has last been in vain: they
/// may have stopped, and are not waited for again before they have left.
void monLetReadersGo(btkHandle file, int position, int size, bool& isPolite);

class monWriteLock
{
public:
    /// `isKnown`: whether others watch is of no interest.
    monWriteLock(btkHandle file, int position, int size, bool isKnown = true);
    /// Whether somebody may be watching.
    bool IsWatched() const { return isWatched; }

private:
    bool isWatched = true;
    btkRangeLock value;
    btkRangeLock unwatched;
    btkRangeLock waiting;
};

/// Lets the opening have writers make known what they store in the number at `position`, until it is closed.
void monWatchNumber(btkHandle file, int position);

class monReadLock
{
public:
    /// `isPatient` is false while waiting has last been in vain: then the next wait is a short one.
    monReadLock(btkHandle file, int position, int size, bool& isPatient);
    /// Whether no writer can have written since.
    bool IsSure() const;
    /// Whether no writer is writing or about to. Not before the reading is done.
    bool IsQuiet() const;

private:
    btkRangeLock value;
    btkRangeLock writers;
    btkTimeval begin;
    btkRangeLock::Answer answer;
};
