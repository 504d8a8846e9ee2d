#pragma once

#include <string>
#include <sys/socket.h>
#include <vector>

#include <qel/base/btktimeval.h>

/// An address with a port, as the host's calls take it.
struct btkSocketAddress
{
    sockaddr_storage storage = {};
    socklen_t size = sizeof(sockaddr_storage);

    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }

    int GetPort() const;
    /// The address without its port, as numbers; IPv4 that is mapped into IPv6 is dotted.
    std::string GetText() const;
    bool IsLoopback() const;
    /// Whether the addresses are the same, whatever the ports and however IPv4 is written.
    bool HasSameHost(const btkSocketAddress& other) const;

    static btkSocketAddress Loopback(int family, int port);
    /// The address that stands for all interfaces.
    static btkSocketAddress Any(int family, int port);
};

/// The addresses of `host`, the likeliest first; for this machine its loopback. Empty when there are none or
/// `limit` has passed before the host's resolver knew; the reason is in errno.
std::vector<btkSocketAddress> btkResolve(const char* host, int port, btkTimeval limit);
/// The address of this machine's interface `name`, which may be an address too. Empty when there is none.
std::vector<btkSocketAddress> btkResolveInterface(const char* name, int port);
