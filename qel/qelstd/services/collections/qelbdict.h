#pragma once

#include <cstddef>
#include <cstdint>

#include <qel/qelexport.h>

class xstring;
struct xdictside;
struct xdictkey;
struct xdictindexentry;

/// Load limits at which a dictionary's table grows and shrinks, as percentages of the slots in use.
struct xdictcontrol
{
    /// A table halves when its load would then be below this.
    unsigned minLoad = 70;
    /// A table whose load exceeds this doubles before a key is added.
    unsigned maxLoad = 90;
};

/// The table of a dictionary: slots of equal size, each with a pointer to the key's text and the value. It
/// handles values only through its four hooks, which the hook sets xtsdictionary and xtcdictionary
/// (xdictionary.h) implement. The operations take the size of a slot and the position of the value in it.
///
/// The slot of a key follows a published rule, since callers walk a dictionary by slot. With the bytes of the
/// key as signed numbers k[0] ... k[n - 1] and all arithmetic in 32 bits, its probe sequence is the slots
/// `(start + i * step) mod size` for i = 0, 1, ...:
///     start = k[n / 2] * k[n - 1] * k[0]                               0 for the empty key
///     step  = 2 * (k[n / 2 + 1] ^ k[n - 2] ^ k[1]) + 1                 2 * k[0] + 1 below three bytes, 1 for
///     none
/// A new key takes the first slot that is empty or whose key was removed. The table has 32 slots at first; it
/// doubles or halves according to xdictcontrol, and the keys are then added again in the order of the old
/// slots. This is the observable behaviour. The implementation finds keys and free slots differently, and
/// assigns slots only at the first operation by slot; see docs/dictionary.md.
///
/// Key pointers in the table: null, never used; odd, removed; else the dictionary's own copy of the text,
/// which other operations may move. Null and the marker pointers are not keys: they are never found, and
/// setting one throws qelXInvalidDictKey.
///
/// A subclass that overrides a hook receives every call that the rule requires, in order and with a table of
/// `size` slots. Calls to the hooks of the hook sets cannot be observed, and most are omitted.
class QEL_API xbasedictionary
{
public:
    xbasedictionary(const xbasedictionary&) = delete;
    xbasedictionary& operator=(const xbasedictionary&) = delete;

    /// Whether there is a value for `key`; stores it when `out` is not null.
    unsigned char BaseFind(const char* key, void* out, unsigned entrySize, unsigned valueOffset);
    /// Sets or adds. `value` lies outside the table. When memory runs out, the dictionary is unchanged.
    void BaseSet(const char* key, const void* value, unsigned entrySize, unsigned valueOffset);
    /// Whether there is an entry in the slot; its key or value is stored when the pointer is not null.
    /// @throws qelXNegativeIndex
    /// @throws std::bad_alloc  no memory to assign slots, as in all operations by slot; nothing is changed
    unsigned char BaseGetKeyByIndex(int slot, xstring* outKey, unsigned entrySize, unsigned valueOffset);
    unsigned char BaseGetByIndex(int slot, void* out, unsigned entrySize, unsigned valueOffset);
    /// False when there is no such slot. A slot without an entry is left unchanged.
    /// @throws qelXNegativeIndex
    unsigned char BaseSetByIndex(int slot, const void* value, unsigned entrySize, unsigned valueOffset);
    unsigned char BaseRemoveByIndex(int slot, unsigned entrySize, unsigned valueOffset);
    /// Ignores a missing key.
    void BaseRemove(const char* key, unsigned entrySize, unsigned valueOffset);
    /// Removes all entries and frees the table.
    void BaseClearAll(unsigned entrySize, unsigned valueOffset);

private:
    /// Returns a block of `nSlots` slots with every value in its default state; the caller sets the keys.
    virtual void* OnAllocate(unsigned nSlots) = 0;
    /// Destroys the values of the slots that have a key, and frees the block.
    virtual void OnDestroy(void* block, unsigned nSlots) = 0;
    virtual void OnCopyEntry(void* toValue, const void* fromValue) = 0;
    /// Resets the value of a removed entry to the default state.
    virtual void OnRemoveEntry(void* value) = 0;

protected:
    /// Null: the default limits.
    explicit xbasedictionary(const xdictcontrol* control = nullptr);
    ~xbasedictionary();

