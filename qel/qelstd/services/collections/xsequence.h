#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include <qel/xcollection.h>

/// How a sequence manages its memory.
struct xseqcontrol
{
    /// Whether a sequence that shrinks may release memory.
    bool shrink;
    /// Bytes; the capacity is a multiple of it. 0 stands for 256.
    unsigned granularity;
};

/// The storage of a sequence, in bytes. It handles elements only through its four hooks, which the hook sets
/// xtssequence and xtcsequence below implement.
///
/// A sequence holds at most 2^31 - 1 bytes: an operation that exceeds this throws std::length_error here, and
/// qelXInvalidSeqIndex where it takes an index. Both, and std::bad_alloc when memory runs out, leave the
/// sequence unchanged. The operations by bytes require elements whose destructors run no code that uses the
/// sequence; those of xtbsequence support all elements.
class QEL_API xbasesequence
{
public:
    xbasesequence(const xbasesequence&) = delete;
    xbasesequence& operator=(const xbasesequence&) = delete;

    /// Sets the number of bytes in use. New elements are in the default state.
    void Resize(std::size_t newUsed);
    /// Copies `n` bytes of elements over those at `offset`, and extends the sequence if they end past it.
    /// `from` may point into this sequence.
    void BaseCopy(std::size_t offset, std::size_t n, const void* from);
    /// Moves the content from `offset` on up by `n` bytes. An `offset` past the end extends the sequence.
    void BaseInsertEmpty(std::size_t offset, std::size_t n);
    /// Inserts `n` bytes of elements at `offset`. `from` may point into this sequence: its content before the
    /// call is inserted.
    void BaseInsert(std::size_t offset, std::size_t n, const void* from);
    /// Removes the bytes between the two offsets, whichever is lower, up to the end.
    void BaseRemove(std::size_t a, std::size_t b);

protected:
    /// Whether `place` lies in this sequence's block.
    bool holds(const void* place) const
    {
        return reinterpret_cast<std::uintptr_t>(place) - reinterpret_cast<std::uintptr_t>(data) < capacity;
    }
    /// Whether a sequence may have that many bytes in use.
    bool mayHold(std::size_t bytes) const { return bytes <= maxBytes && inBlocks(bytes) <= maxBytes; }
    /// The capacity for that many bytes, at most maxBytes: whole blocks of `granularity`.
    std::size_t inBlocks(std::size_t bytes) const
    {
        const std::size_t last = granularity - 1;
        return (granularity & last) == 0 ? (bytes + last) & ~last
                                         : (bytes + last) / granularity * granularity;
    }

    static constexpr std::size_t maxBytes = 0x7fffffff; // so an int can count the elements

private:
    /// Returns the storage block for a capacity of `newCapacity` bytes, with as much of the present content
    /// as fits; `data`, `used` and `capacity` still describe the old block. For 0 returns null.
    /// @throws std::bad_alloc  the old block is unchanged
    virtual void* OnResize(unsigned newCapacity) = 0;
    /// Initializes raw storage to the default state.
    virtual void OnAllocate(void* at, unsigned bytes) = 0;
    /// Destroys the elements in the range.
    virtual void OnDestroy(void* at, unsigned bytes) = 0;
    /// Copies elements over others; the ranges may overlap.
    virtual void OnCopy(void* to, const void* from, unsigned bytes) = 0;

protected:
    xbasesequence() : xbasesequence({false, 256}) {}
    explicit xbasesequence(xseqcontrol control)
        : shrink(control.shrink), granularity(control.granularity != 0 ? control.granularity : 256)
    {
    }
    ~xbasesequence() = default;

    // Building blocks of the hook sets.

    /// Replaces `data` by a block of the C runtime with the same bytes. Allocates some spare room, so that
    /// appending takes linear time. Fails only when it grows.
    char* reallocate(unsigned newCapacity);
    /// The same for plain values: the first `granularity` bytes of capacity are allocated as elements are
    /// added, and all memory within the capacity is initially zero.
    char* reallocatePlain(unsigned newCapacity);
    /// Replaces `data` by a new block, filled through the hooks.
    char* replace(unsigned newCapacity);
    /// Leaves an empty sequence without a block. The caller destroys the elements and frees the block.
    char* giveUpBlock() noexcept;
    void releaseBlock() noexcept;

