#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <numeric>
#include <sys/resource.h>

#include "btkpoll_p.h"

namespace {

// Sleep of a wait that cannot watch all its descriptors, before it polls again.
const btkTimeval slice(0.01);

int pollOnce(pollfd* asked, std::size_t count, btkTimeval limit)
{
    const timespec left = {limit.GetSeconds(), limit.GetMicroseconds() * 1000L};
    return ppoll(asked, count, limit.IsForever() ? nullptr : &left, nullptr);
}

std::size_t largestPoll()
{
    rlimit most = {};
    return getrlimit(RLIMIT_NOFILE, &most) == 0 ? std::max<std::size_t>(most.rlim_cur, 1) : 1;
}

// Merges the entries of a wait into one for each descriptor.
class MergedPoll
{
public:
    MergedPoll(pollfd* entries, std::size_t size)
        : asked(entries), count(size), order(new (std::nothrow) std::size_t[size]),
          merged(new (std::nothrow) pollfd[size])
    {
        if (order != nullptr && merged != nullptr)
            merge();
    }

    // Returns as ppoll does; with too many descriptors for one call, polls all of them and then sleeps for a
    // slice at most.
    int poll(btkTimeval limit)
    {
        if (order == nullptr || merged == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        const std::size_t most = largestPoll();
        int ready = 0;
        for (std::size_t first = 0; first < used && ready >= 0; first += most) {
            const int found =
                pollOnce(&merged[first], std::min(most, used - first), used <= most ? limit : btkTimeval());
            ready = found < 0 ? found : ready + found;
        }
        if (ready == 0 && used > most)
            ready = pollOnce(&merged[0], most, std::min(limit, slice));
        return ready > 0 ? distribute() : ready;
    }

private:
    void merge()
    {
        std::iota(order.get(), order.get() + count, std::size_t(0));
        std::sort(order.get(), order.get() + count,
                  [this](std::size_t a, std::size_t b) { return asked[a].fd < asked[b].fd; });
        for (std::size_t i = 0; i < count; ++i) {
            const pollfd& entry = asked[order[i]];
            if (entry.fd < 0)
                continue;
            if (used == 0 || merged[used - 1].fd != entry.fd)
                merged[used++] = {entry.fd, 0, 0};
            merged[used - 1].events = static_cast<short>(merged[used - 1].events | entry.events);
        }
    }

    int distribute()
    {
        int ready = 0;
        const pollfd* from = merged.get();
        for (std::size_t i = 0; i < count; ++i) {
            pollfd& entry = asked[order[i]];
            entry.revents = 0;
            if (entry.fd < 0)
                continue;
            while (from->fd != entry.fd)
                ++from;
            entry.revents = static_cast<short>(from->revents & (entry.events | POLLERR | POLLHUP | POLLNVAL));
            ready += entry.revents != 0;
        }
        return ready;
    }

    pollfd* asked;
    std::size_t count;
    std::unique_ptr<std::size_t[]> order; // of the entries by descriptor
    std::unique_ptr<pollfd[]> merged;
    std::size_t used = 0;
};

// Polls in parts, after the system has refused a single call.
int pollInParts(pollfd* asked, std::size_t count, btkTimeval limit)
{
    const int ready = MergedPoll(asked, count).poll(limit);
    if (ready < 0 && errno != EINTR) {
        const btkTimeval pause = std::min(limit, slice);
        pollOnce(nullptr, 0, pause);
    }
    return ready;
}

} // namespace

int btkPoll(pollfd* asked, std::size_t count, btkTimeval limit)
{
    const bool timed = limit > btkTimeval() && !limit.IsForever();
    const btkTimeval end = timed ? btkTimeval::Now() + limit : limit;
    for (;;) {
        int ready = pollOnce(asked, count, limit);
        const bool isRefused = ready < 0 && errno != EINTR;
        if (isRefused)
            ready = pollInParts(asked, count, limit);
        if (ready > 0 || (ready == 0 && !isRefused))
            return ready;
        if (timed)
            limit = end - btkTimeval::Now();
        if (isRefused && !limit.IsForever() && limit <= btkTimeval())
            return 0;
    }
}
