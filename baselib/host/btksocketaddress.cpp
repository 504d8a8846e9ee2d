#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string_view>
#include <strings.h>
#include <unistd.h>

#include <qel/base/btksocket.h>
#include <qel/base/thrthread.h>

#include "btksocketaddress_p.h"

namespace {

const sockaddr_in& of4(const btkSocketAddress& address)
{
    return reinterpret_cast<const sockaddr_in&>(address.storage);
}

const sockaddr_in6& of6(const btkSocketAddress& address)
{
    return reinterpret_cast<const sockaddr_in6&>(address.storage);
}

bool isMapped(const btkSocketAddress& address)
{
    return address.storage.ss_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&of6(address).sin6_addr);
}

// The embedded IPv4 address, in network byte order. False for true IPv6.
bool get4(const btkSocketAddress& address, in_addr& out)
{
    if (address.storage.ss_family == AF_INET)
        out = of4(address).sin_addr;
    else if (isMapped(address))
        std::memcpy(&out, of6(address).sin6_addr.s6_addr + 12, sizeof out);
    else
        return false;
    return true;
}

btkSocketAddress copied(const sockaddr* from, socklen_t size, int port)
{
    btkSocketAddress made;
    std::memcpy(&made.storage, from, size);
    made.size = size;
    if (from->sa_family == AF_INET)
        reinterpret_cast<sockaddr_in&>(made.storage).sin_port = htons(static_cast<in_port_t>(port));
    else
        reinterpret_cast<sockaddr_in6&>(made.storage).sin6_port = htons(static_cast<in_port_t>(port));
    return made;
}

btkSocketAddress fixed(int family, int port, in_addr_t dotted, const in6_addr& address)
{
    sockaddr_in made4 = {};
    made4.sin_family = AF_INET;
    made4.sin_addr.s_addr = htonl(dotted);
    sockaddr_in6 made6 = {};
    made6.sin6_family = AF_INET6;
    made6.sin6_addr = address;
    return family == AF_INET ? copied(reinterpret_cast<const sockaddr*>(&made4), sizeof made4, port)
                             : copied(reinterpret_cast<const sockaddr*>(&made6), sizeof made6, port);
}

// One query to the system's resolver, which has no limit of its own. Shared with the thread that runs it.
struct Question
{
    std::string host;
    int port = 0;
    std::vector<btkSocketAddress> answer;
    int error = 0; // an errno

    void Ask(int flags)
    {
        addrinfo hints = {};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_flags = flags;
        addrinfo* found = nullptr;
        const int result = getaddrinfo(host.c_str(), nullptr, &hints, &found);
        error = result == 0 ? 0 : result == EAI_SYSTEM ? errno : result == EAI_MEMORY ? ENOMEM : EHOSTUNREACH;
        const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, [](addrinfo* list) {
            if (list != nullptr)
                freeaddrinfo(list);
        });
        for (const addrinfo* at = found; at != nullptr; at = at->ai_next)
            answer.push_back(copied(at->ai_addr, at->ai_addrlen, port));
    }
};

// Runs the query on its own thread, which is abandoned when it takes longer than `limit`.
std::vector<btkSocketAddress> askWithin(Question question, btkTimeval limit)
{
    auto shared = std::make_shared<Question>(std::move(question));
    auto given = std::make_unique<std::shared_ptr<Question>>(shared);
    void* const thread = StrictThread_Launch(
        [](void* arg) {
            const std::unique_ptr<std::shared_ptr<Question>> asked(
                static_cast<std::shared_ptr<Question>*>(arg));
            try {
                (*asked)->Ask(0);
            } catch (const std::bad_alloc&) {
                (*asked)->error = ENOMEM;
            }
            return 0;
        },
        given.get(), nullptr);
    if (thread == StrictThread_Refused) {
        errno = EAGAIN;
        return {};
    }
    // Owned by the thread now.
    [[maybe_unused]] const auto* const taken = given.release();
    std::vector<btkSocketAddress> answer;
    if (btkIsReadable(StrictThread_GetExitHandle(thread), limit)) {
        int code = 0;
        StrictThread_Wait(thread, &code);
        answer = std::move(shared->answer);
        errno = shared->error;
    } else {
        errno = ETIMEDOUT;
    }
    const int kept = errno;
    StrictThread_Free(thread);
    errno = kept;
    return answer;
}

} // namespace

