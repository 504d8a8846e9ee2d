#include "chart.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string_view>

#include <qel/base/btksystem.h>

#include "output.h"

namespace {

// ---- axes

// A part of the numbers, with round marks.
struct Axis
{
    double from = 0;
    double to = 1;
    double step = 1;  // between marks
    double first = 0; // mark

    /// Where a number lies, between 0 and 1. Halves: the difference of two numbers may overflow.
    double PartOf(double number) const { return (number / 2 - from / 2) / (to / 2 - from / 2); }
    int Marks() const { return static_cast<int>(std::floor((to - first) / step + 1e-9)) + 1; }
    double Mark(int i) const { return first + step * i; }
};

// 1, 2 or 5 times a power of ten, so that there are at most `marks` of them.
double roundStep(double span, std::size_t marks)
{
    const double least = span / static_cast<double>(marks);
    const double power = std::pow(10.0, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (factor * power >= least)
            return factor * power;
    return 10 * power;
}

Axis axisFor(double least, double most, std::size_t marks)
{
    Axis axis;
    // Beyond it, marks would not be finite, and below it they could not be told apart.
    constexpr double limit = std::numeric_limits<double>::max() / 8;
    axis.from = std::clamp(least, -limit, limit);
    axis.to = std::clamp(most, -limit, limit);
    constexpr double zero = 1e-290; // smaller numbers count as 0
    const double greatest = std::max(std::abs(axis.from), std::abs(axis.to));
    if (axis.to - axis.from < std::max(greatest * 1e-9, zero)) {
        const double around = greatest < zero ? 1 : greatest / 10;
        axis.from -= around;
        axis.to += around;
    }
    axis.step = roundStep(axis.to - axis.from, marks);
    axis.first = std::ceil(axis.from / axis.step - 1e-9) * axis.step;
    return axis;
}

std::string textOf(double number, double step)
{
    std::ostringstream text;
    text.precision(
        std::clamp(static_cast<int>(std::ceil(std::log10(std::abs(number) / step + 1))) + 1, 4, 12));
    text << (std::abs(number) < step / 2 ? 0.0 : number);
    return text.str();
}

struct Axes
{
    Axis across;
    Axis up;
};

Axes axesFor(const Chart& chart, std::size_t marksAcross, std::size_t marksUp)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    double left = infinity, right = -infinity, low = infinity, high = -infinity;
    for (const ChartCurve& curve : chart.curves)
        for (const auto& [x, y] : curve.points) {
            left = std::min(left, x);
            right = std::max(right, x);
            low = std::min(low, y);
            high = std::max(high, y);
        }
    if (left > right)
        left = low = 0, right = high = 1;
    return {axisFor(left, right, marksAcross), axisFor(low, high, marksUp)};
}

// ---- text

constexpr std::size_t dotsAcross = 2, dotsUp = 4;
constexpr std::string_view signs = "*+o#x@%&"; // of the curves where there is no braille
constexpr std::array colours = {36, 33, 32, 35, 34, 31};

// A raster of characters with the curves in it.
class Raster
{
public:
    Raster(std::size_t columns, std::size_t rows, bool braille)
        : width(columns), height(rows), hasBraille(braille), cells(columns * rows)
    {
    }

    void Draw(const ChartCurve& curve, std::size_t number, const Axes& axes)
    {
        const std::size_t fineX = hasBraille ? dotsAcross : 1, fineY = hasBraille ? dotsUp : 1;
        const auto placeOf = [](double part, std::size_t size) {
            return std::lround(std::clamp(part, 0.0, 1.0) * static_cast<double>(size - 1));
        };
        long lastX = -1, lastY = -1;
        for (const auto& [x, y] : curve.points) {
            const long toX = placeOf(axes.across.PartOf(x), width * fineX);
            const long toY = placeOf(1 - axes.up.PartOf(y), height * fineY);
            const long steps = lastX < 0 ? 0 : std::max(std::abs(toX - lastX), std::abs(toY - lastY));
            for (long i = 1; i < steps; ++i)
                Set(lastX + (toX - lastX) * i / steps, lastY + (toY - lastY) * i / steps, number);
            Set(toX, toY, number);
            lastX = toX;
            lastY = toY;
        }
    }

