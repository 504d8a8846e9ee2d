#pragma once

#include <fstream>
#include <string>

/// How much memory the process has come to use since the object was made.
class ResidentGrowth
{
public:
    ResidentGrowth()
    {
        std::ofstream("/proc/self/clear_refs") << 5; // forgets the peak so far
        before = read("VmRSS:");
    }
    /// The peak, in KiB.
    long peak() const { return read("VmHWM:") - before; }

private:
    static long read(const std::string& name)
    {
        std::ifstream status("/proc/self/status");
        for (std::string word; status >> word;)
            if (long size = 0; word == name && status >> size)
                return size;
        return -1;
    }

    long before;
};
