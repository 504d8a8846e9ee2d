#pragma once

#include <chrono>
#include <string>

namespace CLI {
class App;
}

/// The progress of long work, on the standard error output. By default it is a line that appears only on a terminal
/// and after half a second, and the destructor erases it; with --progress=json, the destructor writes the last object.
class ProgressLine
{
public:
    ProgressLine();
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    /// Shows `done` of `total` bytes, 0: total unknown, and the name of the current object.
    void Show(const std::string& path, double done, double total);
    /// Shows that `count` objects, of an unknown total, are done.
    void ShowCount(const std::string& path, double count);

    /// The line, without its end, `seconds` after the beginning. It has at most 79 characters.
    static std::string Text(const std::string& what, double done, double total, double seconds);

private:
    using Clock = std::chrono::steady_clock;

    void note(const std::string& path, double done, double total, bool counts);
    void show(Clock::time_point now);
    void write(const std::string& line);

    // The latest state.
    std::string object;
    double achieved = 0;
    double whole = 0;
    bool isCount = false;
    bool isNew = false;

    const bool isWanted;
    const Clock::time_point begin;
    Clock::time_point next;
    std::size_t width = 0; // of the visible line
};

/// Gives the command the option --progress.
void OfferProgress(CLI::App& command);

/// A readable size: "812 MB".
std::string SizeText(double bytes);
