#include "btktunnel.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <utility>

#include <qel/base/btkevent.h>
#include <qel/base/btkframes.h>
#include <qel/base/thrthread.h>

#include "btkpoll_p.h"
#include "btksocketaddress_p.h"

namespace {

constexpr std::string_view opening = "qel tunnel 1\n";
// Of frames that the output has not taken.
constexpr std::size_t mostWaiting = 65536;
constexpr std::size_t mostWithUrgents = mostWaiting + 16384;
constexpr std::size_t pieceSize = 16384;
constexpr std::size_t leastGrant = btkFrameWindow / 8;
constexpr btkTimeval urgentSpacing(0, 200000);
constexpr btkTimeval sendLimit(2, 0);
// For a user that reads slowly: no event signals that there is room again.
constexpr btkTimeval shortestPause(0, 200);
constexpr btkTimeval longestPause(0, 50000);
constexpr btkTimeval destructionLimit(2, 0);
// Without a byte sent, once the user has left.
constexpr btkTimeval patienceAlone(60, 0);
// Frames that are taken from the channel in one step.
constexpr int mostReads = 16;

// Connects two sockets with each other. Another program may connect to the port meanwhile; it is turned away.
bool connectPair(btkStreamSocket& one, btkStreamSocket& other)
{
    btkAcceptSocket door;
    if (!door.Listen(0, "127.0.0.1"))
        return false;
    btkSetOwnRoom(door.GetHandle(), btkUrgentRoom);
    one.SetOwnRoom(btkUrgentRoom);
    if (!one.Connect("127.0.0.1", door.GetPortN(), sendLimit))
        return false;
    btkSocketAddress own;
    getsockname(one.GetHandle(), own.Get(), &own.size);
    while (door.Wait(sendLimit, 1) == 1 && door.Accept(&other)) {
        btkSocketAddress peer;
        if (getpeername(other.GetHandle(), peer.Get(), &peer.size) == 0 && peer.HasSameHost(own) &&
            peer.GetPort() == own.GetPort())
            return true;
    }
    errno = ECONNREFUSED;
    return false;
}

bool sendOpening(btkHandle output, btkTimeval end)
{
    for (std::string_view rest = opening; !rest.empty();) {
        const std::ptrdiff_t count = btkTryWrite(output, rest.data(), rest.size());
        pollfd asked = {output, POLLOUT, 0};
        if (count < 0)
            return false;
        rest.remove_prefix(static_cast<std::size_t>(count));
        if (!rest.empty() && btkPoll(&asked, 1, end - btkTimeval::Now()) == 0) {
            errno = ETIMEDOUT;
            return false;
        }
    }
    return true;
}

bool receiveOpening(btkHandle input, btkTimeval end)
{
    for (std::string_view rest = opening; !rest.empty();) {
        std::array<char, opening.size()> got = {};
        if (!btkIsReadable(input, end - btkTimeval::Now())) {
            errno = ETIMEDOUT;
            return false;
        }
        const std::ptrdiff_t count = btkRead(input, got.data(), rest.size());
        const std::string_view bytes(got.data(),
                                     static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
        if (count <= 0 || !rest.starts_with(bytes)) {
            errno = count <= 0 ? ECONNRESET : EPROTO;
            return false;
        }
        rest.remove_prefix(bytes.size());
    }
    return true;
}

class Descriptors final : public btkChannel
{
public:
    Descriptors(btkFd from, btkFd to) : input(std::move(from)), output(std::move(to)) {}

    btkHandle GetInput() const override { return input.Get(); }
    btkHandle GetOutput() const override { return output.Get(); }
    std::ptrdiff_t Read(char* to, std::size_t size) override
    {
        const std::ptrdiff_t count = btkRead(input.Get(), to, size);
        if (count <= 0)
            input.Reset();
        return count > 0 ? count : -1;
    }
    std::ptrdiff_t Write(const char* from, std::size_t size) override
    {
        return btkTryWrite(output.Get(), from, size);
    }
    void Close() override
    {
        output.Reset();
        input.Reset();
    }

private:
    btkFd input, output;
};

} // namespace

btkChannel::~btkChannel() = default;

struct [[gnu::visibility("hidden")]] btkTunnel::Loop
{
    enum class Wish { serve, finish, stop };

