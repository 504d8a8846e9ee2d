#pragma once

#include <cstdint>
#include <new>
#include <type_traits>

#include <qel/base/btkmemory.h>
#include <qel/base/thrthreading.h>
#include <qel/qelexport.h>
#include <qel/qelthrow.h>
#include <qel/qelxobj_i.h>

class xstring;
struct qelClass;
class qelS11nContext;
class xrttienum;
template<class T>
class xrcunihandle;

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

    friend void xrcattach(xobject* p);
    friend void xrcrelease(xobject* p);
    friend int xrcgetcount(xobject* p);
    friend QEL_API void xdelete(xobject* p);
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

/// Releases one counted reference; releasing the last one deletes the object. Null and xuninitobj are
/// ignored, as is an object that was never attached or is not countable.
inline void xrcrelease(xobject* p)
{
    if (!qelIsObject(p))
        return;
    std::int32_t count = xrcgetcount(p);
    if (count > 1 && !thrIsThreaded()) {
        p->refcount = count - 1;
        return;
    }
    while (count > 1)
        if (__atomic_compare_exchange_n(&p->refcount, &count, count - 1, true, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED))
            return;
    p->xrelease();
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

// ---- declarations in a class body for the type system (qeltable.h has the matching table)

QEL_API xrttiobject* qelBuildDescriptor(qelClass& cls);
/// Returns the descriptor of `cls`, which is the first member of the table once it is complete.
inline xrttiobject* qelDescriptorOf(qelClass& cls)
{
    xrttiobject* const built = __atomic_load_n(reinterpret_cast<xrttiobject**>(&cls), __ATOMIC_ACQUIRE);
    return built != nullptr ? built : qelBuildDescriptor(cls);
}
QEL_API void* qelDowncast(qelClass& cls, void* self, xobject* object, const xrttiobject* wanted);

/// First in the body of an exposed class: declares its descriptor (`getClassRtti`), its casts, and the
/// operations by which objects report their class. The class's source defines the table `T::rtti`. Members
/// after this macro are private.
#define QEL_OBJECT(T)                                  \
public:                                                \
    using self = T;                                    \
    static xrttiobject* getClassRtti()                 \
    {                                                  \
        return qelDescriptorOf(rtti);                  \
    }                                                  \
    static T* softcast(xobject* p)                     \
    {                                                  \
        return qelSoftcast<T>(p);                      \
    }                                                  \
    static T* cast(xobject* p)                         \
    {                                                  \
        return qelCast<T>(p);                          \
    }                                                  \
    void* dyndowncast(const xrttiobject* cls) override \
    {                                                  \
        return qelDowncast(rtti, this, this, cls);     \
    }                                                  \
                                                       \
private:                                               \
    xrttiobject* giveRtti() override                   \
    {                                                  \
        return getClassRtti();                         \
    }                                                  \
    static qelClass rtti

/// After an enumeration: declares its descriptor, `qelGetRtti_E()`. Its source uses QEL_LABELS (qeltable.h).
/// Declare the enumeration with its type (`enum Colour : int`): null lies outside the enumerators.
#define QEL_ENUM(E)                      \
    QEL_API xrttienum* qelGetRtti_##E(); \
    inline xrttienum* qelEnumRtti(E*)    \
    {                                    \
        return qelGetRtti_##E();         \
    }                                    \
    static_assert(sizeof(E) <= sizeof(int))

/// Returns the number of labels of an enumeration; as a value, this number stands for null.
QEL_API int qelLabelCount(xrttienum* type);

/// In the body of a class that can be rebuilt from a serialized form: declares the constructor that leaves
/// every attribute without a value, and the creation entry, which returns a new T as an untyped pointer, or
/// null when memory runs out.
#define QEL_REBUILD(T)                                 \
public:                                                \
    static void* _s11n_create(qelS11nContext* context) \
    {                                                  \
        try {                                          \
            return new (pDefMemMgr) T(context);        \
        } catch (const std::bad_alloc&) {              \
            return nullptr;                            \
        }                                              \
    }                                                  \
                                                       \
protected:                                             \
    explicit T(qelS11nContext*)                        \
    {                                                  \
    }                                                  \
                                                       \
private:                                               \
    static_assert(true)

/// Returns the value for "no value yet" in an attribute of type V: null for numbers and enumerations, else
/// the result of V's default constructor (null string, uninit variant, null handle, false).
template<class V>
V qelUnset()
{
    if constexpr (std::is_same_v<V, int>)
        return xnullint;
    else if constexpr (std::is_same_v<V, double>)
        return xnullreal;
    else if constexpr (std::is_same_v<V, unsigned char>)
        return xnullbool;
    else if constexpr (std::is_enum_v<V> && sizeof(V) == sizeof(int))
        return __builtin_bit_cast(V, xnullint);
    else if constexpr (requires { qelEnumRtti(static_cast<V*>(nullptr)); })
        return static_cast<V>(
            qelLabelCount(qelEnumRtti(static_cast<V*>(nullptr)))); // too narrow for xnullint
    else
        return V();
}

/// In a class body: an attribute stored in its own field, with its accessor and its rebuild hook. It reads as
/// null (a variant as uninit) until it is set; but a `bool` has no null and starts as false: use `unsigned
/// char` for a truth value that may be missing.
#define QEL_PROPERTY(type, Name)             \
public:                                      \
    type get##Name() const                   \
    {                                        \
        return Name;                         \
    }                                        \
    virtual void _s11n_set##Name(type value) \
    {                                        \
        Name = value;                        \
    }                                        \
                                             \
private:                                     \
    type Name = qelUnset<type>()

// ---- handles

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

// ---- throwing

/// The base of every exception that the framework throws.
class QEL_API xthrowable : public xobject
{
public:
    ~xthrowable() override;
};

/// Throws the object that `h` holds, as an `xthrowable*` that carries one more reference. The catcher owns
/// and releases that reference; an exception of a class that is not countable is freed with xdelete. A null
/// handle throws qelXNotInitialized instead.
[[noreturn]] QEL_API void xthrow(xrcunihandle<xthrowable> h);
