#pragma once

#include <string>

#include <qel/netexception.h>

#include "iolibsrc/iosupport.h"

/// The failure that `work` throws: code and text of one of the network library, text of a stream's; "" when
/// it throws nothing.
template<typename Work>
std::string failureOf(Work work)
{
    return describeThrown(work, [](xthrowable* thrown) -> std::string {
        if (netXException* const failure = netXException::softcast(thrown))
            return std::to_string(failure->getError()) + " " + failure->getMsg().CastToCString();
        return StreamFailureText(thrown);
    });
}