    Loop() : wake(Event_Create(false)), piece(new char[pieceSize])
    {
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    ~Loop()
    {
        Event_Free(wake);
    }

    void Tell(Wish told)
    {
        wish = told;
        Event_Set(wake);
    }

    int Run();
    void Serve();
    bool Step();
    bool IsDone();
    bool MoveToUser();
    bool MoveFromUser();
    void TakeUrgents();
    void Flush();
    void Wait();
    bool Receive();

    bool MayTake() const
    {
        return !link.isDeaf && link.reader.GetCredit() > 0 && link.CountWaiting() < mostWaiting;
    }
    btkReadiness AwaitedOfUser() const;

    btkStreamSocket user;
    btkFrameLink link;
    btkHandle wake;
    std::atomic<Wish> wish = Wish::serve;
    std::atomic<bool> isAlone = false; // nobody waits for the end
    std::shared_ptr<Loop> self;        // while the thread runs

    std::mutex mutex;
    std::condition_variable ends;
    bool isOver = false;
    std::string failure;

    std::unique_ptr<char[]> piece;

    btkTimeval pause = shortestPause;
    btkTimeval lastSent;      // or taken by the user
    bool isHeld = false;      // data for the user, who has no room
    bool isUserEnded = false; // its data, and the end's frame follows
    bool hasUserLeft = false; // and nothing more will be heard from it than what has arrived
    bool isEndSent = false;
    bool isLost = false; // the connection
    bool isFinishing = false;
    bool isShut = false;   // the user knows the end of the other's data
    bool isUnread = false; // there is no user: what arrives is dropped
};

int btkTunnel::Loop::Run()
{
    try {
        Serve();
    } catch (const std::bad_alloc&) {
        // As when the connection is lost.
    }
    // Unless both directions have ended, the user must not take what it has received for everything.
    const std::string why = isShut ? std::string() : link.channel->GetFailure();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        failure = why;
        isOver = true;
        ends.notify_all();
    }
    if (!isShut && user.IsOpen())
        btkResetOnClose(user.GetHandle(), true);
    user.Close();
    link.channel->Close();
    return 0;
}

void btkTunnel::Loop::Serve()
{
    lastSent = btkTimeval::Now();
    while (wish != Wish::stop && !isLost && Step()) {
        Wait();
        if (isAlone && btkTimeval::Now() - lastSent > patienceAlone)
            return;
    }
}

// Moves what can be moved without waiting. False when all is done, or the connection is lost.
bool btkTunnel::Loop::Step()
{
    if (!MoveToUser() || !MoveFromUser())
        return false;
    Flush();
    return !IsDone();
}

bool btkTunnel::Loop::IsDone()
{
    // Until the other end's data has ended, it needs credit.
    if (!isShut && wish != Wish::finish)
        return false;
    if (link.isDeaf)
        return true;
    if (!isEndSent || link.CountWaiting() > 0)
        return false;
    isFinishing = !link.channel->FinishOutput() || !link.channel->HasArrived();
    return !isFinishing;
}

bool btkTunnel::Loop::MoveToUser()
{
    btkFrameReader& reader = link.reader;
    if (isUnread) {
        reader.Drop(reader.GetData().size());
        return true;
    }
    while (const std::optional<btkUrgentValue> value = reader.TakeUrgent())
        if (user.Send(value->data(), value->size(), true) != value->size())
            return false;
    isHeld = false;
    while (!reader.GetData().empty() && !isHeld) {
        // An urgent value is announced to the user however full its receive buffer is.
        const std::string_view data = reader.GetData().substr(0, btkCountPeerRoom(user.GetHandle()));
        const std::ptrdiff_t count =
            data.empty() ? 0 : btkTryWrite(user.GetHandle(), data.data(), data.size());
        if (count < 0)
            return false;
        if (count > 0) {
            pause = shortestPause;
            lastSent = btkTimeval::Now();
        }
        isHeld = count == 0;
        reader.Drop(static_cast<std::size_t>(count));
    }
    if (reader.IsEnded() && reader.GetData().empty() && !isShut) {
        user.ShutdownOutput();
        isShut = true;
    }
    if (const std::size_t grant = reader.TakeGrant(leastGrant); grant > 0 && !reader.IsEnded())
        btkPutCreditFrame(link.frames, grant);
    return true;
}

void btkTunnel::Loop::TakeUrgents()
{
    btkUrgentValue value = {};
    while (link.CountWaiting() < mostWithUrgents && user.HasUrgent() &&
           user.Recv(value.data(), value.size(), true) == static_cast<std::ptrdiff_t>(value.size()))
        btkPutUrgentFrame(link.frames, value);
}

bool btkTunnel::Loop::MoveFromUser()
{
    if (isUserEnded || link.isDeaf)
        return true;
    // Leads on to a mark that is known.
    if (!MayTake())
        user.IsReadable();
    TakeUrgents();
    while (!isUserEnded && MayTake()) {
        const std::ptrdiff_t count = user.TryRecv(piece.get(), std::min(pieceSize, link.reader.GetCredit()));
        const int error = errno;
        // Reading finds them, too.
        TakeUrgents();
        if (count < 0)
            return error == EAGAIN;
        if (count == 0) {
            isUserEnded = true;
            btkPutEndFrame(link.frames);
        } else {
            link.reader.UseCredit(static_cast<std::size_t>(count));
            btkPutDataFrame(link.frames, {piece.get(), static_cast<std::size_t>(count)});
        }
    }
    return true;
}

void btkTunnel::Loop::Flush()
{
    if (link.Flush())
        lastSent = btkTimeval::Now();
    if (link.CountWaiting() == 0)
        isEndSent = isUserEnded;
}

btkReadiness btkTunnel::Loop::AwaitedOfUser() const
{
    const btkReadiness awaited = user.GetAwaitedInput();
    if (MayTake())
        return awaited;
    // Urgent values only. With a mark that is not reached yet, more bytes lead to it.
    const bool isMarkNear = (awaited & btkUrgent) == 0;
    return !user.MayReadAhead() || link.CountWaiting() >= mostWithUrgents ? btkNotReady
           : isMarkNear                                                   ? btkReadable
                                                                          : btkUrgent;
}

void btkTunnel::Loop::Wait()
{
    // Sends the frames that Step could not, in full or in part.
    if (link.sent > mostWaiting)
        link.frames.erase(0, std::exchange(link.sent, 0));
    const std::unique_ptr<btkChannel>& channel = link.channel;
    const bool isUserAsked = !isUserEnded && !hasUserLeft && !link.isDeaf;
    const bool wantsRoom = link.CountWaiting() > 0 || channel->NeedsRoom();
    pollfd asked[] = {
        {wake, POLLIN, 0},
        {channel->GetInput(), POLLIN, 0},
        {link.isDeaf ? -1 : channel->GetOutput(), static_cast<short>(wantsRoom ? POLLOUT : 0), 0},
        {isUserAsked ? user.GetHandle() : -1, isUserAsked ? AwaitedOfUser() : btkNotReady, 0}};
    btkTimeval limit = isAlone ? patienceAlone : btkTimeval::Forever();
    if (isHeld || isFinishing) {
        limit = pause;
        pause = std::min(pause + pause, longestPause);
    }
    if (channel->HoldsInput() || (isUserAsked && MayTake() && user.HoldsReadable()))
        limit = btkTimeval();
    isLost = btkPoll(asked, 4, limit) < 0;
    Event_Reset(wake);
    hasUserLeft = hasUserLeft || (asked[3].revents & POLLHUP) != 0;
    const bool isUserBroken = (asked[3].revents & (POLLERR | POLLNVAL)) != 0;
    link.isDeaf = link.isDeaf || (asked[2].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    const bool mayReceive = asked[1].revents != 0 || channel->HoldsInput() ||
                            (channel->NeedsRoom() && (asked[2].revents & POLLOUT) != 0);
    isLost = isLost || isUserBroken || (mayReceive && !Receive());
}

// False when the input has ended before the data, or is not valid.
bool btkTunnel::Loop::Receive()
{
    int left = mostReads;
    do {
        const std::ptrdiff_t count = link.channel->Read(piece.get(), pieceSize);
        if (count < 0)
            return link.reader.IsEnded();
        if (count > 0 && !link.reader.Take({piece.get(), static_cast<std::size_t>(count)}))
            return false;
    } while (link.channel->HoldsInput() && --left > 0);
    return true;
}

// ---- tunnels that nobody waits for

namespace {

constexpr btkTimeval exitLimit(2, 0);

// Never freed: their threads may outlive the statics.
struct Left
{
    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::shared_ptr<void>> loops;
    void (*stop)(void* loop) = nullptr;
};

Left& left()
{
    static Left* const all = new Left;
    return *all;
}

std::chrono::microseconds microsecondsOf(btkTimeval limit)
{
    return std::chrono::microseconds(static_cast<long long>(limit.ToSeconds() * 1e6));
}

void awaitTheLeft()
{
    Left& all = left();
    std::unique_lock<std::mutex> lock(all.mutex);
    const auto areNone = [&] { return all.loops.empty(); };
    if (all.changed.wait_for(lock, microsecondsOf(exitLimit), areNone))
        return;
    for (const std::shared_ptr<void>& loop : all.loops)
        all.stop(loop.get());
    all.changed.wait_for(lock, microsecondsOf(exitLimit), areNone);
}

} // namespace

// ---- btkTunnel

btkTunnel::btkTunnel() = default;

btkTunnel::~btkTunnel()
{
    Finish(destructionLimit);
}

std::unique_ptr<btkStreamSocket> btkTunnel::Open(btkFd input, btkFd output, btkTimeval limit)
{
    const btkTimeval end = limit.IsForever() ? limit : btkTimeval::Now() + limit;
    const bool isSent = sendOpening(output.Get(), end);
    // A program may have written its error message and exited: read the message, which explains the failure.
    if ((!isSent && errno != EPIPE) || !receiveOpening(input.Get(), end))
        return nullptr;
    if (!isSent) {
        errno = ECONNRESET;
        return nullptr;
    }
    btkFrameLink link;
    link.channel = std::make_unique<Descriptors>(std::move(input), std::move(output));
    return Open(link);
}

std::unique_ptr<btkStreamSocket> btkTunnel::Open(btkFrameLink& link)
{
    auto made = std::make_shared<Loop>();
    auto near = std::make_unique<btkStreamSocket>();
    if (made->wake < 0 || !connectPair(*near, made->user))
        return nullptr;
    made->user.SetSendLimit(sendLimit);
    made->user.SetUrgentSpacing(urgentSpacing);
    return Start(std::move(made), link) ? std::move(near) : nullptr;
}

void btkTunnel::LeaveRest(btkFrameLink& link)
{
    auto made = std::make_shared<Loop>();
    made->isUserEnded = made->hasUserLeft = made->isUnread = true;
    if (made->wake >= 0 && Start(std::move(made), link))
        Leave();
}

// False, and the link stays the caller's, when no thread can be started.
bool btkTunnel::Start(std::shared_ptr<Loop> made, btkFrameLink& link)
{
    const auto run = [](void* arg) {
        Loop* const started = static_cast<Loop*>(arg);
        const int code = started->Run();
        const std::shared_ptr<Loop> last = std::move(started->self);
        if (last->isAlone) {
            Left& all = left();
            const std::lock_guard<std::mutex> lock(all.mutex);
            all.loops.erase(last);
            all.changed.notify_all();
        }
        return code;
    };
    made->self = made;
    made->link = std::move(link);
    void* const launched = StrictThread_Launch(run, made.get(), nullptr);
    if (launched == StrictThread_Refused) {
        link = std::move(made->link);
        made->self.reset();
        errno = EAGAIN;
        return false;
    }
    loop = std::move(made);
    thread = launched;
    return true;
}

void btkTunnel::Finish(btkTimeval limit)
{
    if (thread == nullptr)
        return;
    loop->Tell(Loop::Wish::finish);
    if (!btkIsReadable(StrictThread_GetExitHandle(thread), limit))
        loop->Tell(Loop::Wish::stop);
    int code = 0;
    StrictThread_Wait(thread, &code);
    StrictThread_Free(thread);
    thread = nullptr;
    loop.reset();
}

void btkTunnel::Leave()
{
    if (thread == nullptr)
        return;
    {
        Left& all = left();
        const std::lock_guard<std::mutex> lock(all.mutex);
        if (all.stop == nullptr) {
            all.stop = [](void* one) { static_cast<Loop*>(one)->Tell(Loop::Wish::stop); };
            std::atexit(&awaitTheLeft);
        }
        const std::lock_guard<std::mutex> loopLock(loop->mutex);
        if (!loop->isOver) {
            all.loops.insert(loop);
            loop->isAlone = true;
        }
    }
    loop->Tell(Loop::Wish::finish);
    StrictThread_Free(thread);
    thread = nullptr;
    loop.reset();
}

std::string btkTunnel::GetFailure(btkTimeval limit)
{
    if (loop == nullptr)
        return {};
    std::unique_lock<std::mutex> lock(loop->mutex);
    loop->ends.wait_for(lock, microsecondsOf(limit), [&] { return loop->isOver; });
    return loop->failure;
}
