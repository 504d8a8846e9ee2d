#pragma once

#include <compare>
#include <cstddef>
#include <string_view> // std::hash
#include <type_traits>

#include <qel/xroot.h>

/// Whether counted handles may hold objects of T: false for a class that says QEL_NOT_COUNTED.
template<class T>
consteval bool qelMayBeCounted()
{
    if constexpr (requires { T::qelCounted; })
        return T::qelCounted;
    else
        return true;
}

/// Whether pointers to the two classes can be compared.
template<class T, class U>
concept qelComparable = std::is_convertible_v<T*, const U*> || std::is_convertible_v<U*, const T*>;

/// Whether two pointers are the same object, or the same marker. Neither object is accessed unless a virtual
/// base class lies between the two types.
template<class T, class U>
requires qelComparable<T, U>
bool qelIsSame(const T* a, const U* b)
{
    if constexpr (std::is_same_v<T, U>)
        return a == b;
    else if constexpr (std::is_convertible_v<const U*, const T*>)
        return a == qelUpcast<const T>(b);
    else
        return qelUpcast<const U>(a) == b;
}

/// Common base of the handles: one pointer. Null and xuninitobj are stored unchanged. Handles compare by
/// identity, with each other, with pointers and with null. xuninitobj is not null.
template<class T>
class xrcbasehandle
{
public:
    T* operator->() const { return pointer; }
    T& operator*() const { return *pointer; }
    /// Returns the pointer without taking a reference.
    T* get() const { return pointer; }
    /// Whether the handle holds an object, neither null nor xuninitobj.
    explicit operator bool() const { return qelIsObject(pointer); }

protected:
    explicit xrcbasehandle(T* p) noexcept : pointer(p) {}
    xrcbasehandle(const xrcbasehandle&) = default;
    xrcbasehandle& operator=(const xrcbasehandle&) = default;
    ~xrcbasehandle() { pointer = nullptr; }

    /// The object as the functions that count take it: the count of a const object changes, too.
    static xobject* counted(T* p) { return qelObjectOf(const_cast<std::remove_const_t<T>*>(p)); }

    /// The object, null or xuninitobj.
    T* pointer;
};

template<class T, class U>
requires qelComparable<T, U>
bool operator==(const xrcbasehandle<T>& a, const xrcbasehandle<U>& b)
{
    return qelIsSame(a.get(), b.get());
}
template<class T, class U>
requires qelComparable<T, U>
bool operator==(const xrcbasehandle<T>& a, U* b)
{
    return qelIsSame(a.get(), b);
}
template<class T>
bool operator==(const xrcbasehandle<T>& a, std::nullptr_t)
{
    return a.get() == nullptr;
}
/// The order of the addresses.
template<class T>
std::strong_ordering operator<=>(const xrcbasehandle<T>& a, const xrcbasehandle<T>& b)
{
    return std::compare_three_way()(a.get(), b.get());
}
template<class T>
std::strong_ordering operator<=>(const xrcbasehandle<T>& a, std::type_identity_t<T>* b)
{
    return std::compare_three_way()(a.get(), b);
}

/// A handle that always counts: it owns one counted reference to its object. For objects of countable
/// classes; `T` may be const. Attach an object that must outlive a temporary handle first: a new object is
/// deleted when its first handle releases it. Each handle is used by one thread at a time; the objects may be
/// shared.
///
///     const auto words = qel::make<xstringsequence>(); // the one reference
///     words->append("alpha");
///     const xrchandle<xobject> other = words;          // a second one
///     std::cout << (other == words) << '\n';           // 1: the same object
template<class T>
class xrchandle : public xrcbasehandle<T>
{
    using base = xrcbasehandle<T>;
    using base::counted;
    template<class U>
    friend class xrchandle;

public:
    xrchandle() noexcept : base(nullptr) {}
    xrchandle(std::nullptr_t) noexcept : base(nullptr) {}
    /// Takes its own reference.
    xrchandle(T* p) : base(p)
    {
        static_assert(qelMayBeCounted<T>(), "objects of this class are not counted: own them by qel::own(p)");
        xrcattach(counted(p));
    }
    xrchandle(const xrchandle& other) : xrchandle(other.pointer) {}
    xrchandle(xrchandle&& other) noexcept : base(other.giveUp()) {}
    template<class U>
    requires std::is_convertible_v<U*, T*> xrchandle(const xrchandle<U>& other)
        : xrchandle(qelUpcast<T>(other.get()))
    {
    }
    template<class U>
    requires std::is_convertible_v<U*, T*> xrchandle(xrchandle<U>&& other)
    noexcept : base(qelUpcast<T>(other.giveUp())) {}
    ~xrchandle() { xrcrelease(counted(this->pointer)); }

