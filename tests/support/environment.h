#pragma once

#include <cstdlib>
#include <optional>
#include <string>

#include <qel/base/btksystem.h>

/// Sets an environment variable to another value, or removes it (null), during the object's lifetime.
class EnvSetting
{
public:
    EnvSetting(const char* variable, const char* value) : name(variable)
    {
        if (const char* previous = std::getenv(variable))
            before = previous;
        set(value);
    }
    EnvSetting(const EnvSetting&) = delete;
    EnvSetting& operator=(const EnvSetting&) = delete;
    ~EnvSetting() { set(before ? before->c_str() : nullptr); }

private:
    void set(const char* value)
    {
        if (value == nullptr)
            unsetenv(name.c_str());
        else
            setenv(name.c_str(), value, 1);
        Putenv("QELSTD_TEST_SETTING", name.c_str()); // the library reads the environment again
    }

    std::string name;
    std::optional<std::string> before;
};
