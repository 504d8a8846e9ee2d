#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <qel/base/baseexport.h>

/// The environment of the process, behind one reader-writer lock. Safe to call from any thread. Code that
/// reads the environment without the lock, as the C library does for TZ or PATH, may run concurrently with
/// Set: replaced texts and tables are never freed. Code that changes it by other means, such as setenv, must
/// run alone.
struct BASE_API btkEnvironment
{
    /// Copies the value of `name`. False, with `value` unchanged, when the variable is not set.
    static bool Get(const char* name, std::string& value);
    /// The same, but false for every variable when this process has more rights than the user who started it:
    /// that user must not choose which files it writes.
    static bool GetTrusted(const char* name, std::string& value);
    /// Sets `name` to a copy of `value`. False, with nothing changed, for a null argument, for a name that is
    /// empty or contains "=", and when memory runs out.
    static bool Set(const char* name, const char* value);
    /// Returns the variables whose names begin with `prefix`, each as "NAME=value".
    static std::vector<std::string> WithPrefix(std::string_view prefix);
    /// Returns the table to start a program with: its texts, and a null at its end. The texts are valid
    /// forever.
    static std::vector<char*> ForProgram();
    /// Returns the number of successful calls of Set.
    static std::uint64_t Changes();
};
