// The groups of commands, and the options they share.
#include "program.h"

#include "commands.h"

void AddNameServiceCommands(CLI::App& program);
void AddServerCommands(CLI::App& program);
void AddRemoteShellCommand(CLI::App& program);
void AddRemoteShellServer(CLI::App& program);
void AddMonitorCommands(CLI::App& program);
void AddConfigCommands(CLI::App& program);
void AddRegistryCommands(CLI::App& program);
void AddFileCommands(CLI::App& program);
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
    &AddMonitorCommands,     // mon
    &AddConfigCommands,      // conf
    &AddRegistryCommands,    // reg
    &AddFileCommands,        // fs
    &AddInfoCommand,         // info
    &AddSelftestCommand,     // selftest
    &AddTypeCommands,        // types
    &AddCompletionCommands,  // complete
    &AddManCommand,          // man
};

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
