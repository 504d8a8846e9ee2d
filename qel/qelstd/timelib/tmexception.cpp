#include "tmexception.h"

#include <ostream>

#include "qeltable.h"
#include "tmtime.h"

constinit qelClass tmXException::rtti = {
    .name = "timelib::XException",
    .parents = {QEL_PARENT(qelXExternFunc)},
};

constinit qelClass tmXInvalTimeString::rtti = {
    .name = "timelib::XInvalTimeString",
    .parents = {QEL_PARENT(tmXException)},
    .attrs = {QEL_ATTR(InvalString), QEL_ATTR(Format)},
};

constinit qelClass tmXCantMakeTime::rtti = {
    .name = "timelib::XCantMakeTime",
    .parents = {QEL_PARENT(tmXException)},
    .attrs = {QEL_ATTR(Year), QEL_ATTR(Month), QEL_ATTR(DayOfMonth), QEL_ATTR(Hour), QEL_ATTR(Minute),
              QEL_ATTR(Second)},
};

constinit qelClass tmXCantMakeTimeString::rtti = {
    .name = "timelib::XCantMakeTimeString",
    .parents = {QEL_PARENT(tmXException)},
    .attrs = {QEL_ATTR(Time), QEL_ATTR(Format)},
};

tmXException::tmXException(const char* description, qelXFunc* func) : qelXExternFunc(description, func)
{
}

void tmXException::Print(std::ostream& os)
{
    PrintHead(os);
}

tmXInvalTimeString::tmXInvalTimeString(const char* description, qelXFunc* func, const char* invalString,
                                       const char* format)
    : qelXExternFunc(description, func), tmXException(description, func), InvalString(invalString),
      Format(format)
{
}

void tmXInvalTimeString::Print(std::ostream& os)
{
    PrintHead(os);
    os << "\t( Invalid time string: \"" << InvalString << "\" given the format \"" << Format << "\" )"
       << std::endl;
}

xstring tmXInvalTimeString::getInvalString()
{
    return InvalString;
}

xstring tmXInvalTimeString::getFormat()
{
    return Format;
}

tmXCantMakeTime::tmXCantMakeTime(const char* description, qelXFunc* func, int year, int month, int dayOfMonth,
                                 int hour, int minute, int second)
    : qelXExternFunc(description, func), tmXException(description, func), Year(year), Month(month),
      DayOfMonth(dayOfMonth), Hour(hour), Minute(minute), Second(second)
{
}

void tmXCantMakeTime::Print(std::ostream& os)
{
    PrintHead(os);
    const struct
    {
        const char* label;
        int value;
    } lines[] = {{"Year", Year}, {"Month", Month},   {"DayOfMonth", DayOfMonth},
                 {"Hour", Hour}, {"Minute", Minute}, {"Second", Second}};
    for (const auto& [label, value] : lines)
        os << "\t( " << label << ": \"" << value << "\" )" << std::endl;
}

int tmXCantMakeTime::getYear()
{
    return Year;
}

int tmXCantMakeTime::getMonth()
{
    return Month;
}

int tmXCantMakeTime::getDayOfMonth()
{
    return DayOfMonth;
}

int tmXCantMakeTime::getHour()
{
    return Hour;
}

int tmXCantMakeTime::getMinute()
{
    return Minute;
}

int tmXCantMakeTime::getSecond()
{
    return Second;
}

tmXCantMakeTimeString::tmXCantMakeTimeString(const char* description, qelXFunc* func, const char* format,
                                             tmTime* time)
    : qelXExternFunc(description, func), tmXException(description, func), Format(format),
      Time(qelIsObject(time) ? new (pDefMemMgr) tmTime(static_cast<long>(time->getAbsTime())) : nullptr)
{
}

tmXCantMakeTimeString::~tmXCantMakeTimeString()
{
    xdelete(Time);
}

void tmXCantMakeTimeString::Print(std::ostream& os)
{
    PrintHead(os);
    os << "\t( Can't make string from time object: \"";
    if (Time != nullptr)
        os << Time->getAbsTime();
    os << "\" given the format string: \"" << Format << "\" )" << std::endl;
}

tmTime* tmXCantMakeTimeString::getTime()
{
    return Time;
}

xstring tmXCantMakeTimeString::getFormat()
{
    return Format;
}