    /// Hooks known to be those of the hook set. While these run, calls to them cannot be observed, and the
    /// fast paths that bypass them are used. Growth is own when OnResize is and calls no other hook.
    enum OwnHooks : unsigned char {
        ownAllocate = 1,
        ownDestroy = 2,
        ownCopy = 4,
        ownElements = ownAllocate | ownDestroy | ownCopy,
        ownGrowth = 8,
        ownAppend = ownCopy | ownGrowth
    };
    /// Whether all of `hooks` are known to be the hook set's own; sawOwn notes one that is.
    bool isOwn(OwnHooks hooks) const { return (seen & hooks) == hooks; }
    void sawOwn(OwnHooks hook)
    {
        if (isOwn(hook))
            return;
        seen |= hook;
        findReady();
    }
    /// Adds one more block, for the caller to fill, if there is room for it.
    bool takeBlock()
    {
        if (capacity + std::size_t{granularity} > room)
            return false;
        capacity += granularity;
        findReady();
        return true;
    }

    char* data = nullptr;  // null while there is no block
    unsigned used = 0;     // bytes that elements occupy
    unsigned capacity = 0; // bytes of whole blocks of `granularity`
    /// Whether removing frees memory.
    const bool shrink;

private:
    void resetSlots(unsigned from, unsigned to);
    bool isStandard() const;
    void findReady() { ready = !isOwn(ownAppend) ? 0 : capacity < room ? capacity : room; }

    unsigned char seen = 0; // OwnHooks

protected:
    /// Bytes of a block.
    const unsigned granularity;
    unsigned ready = 0; // bytes up to which elements may be appended without further checks

private:
    // Bytes that `data` really has; below the capacity in small plain sequences only.
    unsigned room = 0;
    // Bytes in use after OnResize returns.
    unsigned needed = 0;
    // Bytes behind those in use that the caller of OnResize fills: reallocatePlain need not zero them.
    unsigned filled = 0;
};

template<class T>
class xtbsequence;

/// A place in a sequence; `*it` is a copy of the element, which `get` returns. Valid while the sequence lives;
/// reading throws qelXInvalidSeqIndex when the sequence has become shorter.
template<class T>
class xseqiterator
{
public:
    using value_type = T;
    using reference = T;
    using pointer = qelArrow<T>;
    using difference_type = std::ptrdiff_t;
    using iterator_category = std::input_iterator_tag;
    using iterator_concept = std::random_access_iterator_tag;

    xseqiterator() = default;
    xseqiterator(xtbsequence<T>* sequence, std::ptrdiff_t index) : owner(sequence), at(index) {}

    T operator*() const { return owner->get(static_cast<int>(at)); }
    qelArrow<T> operator->() const { return {**this}; }
    T operator[](std::ptrdiff_t n) const { return *(*this + n); }

    xseqiterator& operator++() { return *this += 1; }
    xseqiterator& operator--() { return *this -= 1; }
    xseqiterator operator++(int) { return xseqiterator(owner, at++); }
    xseqiterator operator--(int) { return xseqiterator(owner, at--); }
    xseqiterator& operator+=(std::ptrdiff_t n)
    {
        at += n;
        return *this;
    }
    xseqiterator& operator-=(std::ptrdiff_t n) { return *this += -n; }
    friend xseqiterator operator+(xseqiterator it, std::ptrdiff_t n) { return it += n; }
    friend xseqiterator operator+(std::ptrdiff_t n, xseqiterator it) { return it += n; }
    friend xseqiterator operator-(xseqiterator it, std::ptrdiff_t n) { return it -= n; }
    friend std::ptrdiff_t operator-(const xseqiterator& a, const xseqiterator& b) { return a.at - b.at; }
    friend bool operator==(const xseqiterator& a, const xseqiterator& b) { return a.at == b.at; }
    friend auto operator<=>(const xseqiterator& a, const xseqiterator& b) { return a.at <=> b.at; }

private:
    xtbsequence<T>* owner = nullptr;
    std::ptrdiff_t at = 0;
};

