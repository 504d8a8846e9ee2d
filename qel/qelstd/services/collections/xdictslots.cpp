#include <algorithm>
#include <bit>
#include <new>
#include <utility>

#include "xdictslots_p.h"

namespace {

/// Returns the multiplicative inverse of `odd` modulo 2^32, so that slot * inverse is the position of a slot
/// on its path.
constexpr std::uint32_t inverseOf(std::uint32_t odd)
{
    // Correct in the lowest three bits; each iteration doubles their number.
    std::uint32_t inverse = odd;
    for (int i = 0; i < 4; ++i)
        inverse *= 2 - odd * inverse;
    return inverse;
}

std::size_t wordsFor(std::size_t bits)
{
    return (bits + 63) / 64;
}

} // namespace

xdictslots::xdictslots(unsigned size)
    : mask(size - 1), taken(std::make_unique<std::uint64_t[]>(wordsFor(size))),
      places(new std::uint32_t[size])
{
}

bool xdictslots::resize(unsigned newSize)
{
    xdictslots next(newSize);
    next.entries.swap(entries);
    bool fits = true;
    forEachTaken([&](unsigned slot) {
        const unsigned place = places[slot];
        const unsigned newSlot = next.take(next.entries[place].home);
        if (newSlot == none)
            fits = false;
        else
            next.put(newSlot, place, next.entries[place].home);
    });
    *this = std::move(next);
    return fits;
}

void xdictslots::renumber(const std::uint32_t* to, std::vector<Entry>& spare)
{
    forEachTaken([&](unsigned slot) {
        const unsigned place = to[places[slot]];
        spare[place] = entries[places[slot]];
        places[slot] = place;
    });
    entries.swap(spare);
}

void xdictslots::giveBack(unsigned slot)
{
    taken[slot / 64] &= ~(std::uint64_t{1} << slot % 64);
    --takenCount;
    ++age;
    if (paths == nullptr)
        return;
    // The paths apply it at their next long search, or when there is no more room to record it.
    if (freedCount == mask / stretch) {
        for (unsigned i = 0; i < pathCount; ++i) {
            if (paths[i].full != nullptr)
                applyFreed(paths[i], inverseOf(stepOf(i)));
            paths[i].applied = 0;
        }
        freedCount = 0;
    }
    freed[freedCount++] = slot;
}

/// Continues at `slot`, after `patience` single probes.
unsigned xdictslots::takeFar(xdicthome home, std::uint32_t slot)
{
    if (mask < small)
        return none;
    const std::uint32_t step = stepOf(home.path());
    Cursor* const cursor = openCursor(home);
    if (cursor != nullptr && cursor->home == home && cursor->age == age)
        slot = cursor->next;
    for (unsigned i = 0; i < stretch && isTaken(slot); ++i)
        slot = (slot + step) & mask;
    if (isTaken(slot))
        slot = findFarther(home.path(), slot);
    if (slot == none)
        return none;
    if (cursor != nullptr)
        *cursor = {home, (slot + step) & mask, age};
    return takeSlot(slot);
}

/// Continues stretch by stretch at `slot`.
unsigned xdictslots::findFarther(unsigned path, std::uint32_t slot)
{
    const std::uint32_t step = stepOf(path);
    const std::uint32_t inverse = inverseOf(step);
    Path* const known = openPath(path);
    if (known != nullptr)
        applyFreed(*known, inverse);

    // The slots before this one in its stretch were just found taken.
    std::uint32_t at = (slot * inverse & mask) / stretch;
    const std::uint32_t stretches = (mask + 1) / stretch;
    for (std::uint32_t seen = 0; seen <= stretches; ++seen) {
        at = nextStretch(known, at);
        if (at == none)
            return none;
        slot = at * stretch * step & mask;
        for (unsigned i = 0; i < stretch; ++i, slot = (slot + step) & mask)
            if (!isTaken(slot))
                return slot;
        if (known != nullptr)
            known->full[at / 64] |= std::uint64_t{1} << at % 64;
        at = (at + 1) & (stretches - 1);
    }
    return none;
}

/// Null: out of memory. The cursor may be that of another home.
xdictslots::Cursor* xdictslots::openCursor(xdicthome home)
{
    const std::uint64_t n = std::clamp((mask + 1) / 32, 64u, 4096u);
    if (cursors == nullptr)
        cursors.reset(new (std::nothrow) Cursor[n]);
    return cursors == nullptr ? nullptr : &cursors[home.hash() * n >> 32];
}

/// Returns the state of a path, or null when memory runs out: all slots are then visited.
xdictslots::Path* xdictslots::openPath(unsigned path)
{
    if (paths == nullptr) {
        freed.reset(new (std::nothrow) std::uint32_t[mask / stretch]);
        if (freed != nullptr)
            paths.reset(new (std::nothrow) Path[pathCount]);
        if (paths == nullptr)
            return nullptr;
    }
    Path& opened = paths[path];
    if (opened.full == nullptr) {
        opened.full.reset(new (std::nothrow) std::uint64_t[wordsFor((mask + 1) / stretch)]());
        opened.applied = freedCount;
    }
    return opened.full == nullptr ? nullptr : &opened;
}

void xdictslots::applyFreed(Path& to, std::uint32_t inverse)
{
    for (; to.applied < freedCount; ++to.applied) {
        const std::uint32_t at = (freed[to.applied] * inverse & mask) / stretch;
        to.full[at / 64] &= ~(std::uint64_t{1} << at % 64);
    }
}

/// Returns the first stretch from `from` on, wrapping around, that is not known to be full.
std::uint32_t xdictslots::nextStretch(const Path* path, std::uint32_t from) const
{
    if (path == nullptr)
        return from;
    const std::uint32_t stretches = (mask + 1) / stretch;
    const std::size_t words = wordsFor(stretches);
    std::uint64_t open = ~path->full[from / 64] & ~std::uint64_t{0} << from % 64;
    std::size_t word = from / 64;
    for (std::size_t seen = 0; seen <= words; ++seen) {
        const auto at = static_cast<std::uint32_t>(word * 64 + static_cast<unsigned>(std::countr_zero(open)));
        if (open != 0 && at < stretches)
            return at;
        word = word + 1 == words ? 0 : word + 1;
        open = ~path->full[word];
    }
    return none;
}
