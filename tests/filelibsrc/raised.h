#pragma once

#include <ostream>
#include <string>
#include <utility>

#include <qel/fsexception.h>

#include "support/thrown.h"

/// The failure of a file operation: its number, function and path.
struct Raised
{
    int code = 0;
    std::string function;
    std::string path;

    Raised() = default;
    Raised(int number, std::string name, std::string about)
        : code(number), function(std::move(name)), path(std::move(about))
    {
    }
    bool operator==(const Raised&) const = default;
    friend std::ostream& operator<<(std::ostream& os, const Raised& r)
    {
        return os << r.code << " in " << r.function << " about " << r.path;
    }
};

/// The failure that `action` raises; number 0 when it raises none.
template<typename Action>
Raised raisedBy(Action action)
{
    const char* const names[] = {"",
                                 "filelib::XIOError",
                                 "filelib::XQuotaExhausted",
                                 "filelib::XDiskFull",
                                 "filelib::XInvalidName",
                                 "filelib::XInvalidPath",
                                 "filelib::XDoesNotExist",
                                 "filelib::XFileExists",
                                 "filelib::XLinksNotSupported",
                                 "filelib::XNoPermission",
                                 "filelib::XSignal",
                                 "filelib::XOther"};
    return describeThrown<fsXException>(action, [&](fsXException* raised) -> Raised {
        int code = 0;
        while (code < 12 && !(raised->getQelTypeName() == names[code]))
            ++code;
        const xstring path = raised->getPath();
        return {code, raised->getFunc()->getName().CastToCString(),
                path == nullptr ? "(null)" : path.CastToCString()};
    });
}
