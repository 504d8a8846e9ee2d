#include "qelloop.h"

#include <algorithm>
#include <utility>

#include "evteventarray.h"
#include "qelexception.h"

namespace qel {

namespace {

btkTimeval limitOf(double seconds)
{
    return seconds == INFINITE ? btkTimeval::Forever() : btkTimeval(seconds);
}

} // namespace

evtEvent* waitAny(const std::vector<evtEvent*>& events, timespan limit)
{
    const auto at = [&](std::size_t i) -> btkEvent* { return qelIsObject(events[i]) ? events[i] : nullptr; };
    btkEvent::WaitForAny(events.size(), limitOf(limit.seconds()), at);
    const auto signaled = std::find_if(events.begin(), events.end(), [](evtEvent* event) {
        return qelIsObject(event) && event->WasSignaled();
    });
    return signaled != events.end() ? *signaled : nullptr;
}

// ---- event

event::event(bool isSet) : event(btkFd(Event_Create(isSet)))
{
}

event::event(btkFd created) : evtEvent(new btkEVENTEvent(created.Get())), handle(std::move(created))
{
    if (!handle)
        qelXNativeException::Throw("qel::event: no descriptor is left");
}

event::~event() = default;

// ---- loop

struct loop::Entry
{
    id number;
    evtEvent* event; ///< null: a time
    btkTimeval due;  ///< of a time
    btkTimeval period;
    bool isRepeated;
    bool isRemoved = false;
    std::unique_ptr<Function> function;
};

struct loop::Parts
{
    qel::event stopAsked;
    std::vector<std::unique_ptr<Entry>> entries; // in the order of their addition
    std::vector<evtEvent*> awaited;              // of the entries, and `stopAsked` at last
    id latest = 0;
    int runs = 0; // inside one another

    btkTimeval untilDue() const;
    bool takeStop();
    bool round();
    void removeMarked();
};

loop::loop() : parts(std::make_unique<Parts>())
{
}

loop::~loop() = default;

loop::id loop::add(evtEvent* e, double seconds, bool isRepeated, std::unique_ptr<Function> function)
{
    const btkTimeval span = limitOf(seconds);
    parts->entries.push_back(std::make_unique<Entry>(Entry{.number = ++parts->latest,
                                                           .event = e,
                                                           .due = btkTimeval::Now() + span,
                                                           .period = span,
                                                           .isRepeated = isRepeated,
                                                           .function = std::move(function)}));
    return parts->latest;
}

void loop::off(id entry)
{
    for (const auto& known : parts->entries)
        if (known->number == entry)
            known->isRemoved = true;
    if (parts->runs == 0)
        parts->removeMarked();
}

void loop::stop() noexcept
{
    parts->stopAsked.set();
}

void loop::run()
{
    struct Running
    {
        explicit Running(Parts& p) : all(p) { ++all.runs; }
        ~Running()
        {
            if (--all.runs == 0)
                all.removeMarked();
        }
        Parts& all;
    } const running{*parts};
    while (parts->round()) {
    }
}

/// Frees the functions of removed entries, unless one of them may be running.
void loop::Parts::removeMarked()
{
    std::erase_if(entries, [](const auto& entry) { return entry->isRemoved; });
}

btkTimeval loop::Parts::untilDue() const
{
    btkTimeval first = btkTimeval::Forever();
    const btkTimeval now = btkTimeval::Now();
    for (const auto& entry : entries)
        if (entry->event == nullptr && !entry->isRemoved)
            first = std::min(first, entry->due - now);
    return first;
}

bool loop::Parts::takeStop()
{
    if (!stopAsked.IsSignaled())
        return false;
    stopAsked.reset();
    return true;
}

/// Waits, then calls each function that is due. False when it is time to stop.
bool loop::Parts::round()
{
    if (runs == 1)
        removeMarked();
    awaited.clear();
    for (const auto& entry : entries)
        awaited.push_back(entry->isRemoved ? nullptr : entry->event);
    awaited.push_back(&stopAsked);
    std::vector<bool> signaled(entries.size());
    btkEvent::WaitForAny(awaited.size(), untilDue(), [&](std::size_t i) -> btkEvent* { return awaited[i]; });
    for (std::size_t i = 0; i < signaled.size(); ++i)
        signaled[i] = awaited[i] != nullptr && awaited[i]->WasSignaled();

    if (takeStop())
        return false;
    // A function may add entries, which wait for the next round.
    const std::size_t count = signaled.size();
    for (std::size_t i = 0; i < count && i < entries.size(); ++i) {
        Entry& entry = *entries[i];
        if (entry.isRemoved)
            continue;
        if (entry.event == nullptr) {
            const btkTimeval now = btkTimeval::Now();
            if (entry.due > now)
                continue;
            entry.isRemoved = !entry.isRepeated;
            entry.due = entry.due + entry.period > now ? entry.due + entry.period : now + entry.period;
        } else if (!signaled[i]) {
            continue;
        }
        entry.function->call(entry.event);
        if (takeStop())
            return false;
    }
    return true;
}

} // namespace qel
