#pragma once

#include <array>
#include <atomic>

#include <qel/base/baseexport.h>

/// A lock for short sections that the same thread enters most of the time. A thread that has entered many times without
/// having to wait becomes its favourite and enters without an atomic exchange, until another one wants to enter (biased
/// locking). A waiting thread spins before it sleeps. Not recursive. May be used during static initialization, and after
/// the statics have been destroyed.
///
///     static constinit thrBiasedMutex mutex;
///     thread_local thrBiasedMutex::Entrant self;
///     const bool asFavourite = mutex.Lock(self);
///     mutex.Unlock(self, asFavourite);
class BASE_API thrBiasedMutex
{
    struct Seat;

public:
    /// A thread to one mutex, in all calls the same.
    struct Entrant
    {
        unsigned unhindered = 0; // entries in a row
        Seat* seat = nullptr;    // once it has been the favourite
    };

    constexpr thrBiasedMutex() = default;
    thrBiasedMutex(const thrBiasedMutex&) = delete;
    thrBiasedMutex& operator=(const thrBiasedMutex&) = delete;

    /// Returns what Unlock takes.
    bool Lock(Entrant& self)
    {
        if (IsFavourite(self) && EnterAsFavourite(self))
            return true;
        if (TryLock())
            ++self.unhindered;
        else
            Wait(self);
        if (favourite.load(std::memory_order_relaxed) != nullptr || self.unhindered >= needed)
            Choose(self);
        return false;
    }
    void Unlock(const Entrant& self, bool asFavourite)
    {
        if (asFavourite)
            LeaveAsFavourite(self);
        else if (state.exchange(open, std::memory_order_release) == heldAndWaitedFor)
            Wake(state);
    }

    /// Whether the calling thread is the favourite.
    bool IsFavourite(const Entrant& self) const
    {
        return self.seat != nullptr && favourite.load(std::memory_order_relaxed) == self.seat;
    }

private:
    // The favourite writes isTaken and then reads favourite; an evicting thread writes favourite and then reads isTaken.
    // Between the two, the latter makes all threads of the process pass a barrier, so that the favourite needs the
    // compiler's order only.
    bool EnterAsFavourite(const Entrant& self)
    {
        // Orders this section behind those of a thread that has exited, whose address and seat this one may have got.
        self.seat->isTaken.load(std::memory_order_acquire);
        self.seat->isTaken.store(1, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (IsFavourite(self))
            return true;
        LeaveAsFavourite(self);
        return false;
    }
    void LeaveAsFavourite(const Entrant& self)
    {
        self.seat->isTaken.store(0, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (!IsFavourite(self))
            Wake(self.seat->isTaken);
    }
    bool TryLock()
    {
        int expected = open;
        return state.load(std::memory_order_relaxed) == open &&
               state.compare_exchange_strong(expected, held, std::memory_order_acquire);
    }
    void Wait(Entrant& self);
    // In the library that waits: each library has a table of waiting threads of its own.
    static void Wake(std::atomic<int>& changed);
    void Choose(Entrant& self);
    Seat* FindSeat(const Entrant& self);

    // Only its owner writes isTaken: the system may stop a thread between its two steps for so long that it has been
    // evicted meanwhile, and another one is the favourite. Seats are part of the mutex, as a thread may have exited.
    struct Seat
    {
        const Entrant* owner = nullptr;
        std::atomic<int> isTaken = 0;
    };

    enum : int { open, held, heldAndWaitedFor };

    std::atomic<int> state = open;
    // Unhindered entries; more after each eviction, which costs as much as some hundred. Guarded by the lock.
    unsigned needed = 64;
    std::atomic<Seat*> favourite = nullptr;
    // Threads without one are no favourites. The addresses of threads that have exited recur.
    std::array<Seat, 8> seats = {};
};
