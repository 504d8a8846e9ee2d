#include <gmock/gmock.h>

#include <qel/xmonlib.h>

#include "support/environment.h"
#include "support/owned.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"
#include "support/terminal.h"
#include "support/test.h"

using testing::HasSubstr;

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
