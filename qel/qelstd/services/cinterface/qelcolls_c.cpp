#include "qelstd_c_p.h"
#include "xdictionary.h"
#include "xsequence.h"

// The C functions of the standard sequences and dictionaries: one macro for the sequences and one for the
// dictionaries, instantiated for each element type at the end.

namespace {

// ---- elements at the boundary: numbers pass unchanged, strings in their C form

template<class V>
V uninit()
{
    if constexpr (std::is_same_v<V, unsigned char>)
        return xuninitbool;
    else if constexpr (std::is_same_v<V, int>)
        return xuninitint;
    else if constexpr (std::is_same_v<V, double>)
        return xuninitreal;
    else
        return V();
}

template<class V>
V toC(V value)
{
    return value;
}

inline __xstring_c toC(const xstring& value)
{
    return value.getxstring_c();
}

/// The target of an operation that stores a value for a C caller: direct, or through a string that the caller
/// always gets.
template<class V>
class Out
{
public:
    explicit Out(V* given) : place(given) {}
    V* get() { return place; }
    void deliver() {}

private:
    V* place;
};

template<>
class Out<xstring>
{
public:
    explicit Out(__xstring_c* given) : place(given) {}
    xstring* get() { return &value; }
    void deliver()
    {
        if (place != nullptr)
            *place = value.getxstring_c();
    }

private:
    __xstring_c* place;
    xstring value;
};

// ---- the calling convention

/// Returns the result of `operation` for the collection, or `otherwise` when it fails; afterwards the current
/// exception concerns this call. A reference is held meanwhile.
template<class C, class R, class Operation>
R onCollection(C* collection, R otherwise, Operation operation)
{
    xcleanupexc_c();
    const xrchandle<C> held(collection);
    return qelForC(otherwise, [&]() -> R {
        if (!held)
            qelhThrowNotInitialized();
        return operation();
    });
}

/// The same for an operation without a result.
template<class C, class Operation>
void change(C* collection, Operation operation)
{
    onCollection(collection, 0, [&] {
        operation();
        return 0;
    });
}

/// The same for an operation that stores a value.
template<class V, class C, class Place, class Operation>
unsigned char fetch(C* collection, Place* place, Operation operation)
{
    Out<V> out(place);
    const unsigned char found = onCollection(collection, xuninitbool, [&] { return operation(out.get()); });
    out.deliver();
    return found;
}

template<class C>
C* create()
{
    xcleanupexc_c();
    return qelForC(reinterpret_cast<C*>(xuninitobj), [] {
        C* const made = C::create();
        xrcattach(made); // the caller's reference
        return made;
    });
}

} // namespace

#define QEL_SEQUENCE_FUNCTIONS(C, V, In, COut)                                     \
    C* C##_create()                                                                \
    {                                                                              \
        return create<C>();                                                        \
    }                                                                              \
    int C##_getarraysize(C* s)                                                     \
    {                                                                              \
        return onCollection(s, xuninitint, [=] { return s->getarraysize(); });     \
    }                                                                              \
    COut C##_get(C* s, int index)                                                  \
    {                                                                              \
        return toC(onCollection(s, uninit<V>(), [=] { return s->get(index); }));   \
    }                                                                              \
    void C##_set(C* s, int index, In value)                                        \
    {                                                                              \
        change(s, [=] { s->set(index, value); });                                  \
    }                                                                              \
    void C##_insert(C* s, int index, In value)                                     \
    {                                                                              \
        change(s, [=] { s->insert(index, value); });                               \
    }                                                                              \
    void C##_insertseq(C* s, int index, C* other)                                  \
    {                                                                              \
        change(s, [=] { s->insertseq(index, qelUpcast<xtbsequence<V>>(other)); }); \
    }                                                                              \
    void C##_removerange(C* s, int from, int to)                                   \
    {                                                                              \
        change(s, [=] { s->removerange(from, to); });                              \
    }                                                                              \
    xrttiobject* C##_getclassrtti_c()                                              \
    {                                                                              \
        return C::getClassRtti();                                                  \
    }

#define QEL_DICTIONARY_FUNCTIONS(C, V, In, COut)                                                  \
    C* C##_create()                                                                               \
    {                                                                                             \
        return create<C>();                                                                       \
    }                                                                                             \
    int C##_getcount(C* d)                                                                        \
    {                                                                                             \
        return onCollection(d, xuninitint, [=] { return d->getcount(); });                        \
    }                                                                                             \
    unsigned char C##_find(C* d, const char* key, COut* value)                                    \
    {                                                                                             \
        return fetch<V>(d, value, [=](V* out) { return d->find(key, out); });                     \
    }                                                                                             \
    void C##_set(C* d, const char* key, In value)                                                 \
    {                                                                                             \
        change(d, [=] { d->set(key, value); });                                                   \
    }                                                                                             \
    unsigned char C##_getbyindex(C* d, int slot, COut* value)                                     \
    {                                                                                             \
        return fetch<V>(d, value, [=](V* out) { return d->getbyindex(slot, out); });              \
    }                                                                                             \
    unsigned char C##_getkeybyindex(C* d, int slot, __xstring_c* key)                             \
    {                                                                                             \
        return fetch<xstring>(d, key, [=](xstring* out) { return d->getkeybyindex(slot, out); }); \
    }                                                                                             \
    void C##_setbyindex(C* d, int slot, In value)                                                 \
    {                                                                                             \
        change(d, [=] { d->setbyindex(slot, value); });                                           \
    }                                                                                             \
    void C##_remove(C* d, const char* key)                                                        \
    {                                                                                             \
        change(d, [=] { d->remove(key); });                                                       \
    }                                                                                             \
    void C##_removebyindex(C* d, int slot)                                                        \
    {                                                                                             \
        change(d, [=] { d->removebyindex(slot); });                                               \
    }                                                                                             \
    xrttiobject* C##_getclassrtti_c()                                                             \
    {                                                                                             \
        return C::getClassRtti();                                                                 \
    }

// A class, its element, and the element's types as C input and C output.
QEL_SEQUENCE_FUNCTIONS(xboolsequence, unsigned char, unsigned char, unsigned char)
QEL_SEQUENCE_FUNCTIONS(xintsequence, int, int, int)
QEL_SEQUENCE_FUNCTIONS(xrealsequence, double, double, double)
QEL_SEQUENCE_FUNCTIONS(xstringsequence, xstring, const char*, __xstring_c)
QEL_DICTIONARY_FUNCTIONS(xbooldictionary, unsigned char, unsigned char, unsigned char)
QEL_DICTIONARY_FUNCTIONS(xintdictionary, int, int, int)
QEL_DICTIONARY_FUNCTIONS(xrealdictionary, double, double, double)
QEL_DICTIONARY_FUNCTIONS(xstringdictionary, xstring, const char*, __xstring_c)
