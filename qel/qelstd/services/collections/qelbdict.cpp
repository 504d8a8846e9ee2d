#include "qelbdict.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include <qel/base/btkabort.h>
#include <qel/base/btkmemory.h>

#include "xcollection.h"
#include "xdictindex_p.h"
#include "xdictkeys_p.h"
#include "xdictslots_p.h"

namespace {

constexpr unsigned firstRoom = 2;
// Up to this number, entries are found by linear search.
constexpr unsigned mostUnindexed = 8;
// In blocks of up to this number of entries, a new one takes the place of a removed one.
constexpr unsigned mostFilledSingly = 1 << 14;

constexpr char overflow[] = "Hash table overflow.";
constexpr char tooLarge[] = "a dictionary has at most 2^30 slots";

char*& keyOf(char* entry)
{
    return *reinterpret_cast<char**>(entry);
}

// The key pointer of a removed entry is odd: 1, or the packed home of its key, which the log still needs.
char* const removedKey = reinterpret_cast<char*>(1);

xdicthome homeOf(char* entry, bool isLive)
{
    return isLive ? xdicthome(keyOf(entry), std::strlen(keyOf(entry)))
                  : xdicthome::unpack(reinterpret_cast<std::uintptr_t>(keyOf(entry)));
}

/// Entries consist of whole words, since they begin with a pointer.
void moveEntry(char* to, const char* from, unsigned entrySize)
{
    for (unsigned i = 0; i < entrySize; i += sizeof(void*))
        std::memcpy(to + i, from + i, sizeof(void*));
}

/// Differs from run to run, since addresses and the time differ.
std::uint64_t runSeed()
{
    static const std::uint64_t seed =
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
        reinterpret_cast<std::uintptr_t>(&seed) << 20;
    return seed;
}

} // namespace

/// The data of a table besides its entries.
struct xdictside
{
    explicit xdictside(unsigned size)
        : seed((reinterpret_cast<std::uintptr_t>(this) ^ runSeed()) * 0xd6e8feb86659fd93), firstSize(size)
    {
    }

    enum SlotState { stale, busy, current };
    // In place of "removed", marks "this many had been added".
    static constexpr std::uint32_t addsBit = 1u << 31;

    /// Makes room to log all events until a block of `room` entries is full, so that no removal needs memory.
    void reserveLog(unsigned room) { log.reserve(log.size() + std::size_t{room} * 2 - added + 1); }
    bool areSlotsCurrent() const { return slotState.load(std::memory_order_relaxed) == current; }
    void logRemoval(unsigned place)
    {
        if (loggedAdds != added)
            log.push_back(addsBit | (loggedAdds = added));
        log.push_back(place);
        slotState.store(stale, std::memory_order_relaxed);
    }

    xdictindex index; ///< used from a certain number of entries on
    xdictkeys keys;
    const std::uint64_t seed;
    unsigned added = 0; ///< places that have been assigned to entries
    unsigned gap = 0;   ///< a place from which to search for that of a removed entry
    unsigned firstSize; ///< slots of the table at the start of the log

    // The slots of the entries, as far as they are assigned, and the events since.
    std::unique_ptr<xdictslots> slots;
    std::vector<std::uint32_t> log; ///< the places of removed entries in order
    std::atomic<int> slotState = stale;
    unsigned assigned = 0; ///< places whose entries were added to `slots`
    unsigned loggedAdds = 0;
    unsigned replayed = 0; ///< entries of `log`
};

xbasedictionary::xbasedictionary(const xdictcontrol* control)
    : minLoad(control != nullptr ? control->minLoad : xdictcontrol().minLoad),
      maxLoad(control != nullptr ? control->maxLoad : xdictcontrol().maxLoad)
{
}

xbasedictionary::~xbasedictionary()
{
    delete side;
}

unsigned xbasedictionary::NextSize() const
{
    return xdictNextSize({minLoad, maxLoad}, size, count);
}

/// Returns the place of an entry, or nowhere. With an index, stores the entry there, or the free one, in
/// `at`.
[[gnu::always_inline]] inline unsigned xbasedictionary::Seek(const xdictkey& key, unsigned entrySize,
                                                             xdictindexentry** at) const
{
    if (side->index.isBuilt()) [[likely]] {
        // The entry is read after the key's text: both are fetched at once.
        const auto found = side->index.seek(key, [=, this](const xdictindexentry& entry) {
            __builtin_prefetch(EntryOf(entry.place, entrySize));
        });
        if (at != nullptr)
            *at = found.at;
        return found.isThere ? found.at->place : nowhere;
    }
    for (unsigned place = 0; place < side->added; ++place)
        if (const char* const text = keyOf(EntryOf(place, entrySize)); isLive(text) && key.equals(text))
            return place;
    return nowhere;
}

