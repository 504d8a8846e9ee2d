#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include <qel/xmonlib.h>

#include "support/environment.h"
#include "support/owned.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"
#include "support/terminal.h"

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

// A monitor file with a parameter of each type, created by the program.
class QelMon : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(Qel("mon create --title 'Night run' " + file).output, "");
        for (const char* const parameter :
             {"done int 5", "speed real 1.5", "note string 'two words'", "ok bool yes"})
            ASSERT_EQ(Qel("mon add " + file + ' ' + parameter).output, "");
    }

    const TempDir dir;
    const std::string file = dir.path("run.mon");
};

} // namespace

TEST_F(QelMon, WritesFilesThatTheLibraryReads)
{
    const Owned<monFile> opened(monFile::Open(file.c_str()));
    ASSERT_NE(opened, nullptr);
    EXPECT_TRUE(opened->getTitle() == "Night run");
    EXPECT_EQ(opened->Int("done")->getValue(), 5);
    EXPECT_EQ(opened->Real("speed")->getValue(), 1.5);
    EXPECT_TRUE(opened->String("note", 1)->getValue() == "two words");
    EXPECT_EQ(opened->Bool("ok")->getValue(), 1);

    EXPECT_EQ(Qel("mon set " + file + " done -17").status, 0);
    EXPECT_EQ(Qel("mon set " + file + " ok no").status, 0);
    EXPECT_EQ(opened->Int("done")->getValue(), -17);
    EXPECT_EQ(opened->Bool("ok")->getValue(), 0);
    opened->Real("speed")->setValue(xnullreal);
    EXPECT_EQ(Qel("mon get --json " + file + " speed").output, "null\n");
    EXPECT_EQ(Qel("mon get " + file + " note").output, "two words\n");
    EXPECT_EQ(Qel("mon get " + file + " note done ok").output, "note  two words\ndone  -17\nok    no\n");
    EXPECT_EQ(Qel("mon list " + file).output, "NAME   TYPE    VALUE\n"
                                              "done   int     -17\n"
                                              "note   string  two words\n"
                                              "ok     bool    no\n"
                                              "speed  real\n");
}

TEST_F(QelMon, RejectsUnsuitableValuesAndChangesNothing)
{
    const std::string before = dir.read("run.mon");
    EXPECT_EQ(Qel("mon create " + file).status, 1);
    EXPECT_EQ(Qel("mon add " + file + " done real").status, 1);
    EXPECT_EQ(Qel("mon add " + file + " more int many").status, 2);
    EXPECT_EQ(Qel("mon add " + file + " more complex").status, 2);
    EXPECT_EQ(Qel("mon set " + file + " done 2147483648").status, 2);
    EXPECT_EQ(Qel("mon set " + file + " ok perhaps").status, 2);
    EXPECT_EQ(Qel("mon set " + file + " note " + std::string(256, 'x')).status, 1);
    EXPECT_EQ(Qel("mon set " + file + " none 1").output,
              "qel mon set: " + file + ", none: no such parameter\n");
    EXPECT_EQ(Qel("mon get " + file + " none").status, 1);
    EXPECT_EQ(Qel("mon add " + file + " more real 1.5x").status, 2);
    EXPECT_EQ(Qel("mon add " + file + " more bool -1").status, 2);
    EXPECT_EQ(Qel("mon create " + dir.path("no/where")).status, 3);
    EXPECT_EQ(dir.read("run.mon"), before);

    EXPECT_EQ(Qel("mon list " + file + ".no").status, 1);
    dir.write("text", "not of that kind");
    EXPECT_EQ(Qel("mon list " + std::string(dir.path("text"))).status, 3);
    EXPECT_EQ(Qel("mon create --replace " + file).status, 0);
    EXPECT_EQ(Qel("mon list " + file).output, "");
}

TEST_F(QelMon, WatchesInEachForm)
{
    EXPECT_EQ(Qel("mon watch --once " + file + " done ok").output, "NAME  VALUE\ndone  5\nok    yes\n");
    EXPECT_THAT(Qel("mon watch --csv --count 2 --interval 0.01 " + file + " note speed").output,
                MatchesRegex("time,name,value\n"
                             "([0-9]+\\.[0-9]+,note,two words\n[0-9]+\\.[0-9]+,speed,1.5\n){2}"));
    const auto sample = nlohmann::json::parse(Qel("mon watch --json --count 1 " + file).output);
    EXPECT_EQ(sample["title"], "Night run");
    EXPECT_EQ(sample["values"]["done"], 5);
    EXPECT_EQ(sample["values"].size(), 4u);
    EXPECT_EQ(Qel("mon watch --once " + file + " none").status, 1);
    EXPECT_EQ(Qel("mon watch --once " + file + ".no").status, 1);
    EXPECT_EQ(Qel("mon watch --csv --json " + file).status, 2);
}

