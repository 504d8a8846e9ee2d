#pragma once

#include <new>
#include <type_traits>
#include <utility>

#include <qel/qelbdict.h>
#include <qel/xcollection.h>

/// A slot of a dictionary: the key (see xbasedictionary), then the value.
template<class T>
struct xdictentry
{
    char* key;
    T value;
};

/// Maps texts to values of type T. Entries are accessible by key and by slot: walking a dictionary visits the
/// slots 0 to getarraysize() - 1, many of which are empty. Slot numbers are valid until the next removal or
/// the next set of a new key. Slots are assigned by the first operation that needs them: an operation by slot
/// may throw std::bad_alloc, with nothing changed. Keys are compared byte for byte; null and the marker
/// pointers are not keys: they are never found. Null `out` pointers are accepted.
///
/// Any number of threads may read at a time (`find`, `getcount`, `getarraysize`, `getkeybyindex`,
/// `getbyindex`, walks, printing) while none changes the dictionary.
template<class T>
class xtbdictionary : public xobject, public xbasedictionary
{
protected:
    using entry = xdictentry<T>;
    static constexpr unsigned entrySize = sizeof(entry);
    static constexpr unsigned valueOffset = sizeof(char*) < alignof(T) ? alignof(T) : sizeof(char*);

public:
    /// Returns the number of entries.
    int getcount() const { return static_cast<int>(count); }
    /// Returns the number of slots, 0 at first; not the number of entries.
    virtual int getarraysize() { return static_cast<int>(size); }
    /// Whether there is a value for `key`; stores it.
    virtual unsigned char find(const char* key, T* out)
    {
        if (!isOwnCopy())
            return BaseFind(key, out, entrySize, valueOffset);
        const unsigned place = FindIndex(key, entrySize);
        if (place != nowhere && out != nullptr)
            *out = reinterpret_cast<const entry*>(EntryOf(place, entrySize))->value;
        return place != nowhere;
    }
    /// Sets the value of an existing key, or adds the key.
    /// @throws qelXInvalidDictKey  `key` is not a text
    virtual void set(const char* key, T value)
    {
        if (!qelIsObject(key))
            qelhThrowInvalidDictKey(this, nullptr);
        BaseSet(key, &value, entrySize, valueOffset);
    }
    /// Whether there is an entry in the slot; stores its key. False for a slot past the table.
    /// @throws qelXNegativeIndex
    virtual unsigned char getkeybyindex(int slot, xstring* outKey)
    {
        return BaseGetKeyByIndex(slot, outKey, entrySize, valueOffset);
    }
    /// The same for the value.
    virtual unsigned char getbyindex(int slot, T* out)
    {
        return BaseGetByIndex(slot, out, entrySize, valueOffset);
    }
    /// Assigns the value of the entry in the slot; an empty slot is left unchanged.
    /// @throws qelXNegativeIndex
    /// @throws qelXInvalidDictIndex  the slot is past the table; the exception holds a reference to the
    /// dictionary
    virtual void setbyindex(int slot, T value)
    {
        if (!BaseSetByIndex(slot, &value, entrySize, valueOffset))
            qelhThrowInvalidDictIndex(this, slot);
    }
    /// Removes the entry; ignores a missing key.
    virtual void remove(const char* key) { BaseRemove(key, entrySize, valueOffset); }
    /// Removes the entry in the slot; throws as setbyindex does.
    virtual void removebyindex(int slot)
    {
        if (!BaseRemoveByIndex(slot, entrySize, valueOffset))
            qelhThrowInvalidDictIndex(this, slot);
    }
    /// Removes all entries and the table.
    virtual void clearall() { BaseClearAll(entrySize, valueOffset); }

private:
    /// Implements OnDestroy.
    virtual void Destroy(void* block, unsigned nSlots) = 0;

    void OnDestroy(void* block, unsigned nSlots) override { Destroy(block, nSlots); }
    void OnCopyEntry(void* toValue, const void* fromValue) override
    {
        sawOwnCopy();
        *static_cast<T*>(toValue) = *static_cast<const T*>(fromValue);
    }

protected:
    explicit xtbdictionary(const xdictcontrol* control) : xbasedictionary(control) {}
    ~xtbdictionary() override = default;
};

