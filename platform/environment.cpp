#include "environment.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <pwd.h>
#include <string>
#include <time.h>
#include <unistd.h>
#include <vector>

#include <qel/platform/errortable.h>

namespace {

/// Copies `text` out; when it does not fit, `*size` receives the required size.
bool copyOut(const std::string& text, char* buffer, DWORD* size)
{
    const auto needed = static_cast<DWORD>(text.size() + 1);
    const bool fits = needed <= *size;
    *size = needed;
    if (fits)
        std::memcpy(buffer, text.c_str(), needed);
    return fits;
}

} // namespace

BOOL GetComputerNameA(char* buffer, DWORD* size)
{
    char name[HOST_NAME_MAX + 1];
    if (gethostname(name, sizeof name) != 0)
        return platFail();
    name[HOST_NAME_MAX] = '\0';
    if (!copyOut(name, buffer, size))
        return platFailWith(ERROR_BUFFER_OVERFLOW);
    --*size;
    return TRUE;
}

BOOL GetUserNameA(char* buffer, DWORD* size)
{
    constexpr std::size_t firstSize = 1024;
    constexpr std::size_t lastSize = 1024 * 1024;
    std::vector<char> texts(firstSize);
    struct passwd entry;
    struct passwd* found = nullptr;
    int error;
    while ((error = getpwuid_r(geteuid(), &entry, texts.data(), texts.size(), &found)) == ERANGE &&
           texts.size() < lastSize)
        texts.resize(texts.size() * 2);
    if (found == nullptr)
        return platFailWith(error == 0 ? DWORD{ERROR_NONE_MAPPED} : platErrorOf(error));
    if (!copyOut(found->pw_name, buffer, size))
        return platFailWith(ERROR_INSUFFICIENT_BUFFER);
    return TRUE;
}

void Sleep(DWORD milliseconds)
{
    constexpr long nanosecondsASecond = 1000000000;
    constexpr long nanosecondsAMillisecond = 1000000;
    struct timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += milliseconds / 1000;
    end.tv_nsec += static_cast<long>(milliseconds % 1000) * nanosecondsAMillisecond;
    if (end.tv_nsec >= nanosecondsASecond) {
        end.tv_nsec -= nanosecondsASecond;
        ++end.tv_sec;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}
