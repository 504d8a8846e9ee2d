#pragma once

#include <fstream>
#include <map>
#include <sstream>
#include <string>

/// What `strace -c` has written to `path`: how often each system call was made, by its name; "total" is all.
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
