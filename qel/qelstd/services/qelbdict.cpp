#include "qelbdict.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include <qel/base/btkabort.h>
#include <qel/base/btkmemory.h>

#include "xcollection.h"
#include "xdictindex_p.h"
#include "xdictkeys_p.h"
#include "xdictplaces_p.h"

/// What a table knows besides its slots.
struct xdictside
{
    explicit xdictside(unsigned size) : places(size), homes(new xdicthome[size]) {}

    xdictindex index;
    xdictkeys keys;
    xdictplaces places;
    std::unique_ptr<xdicthome[]> homes; ///< of the keys in the slots that are taken
};

namespace {

constexpr unsigned minSize = 32;
constexpr unsigned maxSize = 1u << 30; // so that an int counts the slots

constexpr char overflow[] = "Hash table overflow.";

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
        return noSlot;
    const xdictindexentry* const found = side->index.find(side->index.keyOf(key));
    return found == nullptr ? noSlot : found->slot;
}

unsigned char xbasedictionary::BaseFind(const char* key, void* out, unsigned entrySize, unsigned valueOffset)
{
    const unsigned slot = FindIndex(key);
    if (slot == noSlot)
        return 0;
    if (out != nullptr)
        OnCopyEntry(out, EntryOf(slot, entrySize) + valueOffset);
    return 1;
}

void xbasedictionary::BaseSet(const char* key, const void* value, unsigned entrySize, unsigned valueOffset)
{
    if (!qelIsObject(key))
        qelhThrowNotInitialized();
    if (side != nullptr) {
        SetKey(key, value, entrySize, valueOffset);
        return;
    }
    AdjustTableSize(entrySize, valueOffset);
    try {
        SetKey(key, value, entrySize, valueOffset);
    } catch (...) {
        BaseClearAll(entrySize, valueOffset);
        throw;
    }
}

void xbasedictionary::SetKey(const char* key, const void* value, unsigned entrySize, unsigned valueOffset)
{
    const xdictkey sought = side->index.keyOf(key);
    xdictindexentry* place = side->index.seek(sought);
    if (place->key != nullptr) {
        OnCopyEntry(EntryOf(place->slot, entrySize) + valueOffset, value);
        return;
    }
    // All memory is taken before anything changes.
    if (side->index.reserve())
        place = side->index.seek(sought);
    char* const text = side->keys.add(sought);
    try {
        AdjustTableSize(entrySize, valueOffset);
        AddEntry(text, sought, place, value, entrySize, valueOffset);
    } catch (...) {
        side->keys.remove(text, sought.length);
        throw;
    }
}

unsigned char xbasedictionary::BaseGetKeyByIndex(int slot, xstring* outKey, unsigned entrySize, unsigned)
{
    const char* const key = IsSlot(slot) ? keyOf(EntryOf(static_cast<unsigned>(slot), entrySize)) : nullptr;
    if (!isLive(key))
        return 0;
    if (outKey != nullptr)
        *outKey = key;
    return 1;
}

unsigned char xbasedictionary::BaseGetByIndex(int slot, void* out, unsigned entrySize, unsigned valueOffset)
{
    char* const entry = IsSlot(slot) ? EntryOf(static_cast<unsigned>(slot), entrySize) : nullptr;
    if (entry == nullptr || !isLive(keyOf(entry)))
        return 0;
    if (out != nullptr)
        OnCopyEntry(out, entry + valueOffset);
    return 1;
}

unsigned char xbasedictionary::BaseSetByIndex(int slot, const void* value, unsigned entrySize,
                                              unsigned valueOffset)
{
    if (!IsSlot(slot))
        return 0;
    char* const entry = EntryOf(static_cast<unsigned>(slot), entrySize);
    if (isLive(keyOf(entry)))
        OnCopyEntry(entry + valueOffset, value);
    return 1;
}

