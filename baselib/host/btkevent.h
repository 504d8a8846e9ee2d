#pragma once

#include <cstddef>
#include <vector>

#include <qel/base/btkatomic.h>
#include <qel/base/btkfd.h>

/// Readiness of a descriptor, as bits: the input and the result of a wait. Their values are those of the
/// operating system's wait, so that its entries need no translation.
enum btkReadiness : short {
    btkNotReady = 0,
    btkReadable = 1,         // bytes, the end of the input, or a connection to accept
    btkUrgent = 2,           // urgent data
    btkWritable = 4,         // room for output
    btkBroken = 8,           // an error: found, not awaited
    btkHungUp = 16,          // the peer has closed both directions: found, not awaited
    btkInvalid = 32,         // the descriptor is not open: found, not awaited
    btkOutputClosed = 0x2000 // the peer has closed its output
};
/// Both kinds of readiness.
constexpr btkReadiness operator|(btkReadiness a, btkReadiness b)
{
    return static_cast<btkReadiness>(static_cast<int>(a) | static_cast<int>(b));
}

/// A waitable event: on (signaled) or off; waiting does not change it. Each kind is based on a descriptor
/// that becomes ready; a kind with further state overrides OnAsk and OnPolled. Used by one thread at a time.
class BASE_API btkBaseEvent
{
public:
    /// The state known before the descriptor is polled.
    enum State {
        // The descriptor decides.
        Ask,
        // On, regardless of the descriptor.
        On,
        // Off, regardless of the descriptor, and no notification of a change: a wait soon calls OnAsk again.
        AskAgain
    };

    virtual ~btkBaseEvent() = default;
    btkBaseEvent(const btkBaseEvent&) = delete;
    btkBaseEvent& operator=(const btkBaseEvent&) = delete;

    /// Whether it is on now. Does not wait.
    bool IsSignaled();

protected:
    /// Creates an event that is on while `watched` is ready for one of `awaited`. The descriptor is not
    /// owned. With -1 only OnAsk turns the event on. `knowsMore`: OnAsk and OnPolled are called.
    explicit btkBaseEvent(btkHandle watched, btkReadiness awaited, bool knowsMore = false)
        : ownWatch{watched, awaited, knowsMore}
    {
    }

    /// The input of a wait.
    struct Watch
    {
        btkHandle handle; // -1: none
        /// The conditions that set the event.
        btkReadiness awaited;
        bool asks; // OnAsk and OnPolled are called
    };
    /// The descriptor and readiness to poll for.
    Watch& GetWatch() { return *watch; }

    /// Returns the readiness of the select types: 0 readable, 1 writable, 2 urgent data present, 3 the peer
    /// has closed its output.
    static btkReadiness SelectEvents(int type);

    /// Called before the descriptor is polled and before every sleep; may change the watch.
    virtual State OnAsk() { return Ask; }
    /// Called when the descriptor was found ready for `ready`. False for a spurious wakeup,
    /// which the kind must clear: the wait continues.
    virtual bool OnPolled(btkReadiness ready) { return ready != btkNotReady; }

private:
    friend class btkEvent;

    Watch ownWatch;
    // The owning btkEvent's once there is one, so that a wait for many events reads each in one place.
    Watch* watch = &ownWatch;
};

/// An event that is always on.
class BASE_API btkAlwaysEvent : public btkBaseEvent
{
public:
    btkAlwaysEvent() : btkBaseEvent(-1, btkNotReady, true) {}

protected:
    State OnAsk() override { return On; }
};

/// On while a descriptor is ready: 0 readable, or a connection to accept; 1 writable; 2 urgent data present;
/// 3 the peer has closed its output, even if received data is still unread. The end of the input and a broken
/// connection count as ready. The descriptor is not owned and must stay open.
class BASE_API btkSelectEvent : public btkBaseEvent
{
public:
    btkSelectEvent(btkHandle watched, int type) : btkBaseEvent(watched, SelectEvents(type)) {}
};

/// The poll entries of the events of one wait. On the stack unless there are very many.
class BASE_API btkPollSet
{
public:
    /// The layout of pollfd.
    struct Place
    {
        btkHandle handle; // -1: nothing to poll
        /// The conditions that set the event, and those found.
        btkReadiness awaited;
        btkReadiness ready;

        /// Whether Mark was called; IsFound: or the descriptor was found ready.
        bool IsMarked() const { return (awaited & onMark) != 0; }
        bool IsFound() const { return ((awaited & onMark) | ready) != 0; }
    };

    btkPollSet(std::size_t size, btkTimeval timeLimit);
    ~btkPollSet() { delete[] allocated; }
    btkPollSet(const btkPollSet&) = delete;
    btkPollSet& operator=(const btkPollSet&) = delete;

