#include "btkcarrier.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include <qel/base/btkretry.h>
#include <qel/base/btksocket.h>

#include "btkpoll_p.h"

namespace {

// A frame of data fills a record of TLS.
constexpr std::size_t recordSize = 16384;
constexpr std::size_t mostData = recordSize - btkFrameHeader;
constexpr std::size_t leastGrant = btkFrameWindow / 4;
// Peers grant no less at once.
constexpr std::size_t leastPeerGrant = btkFrameWindow / 8;
// In one call. Only a peer that sends nothing but the smallest frames reaches it, and delays itself.
constexpr int mostReads = 4096;

} // namespace

btkCarrier::btkCarrier(std::unique_ptr<btkChannel> channel, std::vector<std::string> names,
                       const btkStreamSocket& connection)
    : peerNames(std::move(names)), isPeerOnTheSameMachine(connection.IsPeerOnTheSameMachine())
{
    link.channel = std::move(channel);
}

btkCarrier::~btkCarrier()
{
    try {
        End();
    } catch (const std::bad_alloc&) {
        // The peer finds the connection lost.
    }
    if (link.channel != nullptr)
        link.channel->Close();
}

// Sends the end of the data. A thread sends what the channel does not take at once.
void btkCarrier::End()
{
    if (tunnel != nullptr) {
        tunnel->Leave();
        return;
    }
    // Unread input would reset the connection.
    Receive();
    if (IsLost())
        return;
    WriteEnd();
    btkChannel& channel = *link.channel;
    const bool isSent = link.CountWaiting() == 0 && (link.isDeaf || channel.FinishOutput());
    // So would credit that arrives after the channel is closed.
    const bool mayGetCredit = !isInputOver && btkFrameWindow - link.reader.GetCredit() >= leastPeerGrant;
    if (!isSent || (mayGetCredit && !channel.HasArrived())) {
        btkTunnel rest;
        rest.LeaveRest(link);
    }
}

// ---- input

// Reads the data that comes next right into the caller's memory.
std::ptrdiff_t btkCarrier::Read(char* to, std::size_t size)
{
    btkFrameReader& reader = link.reader;
    std::size_t done = std::min(size, CountHeld());
    std::memcpy(to, reader.GetData().data(), done);
    reader.Drop(done);
    for (int left = mostReads; left > 0 && done < size && !isInputOver && !reader.IsEnded(); --left) {
        if (done > 0 && !link.channel->HoldsInput())
            break;
        if (const std::size_t next = std::min(reader.GetNextData(), size - done); next > 0) {
            const std::size_t count = Get(to + done, next);
            reader.TakeOutside(count);
            done += count;
            if (count == 0)
                break;
        } else if (std::array<char, btkFrameHeader> header; !Parse(header.data(), reader.GetNextHeader())) {
            break;
        }
    }
    Grant();
    if (done > 0 || reader.IsEnded())
        return static_cast<std::ptrdiff_t>(done);
    errno = isInputOver ? ECONNRESET : EAGAIN;
    return -1;
}

// Reads from the channel. Returns the number of bytes.
std::size_t btkCarrier::Get(char* to, std::size_t size)
{
    const std::ptrdiff_t count = link.channel->Read(to, size);
    if (count < 0) {
        isInputOver = true;
        if (!link.reader.IsEnded())
            Lose();
    }
    return static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0));
}

// Reads at most `size` bytes into `room` and parses them. False when there are none, they are not valid, or there is no
// memory to hold them.
bool btkCarrier::Parse(char* room, std::size_t size)
{
    const std::size_t count = Get(room, size);
    try {
        if (count > 0 && !link.reader.Take({room, count}))
            Lose();
    } catch (const std::bad_alloc&) {
        Lose();
    }
    return count > 0 && !isInputOver;
}

// Closes the channel: later bytes of the peer cannot be interpreted.
void btkCarrier::Lose()
{
    isInputOver = link.isDeaf = true;
    link.channel->Close();
}

void btkCarrier::Grant()
{
    try {
        if (const std::size_t grant = link.reader.TakeGrant(leastGrant); grant > 0 && !link.reader.IsEnded())
            btkPutCreditFrame(link.frames, grant);
    } catch (const std::bad_alloc&) {
        Lose(); // the peer would wait for it
    }
    if (link.CountWaiting() > 0)
        link.Flush();
}