    xrchandle& operator=(T* p)
    {
        if (p != this->pointer) {
            // Attach before release: the held object may be the only owner of `p`.
            T* const old = this->pointer;
            xrcattach(counted(p));
            this->pointer = p;
            xrcrelease(counted(old));
        }
        return *this;
    }
    xrchandle& operator=(const xrchandle& other) { return *this = other.pointer; }
    xrchandle& operator=(xrchandle&& other) noexcept
    {
        if (this != &other) {
            T* const old = this->pointer;
            this->pointer = other.giveUp();
            xrcrelease(counted(old));
        }
        return *this;
    }

    /// The owner of the object that it makes: qel::make.
    template<class... A>
    static xrchandle Make(A&&... arguments)
    {
        static_assert(qelMayBeCounted<T>(), "objects of this class are not counted: own them by qel::own(p)");
        xrchandle made;
        T* const p = new (pDefMemMgr) T(static_cast<A&&>(arguments)...);
        qelAttachNew(p);
        made.pointer = p;
        return made;
    }

private:
    /// Leaves null; the caller owns the reference.
    T* giveUp() noexcept
    {
        T* const p = this->pointer;
        this->pointer = nullptr;
        return p;
    }
};

/// A handle for objects of any class: it owns a counted reference when the object's class is countable, and
/// only refers to the object otherwise. Its destructor reads its own flag, never an object that may have been
/// freed.
///
///     const auto pipe = qel::own(ioPipe::Create());
///     const xrcunihandle<xobject> counted = xintsequence::create(); // owns a reference
///     const xrcunihandle<xobject> refers = pipe.get();              // owns nothing; not to be used after `pipe`
template<class T>
class xrcunihandle : public xrcbasehandle<T>
{
    using base = xrcbasehandle<T>;

public:
    xrcunihandle() noexcept : base(nullptr) {}
    xrcunihandle(std::nullptr_t) noexcept : base(nullptr) {}
    /// Takes its own reference when the class of `p` is countable.
    xrcunihandle(T* p) : base(p), isCounted(attach(p)) {}
    xrcunihandle(const xrcunihandle& other) : xrcunihandle(other.pointer) {}
    xrcunihandle(xrcunihandle&& other) noexcept : base(other.pointer), isCounted(other.isCounted)
    {
        other.pointer = nullptr;
        other.isCounted = false;
    }
    template<class U>
    requires std::is_convertible_v<U*, T*> xrcunihandle(const xrcbasehandle<U>& other)
        : xrcunihandle(qelUpcast<T>(other.get()))
    {
    }
    ~xrcunihandle() { release(this->pointer, isCounted); }

    xrcunihandle& operator=(T* p)
    {
        if (p != this->pointer) {
            // Attach before release: the held object may be the only owner of `p`.
            const bool newCounted = attach(p);
            T* const old = this->pointer;
            const bool oldCounted = isCounted;
            this->pointer = p;
            isCounted = newCounted;
            release(old, oldCounted);
        }
        return *this;
    }
    xrcunihandle& operator=(const xrcunihandle& other) { return *this = other.pointer; }
    xrcunihandle& operator=(xrcunihandle&& other) noexcept
    {
        if (this != &other) {
            T* const old = this->pointer;
            const bool oldCounted = isCounted;
            this->pointer = other.pointer;
            isCounted = other.isCounted;
            other.pointer = nullptr;
            other.isCounted = false;
            release(old, oldCounted);
        }
        return *this;
    }

private:
    static bool attach(T* p)
    {
        if (!qelIsObject(p))
            return false;
        xobject* const object = base::counted(p);
        xrcattach(object);
        return xrcgetcount(object) > 0; // objects of classes that are not countable now have -1
    }
    static void release(T* p, bool wasCounted)
    {
        if (wasCounted)
            xrcunirelease(base::counted(p));
    }

    bool isCounted = false;
};

/// A T in automatic or member storage: handles may point to it, and releasing the last reference sets its
/// count back to 0 instead of deleting it. It must outlive the handles.
///
///     xauto<xintsequence> numbers; // on the stack
///     numbers.append(42);
///     const xrchandle<xintsequence> handle = &numbers; // does not delete it
template<class T>
class xauto : public T
{
public:
    using T::T;
    xauto() = default;

private:
    unsigned char isDeletable() override { return 0; }
};

namespace qel {

/// Constructs a T, whose class is countable, and returns the handle that owns it.
template<class T, class... A>
xrchandle<T> make(A&&... arguments)
{
    return xrchandle<T>::Make(static_cast<A&&>(arguments)...);
}

} // namespace qel

/// The hash of the object's address, as handles are compared.
template<class T>
struct std::hash<xrchandle<T>>
{
    std::size_t operator()(const xrchandle<T>& h) const noexcept { return std::hash<T*>()(h.get()); }
};
/// The hash of the object's address, as handles are compared.
template<class T>
struct std::hash<xrcunihandle<T>>
{
    std::size_t operator()(const xrcunihandle<T>& h) const noexcept { return std::hash<T*>()(h.get()); }
};
