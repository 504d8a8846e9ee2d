#pragma once

#include <arpa/inet.h>
#include <cstring>
#include <initializer_list>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

/// Moves the process into a new network namespace, in which this machine has the given IPv4 addresses, so
/// that two of them see each other as different machines. Call it in a child process. False when the system
/// does not allow it.
inline bool enterOwnNetwork(std::initializer_list<const char*> addresses)
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return false;
    const int asking = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool done = asking >= 0;
    int number = 0;
    for (const char* const address : addresses) {
        ifreq request = {};
        const std::string name = number == 0 ? "lo" : "lo:" + std::to_string(number);
        ++number;
        std::strcpy(request.ifr_name, name.c_str());
        sockaddr_in host = {};
        host.sin_family = AF_INET;
        done = done && inet_pton(AF_INET, address, &host.sin_addr) == 1;
        std::memcpy(&request.ifr_addr, &host, sizeof host);
        done = done && ioctl(asking, SIOCSIFADDR, &request) == 0;
        request.ifr_flags = IFF_UP | IFF_RUNNING;
        done = done && ioctl(asking, SIOCSIFFLAGS, &request) == 0;
    }
    close(asking);
    return done;
}

/// A connection from the address `from` to `port` of `to`; -1 when it fails. The caller closes it. `segment`:
/// maximum segment size in bytes, so that the kernel buffers little; 0: its default.
inline int connectFrom(const char* from, const char* to, int port, int segment = 0)
{
    const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (segment > 0)
        setsockopt(made, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof segment);
    sockaddr_in end = {};
    end.sin_family = AF_INET;
    inet_pton(AF_INET, from, &end.sin_addr);
    bool done = bind(made, reinterpret_cast<sockaddr*>(&end), sizeof end) == 0;
    inet_pton(AF_INET, to, &end.sin_addr);
    end.sin_port = htons(static_cast<in_port_t>(port));
    done = done && connect(made, reinterpret_cast<sockaddr*>(&end), sizeof end) == 0;
    if (!done) {
        close(made);
        return -1;
    }
    return made;
}