    std::string Row(std::size_t row, bool hasColours) const
    {
        std::string text;
        int colour = 0;
        for (std::size_t column = 0; column < width; ++column) {
            const Cell& cell = cells[row * width + column];
            const int wanted = cell.dots == 0 || !hasColours ? 0 : ColourOf(cell.curve);
            if (wanted != colour)
                text += "\x1b[" + (wanted == 0 ? std::string() : std::to_string(wanted)) + 'm';
            colour = wanted;
            if (cell.dots == 0)
                text += ' ';
            else if (hasBraille) // U+2800 and the dots
                text += {'\xE2', static_cast<char>(0xA0 | cell.dots >> 6),
                         static_cast<char>(0x80 | (cell.dots & 0x3F))};
            else
                text += signs[cell.curve % signs.size()];
        }
        return text + (colour == 0 ? "" : "\x1b[m");
    }

    static int ColourOf(std::size_t curve) { return colours[curve % colours.size()]; }

private:
    struct Cell
    {
        unsigned char dots = 0;
        std::size_t curve = 0; // the last one there
    };

    void Set(long x, long y, std::size_t curve)
    {
        // The bits of a braille character's dots, by column and row.
        static constexpr unsigned char bits[dotsAcross][dotsUp] = {{1, 2, 4, 64}, {8, 16, 32, 128}};
        auto atX = static_cast<std::size_t>(x), atY = static_cast<std::size_t>(y);
        const std::size_t dotX = hasBraille ? atX % dotsAcross : 0, dotY = hasBraille ? atY % dotsUp : 0;
        if (hasBraille)
            atX /= dotsAcross, atY /= dotsUp;
        Cell& cell = cells[atY * width + atX];
        cell.dots |= bits[dotX][dotY];
        cell.curve = curve;
    }

    std::size_t width;
    std::size_t height;
    bool hasBraille;
    std::vector<Cell> cells;
};

std::string legend(const Chart& chart, const ChartStyle& style, std::size_t width)
{
    std::string line;
    std::size_t used = 0;
    for (std::size_t i = 0; i < chart.curves.size(); ++i) {
        const std::string sign = style.hasBraille ? "⠒⠒" : std::string(1, signs[i % signs.size()]);
        const std::string name = ' ' + Printable(chart.curves[i].name);
        const std::size_t size = WidthOf(sign) + WidthOf(name) + (used > 0 ? 3 : 0);
        if (used + size > width)
            return line + (used + 4 <= width ? " ..." : "");
        line += used > 0 ? "   " : "";
        line +=
            style.hasColours ? "\x1b[" + std::to_string(Raster::ColourOf(i)) + 'm' + sign + "\x1b[m" : sign;
        line += name;
        used += size;
    }
    return line;
}

// The marks of the axis across, each centred below its place, as far as there is room.
std::string marksLine(const Axis& axis, std::size_t width)
{
    std::string line;
    for (int i = 0; i < axis.Marks(); ++i) {
        const std::string text = textOf(axis.Mark(i), axis.step);
        const double place = axis.PartOf(axis.Mark(i)) * static_cast<double>(width - 1);
        const std::size_t half = text.size() / 2;
        std::size_t at = static_cast<std::size_t>(std::max(std::lround(place), 0L));
        at = std::min(at - std::min(at, half), width - std::min(width, text.size()));
        if (text.size() > width || (!line.empty() && at < line.size() + 1))
            continue;
        line += std::string(at - line.size(), ' ') + text;
    }
    return line;
}

// ---- pictures

std::string escaped(const std::string& text)
{
    std::string safe;
    for (const char c : Printable(text))
        switch (c) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        default:
            safe += c;
        }
    return safe;
}

} // namespace

ChartStyle StyleOfOutput()
{
    ChartStyle style;
    style.hasColours = HasColours();
    for (const char* const name : {"LC_ALL", "LC_CTYPE", "LANG"})
        if (const char* const value = std::getenv(name); value != nullptr && *value != '\0') {
            std::string locale = value;
            std::transform(locale.begin(), locale.end(), locale.begin(), [](char c) {
                return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
            });
            style.hasBraille =
                locale.find("utf-8") != std::string::npos || locale.find("utf8") != std::string::npos;
            break;
        } else if (std::string_view(name) == "LANG") {
            style.hasBraille = false; // the C locale
        }
    int columns = 0, rows = 0;
    if (btkGetTerminalSize(1, columns, rows)) {
        style.width = static_cast<std::size_t>(columns);
        style.height = static_cast<std::size_t>(rows - 1); // the shell's prompt follows
    }
    return style;
}

