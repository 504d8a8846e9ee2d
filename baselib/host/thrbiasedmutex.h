#pragma once

#include <atomic>

#include <qel/base/baseexport.h>

/// A lock for short sections that the same thread enters most of the time. A thread that has entered many times without
/// having to wait becomes its favourite and enters without an atomic exchange, until another one wants to enter (biased
/// locking). A waiting thread spins before it sleeps. Not recursive. May be used during static initialization, and after
/// the statics have been destroyed.
///
///     static constinit thrBiasedMutex mutex;
///     thread_local thrBiasedMutex::Entrant self;
///     const thrBiasedMutex::Section section(mutex, self);
class BASE_API thrBiasedMutex
{
public:
    /// A thread to one mutex, in all calls the same.
    struct Entrant
    {
        unsigned unhindered = 0; // entries in a row
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

    bool IsFavourite(const Entrant& self) const { return favourite.load(std::memory_order_relaxed) == &self; }

    /// Holds the lock for the length of a block.
    class Section
    {
    public:
        Section(thrBiasedMutex& mutex, Entrant& self)
            : locked(mutex), thread(self), asFavourite(mutex.Lock(self))
        {
        }
        ~Section() { locked.Unlock(thread, asFavourite); }
        Section(const Section&) = delete;
        Section& operator=(const Section&) = delete;

    private:
        thrBiasedMutex& locked;
        const Entrant& thread;
        const bool asFavourite;
    };

private:
    // What the favourite writes here and reads there, and an evicting thread the other way round, is ordered by a barrier
    // that the latter makes all threads pass; the favourite's own accesses need the compiler's order only.
    bool EnterAsFavourite(const Entrant& self)
    {
        // Orders this section behind the last one of a favourite that has exited, whose address a thread may have got.
        isInside.load(std::memory_order_acquire);
        isInside.store(1, std::memory_order_relaxed);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (IsFavourite(self))
            return true;
        LeaveAsFavourite(self);
        return false;
    }
    void LeaveAsFavourite(const Entrant& self)
    {
        isInside.store(0, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (!IsFavourite(self))
            Wake(isInside);
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

    enum : int { open, held, heldAndWaitedFor };

    std::atomic<int> state = open;
    std::atomic<int> isInside = 0; // the favourite, or one that has just been evicted
    std::atomic<const Entrant*> favourite = nullptr;
    // Unhindered entries; more after each eviction, which costs as much as some hundred. Guarded by the lock.
    unsigned needed = 64;
};
