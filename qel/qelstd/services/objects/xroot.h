#pragma once

#include <cstdint>
#include <type_traits>

#include <qel/base/btkmemory.h>
#include <qel/base/thrthreading.h>
#include <qel/qelexport.h>
#include <qel/qelthrow.h>
#include <qel/qelxobj_i.h>

class xstring;

// ---- marker pointers

/// Whether `p` points to an object or a text: false for null and for the reserved numbers (1 and 2 for
/// strings, 22 for objects), which travel in pointer variables and are never dereferenced.
inline bool qelIsObject(const void* p)
{
    return reinterpret_cast<std::uintptr_t>(p) > reinterpret_cast<std::uintptr_t>(xuninitobj);
}

/// Returns `p` as a pointer to its base class `To`. A marker keeps its number: the base class may be virtual,
/// and an ordinary conversion would then read the object.
template<class To, class From>
inline To* qelUpcast(From* p)
{
    if (!qelIsObject(p))
        return reinterpret_cast<To*>(reinterpret_cast<std::uintptr_t>(p));
    To* const base = static_cast<To*>(p);
    if (!qelIsObject(base))
        __builtin_unreachable(); // lets the compiler drop later marker checks
    return base;
}

/// Returns `p` as a pointer to the root class; a marker keeps its number.
template<class T>
inline xobject* qelObjectOf(T* p)
{
    return qelUpcast<xobject>(p);
}

// ---- the root class

/// The root of every framework object: a signed 32-bit reference count and the operations that every class
/// has.
///
/// Count: 0, no counted reference has been taken yet (or the last reference to an object that is not
/// deletable was released); n > 0, n counted references; -1, the class is not reference countable. Releasing
/// the last reference to a countable object deletes it. Attach first: an object that was never attached is
/// deleted when the first handle, variant or exception that holds it releases it. Reading an object through
/// its descriptor leaves its count unchanged. An object of a class that is not countable is freed by xdelete.
///
/// Counts may change from any thread. Taking the first reference needs no lock, so creating objects never
/// waits. `onDelete` and destructors run one at a time in the whole process: a release that deletes waits for
/// destructors running on other threads. A destructor must therefore not join a thread or wait for one in
/// another way: that thread cannot exit if it releases a last reference meanwhile. In a chain of objects each
/// of which releases the next in its destructor, those more than 200 levels deep are deleted after the
/// releases leading to them have returned, but before the outermost release returns. Copying an object does
/// not copy its count.
///
///     xobject* const words = xstringsequence::create(); // the count is 0
///     const xrchandle<xobject> owner = words;           // 1: the handle's reference
///     if (words->isKindOf(xstringsequence::getClassRtti()))
///         std::cout << words->getQelTypeName() << '\n'; // "stringseq"
class QEL_API xobject
{
public:
    xobject() = default;
    xobject(const xobject&) {}
    xobject& operator=(const xobject&) { return *this; }

protected:
    virtual ~xobject() = default;

public:
    /// Returns this object as a pointer to the class in its ancestry that `cls` describes (descriptors with
    /// equal names are the same); null if there is none. For "object" returns the root part.
    virtual void* dyndowncast(const xrttiobject* cls);
    /// Reserves its place in the order of the operations. Returns null.
    virtual void* dyndowncast_i(const xrttiobject* cls);

private:
    /// The descriptor of the object's class.
    virtual xrttiobject* giveRtti();
    /// Whether the last release deletes the object.
    virtual unsigned char isDeletable();
    /// Called once, just before the destructor, when the last release or xdelete deletes the object.
    virtual void onDelete();
    /// Takes the first reference; releases the last one. References in between are counted without these
    /// calls.
    virtual void xattach();
    virtual void xrelease();
    virtual void xfree();

public:
    /// Returns the descriptor of the object's class. Never freed.
    xrttiobject* getRtti() { return giveRtti(); }
    /// Returns the registered name of the object's class.
    xstring getQelTypeName();
    /// Whether the object's class has the name of `cls`. Null: false.
    unsigned char isSameAs(xrttiobject* cls);
    /// Whether the object's class is `cls` or derives from it. Null: false.
    unsigned char isKindOf(xrttiobject* cls);
    /// Whether the object's class is reference countable.
    unsigned char isRefCountable();

    /// Every object is an xobject: both return `p` itself.
    static xobject* cast(xobject* p) { return p; }
    static xobject* softcast(xobject* p) { return p; }

private:
    void die();
    void dieNow();

    friend void qelReleaseOther(xobject* p);
    friend void xrcattach(xobject* p);
    friend void xrcrelease(xobject* p);
    friend int xrcgetcount(xobject* p);
    friend QEL_API void xdelete(xobject* p);
    template<class T>
    friend void qelAttachNew(T* p);
    friend class qelReadHold;

