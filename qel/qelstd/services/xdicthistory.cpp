#include "xdicthistory_p.h"

#include <new>
#include <utility>

bool xdicthistory::resize(unsigned oldSize, unsigned newSize)
{
    try {
        reserve();
    } catch (const std::bad_alloc&) {
        return false;
    }
    events.push_back({addedCount, newSize > oldSize ? doubled : halved, {}});
    return true;
}

xdicthistory::Outcome xdicthistory::replay(const xdictcontrol& loads, xdicthome* homes,
                                           std::size_t room) const
{
    for (const Event& event : events)
        if (event.entry < addedCount)
            homes[event.entry] = event.home;

    Outcome now = {firstSize, xdictplaces(firstSize), std::make_unique<std::uint32_t[]>(room)};
    std::unique_ptr<std::uint32_t[]> entries(new std::uint32_t[firstSize]); // by slot
    unsigned count = 0;
    const auto resize = [&](unsigned newSize) {
        if (newSize == now.size)
            return;
        std::unique_ptr<std::uint32_t[]> moved(new std::uint32_t[newSize]);
        now.places = now.places.rehashed(
            newSize, [&](unsigned slot) { return homes[entries[slot]]; },
            [&](unsigned slot, unsigned newSlot) {
                moved[newSlot] = entries[slot];
                now.slots[entries[slot]] = newSlot;
            });
        now.size = newSize;
        entries = std::move(moved);
    };
    unsigned next = 0;
    const auto addUpTo = [&](unsigned end) {
        for (; next < end; ++next) {
            resize(xdictNextSize(loads, now.size, count));
            const unsigned slot = now.places.take(homes[next]);
            entries[slot] = next;
            now.slots[next] = slot;
            ++count;
        }
    };
    for (const Event& event : events) {
        addUpTo(event.after);
        if (event.entry == doubled) {
            resize(now.size * 2);
        } else if (event.entry == halved) {
            resize(now.size / 2);
        } else {
            now.places.giveBack(std::exchange(now.slots[event.entry], 0));
            --count;
        }
    }
    addUpTo(addedCount);
    return now;
}
