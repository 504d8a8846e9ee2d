// Drives the C interface with arbitrary calls: the input names functions and arguments one after the other.
// Objects, collections, texts and out arguments are also markers, wherever the interface permits them.

#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>

#include <qel/qelstd_c.h>

#include "target.h"

namespace {

class Arguments : public Input
{
public:
    using Input::Input;

    /// Small numbers, and numbers with a special meaning in some function.
    int number()
    {
        constexpr int special[] = {-1, xnullint, xuninitint, 0x7fffffff, 32, 64, 255, 600};
        const unsigned b = byte();
        return b < 0xf0 ? static_cast<int>(b) : special[b % 8];
    }

    /// A text that is valid until the next call, or a marker.
    const char* text()
    {
        const unsigned length = byte();
        switch (length) {
        case 0xff:
            return nullptr;
        case 0xfe:
            return xnullstr;
        case 0xfd:
            return xuninitstr;
        default:
            held.clear();
            for (unsigned i = 0; i < length % 24; ++i)
                held += static_cast<char>(byte());
            return held.c_str();
        }
    }

    template<class V>
    V read()
    {
        if constexpr (std::is_same_v<V, int>)
            return number();
        else if constexpr (std::is_same_v<V, unsigned char>)
            return static_cast<unsigned char>(byte());
        else if constexpr (std::is_same_v<V, double>)
            return byte() == 0 ? xnullreal : number() / 4.0;
        else
            return text();
    }

private:
    std::string held;
};

template<class V>
bool isUninit(V v)
{
    if constexpr (std::is_same_v<V, int>)
        return v == xuninitint;
    else if constexpr (std::is_same_v<V, unsigned char>)
        return v == xuninitbool;
    else if constexpr (std::is_same_v<V, double>)
        return v == xuninitreal;
    else
        return xstrgetmb_c(v) == xnullstr;
}

template<class V>
void giveBack(V)
{
}
void giveBack(__xstring_c s)
{
    if (s.buffer != nullptr)
        require(std::strlen(xstrgetmb_c(s)) < 0x10000);
    xstrunlock_c(s);
}

/// A result of a call that may have failed: a failure shows as the marker.
template<class V>
void checkResult(V result)
{
    require(!xisexc_c() || isUninit(result));
    giveBack(result);
}

/// Two collections of a kind, and the two markers.
template<class C>
class Pool
{
public:
    explicit Pool(C* (*create)()) : items{create(), create(), nullptr, reinterpret_cast<C*>(xuninitobj)} {}
    ~Pool()
    {
        xcleanupexc_c(); // it may hold some of them
        for (C* const item : items)
            xrcrelease_c(object(item));
    }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    C* pick(Arguments& input) { return items[input.byte() % 4]; }
    static xobject* object(C* item) { return reinterpret_cast<xobject*>(item); }

private:
    C* const items[4];
};

// The elements of a tuple in braces are read from the input in their order.
#define SEQUENCE_STEP(C, In)                                                                               \
    void step_##C(Arguments& input, Pool<C>& pool)                                                         \
    {                                                                                                      \
        C* const s = pool.pick(input);                                                                     \
        input.choose([&] { checkResult(C##_getarraysize(s)); },                                            \
                     [&] { checkResult(C##_get(s, input.number())); },                                     \
                     [&] {                                                                                 \
                         std::apply(C##_set, std::tuple{s, input.number(), input.read<In>()});             \
                     },                                                                                    \
                     [&] {                                                                                 \
                         std::apply(C##_insert, std::tuple{s, input.number(), input.read<In>()});          \
                     },                                                                                    \
                     [&] {                                                                                 \
                         /* It may double the sequence, and an empty one may be inserted at 2 GiB. */      \
                         C* const other = pool.pick(input);                                                \
                         const int index = input.number();                                                 \
                         if (index < 1000 && C##_getarraysize(s) < 1000 && C##_getarraysize(other) < 1000) \
                             C##_insertseq(s, index, other);                                               \
                     },                                                                                    \
                     [&] {                                                                                 \
                         std::apply(C##_removerange, std::tuple{s, input.number(), input.number()});       \
                     },                                                                                    \
                     [&] {                                                                                 \
                         require(xisobjkindof_c(pool.object(s), C##_getclassrtti_c()) ==                   \
                                 (pool.object(s) != xuninitobj));                                          \
                     });                                                                                   \
    }

#define DICTIONARY_STEP(C, In, COut)                                                                       \
    void step_##C(Arguments& input, Pool<C>& pool)                                                         \
    {                                                                                                      \
        C* const d = pool.pick(input);                                                                     \
        COut out{};                                                                                        \
        __xstring_c key{};                                                                                 \
        const bool wanted = input.byte() % 8 != 0;                                                         \
        input.choose([&] { checkResult(C##_find(d, input.text(), wanted ? &out : nullptr)); },             \
                     [&] {                                                                                 \
                         const std::string name = std::string(1 + input.byte() % 3, 'a') + 'b';            \
                         C##_set(d, name.c_str(), input.read<In>());                                       \
                     },                                                                                    \
                     [&] { C##_set(d, input.text(), std::type_identity_t<In>()); },                        \
                     [&] { checkResult(C##_getbyindex(d, input.number(), wanted ? &out : nullptr)); },     \
                     [&] { checkResult(C##_getkeybyindex(d, input.number(), wanted ? &key : nullptr)); },  \
                     [&] {                                                                                 \
                         std::apply(C##_setbyindex, std::tuple{d, input.number(), input.read<In>()});      \
                     },                                                                                    \
                     [&] { C##_remove(d, input.text()); }, [&] { C##_removebyindex(d, input.number()); }); \
        giveBack(out);                                                                                     \
        giveBack(key);                                                                                     \
    }

SEQUENCE_STEP(xboolsequence, unsigned char)
SEQUENCE_STEP(xintsequence, int)
SEQUENCE_STEP(xrealsequence, double)
SEQUENCE_STEP(xstringsequence, const char*)
DICTIONARY_STEP(xbooldictionary, unsigned char, unsigned char)
DICTIONARY_STEP(xintdictionary, int, int)
DICTIONARY_STEP(xrealdictionary, double, double)
DICTIONARY_STEP(xstringdictionary, const char*, __xstring_c)

/// The functions for objects of any class.
void objectStep(Arguments& input, xobject* p)
{
    const bool live = p != nullptr && p != xuninitobj;
    input.choose(
        [&] {
            xrcattach_c(p);
            xrcrelease_c(p);
        },
        [&] {
            xrcattach_c(p);
            xdelete_c(p);
        },
        [&] { require(xisrcobj_c(p) == live); },
        [&] {
            require((xgetrtti_c(p) != nullptr) == live);
            giveBack(xgettypename_c(p));
        },
        [&] {
            require(xisobjsameas_c(p, xgetrtti_c(p)) == (p != xuninitobj));
            require(xisobjkindof_c(p, reinterpret_cast<xrttiobject*>(xuninitobj)) == (p == nullptr));
        },
        [&] { xprint_c(p); });
}

void stringStep(Arguments& input)
{
    const char* const text = input.text();
    const __xstring_c s = xstrcreate_c(text);
    const char* const back = xstrgetmb_c(s);
    if (text == nullptr || text == xnullstr || text == xuninitstr)
        require(back == xnullstr);
    else
        require(std::strcmp(back, text) == 0);
    xstrlock_c(s);
    xstrunlock_c(s);
    xstrunlock_c(s);
}

void exceptionStep(Arguments& input)
{
    switch (input.byte() % 4) {
    case 0: {
        xthrowable* const current = xgetexc_c();
        require((current != nullptr) == (xisexc_c() == 1));
        giveBack(xgettypename_c(reinterpret_cast<xobject*>(current)));
        giveBack(xgetexctext_c(current));
        xsetexc_c(current);
        xrcrelease_c(reinterpret_cast<xobject*>(current));
        break;
    }
    case 1: {
        xthrowable* const taken = xextractexc_c();
        require(!xisexc_c());
        xsetexc_c(taken);
        xrcrelease_c(reinterpret_cast<xobject*>(taken));
        break;
    }
    case 2:
        xsetexc_c(input.byte() % 2 == 0 ? nullptr : reinterpret_cast<xthrowable*>(xuninitobj));
        require(!xisexc_c());
        break;
    default:
        xcleanupexc_c();
        require(!xisexc_c());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool quiet = [] {
        std::cout.setstate(std::ios::failbit); // printing runs, its text is discarded
        return true;
    }();
    require(quiet);

    Arguments input(data, size);
    Pool<xboolsequence> bools(&xboolsequence_create);
    Pool<xintsequence> ints(&xintsequence_create);
    Pool<xrealsequence> reals(&xrealsequence_create);
    Pool<xstringsequence> strings(&xstringsequence_create);
    Pool<xbooldictionary> boolDicts(&xbooldictionary_create);
    Pool<xintdictionary> intDicts(&xintdictionary_create);
    Pool<xrealdictionary> realDicts(&xrealdictionary_create);
    Pool<xstringdictionary> stringDicts(&xstringdictionary_create);

    while (!input.ended()) {
        try {
            input.choose([&] { step_xboolsequence(input, bools); }, [&] { step_xintsequence(input, ints); },
                         [&] { step_xrealsequence(input, reals); },
                         [&] { step_xstringsequence(input, strings); },
                         [&] { step_xbooldictionary(input, boolDicts); },
                         [&] { step_xintdictionary(input, intDicts); },
                         [&] { step_xrealdictionary(input, realDicts); },
                         [&] { step_xstringdictionary(input, stringDicts); },
                         [&] { objectStep(input, Pool<xstringsequence>::object(strings.pick(input))); },
                         [&] { objectStep(input, Pool<xintdictionary>::object(intDicts.pick(input))); },
                         [&] { stringStep(input); }, [&] { exceptionStep(input); });
        } catch (const std::length_error&) { // an index beyond what a sequence can hold
        }
    }
    return 0;
}
