#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "program.h"
#include "support/test.h"

TEST(QelOutput, IsReadableText)
{
    EXPECT_EQ(AsText(nullptr), "");
    EXPECT_EQ(AsText("a\x1b[2J\tb\xC2\x9B\xC3\xA4"), "a[2Jb\xC3\xA4\n");
    EXPECT_EQ(AsText(true), "yes\n");
    EXPECT_EQ(AsText(Json::array()), "");
    EXPECT_EQ(AsText(Json({1, "two", nullptr})), "1\ntwo\n\n");
    EXPECT_EQ(AsText({{"name", "x"}, {"parents", {"a", "b"}}, {"none", nullptr}}), "name     x\n"
                                                                                   "parents  a, b\n"
                                                                                   "none\n");
    const Json rows = {{{"name", "\xC3\xA4"}, {"size", 12}},
                       {{"name", "long"}, {"size", 1234}, {"note", "n"}}};
    EXPECT_EQ(AsText(rows), "NAME  SIZE  NOTE\n"
                            "\xC3\xA4       12\n"
                            "long  1234  n\n");
}

namespace {

// Checks that a command and its subcommands have the texts that the help and the manual pages need.
void ExpectDescribed(const CLI::App& command, const std::string& words)
{
    SCOPED_TRACE(words);
    EXPECT_FALSE(command.get_description().empty());
    for (const CLI::Option* const option : command.get_options()) {
        EXPECT_FALSE(option->get_description().empty()) << option->get_name();
        if (option->get_expected_max() == 0) // a flag
            continue;
        const std::string word = option->get_type_name().substr(0, option->get_type_name().find(':'));
        for (const char* const unnamed : {"TEXT", "INT", "UINT", "FLOAT", "BOOLEAN", ""})
            EXPECT_NE(word, unnamed) << option->get_name() << " has no type_name";
    }
    std::istringstream lines(HelpText(command, words));
    for (std::string line; std::getline(lines, line);)
        EXPECT_LE(line.size(), 80U) << line;
    for (const CLI::App* const sub : command.get_subcommands(nullptr))
        ExpectDescribed(*sub, words + ' ' + sub->get_name());
}

} // namespace

TEST(QelOutput, EveryOptionIsDescribed)
{
    CLI::App program("Of the test", "qel");
    BuildProgram(program);
    ExpectDescribed(program, "qel");
}

TEST(QelOutput, EveryGroupHasExamplesOfItsCommands)
{
    CLI::App program("Of the test", "qel");
    BuildProgram(program);
    for (const CLI::App* const group : program.get_subcommands(nullptr)) {
        const auto commands = group->get_subcommands(nullptr);
        if (commands.empty())
            continue;
        std::size_t ofCommands = 0;
        for (const CLI::App* const command : commands)
            ofCommands += ExamplesOf(*command).size();
        EXPECT_GT(ofCommands, 0U) << group->get_name();
        EXPECT_EQ(ofCommands, ExamplesOf(*group).size()) << group->get_name() << ": of no command";
    }
}
