#pragma once

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <new>
#include <type_traits>
#include <utility>

#include <qel/qelbdict.h>
#include <qel/xcollection.h>

/// A slot of a dictionary: the key (see xbasedictionary), then the value.
template<class T>
struct xdictentry
{
    /// The key, with the ending zero; null or odd for a place without an entry.
    char* key;
    /// The value.
    T value;
};

template<class T>
class xtbdictionary;

/// An entry of a dictionary, as iteration returns it: `for (const auto& [key, value] : *dictionary)`.
template<class T>
struct xdictitem
{
    /// The key.
    xstring key;
    /// The value.
    T value;
};

/// A place in a dictionary; `*it` is a copy of the entry, whose value `find` returns. Entries added or removed
/// during a loop may be missed, or visited twice.
template<class T>
class xdictiterator
{
public:
    using value_type = xdictitem<T>;
    using reference = value_type;
    using pointer = qelArrow<value_type>;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::input_iterator_tag;
    using iterator_concept = std::forward_iterator_tag;

    xdictiterator() = default;
    explicit xdictiterator(xtbdictionary<T>* dictionary) : owner(dictionary) { seek(0); }

    value_type operator*() const
    {
        value_type item{owner->keyAtPlace(place), T()};
        owner->find(item.key.CastToCString(), &item.value);
        return item;
    }
    qelArrow<value_type> operator->() const { return {**this}; }
    xdictiterator& operator++()
    {
        seek(place + 1);
        return *this;
    }
    xdictiterator operator++(int)
    {
        const xdictiterator old = *this;
        ++*this;
        return old;
    }
    friend bool operator==(const xdictiterator& a, const xdictiterator& b) { return a.place == b.place; }
    friend bool operator==(const xdictiterator& a, std::default_sentinel_t) { return a.place == ~0u; }

private:
    void seek(unsigned from) { place = owner->nextPlace(from); }

    xtbdictionary<T>* owner = nullptr;
    unsigned place = ~0u;
};

/// Maps texts to values of type T. An operation by key costs constant time on average, whatever the keys.
/// Entries are accessible by key and by slot: walking a dictionary visits the
/// slots 0 to getarraysize() - 1, many of which are empty. Slot numbers are valid until the next removal or
/// the next set of a new key. Slots are assigned by the first operation that needs them: an operation by slot
/// may throw std::bad_alloc, with nothing changed, and
/// costs time proportional to the number of entries. Keys are compared byte for byte; null and the marker
/// pointers are not keys: they are never found. Null `out` pointers are accepted.
///
/// Any number of threads may read at a time (`find`, `getcount`, `getarraysize`, `getkeybyindex`,
/// `getbyindex`, walks, printing) while none changes the dictionary.
///
/// `for (const auto& [key, value] : *dictionary)` and the algorithms of the standard library visit the entries,
/// not the slots, in an order that is not promised. Keys may be any kind of text.
///
///     const auto ages = xintdictionary::make({{"Ada", 36}, {"Blaise", 39}});
///     ages->set("Charles", 79);
///     if (int age; ages->find("Ada", &age))
///         std::cout << age << '\n';
///     for (const auto& [name, years] : *ages)
///         std::cout << name << ' ' << years << '\n';
template<class T>
class xtbdictionary : public xobject, public xbasedictionary
{
protected:
    /// The table's entry, its size, and the place of the value in it, in bytes.
    using entry = xdictentry<T>;
    static constexpr unsigned entrySize = sizeof(entry);
    static constexpr unsigned valueOffset = sizeof(char*) < alignof(T) ? alignof(T) : sizeof(char*);

    friend class xdictiterator<T>;
    /// Returns the first occupied place from `from` on, and the key there.
    unsigned nextPlace(unsigned from) const { return NextPlace(from, entrySize); }
    xstring keyAtPlace(unsigned place) const
    {
        // The entry may have been removed meanwhile.
        return NextPlace(place, entrySize) == place
                   ? xstring(reinterpret_cast<const entry*>(EntryOf(place, entrySize))->key)
                   : xstring();
    }

public:
    using value_type = xdictitem<T>;
    using mapped_type = T;
    using iterator = xdictiterator<T>;
    using const_iterator = iterator;

