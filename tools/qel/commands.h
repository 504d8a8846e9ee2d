#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <qel/xobject.h>

// What every group of commands is made with. A group has one source, with one function of the type
// AddCommands that stands in one row of the table in program.cpp:
//
//     void AddFileCommands(CLI::App& program)
//     {
//         CLI::App& group = AddGroup(program, "fs", "Files and directories", {
//             {"qel fs ls --json /etc", "The nodes of a directory, for a program."},
//         });
//         const auto choices = std::make_shared<Choices>();
//         CLI::App& list = AddCommand(group, "ls", "Print what a directory holds", [choices] {
//         List(*choices); }); list.add_option("path", choices->path, "The
//         directory")->type_name("DIRECTORY")->required(); OfferJson(list);
//     }
//
// A command throws nothing when the answer is yes or the work is done, says AnswerNo() or Fail(...) when not,
// and hands over what it found to Show, once.
//
// Every option says what it is for, and the type_name of one that takes a value is the word for the value in
// the help: capitals, such as FILE, SECONDS or NAME=VALUE; some of them tell the shell's completion what to
// offer (complete.cpp). From these options come the parser, the help, the manual pages and the completion.

// ---- how a command ends

/// The program's exit status.
enum class Exit {
    yes = 0,   ///< done, or the answer is yes
    no = 1,    ///< the answer is no, or what was asked for is not there or not allowed
    usage = 2, ///< wrong arguments
    peer = 3,  ///< another program did not answer, or input or output failed
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
/// Ends the program with status 1 and says nothing more.
[[noreturn]] void AnswerNo();
/// What a caught exception tells, and releases it: a failure (Exit::peer unless `status` says else) of what
/// its attribute Path names, or of `what`.
CommandFailed FailureOf(xthrowable* caught, Exit status = Exit::peer, const std::string& what = {});

// ---- what a command answers

using Json = nlohmann::ordered_json; // members keep their order

/// Writes the result to the standard output: as JSON where the command offers --json and was given it, else
/// as text, by `asText` or as AsText does. What a terminal would obey is taken out of the text.
void Show(const Json& result, const std::function<std::string(const Json&)>& asText = {});
/// A value of one line as it is, a list with a line for each value, an object with a line for each member,
/// and a list of objects as a table with headings. Nothing for null and for an empty list. Each line ends
/// with '\n'.
std::string AsText(const Json& result);
/// A text from elsewhere without what a terminal would obey; tabs and line ends go too.
std::string Printable(std::string_view text);
/// The text, made as long as `width` characters with blanks behind it.
std::string Padded(const std::string& text, std::size_t width);
/// The text in bold where the standard output is a terminal that is to have colours, else as it is.
std::string Bold(const std::string& text);
/// Whether the standard output is a terminal, and the environment asks for no plain output (NO_COLOR).
bool HasColours();

// ---- what the program offers

struct Example
{
    const char* command; // as typed: "qel ns list"
    const char* says;    // a sentence
};

/// Adds a group of commands. Its help ends with the examples; that of each command with those which are its
/// own.
CLI::App& AddGroup(CLI::App& program, const char* name, const char* help,
                   std::initializer_list<Example> examples);
/// Adds a command to a group, or to the program itself.
CLI::App& AddCommand(CLI::App& group, const char* name, const char* help, std::function<void()> run);
/// Gives the command the flag --json.
void OfferJson(CLI::App& command);

// ---- what the shell's completion offers

/// What is on the command line before the value that is to be completed.
struct Typed
{
    std::vector<std::string> arguments;         // of the command, without its options
    std::map<std::string, std::string> options; // by their long name: "--host"; flags with no value
    std::string word;                           // the beginning of the value
};
/// The values that there are; those that do not begin with the word are left out afterwards. It has 180 ms in
/// all.
/// ":files" and ":directories" stand for those that the shell finds.
using Offers = std::function<std::vector<std::string>(const Typed& typed)>;
/// Seconds that a source of values may take of that for asking another program.
inline constexpr double completionLimit = 0.1;
/// The servers that this machine's name server knows; none when it does not answer within `seconds`.
std::vector<std::string> ServerNames(double seconds = completionLimit);
/// Offers values for an option or an argument. Without it, those called FILE, DIRECTORY and SERVER offer
/// such.
void Offer(CLI::Option& option, Offers offers);
