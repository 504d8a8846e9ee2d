#include "btksocket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <qel/base/btkcarrier.h>
#include <qel/base/btkevent.h>
#include <qel/base/btkretry.h>
#include <qel/base/btktrace.h>

#include "btkpoll_p.h"
#include "btksocketaddress_p.h"
#include "btksocketahead_p.h"

namespace {

// The address of a peer: as recorded when its connection was accepted, else from the kernel while it is
// connected.
template<std::size_t size>
btkSocketAddress peerOf(const btkSocket& socket, const std::array<char, size>& noted)
{
    static_assert(size >= sizeof(sockaddr_in6));
    btkSocketAddress address;
    std::memcpy(&address.storage, noted.data(), size);
    return address.storage.ss_family != AF_UNSPEC ? address
                                                  : btkSocketAddress::Of(socket.GetHandle(), getpeername);
}

btkTimeval endOf(btkTimeval limit)
{
    return limit.IsForever() ? btkTimeval::Forever() : btkTimeval::Now() + limit;
}

btkTimeval leftUntil(btkTimeval end)
{
    return end.IsForever() ? end : end - btkTimeval::Now();
}

// Waits; returns the readiness found, none when the limit has passed.
btkReadiness poll(btkHandle handle, btkReadiness awaited, btkTimeval limit)
{
    pollfd asked = {handle, awaited, 0};
    return btkPoll(&asked, 1, limit) < 0 ? btkBroken : static_cast<btkReadiness>(asked.revents);
}

// Receives. `mayBeMore`: whether there may be more data after it; known only where the kernel reports it.
std::ptrdiff_t receivePart(btkHandle handle, void* to, std::size_t size, int flags, bool& mayBeMore)
{
    iovec room = {to, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    msghdr message = {};
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const std::ptrdiff_t count = recvmsg(handle, &message, flags);
    mayBeMore = true;
    const cmsghdr* const told = count < 0 ? nullptr : CMSG_FIRSTHDR(&message);
    if (told != nullptr && told->cmsg_level == IPPROTO_TCP && told->cmsg_type == TCP_CM_INQ) {
        int left = 0;
        std::memcpy(&left, CMSG_DATA(told), sizeof left);
        mayBeMore = left > 0;
    }
    return count;
}

// Receives without ever waiting.
std::ptrdiff_t receiveNow(btkHandle handle, void* to, std::size_t size, bool& mayBeMore)
{
    return btkRetry([&] { return receivePart(handle, to, size, MSG_DONTWAIT, mayBeMore); });
}

class InputEvent final : public btkBaseEvent
{
public:
    explicit InputEvent(btkStreamSocket& of)
        : btkBaseEvent(of.GetHandle(), of.GetAwaitedInput(), true), socket(of)
    {
    }

protected:
    State OnAsk() override
    {
        GetWatch().awaited = socket.GetAwaitedInput();
        return socket.HoldsReadable() ? On : Ask;
    }
    bool OnPolled(btkReadiness ready) override { return socket.IsReadableAfter(ready); }

private:
    btkStreamSocket& socket;
};

// The kernel's data about a connection; an older kernel fills in less, and leaves the rest unchanged.
btkFd connectTo(const btkSocketAddress& address, btkTimeval limit, std::size_t ownRoom)
{
    btkFd made(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made)
        return made;
    if (ownRoom > 0)
        btkSetOwnRoom(made.Get(), ownRoom);
    int error = connect(made.Get(), address.Get(), address.size) == 0 ? 0 : errno;
    if (error == EINPROGRESS || error == EINTR) {
        socklen_t size = sizeof error;
        if (poll(made.Get(), btkWritable, limit) == btkNotReady)
            error = ETIMEDOUT;
        else if (getsockopt(made.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0)
            error = errno;
    }
    if (error == 0) {
        // An unused port may be chosen for this end, and TCP then connects it to itself.
        const btkSocketAddress own = btkSocketAddress::Of(made.Get(), getsockname);
        if (own.GetPort() == address.GetPort() && own.HasSameHost(address))
            error = ECONNREFUSED;
    }
    if (error != 0) {
        made.Reset();
        errno = error;
    }
    return made;
}

} // namespace

// ---- btkStreamSocket

btkStreamSocket::btkStreamSocket() = default;
btkStreamSocket::~btkStreamSocket() = default;

bool btkStreamSocket::Connect(const char* host, int port, btkTimeval limit)
{
    Close();
    if (port < 1 || port > 65535) {
        errno = EINVAL;
        return false;
    }
    const btkTimeval end = endOf(limit);
    const std::vector<btkSocketAddress> addresses = btkResolve(host, port, limit);
    std::size_t rest = addresses.size();
    for (const btkSocketAddress& address : addresses) {
        // Each gets its share of the time, so that a silent one leaves some for the next.
        const btkTimeval left = leftUntil(end);
        const btkTimeval share =
            left.IsForever() ? left : btkTimeval(left.ToSeconds() / static_cast<double>(rest--));
        btkFd connected = connectTo(address, share, ownRoom);
        if (connected) {
            fcntl(connected.Get(), F_SETFL, 0);
            Adopt(std::move(connected));
            if (btkTraces(btkTraceArea::net, btkLevel::info))
                btkTrace(btkTraceArea::net, btkLevel::info, "connected to %s, port %d, as %d",
                         host != nullptr && *host != '\0' ? host : "this machine", port, fd.Get());
            return true;
        }
    }
    if (btkTraces(btkTraceArea::net, btkLevel::warning))
        btkTrace(btkTraceArea::net, btkLevel::warning,
                 "no connection to %s, port %d: ", host != nullptr && *host != '\0' ? host : "this machine",
                 port);
    return false;
}

void btkStreamSocket::Adopt(btkFd connected)
{
    Close();
    fd = std::move(connected);
    btkSetStreamOptions(fd.Get());
}

void btkStreamSocket::Close()
{
    if (fd && btkTraces(btkTraceArea::net, btkLevel::debug))
        btkTrace(btkTraceArea::net, btkLevel::debug, "closed %d", fd.Get());
    fd.Reset();
    peer = {};
    ahead.reset();
    direct = nullptr;
    carrier.reset();
}

void btkStreamSocket::Encrypt(btkFd connected, const btkStreamSocket& from,
                              std::unique_ptr<btkCarrier> carrying)
{
    Close();
    fd = std::move(connected);
    const btkSocketAddress address = peerOf(from, from.peer);
    std::memcpy(peer.data(), &address.storage, peer.size());
    carrier = std::move(carrying);
    direct = carrier.get();
}

bool btkStreamSocket::UseKernelSocket()
{
    if (direct != nullptr && !direct->MoveToTunnel(fd.Get()))
        return false;
    direct = nullptr;
    return true;
}

void btkStreamSocket::ShutdownOutput()
{
    if (direct != nullptr)
        direct->WriteEnd();
    else
        shutdown(fd.Get(), SHUT_WR);
}

// Waits until the socket is ready for `awaited`, at most until `end` or the end that the stop sign sets. False when the
// time is up.
bool btkStreamSocket::Await(btkReadiness awaited, btkTimeval end)
{
    for (;;) {
        const btkTimeval told = stopSign == nullptr ? btkTimeval::Forever() : stopSign->GetEnd();
        const btkHandle sign = stopSign == nullptr || !told.IsForever() ? -1 : stopSign->GetHandle();
        if (direct != nullptr)
            awaited = direct->GetAwaited();
        pollfd asked[] = {{fd.Get(), awaited, 0}, {sign, POLLIN, 0}};
        if (btkPoll(asked, sign < 0 ? 1 : 2, leftUntil(std::min(end, told))) < 0)
            return true;
        if (asked[0].revents != 0)
            return true;
        // If no end is set, the handle number has been reused by another event.
        if (asked[1].revents != 0 && !stopSign->IsKnown())
            stopSign.reset();
        else if (asked[1].revents == 0) {
            limitPassed = true;
            errno = ETIMEDOUT;
            return false;
        }
    }
}

// Repeats `call(flags)`, a send or receive, until it transfers something, fails, or `end` has passed. Without
// a limit or stop sign the call itself waits; otherwise poll does.
template<class Call>
std::ptrdiff_t btkStreamSocket::Transfer(btkReadiness awaited, btkTimeval end, bool waitsFirst, Call call)
{
    limitPassed = stopSign != nullptr && stopSign->IsOver();
    if (limitPassed) {
        errno = ETIMEDOUT;
        return -1;
    }
    const bool mayWait = end.IsForever() && stopSign == nullptr && direct == nullptr;
    const int flags = MSG_NOSIGNAL | (mayWait ? 0 : MSG_DONTWAIT);
    if (waitsFirst && !mayWait && !Await(awaited, end))
        return -1;
    for (;;) {
        const std::ptrdiff_t answer = btkRetry([&] { return call(flags); });
        if (answer >= 0 || errno != EAGAIN)
            return answer;
        if (!Await(awaited, end))
            return -1;
    }
}

std::size_t btkStreamSocket::Send(const void* from, std::size_t size, bool oob)
{
    if (oob) {
        if (size != btkUrgentSize) {
            errno = EINVAL;
            return 0;
        }
        if (direct == nullptr)
            AwaitUrgentTurn();
    }
    const auto transfer = [&](auto call) {
        return Transfer(btkWritable, std::min(endOf(sendLimit), deadline), false, call);
    };
    std::size_t done = 0;
    while (done < size) {
        const char* const rest = static_cast<const char*>(from) + done;
        const std::ptrdiff_t count = transfer([&](int flags) -> std::ptrdiff_t {
            if (direct == nullptr)
                return send(fd.Get(), rest, size - done, flags | (oob ? MSG_OOB : 0));
            return oob ? direct->WriteUrgent(rest) : direct->Write(rest, size - done);
        });
        if (count < 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    // The carrier has taken them, and the peer may wait for the last ones.
    if (direct != nullptr && done > 0 && transfer([&](int) { return direct->Flush(); }) < 0)
        done -= std::clamp<std::size_t>(direct->CountUnsent(), 1, done);
    if (oob && direct == nullptr && urgentSpacing > btkTimeval()) {
        lastUrgent = btkTimeval::Now();
        receivedThen = btkCountReceived(fd.Get());
    }
    if (btkTraces(btkTraceArea::streams, btkLevel::debug))
        btkTrace(btkTraceArea::streams, btkLevel::debug, "sent %zu of %zu %sbytes to %d", done, size,
                 oob ? "urgent " : "", fd.Get());
    return done;
}

std::ptrdiff_t btkStreamSocket::Recv(void* to, std::size_t size, bool oob)
{
    if (!oob)
        return Receive(static_cast<char*>(to), size, Wait::whenNothingIsThere);
    if (direct != nullptr) {
        if (!HasUrgent())
            return 0;
        const btkUrgentValue value = *direct->TakeUrgent();
        std::memcpy(to, value.data(), std::min(size, value.size()));
        return static_cast<std::ptrdiff_t>(std::min(size, value.size()));
    }
    if (ahead == nullptr || ahead->valueCount == 0)
        Settle();
    return ahead == nullptr ? 0 : static_cast<std::ptrdiff_t>(ahead->Pop(to, size));
}

std::ptrdiff_t btkStreamSocket::AwaitAndRecv(void* to, std::size_t size)
{
    return Receive(static_cast<char*>(to), size, Wait::first);
}

std::ptrdiff_t btkStreamSocket::TryRecv(void* to, std::size_t size)
{
    return Receive(static_cast<char*>(to), size, Wait::never);
}

std::size_t btkStreamSocket::RecvAll(void* to, std::size_t size)
{
    std::size_t done = 0;
    while (done < size) {
        const std::ptrdiff_t count = Recv(static_cast<char*>(to) + done, size - done);
        if (count <= 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

std::ptrdiff_t btkStreamSocket::ReceiveRaw(char* to, std::size_t size, Wait wait, btkTimeval end,
                                           bool& mayBeMore)
{
    if (wait == Wait::never)
        return receiveNow(fd.Get(), to, size, mayBeMore);
    return Transfer(btkReadable, end, wait == Wait::first,
                    [&](int flags) { return receivePart(fd.Get(), to, size, flags, mayBeMore); });
}

// One path for both channels. The kernel stops a read at a mark, so the three bytes before one are the last
// of a read; only a read that has filled its room may end among them. A read that leaves nothing ends at no
// mark.
std::ptrdiff_t btkStreamSocket::Receive(char* to, std::size_t size, Wait wait)
{
    if (size == 0)
        return 0;
    const btkTimeval end = wait == Wait::never ? btkTimeval() : std::min(endOf(recvLimit), deadline);
    if (direct != nullptr && wait == Wait::never)
        return direct->Read(to, size);
    if (direct != nullptr)
        return Transfer(btkReadable, end, false, [&](int) { return direct->Read(to, size); });
    for (;;) {
        if (ahead != nullptr && ahead->Count() > 0) {
            if (ahead->isMarkNear)
                ReadToMark();
            const std::size_t held = ahead->Take(to, size);
            if (held > 0)
                return static_cast<std::ptrdiff_t>(held);
            // Parts of a value whose end is still to arrive.
            if (ahead->Count() > 0) {
                if (wait == Wait::never)
                    errno = EAGAIN;
                else if (Await(btkReadable, end))
                    continue;
                return -1;
            }
        }
        bool mayBeMore = true;
        const std::ptrdiff_t got = ReceiveRaw(to, size, wait, end, mayBeMore);
        const bool isMarkKnown = ahead != nullptr && ahead->isMarkNear;
        if (got <= 0 || (!mayBeMore && !isMarkKnown))
            return got;
        const std::size_t count = static_cast<std::size_t>(got);
        if (!IsAtMark() && !isMarkKnown && (count < size || !IsUrgentPending()))
            return got;
        const std::size_t tail = std::min(count, btkBeforeMark);
        GetAhead().bytes.assign(to + count - tail, tail);
        ahead->isMarkNear = true;
        ReadToMark();
        if (count > tail)
            return static_cast<std::ptrdiff_t>(count - tail);
    }
}

std::size_t btkStreamSocket::CountReadable()
{
    if (direct != nullptr) {
        direct->Receive();
        return direct->CountHeld();
    }
    Settle();
    return (ahead == nullptr ? 0 : ahead->Sure()) + btkCountReadable(fd.Get());
}

bool btkStreamSocket::IsReadable(btkTimeval limit)
{
    const btkTimeval end = endOf(limit);
    for (;;) {
        if (ahead != nullptr && ahead->isMarkNear)
            ReadToMark();
        if (HoldsReadable())
            return true;
        const bool isMarkNear = ahead != nullptr && ahead->isMarkNear;
        const btkReadiness ready = poll(fd.Get(), GetAwaitedInput(), leftUntil(end));
        if (ready == btkNotReady)
            return false;
        if (direct != nullptr) {
            direct->Receive();
            continue;
        }
        if ((ready & btkUrgent) == 0 && !isMarkNear)
            return true;
        GetAhead();
        Settle();
    }
}

btkBaseEvent* btkStreamSocket::GetInputEvent()
{
    return new InputEvent(*this);
}

bool btkStreamSocket::HoldsReadable() const
{
    return direct != nullptr ? direct->HoldsReadable() : ahead != nullptr && ahead->Sure() > 0;
}

// A mark that is known and not reached yet must not cause repeated wakeups.
btkReadiness btkStreamSocket::GetAwaitedInput() const
{
    if (direct != nullptr)
        return direct->GetAwaited();
    return ahead != nullptr && ahead->isMarkNear ? btkReadable : btkReadable | btkUrgent;
}

// Without a mark all readable data is ordinary, whatever has arrived since.
bool btkStreamSocket::IsReadableAfter(btkReadiness found)
{
    if (direct != nullptr) {
        if (found != btkNotReady)
            direct->Receive();
        return direct->HoldsReadable();
    }
    const bool isMarkNear = ahead != nullptr && ahead->isMarkNear;
    return !isMarkNear && (found & btkUrgent) == 0 ? found != btkNotReady : IsReadable();
}

bool btkStreamSocket::HasUrgent()
{
    if (direct != nullptr) {
        if (!direct->HasUrgent())
            direct->Receive();
        return direct->HasUrgent();
    }
    if (ahead != nullptr && ahead->valueCount > 0)
        return true;
    return MayReadAhead() && IsUrgentPending();
}

bool btkStreamSocket::MayReadAhead() const
{
    return ahead == nullptr || ahead->Count() < urgentBudget;
}

btkHandle btkStreamSocket::GetUrgentHandle() const
{
    return direct != nullptr && direct->IsInputOver() ? -1 : fd.Get();
}

// A value that cannot be received yet must not cause repeated wakeups.
btkReadiness btkStreamSocket::GetAwaitedUrgent() const
{
    return direct != nullptr ? direct->GetAwaited() : MayReadAhead() ? btkUrgent : btkNotReady;
}

bool btkStreamSocket::IsLost(btkReadiness found) const
{
    return direct != nullptr ? direct->IsLost() : (found & ~btkUrgent) != 0;
}

std::size_t btkStreamSocket::CountWritable(bool& broken) const
{
    const std::size_t room = btkCountWritable(fd.Get(), broken);
    if (direct == nullptr)
        return room;
    broken = broken || direct->IsOutputOver();
    return direct->CountUnsent() > 0 ? 0 : std::min(room, direct->GetCredit());
}

bool btkStreamSocket::MayWrite()
{
    if (direct != nullptr && direct->GetCredit() == 0)
        direct->Receive();
    return direct == nullptr || direct->GetCredit() > 0 || direct->IsOutputOver() || direct->IsInputOver();
}

btkReadiness btkStreamSocket::GetAwaitedOutput()
{
    return MayWrite() ? btkWritable : direct->GetAwaited();
}

std::string btkStreamSocket::GetPeerAddrStr() const
{
    return peerOf(*this, peer).GetText();
}

std::optional<btkUserId> btkStreamSocket::GetPeerUser() const
{
    return carrier != nullptr && direct == nullptr ? carrier->peerUser : btkGetPeerUser(fd.Get());
}

bool btkStreamSocket::BeginsWith(unsigned char byte) const
{
    unsigned char first = 0;
    return ahead == nullptr &&
           btkRetry([&] { return recv(fd.Get(), &first, 1, MSG_PEEK | MSG_DONTWAIT); }) == 1 && first == byte;
}

bool btkStreamSocket::IsPeerOnTheSameMachine() const
{
    if (carrier != nullptr && direct == nullptr)
        return carrier->isPeerOnTheSameMachine;
    const btkSocketAddress address = peerOf(*this, peer);
    if (address.storage.ss_family == AF_UNSPEC)
        return false;
    return address.IsLoopback() || address.HasSameHost(btkSocketAddress::Of(fd.Get(), getsockname));
}
