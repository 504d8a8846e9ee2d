#include <climits>
#include <cmath>
#include <ctime>

#include <qel/qelcpp.h>
#include <qel/syslib.h>
#include <qel/tmexception.h>
#include <qel/tmtime.h>

#include "support/environment.h"
#include "support/test.h"
#include "support/texts.h"
#include "support/thrown.h"

namespace {

using testing::ExitedWithCode;

/// A zone with daylight saving time, so that a mistaken use of UTC is detected.
class Time : public testing::Test
{
protected:
    static std::string text(long time, const char* format = "%Y-%m-%d %H:%M:%S")
    {
        tmTime object(time);
        return tmTime::TimeToString(&object, format).CastToCString();
    }

    static std::string read(const char* from)
    {
        long time = 12345;
        if (tmString2Time(from, &time))
            return text(time);
        EXPECT_EQ(time, 12345);
        return "refused";
    }

    static std::string local(int year, int month, int day, int hour = 0, int minute = 0, int second = 0,
                             unsigned char dst = xnullbool)
    {
        tmTime* const made = tmTime::LocalTime(year, month, day, hour, minute, second, dst);
        const long seconds = static_cast<long>(made->getAbsTime());
        xdelete(made);
        return text(seconds);
    }

    EnvSetting zone{"TZ", "CET-1CEST,M3.5.0,M10.5.0/3"};
};

} // namespace

TEST_F(Time, BreaksSecondDownToLocalTime)
{
    tmTime time(1104710399); // 2005-01-02 23:59:59 UTC, a Sunday

    EXPECT_EQ(time.getAbsTime(), 1104710399.0);
    EXPECT_EQ(time.getYear(), 2005);
    EXPECT_EQ(time.getMonth(), 1);
    EXPECT_EQ(time.getDayOfMonth(), 3);
    EXPECT_EQ(time.getDayOfWeek(), 1);
    EXPECT_EQ(time.getHour(), 0);
    EXPECT_EQ(time.getMinute(), 59);
    EXPECT_EQ(time.getSecond(), 59);
}

TEST_F(Time, StoresWholeSecondsAndIgnoresInvalidTimes)
{
    tmTime time(5);
    EXPECT_EQ(time.setAbsTime(12.9), 12.0);
    EXPECT_EQ(time.setAbsTime(-12.9), -12.0);
    for (double none :
         {static_cast<double>(NAN), static_cast<double>(INFINITY), xnullreal, xuninitreal, -1e300})
        EXPECT_EQ(time.setAbsTime(none), -12.0);
}

TEST_F(Time, FieldsAreNullBeyondCalendar)
{
    const auto fieldsOf = [](double seconds) {
        tmTime time(0);
        time.setAbsTime(seconds);
        return std::vector<int>{time.getYear(), time.getMonth(),  time.getDayOfMonth(), time.getDayOfWeek(),
                                time.getHour(), time.getMinute(), time.getSecond()};
    };
    const std::vector<int> none(7, xnullint);
    constexpr double endOfLastYear = 67767976233529200; // of the year INT_MAX, in UTC
    EXPECT_EQ(fieldsOf(endOfLastYear - 7200)[0], INT_MAX);
    for (const double beyond : {endOfLastYear + 7200, 1e17, -1e17, 9.2e18, -9.2e18})
        EXPECT_EQ(fieldsOf(beyond), none) << beyond;
    EXPECT_EQ(tmTime(LONG_MAX).getMonth(), xnullint);
    EXPECT_EQ(tmTime(LONG_MIN).getMonth(), xnullint);
    EXPECT_EXIT(text(100000000000000000), ExitedWithCode(1), "time object: \"1e\\+17\" given the format");
}

TEST_F(Time, MakesLocalTimesAndCarriesFieldsOver)
{
    EXPECT_EQ(local(2005, 13, 1), "2006-01-01 00:00:00");
    EXPECT_EQ(local(2005, 1, 0, -1), "2004-12-30 23:00:00");
    EXPECT_EQ(local(69, 7, 1), "2069-07-01 00:00:00");
    EXPECT_EQ(local(70, 1, 2), "1970-01-02 00:00:00");
    EXPECT_EQ(local(99, 1, 1), "1999-01-01 00:00:00");
    EXPECT_EQ(local(1969, 12, 31, 23, 59, 59), "1969-12-31 23:59:59");
    EXPECT_EQ(local(1970, 1, 1, 0, 59, 59), "1970-01-01 00:59:59"); // -1 seconds: no failure

    // One hour apart when the caller insists on one or the other, in a summer month.
    EXPECT_EQ(local(2005, 7, 1, 12, 0, 0, 0), "2005-07-01 13:00:00");
    EXPECT_EQ(local(2005, 7, 1, 12, 0, 0, 1), "2005-07-01 12:00:00");
}

