// Tables on the whole terminal.
#include "screen.h"

#define NCURSES_NOMACROS
#include <algorithm>
#include <clocale>
#include <cmath>
#include <curses.h>
#include <numeric>
#include <optional>

#include <qel/base/btkfd.h>

#include "output.h"

// ---- the parts of a row

void remember(std::deque<double>& past, double number)
{
    past.push_back(number);
    if (past.size() > mostPast)
        past.pop_front();
}

std::string sparkline(const std::deque<double>& past, std::size_t width)
{
    static constexpr const char* heights[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const auto first = past.end() - static_cast<std::ptrdiff_t>(std::min(width, past.size()));
    if (first == past.end())
        return {};
    const auto [least, most] = std::minmax_element(first, past.end());
    std::string line;
    for (auto value = first; value != past.end(); ++value) {
        // Halves: the difference of two numbers may overflow.
        const double range = *most / 2 - *least / 2;
        const double part = range > 0 ? (*value / 2 - *least / 2) / range : 0.5;
        line += heights[static_cast<int>(part * 7.5)];
    }
    return line;
}

std::string spanText(double seconds)
{
    static constexpr struct
    {
        double seconds;
        const char* name;
    } units[] = {{86400, " d"}, {3600, " h"}, {60, " min"}};
    for (const auto& unit : units)
        if (seconds >= 2 * unit.seconds)
            return std::to_string(static_cast<long long>(seconds / unit.seconds)) + unit.name;
    return std::to_string(static_cast<long long>(std::max(seconds, 0.0))) + " s";
}

// ---- the lines

namespace {

constexpr std::size_t gap = 2;
// A longer text in one column must not hide the others.
constexpr std::size_t widestColumn = 40;

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

std::vector<const ScreenRow*> rowsOf(const ScreenTable& table, const ScreenView& view)
{
    const std::string wanted = lowered(view.filter);
    std::vector<const ScreenRow*> rows;
    for (const ScreenRow& row : table.rows)
        if (std::any_of(row.cells.begin(), row.cells.end(), [&](const ScreenCell& cell) {
                return lowered(cell.text).find(wanted) != std::string::npos;
            }))
            rows.push_back(&row);
    if (view.sortedBy)
        std::stable_sort(rows.begin(), rows.end(), [&](const ScreenRow* one, const ScreenRow* other) {
            const ScreenCell& a = one->cells[*view.sortedBy];
            const ScreenCell& b = other->cells[*view.sortedBy];
            if (a.number && b.number)
                return *a.number > *b.number; // the greatest is of interest
            return a.number.has_value() != b.number.has_value() ? a.number.has_value() : a.text < b.text;
        });
    if (view.isReversed)
        std::reverse(rows.begin(), rows.end());
    return rows;
}

std::vector<std::size_t> widthsOf(const ScreenTable& table)
{
    std::vector<std::size_t> widths;
    for (std::size_t i = 0; i < table.headings.size(); ++i) {
        std::size_t width = WidthOf(table.headings[i]) + 1; // with room for the mark of sorting
        for (const ScreenRow& row : table.rows)
            width = std::max(width, WidthOf(row.cells[i].text));
        widths.push_back(std::min(width, widestColumn));
    }
    return widths;
}

std::string placed(const ScreenCell& cell, std::size_t width)
{
    const std::string text = CutTo(cell.text, width);
    return cell.number ? std::string(width - WidthOf(text), ' ') + text : Padded(text, width);
}

std::string lineOf(const ScreenRow& row, const std::vector<std::size_t>& widths, std::size_t width)
{
    std::string line;
    for (std::size_t i = 0; i < widths.size(); ++i)
        line += placed(row.cells[i], widths[i]) + std::string(gap, ' ');
    const std::size_t used = std::accumulate(widths.begin(), widths.end(), gap * widths.size());
    return CutTo(line, width) + (used < width ? sparkline(row.past, width - used) : std::string());
}

std::string headingsOf(const ScreenTable& table, const ScreenView& view,
                       const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < widths.size(); ++i) {
        const bool isNumber = !table.rows.empty() && table.rows.front().cells[i].number.has_value();
        const std::string mark = view.sortedBy != i ? "" : view.isReversed ? "^" : "v";
        line += placed({table.headings[i] + mark, isNumber ? std::optional(0.0) : std::nullopt}, widths[i]) +
                std::string(gap, ' ');
    }
    return line;
}

std::string statusOf(const ScreenView& view, std::size_t rows, std::size_t shown)
{
    if (view.isTyping)
        return "/" + view.filter + "_   Enter: filter by it   Esc: no filter";
    std::string text = view.isPaused ? "PAUSED  " : "";
    if (!view.filter.empty())
        text += "/" + view.filter + "  ";
    if (shown < rows)
        text += std::to_string(view.first + 1) + "-" + std::to_string(view.first + shown) + " of " +
                std::to_string(rows) + "  ";
    return text + "q quit  / filter  s sort  r reverse  space pause";
}

} // namespace