/// A dictionary of plain values: numbers and pointers. Pointers to objects are not counted.
template<class T>
class xtsdictionary : public xtbdictionary<T>
{
    static_assert(std::is_trivially_copyable_v<T>);

public:
    explicit xtsdictionary(const xdictcontrol* control = nullptr) : xtbdictionary<T>(control) {}
    ~xtsdictionary() override
    {
        this->sawOwnDestroy();
        this->BaseClearAll(this->entrySize, this->valueOffset);
    }

private:
    void* OnAllocate(unsigned nSlots) override
    {
        return this->AllocateBlock(std::size_t{this->sawOwnAllocate(nSlots, true)} * this->entrySize);
    }
    void OnRemoveEntry(void*) override {}
    void Destroy(void* block, unsigned) override
    {
        this->sawOwnDestroy();
        ::operator delete(block);
    }
};

/// A dictionary of values with constructors. Values of slots without an entry are in the default state, which
/// owns nothing.
template<class T>
class xtcdictionary : public xtbdictionary<T>
{
    static_assert(std::is_nothrow_default_constructible_v<T> && std::is_nothrow_destructible_v<T>);
    using entry = xdictentry<T>;

public:
    explicit xtcdictionary(const xdictcontrol* control = nullptr) : xtbdictionary<T>(control) {}
    ~xtcdictionary() override
    {
        this->sawOwnDestroy();
        while (this->table != nullptr) // a value's destructor may add entries
            this->BaseClearAll(this->entrySize, this->valueOffset);
    }

private:
    void* OnAllocate(unsigned nSlots) override
    {
        const unsigned n = this->sawOwnAllocate(nSlots, qelIsMovedByBits<T>);
        void* const block = this->AllocateBlock(std::size_t{n} * this->entrySize);
        entry* at = static_cast<entry*>(block);
        for (entry* const end = at + n; at != end; ++at)
            new (at) entry();
        return block;
    }
    void OnRemoveEntry(void* value) override
    {
        // The value's destructor may access the dictionary.
        T* const at = static_cast<T*>(value);
        const T ended(std::move(*at));
        at->~T();
        new (at) T();
    }
    void Destroy(void* block, unsigned nSlots) override
    {
        this->sawOwnDestroy();
        entry* at = static_cast<entry*>(block);
        for (entry* const end = at + nSlots; at != end; ++at)
            if (this->isLive(at->key))
                at->value.~T();
        ::operator delete(block);
    }
};

// ---- the standard dictionaries

extern template class QEL_API xtbdictionary<unsigned char>;
extern template class QEL_API xtbdictionary<int>;
extern template class QEL_API xtbdictionary<double>;
extern template class QEL_API xtbdictionary<xstring>;
extern template class QEL_API xtbdictionary<xany>;
extern template class QEL_API xtsdictionary<unsigned char>;
extern template class QEL_API xtsdictionary<int>;
extern template class QEL_API xtsdictionary<double>;
extern template class QEL_API xtcdictionary<xstring>;
extern template class QEL_API xtcdictionary<xany>;

/// Values are bools, as bytes.
class QEL_API xbooldictionary : public xtsdictionary<unsigned char>
{
    QEL_OBJECT(xbooldictionary); // "booleandict", counted

public:
    static xbooldictionary* create() { return new (pDefMemMgr) xbooldictionary; }
};

class QEL_API xintdictionary : public xtsdictionary<int>
{
    QEL_OBJECT(xintdictionary); // "intdict", counted

public:
    static xintdictionary* create() { return new (pDefMemMgr) xintdictionary; }
};

class QEL_API xrealdictionary : public xtsdictionary<double>
{
    QEL_OBJECT(xrealdictionary); // "realdict", counted

public:
    static xrealdictionary* create() { return new (pDefMemMgr) xrealdictionary; }
};

class QEL_API xstringdictionary : public xtcdictionary<xstring>
{
    QEL_OBJECT(xstringdictionary); // "stringdict", counted

public:
    static xstringdictionary* create() { return new (pDefMemMgr) xstringdictionary; }
};

class QEL_API xanydictionary : public xtcdictionary<xany>
{
    QEL_OBJECT(xanydictionary); // "anydict", counted

public:
    static xanydictionary* create() { return new (pDefMemMgr) xanydictionary; }
};