unsigned xbasedictionary::FindIndex(const char* key, unsigned entrySize) const
{
    if (side == nullptr || !qelIsObject(key))
        return nowhere;
    return Seek(xdictkey(key, side->seed), entrySize);
}

unsigned char xbasedictionary::BaseFind(const char* key, void* out, unsigned entrySize, unsigned valueOffset)
{
    const unsigned place = FindIndex(key, entrySize);
    if (place == nowhere)
        return 0;
    if (out != nullptr)
        OnCopyEntry(out, EntryOf(place, entrySize) + valueOffset);
    return 1;
}

void xbasedictionary::BaseSet(const char* key, const void* value, unsigned entrySize, unsigned valueOffset)
{
    if (!qelIsObject(key))
        qelhThrowInvalidDictKey(nullptr, nullptr);
    const bool first = side == nullptr;
    if (first) {
        auto made = std::make_unique<xdictside>(xdictminsize);
        made->reserveLog(firstRoom);
        table = Allocate(xdictminsize, entrySize, firstRoom);
        watched = !ownAllocate || !movesBits;
        room = watched ? xdictminsize : firstRoom;
        size = xdictminsize;
        side = made.release();
    }
    const xdictkey sought(key, side->seed);
    xdictindexentry* at = nullptr;
    if (const unsigned place = Seek(sought, entrySize, &at); place != nowhere) {
        OnCopyEntry(EntryOf(place, entrySize) + valueOffset, value);
        return;
    }
    try {
        if (first && watched)
            side->reserveLog(room);
        Add(sought, at, value, {entrySize, valueOffset});
    } catch (...) {
        if (first)
            BaseClearAll(entrySize, valueOffset);
        throw;
    }
}

/// Returns the entry in a slot, or null.
char* xbasedictionary::EntryIn(int slot, unsigned entrySize)
{
    if (slot < 0)
        qelhThrowNegativeIndex(slot);
    if (static_cast<unsigned>(slot) >= size)
        return nullptr;
    Settle(entrySize);
    const unsigned place = side->slots->placeIn(static_cast<unsigned>(slot));
    // Walks go by slot, in an order other than that of the entries: prefetch.
    if (const unsigned ahead = side->slots->placeIn((static_cast<unsigned>(slot) + 8) & (size - 1));
        ahead != xdictslots::none)
        __builtin_prefetch(EntryOf(ahead, entrySize));
    return place == xdictslots::none ? nullptr : EntryOf(place, entrySize);
}

unsigned char xbasedictionary::BaseGetKeyByIndex(int slot, xstring* outKey, unsigned entrySize, unsigned)
{
    char* const entry = EntryIn(slot, entrySize);
    if (entry != nullptr && outKey != nullptr)
        *outKey = keyOf(entry);
    return entry != nullptr;
}

unsigned char xbasedictionary::BaseGetByIndex(int slot, void* out, unsigned entrySize, unsigned valueOffset)
{
    char* const entry = EntryIn(slot, entrySize);
    if (entry != nullptr && out != nullptr)
        OnCopyEntry(out, entry + valueOffset);
    return entry != nullptr;
}

unsigned char xbasedictionary::BaseSetByIndex(int slot, const void* value, unsigned entrySize,
                                              unsigned valueOffset)
{
    const bool isSlot = static_cast<unsigned>(slot) < size;
    if (char* const entry = EntryIn(slot, entrySize); entry != nullptr)
        OnCopyEntry(entry + valueOffset, value);
    return isSlot;
}

unsigned char xbasedictionary::BaseRemoveByIndex(int slot, unsigned entrySize, unsigned valueOffset)
{
    const bool isSlot = static_cast<unsigned>(slot) < size;
    if (char* const entry = EntryIn(slot, entrySize); entry != nullptr)
        BaseRemove(keyOf(entry), entrySize, valueOffset);
    return isSlot;
}