TEST_F(Time, ParsesEveryAcceptedForm)
{
    EXPECT_EQ(read("12/31/2004 23:59:30"), "2004-12-31 23:59:30");
    EXPECT_EQ(read("12-31-04"), "2004-12-31 00:00:00");
    EXPECT_EQ(read("1/2/03 10:20"), "2003-01-02 10:20:00");
    EXPECT_EQ(read(" \t1 -2/\n69\r 1 : 2:\v3 \f"), "2069-01-02 01:02:03");
    EXPECT_EQ(read("2/31/2004"), "2004-03-02 00:00:00");
    EXPECT_EQ(read("0001/002/100"), "100-01-02 00:00:00");
    EXPECT_EQ(read("1/2/0"), "2000-01-02 00:00:00");
    const std::time_t now = std::time(nullptr);
    const std::string year = text(now, "%Y");
    EXPECT_EQ(read("1/2"), year + "-01-02 00:00:00");
    EXPECT_EQ(read("1/2 10:20"), year + "-01-02 10:20:00");
}

TEST_F(Time, ParsesAsMktimeAroundClockChanges)
{
    // Every half hour of a year in local time: one hour of these does not exist, and one exists twice.
    for (int halfHour = 0; halfHour < 365 * 48; ++halfHour) {
        std::tm fields = {};
        fields.tm_year = 105;
        fields.tm_mday = halfHour / 48 + 1;
        timegm(&fields);
        fields.tm_hour = halfHour % 48 / 2;
        fields.tm_min = halfHour % 2 * 30;
        char written[100];
        std::strftime(written, sizeof written, "%m/%d/%Y %H:%M", &fields);
        fields.tm_isdst = -1;

        long time = 0;
        ASSERT_TRUE(tmString2Time(written, &time)) << written;
        ASSERT_EQ(time, std::mktime(&fields)) << written;
    }
}

TEST_F(Time, FollowsChangeOfTimeZone)
{
    sysPutEnv("TZ", "UTC0");
    long time = 0;
    EXPECT_TRUE(tmString2Time("1/1/2005 12:00", &time));
    EXPECT_EQ(time, 1104580800);
    EXPECT_EQ(tmTime(time).getHour(), 12);

    sysPutEnv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_TRUE(tmString2Time("1/1/2005 12:00", &time));
    EXPECT_EQ(time, 1104580800 - 3600);
    EXPECT_EQ(tmTime(time).getHour(), 12);
}

TEST_F(Time, RefusesEverythingElse)
{
    for (const std::string& none :
         textsOf("| |0/5/2004|5/0/2004|10:30|1/2/2004 10|1/2/2004x|1/2/2004 10:|1/|1/2/|1|1 2|/1/2|"
                 "1/2/3/4|1/2/2004 10:20:30:40|1/2/2004 10:20 5|-1/2/2004|1/2/2004 -1:00|"
                 "1/2/2004 10:20:30 pm|a|1/2/99999999999999999999|1/2/9223372036854775807|"
                 "2147483649/1/2004|1/2/2147483648|\xFF"))
        EXPECT_EQ(read(none.c_str()), "refused") << none;
    long time;
    EXPECT_FALSE(tmString2Time(nullptr, &time));
    EXPECT_FALSE(tmString2Time(xnullstr, &time));
}

