// Drives the C interface with arbitrary calls: the input names functions and arguments one after the other.
// Objects, collections, texts and out arguments are also markers, wherever the interface permits them.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>
#include <string>

#include <qel/qelstd_c.h>

namespace {

void require(bool holds)
{
    if (!holds)
        __builtin_trap();
}

/// The input, read from the front; zeros after its end.
class Input
{
public:
    Input(const std::uint8_t* data, std::size_t size) : at(data), end(data + size) {}

    bool ended() const { return at == end; }
    unsigned byte() { return ended() ? 0 : *at++; }

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

    void read(int& value) { value = number(); }
    void read(unsigned char& value) { value = static_cast<unsigned char>(byte()); }
    void read(double& value) { value = byte() == 0 ? xnullreal : number() / 4.0; }
    void read(const char*& value) { value = text(); }

private:
    const std::uint8_t* at;
    const std::uint8_t* const end;
    std::string held;
};

bool isUninit(int v)
{
    return v == xuninitint;
}
bool isUninit(unsigned char v)
{
    return v == xuninitbool;
}
bool isUninit(double v)
{
    return v == xuninitreal;
}
bool isUninit(const __xstring_c& v)
{
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

    C* pick(Input& input) { return items[input.byte() % 4]; }
    static xobject* object(C* item) { return reinterpret_cast<xobject*>(item); }

private:
    C* const items[4];
};

#define SEQUENCE_STEP(C, In)                                                                                 \
    void step_##C(Input& input, Pool<C>& pool)                                                               \
    {                                                                                                        \
        C* const s = pool.pick(input);                                                                       \
        In value{};                                                                                          \
        switch (input.byte() % 7) {                                                                          \
        case 0:                                                                                              \
            checkResult(C##_getarraysize(s));                                                                \
            break;                                                                                           \
        case 1:                                                                                              \
            checkResult(C##_get(s, input.number()));                                                         \
            break;                                                                                           \
        case 2: {                                                                                            \
            const int index = input.number();                                                                \
            input.read(value);                                                                               \
            C##_set(s, index, value);                                                                        \
            break;                                                                                           \
        }                                                                                                    \
        case 3: {                                                                                            \
            const int index = input.number();                                                                \
            input.read(value);                                                                               \
            C##_insert(s, index, value);                                                                     \
            break;                                                                                           \
        }                                                                                                    \
        case 4: {                                                                                            \
            /* It may double the sequence, and an empty one may be inserted at 2 GiB. */                     \
            C* const other = pool.pick(input);                                                               \
            const int index = input.number();                                                                \
            if (index < 1000 && C##_getarraysize(s) < 1000 && C##_getarraysize(other) < 1000)                \
                C##_insertseq(s, index, other);                                                              \
            break;                                                                                           \
        }                                                                                                    \
        case 5: {                                                                                            \
            const int from = input.number();                                                                 \
            C##_removerange(s, from, input.number());                                                        \
            break;                                                                                           \
        }                                                                                                    \
        default:                                                                                             \
            require(xisobjkindof_c(pool.object(s), C##_getclassrtti_c()) == (pool.object(s) != xuninitobj)); \
        }                                                                                                    \
    }

#define DICTIONARY_STEP(C, In, COut)                                                    \
    void step_##C(Input& input, Pool<C>& pool)                                          \
    {                                                                                   \
        C* const d = pool.pick(input);                                                  \
        In value{};                                                                     \
        COut out{};                                                                     \
        __xstring_c key{};                                                              \
        const bool wanted = input.byte() % 8 != 0;                                      \
        switch (input.byte() % 8) {                                                     \
        case 0:                                                                         \
            checkResult(C##_find(d, input.text(), wanted ? &out : nullptr));            \
            giveBack(out);                                                              \
            break;                                                                      \
        case 1: {                                                                       \
            const std::string name = std::string(1 + input.byte() % 3, 'a') + 'b';      \
            input.read(value);                                                          \
            C##_set(d, name.c_str(), value);                                            \
            break;                                                                      \
        }                                                                               \
        case 2:                                                                         \
            C##_set(d, input.text(), value);                                            \
            break;                                                                      \
        case 3:                                                                         \
            checkResult(C##_getbyindex(d, input.number(), wanted ? &out : nullptr));    \
            giveBack(out);                                                              \
            break;                                                                      \
        case 4:                                                                         \
            checkResult(C##_getkeybyindex(d, input.number(), wanted ? &key : nullptr)); \
            giveBack(key);                                                              \
            break;                                                                      \
        case 5: {                                                                       \
            const int slot = input.number();                                            \
            input.read(value);                                                          \
            C##_setbyindex(d, slot, value);                                             \
            break;                                                                      \
        }                                                                               \
        case 6:                                                                         \
            C##_remove(d, input.text());                                                \
            break;                                                                      \
        default:                                                                        \
            C##_removebyindex(d, input.number());                                       \
        }                                                                               \
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
void objectStep(Input& input, xobject* p)
{
    const bool live = p != nullptr && p != xuninitobj;
    switch (input.byte() % 6) {
    case 0:
        xrcattach_c(p);
        xrcrelease_c(p);
        break;
    case 1:
        xrcattach_c(p);
        xdelete_c(p);
        break;
    case 2:
        require(xisrcobj_c(p) == live);
        break;
    case 3:
        require((xgetrtti_c(p) != nullptr) == live);
        giveBack(xgettypename_c(p));
        break;
    case 4:
        require(xisobjsameas_c(p, xgetrtti_c(p)) == (p != xuninitobj));
        require(xisobjkindof_c(p, reinterpret_cast<xrttiobject*>(xuninitobj)) == (p == nullptr));
        break;
    default:
        xprint_c(p);
    }
}

void stringStep(Input& input)
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

void exceptionStep(Input& input)
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

    Input input(data, size);
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
            switch (input.byte() % 12) {
            case 0:
                step_xboolsequence(input, bools);
                break;
            case 1:
                step_xintsequence(input, ints);
                break;
            case 2:
                step_xrealsequence(input, reals);
                break;
            case 3:
                step_xstringsequence(input, strings);
                break;
            case 4:
                step_xbooldictionary(input, boolDicts);
                break;
            case 5:
                step_xintdictionary(input, intDicts);
                break;
            case 6:
                step_xrealdictionary(input, realDicts);
                break;
            case 7:
                step_xstringdictionary(input, stringDicts);
                break;
            case 8:
                objectStep(input, Pool<xstringsequence>::object(strings.pick(input)));
                break;
            case 9:
                objectStep(input, Pool<xintdictionary>::object(intDicts.pick(input)));
                break;
            case 10:
                stringStep(input);
                break;
            default:
                exceptionStep(input);
            }
        } catch (const std::length_error&) { // an index beyond what a sequence can hold
        }
    }
    return 0;
}
