#pragma once

#include <string>

#include <qel/xobject.h>
#include <qel/xstring.h>

/// The registered name of the framework exception that `action` throws, or "" when it throws none.
template<typename Action>
std::string thrownBy(Action action)
{
    try {
        action();
        return {};
    } catch (xthrowable* thrown) {
        std::string name = thrown->getQelTypeName().CastToCString();
        if (thrown->isRefCountable())
            xrcrelease(thrown);
        else
            xdelete(thrown);
        return name;
    }
}
