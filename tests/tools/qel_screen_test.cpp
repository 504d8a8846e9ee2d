#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "output.h"
#include "screen.h"
#include "support/environment.h"
#include "support/tempdir.h"
#include "support/terminal.h"
#include "support/test.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST(QelScreen, MeasuresColumns)
{
    EXPECT_EQ(WidthOf("a\xC3\xA4"), 2U);
    EXPECT_EQ(WidthOf("漢字"), 4U);
    EXPECT_EQ(WidthOf("e\u0301"), 1U); // a combining accent
    EXPECT_EQ(WidthOf("\xFF\xC3"), 2U);
    EXPECT_EQ(CutTo("漢字", 3), "漢");
    EXPECT_EQ(CutTo("e\u0301x", 1), "e\u0301");
    EXPECT_EQ(Padded("漢", 4) + "|", "漢  |");
    EXPECT_EQ(AsText(Json({{{"name", "漢字"}, {"b", 1}}, {{"name", "x"}, {"b", 2}}})), "NAME  B\n"
                                                                                       "漢字  1\n"
                                                                                       "x     2\n");
}

TEST(QelScreen, DrawsNumbersOfAnySize)
{
    constexpr double most = std::numeric_limits<double>::max();
    std::deque<double> past;
    EXPECT_EQ(sparkline(past, 9), "");
    for (const double number : {-most, 0.0, most})
        remember(past, number);
    EXPECT_EQ(sparkline(past, 9), "▁▄█");
    EXPECT_EQ(sparkline(past, 1), "▄");
    for (std::size_t i = 0; i < 2 * mostPast; ++i)
        remember(past, 1);
    EXPECT_EQ(past.size(), mostPast);
}

std::vector<std::string> textsOf(const ScreenTable& table, ScreenView& view, std::size_t width,
                                 std::size_t height)
{
    std::vector<std::string> texts;
    for (const ScreenLine& line : layOut(table, view, width, height))
        texts.push_back(line.text.substr(0, line.text.find_last_not_of(' ') + 1));
    return texts;
}

ScreenTable numbersTo(int count)
{
    ScreenTable table{"title", "", {"NAME", "VALUE"}, {}};
    for (int i = 1; i <= count; ++i)
        table.rows.push_back({{{"Row" + std::to_string(i)}, {std::to_string(i), static_cast<double>(i)}}});
    return table;
}

TEST(QelScreen, ScrollsFiltersAndSorts)
{
    const ScreenTable table = numbersTo(40);
    ScreenView view;
    EXPECT_THAT(textsOf(table, view, 40, 6),
                ElementsAre("title", "NAME    VALUE", "Row1        1", "Row2        2", "Row3        3",
                            "1-3 of 40  q quit  / filter  s sort  r r"));
    view.first = 1000;
    EXPECT_THAT(textsOf(table, view, 40, 6)[4], HasSubstr("Row40"));
    EXPECT_EQ(view.first, 37U);
    view = {.filter = "row1", .sortedBy = 1};
    EXPECT_THAT(textsOf(table, view, 20, 6),
                ElementsAre("title", "NAME   VALUEv", "Row19      19", "Row18      18", "Row17      17",
                            "/row1  1-3 of 11  q"));
    view.isReversed = true;
    EXPECT_EQ(textsOf(table, view, 20, 6)[2], "Row1        1");
    view = {.filter = "no such", .first = 5, .isTyping = true};
    EXPECT_EQ(textsOf(table, view, 18, 6).size(), 3U);
    EXPECT_EQ(textsOf(table, view, 18, 6)[2], "/no such_   Enter:");
    EXPECT_EQ(view.first, 0U);
}

TEST(QelScreen, FitsEverySize)
{
    ScreenTable table = numbersTo(5);
    table.problem = "replaced";
    table.rows[0].cells[0].text = std::string(100, 'x');
    table.rows[1].cells[0].text = "漢字漢字";
    table.rows[2].past.assign(300, 1.0);
    for (std::size_t width = 0; width < 120; ++width)
        for (std::size_t height = 0; height < 10; ++height) {
            ScreenView view;
            const auto lines = layOut(table, view, width, height);
            EXPECT_LE(lines.size(), height);
            for (const ScreenLine& line : lines)
                EXPECT_LE(WidthOf(line.text), width) << line.text;
        }
    ScreenView view;
    EXPECT_EQ(WidthOf(layOut(table, view, 119, 9)[4].text), 119U); // the line of the past fills the row
    EXPECT_EQ(layOut(table, view, 119, 9)[0].kind, ScreenLine::Marked);
}

TEST(QelScreen, ObeysKeysAtATerminal)
{
    const TempDir dir;
    const EnvSetting noService("RUNTIME_DIRECTORY", nullptr);
    const EnvSetting runtime("XDG_RUNTIME_DIR", dir.path());
    const EnvSetting kind("TERM", "xterm");
    const EnvSetting plain("NO_COLOR", "1"); // the screen is the same, without colours
    AtTerminal serving({"qel", "ns", "serve", "--port", "0"});
    serving.readUntil("port ");
    AtTerminal shown({"qel", "top", "--interval", "0.05", "--zeros"});
    const std::string first = shown.readUntil("connections"); // once the server has published it
    EXPECT_THAT(first, HasSubstr("\x1b[?1049h"));             // the alternate screen
    EXPECT_THAT(first, HasSubstr("servers: 1"));
    EXPECT_THAT(first, HasSubstr("nameserver"));
    EXPECT_THAT(first, HasSubstr("connections"));
    EXPECT_THAT(first, Not(HasSubstr("\x1b[33")));
    // The screen writes changes only; a row is written again when the filter that hid it ends.
    for (const char key : {'/', 'o', 'w', 'n', 'e', 'r', 's', '\r', ' '})
        shown.type(key);
    EXPECT_THAT(shown.readUntil("PAUSED"), HasSubstr("PAUSED"));
    shown.type('/');
    shown.type('\x1b');
    EXPECT_THAT(shown.readUntil("connections"), HasSubstr("connections"));
    shown.type('q');
    EXPECT_THAT(shown.readUntil("\x1b[?1049l"), HasSubstr("\x1b[?1049l"));
    EXPECT_EQ(shown.wait(), 0);
}

TEST(QelScreen, SignalsEndItAndRestoreTheTerminal)
{
    const TempDir dir;
    const EnvSetting runtime("XDG_RUNTIME_DIR", dir.path());
    const EnvSetting kind("TERM", "xterm");
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"qel", "top"}, {"qel", "mon", "watch", "none.mon"}}) {
        SCOPED_TRACE(command[1]);
        std::vector<std::string> words = command;
        words.insert(words.end(), {"--interval", "3600"});
        AtTerminal shown(words);
        shown.readUntil("space pause");
        shown.terminate();
        EXPECT_THAT(shown.readUntil("\x1b[?1049l"), HasSubstr("\x1b[?1049l"));
        EXPECT_EQ(shown.wait(), 0);
    }
}

} // namespace