void xbasedictionary::BaseRemove(const char* key, unsigned entrySize, unsigned valueOffset)
{
    if (side == nullptr || !qelIsObject(key))
        return;
    const xdictkey sought(key, side->seed);
    xdictindexentry* at = nullptr;
    const unsigned place = Seek(sought, entrySize, &at);
    if (place == nowhere)
        return;
    char* const entry = EntryOf(place, entrySize);
    char* const text = keyOf(entry);
    if (at != nullptr)
        side->index.erase(at);
    --count;
    const unsigned oldSize = size;
    const unsigned newSize = NextSize();
    if ((watched || room <= mostFilledSingly) && newSize == size && side->added == room &&
        side->areSlotsCurrent()) {
        // The next key takes this place, which assigns its slot: the log would be replayed at once.
        side->slots->giveBack(side->slots->slotOf(place));
        keyOf(entry) = removedKey;
    } else {
        keyOf(entry) = reinterpret_cast<char*>(xdicthome(text, sought.length).pack());
        side->logRemoval(place);
    }
    side->keys.remove(text, sought.length);
    side->gap = place;
    if (newSize <= xdictmaxsize)
        size = newSize;
    OnRemoveEntry(entry + valueOffset);

    // The destructor of the value may have changed the dictionary.
    if (side == nullptr)
        return;
    try {
        if (size != oldSize || watched)
            ShowSize(oldSize, size, {entrySize, valueOffset});
        if (!watched && count == 0 && room > mostUnindexed) {
            Restart(entrySize);
            xdictindex().swap(side->index);
        } else if (side->keys.isSparse()) {
            CompactKeys(entrySize);
        }
    } catch (const std::bad_alloc&) {
        // Everything keeps its size: a removal does not fail.
    }
}

void xbasedictionary::BaseClearAll(unsigned entrySize, unsigned valueOffset)
{
    if (table == nullptr)
        return;
    if (!watched && !ownDestroy) {
        try {
            Move(size, {entrySize, valueOffset}, true);
        } catch (const std::bad_alloc&) {
            // A subclass that observes hooks sees fewer slots.
        }
    }
    BaseFreeAllKeys(entrySize);
    size = 0;
    count = 0;
    const std::unique_ptr<xdictside> ended(std::exchange(side, nullptr));
    // Last, since the destructors of the values may change the dictionary.
    Replace(nullptr, 0, entrySize);
}

void xbasedictionary::BaseFreeAllKeys(unsigned)
{
    if (side != nullptr)
        xdictkeys().swap(side->keys);
}

void* xbasedictionary::AllocateBlock(std::size_t bytes)
{
    void* const block = pDefMemMgr->Allocate(bytes);
    btkExpectUse(block, bytes);
    return block;
}

/// Returns a block of `nSlots` entries; if no subclass observes their number, of `onlyFor`.
char* xbasedictionary::Allocate(unsigned nSlots, unsigned entrySize, unsigned onlyFor)
{
    wanted = onlyFor;
    char* const block = static_cast<char*>(OnAllocate(nSlots));
    const unsigned n = ownAllocate && movesBits && onlyFor != 0 ? onlyFor : nSlots;
    for (unsigned place = 0; place < n; ++place)
        keyOf(block + std::size_t{place} * entrySize) = nullptr;
    return block;
}

/// Makes `block` the table, and destroys the old one.
void xbasedictionary::Replace(char* block, unsigned newRoom, unsigned entrySize)
{
    const unsigned oldRoom = std::exchange(room, newRoom);
    for (unsigned place = 0; watched && place < oldRoom; ++place)
        if (char*& key = keyOf(EntryOf(place, entrySize)); key != nullptr && !isLive(key))
            key = removedKey;
    OnDestroy(std::exchange(table, block), oldRoom);
}

