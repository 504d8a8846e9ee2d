#pragma once

#include <fstream>
#include <string>

/// What a process, this one or that of an id, has of a field of its status, in KiB: `VmRSS:`, the memory it
/// uses, or `VmHWM:`, the most it has used.
inline long residentKiB(const std::string& field = "VmRSS:", const std::string& process = "self")
{
    std::ifstream status("/proc/" + process + "/status");
    for (std::string word; status >> word;)
        if (long size = 0; word == field && status >> size)
            return size;
    return -1;
}

/// Whether memory that is freed is given up: a sanitizer keeps it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool freedMemoryIsGone = false;
#else
inline constexpr bool freedMemoryIsGone = true;
#endif

/// How much memory the process has come to use since the object was made.
class ResidentGrowth
{
public:
    ResidentGrowth()
    {
        std::ofstream("/proc/self/clear_refs") << 5; // forgets the peak so far
        before = residentKiB();
    }
    /// The peak, in KiB.
    long peak() const { return residentKiB("VmHWM:") - before; }

private:
    long before;
};