/// A growable array of T with indices from 0. An element costs constant time, appending one too on average;
/// inserting and removing costs time proportional to the elements behind. Every operation that takes an index throws
/// qelXNegativeIndex for a negative one. An operation that would make the sequence too long throws qelXInvalidSeqIndex
/// with the index (append: the index of the new element), before it changes anything.
///
/// An element's destructor may use the sequence: a removed element is destroyed after the operation that
/// removed it, when the sequence is consistent again.
///
/// Any number of threads may read at a time (`getarraysize`, `get`, walks, printing) while none changes the
/// sequence.
///
/// `for (int n : *sequence)` and the algorithms of the standard library read it through `getarraysize` and
/// `get`. Elements are copies: change them by `set`, or those of plain sequences through qel::span.
///
///     const auto primes = xintsequence::make({2, 3, 5}); // qel::list{2, 3, 5} with <qel/qelcpp.h>
///     primes->append(7);
///     primes->set(9, 29); // elements 4 to 8 are 0
///     for (const int n : *primes)
///         std::cout << n << '\n';
template<class T>
class QEL_API xtbsequence : public xobject, public xbasesequence
{
public:
    using value_type = T;
    using iterator = xseqiterator<T>;
    using const_iterator = iterator;

    iterator begin() const { return {self(), 0}; }
    iterator end() const { return {self(), self()->getarraysize()}; }
    std::size_t size() const { return static_cast<std::size_t>(self()->getarraysize()); }
    bool empty() const { return self()->getarraysize() == 0; }
    /// As `get`; also throws qelXInvalidSeqIndex for an index that fits no int.
    template<std::integral I>
    T operator[](I index) const
    {
        const bool fits = index <= static_cast<I>(INT_MAX) || sizeof(I) < sizeof(int);
        if (!fits || static_cast<I>(static_cast<int>(index)) != index)
            qelhThrowInvalidSeqIndex(self(), INT_MAX);
        return self()->get(static_cast<int>(index));
    }
    /// Replaces the elements by those of a range, which may be this sequence or part of it.
    template<class R>
    requires requires(R&& range) { range.begin(), range.end(); } || std::is_array_v<std::remove_cvref_t<R>>
    void assign(R&& range)
    {
        if constexpr (requires { std::data(range) + std::size(range); }) {
            using Element = std::remove_cv_t<std::remove_pointer_t<decltype(std::data(range))>>;
            if constexpr (std::is_same_v<Element, T>)
                if (!holds(std::data(range)))
                    return replaceBy(std::data(range), std::size(range));
        }
        std::vector<T> values;
        if constexpr (requires { std::size(range); })
            values.reserve(std::size(range));
        for (auto&& value : range)
            values.push_back(T(value));
        replaceBy(values.data(), values.size());
    }
    void assign(std::initializer_list<T> values) { replaceBy(values.begin(), values.size()); }

    virtual int getarraysize() { return static_cast<int>(used / sizeof(T)); }
    /// Returns a copy of the element.
    /// @throws qelXInvalidSeqIndex  no element at `index`; the exception holds a reference to the sequence
    virtual T get(int index);
    /// Assigns the element. An index past the end extends the sequence to `index` + 1 elements; new elements
    /// in between are zero, null strings or uninit variants.
    virtual void set(int index, T value);
    virtual void append(T value);
    virtual void operator+=(T value);
    /// Inserts before the element at `index`. An `index` past the end extends the sequence to it first.
    virtual void insert(int index, T value);
    /// Inserts all elements of `other`, which may be this sequence, in order.
    /// @throws qelXNotInitialized  `other` is null or xuninitobj
    virtual void insertseq(int index, xtbsequence<T>* other);
    /// Removes the elements from the lower of the two indices up to, not including, the higher; stops at the
    /// end.
    virtual void removerange(int from, int to);
    virtual void clear();

protected:
    xtbsequence() = default;
    explicit xtbsequence(xseqcontrol control) : xbasesequence(control) {}
    ~xtbsequence() override = default;

    /// The element that begins at `offset` bytes.
    T* at(std::size_t offset) { return reinterpret_cast<T*>(data + offset); }
    /// Fills raw storage with elements in the default state; plain ones are zero.
    static void construct(void* first, std::size_t n)
    {
        if constexpr (std::is_trivially_copyable_v<T>)
            __builtin_memset(first, 0, n * sizeof(T));
        else
            for (T *at = static_cast<T*>(first), *const end = at + n; at != end; ++at)
                new (at) T();
    }

private:
    /// Reading is not const in the interface by index.
    xtbsequence* self() const { return const_cast<xtbsequence*>(this); }
    void replaceBy(const T* values, std::size_t n);
    static std::size_t offsetOf(int index);
    /// Throws when a sequence of `end` bytes would be too long.
    void checkEnd(std::size_t end, int index)
    {
        if (!mayHold(end))
            qelhThrowInvalidSeqIndex(this, index);
    }
    [[gnu::noinline]] void appendSlowly(T value);
    void remove(std::size_t from, std::size_t to);
};

