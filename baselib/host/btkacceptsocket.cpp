#include <algorithm>
#include <cerrno>
#include <cstring>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

#include <qel/base/btkretry.h>
#include <qel/base/btktrace.h>

#include "btkpoll_p.h"
#include "btksocket.h"
#include "btksocketaddress_p.h"

namespace {

tcp_info askInfo(btkHandle connection, const tcp_info& unknown)
{
    tcp_info info = unknown;
    socklen_t size = sizeof info;
    if (getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return unknown;
    return info;
}

} // namespace

// ---- options

void btkSetOption(btkHandle handle, int level, int option, int value)
{
    setsockopt(handle, level, option, &value, sizeof value);
}

void btkSetStreamOptions(btkHandle handle)
{
    btkSetOption(handle, IPPROTO_TCP, TCP_NODELAY, 1);
    // Keepalive: a reader would otherwise wait forever for a peer whose machine is down; detected within 2
    // minutes.
    btkSetOption(handle, SOL_SOCKET, SO_KEEPALIVE, 1);
    btkSetOption(handle, IPPROTO_TCP, TCP_KEEPIDLE, 60);
    btkSetOption(handle, IPPROTO_TCP, TCP_KEEPINTVL, 15);
    btkSetOption(handle, IPPROTO_TCP, TCP_KEEPCNT, 4);
    btkSetOption(handle, SOL_SOCKET, SO_OOBINLINE, 1);
    // Each read reports how much is left.
    btkSetOption(handle, IPPROTO_TCP, TCP_INQ, 1);
}

// ---- btkSocket

int btkSocket::Wait(btkTimeval limit, int conditions) const
{
    pollfd asked = {fd.Get(), 0, 0};
    asked.events =
        static_cast<short>(((conditions & 1) != 0 ? POLLIN : 0) | ((conditions & 2) != 0 ? POLLOUT : 0));
    if (!fd || btkPoll(&asked, 1, limit) < 0)
        return 0;
    if (asked.revents == 0)
        return -1;
    const int failed = (asked.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 ? POLLIN | POLLOUT : 0;
    const int ready = asked.revents | failed;
    return conditions & (((ready & POLLIN) != 0 ? 1 : 0) | ((ready & POLLOUT) != 0 ? 2 : 0));
}

int btkSocket::GetPortN() const
{
    return btkSocketAddress::Of(fd.Get(), getsockname).GetPort();
}

std::string btkSocket::GetLocalAddrStr() const
{
    return btkSocketAddress::Of(fd.Get(), getsockname).GetText();
}

bool btkSocket::IsOnLoopback() const
{
    return btkSocketAddress::Of(fd.Get(), getsockname).IsLoopback();
}

// ---- btkAcceptSocket

bool btkAcceptSocket::Listen(int port, const char* listenOn)
{
    fd.Reset();
    if (port < 0 || port > 65535) {
        errno = EINVAL;
        return false;
    }
    std::vector<btkSocketAddress> addresses;
    if (listenOn != nullptr) {
        addresses = btkResolveInterface(listenOn, port);
    } else {
        // One socket for both families or, without IPv6, one for IPv4.
        for (const int family : {AF_INET6, AF_INET})
            addresses.push_back(btkSocketAddress::Any(family, port));
    }
    for (const btkSocketAddress& address : addresses) {
        const int family = address.storage.ss_family;
        btkFd made(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!made)
            continue;
        btkSetOption(made.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
        // Inherited by its connections, which saves two calls for each.
        btkSetStreamOptions(made.Get());
        if (family == AF_INET6)
            btkSetOption(made.Get(), IPPROTO_IPV6, IPV6_V6ONLY, listenOn != nullptr);
        if (bind(made.Get(), address.Get(), address.size) == 0 && listen(made.Get(), SOMAXCONN) == 0) {
            fd = std::move(made);
            if (btkTraces(btkTraceArea::net, btkLevel::info))
                btkTrace(btkTraceArea::net, btkLevel::info, "listens on %s, port %d, as %d",
                         GetLocalAddrStr().c_str(), GetPortN(), fd.Get());
            return true;
        }
        if (errno == EADDRINUSE)
            // Not to listen on only a part of what was requested.
            return false;
    }
    return false;
}

void btkAcceptSocket::Adopt(btkFd listening)
{
    fd = std::move(listening);
    btkSetStreamOptions(fd.Get());
}

bool btkAcceptSocket::Accept(btkStreamSocket* connection)
{
    btkSocketAddress address;
    btkFd accepted(btkRetry([&] { return accept4(fd.Get(), address.Get(), &address.size, SOCK_CLOEXEC); }));
    if (!accepted)
        return false;
    connection->Close();
    connection->fd = std::move(accepted);
    std::memcpy(connection->peer.data(), &address.storage, connection->peer.size());
    if (btkTraces(btkTraceArea::net, btkLevel::info))
        btkTrace(btkTraceArea::net, btkLevel::info, "connection of %s as %d",
                 connection->GetPeerAddrStr().c_str(), connection->GetHandle());
    return true;
}

btkAcceptSocket::Failure btkAcceptSocket::FailureOf(int error)
{
    switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        return Failure::noResources;
    case EBADF:
    case EINVAL:
    case ENOTSOCK:
        return Failure::unusable;
    default:
        return Failure::passing;
    }
}

// ---- the state of a connection

void btkResetOnClose(btkHandle connection, bool isOn)
{
    const linger option = {isOn ? 1 : 0, 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &option, sizeof option);
}

std::size_t btkCountUnsent(btkHandle connection)
{
    int count = 0;
    return ioctl(connection, TIOCOUTQ, &count) == 0 && count > 0 ? static_cast<std::size_t>(count) : 0;
}

std::size_t btkCountPeerRoom(btkHandle connection)
{
    tcp_info unknown = {};
    unknown.tcpi_snd_wnd = 0x7FFFFFFF;
    // First: bytes that arrive meanwhile would seem to make room.
    const std::size_t underway = btkCountUnsent(connection);
    const tcp_info info = askInfo(connection, unknown);
    // The window promises too much. The kernel derives it from the density of the largest segments, up to 0.98 bytes of
    // data in one of memory over the loopback. When smaller segments have taken the memory, it repacks them into pages,
    // whose density is 0.86; what does not fit then is dropped, and so are all segments behind it, urgent or not, until
    // the peer reads. 28 KiB are 0.14 of the memory of a room of 96 KiB. The windows of a network with small segments
    // promise less. A window of less than two segments may be all that there ever is, and the kernel announces a larger
    // one only if it is twice as large: more than one segment must not be kept.
    const std::size_t segment = std::min<std::size_t>(info.tcpi_snd_mss, 32 << 10);
    const std::size_t least = segment / 8, kept = segment - least + underway;
    return info.tcpi_snd_wnd >= kept + least ? info.tcpi_snd_wnd - kept : 0;
}

unsigned long long btkCountReceived(btkHandle connection)
{
    return askInfo(connection, {}).tcpi_bytes_received;
}

void btkSetOwnRoom(btkHandle connection, std::size_t bytes)
{
    // The kernel adds as much again for itself.
    btkSetOption(connection, SOL_SOCKET, SO_RCVBUF, static_cast<int>(bytes));
}