/// Adds a missing key. Allocates all memory before it changes anything.
void xbasedictionary::Add(const xdictkey& key, xdictindexentry* at, const void* value, Shape shape)
{
    const unsigned newSize = NextSize();
    if (newSize > xdictmaxsize)
        throw std::length_error(tooLarge);
    if (count == newSize)
        QEL_ABORT(overflow);
    if (!side->index.isBuilt() && count == mostUnindexed)
        for (unsigned place = 0; place < side->added; ++place)
            if (char* const text = keyOf(EntryOf(place, shape.size)); isLive(text))
                side->index.add(xdictkey(text, side->seed), text, place);
    if (side->index.isBuilt() && (side->index.reserve() || at == nullptr))
        at = side->index.seek(key, [](const xdictindexentry&) {}).at;
    if (!watched && side->added == room)
        MakeRoom(shape);
    char* const text = side->keys.add(key);
    unsigned place;
    try {
        if (newSize != size || watched) [[unlikely]]
            ShowSize(size, newSize, shape);
        place = side->added < room ? side->added : GapForOne(newSize, shape.size);
        OnCopyEntry(EntryOf(place, shape.size) + shape.valueOffset, value);
    } catch (...) {
        side->keys.remove(text, key.length);
        throw;
    }
    keyOf(EntryOf(place, shape.size)) = text;
    if (at != nullptr)
        side->index.insert(at, {text, place, key.hash});
    ++count;
    size = newSize;
    if (place < side->added) {
        const xdicthome home(text, key.length);
        side->slots->put(side->slots->take(home), place, home);
        return;
    }
    ++side->added;
    side->slotState.store(xdictside::stale, std::memory_order_relaxed);
    if (!watched && !ownCopy)
        Move(size, shape, true);
}

/// Returns the place of a removed entry. The slots of all entries are then assigned.
unsigned xbasedictionary::GapForOne(unsigned newSize, unsigned entrySize)
{
    AssignSlots(entrySize);
    if (newSize != side->slots->size() && !side->slots->resize(newSize))
        QEL_ABORT(overflow);
    size = newSize;
    unsigned& place = side->gap;
    while (isLive(keyOf(EntryOf(place, entrySize))))
        place = place + 1 < room ? place + 1 : 0;
    return place;
}

/// Makes room for one more entry behind the others, or leaves it the place of a removed one if there are
/// many. In a large block, where taking and assigning single slots is slow, the gaps are removed at once.
void xbasedictionary::MakeRoom(Shape shape)
{
    if (count == 0) {
        Restart(shape.size);
    } else if (room >= 32 && count < room / 8) {
        Move(std::bit_ceil(2 * count), shape, false);
    } else if (room > mostFilledSingly && count < room / 2) {
        Move(room, shape, false);
    } else if (room < 32 || room > mostFilledSingly || count >= room - room / 4) {
        const unsigned newRoom = room * (room < 64 ? 4 : 2);
        side->reserveLog(newRoom);
        char* const block = Allocate(size, shape.size, newRoom);
        std::memcpy(block, table, std::size_t{room} * shape.size);
        ::operator delete(std::exchange(table, block));
        room = newRoom;
    }
}

/// Moves the entries, in the order of their slots, to a block of `newRoom` without gaps. `watch`: from now on
/// a subclass observes the hooks.
void xbasedictionary::Move(unsigned newRoom, Shape shape, bool watch)
{
    // So the log refers to no places.
    AssignSlots(shape.size);
    const auto places = std::make_unique<std::uint32_t[]>(std::max(side->added, 1u));
    std::vector<xdictslots::Entry> spare(count);
    side->log.reserve(2 * std::size_t{newRoom} + 1);
    char* const block = Allocate(watch ? newRoom : size, shape.size, watch ? 0 : newRoom);
    // Then a subclass cannot observe that OnCopyEntry is not called.
    const bool byBits = movesBits && (ownCopy || !watched);
    unsigned moved = 0;
    try {
        side->slots->forEachTaken([&](unsigned slot) {
            const unsigned place = side->slots->placeIn(slot);
            char* const from = EntryOf(place, shape.size);
            char* const to = block + std::size_t{moved} * shape.size;
            if (byBits) {
                moveEntry(to, from, shape.size);
                keyOf(from) = nullptr;
            } else {
                OnCopyEntry(to + shape.valueOffset, from + shape.valueOffset);
                keyOf(to) = keyOf(from);
            }
            places[place] = moved++;
        });
    } catch (...) {
        OnDestroy(block, newRoom);
        throw;
    }
    side->slots->renumber(places.get(), spare);
    side->index.renumber(places.get());
    side->added = side->assigned = side->loggedAdds = moved;
    const bool wasWatched = watched;
    watched = watch;
    if (wasWatched) {
        Replace(block, newRoom, shape.size);
    } else {
        ::operator delete(std::exchange(table, block));
        room = newRoom;
    }
}

/// The table has another size: makes the hook calls that a subclass can observe. Whether a subclass overrides
/// OnDestroy is known at its first call.
void xbasedictionary::ShowSize(unsigned oldSize, unsigned newSize, Shape shape)
{
    bool watch = watched;
    if (!watched && !ownDestroy && newSize != oldSize) {
        OnDestroy(Allocate(oldSize, shape.size), oldSize);
        watch = !ownDestroy;
    }
    if (watch && newSize != room)
        Move(newSize, shape, true);
}

