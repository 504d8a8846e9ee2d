#pragma once

#include <cstddef>

#include <qel/qelexport.h>

class xstring;
struct xdictside;
struct xdictkey;
struct xdictindexentry;

/// When a dictionary's table grows and shrinks, in percent of the slots in use.
struct xdictcontrol
{
    unsigned minLoad = 70; ///< a table that would hold less than this after halving keeps its size
    unsigned maxLoad = 90; ///< a table that holds more than this doubles before a new key
};

/// The table of a dictionary: slots of one size, each with a pointer to the text of its key and the value. It
/// knows nothing of the values but what its four hooks do; the hook sets xtsdictionary and xtcdictionary
/// (xdictionary.h) implement them. The operations take the size of a slot and the position of the value in
/// it.
///
/// The slot of a key is a published rule, since slots are how a dictionary is walked. With the bytes of the
/// key as signed numbers k[0] ... k[n - 1] and all arithmetic in 32 bits, its probes look at the slots
/// `(start + i * step) mod size` for i = 0, 1, ...:
///     start = k[n / 2] * k[n - 1] * k[0]                               0 for the empty key
///     step  = 2 * (k[n / 2 + 1] ^ k[n - 2] ^ k[1]) + 1                 2 * k[0] + 1 below three bytes, 1 for
///     none
/// A new key takes the first slot that is empty or whose key was removed. The table has 32 slots at first; it
/// doubles or halves as xdictcontrol says, and then the keys are added anew in the order of the old slots.
/// How keys and free slots are found is another matter: qelbdict.cpp does it without probing. Nor are slots
/// assigned before somebody asks for one: until the first operation by slot, entries lie in the order in
/// which they were added.
///
/// Key pointers in slots: null, never used; 1, removed; else the dictionary's own copy of the text, which a
/// change of size may move. Null and the marker pointers are no keys: they are never found, and setting one
/// throws qelXInvalidDictKey.
class QEL_API xbasedictionary
{
public:
    xbasedictionary(const xbasedictionary&) = delete;
    xbasedictionary& operator=(const xbasedictionary&) = delete;

    /// Whether there is a value for `key`; stores it when `out` is not null.
    unsigned char BaseFind(const char* key, void* out, unsigned entrySize, unsigned valueOffset);
    /// Sets or adds. `value` lies outside the table. When memory runs out nothing has changed.
    void BaseSet(const char* key, const void* value, unsigned entrySize, unsigned valueOffset);
    /// Whether there is an entry in the slot, whose key or value is stored when the pointer is not null.
    /// @throws qelXNegativeIndex
    /// @throws std::bad_alloc  no memory to assign slots, as in all operations by slot; nothing has changed
    unsigned char BaseGetKeyByIndex(int slot, xstring* outKey, unsigned entrySize, unsigned valueOffset);
    unsigned char BaseGetByIndex(int slot, void* out, unsigned entrySize, unsigned valueOffset);
    /// False when there is no such slot. A slot without an entry is left alone.
    /// @throws qelXNegativeIndex
    unsigned char BaseSetByIndex(int slot, const void* value, unsigned entrySize, unsigned valueOffset);
    unsigned char BaseRemoveByIndex(int slot, unsigned entrySize, unsigned valueOffset);
    /// A key that there is not is ignored.
    void BaseRemove(const char* key, unsigned entrySize, unsigned valueOffset);
    /// Back to no table at all.
    void BaseClearAll(unsigned entrySize, unsigned valueOffset);

private:
    /// A block of `nSlots` slots with every value in its default state; the keys are set by the caller.
    virtual void* OnAllocate(unsigned nSlots) = 0;
    /// Ends the values of the slots that have a key, and frees the block.
    virtual void OnDestroy(void* block, unsigned nSlots) = 0;
    virtual void OnCopyEntry(void* toValue, const void* fromValue) = 0;
    /// Brings the value of a removed entry back to the default state.
    virtual void OnRemoveEntry(void* value) = 0;

protected:
    /// Null: the defaults.
    explicit xbasedictionary(const xdictcontrol* control = nullptr);
    ~xbasedictionary();

    /// Frees the texts of all keys and leaves the pointers, which the table is done with.
    void BaseFreeAllKeys(unsigned entrySize);
    /// Memory of the framework's allocator, freed with `operator delete`.
    static void* AllocateBlock(std::size_t bytes);

    static constexpr unsigned nowhere = ~0u;
    /// Where in the table the entry of `key` lies, or nowhere.
    unsigned FindIndex(const char* key) const;
    char* EntryOf(unsigned place, unsigned entrySize) const { return &table[std::size_t{place} * entrySize]; }

    /// Called by the hooks of the hook sets: they run, so no subclass watches what they do, which may then be
    /// done without them. Where the bits of a value may be moved, that is what happens when the table changes
    /// its size.
    void sawOwnCopy(bool isMovedByBits)
    {
        ownCopy = true;
        movesBits = isMovedByBits;
    }
    void sawOwnAllocate() { ownAllocate = true; }
    void sawOwnDestroy() { ownDestroy = true; }
    bool isOwnCopy() const { return ownCopy; }

    char* table = nullptr;
    unsigned size = 0;  // slots
    unsigned count = 0; // entries
    const unsigned minLoad;
    const unsigned maxLoad;

private:
    xdictcontrol loads() const { return {minLoad, maxLoad}; }
    bool IsSlot(int slot) const;
    char* SettledEntryOf(int slot, unsigned entrySize);
    template<class Visit>
    void ForEachEntry(unsigned entrySize, Visit visit) const;
    void SetKey(const char* key, const void* value, unsigned entrySize, unsigned valueOffset);
    void AddEntry(char* text, const xdictkey& key, xdictindexentry* at, const void* value, unsigned entrySize,
                  unsigned valueOffset);
    void AppendEntry(char* text, const xdictkey& key, xdictindexentry* at, const void* value,
                     unsigned entrySize, unsigned valueOffset);
    void AdjustTableSize(unsigned entrySize, unsigned valueOffset);
    char* Allocate(unsigned nSlots, unsigned entrySize);
    void Replace(char* block, unsigned nSlots);
    void MakeTable(unsigned entrySize);
    void AddFirst(const char* key, const void* value, unsigned entrySize, unsigned valueOffset);
    void Rehash(unsigned newSize, unsigned entrySize, unsigned valueOffset);
    void MakeRoom(unsigned nSlots, unsigned entrySize);
    void AdjustPending(unsigned entrySize, unsigned valueOffset);
    void Settle(unsigned entrySize);
    void CompactKeys(unsigned entrySize);

    bool ownCopy = false;
    bool movesBits = false;
    bool ownAllocate = false;
    bool ownDestroy = false;
    unsigned room = 0;         // slots that the block of the table has
    xdictside* side = nullptr; // there is one while there is a table
};
