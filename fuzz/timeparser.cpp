// The parsing of times: only the documented characters are accepted, a refused text changes nothing, and a
// parsed time is written and parsed again as the same.
#include <string>

#include <qel/tmtime.h>

#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool zoned = setenv("TZ", "UTC0", 1) == 0; // no hour occurs twice
    require(zoned);
    const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
    constexpr long untouched = 0x5A5A5A5A;
    long read = untouched;
    if (!tmString2Time(text.c_str(), &read)) {
        require(read == untouched);
        return 0;
    }
    require(text.find_first_not_of("0123456789/-: \t\n\v\f\r") == std::string::npos);
    tmTime time(read);
    if (static_cast<long>(time.getAbsTime()) != read || time.getYear() < 100)
        return 0; // not exact in a double; years below 100 mean others
    long again = untouched;
    const xstring written = tmTime::TimeToString(&time, "%m/%d/%Y %H:%M:%S");
    require(tmString2Time(written.CastToCString(), &again) && again == read);
    return 0;
}
