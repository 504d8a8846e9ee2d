#pragma once

#include <iosfwd>

#include <qel/qelexception.h>

class tmTime;

/// The base of the time library's failures. They are not thrown: the library prints them and ends the
/// process. Not counted.
///
///     tmXCantMakeTimeString failure("no room", nullptr, "%Y", nullptr);
///     failure.Print(std::cerr);
class QEL_API tmXException : public virtual qelXExternFunc
{
    QEL_OBJECT(tmXException); // "timelib::XException"
    QEL_NOT_COUNTED;

public:
    tmXException(const char* description, qelXFunc* func);
    /// Writes the description, the function and the values, a line each.
    virtual void Print(std::ostream& os);
};

/// "Invalid time string"
class QEL_API tmXInvalTimeString : public virtual tmXException
{
    QEL_OBJECT(tmXInvalTimeString); // "timelib::XInvalTimeString"
    QEL_FIELD(xstring, InvalString);
    QEL_FIELD(xstring, Format);

public:
    tmXInvalTimeString(const char* description, qelXFunc* func, const char* invalString, const char* format);
    void Print(std::ostream& os) override;
};

/// "Cannot make valid time object"
class QEL_API tmXCantMakeTime : public virtual tmXException
{
    QEL_OBJECT(tmXCantMakeTime); // "timelib::XCantMakeTime"
    QEL_FIELD(int, Year);
    QEL_FIELD(int, Month);
    QEL_FIELD(int, DayOfMonth);
    QEL_FIELD(int, Hour);
    QEL_FIELD(int, Minute);
    QEL_FIELD(int, Second);

public:
    tmXCantMakeTime(const char* description, qelXFunc* func, int year, int month, int dayOfMonth, int hour,
                    int minute, int second);
    void Print(std::ostream& os) override;
};

/// "Cannot make valid time string object from giventime object"
class QEL_API tmXCantMakeTimeString : public virtual tmXException
{
    QEL_OBJECT(tmXCantMakeTimeString); // "timelib::XCantMakeTimeString"
    QEL_FIELD(xstring, Format);
    /// Valid during the exception's lifetime.
    QEL_FIELD(tmTime*, Time);

public:
    /// Keeps a copy of `time`, which may be null.
    tmXCantMakeTimeString(const char* description, qelXFunc* func, const char* format, tmTime* time);
    ~tmXCantMakeTimeString() override;
    void Print(std::ostream& os) override;
};
