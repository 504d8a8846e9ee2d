// qel mon watch and plot: the values of a monitor file over time.
#include <algorithm>
#include <cmath>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>

#include <qel/base/btkfd.h>
#include <qel/hmxconfigfile.h>
#include <qel/qelexception.h>

#include "chart.h"
#include "commands.h"
#include "files.h"
#include "monitor.h"
#include "screen.h"
#include "watchedfile.h"
#include "watching.h"

namespace {

struct WatchChoices
{
    std::string path;
    std::vector<std::string> names; // empty: all
    double interval = 1;
    int count = 0; // 0: until the command is stopped
    bool isOnce = false;
    bool asCsv = false;
    bool asJson = false;
    double oldAge = 60;  // seconds
    std::string picture; // empty: the terminal
};

// With --once, it is an error when there are no values.
Sample takeSample(const WatchChoices& choices, WatchedFile& file)
{
    if (!choices.isOnce)
        return file.Take(choices.names);
    OpenMonitor(choices.path); // reports why it cannot be read
    Sample sample = file.Take(choices.names);
    if (!sample.isLive)
        Fail(Exit::peer, choices.path, sample.problem);
    for (const std::string& name : choices.names)
        if (!sample.values.contains(name))
            Fail(Exit::no, choices.path + ", " + name, "no such parameter; `qel mon list` prints all");
    return sample;
}

// Hands over one sample after the other until the count is reached or the command is stopped.
void forEachSample(const WatchChoices& choices, Watching& ending,
                   const std::function<void(const Sample&)>& take)
{
    WatchedFile file(choices.path, choices.oldAge);
    const btkTimeval start = btkTimeval::Now();
    const int count = choices.isOnce ? 1 : choices.count;
    for (int taken = 1;; ++taken) {
        take(takeSample(choices, file));
        if (taken == count)
            return;
        const btkTimeval next = start + btkTimeval(choices.interval * taken);
        if (!ending.Wait((next - btkTimeval::Now()).ToSeconds()))
            return;
    }
}

// The value as a number, if it can be drawn.
const double* numberIn(const Json& value, double& number)
{
    if (!value.is_number() && !value.is_boolean())
        return nullptr;
    number = value.is_boolean() ? static_cast<double>(value.get<bool>()) : value.get<double>();
    return std::isfinite(number) ? &number : nullptr;
}

// ---- the forms of a sample

std::string csvField(const Json& value)
{
    std::string text = value.is_null()     ? std::string()
                       : value.is_string() ? value.get<std::string>()
                                           : value.dump();
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char c : text)
        quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

std::string timeText(const Sample& sample)
{
    std::ostringstream text;
    text.precision(3);
    text << std::fixed << sample.time;
    return text.str();
}

std::string asCsv(const Sample& sample)
{
    std::string lines;
    if (sample.isLive)
        for (const auto& [name, value] : sample.values.items())
            lines += timeText(sample) + ',' + csvField(name) + ',' + csvField(value) + '\n';
    return lines;
}

std::string asJson(const Sample& sample)
{
    Json line;
    line["time"] = std::stod(timeText(sample));
    line["title"] = sample.title;
    line["values"] = sample.values;
    if (!sample.problem.empty())
        line["problem"] = sample.problem;
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string asTable(const Sample& sample)
{
    Json rows = Json::array();
    for (const auto& [name, value] : sample.values.items())
        rows.push_back({{"name", name}, {"value", value}});
    return (sample.problem.empty() ? "" : sample.problem + '\n') + AsText(rows);
}

// ---- on the terminal

// The state of each value, for its row.
class Rows
{
public:
    ScreenTable tableOf(const Sample& sample, const std::string& path)
    {
        ScreenTable table;
        table.title = sample.title.empty() ? path : sample.title + "  " + path;
        table.problem = sample.problem;
        table.headings = {"NAME", "VALUE", "AGE"};
        for (const auto& [name, value] : sample.values.items()) {
            Known& known = all.try_emplace(name, Known{value, sample.time, false, {}}).first->second;
            if (known.value != value)
                known = {value, sample.time, true, std::move(known.past)};
            double number = 0;
            const bool isDrawn = numberIn(value, number) != nullptr;
            if (isDrawn && sample.isLive)
                remember(known.past, number);
            std::string text = AsText(value);
            text.erase(text.find_last_not_of('\n') + 1);
            const double age = sample.time - known.since;
            ScreenRow row;
            row.cells = {{Printable(name)},
                         {text, isDrawn ? std::optional(number) : std::nullopt},
                         // Nobody knows how old it was at the first sample.
                         {(known.hasChanged ? "" : ">") + spanText(age), -age}};
            row.past = known.past;
            row.isMarked = !sample.isLive;
            table.rows.push_back(std::move(row));
        }
        return table;
    }

private:
    struct Known
    {
        Json value;
        double since;
        bool hasChanged;
        std::deque<double> past;
    };
    std::map<std::string, Known> all;
};

void watchOnScreen(const WatchChoices& choices)
{
    WatchedFile file(choices.path, choices.oldAge);
    Rows rows;
    Screen screen;
    for (int taken = 1; taken <= choices.count || choices.count == 0; ++taken) {
        screen.show(rows.tableOf(file.Take(choices.names), choices.path));
        if (!screen.wait(choices.interval))
            return;
    }
}

void watchValues(const WatchChoices& choices)
{
    const bool isTable = !choices.asCsv && !choices.asJson;
    if (isTable && !choices.isOnce && Screen::isPossible())
        return watchOnScreen(choices);
    Watching output;
    if (choices.asCsv)
        output.Print("time,name,value");
    forEachSample(choices, output, [&](const Sample& sample) {
        output.Print(isTable ? asTable(sample) : choices.asCsv ? asCsv(sample) : asJson(sample));
    });
}

// ---- a chart

// The unit that FILE.meta declares for a value; empty: none.
std::string unitOf(const std::string& path, const std::string& name)
{
    hmxConfigFile declared;
    constexpr double patience = 1; // seconds
    const bool isThere = declared.Open(PathOf(path + ".meta").c_str(), hmxConfigFile::ReadOnly, patience);
    const xstring unit = isThere ? declared.GetValue(name + ".unit") : xstring(nullptr);
    return unit == nullptr ? std::string() : unit.CastToCString();
}

void plotSamples(const WatchChoices& choices)
{
    std::map<std::string, ChartCurve> curves;
    Chart chart{choices.path, "seconds", {}};
    double start = 0;
    Watching ending;
    forEachSample(choices, ending, [&](const Sample& sample) {
        if (start == 0)
            start = sample.time;
        if (!sample.title.empty())
            chart.title = sample.title;
        for (const auto& [name, value] : sample.values.items())
            if (double number = 0; sample.isLive && numberIn(value, number) != nullptr)
                curves[name].points.emplace_back(std::max(sample.time - start, 0.0), number);
    });
    if (curves.empty())
        Fail(Exit::no, choices.path + (choices.names.empty() ? "" : ", " + choices.names.front()),
             "no numbers to draw; `qel mon list` prints all");
    chart.up = unitOf(choices.path, curves.begin()->first);
    for (auto& [name, curve] : curves) {
        const std::string unit = unitOf(choices.path, name);
        curve.name = unit.empty() ? name : name + " (" + unit + ')';
        if (unit != chart.up)
            chart.up.clear();
        chart.curves.push_back(std::move(curve));
    }
    if (choices.picture.empty()) {
        std::cout << DrawText(chart, StyleOfOutput()) << std::flush;
        return;
    }
    std::ofstream picture(choices.picture);
    picture << DrawSvg(chart);
    if (!picture.flush())
        Fail(Exit::peer, choices.picture, "cannot be written");
}

// The options of both commands.
void addSampling(CLI::App& command, WatchChoices& choices, const char* countHelp)
{
    AddMonitorFile(command, choices.path);
    Offer(*command.add_option("parameter", choices.names, "Names of parameters (default: all)")
               ->type_name("NAME"),
          &KnownParameters);
    OfferInterval(command, choices.interval, "Time between samples");
    OfferCount(command, choices.count, countHelp);
}

} // namespace

void AddWatchCommands(CLI::App& group)
{
    const auto watched = std::make_shared<WatchChoices>();
    CLI::App& watch =
        AddCommand(group, "watch",
                   "Show the values as they change: on a terminal in place, each with its age and a "
                   "number with a line of what it was, where keys sort, filter, scroll and pause; "
                   "else as a table for each sample",
                   [watched] { watchValues(*watched); });
    addSampling(watch, *watched, "Samples to be taken (default: until Ctrl-C)");
    OfferSeconds(watch, "--old", watched->oldAge,
                 "Age of the last change from which values are marked as old");
    watch.add_flag("--once", watched->isOnce, "Take one sample, which has to be there");
    CLI::Option* const csv =
        watch.add_flag("--csv", watched->asCsv, "A line for each value: time,name,value; time is since 1970");
    watch
        .add_flag(
            "--json", watched->asJson,
            "Print JSON, a line for each sample: time since 1970, problem when the file cannot be read, title, "
            "values (an object)")
        ->excludes(csv);

    const auto plotted = std::make_shared<WatchChoices>();
    plotted->count = 60;
    CLI::App& plot = AddCommand(
        group, "plot", "Take samples and draw the numbers over the time, as large as the terminal is",
        [plotted] { plotSamples(*plotted); });
    addSampling(plot, *plotted, "Samples to be taken (default: 60); Ctrl-C ends it early");
    plot.add_option("--svg", plotted->picture, "Write a picture to this file (default: draw with characters)")
        ->type_name("FILE");
}
