#pragma once

#include <chrono>
#include <string>

/// A line on the standard error output that shows the progress of long work. It appears only on a terminal
/// and after half a second; the destructor erases it.
class ProgressLine
{
public:
    ProgressLine();
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Shows `done` of `total` bytes, 0: total unknown, and the current object `what`.
    void Show(const std::string& what, double done, double total);
    /// Shows that `count` objects, of an unknown total, are done.
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
    std::size_t width = 0; // of the visible line
};

/// A readable size: "812 MB".
std::string SizeText(double bytes);
