#include "qelbdict.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include <qel/base/btkabort.h>
#include <qel/base/btkmemory.h>

#include "xcollection.h"
#include "xdicthistory_p.h"
#include "xdictindex_p.h"
#include "xdictkeys_p.h"
#include "xdictplaces_p.h"

/// Which slots of a table are taken, and by keys of which homes.
struct xdictlayout
{
    explicit xdictlayout(unsigned size) : places(size), homes(new xdicthome[size]) {}
    xdictlayout(xdictplaces taken, std::unique_ptr<xdicthome[]> byThem)
        : places(std::move(taken)), homes(std::move(byThem))
    {
    }

    xdictplaces places;
    std::unique_ptr<xdicthome[]> homes; ///< of the keys in the slots that are taken
};

/// What a table knows besides its slots. Either its entries are settled, each in its slot, or they lie in the
/// order in which they were added.
struct xdictside
{
    explicit xdictside(unsigned size) : history(size) {}

    bool isSettled() const { return layout.has_value(); }

    xdictindex index;
    xdictkeys keys;
    std::optional<xdictlayout> layout; ///< of settled entries
    xdicthistory history;              ///< of the others
};

namespace {

constexpr unsigned maxSize = 1u << 30; // so that an int counts the slots

constexpr char overflow[] = "Hash table overflow.";
constexpr char tooLarge[] = "a dictionary has at most 2^30 slots";

char* const removedKey = reinterpret_cast<char*>(1);

char*& keyOf(char* entry)
{
    return *reinterpret_cast<char**>(entry);
}

bool isLive(const char* key)
{
    return reinterpret_cast<std::uintptr_t>(key) > reinterpret_cast<std::uintptr_t>(removedKey);
}

/// Entries are whole words, since they begin with a pointer.
void moveEntry(char* to, const char* from, unsigned entrySize)
{
    for (unsigned i = 0; i < entrySize; i += sizeof(void*))
        std::memcpy(to + i, from + i, sizeof(void*));
}

} // namespace

xbasedictionary::xbasedictionary(const xdictcontrol* control)
    : minLoad(control != nullptr ? control->minLoad : xdictcontrol().minLoad),
      maxLoad(control != nullptr ? control->maxLoad : xdictcontrol().maxLoad)
{
}

xbasedictionary::~xbasedictionary()
{
    delete side;
}

unsigned xbasedictionary::FindIndex(const char* key) const
{
    if (side == nullptr || !qelIsObject(key))
        return nowhere;
    const xdictindexentry* const found = side->index.find(side->index.keyOf(key));
    return found == nullptr ? nowhere : found->place;
}

unsigned char xbasedictionary::BaseFind(const char* key, void* out, unsigned entrySize, unsigned valueOffset)
{
    const unsigned place = FindIndex(key);
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
    if (side != nullptr) {
        SetKey(key, value, entrySize, valueOffset);
        return;
    }
    MakeTable(entrySize);
    try {
        AddFirst(key, value, entrySize, valueOffset);
    } catch (...) {
        BaseClearAll(entrySize, valueOffset);
        throw;
    }
}

void xbasedictionary::SetKey(const char* key, const void* value, unsigned entrySize, unsigned valueOffset)
{
    const xdictkey sought = side->index.keyOf(key);
    xdictindexentry* at = side->index.seek(sought);
    if (at->key != nullptr) {
        OnCopyEntry(EntryOf(at->place, entrySize) + valueOffset, value);
        return;
    }
    // All memory is taken before anything changes.
    if (side->index.reserve())
        at = side->index.seek(sought);
    char* const text = side->keys.add(sought);
    try {
        if (side->isSettled())
            AddEntry(text, sought, at, value, entrySize, valueOffset);
        else
            AppendEntry(text, sought, at, value, entrySize, valueOffset);
    } catch (...) {
        side->keys.remove(text, sought.length);
        throw;
    }
}

unsigned char xbasedictionary::BaseGetKeyByIndex(int slot, xstring* outKey, unsigned entrySize, unsigned)
{
    char* const entry = SettledEntryOf(slot, entrySize);
    if (entry == nullptr || !isLive(keyOf(entry)))
        return 0;
    if (outKey != nullptr)
        *outKey = keyOf(entry);
    return 1;
}

