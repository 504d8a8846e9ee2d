#pragma once

#include <CLI/App.hpp>
#include <functional>
#include <initializer_list>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include <qel/xobject.h>

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

// ---- how a command ends

/// The program's exit status.
enum class Exit {
    yes = 0,        ///< done, or the answer is yes
    no = 1,         ///< the answer is no, or the object is missing or access is not allowed
    usage = 2,      ///< wrong arguments
    peer = 3,       ///< another program did not answer, or input or output failed
    notRun = 126,   ///< of a command run elsewhere: the system there could not run it
    notFound = 127, ///< of a command run elsewhere: no such program
};

/// Thrown to end the program. Unless `why` is empty, main writes one line, "qel GROUP COMMAND: what: why", to
/// the standard error output; `what` may be empty.
struct CommandFailed
{
    Exit status = Exit::peer;
    std::string what;
    std::string why;
};

[[noreturn]] void Fail(Exit status, std::string what, std::string why);
/// Ends the program with status 1, without output.
[[noreturn]] void AnswerNo();
/// Converts a caught exception and releases it: a failure with `status` of the path in its attribute Path, or
/// of `what`.
CommandFailed FailureOf(xthrowable* caught, Exit status = Exit::peer, const std::string& what = {});

// ---- the result of a command

using Json = nlohmann::ordered_json; // members keep their order

/// Writes the result to the standard output: as JSON if the command was given --json, a line for each value of a list,
/// else as text, by `asText` or by AsText; nothing if it was given --quiet. Control sequences for a terminal are
/// removed from the text.
void Show(const Json& result, const std::function<std::string(const Json&)>& asText = {});
/// A value of one line unchanged, a list with a line for each value, an object with a line for each member,
/// and a list of objects as a table with headings. Empty for null and for an empty list. Each line ends with
/// '\n'.
std::string AsText(const Json& result);
/// A text from outside without control characters for a terminal; tabs and line ends are removed, too.
std::string Printable(std::string_view text);
/// The columns that a UTF-8 text takes on a terminal: 2 for a wide character, 0 for one that combines.
std::size_t WidthOf(std::string_view text);
/// The beginning of the text, at most `width` columns of it.
std::string CutTo(const std::string& text, std::size_t width);
/// The text, padded with blanks to `width` columns.
std::string Padded(const std::string& text, std::size_t width);
/// The text in bold if HasScreen(), else unchanged.
std::string Bold(const std::string& text);
/// Whether the standard output is a terminal with a cursor that programs can move.
bool HasScreen();
/// Whether it has, and the environment does not say NO_COLOR.
bool HasColours();

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
/// Whether it was given --quiet.
bool IsQuiet();
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