/// A sequence of plain values: numbers and pointers. Pointers to objects are not counted.
///
///     class Offsets : public xtssequence<long>
///     {
///     };
///
///     xauto<Offsets> offsets;
///     offsets.append(4096);
template<class T>
class xtssequence : public xtbsequence<T>
{
    static_assert(std::is_trivially_copyable_v<T>);

public:
    xtssequence() = default;
    explicit xtssequence(xseqcontrol control) : xtbsequence<T>(control) {}
    ~xtssequence() override { this->releaseBlock(); }

    /// The elements in place, for qel::span: valid until the sequence grows or shrinks.
    T* elements() { return this->at(0); }

private:
    // Free storage is kept zero, as the elements of a gap must be.
    void* OnResize(unsigned newCapacity) override
    {
        this->sawOwn(this->ownGrowth);
        return this->reallocatePlain(newCapacity);
    }
    void OnAllocate(void* at, unsigned bytes) override { this->construct(at, bytes / sizeof(T)); }
    void OnDestroy(void*, unsigned) override {}
    void OnCopy(void* to, const void* from, unsigned bytes) override
    {
        this->sawOwn(this->ownCopy);
        __builtin_memmove(to, from, bytes);
    }
};

/// A sequence of values with constructors. Every slot of the whole capacity is constructed; unused slots are
/// in the default state.
///
///     class Servers : public xtcsequence<xrchandle<netAddress>>
///     {
///     };
///
///     xauto<Servers> servers;
///     servers.append(netAddress::Create(7000, "localhost"));
template<class T>
class xtcsequence : public xtbsequence<T>
{
    static_assert(std::is_nothrow_default_constructible_v<T> && std::is_nothrow_destructible_v<T>);

public:
    xtcsequence() = default;
    explicit xtcsequence(xseqcontrol control) : xtbsequence<T>(control) {}
    ~xtcsequence() override
    {
        while (this->data != nullptr) { // an element's destructor may add others
            const auto n = static_cast<unsigned>(this->used / sizeof(T));
            char* const block = this->giveUpBlock();
            destroy(reinterpret_cast<T*>(block), n);
            std::free(block);
        }
    }

private:
    void* OnResize(unsigned newCapacity) override;
    void OnAllocate(void* at, unsigned bytes) override
    {
        this->sawOwn(this->ownAllocate);
        this->construct(at, bytes / sizeof(T));
    }
    void OnDestroy(void* at, unsigned bytes) override
    {
        this->sawOwn(this->ownDestroy);
        destroy(static_cast<T*>(at), bytes / sizeof(T));
    }
    void OnCopy(void* to, const void* from, unsigned bytes) override
    {
        this->sawOwn(this->ownCopy);
        copy(static_cast<T*>(to), static_cast<const T*>(from), bytes / sizeof(T));
    }

    static void destroy(T* first, std::size_t n)
    {
        for (T* const end = first + n; first != end; ++first)
            first->~T();
    }
    static void copy(T* to, const T* from, std::size_t n);
    static bool shift(T* to, T* from, std::size_t n);
};

// ---- the standard sequences

// `make` returns the handle that owns a new sequence of the values. `create` returns a new sequence whose count
// is 0: it is deleted with the first handle or variant that holds it, and by nothing if none ever does.

template<class S>
xrchandle<S> qelMakeOf(std::initializer_list<typename S::value_type> values)
{
    xrchandle<S> made = qel::make<S>();
    made->assign(values);
    return made;
}

// xtbsequence is not among these: a compiler that sees its `get`, `set` and `append` inlines them behind a
// comparison with the object's own.
extern template class QEL_API xtssequence<unsigned char>;
extern template class QEL_API xtssequence<int>;
extern template class QEL_API xtssequence<double>;
extern template class QEL_API xtcsequence<xstring>;
extern template class QEL_API xtcsequence<xany>;

