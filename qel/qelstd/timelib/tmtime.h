#pragma once

#include <compare>

#include <qel/qelduration.h>
#include <qel/xobject.h>
#include <qel/xstring.h>

/// Whether P is a std::chrono::time_point of the system's clock.
template<class P>
concept tmSystemTime = requires(const P& p)
{
    P::clock::to_time_t(p);
    typename P::duration;
    p.time_since_epoch();
};

/// A point in time by the calendar, in UTC.
struct tmCalendar
{
    /// The whole number, such as 2026.
    int year;
    int month;      ///< 1 to 12
    int dayOfMonth; ///< 1 to 31
    int dayOfWeek;  ///< 0 (Sunday) to 6
    /// 0 to 23
    int hour;
    /// 0 to 59
    int minute;
    /// 0 to 59
    int second;
};

/// A point in time: whole seconds since 1970-01-01 00:00:00 UTC. The accessors return fields of the local
/// time. Not counted: the receiver frees it with xdelete. One object is used by one thread at a time;
/// different objects, and the static operations, by any.
///
///     const auto now = qel::own(tmTime::CurrentTime());
///     std::cout << now->toIso() << ", " << now->getHour() << " hours here\n";
///     if (const auto day = tmTime::fromIso("2026-01-31")) // <qel/qelcpp.h>
///         std::cout << *day + std::chrono::hours(24) - *now << " seconds\n";
class QEL_API tmTime : public virtual xobject
{
    QEL_OBJECT(tmTime); // "timelib::Time"
    QEL_NOT_COUNTED;

public:
    explicit tmTime(long t) : AbsTime(static_cast<double>(t)) {}
    /// The last whole second not after the time point.
    template<tmSystemTime P>
    explicit tmTime(const P& point) : tmTime(floorOf(qelSeconds(point.time_since_epoch())))
    {
    }

    // ---- a new object, which the caller owns

    /// The present time.
    static tmTime* CurrentTime();
    /// The local time of a calendar date. A year below 70 counts from 2000, one from 70 to 99 from 1900.
    /// Fields beyond their range are carried over (month 13 is the next January). `dst`: whether daylight
    /// saving time is in force; xnullbool: the time zone decides. A time that cannot be made is reported on
    /// the standard error stream (tmXCantMakeTime) and ends the process with exit status 1.
    static tmTime* LocalTime(int year, int month, int day, int hour, int minute, int second,
                             unsigned char dst);
    /// The time that tmString2Time reads; `format` is ignored. An invalid text is reported
    /// (tmXInvalTimeString) and ends the process with exit status 1.
    static tmTime* TimeFromString(const char* text, const char* format);

    // ---- texts

    /// The local time formatted by strftime with `format`, or with the default format when that is null. A
    /// result that is empty or longer than 999 bytes, and a time whose year fits no int, is reported
    /// (tmXCantMakeTimeString) and ends the process with exit status 1.
    /// @throws qelXNotInitialized  `time` is null or uninit
    static xstring TimeToString(tmTime* time, const char* format = nullptr);
    /// The default format of the process, "%a %b %d %H:%M:%S %y" at first; null when it is empty.
    static xstring getTimeFormat();
    /// Sets the default format, to the empty text when `format` is null. Returns `format`.
    static xstring setTimeFormat(const char* format);

    /// `2004-12-31T23:59:59Z`. The null string when the year is not in 0 to 9999.
    xstring toIso() const;
    /// The time that a strict ISO 8601 text gives: `2004-12-31T23:59:59Z`, or with an offset such as `+01:00`
    /// for the Z; a date alone is its midnight in UTC. Nothing for any other text, and for a date that does not
    /// exist.
    /// A std::optional<tmTime>; defined in <qel/qelcpp.h>.
    template<qelText T>
    static auto fromIso(const T& text);

    /// The current time in seconds, with microseconds.
    static double RealTime();

    // ---- as a value

    /// Seconds since 1970.
    double seconds() const { return AbsTime; }
    /// The fields in UTC; nothing when the year fits no int. A std::optional<tmCalendar>; defined in
    /// <qel/qelcpp.h>.
    auto utc() const;
    /// The nearest time point that P holds.
    template<tmSystemTime P>
    explicit operator P() const
    {
        using D = typename P::duration;
        using Count = decltype(D().count());
        const double ticks =
            AbsTime * static_cast<double>(D::period::den) / static_cast<double>(D::period::num);
        if (ticks >= static_cast<double>(D::max().count()))
            return P(D::max());
        if (ticks <= static_cast<double>(D::min().count()))
            return P(D::min());
        return P(D(static_cast<Count>(AbsTime) * D::period::den / D::period::num));
    }

    friend bool operator==(const tmTime& a, const tmTime& b) { return a.AbsTime == b.AbsTime; }
    friend std::partial_ordering operator<=>(const tmTime& a, const tmTime& b)
    {
        return a.AbsTime <=> b.AbsTime;
    }
    /// Whole seconds; a result that fits no time leaves the time unchanged.
    template<qelDuration D>
    tmTime& operator+=(const D& d)
    {
        setAbsTime(AbsTime + qelSeconds(d));
        return *this;
    }
    template<qelDuration D>
    tmTime& operator-=(const D& d)
    {
        setAbsTime(AbsTime - qelSeconds(d));
        return *this;
    }
    template<qelDuration D>
    friend tmTime operator+(tmTime t, const D& d)
    {
        return t += d;
    }
    template<qelDuration D>
    friend tmTime operator-(tmTime t, const D& d)
    {
        return t -= d;
    }
    /// Seconds from `b` to `a`.
    friend double operator-(const tmTime& a, const tmTime& b) { return a.AbsTime - b.AbsTime; }

    // ---- attributes

    virtual double getAbsTime();
    /// Stores the whole seconds of `t` and returns the stored time. A value that fits no time, such as null,
    /// changes nothing.
    virtual double setAbsTime(double t);
    // The local time; null for a time whose year fits no int.
    virtual int getYear();
    virtual int getMonth();      // 1 to 12
    virtual int getDayOfMonth(); // 1 to 31
    virtual int getDayOfWeek();  // 0 (Sunday) to 6
    virtual int getHour();       // 0 to 23
    virtual int getMinute();     // 0 to 59
    virtual int getSecond();     // 0 to 61

private:
    static long floorOf(double seconds);
    /// Behind fromIso and utc; false where these return nothing.
    static bool readIso(const char* text, long* seconds);
    bool utcFields(tmCalendar* fields) const;

    double AbsTime;
};

/// Not for ISO 8601: `2004-12-31` is month 2004 of the year 31, which is December 2197; tmTime::fromIso reads
/// it.
///
/// Parses a local time: month/day, month/day/year or the same with "-", then optionally hour:minute or
/// hour:minute:second. Years as in LocalTime; without one, the current year; without a time, midnight. White
/// space may precede each part. False for anything else, with `result` unchanged. Safe to call from any
/// thread.
QEL_API bool tmString2Time(const char* text, long* result);