int btkSocketAddress::GetPort() const
{
    return storage.ss_family == AF_INET    ? ntohs(of4(*this).sin_port)
           : storage.ss_family == AF_INET6 ? ntohs(of6(*this).sin6_port)
                                           : 0;
}

std::string btkSocketAddress::GetText() const
{
    std::array<char, INET6_ADDRSTRLEN> text = {};
    in_addr dotted;
    const bool isDotted = get4(*this, dotted);
    if (isDotted || storage.ss_family == AF_INET6)
        inet_ntop(isDotted ? AF_INET : AF_INET6,
                  isDotted ? static_cast<const void*>(&dotted) : &of6(*this).sin6_addr, text.data(),
                  text.size());
    return text.data();
}

bool btkSocketAddress::IsLoopback() const
{
    in_addr dotted;
    if (get4(*this, dotted))
        return ntohl(dotted.s_addr) >> 24 == 127;
    return storage.ss_family == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&of6(*this).sin6_addr);
}

bool btkSocketAddress::HasSameHost(const btkSocketAddress& other) const
{
    in_addr mine;
    in_addr others;
    const bool isDotted = get4(*this, mine);
    if (isDotted != get4(other, others))
        return false;
    return isDotted ? mine.s_addr == others.s_addr
                    : IN6_ARE_ADDR_EQUAL(&of6(*this).sin6_addr, &of6(other).sin6_addr) != 0;
}

btkSocketAddress btkSocketAddress::Of(btkHandle socket, int (*ask)(int, sockaddr*, socklen_t*))
{
    btkSocketAddress address;
    if (ask(socket, address.Get(), &address.size) != 0)
        address.storage.ss_family = AF_UNSPEC;
    return address;
}

btkSocketAddress btkSocketAddress::Loopback(int family, int port)
{
    return fixed(family, port, INADDR_LOOPBACK, in6addr_loopback);
}

btkSocketAddress btkSocketAddress::Any(int family, int port)
{
    return fixed(family, port, INADDR_ANY, in6addr_any);
}

bool btkIsThisMachine(const char* host)
{
    if (host == nullptr || *host == 0 || strcasecmp(host, "localhost") == 0)
        return true;
    std::array<char, HOST_NAME_MAX + 1> own = {};
    return gethostname(own.data(), own.size() - 1) == 0 && strcasecmp(host, own.data()) == 0;
}

std::vector<btkSocketAddress> btkResolve(const char* host, int port, btkTimeval limit)
{
    if (btkIsThisMachine(host))
        return {btkSocketAddress::Loopback(AF_INET, port), btkSocketAddress::Loopback(AF_INET6, port)};
    return btkResolveAsSystem(host, port, limit);
}

std::vector<btkSocketAddress> btkResolveAsSystem(const char* host, int port, btkTimeval limit)
{
    Question question;
    question.host = host;
    question.port = port;
    question.Ask(AI_NUMERICHOST);
    if (!question.answer.empty())
        return question.answer;
    return askWithin(std::move(question), limit);
}

std::vector<btkSocketAddress> btkResolveInterface(const char* name, int port)
{
    std::vector<btkSocketAddress> found;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == 0) {
        for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
            const int family = at->ifa_addr == nullptr ? AF_UNSPEC : at->ifa_addr->sa_family;
            if ((family == AF_INET || family == AF_INET6) && std::string_view(at->ifa_name) == name)
                found.push_back(copied(at->ifa_addr,
                                       family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6), port));
        }
        freeifaddrs(list);
    }
    return found.empty() ? btkResolve(name, port, btkTimeval::Forever()) : found;
}
