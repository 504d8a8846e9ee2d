#pragma once

// A test that runs itself under strace. Include it in the only source of a test program.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

/// Whether strace, which makes system calls of a program fail, can be used here.
inline bool canInjectFaults()
{
    return std::system("strace -qq -o /dev/null true >/dev/null 2>&1") == 0;
}

/// Runs this program under strace, and returns the status of that.
inline int runTraced(const std::string& options, const std::string& arguments = {})
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    return std::system(("strace -qq " + options + ' ' + self + ' ' + arguments + " >/dev/null 2>&1").c_str());
}

/// Runs the test `test` of this program with a fault, as strace writes it ("error=EIO", "signal=KILL"), at
/// the `when`-th of the system calls `names`. Only calls that concern one of `paths` count, if there are any.
/// True when the test has passed.
inline bool passesWithFault(const std::string& test, const std::string& names, const std::string& fault,
                            int when, const std::vector<std::string>& paths = {})
{
    std::string options = "-o /dev/null -f -e trace=" + names + " -e inject=" + names + ":" + fault +
                          ":when=" + std::to_string(when);
    for (const std::string& path : paths)
        options += " -P " + path;
    return runTraced(options, "--gtest_filter=" + test) == 0;
}

/// The number of calls of each system call by its name, from the output of `strace -c` in `path`; "total" is
/// the sum.
inline std::map<std::string, long> callsIn(const std::string& path)
{
    std::map<std::string, long> calls;
    std::ifstream table(path);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string percent, seconds, each, name;
        long count = 0;
        fields >> percent >> seconds >> each >> count;
        while (fields >> name)
            calls[name] = count;
    }
    return calls;
}

#if defined(__SANITIZE_ADDRESS__)
/// The leak sanitizer calls this at the end of the process: leak detection does not work in a traced process, and would make
/// it fail.
extern "C" [[gnu::visibility("default")]] int __lsan_is_turned_off()
{
    std::ifstream status("/proc/self/status");
    for (std::string field; status >> field;) {
        int tracer = 0;
        if (field == "TracerPid:" && status >> tracer)
            return tracer != 0;
    }
    return 0;
}
#endif
