#include "tmtime.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <mutex>
#include <string>

#include <qel/base/btkcalendar.h>
#include <qel/base/btktimeval.h>

#include "qeltable.h"
#include "tmexception.h"

constinit qelClass tmTime::rtti = {
    .name = "timelib::Time",
    .attrs = {QEL_ATTR(AbsTime), QEL_ATTR(Year), QEL_ATTR(Month), QEL_ATTR(DayOfMonth), QEL_ATTR(DayOfWeek),
              QEL_ATTR(Hour), QEL_ATTR(Minute), QEL_ATTR(Second)},
};

namespace {

/// The texts of the failures, by number.
constexpr const char* invalidText = "Invalid time string";                                   // 0
constexpr const char* noTime = "Cannot make valid time object";                              // 1
constexpr const char* noText = "Cannot make valid time string object from giventime object"; // 2

constexpr int firstYear = 1900; // of std::tm

/// Prints the failure and ends the process.
template<class X, class... Values>
[[noreturn]] void reportAndExit(const char* description, const char* function, Values... values)
{
    // Not freed: the process exits here, and exit handlers may read the attributes.
    auto* const failure = new (pDefMemMgr)
        X(description, xrchandle<qelXFunc>(new (pDefMemMgr) qelXFunc(function)).get(), values...);
    failure->Print(std::cerr);
    std::exit(1);
}

struct DefaultFormat
{
    std::mutex guard;
    std::string text = "%a %b %d %H:%M:%S %y";
};

DefaultFormat& defaultFormat()
{
    static DefaultFormat* const format =
        new DefaultFormat; // never freed: may be read while the process exits
    return *format;
}

std::string currentFormat()
{
    DefaultFormat& format = defaultFormat();
    const std::lock_guard lock(format.guard);
    return format.text;
}

/// Breaks a time down to local time; false when its year does not fit an int.
bool breakDown(double seconds, std::tm& fields)
{
    constexpr double furthest = 9.2e18; // what a time_t holds
    const auto whole = static_cast<std::time_t>(std::clamp(seconds, -furthest, furthest));
    return btkLocalTime(whole, fields) && fields.tm_year <= INT_MAX - firstYear;
}

/// One field of the local time, counted from `first`; null when the year does not fit an int.
int localField(double seconds, int std::tm::*field, int first = 0)
{
    std::tm fields;
    return breakDown(seconds, fields) ? fields.*field + first : xnullint;
}

/// A calendar time as given by the caller: the month from 1, the year possibly short.
struct Calendar
{
    long long year;
    long long month;
    long long day;
    long long hour = 0;
    long long minute = 0;
    long long second = 0;
    int dst = -1; // the time zone decides
};

bool fits(long long value, int* field)
{
    *field = static_cast<int>(value);
    return value >= INT_MIN && value <= INT_MAX;
}

/// The offset of local time from UTC at a time; false when the operating system cannot tell.
bool offsetAt(std::time_t time, int* seconds)
{
    std::tm fields;
    return btkLocalTime(time, fields, seconds);
}

/// The result of mktime, where it is unambiguous: one offset is in force around the time, so that the time
/// exists exactly once. Avoids mktime, which reads the time zone's settings again at each call.
bool makeOrdinaryTime(const std::tm& fields, std::time_t* result)
{
    constexpr std::time_t around = 86400;
    std::time_t asUtc;
    int before, at, after;
    if (!btkTimeOfUtc(fields, asUtc) || !offsetAt(asUtc - around, &before) ||
        !offsetAt(asUtc + around, &after) || before != after || !offsetAt(asUtc - before, &at) ||
        at != before)
        return false;
    *result = asUtc - before;
    return true;
}

/// The seconds since 1970 of a local time. False when the operating system cannot tell.
bool makeTime(const Calendar& given, long* result)
{
    const long long year = given.year < 70    ? 2000 + given.year
                           : given.year < 100 ? 1900 + given.year
                                              : given.year;
    std::tm fields = {};
    int wholeYear;
    if (!fits(year, &wholeYear) || !fits(year - firstYear, &fields.tm_year) ||
        !fits(given.month - 1, &fields.tm_mon) || !fits(given.day, &fields.tm_mday) ||
        !fits(given.hour, &fields.tm_hour) || !fits(given.minute, &fields.tm_min) ||
        !fits(given.second, &fields.tm_sec))
        return false;
    std::time_t ordinary;
    if (given.dst < 0 && makeOrdinaryTime(fields, &ordinary)) {
        *result = ordinary;
        return true;
    }
    fields.tm_isdst = given.dst;
    fields.tm_wday = -1;
    const std::time_t made = std::mktime(&fields);
    if (fields.tm_wday < 0) // -1 is a valid time; only a failure leaves the day of the week unset
        return false;
    *result = made;
    return true;
}

/// Reads the tokens of a time, one after the other.
class Tokens
{
public:
    enum Kind { number, dateSeparator, timeSeparator, end, bad };

