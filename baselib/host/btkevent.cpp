#include "btkevent.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <sys/eventfd.h>
#include <unistd.h>

#include "btkpoll_p.h"
#include "btktrace.h"

static_assert(sizeof(btkPollSet::Place) == sizeof(pollfd) &&
              offsetof(btkPollSet::Place, ready) == offsetof(pollfd, revents));
static_assert(btkReadable == POLLIN && btkUrgent == POLLPRI && btkWritable == POLLOUT &&
              btkBroken == POLLERR && btkHungUp == POLLHUP && btkInvalid == POLLNVAL &&
              btkOutputClosed == POLLRDHUP);

btkPollSet::btkPollSet(std::size_t size, btkTimeval timeLimit)
    : count(size), limit(timeLimit),
      end(limit.IsForever() || limit == btkTimeval() ? limit : btkTimeval::Now() + limit)
{
    if (count > std::size(first))
        all = allocated = new Place[count];
}

int btkPollSet::Sleep()
{
    constexpr btkTimeval soon(0, 5000);
    const int ready =
        btkPoll(reinterpret_cast<pollfd*>(all), count, asksAgain ? std::min(limit, soon) : limit);
    if (limit > btkTimeval() && !limit.IsForever())
        limit = end - btkTimeval::Now();
    if (btkTraces(btkTraceArea::events, btkLevel::debug))
        btkTrace(btkTraceArea::events, btkLevel::debug, "a wait for %zu events ended with %d", count,
                 marked + ready);
    mayGoOn = ready > 0 || (asksAgain && limit > btkTimeval());
    asksAgain = false;
    return marked + ready;
}

btkReadiness btkBaseEvent::SelectEvents(int type)
{
    static constexpr btkReadiness types[] = {btkReadable, btkWritable, btkUrgent, btkOutputClosed};
    return type >= 0 && type <= 3 ? types[type] : btkNotReady;
}

bool btkBaseEvent::IsSignaled()
{
    if (watch->asks) {
        if (const State state = OnAsk(); state != Ask)
            return state == On;
    }
    pollfd asked = {watch->handle, watch->awaited, 0};
    return btkPoll(&asked, 1, {}) > 0 && (!watch->asks || OnPolled(static_cast<btkReadiness>(asked.revents)));
}

btkEvent::btkEvent(btkBaseEvent* owned) : baseEvent(owned)
{
    if (owned == nullptr)
        return;
    watch = owned->ownWatch;
    owned->watch = &watch;
}

bool btkEvent::IsSignaled()
{
    return baseEvent != nullptr && baseEvent->IsSignaled();
}

void btkEvent::PrepareAsked(btkPollSet::Place& place, btkPollSet& places)
{
    const btkBaseEvent::State state = baseEvent->OnAsk();
    // OnAsk may have changed it.
    place = {watch.handle, watch.awaited, btkNotReady};
    if (state == btkBaseEvent::Ask)
        return;
    place.handle = -1;
    if (state == btkBaseEvent::On)
        places.Mark(place);
    else
        places.AskAgain();
}

bool btkEvent::Finish(const btkPollSet::Place& place)
{
    const bool on = place.IsMarked() || !watch.asks || baseEvent->OnPolled(place.ready);
    wasOn.Set(on);
    return on;
}

int btkEvent::Wait(const List& list, btkTimeval limit, btkTimeval)
{
    return WaitForAny(list.size(), limit, [&](std::size_t i) { return list[i]; });
}

btkHandle Event_Create(bool isSet)
{
    return eventfd(isSet ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void Event_Set(btkHandle event)
{
    const int kept = errno;
    const std::uint64_t one = 1;
    // Fails only when the event has been set 2^64 times; it is set then too.
    [[maybe_unused]] const auto written = write(event, &one, sizeof one);
    errno = kept;
}

void Event_Reset(btkHandle event)
{
    std::uint64_t count = 0;
    // Fails when the event is not set.
    [[maybe_unused]] const auto got = read(event, &count, sizeof count);
}

void Event_Free(btkHandle event)
{
    btkFd(event).Reset();
}