TEST_F(QelMon, DrawsHistoryOfNumbersOnATerminal)
{
    const EnvSetting kind("TERM", "xterm");
    const Owned<monFile> opened(monFile::Open(file.c_str()));
    monRealParam* const speed = opened->Real("speed");
    AtTerminal watching({"qel", "mon", "watch", "--interval", "0.01", file, "speed", "ok"});
    // The output is repeated each time, and may arrive in pieces.
    const auto shows = [&](const char* text) { EXPECT_THAT(watching.readUntil(text), HasSubstr(text)); };
    shows("Night run");
    shows("\u2584");

    // A publisher may write any number; one that cannot be drawn leaves the line unchanged.
    constexpr double most = std::numeric_limits<double>::max();
    for (const double value : {-most, std::numeric_limits<double>::infinity(), most,
                               std::numeric_limits<double>::quiet_NaN(), -most}) {
        speed->setValue(value);
        watching.readUntil("speed");
        watching.readUntil("speed");
    }
    shows("\u2581");
    shows("ok");
    speed->setValue(7);
    shows(" 7.0 ");
    shows("\u2588");
    {
        const Owned<monFile> damaged(monFile::Create(file.c_str(), ""));
    }
    dir.write("run.mon", "damaged");
    shows("run.mon: ");
    shows("\x1b[J");
    watching.type('\x03');
    EXPECT_EQ(watching.wait(), 0);
}

TEST_F(QelMon, EscapesFieldSeparatorsInTables)
{
    ASSERT_EQ(Qel("mon add " + file + " 'a,\"b\"' string 'c\nd'").status, 0);
    EXPECT_THAT(Qel("mon watch --csv --once " + file + " 'a,\"b\"'").output,
                HasSubstr(",\"a,\"\"b\"\"\",\"c\nd\"\n"));
    EXPECT_EQ(Qel("mon watch --count 1 " + file + ".no").output, "not there yet\n");
    EXPECT_THAT(Qel("mon watch --json --count 1 " + file + ".no").output,
                HasSubstr("\"problem\":\"not there yet\""));
}

TEST_F(QelMon, KeepsWatchingARecreatedFile)
{
    RunningQel watching({"mon", "watch", "--json", "--interval", "0.02", file});
    EXPECT_THAT(watching.line(), HasSubstr("\"done\":5"));
    {
        const Owned<monFile> anew(monFile::Create(file.c_str(), "Day run"));
        anew->Int("next")->setValue(1);
    }
    std::string line = watching.line();
    for (int i = 0; i < 500 && line.find("\"next\":1") == std::string::npos; ++i)
        line = watching.line();
    EXPECT_THAT(line, HasSubstr("Day run"));
    watching.child.signal(SIGINT); // the user has seen enough
    EXPECT_EQ(watching.child.wait(), 0);
}

TEST_F(QelMon, DrawsCharts)
{
    const std::string picture = dir.path("run 'a'.svg");
    const Outcome drawn =
        Qel("mon plot --count 2 --interval 0.01 --svg \"" + picture + "\" " + file + " done speed");
    EXPECT_EQ(drawn.status, 0) << drawn.output;
    const std::string svg = dir.read("run 'a'.svg");
    EXPECT_THAT(svg, HasSubstr("<svg"));
    EXPECT_THAT(svg, HasSubstr("Night run"));

    const Outcome chart = Qel("mon plot --count 2 --interval 0.01 " + file + " done speed");
    EXPECT_EQ(chart.status, 0);
    EXPECT_THAT(chart.output, HasSubstr("done"));
    EXPECT_EQ(Qel("mon plot --count 1 " + file + " note").status, 1);
    EXPECT_EQ(Qel("mon plot --count 1 --svg /nonexistent/x.svg " + file + " done").status, 3);
    const EnvSetting nowhere("PATH", "/nonexistent");
    EXPECT_THAT(Qel("mon plot --count 1 " + file + " done").output, HasSubstr("qel mon plot: gnuplot: "));
}

TEST_F(QelMon, DistinguishesReasonsWhyAFileCannotBeWatched)
{
    EXPECT_EQ(Qel("mon list " + file + ".no").output, "qel mon list: " + file + ".no: not there\n");
    dir.write("text", "not of that kind");
    const std::string text = dir.path("text");
    EXPECT_EQ(Qel("mon list " + text).output, "qel mon list: " + text + ": no monitor file\n");
    EXPECT_EQ(Qel("mon check " + file).output, "whole\n");
    const std::string bytes = dir.read("run.mon");
    dir.write("run.mon", bytes + std::string("\0\0\0\7", 4) + bytes);
    const Outcome damaged = Qel("mon check --json " + file);
    EXPECT_EQ(damaged.status, 1);
    EXPECT_EQ(nlohmann::json::parse(damaged.output)["offset"], bytes.size());
}

TEST_F(QelMon, MarksOutdatedValues)
{
    RunningQel watching({"mon", "watch", "--json", "--interval", "0.02", "--old", "1000", file});
    const auto lineWith = [&](const char* text) {
        std::string line = watching.line();
        for (int i = 0; i < 500 && line.find(text) == std::string::npos; ++i)
            line = watching.line();
        return line;
    };
    EXPECT_THAT(lineWith("\"done\":5"), Not(HasSubstr("problem")));
    std::filesystem::rename(file, file + ".away");
    EXPECT_THAT(lineWith("\"problem\":\"gone\""), HasSubstr("\"done\":5"));
    {
        const Owned<monFile> anew(monFile::Create(file.c_str(), "Day run"));
        anew->Int("done")->setValue(1);
    }
    EXPECT_THAT(lineWith("\"problem\":\"replaced\""), HasSubstr("Day run"));
    EXPECT_THAT(lineWith("\"done\":1"), HasSubstr("Day run"));
    watching.child.signal(SIGINT);
    EXPECT_EQ(watching.child.wait(), 0);

    std::filesystem::last_write_time(file,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::minutes(5));
    EXPECT_THAT(Qel("mon watch --once " + file).output, StartsWith("old\nNAME"));
    EXPECT_THAT(Qel("mon watch --once --old 1000 " + file).output, StartsWith("NAME"));
}
