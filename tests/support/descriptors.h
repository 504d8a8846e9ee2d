#pragma once

#include <filesystem>
#include <iterator>
#include <sys/resource.h>
#include <unistd.h>

/// The number of open descriptors of the process.
inline long openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all)) - 1; // the listing itself has one
}

/// The number that the next descriptor gets.
inline int nextDescriptor()
{
    const int next = dup(0);
    close(next);
    return next;
}

/// During its lifetime only descriptors below `most` can be opened; open ones stay open.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int most)
    {
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit less = before;
        less.rlim_cur = static_cast<rlim_t>(most);
        isSet = setrlimit(RLIMIT_NOFILE, &less) == 0;
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    /// False when so many cannot be opened.
    explicit operator bool() const { return isSet; }

private:
    bool isSet = false;
    rlimit before;
};
