#pragma once

#include <CLI/App.hpp>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "output.h"

// Not <CLI/CLI.hpp>, with which the compiler instantiates the parser's formatters in every source. Only sources that
// construct a CLI::App include it.

// The building blocks of the groups of commands. A group has one source, with one function of the type
// AddCommands, which is listed in one row of the table in program.cpp:
//
//     void AddFileCommands(CLI::App& program)
//     {
//         CLI::App& group = AddGroup(program, "fs", "Files and directories", {
//             {"qel fs ls --json /etc", "The nodes of a directory, for a program."},
//         });
//         const auto choices = std::make_shared<Choices>();
//         CLI::App& list = AddCommand(group, "ls", "List a directory", [choices] { List(*choices); });
//         list.add_option("path", choices->path, "The directory")->type_name("DIRECTORY")->required();
//         OfferJson(list, "a line for each node: name, size");
//     }
// A command returns when the answer is yes or the work is done, calls AnswerNo() or Fail(...) otherwise, and
// passes its result to Show, once.
//
// Every option has a description, and the type_name of one that takes a value is the word for the value in
// the help: capitals, such as FILE, SECONDS or NAME=VALUE; some of them select the shell's completion
// (complete.cpp). The parser, the help, the manual pages and the completion are derived from these options.

// ---- commands and options

struct Example
{
    const char* command; // as typed: "qel ns list"
    const char* says;    // a sentence
};

/// Adds a group of commands. Its help ends with the examples; that of each command with the examples of the
/// command.
CLI::App& AddGroup(CLI::App& program, const char* name, const char* help,
                   std::initializer_list<Example> examples);
/// Adds a command to a group, or to the program itself.
CLI::App& AddCommand(CLI::App& group, const char* name, const char* help, std::function<void()> run);
/// Gives the command the flags --json and --quiet. `form` is what the help has behind "Print JSON, ": what a line is, and
/// the members of an object.
void OfferJson(CLI::App& command, const std::string& form);
/// Gives it --quiet alone.
void OfferQuiet(CLI::App& command);
/// Gives it an option for a time, with the present value as default: one that is not negative, or as `check` demands.
CLI::Option* OfferSeconds(CLI::App& command, const char* names, double& seconds, const char* help,
                          const CLI::Validator& check = CLI::NonNegativeNumber);
/// --interval: the time between the steps of a command that repeats itself.
void OfferInterval(CLI::App& command, double& seconds, const char* help);
/// --count: the steps after which it ends.
void OfferCount(CLI::App& command, int& count, const char* help);

// ---- the shell's completion

/// The command line before the value to complete.
struct Typed
{
    std::vector<std::string> arguments;         // of the command, without its options
    std::map<std::string, std::string> options; // by their long name: "--host"; flags with no value
    std::string word;                           // the beginning of the value
};
/// Returns the possible values; those that do not begin with the word are removed afterwards. All sources
/// together have 180 ms. ":files" and ":directories" leave the completion to the shell.
using Offers = std::function<std::vector<std::string>(const Typed& typed)>;
/// Seconds of that which a source of values may wait for another program.
inline constexpr double completionLimit = 0.1;
/// The servers registered with this machine's name server; none when it does not answer within `seconds`.
std::vector<std::string> ServerNames(double seconds = completionLimit);
/// Sets the values offered for an option or an argument. By default, FILE, DIRECTORY and SERVER offer such
/// names.
void Offer(CLI::Option& option, Offers offers);
