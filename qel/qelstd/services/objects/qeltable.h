#pragma once

#include <cstddef>
#include <initializer_list>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include <qel/qelrtti.h>
#include <qel/xany.h>

// The table in which a class states, in one place, its facts for the type system:
//
//     class Person : public virtual xobject
//     {
//         QEL_OBJECT(Person);
//         QEL_PROPERTY(xstring, Name);
//         QEL_PROPERTY(int, Age);
//     };
//
//     constinit qelClass Person::rtti = {
//         .name    = "people::Person",
//         .counted = true,
//         .attrs   = {QEL_ATTR(Name), QEL_ATTR(Age, qelOptional)},
//     };
//
// `.parents = {QEL_PARENT(Being)}` names a base other than xobject. The descriptor, the casts and the attribute readers
// are derived from it. QEL_ATTR(Age) reads through the accessor getAge() and takes the attribute's type from
// the return type: int, unsigned char (a bool), double, xstring, xany, an enumeration with QEL_ENUM, or a
// pointer or handle to an exposed class. The optional hook `_s11n_setAge(value)` sets the attribute when an
// object is rebuilt.
//
// Include this header in sources only, not in the header of a class. A class is registered by the first
// request for its descriptor, on whichever thread; qelRegister<Person, ...>() names classes and enumerations
// to be registered while the program loads.

class qelS11nContext;

/// Flags of an attribute: whether it may be null.
constexpr unsigned char qelMandatory = 0;
constexpr unsigned char qelOptional = 1; ///< the attribute or element may be null

/// One attribute: its name, whether it may be null, and the functions that return its type, read it from a
/// live object, and set it in an object that is being rebuilt (null where the class has no such hook). The
/// hook throws qelXTypeMismatch for a value that is neither null, uninit nor of the type.
struct qelAttr
{
    /// The registered name.
    const char* name = nullptr;
    /// Whether it may be null.
    unsigned char optional = qelMandatory;
    /// Returns the descriptor of its type.
    xrtti* (*type)() = nullptr;
    /// Returns its value.
    xany (*read)(xobject* owner) = nullptr;
    /// Sets it; null: it is computed from others.
    void (*rebuild)(xobject* owner, const xany& value) = nullptr;
};

/// One direct base class: its descriptor, and a function that searches that part of an object for a class.
struct qelParent
{
    /// Returns the descriptor of the base class.
    xrttiobject* (*rtti)() = nullptr;
    /// Implements the casts to the base class.
    void* (*downcast)(void* self, const xrttiobject* wanted) = nullptr;
};

/// One member of a union, present when the discriminator has the value `label`.
struct qelCase
{
    /// The value of the discriminator.
    int label = 0;
    /// The member that it selects.
    qelAttr attr;
};

/// The access functions of a sequence, dictionary or array.
struct qelShape
{
    /// The kind of a collection.
    enum Kind : unsigned char { sequence, dictionary, array };

    /// Says which of the functions below are set.
    Kind kind;
    unsigned char optional; ///< whether elements may be null
    /// Returns the descriptor of the elements' type.
    xrtti* (*elemType)();
    /// The readers of the descriptors; see xrtti.h.
    int (*size)(xobject* owner) = nullptr;
    xany (*elemAt)(xobject* owner, int index) = nullptr;
    xany (*elemAtAll)(xobject* owner, int* indices) = nullptr;
    unsigned char (*find)(xobject* owner, const char* key, xany* out) = nullptr;
    unsigned char (*keyAt)(xobject* owner, int index, xstring* outKey) = nullptr;
    unsigned char (*valueAt)(xobject* owner, int index, xany* out) = nullptr;
    // By which elements of a new object are set; null where the class has no such operation. Each throws
    // qelXTypeMismatch for a value that is neither null, uninit nor of the element type.
    void (*append)(xobject* owner, const xany& value) = nullptr;                   ///< of a sequence
    void (*set)(xobject* owner, const char* key, const xany& value) = nullptr;     ///< of a dictionary
    void (*setelement)(xobject* owner, int* indices, const xany& value) = nullptr; ///< of an array
};

