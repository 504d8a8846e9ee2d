#pragma once

#include <string>

#include <qel/base/btkevent.h>

// Shared by the commands that show changes until they are stopped: `ns watch`, `conf watch`, `mon watch`, `mon plot`
// and `top`.

/// Seconds since 1970-01-01 00:00 UTC, in milliseconds.
double TimeOfDay();

/// The output of such a command, and its end: SIGINT, SIGTERM, or a standard output without a reader. Only one at a
/// time, made before the command starts threads.
class Watching
{
public:
    Watching();
    Watching(const Watching&) = delete;
    Watching& operator=(const Watching&) = delete;

    /// Writes lines, of which the last needs no end, or nothing when the end was found; fails when they cannot be
    /// written for another reason than a missing reader.
    void Print(const std::string& lines);
    /// Waits until `news`, a descriptor or -1, is readable, for `seconds` at most. False: the command returns.
    bool Wait(double seconds, btkHandle news = -1);

private:
    btkFd signals;
    btkEvent stopped;
    btkEvent closed;
    bool isOver = false;
};
