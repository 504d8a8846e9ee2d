#pragma once

#include <string>

#include <qel/qelexception.h>
#include <qel/xmonlib.h>

#include "iolibsrc/iosupport.h"

/// The text of the failure of a stream or a monitor file that `work` throws; "" when it throws nothing.
template<class Work>
std::string MonFailureOf(Work work)
{
    return describeThrown(work, [](xthrowable* thrown) -> std::string {
        if (qelXNativeException* const native = qelXNativeException::softcast(thrown))
            return native->getStringRep().CastToCString();
        return StreamFailureText(thrown);
    });
}

inline Owned<monFile> OpenMonitor(const std::string& path)
{
    return Owned<monFile>(monFile::Open(path.c_str()));
}

inline Owned<monFile> CreateMonitor(const std::string& path, const char* title = "T")
{
    return Owned<monFile>(monFile::Create(path.c_str(), title));
}

/// The number of parameters in a dictionary.
inline int CountOf(monParamDict* params)
{
    int count = 0;
    for (int i = 0; i < params->getarraysize(); ++i)
        count += params->getkeybyindex(i, nullptr);
    return count;
}