std::vector<ScreenLine> layOut(const ScreenTable& table, ScreenView& view, std::size_t width,
                               std::size_t height)
{
    const std::vector<const ScreenRow*> rows = rowsOf(table, view);
    const std::vector<std::size_t> widths = widthsOf(table);
    constexpr std::size_t others = 3; // title, headings, status
    const std::size_t room = height > others ? height - others : 0;
    const std::size_t shown = std::min(room, rows.size());
    view.first = std::min(view.first, rows.size() - shown);

    const std::string beside = table.problem.empty() ? "" : ": " + table.problem;
    std::vector<ScreenLine> lines = {
        {table.title + beside, table.problem.empty() ? ScreenLine::Title : ScreenLine::Marked},
        {headingsOf(table, view, widths), ScreenLine::Heading}};
    for (std::size_t i = view.first; i < view.first + shown; ++i)
        lines.push_back(
            {lineOf(*rows[i], widths, width), rows[i]->isMarked ? ScreenLine::Marked : ScreenLine::Plain});
    lines.push_back({statusOf(view, rows.size(), shown), ScreenLine::Status});
    if (lines.size() > height)
        lines.resize(height);
    for (ScreenLine& line : lines)
        line.text = CutTo(line.text, width);
    return lines;
}

// ---- the terminal

namespace {

constexpr int escape = 27;
constexpr int interruptKey = 3;
constexpr int keyPatience = 50; // milliseconds; a signal is seen as late

chtype attributesOf(ScreenLine::Kind kind)
{
    const bool hasColours = HasColours() && has_colors();
    switch (kind) {
    case ScreenLine::Title:
        return A_BOLD;
    case ScreenLine::Heading:
        return A_UNDERLINE;
    case ScreenLine::Marked:
        return hasColours ? A_BOLD | COLOR_PAIR(1) : A_BOLD;
    case ScreenLine::Status:
        return A_REVERSE;
    default:
        return A_NORMAL;
    }
}

} // namespace

bool Screen::isPossible()
{
    return btkIsTerminal(0) && HasScreen();
}

Screen::Screen()
{
    std::setlocale(LC_CTYPE, "C.UTF-8");
    initscr();
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, true);
    set_escdelay(keyPatience);
    curs_set(0);
    if (HasColours() && has_colors()) {
        start_color();
        use_default_colors();
        init_pair(1, COLOR_YELLOW, -1);
    }
}

Screen::~Screen()
{
    endwin();
}

void Screen::show(ScreenTable table)
{
    if (!view.isPaused)
        shown = std::move(table);
    draw();
}

void Screen::draw()
{
    werase(stdscr);
    const int width = getmaxx(stdscr);
    const auto lines =
        layOut(shown, view, static_cast<std::size_t>(width), static_cast<std::size_t>(getmaxy(stdscr)));
    int y = 0;
    for (const ScreenLine& line : lines) {
        const bool isLast = line.kind == ScreenLine::Status;
        wattrset(stdscr, static_cast<int>(attributesOf(line.kind)));
        mvwaddstr(stdscr, isLast ? getmaxy(stdscr) - 1 : y++, 0, line.text.c_str());
    }
    wattrset(stdscr, A_NORMAL);
    wrefresh(stdscr);
}

bool Screen::wait(double seconds)
{
    const btkTimeval end = btkTimeval::Now() + btkTimeval(seconds);
    do {
        const double rest = (end - btkTimeval::Now()).ToSeconds() * 1000;
        wtimeout(stdscr, static_cast<int>(std::clamp(rest, 0.0, static_cast<double>(keyPatience))));
        const int key = wgetch(stdscr);
        if (!ending.Wait(0))
            return false;
        if (key == ERR)
            continue;
        if (!obey(key))
            return false;
        draw();
    } while (btkTimeval::Now() < end);
    return true;
}

void Screen::type(int key)
{
    if (key == escape)
        view.filter.clear();
    if (key == escape || key == '\r' || key == '\n' || key == KEY_ENTER)
        view.isTyping = false;
    else if (key == KEY_BACKSPACE || key == 127 || key == '\b') {
        while (!view.filter.empty() && (static_cast<unsigned char>(view.filter.back()) & 0xC0U) == 0x80U)
            view.filter.pop_back();
        if (!view.filter.empty())
            view.filter.pop_back();
    } else if (key >= ' ' && key < 256)
        view.filter += static_cast<char>(key);
    view.first = 0;
}

bool Screen::obey(int key)
{
    const auto page = static_cast<std::size_t>(std::max(getmaxy(stdscr) - 4, 1));
    const auto up = [&](std::size_t rows) { view.first -= std::min(rows, view.first); };
    if (key == interruptKey)
        return false;
    if (view.isTyping) {
        type(key);
        return true;
    }
    switch (key) {
    case 'q':
        return false;
    case '/':
        view.isTyping = true;
        break;
    case 's':
        view.sortedBy = view.sortedBy ? *view.sortedBy + 1 : 0;
        if (*view.sortedBy >= shown.headings.size())
            view.sortedBy.reset();
        break;
    case 'r':
        view.isReversed = !view.isReversed;
        break;
    case ' ':
        view.isPaused = !view.isPaused;
        break;
    case KEY_UP:
    case 'k':
        up(1);
        break;
    case KEY_DOWN:
    case 'j':
        ++view.first;
        break;
    case KEY_PPAGE:
        up(page);
        break;
    case KEY_NPAGE:
        view.first += page;
        break;
    case KEY_HOME:
        view.first = 0;
        break;
    case KEY_END:
        view.first = shown.rows.size();
        break;
    default: // also a change of the terminal's size, which the next drawing takes into account
        break;
    }
    return true;
}
