#pragma once

#include <new>
#include <type_traits>

#include <qel/xroot.h>

struct qelClass;
class qelS11nContext;
class xrttienum;

// Declarations in a class body for the type system; qeltable.h has the matching table.

/// Builds and registers the descriptor of `cls` unless that is done.
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

/// The same for an enumeration in a class, scoped or not, with values of any order: after the class, in its
/// namespace. Its source uses QEL_LABELS_IN. A variant carries the position of the value's label; a value
/// without a label reads as null.
#define QEL_ENUM_IN(Class, E)                      \
    QEL_API xrttienum* qelGetRtti_##Class##_##E(); \
    QEL_API const int* qelEnumValues(Class::E*);   \
    inline xrttienum* qelEnumRtti(Class::E*)       \
    {                                              \
        return qelGetRtti_##Class##_##E();         \
    }                                              \
    static_assert(sizeof(Class::E) <= sizeof(int))

/// Returns the number of labels of an enumeration; as a value, this number stands for null.
QEL_API int qelLabelCount(xrttienum* type);

/// Whether the values of E are those of QEL_LABELS_IN, not the positions of the labels.
template<class E>
concept qelHasEnumValues = requires
{
    qelEnumValues(static_cast<E*>(nullptr));
};

/// Returns the value by which a variant represents `v`: the position of its label, or null.
template<class E>
int qelEnumToLabel(E v)
{
    const int value = static_cast<int>(v);
    if constexpr (qelHasEnumValues<E>) {
        const int* const values = qelEnumValues(static_cast<E*>(nullptr));
        const int n = qelLabelCount(qelEnumRtti(static_cast<E*>(nullptr)));
        for (int i = 0; i < n; ++i)
            if (values[i] == value)
                return i;
        return xnullint;
    } else {
        return value;
    }
}

/// Returns the enumerator that a variant with this value represents, which is not null.
template<class E>
E qelEnumFromLabel(int label)
{
    if constexpr (qelHasEnumValues<E>)
        return static_cast<E>(qelEnumValues(static_cast<E*>(nullptr))[label]);
    else
        return static_cast<E>(label);
}

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
    else if constexpr (qelHasEnumValues<V>) {
        int unused = 0; // too narrow for xnullint: any value without a label
        while (qelEnumToLabel(static_cast<V>(unused)) != xnullint)
            ++unused;
        return static_cast<V>(unused);
    } else if constexpr (requires { qelEnumRtti(static_cast<V*>(nullptr)); })
        return static_cast<V>(
            qelLabelCount(qelEnumRtti(static_cast<V*>(nullptr)))); // too narrow for xnullint
    else
        return V();
}

/// An argument that converts to everything: tells whether a class has a function of its own.
struct qelProbe
{
    template<class V>
    /// Converts to everything.
    operator V() const;
};

/// T, complete when the template with the argument V is used.
template<class V, class T>
struct qelLater
{
    /// T.
    using known = T;
};

/// In a class body: an attribute stored in its own field, with `getName`, `setName` and its rebuild hook. It
/// reads as null (a variant as uninit) until it is set; but a `bool` has no null and starts as false: use
/// `unsigned char` for a truth value that may be missing. A `setName` that the class declares itself replaces
/// this one.
// clang-format off: it would tear the constraint
#define QEL_PROPERTY(type, Name)                                                          \
    QEL_READONLY(type, Name);                                                             \
                                                                                          \
public:                                                                                   \
    template<class V = type>                                                              \
    requires(!std::is_same_v<V, qelProbe> && std::is_convertible_v<V, type> &&            \
             !requires(typename qelLater<V, self>::known & object, const qelProbe& any) { \
                 object.set##Name(any);                                                   \
             }) void set##Name(V value)                                                   \
    {                                                                                     \
        Name = static_cast<V&&>(value);                                                   \
    }                                                                                     \
                                                                                          \
private:                                                                                  \
    static_assert(true)
// clang-format on

/// The same without `setName`: the attribute changes only while an object is rebuilt, as that of an exception
/// does.
#define QEL_READONLY(type, Name)             \
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