unsigned char xbasedictionary::BaseRemoveByIndex(int slot, unsigned entrySize, unsigned valueOffset)
{
    if (!IsSlot(slot))
        return 0;
    const char* const key = keyOf(EntryOf(static_cast<unsigned>(slot), entrySize));
    if (isLive(key))
        BaseRemove(key, entrySize, valueOffset);
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
    const unsigned slot = found->slot;
    char* const entry = EntryOf(slot, entrySize);
    side->keys.remove(std::exchange(keyOf(entry), removedKey), sought.length);
    side->index.erase(found);
    side->places.giveBack(slot);
    --count;
    OnRemoveEntry(entry + valueOffset);

    // What the value held may have changed the dictionary while it went.
    if (size != 0) {
        try {
            AdjustTableSize(entrySize, valueOffset);
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
    void* const block = table;
    const unsigned slots = size;
    delete side;
    side = nullptr;
    table = nullptr;
    size = 0;
    count = 0;
    OnDestroy(block, slots); // last, for the same reason
}

void xbasedictionary::BaseFreeAllKeys(unsigned entrySize)
{
    if (side == nullptr)
        return;
    if (side->keys.hasLong())
        side->places.forEachTaken([&](unsigned slot) {
            char* const key = keyOf(EntryOf(slot, entrySize));
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

/// Adds a key that there is not, in a table and an index that have room for it.
void xbasedictionary::AddEntry(char* text, const xdictkey& key, xdictindexentry* place, const void* value,
                               unsigned entrySize, unsigned valueOffset)
{
    const xdicthome home(text, key.length);
    const unsigned slot = side->places.take(home);
    if (slot == xdictplaces::none)
        QEL_ABORT(overflow);
    char* const entry = EntryOf(slot, entrySize);
    try {
        OnCopyEntry(entry + valueOffset, value);
    } catch (...) {
        side->places.giveBack(slot);
        throw;
    }
    keyOf(entry) = text;
    side->homes[slot] = home;
    side->index.insert(place, {text, slot, key.hash});
    ++count;
}

/// Before a new key and after a removal.
void xbasedictionary::AdjustTableSize(unsigned entrySize, unsigned valueOffset)
{
    // The loads are whole percents, rounded down.
    const std::uint64_t percent = std::uint64_t{count} * 100;
    if (size == 0)
        Rehash(minSize, entrySize, valueOffset);
    else if (percent >= std::uint64_t{size} * (std::uint64_t{maxLoad} + 1))
        Rehash(size * 2, entrySize, valueOffset);
    else if (size > minSize && percent < std::uint64_t{size / 2} * minLoad)
        Rehash(size / 2, entrySize, valueOffset);
}

char* xbasedictionary::Allocate(unsigned nSlots, unsigned entrySize)
{
    char* const block = static_cast<char*>(OnAllocate(nSlots));
    for (unsigned slot = 0; slot < nSlots; ++slot)
        keyOf(block + std::size_t{slot} * entrySize) = nullptr;
    return block;
}

/// Moves the entries to a table of another size, in the order of the old slots.
void xbasedictionary::Rehash(unsigned newSize, unsigned entrySize, unsigned valueOffset)
{
    if (newSize > maxSize)
        throw std::length_error("a dictionary has at most 2^30 slots");
    if (side == nullptr) {
        auto newSide = std::make_unique<xdictside>(newSize);
        table = Allocate(newSize, entrySize);
        side = newSide.release();
        size = newSize;
        return;
    }

    xdictplaces places(newSize);
    std::unique_ptr<xdicthome[]> homes(new xdicthome[newSize]);
    const auto newSlots = std::make_unique<std::uint32_t[]>(size);
    char* const block = Allocate(newSize, entrySize);
    const bool moveBits = movesBits; // and then nobody sees that no value is copied
    try {
        side->places.forEachTaken([&](unsigned slot) {
            const unsigned newSlot = places.take(side->homes[slot]);
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
            homes[newSlot] = side->homes[slot];
            newSlots[slot] = newSlot;
        });
    } catch (...) {
        OnDestroy(block, newSize);
        throw;
    }
    side->index.renumber(newSlots.get());
    side->places = std::move(places);
    side->homes = std::move(homes);
    void* const oldTable = table;
    const unsigned oldSize = size;
    table = block;
    size = newSize;
    OnDestroy(oldTable, oldSize);
}

/// Gives back the memory that many keys took which are gone.
void xbasedictionary::CompactKeys(unsigned entrySize)
{
    xdictkeys compact(side->keys.used());
    side->index.forEach([&](xdictindexentry& entry) {
        entry.key = compact.adopt(entry.key);
        keyOf(EntryOf(entry.slot, entrySize)) = entry.key;
    });
    side->keys.swap(compact);
}
