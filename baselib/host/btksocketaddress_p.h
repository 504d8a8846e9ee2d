#pragma once

#include <string>
#include <sys/socket.h>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/base/btktimeval.h>

/// A socket address with its port, in the form of the system calls.
struct btkSocketAddress
{
    sockaddr_storage storage = {};
    socklen_t size = sizeof(sockaddr_storage);

    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }

    int GetPort() const;
    /// Returns the numeric address without its port; IPv4 mapped into IPv6 is dotted.
    std::string GetText() const;
    bool IsLoopback() const;
    /// Whether the addresses are equal, regardless of the ports and of how IPv4 is represented.
    bool HasSameHost(const btkSocketAddress& other) const;

    /// Returns the address of one end of a connection: `ask` is getsockname or getpeername. AF_UNSPEC when the
    /// socket has none.
    static btkSocketAddress Of(btkHandle socket, int (*ask)(int, sockaddr*, socklen_t*));
    static btkSocketAddress Loopback(int family, int port);
    /// Returns the address that stands for all interfaces.
    static btkSocketAddress Any(int family, int port);
};

/// Returns the addresses of `host`, the preferred one first; for this machine its loopback. Empty when there
/// are none or `limit` passed during name resolution; the reason is in errno.
std::vector<btkSocketAddress> btkResolve(const char* host, int port, btkTimeval limit);
/// The same, with this machine's name being what the system's resolver makes of it.
std::vector<btkSocketAddress> btkResolveAsSystem(const char* host, int port, btkTimeval limit);
/// Returns the address of this machine's interface `name`, which may itself be an address. Empty when there
/// is none.
std::vector<btkSocketAddress> btkResolveInterface(const char* name, int port);

/// Sets an option of a socket, where the operating system has it.
void btkSetOption(btkHandle socket, int level, int option, int value);
/// Sets the options of all connections, and of listening sockets, from which they inherit them.
void btkSetStreamOptions(btkHandle socket);
