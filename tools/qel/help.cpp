// The text of --help, generated from the parser's objects.
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "program.h"

namespace {

constexpr std::size_t lineWidth = 79;

// `text` in lines that begin at the column `from`, the first of them after `before`.
std::string wrapped(const std::string& before, std::size_t from, const std::string& text)
{
    std::string all = before;
    std::size_t column = before.size();
    if (!before.empty() && column + 2 > from) { // no room left on its line
        all += '\n';
        column = 0;
    }
    all.append(from - column, ' ');
    column = from;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (column > from && column + 1 + word.size() > lineWidth) {
            all.append("\n").append(from, ' ');
            column = from;
        }
        if (column > from) {
            all += ' ';
            ++column;
        }
        all += word;
        column += word.size();
    }
    return all + '\n';
}

struct Row
{
    std::string term;
    std::string text;
};

std::string section(const char* title, const std::vector<Row>& rows)
{
    if (rows.empty())
        return {};
    std::size_t widest = 0;
    for (const Row& row : rows)
        widest = std::max(widest, row.term.size());
    const std::size_t from = std::min<std::size_t>(widest + 4, 28);
    std::string text = std::string("\n") + title + ":\n";
    for (const Row& row : rows)
        text += wrapped("  " + row.term, from, row.text);
    return text;
}

} // namespace

OptionHelp HelpOf(const CLI::Option& option)
{
    // CLI11 appends the names of checks after a colon, such as ":POSITIVE"; the description is clearer.
    const std::string typeName = option.get_expected_max() == 0 ? std::string() : option.get_type_name();
    std::string value = typeName.substr(0, typeName.find(':'));
    if (option.get_expected_max() > 1)
        value += " ...";
    OptionHelp help;
    if (option.get_positional()) {
        help.term = option.get_required() ? value : "[" + value + "]";
    } else {
        for (const std::string& name : option.get_snames())
            help.term += (help.term.empty() ? "-" : ", -") + name;
        for (const std::string& name : option.get_lnames())
            help.term += (help.term.empty() ? "--" : ", --") + name;
        if (!value.empty())
            help.term += ' ' + value;
    }
    help.text = option.get_description();
    if (option.get_required() && !option.get_positional())
        help.text += " (required)";
    if (!option.get_default_str().empty())
        help.text += " (default: " + option.get_default_str() + ")";
    return help;
}

std::string SummaryOf(const CLI::App& command)
{
    return command.get_description().substr(0, command.get_description().find(". "));
}

std::vector<ExampleText> ExamplesOf(const CLI::App& command)
{
    std::string words = command.get_name();
    for (const CLI::App* over = command.get_parent(); over != nullptr; over = over->get_parent())
        words = over->get_name() + ' ' + words;
    std::vector<ExampleText> examples;
    std::istringstream rows(command.get_footer()); // a command inherits its group's
    for (std::string row; std::getline(rows, row);) {
        const std::size_t tab = row.find('\t');
        const std::string line = row.substr(0, tab);
        if ((line + ' ').compare(0, words.size() + 1, words + ' ') == 0)
            examples.push_back({line, row.substr(tab + 1)});
    }
    return examples;
}

std::string HelpText(const CLI::App& command, const std::string& name)
{
    std::vector<Row> commands;
    std::vector<Row> arguments;
    std::vector<Row> options;
    for (const CLI::App* const sub : command.get_subcommands(nullptr))
        if (!sub->get_group().empty())
            commands.push_back({sub->get_name(), SummaryOf(*sub)});
    std::string usage = "Usage: " + (name.empty() ? command.get_name() : name) + " [OPTION ...]";
    for (const CLI::Option* const option : command.get_options()) {
        const auto [term, text] = HelpOf(*option);
        if (option->get_positional())
            usage += ' ' + term;
        (option->get_positional() ? arguments : options).push_back({term, text});
    }
    if (!commands.empty())
        usage += " COMMAND";

    std::string text = wrapped("", 0, command.get_description());
    text += '\n' + usage + '\n';
    text += section("Commands", commands) + section("Arguments", arguments) + section("Options", options);
    const std::vector<ExampleText> examples = ExamplesOf(command);
    if (!examples.empty())
        text += "\nExamples:\n";
    for (const auto& [line, says] : examples)
        text += "  " + line + '\n' + wrapped("", 6, says);
    return text;
}