/// The facts of a class for the type system. A class with `elements` is a sequence, dictionary or array, one
/// with a `discriminator` is a union, and any other a structure. A sequence, dictionary or array has neither
/// parents nor attributes, and a union has no `attrs`: a table that breaks this rule aborts the process on
/// first use.
struct qelClass
{
    /// The descriptor; null until it and everything that it refers to is complete. Accessed atomically, and
    /// read by qelDescriptorOf without this declaration.
    xrttiobject* built = nullptr;
    /// The registered name.
    const char* name;
    /// Whether releasing the last counted reference frees an object of the class.
    bool counted = false;
    std::initializer_list<qelParent> parents = {};
    std::initializer_list<qelAttr> attrs = {};
    /// qelSequenceOf<self>, qelDictionaryOf<self> or qelArrayOf<self>.
    const qelShape* elements = nullptr;
    /// The extents of an array.
    std::initializer_list<int> dims = {};
    qelAttr discriminator = {};
    std::initializer_list<qelCase> cases = {};
    /// The member for every label that `cases` does not list.
    qelAttr otherwise = {};
    /// Returns an empty object of the class: qelCreateOf<self>.
    xobject* (*create)() = nullptr;
    /// Returns an object for the attributes' `rebuild` functions to fill: qelRebuildOf<self>, for a class
    /// with QEL_REBUILD. Null when memory runs out.
    xobject* (*rebuild)(qelS11nContext* context) = nullptr;
    /// For an exception: the facts that qelTextOf adds to its text, such as "host alpha, port 7"; null for
    /// none. Derived classes have it, too.
    xstring (*explain)(xobject* failure) = nullptr;

    /// The descriptor under construction; a later call resumes it after running out of memory. Like
    /// nextBegun, used only under the lock of building.
    xrttiobject* begun = nullptr;
    qelClass* nextBegun = nullptr;
};
static_assert(std::is_standard_layout_v<qelClass> && offsetof(qelClass, built) == 0);

/// Returns the table from which the descriptor `type` was built, or null when it was built by hand.
QEL_API const qelClass* qelClassOf(xrttiobject* type);

/// Names classes and enumerations in order, so that their descriptors are built and registered now.
template<class... T>
void qelRegister();

// ---- implementation of the rows

/// Converts values of an accessor's type to variants and back, and returns the type's descriptor.
template<class V>
struct qelValue
{
    static_assert(std::is_enum_v<V>, "an attribute's type is int, unsigned char, double, xstring, xany, an "
                                     "enumeration, or a pointer or handle to an exposed class");
    static_assert(
        !std::is_enum_v<V> || requires { qelEnumRtti(static_cast<V*>(nullptr)); },
        "write QEL_ENUM(E) after the enumeration, in its namespace, or QEL_ENUM_IN(Class, E) after "
        "its class");
    static xrtti* rtti() { return qelEnumRtti(static_cast<V*>(nullptr)); }
    static xany pack(V v) { return xany(qelEnumToLabel(v), qelEnumRtti(static_cast<V*>(nullptr))); }
    static V unpack(const xany& a)
    {
        if (a.isNull())
            return qelUnset<V>();
        return qelEnumFromLabel<V>(a);
    }
};

