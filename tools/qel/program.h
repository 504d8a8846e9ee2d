#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

// The program as a whole, for main.cpp and the commands about it (help, manual pages, completion).

using AddCommands = void (*)(CLI::App& program);

/// Gives `program` its options and every group of commands.
void BuildProgram(CLI::App& program);
/// The command of that name below `command`, or null.
const CLI::App* FindCommand(const CLI::App& command, const std::string& name);
/// The command that is being parsed or run: the one that was named last.
const CLI::App& CommandOf(const CLI::App& program);
/// The name of a command or option, of the command that is being parsed, that `word` resembles; empty: none.
std::string NearestWord(const CLI::App& program, const std::string& word);
/// The words of the command that is being parsed or run: "qel ns list".
std::string CommandLineOf(const CLI::App& program);

/// An environment variable of the library's programs, and its meaning.
struct VariableHelp
{
    const char* name;
    const char* says;
};
inline constexpr VariableHelp environmentHelp[] = {
    {"VRXNMSPORT", "Port of the name server, here and on other machines (1239)"},
    {"QELSTD_REGISTRY", "Directory of the registry ($XDG_CONFIG_HOME/qelstd/registry)"},
    {"QELSTD_DRIVE_C", "Directory of the drive C: (/); QELSTD_DRIVE_D and so on add drives"},
    {"QELSTD_TLS",
     "Directory of certificates: connections to other machines are encrypted (Folder of the registry "
     "key Software\\VRX\\TLS)"},
    {"QELSTD_TLS_LOCAL", "1: connections to servers of this machine are encrypted, too"},
    {"QELSTD_TRACE",
     "What to trace: net, names, streams, processes, files, events or all, with commas; a :LEVEL behind "
     "one (error, warning, info, debug) holds for those before it, too"},
    {"QELSTD_TRACE_FILE", "File for the trace, instead of the standard error output"},
    {"NO_COLOR", "When not empty: write no colours to a terminal"},
};

/// The help for an option or an argument.
struct OptionHelp
{
    std::string term; // "-j, --jobs COUNT", "[FILE ...]"
    std::string text; // its description and default
};
OptionHelp HelpOf(const CLI::Option& option);
/// The summary of a command: the first sentence of its description.
std::string SummaryOf(const CLI::App& command);
/// The text of --help, in 80 columns.
std::string HelpText(const CLI::App& command, const std::string& name);
/// An example of a command: its line and its sentence.
struct ExampleText
{
    std::string command;
    std::string says;
};
std::vector<ExampleText> ExamplesOf(const CLI::App& command);
