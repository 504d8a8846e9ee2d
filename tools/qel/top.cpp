// qel top: the figures that running servers publish.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "publishers.h"
#include "screen.h"
#include "watching.h"

namespace {

struct TopChoices
{
    std::vector<std::string> folders;
    std::string filter;
    std::string sort = "name";
    double interval = 1;
    int count = 0; // 0: until the command is stopped
    bool isOnce = false;
    bool asJson = false;
    bool hasZeros = false;
};

// One publisher at one moment.
struct Server : Published
{
    double time = 0;                     // of the sample, in seconds
    std::map<std::string, double> rates; // per second, since the sample before
    double goneFor = 0;                  // seconds since its file was there
};
using Servers = std::map<std::string, Server>; // by file

// How long the last figures of a server that has ended are shown.
constexpr double goneLimit = 10;

double secondsNow()
{
    const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
    return now.count();
}

// All publishers of the folders.
Servers sample(const TopChoices& choices, const Servers& before)
{
    Servers servers;
    const double now = secondsNow();
    for (Published& file : ReadPublishers(choices.folders)) {
        Server server;
        static_cast<Published&>(server) = std::move(file);
        server.time = now;
        if (const auto last = before.find(server.path); last != before.end() && last->second.goneFor == 0)
            for (const auto& [name, value] : server.values.items())
                if (value.is_number() && last->second.values.contains(name) && now > last->second.time)
                    server.rates[name] = (value.get<double>() - last->second.values[name].get<double>()) /
                                         (now - last->second.time);
        servers[server.path] = std::move(server);
    }
    for (const auto& [path, last] : before)
        if (now - last.time < goneLimit && !servers.contains(path)) {
            Server& gone = servers[path] = last;
            gone.goneFor = std::max(now - last.time, 0.001);
            gone.isAlive = false;
            gone.rates.clear();
        }
    return servers;
}

const char* stateOf(const Server& server)
{
    return server.goneFor > 0 ? "exited" : server.isAlive ? "alive" : "dead";
}

bool isWanted(const TopChoices& choices, const Server& server, const std::string& name)
{
    return (server.name + ' ' + name).find(choices.filter) != std::string::npos;
}

bool isShown(const TopChoices& choices, const Server& server, const std::string& name, const Json& value)
{
    static constexpr const char* facts[] = {"process", "started"};
    if (std::find(std::begin(facts), std::end(facts), name) != std::end(facts))
        return false;
    const bool isZero = value.is_number() && value.get<double>() == 0;
    return (choices.hasZeros || !isZero) && isWanted(choices, server, name);
}

// ---- as JSON

// A line for each server that has a wanted figure.
std::string asJson(const TopChoices& choices, const Servers& servers)
{
    const double time = TimeOfDay();
    std::string lines;
    for (const auto& [path, server] : servers) {
        Json values = Json::object(), rates = Json::object();
        for (const auto& [name, value] : server.values.items())
            if (isWanted(choices, server, name))
                values[name] = value;
        for (const auto& [name, rate] : server.rates)
            if (isWanted(choices, server, name))
                rates[name] = rate;
        const Json one = {{"time", time},
                          {"name", server.name},
                          {"process", server.process},
                          {"state", stateOf(server)},
                          {"file", path},
                          {"values", values},
                          {"rates", rates}};
        if (!values.empty())
            lines += one.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
    }
    return lines;
}

// ---- as a table

std::string numberText(double number)
{
    std::string text(40, '\0');
    text.resize(static_cast<std::size_t>(
        std::snprintf(text.data(), text.size(), "%.*f", number < 10 ? 1 : 0, number)));
    return text;
}

using History = std::map<std::string, std::deque<double>>; // the rates, by file and name

ScreenTable tableOf(const TopChoices& choices, const Servers& servers, History* history)
{
    ScreenTable table;
    table.headings = {"SERVER", "PROCESS", "STATE", "FIGURE", "VALUE", "PER SECOND"};
    std::size_t alive = 0;
    for (const auto& [path, server] : servers) {
        alive += server.isAlive;
        for (const auto& [name, value] : server.values.items()) {
            const auto rate = server.rates.find(name);
            const bool hasRate = rate != server.rates.end();
            std::deque<double>* const past = history != nullptr ? &(*history)[path + '\n' + name] : nullptr;
            if (past != nullptr && hasRate)
                remember(*past, rate->second);
            if (!isShown(choices, server, name, value))
                continue;
            std::string text = AsText(value);
            text.erase(text.find_last_not_of('\n') + 1);
            const bool isNumber = value.is_number();
            ScreenRow row;
            row.cells = {{server.name},
                         {std::to_string(server.process), static_cast<double>(server.process)},
                         {stateOf(server)},
                         {Printable(name)},
                         {text, isNumber ? std::optional(value.get<double>()) : std::nullopt},
                         hasRate && rate->second != 0 ? ScreenCell{numberText(rate->second), rate->second}
                                                      : ScreenCell{}};
            if (past != nullptr &&
                std::any_of(past->begin(), past->end(), [](double one) { return one != 0; }))
                row.past = *past;
            row.isMarked = !server.isAlive;
            table.rows.push_back(std::move(row));
        }
    }
    table.title = "servers: " + std::to_string(alive);
    if (alive < servers.size())
        table.title += ", exited: " + std::to_string(servers.size() - alive);
    return table;
}

void sortTable(ScreenTable& table, const std::string& key)
{
    const std::size_t column = key == "value" ? 4 : key == "rate" ? 5 : 0;
    if (column > 0)
        std::stable_sort(table.rows.begin(), table.rows.end(),
                         [&](const ScreenRow& one, const ScreenRow& other) {
                             return one.cells[column].number.value_or(-HUGE_VAL) >
                                    other.cells[column].number.value_or(-HUGE_VAL);
                         });
}

Json rowsOf(const ScreenTable& table)
{
    static constexpr const char* names[] = {"server", "process", "state", "figure", "value", "per second"};
    Json rows = Json::array();
    for (const ScreenRow& row : table.rows) {
        Json one;
        for (std::size_t i = 0; i < row.cells.size(); ++i)
            one[names[i]] = row.cells[i].text;
        rows.push_back(one);
    }
    return rows;
}

// ---- the command

std::string textOf(const TopChoices& choices, const Servers& servers)
{
    if (choices.asJson)
        return asJson(choices, servers);
    ScreenTable table = tableOf(choices, servers, nullptr);
    sortTable(table, choices.sort);
    return AsText(rowsOf(table));
}

void showAll(const TopChoices& choices)
{
    Screen screen;
    History history;
    Servers servers;
    do {
        servers = sample(choices, servers);
        ScreenTable table = tableOf(choices, servers, &history);
        std::erase_if(history, [&](const auto& one) {
            return !servers.contains(one.first.substr(0, one.first.find('\n')));
        });
        sortTable(table, choices.sort);
        screen.show(std::move(table));
    } while (screen.wait(choices.interval));
}

void top(TopChoices& choices)
{
    if (choices.folders.empty())
        choices.folders = PublisherFolders();
    const bool isTable = !choices.asJson && !choices.isOnce && choices.count == 0;
    if (isTable && Screen::isPossible())
        return showAll(choices);
    Watching output;
    Servers servers;
    for (int taken = 1;; ++taken) {
        servers = sample(choices, servers);
        output.Print(textOf(choices, servers));
        if (choices.isOnce || taken == choices.count || !output.Wait(choices.interval))
            return;
    }
}

} // namespace