/// Elements are bools, as bytes: `xboolsequence::make({true, false})`.
class QEL_API xboolsequence : public xtssequence<unsigned char>
{
    QEL_OBJECT(xboolsequence); // "booleanseq", counted
    QEL_COUNTED;

public:
    static xboolsequence* create() { return new (pDefMemMgr) xboolsequence; }
    static xrchandle<xboolsequence> make(std::initializer_list<value_type> values = {})
    {
        return qelMakeOf<xboolsequence>(values);
    }
};

/// Elements are ints.
///
///     const auto primes = xintsequence::make({2, 3, 5});
///     std::cout << (*primes)[1] << '\n';
class QEL_API xintsequence : public xtssequence<int>
{
    QEL_OBJECT(xintsequence); // "intseq", counted
    QEL_COUNTED;

public:
    static xintsequence* create() { return new (pDefMemMgr) xintsequence; }
    static xrchandle<xintsequence> make(std::initializer_list<value_type> values = {})
    {
        return qelMakeOf<xintsequence>(values);
    }
};

/// Elements are reals: `xrealsequence::make({0.5, 1.5})`.
class QEL_API xrealsequence : public xtssequence<double>
{
    QEL_OBJECT(xrealsequence); // "realseq", counted
    QEL_COUNTED;

public:
    static xrealsequence* create() { return new (pDefMemMgr) xrealsequence; }
    static xrchandle<xrealsequence> make(std::initializer_list<value_type> values = {})
    {
        return qelMakeOf<xrealsequence>(values);
    }
};

/// Elements are strings.
///
///     const auto words = xstringsequence::make({"alpha", "beta"});
///     std::cout << words->get(1) << '\n';
class QEL_API xstringsequence : public xtcsequence<xstring>
{
    QEL_OBJECT(xstringsequence); // "stringseq", counted
    QEL_COUNTED;

public:
    xstringsequence() : xtcsequence({false, 22 * sizeof(xstring)}) {}
    static xstringsequence* create() { return new (pDefMemMgr) xstringsequence; }
    static xrchandle<xstringsequence> make(std::initializer_list<value_type> values = {})
    {
        return qelMakeOf<xstringsequence>(values);
    }
};

/// Elements are values of any kind.
///
///     const auto row = xanysequence::make({"alpha", 1, 2.5, nullptr});
///     qelPrint(row, std::cout, -1);
class QEL_API xanysequence : public xtcsequence<xany>
{
    QEL_OBJECT(xanysequence); // "anyseq", counted
    QEL_COUNTED;

public:
    xanysequence() : xtcsequence({false, 11 * sizeof(xany)}) {}
    static xanysequence* create() { return new (pDefMemMgr) xanysequence; }
    static xrchandle<xanysequence> make(std::initializer_list<value_type> values = {})
    {
        return qelMakeOf<xanysequence>(values);
    }
};

// ---- implementation of the templates

template<class T>
std::size_t xtbsequence<T>::offsetOf(int index)
{
    if (index < 0)
        qelhThrowNegativeIndex(index);
    return static_cast<std::size_t>(index) * sizeof(T);
}

template<class T>
T xtbsequence<T>::get(int index)
{
    const std::size_t offset = offsetOf(index);
    if (offset + sizeof(T) > used)
        qelhThrowInvalidSeqIndex(this, index);
    return *at(offset);
}

template<class T>
void xtbsequence<T>::set(int index, T value)
{
    const std::size_t offset = offsetOf(index);
    if (isOwn(ownCopy) && offset + sizeof(T) <= used)
        *at(offset) = std::move(value);
    else {
        checkEnd(offset + sizeof(T), index);
        BaseCopy(offset, sizeof(T), &value);
    }
}

template<class T>
void xtbsequence<T>::append(T value)
{
    const std::size_t end = std::size_t{used} + sizeof(T);
    if (end > ready)
        return appendSlowly(std::move(value));
    T* const slot = at(used);
    if constexpr (qelIsMovedByBits<T>)
        new (slot) T(std::move(value)); // the old value owns nothing
    else
        *slot = std::move(value);
    used = static_cast<unsigned>(end);
}

/// In one step, as `insertseq` inserts.
template<class T>
void xtbsequence<T>::replaceBy(const T* values, std::size_t n)
{
    checkEnd(n * sizeof(T), static_cast<int>(maxBytes / sizeof(T)));
    if (used != 0)
        clear();
    BaseInsert(used, n * sizeof(T), values);
}

