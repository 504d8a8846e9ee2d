#pragma once

#include <cstddef>
#include <cstdint>

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
/// That is what callers see. How keys and free slots are found is another matter, and slots are not assigned
/// before somebody asks for one: docs/dictionary.md shows it.
///
/// Key pointers in the table: null, never used; odd, removed; else the dictionary's own copy of the text,
/// which other operations may move. Null and the marker pointers are no keys: they are never found, and
/// setting one throws qelXInvalidDictKey.
///
/// A subclass that overrides a hook sees all calls that the rule asks for, at their time and with a table of
/// `size` slots. With the hooks of the hook sets nobody sees them, and most are left out.
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
    unsigned FindIndex(const char* key, unsigned entrySize) const;
    char* EntryOf(unsigned place, unsigned entrySize) const { return &table[std::size_t{place} * entrySize]; }
    /// Whether the key pointer of an entry is a text.
    static bool isLive(const char* key)
    {
        return key != nullptr && (reinterpret_cast<std::uintptr_t>(key) & 1) == 0;
    }

    // Called by the hooks of the hook sets: they run, so no subclass watches what they do.
    /// Tells for how many slots to allocate. `isMovedByBits`: so are the values.
    unsigned sawOwnAllocate(unsigned nSlots, bool isMovedByBits)
    {
        ownAllocate = true;
        movesBits = isMovedByBits;
        return wanted != 0 && isMovedByBits ? wanted : nSlots;
    }
    void sawOwnDestroy() { ownDestroy = true; }
    void sawOwnCopy()
    {
        if (!ownCopy) // never while threads only read
            ownCopy = true;
    }
    bool isOwnCopy() const { return ownCopy; }

    char* table = nullptr;
    unsigned size = 0;  // slots
    unsigned count = 0; // entries
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
    bool watched : 1 = false;  // a subclass overrides hooks: blocks have an entry for each slot
    unsigned room = 0;         // entries that the block has
    unsigned wanted = 0;       // entries of a new block whose size no subclass sees; 0: one for each slot
    xdictside* side = nullptr; // there is one while there is a table
};