    /// Frees the texts of all keys without resetting the pointers, which the table no longer uses.
    void BaseFreeAllKeys(unsigned entrySize);
    /// Returns memory of the framework's allocator, freed with `operator delete`.
    static void* AllocateBlock(std::size_t bytes);

    /// The place of a missing entry.
    static constexpr unsigned nowhere = ~0u;
    /// Returns the place of the first entry from `place` on, or nowhere.
    unsigned NextPlace(unsigned place, unsigned entrySize) const
    {
        for (; table != nullptr && place < room; ++place)
            if (isLive(*reinterpret_cast<char* const*>(EntryOf(place, entrySize))))
                return place;
        return nowhere;
    }
    /// Returns the position of the entry of `key` in the table, or nowhere.
    unsigned FindIndex(const char* key, unsigned entrySize) const;
    char* EntryOf(unsigned place, unsigned entrySize) const { return &table[std::size_t{place} * entrySize]; }
    /// Whether the key pointer of an entry points to a text.
    static bool isLive(const char* key)
    {
        return key != nullptr && (reinterpret_cast<std::uintptr_t>(key) & 1) == 0;
    }

    // Called by the hooks of the hook sets: such a call proves that no subclass overrides that hook.
    // Returns the number of slots to allocate. `isMovedByBits`: whether the values are trivially relocatable.
    unsigned sawOwnAllocate(unsigned nSlots, bool isMovedByBits)
    {
        ownAllocate = true;
        movesBits = isMovedByBits;
        return wanted != 0 && isMovedByBits ? wanted : nSlots;
    }
    void sawOwnDestroy() { ownDestroy = true; }
    void sawOwnCopy()
    {
        if (!ownCopy) // never written while threads only read
            ownCopy = true;
    }
    bool isOwnCopy() const { return ownCopy; }

    /// The entries.
    char* table = nullptr;
    unsigned size = 0;  // slots
    unsigned count = 0; // entries
    /// Percentages of occupied places at which the table shrinks and grows.
    const unsigned minLoad;
    const unsigned maxLoad;

private:
    struct Shape // of an entry
    {
        unsigned size;
        unsigned valueOffset;
    };

    unsigned NextSize() const;
    char* EntryIn(int slot, unsigned entrySize);
    unsigned Seek(const xdictkey& key, unsigned entrySize, xdictindexentry** at = nullptr) const;
    char* Allocate(unsigned nSlots, unsigned entrySize, unsigned onlyFor = 0);
    void Replace(char* block, unsigned newRoom, unsigned entrySize);
    void Add(const xdictkey& key, xdictindexentry* at, const void* value, Shape shape);
    unsigned GapForOne(unsigned newSize, unsigned entrySize);
    void MakeRoom(Shape shape);
    void Move(unsigned newRoom, Shape shape, bool watch);
    void ShowSize(unsigned oldSize, unsigned newSize, Shape shape);
    void Restart(unsigned entrySize);
    void Settle(unsigned entrySize);
    void AssignSlots(unsigned entrySize);
    void CompactKeys(unsigned entrySize);

    bool ownCopy : 1 = false;
    bool ownAllocate : 1 = false;
    bool ownDestroy : 1 = false;
    bool movesBits : 1 = false;
    // A subclass overrides hooks: blocks have an entry for each slot.
    bool watched : 1 = false;
    // Entries that the block has room for.
    unsigned room = 0;
    // Entries of a new block whose size no subclass observes; 0: one for each slot.
    unsigned wanted = 0;
    // Null while there is no table.
    xdictside* side = nullptr;
};