unsigned char xbasedictionary::BaseGetByIndex(int slot, void* out, unsigned entrySize, unsigned valueOffset)
{
    char* const entry = SettledEntryOf(slot, entrySize);
    if (entry == nullptr || !isLive(keyOf(entry)))
        return 0;
    if (out != nullptr)
        OnCopyEntry(out, entry + valueOffset);
    return 1;
}

unsigned char xbasedictionary::BaseSetByIndex(int slot, const void* value, unsigned entrySize,
                                              unsigned valueOffset)
{
    char* const entry = SettledEntryOf(slot, entrySize);
    if (entry == nullptr)
        return 0;
    if (isLive(keyOf(entry)))
        OnCopyEntry(entry + valueOffset, value);
    return 1;
}

unsigned char xbasedictionary::BaseRemoveByIndex(int slot, unsigned entrySize, unsigned valueOffset)
{
    char* const entry = SettledEntryOf(slot, entrySize);
    if (entry == nullptr)
        return 0;
    if (isLive(keyOf(entry)))
        BaseRemove(keyOf(entry), entrySize, valueOffset);
    return 1;
}

void xbasedictionary::BaseRemove(const char* key, unsigned entrySize, unsigned valueOffset)
{
    if (side == nullptr || !qelIsObject(key))
        return;
    const xdictkey sought = side->index.keyOf(key);
    xdictindexentry* const found = side->index.find(sought);
    if (found == nullptr)
        return;
    const unsigned place = found->place;
    char* const entry = EntryOf(place, entrySize);
    if (side->isSettled())
        side->layout->places.giveBack(place);
    else
        side->history.remove(place, xdicthome(key, sought.length));
    side->keys.remove(std::exchange(keyOf(entry), removedKey), sought.length);
    side->index.erase(found);
    --count;
    OnRemoveEntry(entry + valueOffset);

    // What the value held may have changed the dictionary while it went.
    if (size != 0) {
        try {
            if (side->isSettled())
                AdjustTableSize(entrySize, valueOffset);
            else
                AdjustPending(entrySize, valueOffset);
            if (side->keys.isSparse()) // only here, where every text is the key of an entry
                CompactKeys(entrySize);
        } catch (const std::bad_alloc&) {
            // Both stay as large as they are: a removal does not fail.
        }
    }
}

void xbasedictionary::BaseClearAll(unsigned entrySize, unsigned)
{
    if (table == nullptr)
        return;
    BaseFreeAllKeys(entrySize);
    delete side;
    side = nullptr;
    size = 0;
    count = 0;
    Replace(nullptr, 0); // last, for the same reason
}

/// Calls visit(place, entry) for each entry.
template<class Visit>
void xbasedictionary::ForEachEntry(unsigned entrySize, Visit visit) const
{
    if (side->isSettled()) {
        side->layout->places.forEachTaken([&](unsigned slot) { visit(slot, EntryOf(slot, entrySize)); });
        return;
    }
    for (unsigned place = 0; place < side->history.added(); ++place)
        if (char* const entry = EntryOf(place, entrySize); isLive(keyOf(entry)))
            visit(place, entry);
}

void xbasedictionary::BaseFreeAllKeys(unsigned entrySize)
{
    if (side == nullptr)
        return;
    if (side->keys.hasLong())
        ForEachEntry(entrySize, [&](unsigned, char* entry) {
            char* const key = keyOf(entry);
            if (const std::size_t length = std::strlen(key); xdictkeys::isLong(length))
                side->keys.remove(key, length);
        });
    xdictkeys().swap(side->keys);
}

void* xbasedictionary::AllocateBlock(std::size_t bytes)
{
    void* const block = pDefMemMgr->Allocate(bytes);
    btkExpectUse(block, bytes);
    return block;
}

bool xbasedictionary::IsSlot(int slot) const
{
    if (slot < 0)
        qelhThrowNegativeIndex(slot);
    return static_cast<unsigned>(slot) < size;
}

/// The entry in a slot, once all are settled; null when there is no such slot.
char* xbasedictionary::SettledEntryOf(int slot, unsigned entrySize)
{
    if (!IsSlot(slot))
        return nullptr;
    if (!side->isSettled())
        Settle(entrySize);
    return EntryOf(static_cast<unsigned>(slot), entrySize);
}

