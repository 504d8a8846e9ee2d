#pragma once

#include <qel/xobject.h>
#include <qel/xstring.h>

/// A point in time: whole seconds since 1970-01-01 00:00:00 UTC. The accessors return fields of the local
/// time. Not counted: the receiver frees it with xdelete. One object is used by one thread at a time;
/// different objects, and the static operations, by any.
class QEL_API tmTime : public virtual xobject
{
    QEL_OBJECT(tmTime); // "timelib::Time"
    QEL_NOT_COUNTED;

public:
    explicit tmTime(long t) : AbsTime(static_cast<double>(t)) {}

    // ---- a new object, which the caller owns

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

    /// The current time in seconds, with microseconds.
    static double RealTime();

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
    double AbsTime;
};

/// Parses a local time: month/day, month/day/year or the same with "-", then optionally hour:minute or
/// hour:minute:second. Years as in LocalTime; without one, the current year; without a time, midnight. White
/// space may precede each part. False for anything else, with `result` unchanged. Safe to call from any
/// thread.
QEL_API bool tmString2Time(const char* text, long* result);
