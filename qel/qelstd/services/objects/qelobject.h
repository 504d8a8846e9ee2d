#pragma once

#include <new>
#include <type_traits>

#include <qel/xroot.h>

struct qelClass;
class qelS11nContext;
class xrttienum;

// Declarations in a class body for the type system; qeltable.h has the matching table.

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

/// In the body of a class whose table does not say `.counted = true`, after QEL_OBJECT: lets the compiler
/// refuse counted handles of this class and those derived from it. A derived class that is counted says
/// QEL_COUNTED.
#define QEL_NOT_COUNTED                       \
public:                                       \
    static constexpr bool qelCounted = false; \
                                              \
private:                                      \
    static_assert(true)

/// The opposite: the compiler refuses to have the class's objects owned by qel::own.
#define QEL_COUNTED                          \
public:                                      \
    static constexpr bool qelCounted = true; \
                                             \
private:                                     \
    static_assert(true)

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
