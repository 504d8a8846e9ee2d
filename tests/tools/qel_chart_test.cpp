#include <gmock/gmock.h>

#include "chart.h"
#include "output.h"
#include "support/test.h"

namespace {

using testing::HasSubstr;
using testing::Not;

Chart triangle()
{
    return {"Load", "seconds", {{"a", {{0, 0}, {5, 10}, {10, 0}}}, {"b", {{0, 5}, {10, 5}}}}};
}

TEST(QelChart, DrawsCurvesWithCharacters)
{
    EXPECT_EQ(DrawText(triangle(), {32, 10, false, false}), R"(
              Load
10 +              ***
   |            **   ***
   |         ***        **
 5 +++++++++++++++++++++++++++++
   |   ***                   **
 0 +***                        *
   +----------------------------
    0             5           10
    * a   + b
)" + 1);
}

TEST(QelChart, DrawsFinerWithBraille)
{
    const std::string text = DrawText(triangle(), {32, 10, true, false});
    EXPECT_THAT(text, HasSubstr("10 ┤"));
    EXPECT_THAT(text, HasSubstr("⠒⠒ a   ⠒⠒ b\n"));
    EXPECT_THAT(text, Not(HasSubstr("*")));
    EXPECT_THAT(DrawText(triangle(), {32, 10, true, true}), HasSubstr("\x1b[36m⠒⠒\x1b[m a"));
}

Chart ofNumbers(std::initializer_list<double> numbers)
{
    Chart chart{"extreme <&>", "seconds", {{"漢字 \"<&", {}}}};
    double time = 0;
    for (const double number : numbers)
        chart.curves[0].points.emplace_back(time++, number);
    return chart;
}

TEST(QelChart, HoldsAnyNumbersInAnySize)
{
    using limits = std::numeric_limits<double>;
    const Chart charts[] = {ofNumbers({}),
                            ofNumbers({0}),
                            ofNumbers({1e300, 1e300}),
                            ofNumbers({-limits::max(), limits::max()}),
                            ofNumbers({limits::denorm_min(), 0}),
                            ofNumbers({1e15, 1e15 + 1}),
                            ofNumbers({-7e-9, 12345.678})};
    for (const Chart& chart : charts) {
        for (std::size_t width = 1; width < 130; width += 3)
            for (std::size_t height = 1; height < 40; height += 5)
                for (const bool hasBraille : {false, true}) {
                    std::istringstream lines(DrawText(chart, {width, height, hasBraille, false}));
                    std::size_t count = 0;
                    for (std::string line; std::getline(lines, line); ++count)
                        EXPECT_LE(WidthOf(line), std::max<std::size_t>(width, 20)) << line;
                    EXPECT_EQ(count, std::max<std::size_t>(height, 8));
                }
        const std::string picture = DrawSvg(chart);
        EXPECT_THAT(picture, HasSubstr("<title id=\"title\">extreme &lt;&amp;&gt;</title>"));
        EXPECT_THAT(picture, Not(HasSubstr("nan")));
        EXPECT_THAT(picture, Not(HasSubstr("inf")));
    }
}

TEST(QelChart, NamesUnitsInThePicture)
{
    Chart chart = triangle();
    chart.up = "bytes";

    const std::string picture = DrawSvg(chart);

    EXPECT_THAT(picture, HasSubstr("text-anchor=\"middle\">bytes</text>"));
    EXPECT_THAT(picture, HasSubstr("a between 0 and 10, at last 0; b between 5 and 5, at last 5.</desc>"));
    EXPECT_THAT(picture, HasSubstr("prefers-color-scheme: dark"));
    EXPECT_THAT(DrawText(chart, {32, 10, false, false}), testing::StartsWith("bytes "));
}

} // namespace
