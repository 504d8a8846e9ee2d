// The progress of long work.
#include "progress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>

#include <qel/base/btkfd.h>

#include "commands.h"

namespace {

constexpr std::size_t lineWidth = 79;
constexpr std::chrono::milliseconds patience(500), interval(100);

template<class... Values>
std::string formatted(const char* format, Values... values)
{
    std::array<char, 100> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

/// The end of a text, in at most `width` columns.
std::string endOf(std::string text, std::size_t width)
{
    if (WidthOf(text) <= width)
        return text;
    const auto isInside = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; };
    while (!text.empty() && WidthOf(text) + 3 > width)
        text.erase(0, static_cast<std::size_t>(std::find_if_not(text.begin() + 1, text.end(), isInside) -
                                               text.begin()));
    return "..." + text;
}

std::string durationText(double seconds)
{
    const auto whole = static_cast<long long>(std::min(seconds, 359999.0));
    const auto part = [](long long number) { return static_cast<int>(number); };
    if (whole >= 3600)
        return formatted("%d:%02d:%02d", part(whole / 3600), part(whole / 60 % 60), part(whole % 60));
    return formatted("%d:%02d", part(whole / 60), part(whole % 60));
}

// The forms of --progress.
enum class Form { line, json, none };
Form form = Form::line;

} // namespace

std::string SizeText(double bytes)
{
    static constexpr const char* units[] = {"bytes", "kB", "MB", "GB", "TB", "PB"};
    std::size_t unit = 0;
    for (; bytes >= 999.5 && unit + 1 < std::size(units); ++unit)
        bytes /= 1000;
    return formatted(unit == 0 || bytes >= 99.95 ? "%.0f %s"
                     : bytes >= 9.995            ? "%.1f %s"
                                                 : "%.2f %s",
                     bytes, units[unit]);
}

ProgressLine::ProgressLine()
    : isWanted(form == Form::json || (form == Form::line && !IsQuiet() && btkIsTerminal(2))),
      begin(Clock::now()), next(form == Form::json ? begin : begin + patience)
{
}

ProgressLine::~ProgressLine()
{
    if (form == Form::json && isNew)
        show(Clock::now());
    write("");
}

void ProgressLine::Show(const std::string& path, double done, double total)
{
    note(path, done, total, false);
}

void ProgressLine::ShowCount(const std::string& path, double count)
{
    note(path, count, 0, true);
}

void ProgressLine::note(const std::string& path, double done, double total, bool counts)
{
    if (!isWanted)
        return;
    object = path;
    achieved = done;
    whole = total;
    isCount = counts;
    isNew = true;
    if (const Clock::time_point now = Clock::now(); now >= next) {
        next = now + interval;
        show(now);
    }
}

void ProgressLine::show(Clock::time_point now)
{
    const double seconds = std::chrono::duration<double>(now - begin).count();
    isNew = false;
    if (form == Form::json) {
        const auto number = [](double exact) { return static_cast<long long>(exact); };
        Json line = {{"path", object}};
        if (isCount)
            line["count"] = number(achieved);
        else
            line.update({{"done", number(achieved)}, {"total", number(whole)}});
        line["seconds"] = std::round(seconds * 1000) / 1000;
        std::cerr << line.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
        return;
    }
    const std::string name = object.substr(object.find_last_of("/\\") + 1);
    if (!isCount)
        return write(Text(name, achieved, whole, seconds));
    const std::string line = formatted("%.0f  %.0f/s  ", achieved, achieved / seconds);
    write(line + endOf(Printable(name), lineWidth - line.size()));
}

std::string ProgressLine::Text(const std::string& what, double done, double total, double seconds)
{
    const double rate = seconds > 0 ? done / seconds : 0;
    std::string line;
    if (total > 0)
        line += formatted("%3.0f%%  ", std::floor(100 * std::min(done / total, 1.0)));
    line += SizeText(done);
    if (total > 0)
        line += " of " + SizeText(std::max(total, done));
    line += "  " + SizeText(rate) + "/s";
    if (total > done && rate > 0)
        line += "  " + durationText((total - done) / rate) + " left";
    line += "  ";
    return line + endOf(Printable(what), lineWidth - std::min(lineWidth, WidthOf(line)));
}

void ProgressLine::write(const std::string& line)
{
    const std::size_t shown = WidthOf(line);
    if (shown == 0 && width == 0)
        return;
    std::cerr << '\r' << line << std::string(width - std::min(width, shown), ' ') << (shown == 0 ? "\r" : "")
              << std::flush;
    width = shown;
}

void OfferProgress(CLI::App& command)
{
    command
        .add_option(
            "--progress", form,
            "How to show progress, on the standard error output: line, which a terminal shows once it takes half a "
            "second; json, a line ten times a second and at the end of each path: path, done and total in bytes, or count "
            "of files, and seconds; or none")
        ->type_name("FORM")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, Form>{{"line", Form::line}, {"json", Form::json}, {"none", Form::none}}))
        ->default_str("line");
}
