// The groups of commands, and the options they share.
#include "program.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <numeric>
#include <utility>

#include "commands.h"

void AddNameServiceCommands(CLI::App& program);
void AddServerCommands(CLI::App& program);
void AddRemoteShellCommand(CLI::App& program);
void AddRemoteShellServer(CLI::App& program);
void AddTlsCommands(CLI::App& program);
void AddMonitorCommands(CLI::App& program);
void AddTopCommand(CLI::App& program);
void AddConfigCommands(CLI::App& program);
void AddRegistryCommands(CLI::App& program);
void AddFileCommands(CLI::App& program);
void AddInspectCommand(CLI::App& program);
void AddInfoCommand(CLI::App& program);
void AddSelftestCommand(CLI::App& program);
void AddTypeCommands(CLI::App& program);
void AddCompletionCommands(CLI::App& program);
void AddManCommand(CLI::App& program);

namespace {

// In the order of the help; the source of each is named beside it.
constexpr AddCommands groups[] = {
    &AddNameServiceCommands, // ns
    &AddServerCommands,      // server
    &AddRemoteShellCommand,  // rsh
    &AddRemoteShellServer,   // rshd
    &AddTlsCommands,         // tls
    &AddMonitorCommands,     // mon
    &AddTopCommand,          // top
    &AddConfigCommands,      // conf
    &AddRegistryCommands,    // reg
    &AddFileCommands,        // fs
    &AddInspectCommand,      // inspect
    &AddInfoCommand,         // info
    &AddSelftestCommand,     // selftest
    &AddTypeCommands,        // types
    &AddCompletionCommands,  // complete
    &AddManCommand,          // man
};

// The number of characters to insert, delete, replace or exchange with their neighbour.
std::size_t editDistance(const std::string& from, const std::string& to)
{
    std::vector<std::size_t> before, last(to.size() + 1), row(to.size() + 1);
    std::iota(last.begin(), last.end(), 0);
    for (std::size_t i = 1; i <= from.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (from[i - 1] != to[j - 1])});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before = std::exchange(last, row);
    }
    return last.back();
}

} // namespace

void BuildProgram(CLI::App& program)
{
    program.formatter_fn([](const CLI::App* command, const std::string& name, CLI::AppFormatMode) {
        return HelpText(*command, name);
    });
    program.set_help_flag("-h,--help", "Print this help and exit");
    program.set_version_flag("--version", "qel " QEL_VERSION, "Print the version and exit");
    program.require_subcommand(1);
    for (const AddCommands add : groups)
        add(program);
}

const CLI::App* FindCommand(const CLI::App& command, const std::string& name)
{
    const auto found = command.get_subcommands([&](const CLI::App* sub) { return sub->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

const CLI::App& CommandOf(const CLI::App& program)
{
    const CLI::App* at = &program;
    while (!at->get_subcommands().empty())
        at = at->get_subcommands().front();
    return *at;
}

std::string NearestWord(const CLI::App& program, const std::string& word)
{
    const CLI::App& command = CommandOf(program);
    std::vector<std::string> names;
    if (word.starts_with("-")) {
        for (const CLI::Option* const option : command.get_options())
            for (const std::string& name : option->get_lnames())
                names.push_back("--" + name);
    } else {
        for (const CLI::App* const sub : command.get_subcommands(nullptr))
            if (!sub->get_group().empty())
                names.push_back(sub->get_name());
    }
    const std::string typed = word.substr(0, word.find('='));
    std::size_t nearest = std::min<std::size_t>(3, typed.size()); // what is further away resembles nothing
    std::string found;
    for (const std::string& name : names)
        if (const std::size_t distance = editDistance(typed, name); distance < nearest) {
            nearest = distance;
            found = name;
        }
    return found;
}

std::string CommandLineOf(const CLI::App& program)
{
    std::string words = program.get_name();
    for (const CLI::App* at = &program; !at->get_subcommands().empty();) {
        at = at->get_subcommands().front();
        words += ' ' + at->get_name();
    }
    return words;
}

CLI::App& AddGroup(CLI::App& program, const char* name, const char* help,
                   std::initializer_list<Example> examples)
{
    CLI::App& group = *program.add_subcommand(name, help);
    group.require_subcommand(1);
    std::string rows; // split by ExamplesOf
    for (const Example& example : examples)
        rows.append(example.command).append("\t").append(example.says).append("\n");
    group.footer(rows);
    return group;
}

CLI::App& AddCommand(CLI::App& group, const char* name, const char* help, std::function<void()> run)
{
    CLI::App& command = *group.add_subcommand(name, help);
    command.callback(std::move(run));
    return command;
}
