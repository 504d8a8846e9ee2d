#pragma once

#include <string>

#include <qel/iobasestream.h>
#include <qel/netexception.h>

/// What `work` throws: the code and the text of a failure of the network library, the text of a stream's; ""
/// when it throws nothing.
template<typename Work>
std::string failureOf(Work work)
{
    try {
        work();
    } catch (xthrowable* thrown) {
        netXException* const failure = netXException::softcast(thrown);
        ioXStream* const streamFailure = ioXStream::softcast(thrown);
        std::string text = failure != nullptr
                               ? std::to_string(failure->getError()) + " " + failure->getMsg().CastToCString()
                           : streamFailure != nullptr ? streamFailure->getMsg().CastToCString()
                                                      : "another exception";
        xdelete(thrown);
        return text;
    }
    return "";
}
