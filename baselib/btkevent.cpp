#include <qel/base/btkevent.h>

#include "btkpoll_p.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

// One place for each event of a wait; on the stack unless there are very many.
class PollSet
{
public:
    explicit PollSet(std::size_t count)
    {
        if (count > near.size()) {
            far.resize(count);
            all = far.data();
        }
    }
    PollSet(const PollSet&) = delete;
    PollSet& operator=(const PollSet&) = delete;

    pollfd* Get() { return all; }

private:
    std::array<pollfd, 512> near;
    std::vector<pollfd> far;
    pollfd* all = near.data();
};

// Stands among the events of a place whose event is on without its descriptor; means nothing to the host.
constexpr short onMark = 0x4000;

} // namespace

short btkBaseEvent::SelectEvents(int type)
{
    static constexpr short events[] = {POLLIN, POLLOUT, POLLPRI};
    return type >= 0 && type <= 2 ? events[type] : short(0);
}

bool btkBaseEvent::IsSignaled()
{
    if (asks && OnAsk() != Ask)
        return true;
    pollfd asked = {handle, events, 0};
    return btkPoll(&asked, 1, {}) > 0 && (!asks || OnPolled(asked.revents));
}

bool btkEvent::IsSignaled()
{
    return baseEvent != nullptr && baseEvent->IsSignaled();
}

bool btkEvent::Prepare(pollfd& place) const
{
    // The host passes over places with descriptor -1.
    place = {-1, 0, 0};
    if (baseEvent == nullptr)
        return false;
    const btkBaseEvent::State state = baseEvent->asks ? baseEvent->OnAsk() : btkBaseEvent::Ask;
    place.events = static_cast<short>(baseEvent->events | (state == btkBaseEvent::Ask ? 0 : onMark));
    if (state != btkBaseEvent::On)
        place.fd = baseEvent->handle;
    return state == btkBaseEvent::On;
}

bool btkEvent::Finish(const pollfd& place)
{
    bool on = (place.events & onMark) != 0;
    if (!on && place.revents != 0)
        on = !baseEvent->asks || baseEvent->OnPolled(place.revents);
    wasSignaled.store(on, std::memory_order_relaxed);
    return on;
}

int btkEvent::Wait(const List& list, btkTimeval limit, btkTimeval)
{
    const std::size_t count = list.size();
    PollSet places(count);
    pollfd* const asked = places.Get();
    const btkTimeval end = limit.IsForever() || limit == btkTimeval() ? limit : btkTimeval::Now() + limit;
    for (;;) {
        bool awake = false;
        for (std::size_t i = 0; i < count; ++i) {
            if (list[i] != nullptr)
                awake |= list[i]->Prepare(asked[i]);
            else
                asked[i] = {-1, 0, 0};
        }

        const int answer = btkPoll(asked, count, awake ? btkTimeval() : limit);

        int signaled = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (list[i] != nullptr && list[i]->Finish(asked[i]))
                ++signaled;
        }
        if (signaled > 0 || answer <= 0)
            return signaled;
        if (!limit.IsForever() && limit > btkTimeval())
            limit = end - btkTimeval::Now();
    }
}

btkHandle Event_Create(bool isSet)
{
    return eventfd(isSet ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK);
}

void Event_Set(btkHandle event)
{
    const int kept = errno;
    const std::uint64_t one = 1;
    // Fails only when the event has been set 2^64 times, and is set then too.
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