TEST_F(Time, FormatsByFormatOrDefault)
{
    EXPECT_EQ(text(1104744000, nullptr), "Mon Jan 03 10:20:00 05");
    EXPECT_EQ(text(1104744000, xnullstr), "Mon Jan 03 10:20:00 05");
    EXPECT_EQ(text(0, std::string(999, 'x').c_str()), std::string(999, 'x'));
    EXPECT_TRUE(tmTime::getTimeFormat() == "%a %b %d %H:%M:%S %y");

    EXPECT_TRUE(tmTime::setTimeFormat("%Y") == "%Y");
    EXPECT_EQ(text(0, nullptr), "1970");
    EXPECT_TRUE(tmTime::setTimeFormat(xnullstr) == nullptr);
    EXPECT_TRUE(tmTime::getTimeFormat() == nullptr);
    tmTime::setTimeFormat("%a %b %d %H:%M:%S %y");

    EXPECT_EQ(thrownBy([] { tmTime::TimeToString(nullptr, "%Y"); }), "qellib::XNotInitialized");
}

TEST_F(Time, FailuresAreReportedAndEndProcess)
{
    EXPECT_EXIT(tmTime::TimeFromString("10:30", "%H"), ExitedWithCode(1),
                "^Exception: \"Invalid time string\"\n"
                "\tin function \"tmTime::TimeFromString\"\n"
                "\t\\( Invalid time string: \"10:30\" given the format \"%H\" \\)\n$");
    EXPECT_EXIT(tmTime::TimeFromString(nullptr, nullptr), ExitedWithCode(1),
                "string: \"nil\" given the format \"nil\" \\)\n$");
    EXPECT_EXIT(
        tmTime::LocalTime(INT_MAX, INT_MAX, 1, 2, 3, -4, 0), ExitedWithCode(1),
        "^Exception: \"Cannot make valid time object\"\n"
        "\tin function \"tmTime::LocalTime\"\n"
        "\t\\( Year: \"2147483647\" \\)\n\t\\( Month: \"2147483647\" \\)\n\t\\( DayOfMonth: \"1\" \\)\n"
        "\t\\( Hour: \"2\" \\)\n\t\\( Minute: \"3\" \\)\n\t\\( Second: \"-4\" \\)\n$");
    EXPECT_EXIT(
        text(1104744000, ""), ExitedWithCode(1),
        "^Exception: \"Cannot make valid time string object from giventime object\"\n"
        "\tin function \"tmTime::TimeToString\"\n"
        "\t\\( Can't make string from time object: \"1.10474e\\+09\" given the format string: \"\" \\)\n$");
    EXPECT_EXIT(text(0, std::string(1000, 'x').c_str()), ExitedWithCode(1), "given the format string: \"xxx");
    EXPECT_EXIT((tmTime::setTimeFormat(""), text(0, nullptr)), ExitedWithCode(1),
                "the format string: \"\" \\)\n$");
}

TEST_F(Time, ReturnsCurrentTime)
{
    const double before = tmTime::RealTime();
    tmTime* const now = tmTime::CurrentTime();
    const double after = tmTime::RealTime();

    EXPECT_GE(now->getAbsTime(), std::floor(before) - 1); // the coarse clock of seconds may lag a tick
    EXPECT_LE(now->getAbsTime(), after);
    EXPECT_LT(after - before, 10);
    xdelete(now);
}

TEST_F(Time, FailuresHoldTheTime)
{
    tmTime time(1104744000);
    tmXCantMakeTimeString failure("text", new (pDefMemMgr) qelXFunc("f"), "%Y", &time);
    EXPECT_EQ(failure.getTime()->getAbsTime(), 1104744000.0);
    EXPECT_TRUE(failure.isKindOf(qelXExternFunc::getClassRtti()));
    std::ostringstream printed;
    tmXCantMakeTimeString("text", nullptr, nullptr, nullptr).Print(printed);
    EXPECT_NE(printed.str().find("object: \"\" given the format string: \"nil\""), std::string::npos);
}

TEST_F(Time, MayBeUsedByManyThreads)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) {
                const long noon = 86400L * i + 43200; // no hour that a clock change repeats
                long read = 0;
                EXPECT_TRUE(tmString2Time(text(noon, "%m/%d/%Y %H:%M:%S").c_str(), &read));
                EXPECT_EQ(read, noon);
                if (t == 0)
                    tmTime::setTimeFormat(i % 2 == 0 ? "%Y" : "%Y but longer than a short text");
                else
                    EXPECT_NE(text(0, nullptr), "");
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    tmTime::setTimeFormat("%a %b %d %H:%M:%S %y");
}

