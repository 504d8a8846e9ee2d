#include "tmexception.h"

#include <ostream>

#include "qelexceptionrow_p.h"
#include "tmtime.h"

QEL_EXCEPTION(tmXException, qelXExternFunc, "timelib::XException", qelNotCounted);
QEL_EXCEPTION(tmXInvalTimeString, tmXException, "timelib::XInvalTimeString", qelNotCounted,
              QEL_ATTR(InvalString), QEL_ATTR(Format));
QEL_EXCEPTION(tmXCantMakeTime, tmXException, "timelib::XCantMakeTime", qelNotCounted, QEL_ATTR(Year),
              QEL_ATTR(Month), QEL_ATTR(DayOfMonth), QEL_ATTR(Hour), QEL_ATTR(Minute), QEL_ATTR(Second));
QEL_EXCEPTION(tmXCantMakeTimeString, tmXException, "timelib::XCantMakeTimeString", qelNotCounted,
              QEL_ATTR(Time), QEL_ATTR(Format));

tmXException::tmXException(const char* description, qelXFunc* func)
{
    describe(description, func);
}

void tmXException::Print(std::ostream& os)
{
    PrintHead(os);
}

tmXInvalTimeString::tmXInvalTimeString(const char* description, qelXFunc* func, const char* invalString,
                                       const char* format)
    : tmXException(description, func), InvalString(invalString), Format(format)
{
}

void tmXInvalTimeString::Print(std::ostream& os)
{
    PrintHead(os);
    os << "\t( Invalid time string: \"" << InvalString << "\" given the format \"" << Format << "\" )"
       << std::endl;
}

tmXCantMakeTime::tmXCantMakeTime(const char* description, qelXFunc* func, int year, int month, int dayOfMonth,
                                 int hour, int minute, int second)
    : tmXException(description, func), Year(year), Month(month), DayOfMonth(dayOfMonth), Hour(hour),
      Minute(minute), Second(second)
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

tmXCantMakeTimeString::tmXCantMakeTimeString(const char* description, qelXFunc* func, const char* format,
                                             tmTime* time)
    : tmXException(description, func), Format(format),
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
