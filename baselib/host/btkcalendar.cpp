#include "btkcalendar.h"

bool btkLocalTime(std::time_t time, std::tm& fields, int* offset)
{
    if (localtime_r(&time, &fields) == nullptr)
        return false;
    if (offset != nullptr)
        *offset = static_cast<int>(fields.tm_gmtoff);
    return true;
}

bool btkTimeOfUtc(std::tm fields, std::time_t& time)
{
    // -1 is a valid time; the day of the week shows a failure.
    fields.tm_wday = -1;
    time = timegm(&fields);
    return fields.tm_wday >= 0;
}
