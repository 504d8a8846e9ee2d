#pragma once

#include <atomic>
#include <vector>

#include <qel/base/btkfd.h>

struct pollfd;

/// Something that can be waited for: it is on (signaled) or not, and waiting does not change that. Each kind
/// rests on a descriptor that becomes ready; a kind that knows more than its descriptor overrides OnAsk and
/// OnPolled. Used by one thread at a time.
class BASE_API btkBaseEvent
{
public:
    /// What a kind knows before its descriptor is asked.
    enum State {
        Ask,    // the descriptor decides
        On,     // on, whatever the descriptor says
        QuietOn // on, but no reason to end a wait: what is there was looked at already and is not enough
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
        : handle(watched), events(awaited), asks(knowsMore)
    {
    }

    /// The poll events of the select types: 0 readable, 1 writable, 2 urgent data there.
    static short SelectEvents(int type);

    /// Called before the descriptor is asked and before every sleep; may change `handle`.
    virtual State OnAsk() { return Ask; }
    /// Called when the descriptor was found ready (`ready` as poll answers it). False when that was a false
    /// alarm, which must not stay: the wait goes on.
    virtual bool OnPolled(short ready) { return ready != 0; }

    btkHandle handle;
    short events;

private:
    friend class btkEvent;

    bool asks;
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
/// there. The end of the input and a broken connection count as ready. The descriptor is not owned and must
/// stay open.
class BASE_API btkSelectEvent : public btkBaseEvent
{
public:
    btkSelectEvent(btkHandle watched, int type) : btkBaseEvent(watched, SelectEvents(type)) {}
};

/// Owns a btkBaseEvent and waits for several of them at once.
class BASE_API btkEvent
{
public:
    using List = std::vector<btkEvent*>;

    /// Takes ownership of `owned`. Null: an event that is never on.
    explicit btkEvent(btkBaseEvent* owned) : baseEvent(owned) {}
    virtual ~btkEvent() { delete baseEvent; }
    btkEvent(const btkEvent&) = delete;
    btkEvent& operator=(const btkEvent&) = delete;

    /// Whether it is on now. Does not wait.
    bool IsSignaled();
    /// Whether the last wait that this event took part in found it on.
    bool WasSignaled() const { return wasSignaled.load(std::memory_order_relaxed); }

    /// Sleeps until at least one event of `list` is on or `limit` has passed, and answers how many are on.
    /// Null entries are skipped. `second` has no meaning on this host, where all kinds are waited for at
    /// once.
    static int Wait(const List& list, btkTimeval limit, btkTimeval second = {});

private:
    /// Fills in this event's place of a wait; true when the wait needs no sleep.
    bool Prepare(pollfd& place) const;
    /// Takes the result from its place.
    bool Finish(const pollfd& place);

    btkBaseEvent* baseEvent;
    std::atomic<bool> wasSignaled = false;
};

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
