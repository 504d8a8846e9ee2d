#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "watching.h"

// Tables that commands show on the whole terminal while values change: `mon watch` and `top`. The first part lays
// out the lines and knows no terminal; class Screen shows them.

/// A text, or a number, which is placed to the right.
struct ScreenCell
{
    std::string text;
    std::optional<double> number = {}; // by which rows are sorted, before all texts
};

struct ScreenRow
{
    std::vector<ScreenCell> cells;
    std::deque<double> past =
        {};                // what a number was, the latest last; drawn as a line in the rest of the row
    bool isMarked = false; // to be seen at once
};

struct ScreenTable
{
    std::string title;
    std::string problem; // shown beside the title
    std::vector<std::string> headings;
    std::vector<ScreenRow> rows;
};

/// The part that the user has chosen to see.
struct ScreenView
{
    std::string filter;                       // rows in which a text contains it, whatever its case
    std::optional<std::size_t> sortedBy = {}; // a column; none: in the order of the table
    bool isReversed = false;
    std::size_t first = 0; // of the rows shown
    bool isPaused = false;
    bool isTyping = false; // the filter
};

/// The values kept for the line of a row.
inline constexpr std::size_t mostPast = 400;
/// Appends to what a row's number was.
void remember(std::deque<double>& past, double number);
/// The latest numbers as a line of at most `width` characters, between the least and the greatest of them.
std::string sparkline(const std::deque<double>& past, std::size_t width);
/// A span of time in a few characters: "7 s", "3 min".
std::string spanText(double seconds);

struct ScreenLine
{
    enum Kind { Plain, Title, Heading, Marked, Status };
    std::string text; // no wider than the screen
    Kind kind = Plain;
};
/// At most `height` lines of at most `width` columns, of which the last explains the keys. Moves `view.first` to
/// where there are rows.
std::vector<ScreenLine> layOut(const ScreenTable& table, ScreenView& view, std::size_t width,
                               std::size_t height);

/// The terminal, in its alternate screen, from construction to destruction. Only one at a time.
class Screen
{
public:
    /// Whether the standard input and output are a terminal that can be used so.
    static bool isPossible();
    Screen();
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    /// Shows the table; while the user has paused it, the one before stays.
    void show(ScreenTable table);
    /// Obeys the user's keys for this time. False when the command is to end: by a key, a signal, or the end of the
    /// terminal.
    bool wait(double seconds);

private:
    void draw();
    bool obey(int key);
    void type(int key);

    Watching ending;
    ScreenTable shown;
    ScreenView view;
};