    iterator begin() const { return iterator(self()); }
    iterator end() const { return {}; }
    /// For std::ranges::size, which accepts only functions for exactly the class; a member of that name would
    /// hide the number of slots.
    template<std::derived_from<xtbdictionary> D>
    friend std::size_t size(D& d)
    {
        return static_cast<std::size_t>(d.getcount());
    }
    template<std::derived_from<xtbdictionary> D>
    friend std::size_t size(const D& d)
    {
        return static_cast<std::size_t>(d.getcount());
    }
    bool empty() const { return count == 0; }
    /// Whether `find` has a value for `key`.
    template<qelText K>
    bool contains(const K& key) const
    {
        return self()->find(qelTextArgument(key), nullptr) != 0;
    }
    /// Returns the value for `key`, or `fallback`.
    template<qelText K>
    T value_or(const K& key, T fallback) const
    {
        self()->find(qelTextArgument(key), &fallback);
        return fallback;
    }
    template<qelTextObject K>
    unsigned char find(const K& key, T* out)
    {
        return find(qelTextArgument(key), out);
    }
    template<qelTextObject K>
    void set(const K& key, T value)
    {
        set(qelTextArgument(key), std::move(value));
    }
    template<qelTextObject K>
    void remove(const K& key)
    {
        remove(qelTextArgument(key));
    }

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
    xtbdictionary* self() const { return const_cast<xtbdictionary*>(this); }

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
///
///     class Offsets : public xtsdictionary<long>
///     {
///     };
///
///     xauto<Offsets> offsets;
///     offsets.set("header", 4096);
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
///
///     class Servers : public xtcdictionary<xrchandle<netAddress>>
///     {
///     };
///
///     xauto<Servers> servers;
///     servers.set("words", netAddress::Create(7000, "localhost"));
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

// `make` returns the handle that owns a new dictionary of the entries, `create` a new, empty one whose count is
// 0: it is deleted with the first handle or variant that holds it, and by nothing if none ever does.

template<class D>
xrchandle<D> qelMakeDictOf(std::initializer_list<typename D::value_type> entries)
{
    xrchandle<D> made = qel::make<D>();
    for (const auto& [key, value] : entries)
        made->set(key, value);
    return made;
}

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

/// Values are bools, as bytes: `xbooldictionary::make({{"ready", true}})`.
class QEL_API xbooldictionary : public xtsdictionary<unsigned char>
{
    QEL_OBJECT(xbooldictionary); // "booleandict", counted
    QEL_COUNTED;

public:
    static xbooldictionary* create() { return new (pDefMemMgr) xbooldictionary; }
    static xrchandle<xbooldictionary> make(std::initializer_list<value_type> entries = {})
    {
        return qelMakeDictOf<xbooldictionary>(entries);
    }
};

/// A dictionary of ints: `xintdictionary::make({{"Ada", 36}})`.
class QEL_API xintdictionary : public xtsdictionary<int>
{
    QEL_OBJECT(xintdictionary); // "intdict", counted
    QEL_COUNTED;

public:
    static xintdictionary* create() { return new (pDefMemMgr) xintdictionary; }
    static xrchandle<xintdictionary> make(std::initializer_list<value_type> entries = {})
    {
        return qelMakeDictOf<xintdictionary>(entries);
    }
};

/// A dictionary of reals: `xrealdictionary::make({{"load", 0.5}})`.
class QEL_API xrealdictionary : public xtsdictionary<double>
{
    QEL_OBJECT(xrealdictionary); // "realdict", counted
    QEL_COUNTED;

public:
    static xrealdictionary* create() { return new (pDefMemMgr) xrealdictionary; }
    static xrchandle<xrealdictionary> make(std::initializer_list<value_type> entries = {})
    {
        return qelMakeDictOf<xrealdictionary>(entries);
    }
};

/// A dictionary of strings.
///
///     const auto capitals = xstringdictionary::make({{"France", "Paris"}});
///     std::cout << capitals->value_or("Peru", "?") << '\n';
class QEL_API xstringdictionary : public xtcdictionary<xstring>
{
    QEL_OBJECT(xstringdictionary); // "stringdict", counted
    QEL_COUNTED;

public:
    static xstringdictionary* create() { return new (pDefMemMgr) xstringdictionary; }
    static xrchandle<xstringdictionary> make(std::initializer_list<value_type> entries = {})
    {
        return qelMakeDictOf<xstringdictionary>(entries);
    }
};

/// A dictionary of values of any kind.
///
///     const auto person = xanydictionary::make({{"name", "Ada"}, {"age", 36}});
///     qelPrint(person, std::cout, 2);
class QEL_API xanydictionary : public xtcdictionary<xany>
{
    QEL_OBJECT(xanydictionary); // "anydict", counted
    QEL_COUNTED;

public:
    static xanydictionary* create() { return new (pDefMemMgr) xanydictionary; }
    static xrchandle<xanydictionary> make(std::initializer_list<value_type> entries = {})
    {
        return qelMakeDictOf<xanydictionary>(entries);
    }
};