void AddTopCommand(CLI::App& program)
{
    const auto choices = std::make_shared<TopChoices>();
    CLI::App& command = AddCommand(
        program, "top",
        "Show the figures of running servers as they change: on a terminal in place, where keys sort, filter, "
        "scroll and pause, else as a table for each sample. The servers are those that publish statistics in "
        "the run-time directory: name servers, remote shell servers, and others by QELSTD_STATS=1",
        [choices] { top(*choices); });
    command.footer("qel top\tThe servers of this user, until q or Ctrl-C.\n"
                   "qel top --once --json\tTheir figures at present, for a program.\n"
                   "qel top --sort rate --filter requests\tWhat has most to do.\n");
    command
        .add_option("--filter", choices->filter,
                    "Show figures only that have this in the server's name or theirs")
        ->type_name("WORD");
    command.add_option("--sort", choices->sort, "Order: name, value or rate")
        ->type_name("KEY")
        ->check(CLI::IsMember({"name", "value", "rate"}).description(""))
        ->capture_default_str();
    command.add_flag("--zeros", choices->hasZeros, "Show figures that are 0, too");
    command
        .add_option("--directory", choices->folders,
                    "Where the files of the servers are (default: the run-time directory, /run/qel-ns and "
                    "/run/qel-rshd)")
        ->type_name("DIRECTORY");
    OfferInterval(command, choices->interval, "Time between samples");
    OfferCount(command, choices->count, "Samples to be printed (default: until Ctrl-C)");
    command.add_flag("--once", choices->isOnce, "Print one sample");
    command.add_flag(
        "--json", choices->asJson,
        "Print JSON, a line for each server and sample, with zeros: time since 1970, name, process, state (alive, dead or "
        "exited), file, values and rates per second (objects with a member for each figure)");
}