    Place& operator[](std::size_t i) { return all[i]; }
    /// Marks an entry as on independently of its descriptor.
    void Mark(Place& place)
    {
        place.awaited = place.awaited | onMark;
        ++marked;
        limit = {};
    }
    /// Limits the next sleep to a short time, after which all entries are filled in again.
    void AskAgain() { asksAgain = true; }
    /// Sleeps until an entry is ready or the rest of the limit has passed. Returns the number of ready
    /// entries, or more.
    int Sleep();
    /// Whether another sleep, after all entries have been filled in again, may find something.
    bool GoesOn() const { return mayGoOn; }

private:
    /// Bit in the awaited readiness of an entry whose event is on independently of its descriptor; the operating system
    /// ignores it.
    static constexpr btkReadiness onMark{0x4000};

    std::size_t count;
    btkTimeval limit;
    btkTimeval end;
    int marked = 0;
    bool asksAgain = false;
    bool mayGoOn = true;
    Place first[512];
    Place* allocated = nullptr;
    Place* all = first;
};

/// Owns a btkBaseEvent and can wait for several events at once.
class BASE_API btkEvent
{
public:
    /// Events to wait for; null entries are skipped.
    using List = std::vector<btkEvent*>;

    /// Takes ownership of `owned`. Null: an event that is never on.
    explicit btkEvent(btkBaseEvent* owned);
    virtual ~btkEvent() { delete baseEvent; }
    btkEvent(const btkEvent&) = delete;
    btkEvent& operator=(const btkEvent&) = delete;

    /// Whether it is on now. Does not wait.
    bool IsSignaled();
    /// Whether the last wait for this event found it on.
    bool WasSignaled() { return wasOn.Get(); }

    /// Sleeps until at least one event of `list` is on or `limit` has passed, and returns how many are on.
    /// Null entries are skipped. `second` has no effect on Linux, where one wait covers all kinds.
    static int Wait(const List& list, btkTimeval limit, btkTimeval second = {});
    /// The same for `count` events that `at(i)` returns.
    template<class At>
    static int WaitForAny(std::size_t count, btkTimeval limit, At at);

private:
    /// Fills in this event's entry of a wait.
    void Prepare(btkPollSet::Place& place, btkPollSet& places)
    {
        if (WasSignaled())
            wasOn.Set(false);
        place = {watch.handle, watch.awaited, btkNotReady};
        if (watch.asks)
            PrepareAsked(place, places);
    }
    void PrepareAsked(btkPollSet::Place& place, btkPollSet& places);
    /// Takes the result from its entry, where one was found. Returns whether the event is on.
    bool Finish(const btkPollSet::Place& place);

    btkBaseEvent::Watch watch = {-1, btkNotReady, false}; // first member: the input of a wait
    btkAtomic<bool> wasOn = false;                        // the last wait found it on
    btkBaseEvent* baseEvent;
};

template<class At>
int btkEvent::WaitForAny(std::size_t count, btkTimeval limit, At at)
{
    // The events are scattered in memory, and the system call has evicted them from the nearest cache:
    // prefetch.
    constexpr std::size_t ahead = 24;
    btkPollSet places(count, limit);
    for (;;) {
        for (std::size_t i = 0; i < count; ++i) {
            if (i + ahead < count)
                __builtin_prefetch(at(i + ahead));
            if (btkEvent* const event = at(i))
                event->Prepare(places[i], places);
            else
                places[i] = {-1, btkNotReady, btkNotReady};
        }
        int signaled = 0;
        int found = places.Sleep(); // an entry found in two ways counts twice
        for (std::size_t i = 0; found > 0 && i < count; ++i) {
            if (places[i].IsFound()) {
                signaled += at(i)->Finish(places[i]);
                --found;
            }
        }
        if (signaled > 0 || !places.GoesOn())
            return signaled;
    }
}

// ---- events set and reset by the program

/// Returns a new event, set or not; -1 when no descriptor is left. Freed with Event_Free.
BASE_API btkHandle Event_Create(bool isSet);
/// Sets the event; it stays set until Event_Reset. Safe in a signal handler; keeps errno.
BASE_API void Event_Set(btkHandle event);
BASE_API void Event_Reset(btkHandle event);
BASE_API void Event_Free(btkHandle event);

/// On while the event behind a handle of Event_Create is set. The handle is not owned.
class BASE_API btkEVENTEvent : public btkSelectEvent
{
public:
    explicit btkEVENTEvent(btkHandle event) : btkSelectEvent(event, 0) {}
};