TEST_F(Time, IsAValueThatComparesAndTakesDurations)
{
    using namespace std::chrono;
    using namespace std::chrono_literals;
    const tmTime start(sys_days(2004y / 12 / 31) + 23h + 59min + 59s + 900ms);

    EXPECT_EQ(start.seconds(), 1104537599.0);
    EXPECT_TRUE(start + 1s == tmTime(1104537600) && start - 1h < start && start + 1500ms > start);
    EXPECT_EQ((start + 2min) - start, 120.0);
    EXPECT_EQ(static_cast<system_clock::time_point>(start), sys_days(2004y / 12 / 31) + 23h + 59min + 59s);
    EXPECT_EQ(tmTime(system_clock::time_point(-500ms)).seconds(), -1.0);
    EXPECT_EQ(static_cast<system_clock::time_point>(tmTime(LONG_MAX)), system_clock::time_point::max());
    EXPECT_EQ(static_cast<system_clock::time_point>(tmTime(LONG_MIN)), system_clock::time_point::min());
}

TEST_F(Time, IsBrokenDownInUtc)
{
    using namespace std::chrono;
    constexpr auto whole = [](double d) { return static_cast<long long>(std::floor(d)); };
    for (const double at : {0.0, -1.0, 951782400.0, 1104537599.0, 4107542400.0, -2203977600.0, -62135596801.0,
                            253402300800.0, 900000000000.0, -900000000000.0}) {
        const auto day = floor<days>(sys_seconds(seconds(whole(at))));
        const year_month_day date(day);
        const std::optional<tmCalendar> utc = tmTime(static_cast<long>(at)).utc();

        ASSERT_TRUE(utc) << at;
        // The standard's years end at 32767: compare within their cycle.
        EXPECT_EQ((utc->year - static_cast<int>(date.year())) % 400, 0) << at;
        EXPECT_EQ(utc->month, static_cast<int>(unsigned{date.month()})) << at;
        EXPECT_EQ(utc->dayOfMonth, static_cast<int>(unsigned{date.day()})) << at;
        EXPECT_EQ(utc->dayOfWeek, static_cast<int>(weekday(day).c_encoding())) << at;
        EXPECT_EQ(utc->hour * 3600 + utc->minute * 60 + utc->second,
                  whole(at) - day.time_since_epoch().count() * 86400);
    }
    EXPECT_FALSE(tmTime(LONG_MAX).utc());
    EXPECT_FALSE(tmTime(LONG_MIN).utc());
}

TEST_F(Time, ReadsAndWritesIsoTextsStrictly)
{
    const auto read = [](const char* text) {
        const std::optional<tmTime> time = tmTime::fromIso(text);
        return time ? time->seconds() : xnullreal;
    };
    EXPECT_EQ(read("2004-12-31T23:59:59Z"), 1104537599.0);
    EXPECT_EQ(read("2005-01-01T00:59:59+01:00"), 1104537599.0);
    EXPECT_EQ(read("2004-12-31T18:29:59-05:30"), 1104537599.0);
    EXPECT_EQ(read("2004-12-31"), 1104451200.0);
    EXPECT_EQ(read("2000-02-29"), 951782400.0);
    EXPECT_EQ(read("0000-01-01"), -62167219200.0);
    for (const char* const bad :
         {"", "2004-12-31T23:59:59", "2004-12-31T23:59Z", "2004-12-31 23:59:59Z", "04-12-31", "2004-13-01",
          "2004-02-30", "1900-02-29", "2004-12-31T24:00:00Z", "2004-12-31T23:59:60Z", "2004-12-31Z",
          "2004-12-31T23:59:59z", "2004-12-31T23:59:59+0100", " 2004-12-31", "2004-12-31 ", "2004-1-1"})
        EXPECT_EQ(read(bad), xnullreal) << bad;
    EXPECT_FALSE(tmTime::fromIso(nullptr));

    for (const double at : {0.0, -1.0, 951782400.0, 1104537599.0, -62167219200.0, 253402300799.0})
        EXPECT_EQ(tmTime::fromIso(tmTime(static_cast<long>(at)).toIso())->seconds(), at);
    EXPECT_TRUE(tmTime(1104537599).toIso() == "2004-12-31T23:59:59Z");
    EXPECT_TRUE(tmTime(253402300800).toIso().isNull() && tmTime(-62167219201).toIso().isNull());
}
