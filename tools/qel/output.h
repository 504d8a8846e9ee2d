#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include <qel/xobject.h>

// How a command ends, and what it prints.

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

using Json = nlohmann::ordered_json; // members keep their order; <nlohmann/json.hpp> defines it

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
/// Whether the command was given --quiet.
bool IsQuiet();
