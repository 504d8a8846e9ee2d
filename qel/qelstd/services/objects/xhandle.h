#pragma once

#include <cstddef>
#include <type_traits>

#include <qel/xroot.h>

/// Common base of the handles: one pointer. Null and xuninitobj are stored unchanged.
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
    explicit xrcbasehandle(T* p) : pointer(p) {}
    xrcbasehandle(const xrcbasehandle&) = default;
    xrcbasehandle& operator=(const xrcbasehandle&) = default;
    ~xrcbasehandle() { pointer = nullptr; }

    T* pointer;
};

/// A handle that always counts: it owns one counted reference to its object. For objects of countable
/// classes. Attach an object that must outlive a temporary handle first: a new object is deleted when its
/// first handle releases it. Each handle is used by one thread at a time; the objects may be shared.
template<class T>
class xrchandle : public xrcbasehandle<T>
{
    using base = xrcbasehandle<T>;

public:
    xrchandle() : base(nullptr) {}
    xrchandle(std::nullptr_t) : base(nullptr) {}
    /// Takes its own reference.
    xrchandle(T* p) : base(p) { xrcattach(qelObjectOf(p)); }
    xrchandle(const xrchandle& other) : xrchandle(other.pointer) {}
    xrchandle(xrchandle&& other) noexcept : base(other.pointer) { other.pointer = nullptr; }
    template<class U>
    requires std::is_convertible_v<U*, T*> xrchandle(const xrchandle<U>& other)
        : xrchandle(qelUpcast<T>(other.get()))
    {
    }
    ~xrchandle() { xrcrelease(qelObjectOf(this->pointer)); }

    xrchandle& operator=(T* p)
    {
        if (p != this->pointer) {
            // Attach before release: the held object may be the only owner of `p`.
            T* const old = this->pointer;
            xrcattach(qelObjectOf(p));
            this->pointer = p;
            xrcrelease(qelObjectOf(old));
        }
        return *this;
    }
    xrchandle& operator=(const xrchandle& other) { return *this = other.pointer; }
    xrchandle& operator=(xrchandle&& other) noexcept
    {
        if (this != &other) {
            T* const old = this->pointer;
            this->pointer = other.pointer;
            other.pointer = nullptr;
            xrcrelease(qelObjectOf(old));
        }
        return *this;
    }
};

/// A handle for objects of any class: it owns a counted reference when the object's class is countable, and
/// only refers to the object otherwise. Its destructor reads its own flag, never an object that may have been
/// freed.
template<class T>
class xrcunihandle : public xrcbasehandle<T>
{
    using base = xrcbasehandle<T>;

public:
    xrcunihandle() : base(nullptr) {}
    xrcunihandle(std::nullptr_t) : base(nullptr) {}
    /// Takes its own reference when the class of `p` is countable.
    xrcunihandle(T* p) : base(p), counted(attach(p)) {}
    xrcunihandle(const xrcunihandle& other) : xrcunihandle(other.pointer) {}
    xrcunihandle(xrcunihandle&& other) noexcept : base(other.pointer), counted(other.counted)
    {
        other.pointer = nullptr;
        other.counted = false;
    }
    template<class U>
    requires std::is_convertible_v<U*, T*> xrcunihandle(const xrcbasehandle<U>& other)
        : xrcunihandle(qelUpcast<T>(other.get()))
    {
    }
    ~xrcunihandle() { release(this->pointer, counted); }

    xrcunihandle& operator=(T* p)
    {
        if (p != this->pointer) {
            // Attach before release: the held object may be the only owner of `p`.
            const bool newCounted = attach(p);
            T* const old = this->pointer;
            const bool oldCounted = counted;
            this->pointer = p;
            counted = newCounted;
            release(old, oldCounted);
        }
        return *this;
    }
    xrcunihandle& operator=(const xrcunihandle& other) { return *this = other.pointer; }
    xrcunihandle& operator=(xrcunihandle&& other) noexcept
    {
        if (this != &other) {
            T* const old = this->pointer;
            const bool oldCounted = counted;
            this->pointer = other.pointer;
            counted = other.counted;
            other.pointer = nullptr;
            other.counted = false;
            release(old, oldCounted);
        }
        return *this;
    }

private:
    static bool attach(T* p)
    {
        if (!qelIsObject(p))
            return false;
        xobject* const object = p;
        xrcattach(object);
        return xrcgetcount(object) > 0; // objects of classes that are not countable now have -1
    }
    static void release(T* p, bool wasCounted)
    {
        if (wasCounted)
            xrcunirelease(p);
    }

    bool counted = false;
};

/// A T in automatic or member storage: handles may point to it, and releasing the last reference sets its
/// count back to 0 instead of deleting it. It must outlive the handles.
template<class T>
class xauto : public T
{
public:
    using T::T;
    xauto() = default;

private:
    unsigned char isDeletable() override { return 0; }
};
