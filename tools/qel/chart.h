#pragma once

#include <string>
#include <utility>
#include <vector>

// Charts of numbers over time, as text for a terminal and as a picture.

struct ChartCurve
{
    std::string name;
    std::vector<std::pair<double, double>> points; // finite; the first numbers do not decrease
};

struct Chart
{
    std::string title;
    std::string across; // the name of the first numbers, or their unit
    std::vector<ChartCurve> curves;
    std::string up = {}; // the same as `across` of the second numbers; empty: they have none in common
};

/// How a chart is drawn as text.
struct ChartStyle
{
    std::size_t width = 79; // columns and rows, of which at least 20 and 8 are used
    std::size_t height = 24;
    bool hasBraille = true; // 2 by 4 dots in a character; else a character for each point
    bool hasColours = false;
};

/// The style for the standard output: the size of the terminal, braille where the locale's characters are UTF-8.
ChartStyle StyleOfOutput();
/// At most `height` lines, each with its end.
std::string DrawText(const Chart& chart, const ChartStyle& style);
/// A picture in SVG, in the colours that the reader prefers, with a title and a description for screen readers.
std::string DrawSvg(const Chart& chart);
