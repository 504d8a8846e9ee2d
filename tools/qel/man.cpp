// qel man: the manual pages, in mdoc, generated from the parser's objects.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "program.h"

namespace {

// ---- mdoc

// Text in short lines, none of which begins like a request; backslashes are escaped.
std::string textLine(const std::string& text)
{
    std::string lines;
    std::string line;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const bool isSentenceOver = line.ends_with('.') || line.ends_with('!') || line.ends_with('?');
        if (isSentenceOver || line.size() + word.size() > 76) {
            lines += line + '\n';
            line.clear();
        }
        if (line.empty() && (word.starts_with('.') || word.starts_with('\'')))
            line = "\\&";
        else if (!line.empty())
            line += ' ';
        for (const char c : word)
            line += c == '\\' ? std::string("\\e") : std::string(1, c);
    }
    return lines + line + '\n';
}

// An argument of a macro.
std::string argument(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text)
        quoted += c == '\\' ? std::string("\\e") : c == '"' ? std::string("\\(dq") : std::string(1, c);
    return quoted + '"';
}

// "-h, --help", "--port PORT" or "[FILE ...]" as macros.
std::string termLine(const std::string& term)
{
    if (term.starts_with('['))
        return "Op " + termLine(term.substr(1, term.size() - 2));
    std::string macros;
    std::istringstream words(term);
    for (std::string word; words >> word;) {
        const bool isFlag = word.starts_with('-');
        const bool more = word.ends_with(',');
        if (more)
            word.pop_back();
        macros += (macros.empty() ? "" : " ") +
                  (isFlag ? "Fl " + argument(word.substr(1)) : "Ar " + argument(word)) + (more ? " ," : "");
    }
    return macros;
}

std::string listOf(const std::vector<std::pair<std::string, std::string>>& rows)
{
    if (rows.empty())
        return {};
    std::string list = ".Bl -tag -width Ds\n";
    for (const auto& [term, text] : rows)
        list += ".It " + term + '\n' + textLine(text);
    return list + ".El\n";
}

// ---- sections

std::string arguments(const CLI::App& command)
{
    const bool isProgram = command.get_parent() == nullptr; // only its page describes --help
    std::vector<std::pair<std::string, std::string>> rows;
    for (const bool positional : {true, false})
        for (const CLI::Option* const option : command.get_options())
            if (option->get_positional() == positional && (isProgram || option != command.get_help_ptr())) {
                const auto [term, text] = HelpOf(*option);
                rows.emplace_back(termLine(term), text + '.');
            }
    return listOf(rows);
}

std::string synopsis(const CLI::App& command, const std::string& words)
{
    std::string line = ".Nm " + words + "\n.Op Ar OPTION ...\n";
    for (const CLI::Option* const option : command.get_options())
        if (option->get_positional())
            line += "." + termLine(HelpOf(*option).term) + '\n';
    return line;
}

std::string exampleLines(const CLI::App& command)
{
    const std::vector<ExampleText> examples = ExamplesOf(command);
    if (examples.empty())
        return {};
    std::string section = ".Sh EXAMPLES\n";
    for (const auto& [line, says] : examples)
        section += textLine(says) + ".Pp\n.Dl " + argument(line) + "\n.Pp\n";
    return section.substr(0, section.size() - 4); // no paragraph at the end
}

std::vector<const CLI::App*> shown(const CLI::App& command)
{
    return command.get_subcommands([](const CLI::App* sub) { return !sub->get_group().empty(); });
}

// The other pages.
std::string seeAlso(const CLI::App& program, const CLI::App* without)
{
    std::set<std::string> pages;
    if (without != nullptr)
        pages.insert("qel");
    for (const CLI::App* const command : shown(program))
        if (command != without)
            pages.insert("qel-" + command->get_name());
    std::string section;
    for (const std::string& page : pages)
        section += (section.empty() ? ".Xr " : " ,\n.Xr ") + page + " 1";
    return ".Sh SEE ALSO\n" + section + '\n';
}

constexpr const char* exitStatus = R"(.Sh EXIT STATUS
.Bl -tag -width Ds
.It 0
Done, or the answer is yes.
.It 1
The answer is no, or what was asked for is not there or not allowed.
.It 2
The arguments are wrong.
.It 3
Another program did not answer, or input or output failed.
.El
.Pp
What went wrong is one line on the standard error output.
)";