/// Adds a key that there is not to a settled table, where the rule says. The index has room for it.
void xbasedictionary::AddEntry(char* text, const xdictkey& key, xdictindexentry* at, const void* value,
                               unsigned entrySize, unsigned valueOffset)
{
    AdjustTableSize(entrySize, valueOffset);
    xdictlayout& layout = *side->layout;
    const xdicthome home(text, key.length);
    const unsigned slot = layout.places.take(home);
    if (slot == xdictplaces::none)
        QEL_ABORT(overflow);
    char* const entry = EntryOf(slot, entrySize);
    try {
        OnCopyEntry(entry + valueOffset, value);
    } catch (...) {
        layout.places.giveBack(slot);
        throw;
    }
    keyOf(entry) = text;
    layout.homes[slot] = home;
    side->index.insert(at, {text, slot, key.hash});
    ++count;
}

/// Adds a key that there is not to a table that is not settled, behind all others.
void xbasedictionary::AppendEntry(char* text, const xdictkey& key, xdictindexentry* at, const void* value,
                                  unsigned entrySize, unsigned valueOffset)
{
    const unsigned newSize = xdictNextSize(loads(), size, count);
    if (newSize <= room && side->history.added() == room) {
        // Many have gone. What is settled has no gaps.
        Settle(entrySize);
        AddEntry(text, key, at, value, entrySize, valueOffset);
        return;
    }
    if (count == newSize)
        QEL_ABORT(overflow);
    side->history.reserve();
    if (newSize > room)
        MakeRoom(newSize, entrySize);
    const unsigned number = side->history.added();
    char* const entry = EntryOf(number, entrySize);
    OnCopyEntry(entry + valueOffset, value);
    keyOf(entry) = text;
    side->index.insert(at, {text, number, key.hash});
    side->history.add();
    size = newSize;
    ++count;
}

/// Of settled entries: before a new key and after a removal.
void xbasedictionary::AdjustTableSize(unsigned entrySize, unsigned valueOffset)
{
    if (const unsigned newSize = xdictNextSize(loads(), size, count); newSize != size)
        Rehash(newSize, entrySize, valueOffset);
}

/// The same after the removal of an entry that was not settled. The block stays, as long as it has entries.
void xbasedictionary::AdjustPending(unsigned entrySize, unsigned valueOffset)
{
    const unsigned newSize = xdictNextSize(loads(), size, count);
    if (newSize != size) {
        if (!ownDestroy) {
            Settle(entrySize);
            AdjustTableSize(entrySize, valueOffset);
            return;
        }
        if (newSize > maxSize || !side->history.resize(size, newSize))
            return;
        size = newSize;
    }
    if (count != 0)
        return;
    if (room > size) {
        auto fresh = std::make_unique<xdictside>(size);
        char* const block = Allocate(size, entrySize);
        delete std::exchange(side, fresh.release());
        Replace(block, size);
    } else {
        side->history.restart(size);
    }
}

char* xbasedictionary::Allocate(unsigned nSlots, unsigned entrySize)
{
    char* const block = static_cast<char*>(OnAllocate(nSlots));
    for (unsigned slot = 0; slot < nSlots; ++slot)
        keyOf(block + std::size_t{slot} * entrySize) = nullptr;
    return block;
}

/// Makes `block` the table, and ends the old one.
void xbasedictionary::Replace(char* block, unsigned nSlots)
{
    void* const old = std::exchange(table, block);
    OnDestroy(old, std::exchange(room, nSlots));
}

/// The first table.
void xbasedictionary::MakeTable(unsigned entrySize)
{
    auto newSide = std::make_unique<xdictside>(xdictminsize);
    table = Allocate(xdictminsize, entrySize);
    side = newSide.release();
    size = room = xdictminsize;
}

/// Adds the first key, where the rule says. If nobody watches, entries lie in the order in which they are
/// added from then on.
void xbasedictionary::AddFirst(const char* key, const void* value, unsigned entrySize, unsigned valueOffset)
{
    const xdictkey added = side->index.keyOf(key);
    const xdicthome home(key, added.length);
    unsigned place = home.start() & (size - 1);
    char* const entry = EntryOf(place, entrySize);
    char* const text = side->keys.add(added);
    try {
        keyOf(entry) = text;
        OnCopyEntry(entry + valueOffset, value);
        if (!movesBits || !ownAllocate) {
            side->layout.emplace(size);
            side->layout->places.take(home);
            side->layout->homes[place] = home;
        }
    } catch (...) {
        side->keys.remove(text, added.length);
        throw;
    }
    if (!side->isSettled()) {
        if (place != 0)
            std::swap_ranges(entry, entry + entrySize, table);
        place = 0;
        side->history.add();
    }
    side->index.insert(side->index.seek(added), {text, place, added.hash});
    ++count;
}