std::string DrawText(const Chart& chart, const ChartStyle& style)
{
    constexpr std::size_t leastWidth = 20, leastHeight = 8, others = 4; // title, axis, its marks, the legend
    const std::size_t width = std::max(style.width, leastWidth), height = std::max(style.height, leastHeight);
    const std::size_t rows = height - others;
    const Axes axes = axesFor(chart, width / 12, std::max<std::size_t>(rows / 3, 2));

    std::vector<std::string> labels(rows);
    std::size_t room = 0;
    for (int i = 0; i < axes.up.Marks(); ++i) {
        const double part = 1 - axes.up.PartOf(axes.up.Mark(i));
        const auto row =
            static_cast<std::size_t>(std::lround(std::clamp(part, 0.0, 1.0) * static_cast<double>(rows - 1)));
        labels[row] = textOf(axes.up.Mark(i), axes.up.step);
        room = std::max(room, labels[row].size());
    }
    room = std::min(room, width / 2);
    const std::size_t columns = width - room - 2;
    Raster raster(columns, rows, style.hasBraille);
    for (std::size_t i = 0; i < chart.curves.size(); ++i)
        raster.Draw(chart.curves[i], i, axes);

    const std::string bar = style.hasBraille ? "│" : "|", mark = style.hasBraille ? "┤" : "+";
    const std::string corner = style.hasBraille ? "└" : "+", line = style.hasBraille ? "─" : "-";
    const std::string title = CutTo(Printable(chart.title), width);
    const std::size_t before = (width - WidthOf(title)) / 2;
    std::string text = Padded(CutTo(Printable(chart.up), before - std::min<std::size_t>(before, 1)), before) +
                       (style.hasColours ? Bold(title) : title) + '\n';
    for (std::size_t row = 0; row < rows; ++row) {
        const std::string label = labels[row].substr(0, room);
        std::string drawn = raster.Row(row, style.hasColours);
        drawn.erase(drawn.find_last_not_of(' ') + 1);
        text +=
            std::string(room - label.size(), ' ') + label + ' ' + (label.empty() ? bar : mark) + drawn + '\n';
    }
    text += std::string(room + 1, ' ') + corner;
    for (std::size_t i = 0; i < columns; ++i)
        text += line;
    std::string marks = marksLine(axes.across, columns);
    if (marks.size() + chart.across.size() + 2 <= columns)
        marks += std::string(columns - marks.size() - chart.across.size(), ' ') + chart.across;
    return text + '\n' + std::string(room + 2, ' ') + marks + '\n' + std::string(room + 2, ' ') +
           legend(chart, style, columns) + '\n';
}