    std::int32_t refcount = 0;
};

/// The count of `p`, which is a live object.
inline int xrcgetcount(xobject* p)
{
    return __atomic_load_n(&p->refcount, __ATOMIC_RELAXED);
}

/// Takes one counted reference. Null and xuninitobj are ignored. Safe to call from any thread that may use
/// the object.
inline void xrcattach(xobject* p)
{
    if (!qelIsObject(p))
        return;
    // Above zero the count changes in one step, without a lock or a virtual call: every caller of attach or
    // release owns a reference, so the object stays alive.
    const std::int32_t count = xrcgetcount(p);
    if (count <= 0)
        p->xattach();
    else if (!thrIsThreaded())
        p->refcount = count + 1;
    else
        __atomic_fetch_add(&p->refcount, 1, __ATOMIC_RELAXED);
}

/// Takes the first reference to an object that has just been made, whose class is T and none derived from it.
/// Nobody else has it, so the count is set without a call where the class keeps xobject's `xattach` and has
/// said QEL_COUNTED.
template<class T>
void qelAttachNew(T* p)
{
    if constexpr (requires {
                      requires T::qelCounted && std::is_same_v<decltype(&T::xattach), void (xobject::*)()>;
                  }) {
        xobject* const object = p;
        if (object->refcount == 0) {
            object->refcount = 1;
            return;
        }
    }
    xrcattach(qelObjectOf(p));
}

/// The part of xrcrelease for the last reference, and for programs with threads. Out of line, so that the compiler inlines
/// the other part: assigning a variant with an object takes two thirds of the time.
[[gnu::noinline]] inline void qelReleaseOther(xobject* p)
{
    std::int32_t count = xrcgetcount(p);
    while (count > 1)
        if (__atomic_compare_exchange_n(&p->refcount, &count, count - 1, true, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED))
            return;
    p->xrelease();
}

/// Releases one counted reference; releasing the last one deletes the object. Null and xuninitobj are
/// ignored, as is an object that was never attached or is not countable.
inline void xrcrelease(xobject* p)
{
    if (!qelIsObject(p))
        return;
    const std::int32_t count = xrcgetcount(p);
    if (count > 1 && !thrIsThreaded()) [[likely]]
        p->refcount = count - 1;
    else
        qelReleaseOther(p);
}

/// The same as xrcattach.
inline void xrcuniattach(xobject* p)
{
    xrcattach(p);
}

/// The same as xrcrelease.
inline void xrcunirelease(xobject* p)
{
    xrcrelease(p);
}

/// Keeps an object alive while a block reads it, and never deletes it: the count of an object that has not
/// been attached yet is 0 again afterwards. Null and xuninitobj are ignored.
///
///     xany sizeOf(xstringsequence* words)
///     {
///         const qelReadHold hold(words); // may be new: no handle may delete it on the way
///         return words->getarraysize();
///     }
class QEL_API qelReadHold
{
public:
    explicit qelReadHold(xobject* p)
    {
        if (!qelIsObject(p))
            return;
        if (xrcgetcount(p) > 0) {
            xrcattach(p);
            counted = p;
        } else {
            holdFresh(p);
        }
    }
    ~qelReadHold()
    {
        if (counted != nullptr)
            xrcrelease(counted);
        else if (fresh != nullptr)
            releaseFresh();
    }
    qelReadHold(const qelReadHold&) = delete;
    qelReadHold& operator=(const qelReadHold&) = delete;

private:
    void holdFresh(xobject* p);
    void releaseFresh();

    xobject* counted = nullptr;
    xobject* fresh = nullptr; // had no reference before
};

/// Frees an object of a class that is not reference countable. Null is ignored.
/// @throws qelXNotInitialized  `p` is xuninitobj
/// @throws qelXRefCountable    the class of `p` is countable; the object is not touched
QEL_API void xdelete(xobject* p);

/// Deleter that calls xdelete, for std::unique_ptr to objects of such classes.
struct qelDelete
{
    void operator()(xobject* p) const { xdelete(p); }
};

// ---- casts

/// Returns `p` as a T, or null if it is not a T. Null and xuninitobj are returned unchanged.
template<class T>
T* qelSoftcast(xobject* p)
{
    if (!qelIsObject(p))
        return reinterpret_cast<T*>(reinterpret_cast<std::uintptr_t>(p));
    return static_cast<T*>(p->dyndowncast(T::getClassRtti()));
}

/// Returns `p` as a T. Null and xuninitobj are returned unchanged.
/// @throws qelXTypeMismatch  `p` is not a T
template<class T>
T* qelCast(xobject* p)
{
    T* const result = qelSoftcast<T>(p);
    if (result == nullptr && p != nullptr)
        qelThrowTypeMismatch(T::getClassRtti(), p);
    return result;
}