/// Slow path: there is no free slot, or a subclass may observe the hooks.
template<class T>
void xtbsequence<T>::appendSlowly(T value)
{
    const unsigned end = capacity;
    if (isOwn(ownAppend) && granularity % sizeof(T) == 0 && takeBlock()) {
        construct(data + end, granularity / sizeof(T));
        xtbsequence::append(std::move(value));
    } else {
        checkEnd(used + sizeof(T), static_cast<int>(used / sizeof(T)));
        BaseInsert(used, sizeof(T), &value);
    }
}

template<class T>
void xtbsequence<T>::operator+=(T value)
{
    append(std::move(value));
}

template<class T>
void xtbsequence<T>::insert(int index, T value)
{
    const std::size_t offset = offsetOf(index);
    checkEnd((offset < used ? used : offset) + sizeof(T), index);
    BaseInsert(offset, sizeof(T), &value);
}

template<class T>
void xtbsequence<T>::insertseq(int index, xtbsequence<T>* other)
{
    const std::size_t offset = offsetOf(index);
    if (!qelIsObject(other))
        qelhThrowNotInitialized();
    checkEnd((offset < used ? used : offset) + other->used, index);
    BaseInsert(offset, other->used, other->data);
}

template<class T>
void xtbsequence<T>::removerange(int from, int to)
{
    const std::size_t first = offsetOf(from);
    remove(first, offsetOf(to));
}

template<class T>
void xtbsequence<T>::clear()
{
    remove(0, used);
}

template<class T>
void xtbsequence<T>::remove(std::size_t from, std::size_t to)
{
    if constexpr (!std::is_trivially_destructible_v<T>) {
        const auto bounded = [this](std::size_t place) { return place < used ? place : used; };
        T* const end = at(bounded(from < to ? to : from));
        // Destroyed once the sequence is consistent again, since their destructors may use it.
        std::vector<T> held;
        for (T* value = at(bounded(from < to ? from : to)); value < end; ++value)
            if (!qelEndsQuietly(*value))
                held.push_back(*value);
        BaseRemove(from, to);
    } else {
        BaseRemove(from, to);
    }
}

template<class T>
void* xtcsequence<T>::OnResize(unsigned newCapacity)
{
    // Until all hooks are known to be the hook set's, a subclass may observe them.
    if (!qelIsMovedByBits<T> || !this->isOwn(this->ownElements))
        return this->replace(newCapacity);

    const std::size_t oldSlots = this->capacity / sizeof(T);
    const std::size_t newSlots = newCapacity / sizeof(T);
    const std::size_t elements = this->used / sizeof(T);
    if (elements > newSlots)
        destroy(this->at(0) + newSlots, elements - newSlots);
    char* const block = this->reallocate(newCapacity);
    if (newSlots > oldSlots)
        this->construct(block + oldSlots * sizeof(T), newSlots - oldSlots);
    this->sawOwn(this->ownGrowth);
    return block;
}

template<class T>
void xtcsequence<T>::copy(T* to, const T* from, std::size_t n)
{
    if constexpr (qelIsMovedByBits<T>)
        if (shift(to, const_cast<T*>(from), n))
            return;
    if (qelIsBelow(to, from)) {
        for (std::size_t i = 0; i < n; ++i)
            to[i] = from[i];
    } else {
        for (std::size_t i = n; i-- > 0;)
            to[i] = from[i];
    }
}

// Copies between overlapping ranges: elements are relocated by their bits, and only those at the two ends, as
// many as the distance between the ranges, are destroyed or copied. False when the ranges do not overlap.
template<class T>
bool xtcsequence<T>::shift(T* to, T* from, std::size_t n)
{
    const bool up = qelIsBelow(from, to);
    T* const low = up ? from : to;
    T* const high = up ? to : from;
    if (!qelIsBelow(high, low + n))
        return false;
    const auto distance = static_cast<std::size_t>(high - low);

    T* const ended = up ? low + n : low;
    for (std::size_t i = 0; i < distance; ++i)
        T(std::move(ended[i])); // an element's destructor may access the sequence
    __builtin_memmove(static_cast<void*>(to), static_cast<void*>(from), n * sizeof(T));
    T* const doubled = up ? low : low + n;
    const T* const original = up ? high : low + n - distance;
    for (std::size_t i = 0; i < distance; ++i)
        new (doubled + i) T(original[i]);
    return true;
}