/// Moves settled entries to a table of another size, in the order of the old slots.
void xbasedictionary::Rehash(unsigned newSize, unsigned entrySize, unsigned valueOffset)
{
    if (newSize > maxSize)
        throw std::length_error(tooLarge);
    const xdictlayout& old = *side->layout;
    std::unique_ptr<xdicthome[]> homes(new xdicthome[newSize]);
    std::optional<xdictplaces> places;
    const auto newSlots = std::make_unique<std::uint32_t[]>(size);
    char* const block = Allocate(newSize, entrySize);
    const bool moveBits = movesBits; // and then nobody sees that no value is copied
    try {
        const auto homeOf = [&](unsigned slot) { return old.homes[slot]; };
        places = old.places.rehashed(newSize, homeOf, [&](unsigned slot, unsigned newSlot) {
            if (newSlot == xdictplaces::none)
                QEL_ABORT(overflow);
            char* const from = EntryOf(slot, entrySize);
            char* const to = block + std::size_t{newSlot} * entrySize;
            if (moveBits) {
                moveEntry(to, from, entrySize);
                keyOf(from) = nullptr;
            } else {
                OnCopyEntry(to + valueOffset, from + valueOffset);
                keyOf(to) = keyOf(from);
            }
            homes[newSlot] = old.homes[slot];
            newSlots[slot] = newSlot;
        });
    } catch (...) {
        OnDestroy(block, newSize);
        throw;
    }
    side->index.renumber(newSlots.get());
    side->layout.emplace(std::move(*places), std::move(homes));
    size = newSize;
    Replace(block, newSize);
}

/// Moves entries that are not settled to a larger block.
void xbasedictionary::MakeRoom(unsigned nSlots, unsigned entrySize)
{
    if (nSlots > maxSize)
        throw std::length_error(tooLarge);
    char* const block = Allocate(nSlots, entrySize);
    const unsigned n = side->history.added();
    std::memcpy(block, table, std::size_t{n} * entrySize);
    for (unsigned place = 0; place < n; ++place)
        keyOf(EntryOf(place, entrySize)) = nullptr;
    Replace(block, nSlots);
}

/// Assigns their slots to entries that are not settled.
/// @throws std::bad_alloc  nothing has changed
void xbasedictionary::Settle(unsigned entrySize)
{
    const unsigned n = side->history.added();
    const std::unique_ptr<xdicthome[]> homes(new xdicthome[n]);
    ForEachEntry(entrySize, [&](unsigned place, char* entry) {
        homes[place] = xdicthome(keyOf(entry), std::strlen(keyOf(entry)));
    });
    xdicthistory::Outcome outcome = side->history.replay(loads(), homes.get(), room);
    if (outcome.size != size)
        QEL_ABORT("Can not be here.");
    std::unique_ptr<xdicthome[]> settledHomes(new xdicthome[size]);
    char* const block = Allocate(size, entrySize);

    ForEachEntry(entrySize, [&](unsigned place, char* entry) {
        const unsigned slot = outcome.slots[place];
        moveEntry(block + std::size_t{slot} * entrySize, entry, entrySize);
        keyOf(entry) = nullptr;
        settledHomes[slot] = homes[place];
    });
    side->index.renumber(outcome.slots.get());
    side->layout.emplace(std::move(outcome.places), std::move(settledHomes));
    side->history = xdicthistory(size);
    Replace(block, size);
}

/// Gives back the memory that many keys took which are gone.
void xbasedictionary::CompactKeys(unsigned entrySize)
{
    xdictkeys compact(side->keys.used());
    side->index.forEach([&](xdictindexentry& entry) {
        entry.key = compact.adopt(entry.key);
        keyOf(EntryOf(entry.place, entrySize)) = entry.key;
    });
    side->keys.swap(compact);
}