#define QEL_BASIC_VALUE(V, builtin)                                 \
    template<>                                                      \
    struct qelValue<V>                                              \
    {                                                               \
        static xrtti* rtti() { return qelGetRtti_##builtin(); }     \
        static xany pack(V v) { return xany(static_cast<V&&>(v)); } \
        static V unpack(const xany& a) { return a; }                \
    }
QEL_BASIC_VALUE(int, int);
QEL_BASIC_VALUE(unsigned char, bool);
QEL_BASIC_VALUE(double, real);
QEL_BASIC_VALUE(xstring, string);
QEL_BASIC_VALUE(xany, any);
#undef QEL_BASIC_VALUE

template<>
struct qelValue<bool> : qelValue<unsigned char>
{
    static bool unpack(const xany& a) { return static_cast<unsigned char>(a) == 1; }
};

template<class T>
struct qelValue<T*>
{
    static xrtti* rtti()
    {
        if constexpr (std::is_same_v<T, xobject>)
            return qelGetRtti_object();
        else
            return T::getClassRtti();
    }
    static xany pack(T* p) { return xany(p); }
    static T* unpack(const xany& a)
    {
        if constexpr (std::is_same_v<T, xobject>)
            return a;
        else
            return T::cast(a);
    }
};

template<class T>
struct qelValue<xrchandle<T>> : qelValue<T*>
{
    static xany pack(const xrchandle<T>& h) { return xany(h.get()); }
};

template<class T>
struct qelValue<xrcunihandle<T>> : qelValue<T*>
{
    static xany pack(const xrcunihandle<T>& h) { return xany(h.get()); }
};

/// Returns `value`, which may be null or uninit, as a V.
/// @throws qelXTypeMismatch
template<class V>
auto qelUnpack(const xany& value)
{
    if (!value.isUninit())
        value.validate(qelValue<V>::rtti(), qelOptional);
    return qelValue<V>::unpack(value);
}

[[noreturn]] QEL_API void qelThrowNotLive();

/// A live T for the duration of a read: rejects null and uninit, and keeps a counted object from being
/// deleted.
template<class T>
class qelReading
{
public:
    /// @throws qelXNotInitialized, qelXTypeMismatch
    explicit qelReading(xobject* owner)
        : object(qelIsObject(owner) ? qelCast<T>(owner) : nullptr),
          held(object != nullptr && T::getClassRtti()->getIsRefCount() ? owner : nullptr)
    {
        if (object == nullptr)
            qelThrowNotLive();
    }
    qelReading(const qelReading&) = delete;
    qelReading& operator=(const qelReading&) = delete;

    T& operator*() const { return *object; }
    T* operator->() const { return object; }

private:
    T* const object;
    const qelReadHold held;
};

/// `Get` and `Set` are types of captureless lambdas, so a row consists of functions only.
template<class T, class Get, class Set>
constexpr qelAttr qelAttrOf(const char* name, Get, Set, unsigned char optional = qelMandatory)
{
    using V = std::remove_cvref_t<decltype(Get()(std::declval<T&>()))>;
    qelAttr row{
        .name = name, .optional = optional, .type = &qelValue<V>::rtti, .read = [](xobject* owner) -> xany {
            const qelReading<T> object(owner);
            return qelValue<V>::pack(Get()(*object));
        }};
    if constexpr (std::is_invocable_v<Set, T&, const V&>)
        row.rebuild = [](xobject* owner, const xany& value) {
            const qelReading<T> object(owner);
            Set()(*object, qelUnpack<V>(value));
        };
    return row;
}

/// A row for the attribute that getN() reads: QEL_ATTR(N) or QEL_ATTR(N, qelOptional).
#define QEL_ATTR(N, ...)                                                                        \
    qelAttrOf<self>(                                                                            \
        #N, [](self& object) { return object.get##N(); },                                       \
        [](auto& object, const auto& value) requires requires { object._s11n_set##N(value); } { \
            object._s11n_set##N(value);                                                         \
        } __VA_OPT__(, ) __VA_ARGS__)

/// A row for an attribute read by an expression: QEL_ATTR_BY(ModTime, object.modifiedAt()). `object` is the
/// owner.
#define QEL_ATTR_BY(N, expression, ...) \
    qelAttrOf<self>(                    \
        #N, [](self& object) { return expression; }, nullptr __VA_OPT__(, ) __VA_ARGS__)

// False, once T is known: for the assertions about wrong rows.
template<class T>
inline constexpr bool qelNever = false;

template<class T, class P>
constexpr qelParent qelParentOf = []() -> qelParent {
    if constexpr (requires(T * object) { P::getClassRtti(), object->P::dyndowncast(nullptr); })
        return {.rtti = &P::getClassRtti, .downcast = [](void* object, const xrttiobject* wanted) {
                    return static_cast<T*>(object)->P::dyndowncast(wanted);
                }};
    else {
        static_assert(qelNever<P>, "QEL_PARENT(Base): Base is a base class with a table of its own");
        return {};
    }
}();

/// A row for a direct base class.
#define QEL_PARENT(P) qelParentOf<self, P>

template<class T>
xobject* qelCreateOf()
{
    if constexpr (requires { T::create(); })
        return T::create();
    else
        static_assert(qelNever<T>, "qelCreateOf<self>: the class has no static create()");
}

template<class T>
xobject* qelRebuildOf(qelS11nContext* context)
{
    if constexpr (requires { T::_s11n_create(context); })
        return qelObjectOf(static_cast<T*>(T::_s11n_create(context)));
    else
        static_assert(qelNever<T>, "qelRebuildOf<self>: write QEL_REBUILD(Class) in the class");
}

// Read through getarraysize() and get(index), filled through append(value).
template<class S>
constexpr qelShape qelSequenceShape(unsigned char optional)
{
    using V = std::remove_cvref_t<decltype(std::declval<S&>().get(0))>;
    qelShape shape{.kind = qelShape::sequence,
                   .optional = optional,
                   .elemType = &qelValue<V>::rtti,
                   .size = [](xobject* owner) -> int { return qelReading<S>(owner)->getarraysize(); },
                   .elemAt = [](xobject* owner, int index) -> xany {
                       const qelReading<S> object(owner);
                       return qelValue<V>::pack(object->get(index));
                   }};
    if constexpr (requires(S & s, const xany& value) { s.append(qelUnpack<V>(value)); })
        shape.append = [](xobject* owner, const xany& value) {
            const qelReading<S> object(owner);
            object->append(qelUnpack<V>(value));
        };
    return shape;
}

template<class F>
struct qelFoundValue;
template<class S, class V>
struct qelFoundValue<unsigned char (S::*)(const char*, V*)>
{
    using type = V;
};

template<class D>
struct qelDictionaryValue
{
    using type = typename qelFoundValue<decltype(&D::find)>::type;
};
template<class D>
requires requires
{
    typename D::mapped_type;
}
struct qelDictionaryValue<D>
{
    using type = typename D::mapped_type;
};

// Read through getarraysize(), find(key, out), getkeybyindex(slot, outKey) and getbyindex(slot, out), filled
// through set(key, value).
template<class D>
constexpr qelShape qelDictionaryShape(unsigned char optional)
{
    using V = typename qelDictionaryValue<D>::type;
    qelShape shape{.kind = qelShape::dictionary,
                   .optional = optional,
                   .elemType = &qelValue<V>::rtti,
                   .size = [](xobject* owner) -> int { return qelReading<D>(owner)->getarraysize(); },
                   .find = [](xobject* owner, const char* key, xany* out) -> unsigned char {
                       const qelReading<D> object(owner);
                       V value{};
                       if (!object->find(key, &value))
                           return 0;
                       if (out != nullptr)
                           *out = qelValue<V>::pack(value);
                       return 1;
                   },
                   .keyAt = [](xobject* owner, int index, xstring* outKey) -> unsigned char {
                       return qelReading<D>(owner)->getkeybyindex(index, outKey);
                   },
                   .valueAt = [](xobject* owner, int index, xany* out) -> unsigned char {
                       const qelReading<D> object(owner);
                       V value{};
                       if (!object->getbyindex(index, &value))
                           return 0;
                       if (out != nullptr)
                           *out = qelValue<V>::pack(value);
                       return 1;
                   }};
    if constexpr (requires(D & d, const char* key, const xany& value) { d.set(key, qelUnpack<V>(value)); })
        shape.set = [](xobject* owner, const char* key, const xany& value) {
            const qelReading<D> object(owner);
            object->set(key, qelUnpack<V>(value));
        };
    return shape;
}

// Read through getelement(indices), one index for each of the table's `dims`, and filled through
// setelement(indices, value).
template<class A>
constexpr qelShape qelArrayShape(unsigned char optional)
{
    using V = std::remove_cvref_t<decltype(std::declval<A&>().getelement(std::declval<int*>()))>;
    qelShape shape{.kind = qelShape::array,
                   .optional = optional,
                   .elemType = &qelValue<V>::rtti,
                   .elemAtAll = [](xobject* owner, int* indices) -> xany {
                       const qelReading<A> object(owner);
                       return qelValue<V>::pack(object->getelement(indices));
                   }};
    if constexpr (requires(A & a, int* indices, const xany& value) {
                      a.setelement(indices, qelUnpack<V>(value));
                  })
        shape.setelement = [](xobject* owner, int* indices, const xany& value) {
            const qelReading<A> object(owner);
            object->setelement(indices, qelUnpack<V>(value));
        };
    return shape;
}

template<class S, unsigned char optional>
inline constexpr qelShape qelSequenceRow = []() -> qelShape {
    if constexpr (requires(S & s) { s.getarraysize(), s.get(0); })
        return qelSequenceShape<S>(optional);
    else {
        static_assert(qelNever<S>, "qelSequenceOf<self>: the class has no getarraysize() and get(index)");
        return {};
    }
}();
template<class D, unsigned char optional>
inline constexpr qelShape qelDictionaryRow = []() -> qelShape {
    if constexpr (
        requires { typename D::mapped_type; } || requires { &D::find; })
        return qelDictionaryShape<D>(optional);
    else {
        static_assert(qelNever<D>, "qelDictionaryOf<self>: the class has no find(const char* key, V* value)");
        return {};
    }
}();
template<class A, unsigned char optional>
inline constexpr qelShape qelArrayRow = []() -> qelShape {
    if constexpr (requires(A & a, int* indices) { a.getelement(indices); })
        return qelArrayShape<A>(optional);
    else {
        static_assert(qelNever<A>, "qelArrayOf<self>: the class has no getelement(indices)");
        return {};
    }
}();

template<class S, unsigned char optional = qelMandatory>
inline constexpr const qelShape* qelSequenceOf = &qelSequenceRow<S, optional>;
template<class D, unsigned char optional = qelMandatory>
inline constexpr const qelShape* qelDictionaryOf = &qelDictionaryRow<D, optional>;
template<class A, unsigned char optional = qelMandatory>
inline constexpr const qelShape* qelArrayOf = &qelArrayRow<A, optional>;

// ---- enumerations

/// Builds and registers the descriptor of an enumeration whose labels are those of `list`, separated by
/// commas.
QEL_API xrttienum* qelBuildEnum(const char* name, int count, const char* list);

template<class E>
constexpr bool qelCountsFromZero(std::initializer_list<E> values)
{
    int expected = 0;
    for (const E v : values)
        if (static_cast<int>(v) != expected++)
            return false;
    return true;
}

/// In a source, after QEL_ENUM(E) in the header: QEL_LABELS(Colour, "paint::Colour", red, green, blue). The
/// labels are the names of the enumerators, listed in order from 0.
#define QEL_LABELS(E, name, ...)                                                                 \
    static_assert(qelCountsFromZero<E>({__VA_ARGS__}), "label i names value i");                 \
    xrttienum* qelGetRtti_##E()                                                                  \
    {                                                                                            \
        static xrttienum* const type = qelBuildEnum(                                             \
            name, static_cast<int>(std::initializer_list<E>{__VA_ARGS__}.size()), #__VA_ARGS__); \
        return type;                                                                             \
    }                                                                                            \
    static_assert(true)

template<int n>
struct qelLabelValues
{
    int at[n];
};
template<class E, std::size_t n>
constexpr qelLabelValues<static_cast<int>(n)> qelValuesOf(const E (&list)[n])
{
    qelLabelValues<static_cast<int>(n)> values = {};
    for (std::size_t i = 0; i < n; ++i)
        values.at[i] = static_cast<int>(list[i]);
    return values;
}

/// In a source, after QEL_ENUM_IN(Class, E) in the header: QEL_LABELS_IN(Paint, Colour, "paint::Colour", red,
/// green). The labels are the names of the enumerators, in any order.
#define QEL_LABELS_IN(Class, E, name, ...)                                                              \
    const int* qelEnumValues(Class::E*)                                                                 \
    {                                                                                                   \
        using enum Class::E;                                                                            \
        static constexpr auto values = qelValuesOf<Class::E>({__VA_ARGS__});                            \
        return values.at;                                                                               \
    }                                                                                                   \
    xrttienum* qelGetRtti_##Class##_##E()                                                               \
    {                                                                                                   \
        using enum Class::E;                                                                            \
        static xrttienum* const type = qelBuildEnum(                                                    \
            name, static_cast<int>(std::initializer_list<Class::E>{__VA_ARGS__}.size()), #__VA_ARGS__); \
        return type;                                                                                    \
    }                                                                                                   \
    static_assert(true)

// ---- registration

/// Aborts the process: QEL_COUNTED or QEL_NOT_COUNTED in the class's body contradicts its table.
[[noreturn]] QEL_API void qelAbortCounted(xrtti* type);

template<class T>
void qelRegisterOne()
{
    if constexpr (std::is_enum_v<T>) {
        qelEnumRtti(static_cast<T*>(nullptr));
    } else {
        xrttiobject* const type = T::getClassRtti();
        if constexpr (requires { T::qelCounted; })
            if ((type->getIsRefCount() != 0) != T::qelCounted)
                qelAbortCounted(type);
    }
}

/// The facts of a type in a qelRegister beyond its descriptor.
struct qelNamed
{
    xrtti* (*rtti)();
    const std::type_info* type;
    xobject* (*make)(); ///< returns a new default-constructed object; null if there is none
};

/// Makes `type`, which is kept by pointer forever, known to qelRttiCppName and qelRttiCreate; repeated calls
/// do nothing. If another C++ type has been named under its registered name, writes one line to standard
/// error: types are identified by that name, and a cast may return a pointer to the wrong class.
QEL_API void qelKeepNamed(const qelNamed& type);

template<class T>
constexpr qelNamed qelNamedOf()
{
    if constexpr (std::is_enum_v<T>)
        return {[]() -> xrtti* { return qelEnumRtti(static_cast<T*>(nullptr)); }, &typeid(T), nullptr};
    else if constexpr (requires { qelObjectOf(T::create()); })
        return {[]() -> xrtti* { return T::getClassRtti(); }, &typeid(T),
                []() -> xobject* { return qelObjectOf(T::create()); }};
    else if constexpr (std::is_default_constructible_v<T>)
        return {[]() -> xrtti* { return T::getClassRtti(); }, &typeid(T),
                []() -> xobject* { return qelObjectOf(new (pDefMemMgr) T); }};
    else
        return {[]() -> xrtti* { return T::getClassRtti(); }, &typeid(T), nullptr};
}

template<class... T>
void qelRegister()
{
    (qelRegisterOne<T>(), ...);
    static constexpr qelNamed types[] = {qelNamedOf<T>()...};
    for (const qelNamed& type : types)
        qelKeepNamed(type);
}