std::string headOf(const std::string& page, const std::string& does)
{
    std::string title = page;
    for (char& c : title)
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    return ".Dd " QEL_DATE "\n.Dt " + title + " 1\n.Os qelstd " QEL_VERSION "\n.Sh NAME\n.Nm " + page +
           "\n.Nd " + does + '\n';
}

// ---- pages

std::string programPage(const CLI::App& program)
{
    std::string page = headOf("qel", "runs and queries the parts of a distributed system");
    page += ".Sh SYNOPSIS\n.Nm qel\n.Op Ar OPTION ...\n.Ar GROUP\n.Ar COMMAND\n.Op Ar ARGUMENT ...\n";
    page += ".Sh DESCRIPTION\nEach command, or group of commands, has a page of its own, such as\n"
            ".Xr qel-ns 1 :\n";
    std::vector<std::pair<std::string, std::string>> rows;
    for (const CLI::App* const group : shown(program))
        rows.emplace_back("Cm " + group->get_name(), SummaryOf(*group) + '.');
    page += listOf(rows) + ".Pp\nThe options:\n" + arguments(program);
    page +=
        ".Pp\nWhat a program may read is written as JSON with the option\n.Fl -json ,\na value a line; the page of "
        "each command names the members of its objects.\n";
    page += ".Sh ENVIRONMENT\n";
    rows.clear();
    for (const auto& [name, says] : environmentHelp)
        rows.emplace_back(std::string("Ev ") + name, std::string(says) + '.');
    return page + listOf(rows) + exitStatus + exampleLines(program) + seeAlso(program, nullptr);
}

// The page of a command of the program, or of a group of commands.
std::string commandPage(const CLI::App& program, const CLI::App& top)
{
    std::string does = SummaryOf(top);
    if (does.compare(0, 2, "A ") == 0 || does.compare(0, 4, "The ") == 0 || shown(top).empty())
        does[0] = static_cast<char>(does[0] - 'A' + 'a');
    std::string page = headOf("qel-" + top.get_name(), does) + ".Sh SYNOPSIS\n";
    std::string commands;
    for (const CLI::App* const command : shown(top)) {
        const std::string words = "qel " + top.get_name() + ' ' + command->get_name();
        page += synopsis(*command, words);
        commands += ".Ss " + words + '\n' + textLine(command->get_description() + '.') + arguments(*command);
    }
    if (commands.empty()) {
        page += synopsis(top, "qel " + top.get_name());
        commands = textLine(top.get_description() + '.') + arguments(top);
    }
    return page + ".Sh DESCRIPTION\n" + commands + exitStatus + exampleLines(top) + seeAlso(program, &top);
}

struct ManChoices
{
    std::string command;
    std::string directory;
};

void writePage(const std::filesystem::path& file, const std::string& page)
{
    std::ofstream stream(file);
    stream << page;
    if (!stream.flush())
        Fail(Exit::peer, file.string(), "cannot be written");
}

void runMan(const CLI::App& program, const ManChoices& choices)
{
    if (!choices.directory.empty()) {
        const std::filesystem::path directory(choices.directory);
        std::filesystem::create_directories(directory);
        writePage(directory / "qel.1", programPage(program));
        for (const CLI::App* const command : shown(program))
            writePage(directory / ("qel-" + command->get_name() + ".1"), commandPage(program, *command));
    } else if (choices.command.empty()) {
        std::cout << programPage(program);
    } else {
        const CLI::App* const command = FindCommand(program, choices.command);
        if (command == nullptr)
            Fail(Exit::no, choices.command, "no such command; `qel --help` prints all");
        std::cout << commandPage(program, *command);
    }
}

} // namespace

void AddManCommand(CLI::App& program)
{
    const auto choices = std::make_shared<ManChoices>();
    CLI::App& man = AddCommand(program, "man", "Write a manual page for mandoc or man",
                               [&program, choices] { runMan(program, *choices); });
    man.group(""); // for packagers: hidden from the help
    man.add_option("command", choices->command,
                   "The command or group of commands to describe (default: the program)")
        ->type_name("COMMAND");
    man.add_option("--directory", choices->directory, "Write all pages, as files of this directory")
        ->type_name("DIRECTORY");
}
