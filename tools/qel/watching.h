#pragma once

#include <string>

#include <qel/base/btkevent.h>

// Shared by the commands that print changes until they are stopped: `ns watch` and `conf watch`.

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

    /// Writes a line, which gets its end, or nothing when the end was found; fails when it cannot be written for
    /// another reason than a missing reader.
    void Print(const std::string& line);
    /// Waits until `news`, a descriptor or -1, is readable, for `seconds` at most. False: the command returns.
    bool Wait(double seconds, btkHandle news = -1);

private:
    btkFd signals;
    btkEvent stopped;
    btkEvent closed;
    bool isOver = false;
};
