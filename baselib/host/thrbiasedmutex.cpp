#include "thrbiasedmutex.h"

#include <algorithm>
#include <chrono>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int looks = 200;
constexpr unsigned mostNeeded = 1U << 14; // entries, beside which an eviction costs nothing that counts

long callBarrier(int command)
{
    return syscall(SYS_membarrier, command, 0, 0);
}

// Whether threads can be evicted: older kernels, and sandboxes, may refuse the barrier.
bool hasBarrier()
{
    static const bool has = callBarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) == 0;
    return has;
}

} // namespace

void thrBiasedMutex::Wait(Entrant& self)
{
    self.unhindered = 0;
    for (int look = 0; look < looks; ++look)
        if (TryLock())
            return;
    while (state.exchange(heldAndWaitedFor, std::memory_order_acquire) != open)
        state.wait(heldAndWaitedFor, std::memory_order_relaxed);
}

void thrBiasedMutex::Wake(std::atomic<int>& changed)
{
    changed.notify_one();
}

// With the lock held in the ordinary way: evicts the favourite, and waits until it is outside; or makes this thread it.
void thrBiasedMutex::Choose(Entrant& self)
{
    if (Seat* const evicted = favourite.load(std::memory_order_relaxed)) {
        favourite.store(nullptr, std::memory_order_relaxed);
        // In a sandbox entered meanwhile it may fail: nothing is under way for that long.
        if (callBarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED) != 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int look = 0; look < looks && evicted->isTaken.load(std::memory_order_relaxed) != 0; ++look) {
        }
        while (evicted->isTaken.load(std::memory_order_acquire) != 0)
            evicted->isTaken.wait(1, std::memory_order_acquire);
        needed = std::min(needed * 8, mostNeeded);
    } else if (hasBarrier()) {
        self.seat = FindSeat(self);
        favourite.store(self.seat, std::memory_order_relaxed);
    }
    self.unhindered = 0;
}

// The seat of this thread, or the next unused one. Null: none is left.
thrBiasedMutex::Seat* thrBiasedMutex::FindSeat(const Entrant& self)
{
    const auto found = std::find_if(seats.begin(), seats.end(), [&](const Seat& seat) {
        return seat.owner == &self || seat.owner == nullptr;
    });
    if (found == seats.end())
        return nullptr;
    found->owner = &self;
    return &*found;
}
