#include "btkpeeruser.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <qel/base/btkretry.h>

#include "btksocketaddress_p.h"

namespace {

// The user that stands for those of other user namespaces.
constexpr btkUserId nobody = 65534;
constexpr std::size_t mostOfStatus = 4096;

// One end of a connection; IPv4 addresses are mapped.
struct End
{
    in6_addr address = {};
    in_port_t port = 0; // in network order

    bool IsIPv4() const { return IN6_IS_ADDR_V4MAPPED(&address); }
    bool operator==(const End& other) const
    {
        return port == other.port && IN6_ARE_ADDR_EQUAL(&address, &other.address);
    }
};

End endOf(bool isIPv4, const void* address, in_port_t port)
{
    End end;
    end.port = port;
    if (isIPv4) {
        end.address.s6_addr[10] = end.address.s6_addr[11] = 0xff;
        std::memcpy(end.address.s6_addr + 12, address, sizeof(in_addr));
    } else {
        std::memcpy(&end.address, address, sizeof end.address);
    }
    return end;
}

using Asked = int (*)(int, sockaddr*, socklen_t*);

std::optional<End> endOf(btkHandle connection, Asked ask)
{
    btkSocketAddress found;
    if (ask(connection, found.Get(), &found.size) != 0)
        return {};
    const auto& of4 = reinterpret_cast<const sockaddr_in&>(found.storage);
    const auto& of6 = reinterpret_cast<const sockaddr_in6&>(found.storage);
    if (found.storage.ss_family == AF_INET)
        return endOf(true, &of4.sin_addr, of4.sin_port);
    if (found.storage.ss_family == AF_INET6)
        return endOf(false, &of6.sin6_addr, of6.sin6_port);
    return {};
}

void put(const End& end, __be32 (&address)[4], __be16& port)
{
    if (end.IsIPv4())
        std::memcpy(address, end.address.s6_addr + 12, sizeof(in_addr));
    else
        std::memcpy(address, &end.address, sizeof end.address);
    port = end.port;
}

struct Query
{
    nlmsghdr header;
    inet_diag_req_v2 request;
};

// Asks the kernel for the socket of this machine at `own` that is connected to `other`.
bool askKernel(const End& own, const End& other, inet_diag_msg& answer)
{
    const btkFd kernel(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    Query query = {};
    query.header.nlmsg_len = sizeof query;
    query.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    query.header.nlmsg_flags = NLM_F_REQUEST;
    query.request.sdiag_family = own.IsIPv4() && other.IsIPv4() ? AF_INET : AF_INET6;
    query.request.sdiag_protocol = IPPROTO_TCP;
    query.request.idiag_states = ~0U;
    put(own, query.request.id.idiag_src, query.request.id.idiag_sport);
    put(other, query.request.id.idiag_dst, query.request.id.idiag_dport);
    query.request.id.idiag_cookie[0] = query.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    sockaddr_nl place = {};
    place.nl_family = AF_NETLINK;
    if (!kernel || btkRetry([&] {
                       return sendto(kernel.Get(), &query, sizeof query, 0,
                                     reinterpret_cast<sockaddr*>(&place), sizeof place);
                   }) != sizeof query)
        return false;

    // The answer is there when the query has been sent.
    alignas(nlmsghdr) char buffer[4096] = {};
    socklen_t size = sizeof place;
    const std::ptrdiff_t count = btkRetry([&] {
        return recvfrom(kernel.Get(), buffer, sizeof buffer, MSG_DONTWAIT,
                        reinterpret_cast<sockaddr*>(&place), &size);
    });
    nlmsghdr header = {};
    if (count < static_cast<std::ptrdiff_t>(NLMSG_HDRLEN + sizeof answer) || place.nl_pid != 0)
        return false;
    std::memcpy(&header, buffer, sizeof header);
    std::memcpy(&answer, buffer + NLMSG_HDRLEN, sizeof answer);
    return header.nlmsg_type == SOCK_DIAG_BY_FAMILY;
}

// Without a connection between these ends the kernel finds one that listens there.
bool isConnection(const inet_diag_msg& answer, const End& own, const End& other)
{
    const bool isIPv4 = answer.idiag_family == AF_INET;
    const inet_diag_sockid& id = answer.id;
    return answer.idiag_state != TCP_LISTEN && endOf(isIPv4, id.idiag_src, id.idiag_sport) == own &&
           endOf(isIPv4, id.idiag_dst, id.idiag_dport) == other;
}

} // namespace

std::optional<btkUserId> btkGetPeerUser(btkHandle connection)
{
    const std::optional<End> own = endOf(connection, getsockname);
    const std::optional<End> peer = endOf(connection, getpeername);
    inet_diag_msg answer = {};
    if (!own || !peer || !askKernel(*peer, *own, answer) || !isConnection(answer, *peer, *own))
        return {};
    // A closed socket has no inode, and user 0.
    if (answer.idiag_inode == 0 || answer.idiag_uid == nobody)
        return {};
    return answer.idiag_uid;
}

bool btkReportsPeerUsers(btkHandle listening)
{
    const std::optional<End> own = endOf(listening, getsockname);
    inet_diag_msg answer = {};
    const in_addr any4 = {};
    return own && askKernel(*own, own->IsIPv4() ? endOf(true, &any4, 0) : End(), answer) &&
           answer.idiag_inode != 0 && geteuid() != nobody;
}

btkUserId btkGetOwnUser()
{
    return geteuid();
}

std::optional<btkUserId> btkGetUserOfProcess(unsigned int process)
{
    // The owner of the process's folder would be the superuser for one that must not be traced.
    const btkFd file = btkOpenFile(("/proc/" + std::to_string(process) + "/status").c_str(), btkOpenRead);
    char text[mostOfStatus];
    const std::ptrdiff_t size = file ? btkRead(file.Get(), text, sizeof text) : 0;
    const std::string status(text, static_cast<std::size_t>(std::max<std::ptrdiff_t>(size, 0)));
    // The program's name, in the first line, is escaped. Behind the mark: the real user, the effective one, ...
    const std::string mark = "\nUid:\t";
    const std::size_t real = status.find(mark);
    const std::size_t effective = real == std::string::npos ? real : status.find('\t', real + mark.size());
    if (effective == std::string::npos)
        return {};
    btkUserId user = 0;
    const auto [end, error] = std::from_chars(&status[effective + 1], status.data() + status.size(), user);
    return error == std::errc() && user != nobody ? std::optional(user) : std::nullopt;
}

std::optional<btkUserId> btkFindUser(const std::string& name)
{
    btkUserId number = 0;
    const char* const last = name.data() + name.size();
    if (const auto [end, error] = std::from_chars(name.data(), last, number);
        error == std::errc() && end == last)
        return number;
    std::vector<char> memory(16384);
    passwd entry = {};
    passwd* found = nullptr;
    while (getpwnam_r(name.c_str(), &entry, memory.data(), memory.size(), &found) == ERANGE &&
           memory.size() < (1U << 20))
        memory.resize(memory.size() * 2);
    return found != nullptr ? std::optional<btkUserId>(found->pw_uid) : std::nullopt;
}
