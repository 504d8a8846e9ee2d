#pragma once

#include <fstream>
#include <string>

/// A field of the status of a process, this one or that of an id, in KiB: `VmRSS:`, its resident memory, or
/// `VmHWM:`, the peak of that.
inline long residentKiB(const std::string& field = "VmRSS:", const std::string& process = "self")
{
    std::ifstream status("/proc/" + process + "/status");
    for (std::string word; status >> word;)
        if (long size = 0; word == field && status >> size)
            return size;
    return -1;
}

/// Whether freed memory is returned to the system: a sanitizer keeps it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool freedMemoryIsGone = false;
#else
inline constexpr bool freedMemoryIsGone = true;
#endif

/// The growth of the process's resident memory since the object was created.
class ResidentGrowth
{
public:
    ResidentGrowth()
    {
        std::ofstream("/proc/self/clear_refs") << 5; // resets the peak
        before = residentKiB();
    }
    /// The peak, in KiB.
    long peak() const { return residentKiB("VmHWM:") - before; }

private:
    long before;
};
