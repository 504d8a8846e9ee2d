#pragma once

#include <chrono>
#include <string>

/// A line on the standard error output that shows how long work gets on. There is none unless that is a
/// terminal, and none before the work has taken half a second; it is gone with the object.
class ProgressLine
{
public:
    ProgressLine();
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// `done` of `total` bytes; 0: nobody knows how many there are. `what` is being worked on.
    void Show(const std::string& what, double done, double total);
    /// `count` things have been done, of which nobody knows how many there are.
    void ShowCount(const std::string& what, double count);

    /// The line, without its end, `seconds` after the beginning. It has at most 79 characters.
    static std::string Text(const std::string& what, double done, double total, double seconds);

private:
    using Clock = std::chrono::steady_clock;

    /// Whether it is time for another line, and how many seconds after the beginning that is.
    bool isTime(double& seconds);
    void write(const std::string& line);

    const bool wanted;
    const Clock::time_point begin;
    Clock::time_point next;
    std::size_t width = 0; // of what stands there
};

/// A size for people: "812 MB".
std::string SizeText(double bytes);