/// Starts over when no entry is left.
void xbasedictionary::Restart(unsigned entrySize)
{
    std::vector<std::uint32_t> log;
    log.reserve(2 * (room > mostUnindexed ? firstRoom : room) + 1);
    if (room > mostUnindexed) {
        char* const block = Allocate(size, entrySize, firstRoom);
        ::operator delete(std::exchange(table, block));
        room = firstRoom;
    }
    for (unsigned place = 0; place < room; ++place)
        keyOf(EntryOf(place, entrySize)) = nullptr;
    xdictkeys().swap(side->keys);
    side->slots.reset();
    side->log.swap(log);
    side->added = side->assigned = side->loggedAdds = 0;
    side->replayed = 0;
    side->firstSize = size;
    side->slotState.store(xdictside::stale, std::memory_order_relaxed);
}

/// Assigns slots to all entries. Among reading threads, the first assigns them and the others wait for it.
/// @throws std::bad_alloc  no entry has changed
void xbasedictionary::Settle(unsigned entrySize)
{
    std::atomic<int>& state = side->slotState;
    for (int seen = state.load(std::memory_order_acquire); seen != xdictside::current;
         seen = state.load(std::memory_order_acquire)) {
        if (seen == xdictside::busy || !state.compare_exchange_strong(seen, xdictside::busy)) {
            state.wait(xdictside::busy);
            continue;
        }
        try {
            AssignSlots(entrySize);
        } catch (...) {
            state = xdictside::stale;
            state.notify_all();
            throw;
        }
        state.notify_all();
    }
}

/// Replays the events since slots were last assigned. Stops when memory runs out, and resumes the next time.
void xbasedictionary::AssignSlots(unsigned entrySize)
{
    xdictside& s = *side;
    if (s.areSlotsCurrent())
        return;
    if (s.slots == nullptr)
        s.slots = std::make_unique<xdictslots>(s.firstSize);
    xdictslots& slots = *s.slots;
    slots.reserve(s.added);
    const auto resize = [&] {
        const unsigned newSize = xdictNextSize({minLoad, maxLoad}, slots.size(), slots.count());
        if (newSize != slots.size() && newSize <= xdictmaxsize && !slots.resize(newSize))
            QEL_ABORT(overflow);
    };
    constexpr unsigned ahead = 8;
    const auto addUpTo = [&](unsigned end) {
        for (; s.assigned < end; ++s.assigned) {
            resize();
            // The texts lie anywhere.
            if (s.assigned + ahead < s.added)
                __builtin_prefetch(reinterpret_cast<void*>(
                    reinterpret_cast<std::uintptr_t>(keyOf(EntryOf(s.assigned + ahead, entrySize)))));
            char* const entry = EntryOf(s.assigned, entrySize);
            const xdicthome home = homeOf(entry, isLive(keyOf(entry)));
            slots.put(slots.take(home), s.assigned, home);
        }
    };
    for (; s.replayed < s.log.size(); ++s.replayed) {
        const std::uint32_t word = s.log[s.replayed];
        if ((word & xdictside::addsBit) != 0) {
            addUpTo(word & ~xdictside::addsBit);
        } else {
            slots.giveBack(slots.slotOf(word));
            resize();
            if (s.replayed + 2 * ahead < s.log.size())
                slots.expect(s.log[s.replayed + 2 * ahead]);
        }
    }
    addUpTo(s.added);
    s.log.clear();
    s.replayed = 0;
    s.slotState.store(xdictside::current, std::memory_order_release);
}

/// Releases the memory of removed keys.
/// @throws std::bad_alloc  nothing is changed
void xbasedictionary::CompactKeys(unsigned entrySize)
{
    xdictkeys keys;
    xdictindex index;
    keys.reserve(side->keys);
    for (unsigned place = 0; place < side->added; ++place)
        if (const char* const text = keyOf(EntryOf(place, entrySize)); isLive(text)) {
            const xdictkey key(text, side->seed);
            index.add(key, keys.add(key), place);
        }
    index.forEach([&](const xdictindexentry& at) { keyOf(EntryOf(at.place, entrySize)) = at.key; });
    side->keys.swap(keys);
    side->index.swap(index);
}