    explicit Tokens(const char* text) : rest(text) { next(); }

    Kind kind() const { return current; }

    void next()
    {
        while (*rest == ' ' || (*rest >= '\t' && *rest <= '\r'))
            ++rest;
        if (*rest >= '0' && *rest <= '9') {
            char* behind;
            errno = 0;
            read = std::strtol(rest, &behind, 10);
            rest = behind;
            current = errno == 0 ? number : bad;
            return;
        }
        current = *rest == '\0'                  ? end
                  : *rest == ':'                 ? timeSeparator
                  : *rest == '-' || *rest == '/' ? dateSeparator
                                                 : bad;
        if (current != end)
            ++rest;
    }

    /// Consumes a number; false when there is none.
    bool take(long long* out)
    {
        if (current != number)
            return false;
        *out = read;
        next();
        return true;
    }

    /// Consumes `wanted`; false when the next token is another.
    bool take(Kind wanted)
    {
        if (current != wanted)
            return false;
        next();
        return true;
    }

private:
    const char* rest;
    Kind current = end;
    long read = 0;
};

bool readDate(Tokens& tokens, Calendar* out)
{
    if (!tokens.take(&out->month) || !tokens.take(Tokens::dateSeparator) || !tokens.take(&out->day) ||
        out->month == 0 || out->day == 0)
        return false;
    if (tokens.take(Tokens::dateSeparator))
        return tokens.take(&out->year);
    out->year = localField(static_cast<double>(std::time(nullptr)), &std::tm::tm_year, firstYear);
    return true;
}

bool readTimeOfDay(Tokens& tokens, Calendar* out)
{
    if (!tokens.take(&out->hour) || !tokens.take(Tokens::timeSeparator) || !tokens.take(&out->minute))
        return false;
    return !tokens.take(Tokens::timeSeparator) || tokens.take(&out->second);
}

} // namespace

tmTime* tmTime::CurrentTime()
{
    return new (pDefMemMgr) tmTime(std::time(nullptr));
}

tmTime* tmTime::LocalTime(int year, int month, int day, int hour, int minute, int second, unsigned char dst)
{
    const int saving = dst == xnullbool || dst == xuninitbool ? -1 : dst != 0 ? 1 : 0;
    long made;
    if (!makeTime({year, month, day, hour, minute, second, saving}, &made))
        reportAndExit<tmXCantMakeTime>(noTime, "tmTime::LocalTime", year, month, day, hour, minute, second);
    return new (pDefMemMgr) tmTime(made);
}

tmTime* tmTime::TimeFromString(const char* text, const char* format)
{
    long read;
    if (!tmString2Time(text, &read))
        reportAndExit<tmXInvalTimeString>(invalidText, "tmTime::TimeFromString", text, format);
    return new (pDefMemMgr) tmTime(read);
}

xstring tmTime::TimeToString(tmTime* time, const char* format)
{
    if (!qelIsObject(time))
        qelXNotInitialized::Throw();
    std::string byDefault;
    if (!qelIsObject(format)) {
        byDefault = currentFormat();
        format = byDefault.c_str();
    }
    std::tm fields;
    char text[1000];
    if (!breakDown(time->AbsTime, fields) || std::strftime(text, sizeof text, format, &fields) == 0)
        reportAndExit<tmXCantMakeTimeString>(noText, "tmTime::TimeToString", format, time);
    return text;
}

xstring tmTime::getTimeFormat()
{
    const std::string format = currentFormat();
    return format.empty() ? xstring() : format.c_str();
}

xstring tmTime::setTimeFormat(const char* format)
{
    std::string text = qelIsObject(format) ? format : "";
    DefaultFormat& current = defaultFormat();
    const std::lock_guard lock(current.guard);
    current.text.swap(text);
    return format;
}

// ---- UTC and ISO 8601

