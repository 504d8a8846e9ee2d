#include <filesystem>
#include <gmock/gmock.h>
#include <limits>
#include <string>

#include <qel/xmonlib.h>

#include "support/environment.h"
#include "support/owned.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"
#include "support/terminal.h"

using testing::HasSubstr;
using testing::Not;

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

TEST_F(QelMon, DrawsHistoryOfNumbersOnATerminal)
{
    const EnvSetting kind("TERM", "xterm");
    const Owned<monFile> opened(monFile::Open(file.c_str()));
    monRealParam* const speed = opened->Real("speed");
    AtTerminal watching({"qel", "mon", "watch", "--interval", "0.01", file, "mark", "speed", "ok"});
    const auto shows = [&](const char* text) { EXPECT_THAT(watching.readUntil(text), HasSubstr(text)); };
    shows("Night run");
    shows("ok");
    shows("\u2584");

    // A publisher may write any number; one that cannot be drawn leaves the line unchanged.
    constexpr double most = std::numeric_limits<double>::max();
    // The screen shows changes only: of a text without a letter in common, all of it.
    monStringParam* const mark = opened->String("mark", 3);
    const char* marks[] = {"abc", "def", "ghi", "jkl", "mno"};
    const char* const* next = marks;
    for (const double value : {-most, std::numeric_limits<double>::infinity(), most,
                               std::numeric_limits<double>::quiet_NaN(), -most}) {
        speed->setValue(value);
        mark->setValue(*next);
        shows(*next++);
    }
    shows("\u2581");
    speed->setValue(7);
    shows("7.0");
    {
        const Owned<monFile> damaged(monFile::Create(file.c_str(), ""));
    }
    dir.write("run.mon", "damaged");
    shows("run.mon: ");
    watching.type('\x03');
    EXPECT_EQ(watching.wait(), 0);
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
}