void btkCarrier::Receive()
{
    std::array<char, recordSize> piece;
    for (int left = mostReads; left > 0 && !isInputOver && Parse(piece.data(), piece.size()); --left)
        if (!link.channel->HoldsInput())
            break;
    if (link.CountWaiting() > 0)
        link.Flush();
}

bool btkCarrier::HoldsReadable()
{
    if (CountHeld() == 0 && !isInputOver && link.channel->HoldsInput())
        Receive();
    return CountHeld() > 0 || isInputOver || link.reader.IsEnded();
}

std::optional<btkUrgentValue> btkCarrier::TakeUrgent()
{
    return link.reader.TakeUrgent();
}

// ---- output

std::ptrdiff_t btkCarrier::Flush()
{
    link.Flush();
    // The peer may be waiting for room as well. This flushes, too.
    if (link.CountWaiting() > 0)
        Receive();
    if (link.CountWaiting() > 0) {
        errno = EAGAIN;
        return -1;
    }
    errno = EPIPE;
    return link.isDeaf ? -1 : 0;
}

std::ptrdiff_t btkCarrier::Write(const char* from, std::size_t size)
{
    // Nothing is taken if there is no memory for it.
    link.frames.reserve(btkFrameHeader + std::min(size, mostData));
    std::size_t done = 0;
    while (done < size && !IsOutputOver() && Flush() == 0) {
        if (link.reader.GetCredit() == 0)
            Receive();
        const std::size_t count = std::min({size - done, GetCredit(), mostData});
        if (count == 0) {
            errno = isInputOver ? EPIPE : EAGAIN;
            break;
        }
        btkPutDataFrame(link.frames, {from + done, count});
        link.reader.UseCredit(count);
        done += count;
    }
    if (done > 0) {
        link.Flush();
        return static_cast<std::ptrdiff_t>(done);
    }
    if (IsOutputOver())
        errno = EPIPE;
    return -1;
}

std::ptrdiff_t btkCarrier::WriteUrgent(const char* value)
{
    if (isEndPut) {
        errno = EPIPE;
        return -1;
    }
    if (Flush() < 0)
        return -1;
    btkUrgentValue bytes;
    std::copy_n(value, bytes.size(), bytes.begin());
    btkPutUrgentFrame(link.frames, bytes);
    link.Flush();
    return static_cast<std::ptrdiff_t>(bytes.size());
}

void btkCarrier::WriteEnd()
{
    if (!isEndPut)
        btkPutEndFrame(link.frames);
    isEndPut = true;
    link.Flush();
}

btkReadiness btkCarrier::GetAwaited() const
{
    const bool wantsRoom = (link.CountWaiting() > 0 && !link.isDeaf) || link.channel->NeedsRoom();
    return (isInputOver ? btkNotReady : btkReadable) | (wantsRoom ? btkWritable : btkNotReady);
}

// ---- the connection

bool btkCarrier::MoveToTunnel(btkHandle connection)
{
    if (IsLost()) {
        errno = ECONNRESET;
        return false;
    }
    auto made = std::make_unique<btkTunnel>();
    if (isPeerOnTheSameMachine)
        peerUser = btkGetPeerUser(connection);
    const std::unique_ptr<btkStreamSocket> near = made->Open(link);
    if (near == nullptr)
        return false;
    tunnel = std::move(made);
    btkRetry([&] { return dup3(near->GetHandle(), connection, O_CLOEXEC); });
    return true;
}

std::string btkCarrier::GetFailure(btkTimeval limit)
{
    if (tunnel != nullptr)
        return tunnel->GetFailure(limit);
    const btkTimeval end = limit.IsForever() ? limit : btkTimeval::Now() + limit;
    for (;;) {
        Receive();
        pollfd asked = {link.channel->GetInput(), POLLIN, 0};
        const btkTimeval left = end.IsForever() ? end : end - btkTimeval::Now();
        if (isInputOver || btkPoll(&asked, 1, left) <= 0)
            return link.channel->GetFailure();
    }
}
