#pragma once

#include <cstddef>
#include <vector>

#include <qel/base/btkatomic.h>
#include <qel/base/btkfd.h>

/// Something that can be waited for: it is on (signaled) or not, and waiting does not change that. Each kind
/// rests on a descriptor that becomes ready; a kind that knows more than its descriptor overrides OnAsk and
/// OnPolled. Used by one thread at a time.
class BASE_API btkBaseEvent
{
public:
    /// What a kind knows before its descriptor is asked.
    enum State {
        Ask,     // the descriptor decides
        On,      // on, whatever the descriptor says
        AskAgain // off, whatever the descriptor says, and nothing tells when that changes: a wait asks again
                 // soon
    };

    virtual ~btkBaseEvent() = default;
    btkBaseEvent(const btkBaseEvent&) = delete;
    btkBaseEvent& operator=(const btkBaseEvent&) = delete;

    /// Whether it is on now. Does not wait.
    bool IsSignaled();

protected:
    /// An event that is on while `awaited` (as poll takes them) hold for `watched`. The descriptor is not
    /// owned. With -1 the event is on by OnAsk alone. `knowsMore`: OnAsk and OnPolled are to be called.
    explicit btkBaseEvent(btkHandle watched, short awaited, bool knowsMore = false)
        : ownWatch{watched, awaited, knowsMore}
    {
    }

    /// What a wait looks at.
    struct Watch
    {
        btkHandle handle; // -1: none
        short events;
        bool asks; // OnAsk and OnPolled are to be called
    };
    Watch& GetWatch() { return *watch; }

    /// The poll events of the select types: 0 readable, 1 writable, 2 urgent data there, 3
    /// the peer sends no more.
    static short SelectEvents(int type);

    /// Called before the descriptor is asked and before every sleep; may change the watch.
    virtual State OnAsk() { return Ask; }
    /// Called when the descriptor was found ready (`ready` as poll answers it). False when that was a false
    /// alarm, which must not stay: the wait goes on.
    virtual bool OnPolled(short ready) { return ready != 0; }

private:
    friend class btkEvent;

    Watch ownWatch;
    Watch* watch =
        &ownWatch; // its owner's once it has one: a wait for many events looks at each in one place
};

/// An event that is always on.
class BASE_API btkAlwaysEvent : public btkBaseEvent
{
public:
    btkAlwaysEvent() : btkBaseEvent(-1, 0, true) {}

protected:
    State OnAsk() override { return On; }
};

/// On while a descriptor is ready: 0 readable, or a connection to be accepted; 1 writable; 2 urgent data
/// there; 3 the peer sends no more, however much of what it sent has not been read. The end of the input and
/// a broken connection count as ready. The descriptor is not owned and must stay open.
class BASE_API btkSelectEvent : public btkBaseEvent
{
public:
    btkSelectEvent(btkHandle watched, int type) : btkBaseEvent(watched, SelectEvents(type)) {}
};

/// The places of the events of one wait, for the host to look at. On the stack unless there are very many.
class BASE_API btkPollSet
{
public:
    /// As the host has it (pollfd).
    struct Place
    {
        btkHandle handle; // -1: nothing to look at
        short events;
        short ready;

        bool IsMarked() const { return (events & onMark) != 0; }
        bool IsFound() const { return ((events & onMark) | ready) != 0; }
    };

    btkPollSet(std::size_t size, btkTimeval timeLimit);
    ~btkPollSet() { delete[] far; }
    btkPollSet(const btkPollSet&) = delete;
    btkPollSet& operator=(const btkPollSet&) = delete;

    Place& operator[](std::size_t i) { return all[i]; }
    /// Marks a place as on without its descriptor.
    void Mark(Place& place)
    {
        place.events |= onMark;
        ++marked;
        limit = {};
    }
    /// Lets the next sleep end soon, so that all places are filled in again.
    void AskAgain() { asksAgain = true; }
    /// Sleeps until a place is ready or what is left of the limit has passed. Answers how many places are
    /// found, or more.
    int Sleep();
    /// Whether another sleep, after all places have been filled in again, may find something else.
    bool GoesOn() const { return mayGoOn; }

private:
    /// Stands among the events of a place whose event is on without its descriptor; means nothing to the
    /// host.
    static constexpr short onMark = 0x4000;

    std::size_t count;
    btkTimeval limit;
    btkTimeval end;
    int marked = 0;
    bool asksAgain = false;
    bool mayGoOn = true;
    Place near[512];
    Place* far = nullptr;
    Place* all = near;
};

/// Owns a btkBaseEvent and waits for several of them at once.
class BASE_API btkEvent
{
public:
    using List = std::vector<btkEvent*>;

    /// Takes ownership of `owned`. Null: an event that is never on.
    explicit btkEvent(btkBaseEvent* owned);
    virtual ~btkEvent() { delete baseEvent; }
    btkEvent(const btkEvent&) = delete;
    btkEvent& operator=(const btkEvent&) = delete;

    /// Whether it is on now. Does not wait.
    bool IsSignaled();
    /// Whether the last wait that this event took part in found it on.
    bool WasSignaled() { return wasOn.Get(); }

    /// Sleeps until at least one event of `list` is on or `limit` has passed, and answers how many are on.
    /// Null entries are skipped. `second` has no meaning on this host, where all kinds are waited for at
    /// once.
    static int Wait(const List& list, btkTimeval limit, btkTimeval second = {});
    /// The same for `count` events that `at(i)` gives.
    template<class At>
    static int WaitForAny(std::size_t count, btkTimeval limit, At at);

private:
    /// Fills in this event's place of a wait.
    void Prepare(btkPollSet::Place& place, btkPollSet& places)
    {
        if (WasSignaled())
            wasOn.Set(false);
        place = {watch.handle, watch.events, 0};
        if (watch.asks)
            PrepareAsked(place, places);
    }
    void PrepareAsked(btkPollSet::Place& place, btkPollSet& places);
    /// Takes the result from its place, where something was found. Whether the event is on.
    bool Finish(const btkPollSet::Place& place);

    btkBaseEvent::Watch watch = {-1, 0, false}; // first of all: what a wait looks at
    btkAtomic<bool> wasOn = false;              // the last wait found it on
    btkBaseEvent* baseEvent;
};

template<class At>
int btkEvent::WaitForAny(std::size_t count, btkTimeval limit, At at)
{
    // The events lie anywhere in memory, and the host's own work has pushed them out of the nearest cache.
    constexpr std::size_t ahead = 24;
    btkPollSet places(count, limit);
    for (;;) {
        for (std::size_t i = 0; i < count; ++i) {
            if (i + ahead < count)
                __builtin_prefetch(at(i + ahead));
            if (btkEvent* const event = at(i))
                event->Prepare(places[i], places);
            else
                places[i] = {-1, 0, 0};
        }
        int signaled = 0;
        int found = places.Sleep(); // a place that is found in two ways counts twice
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

// ---- events that a program sets and resets

/// A new event, set or not; -1 when the host has none left. Freed with Event_Free.
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