namespace {

constexpr long long daySeconds = 86400;

bool isLeap(long long year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysIn(long long year, int month)
{
    constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : days[month - 1];
}

/// The number of leap years before `year`, which is at least 0.
long long leapsBefore(long long year)
{
    return year == 0 ? 0 : (year - 1) / 4 - (year - 1) / 100 + (year - 1) / 400 + 1;
}

/// Days from 1970-01-01 to a date of the years 0 to 9999.
long long daysTo(int year, int month, int day)
{
    long long days = (year - 1970) * 365LL + leapsBefore(year) - leapsBefore(1970) + day - 1;
    for (int m = 1; m < month; ++m)
        days += daysIn(year, m);
    return days;
}

/// Reads the fields of a text of fixed form.
class IsoText
{
public:
    explicit IsoText(const char* text) : rest(text) {}

    bool take(char wanted)
    {
        if (*rest != wanted)
            return false;
        ++rest;
        return true;
    }
    bool number(int digits, int lowest, int highest, int* out)
    {
        int value = 0;
        for (int i = 0; i < digits; ++i, ++rest) {
            if (*rest < '0' || *rest > '9')
                return false;
            value = value * 10 + (*rest - '0');
        }
        *out = value;
        return value >= lowest && value <= highest;
    }
    bool isAtEnd() const { return *rest == '\0'; }

private:
    const char* rest;
};

/// The zone of a text as seconds east of UTC.
bool readZone(IsoText& text, int* seconds)
{
    *seconds = 0;
    if (text.take('Z'))
        return true;
    const bool east = text.take('+');
    int hours, minutes;
    if (!(east || text.take('-')) || !text.number(2, 0, 23, &hours) || !text.take(':') ||
        !text.number(2, 0, 59, &minutes))
        return false;
    *seconds = (hours * 60 + minutes) * (east ? 60 : -60);
    return true;
}

} // namespace

long tmTime::floorOf(double seconds)
{
    return static_cast<long>(std::floor(seconds));
}

bool tmTime::utcFields(tmCalendar* fields) const
{
    // 400 years have a whole number of weeks.
    constexpr long long cycleDays = 146097;
    const auto whole = static_cast<long long>(std::clamp(AbsTime, -9.2e18, 9.2e18));
    long long days = whole / daySeconds - (whole % daySeconds < 0);
    const auto second = static_cast<int>(whole - days * daySeconds);
    days -= daysTo(2000, 1, 1); // from 2000-01-01, which was a Saturday
    const long long cycle = days / cycleDays - (days % cycleDays < 0);
    auto left = static_cast<int>(days - cycle * cycleDays);
    const int dayOfWeek = (left + 6) % 7;
    int year = 2000;
    for (int length; left >= (length = isLeap(year) ? 366 : 365); ++year)
        left -= length;
    const long long fullYear = year + cycle * 400;
    if (fullYear < INT_MIN || fullYear > INT_MAX)
        return false;
    int month = 1;
    for (; left >= daysIn(year, month); ++month)
        left -= daysIn(year, month);
    *fields = {static_cast<int>(fullYear), month,      left + 1, dayOfWeek, second / 3600,
               second / 60 % 60,           second % 60};
    return true;
}

xstring tmTime::toIso() const
{
    tmCalendar at;
    if (!utcFields(&at) || at.year < 0 || at.year > 9999)
        return nullptr;
    return xstring::Printf("%04d-%02d-%02dT%02d:%02d:%02dZ", at.year, at.month, at.dayOfMonth, at.hour,
                           at.minute, at.second);
}

bool tmTime::readIso(const char* text, long* seconds)
{
    if (!qelIsObject(text))
        return false;
    IsoText iso(text);
    int year, month, day, hour = 0, minute = 0, second = 0, zone = 0;
    if (!iso.number(4, 0, 9999, &year) || !iso.take('-') || !iso.number(2, 1, 12, &month) || !iso.take('-') ||
        !iso.number(2, 1, daysIn(year, month), &day))
        return false;
    if (!iso.isAtEnd() &&
        (!iso.take('T') || !iso.number(2, 0, 23, &hour) || !iso.take(':') || !iso.number(2, 0, 59, &minute) ||
         !iso.take(':') || !iso.number(2, 0, 59, &second) || !readZone(iso, &zone)))
        return false;
    if (!iso.isAtEnd())
        return false;
    *seconds =
        static_cast<long>(daysTo(year, month, day) * daySeconds + hour * 3600 + minute * 60 + second - zone);
    return true;
}

double tmTime::RealTime()
{
    return btkTimeval::GetTimeOfDay().ToSeconds();
}

double tmTime::getAbsTime()
{
    return AbsTime;
}

double tmTime::setAbsTime(double t)
{
    constexpr double beyond = 9223372036854775808.0; // 2^63
    if (t > -beyond && t < beyond)
        AbsTime = static_cast<double>(static_cast<long>(t));
    return AbsTime;
}

int tmTime::getYear()
{
    return localField(AbsTime, &std::tm::tm_year, firstYear);
}

int tmTime::getMonth()
{
    return localField(AbsTime, &std::tm::tm_mon, 1);
}

int tmTime::getDayOfMonth()
{
    return localField(AbsTime, &std::tm::tm_mday);
}

int tmTime::getDayOfWeek()
{
    return localField(AbsTime, &std::tm::tm_wday);
}

int tmTime::getHour()
{
    return localField(AbsTime, &std::tm::tm_hour);
}

int tmTime::getMinute()
{
    return localField(AbsTime, &std::tm::tm_min);
}

int tmTime::getSecond()
{
    return localField(AbsTime, &std::tm::tm_sec);
}

bool tmString2Time(const char* text, long* result)
{
    if (!qelIsObject(text))
        return false;
    Tokens tokens(text);
    Calendar given = {};
    given.dst = -1;
    if (!readDate(tokens, &given))
        return false;
    if (tokens.kind() != Tokens::end && !readTimeOfDay(tokens, &given))
        return false;
    return tokens.kind() == Tokens::end && makeTime(given, result);
}