std::string DrawSvg(const Chart& chart)
{
    constexpr int width = 900, height = 450, left = 90, right = 20, top = 50, below = 60, line = 20;
    constexpr int inRow = 4; // names in a row of the legend
    constexpr int columns = 6;
    const int legendRows = static_cast<int>((chart.curves.size() + inRow - 1) / inRow);
    const int whole = height + legendRows * line;
    const Axes axes = axesFor(chart, 9, 8);
    const auto across = [&](double x) {
        return left + std::clamp(axes.across.PartOf(x), 0.0, 1.0) * (width - left - right);
    };
    const auto up = [&](double y) {
        return height - below - std::clamp(axes.up.PartOf(y), 0.0, 1.0) * (height - top - below);
    };

    std::ostringstream svg;
    svg.precision(6);
    svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << width << ' ' << whole
        << "\" width=\"" << width << "\" height=\"" << whole
        << "\" role=\"img\" aria-labelledby=\"title desc\">\n<title id=\"title\">" << escaped(chart.title)
        << "</title>\n<desc id=\"desc\">Over " << escaped(chart.across) << ", from "
        << textOf(axes.across.from, axes.across.step) << " to " << textOf(axes.across.to, axes.across.step)
        << ':';
    for (const ChartCurve& curve : chart.curves) {
        const auto [least, most] =
            std::minmax_element(curve.points.begin(), curve.points.end(),
                                [](const auto& a, const auto& b) { return a.second < b.second; });
        svg << ' ' << escaped(curve.name);
        if (!curve.points.empty())
            svg << " between " << least->second << " and " << most->second << ", at last "
                << curve.points.back().second;
        svg << (&curve == &chart.curves.back() ? "." : ";");
    }
    svg << R"(</desc>
<style>
svg { background: #fff; font: 14px sans-serif; color: #222 }
text { fill: currentColor } .grid { stroke: #ddd } .axis { stroke: currentColor }
polyline { fill: none; stroke-width: 2; stroke-linejoin: round }
.c0 { stroke: #0a66c2 } .c1 { stroke: #b3541e } .c2 { stroke: #1b7f4b } .c3 { stroke: #8e3ab5 } .c4 { stroke: #b01c3c } .c5 { stroke: #5d6b00 }
@media (prefers-color-scheme: dark) {
svg { background: #16191d; color: #e6e6e6 } .grid { stroke: #3a3f45 }
.c0 { stroke: #6cb6ff } .c1 { stroke: #f0a35e } .c2 { stroke: #5fd38d } .c3 { stroke: #d2a8ff } .c4 { stroke: #ff8fa3 } .c5 { stroke: #d6d65c }
}
</style>
)";
    svg << "<text x=\"" << width / 2 << "\" y=\"28\" text-anchor=\"middle\" font-size=\"18\">"
        << escaped(chart.title) << "</text>\n";
    for (int i = 0; i < axes.up.Marks(); ++i) {
        const double y = up(axes.up.Mark(i));
        svg << "<line class=\"grid\" x1=\"" << left << "\" y1=\"" << y << "\" x2=\"" << width - right
            << "\" y2=\"" << y << "\"/><text x=\"" << left - 8 << "\" y=\"" << y + 5
            << "\" text-anchor=\"end\">" << textOf(axes.up.Mark(i), axes.up.step) << "</text>\n";
    }
    for (int i = 0; i < axes.across.Marks(); ++i) {
        const double x = across(axes.across.Mark(i));
        svg << "<line class=\"grid\" x1=\"" << x << "\" y1=\"" << top << "\" x2=\"" << x << "\" y2=\""
            << height - below << "\"/><text x=\"" << x << "\" y=\"" << height - below + line
            << "\" text-anchor=\"middle\">" << textOf(axes.across.Mark(i), axes.across.step) << "</text>\n";
    }
    svg << "<path class=\"axis\" fill=\"none\" d=\"M" << left << ' ' << top << 'V' << height - below << 'H'
        << width - right << "\"/>\n<text x=\"" << (left + width - right) / 2 << "\" y=\""
        << height - below + 2 * line << "\" text-anchor=\"middle\">" << escaped(chart.across) << "</text>\n";
    if (!chart.up.empty())
        svg << "<text transform=\"translate(20 " << (top + height - below) / 2
            << ") rotate(-90)\" text-anchor=\"middle\">" << escaped(chart.up) << "</text>\n";
    int number = 0;
    for (const ChartCurve& curve : chart.curves) {
        svg << "<polyline class=\"c" << number % columns << "\" points=\"";
        for (const auto& [x, y] : curve.points)
            svg << across(x) << ',' << up(y) << ' ';
        // A single point has no line.
        if (curve.points.size() == 1)
            svg << across(curve.points[0].first) + 1 << ',' << up(curve.points[0].second);
        const int x = left + number % inRow * ((width - left - right) / inRow);
        const int y = height + number / inRow * line;
        svg << "\"/>\n<line class=\"c" << number % columns << "\" stroke-width=\"3\" x1=\"" << x << "\" y1=\""
            << y - 5 << "\" x2=\"" << x + 24 << "\" y2=\"" << y - 5 << "\"/><text x=\"" << x + 30 << "\" y=\""
            << y << "\">" << escaped(curve.name) << "</text>\n";
        ++number;
    }
    svg << "</svg>\n";
    return svg.str();
}
