#include "btkservice.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "btkenvironment.h"
#include "btkretry.h"

namespace {

// The manager passes descriptors from this one on.
constexpr btkHandle firstPassed = 3;

// Removes the variable, so that children do not take it for theirs.
std::string takeVariable(const char* name)
{
    std::string value;
    if (btkEnvironment::Get(name, value))
        btkEnvironment::Set(name, "");
    return value;
}

bool isListening(btkHandle handle)
{
    int accepts = 0;
    socklen_t size = sizeof accepts;
    sockaddr_storage address = {};
    socklen_t addressSize = sizeof address;
    return getsockopt(handle, SOL_SOCKET, SO_ACCEPTCONN, &accepts, &size) == 0 && accepts != 0 &&
           getsockname(handle, reinterpret_cast<sockaddr*>(&address), &addressSize) == 0 &&
           (address.ss_family == AF_INET || address.ss_family == AF_INET6);
}

} // namespace

bool btkReportReady(const std::string& status)
{
    const std::string path = takeVariable("NOTIFY_SOCKET");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path || (path[0] != '/' && path[0] != '@'))
        return false;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@') // the abstract name space
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());

    const btkFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const std::string report = "READY=1\nSTATUS=" + status;
    return manager && btkRetry([&] {
                          return sendto(manager.Get(), report.data(), report.size(), MSG_NOSIGNAL,
                                        reinterpret_cast<const sockaddr*>(&address), size);
                      }) == static_cast<ssize_t>(report.size());
}

btkFd btkTakePassedSocket()
{
    const std::string process = takeVariable("LISTEN_PID");
    const std::string count = takeVariable("LISTEN_FDS");
    if (process != std::to_string(getpid()) || count != "1" || !isListening(firstPassed))
        return {};
    btkFd passed(firstPassed);
    fcntl(firstPassed, F_SETFD, FD_CLOEXEC);
    fcntl(firstPassed, F_SETFL, fcntl(firstPassed, F_GETFL) | O_NONBLOCK);
    return passed;
}

bool btkIsSuperuser()
{
    return geteuid() == 0;
}
