#include <QByteArray>
#include <QString>
#include <algorithm>
#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include <qel/base/thrthreading.h>
#include <qel/xstring.h>

// Each operation once for all string types: `Ops` adapts those that spell it differently.

namespace {

constexpr char text11[] = "Hello, you!";
const std::string text100(100, 'x');
const std::string text1000 = [] {
    std::string text;
    while (text.size() < 1000)
        text += "one two three; ";
    return text;
}();

template<typename S>
struct Ops;

template<>
struct Ops<xstring>
{
    static int find(const xstring& s, const char* sub) { return s.BytePos(sub); }
    static xstring part(const xstring& s) { return s.Substring(400, 450); }
    static xstring upper(const xstring& s) { return s.ToUpper(); }
    static void replace(xstring& s, const char* from, const char* to) { s.Substitute(from, to, 0, -1); }
    static const void* wide(const char* text) { return xstring(text).CastToCWString(); }
};

template<typename Qt>
struct QtOps
{
    static int find(const Qt& s, const char* sub) { return s.indexOf(sub); }
    static Qt part(const Qt& s) { return s.mid(400, 50); }
    static Qt upper(const Qt& s) { return s.toUpper(); }
    static void replace(Qt& s, const char* from, const char* to) { s.replace(from, to); }
    static const void* wide(const char* text) { return QString::fromUtf8(text).constData(); }
};

template<>
struct Ops<QString> : QtOps<QString>
{
    static int find(const QString& s, const char* sub) { return s.indexOf(QLatin1String(sub)); }
    static void replace(QString& s, const char* from, const char* to)
    {
        s.replace(QLatin1String(from), QLatin1String(to));
    }
};

template<>
struct Ops<QByteArray> : QtOps<QByteArray>
{
};

template<>
struct Ops<std::string>
{
    static int find(const std::string& s, const char* sub) { return static_cast<int>(s.find(sub)); }
    static std::string part(const std::string& s) { return s.substr(400, 50); }
};

template<typename S>
void makeFrom(benchmark::State& state, const char* text)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        S s(text);
        benchmark::DoNotOptimize(s);
    }
}

template<typename S>
void make11(benchmark::State& state)
{
    makeFrom<S>(state, text11);
}

template<typename S>
void make100(benchmark::State& state)
{
    makeFrom<S>(state, text100.c_str());
}

template<typename S>
void copy(benchmark::State& state)
{
    const S original(text100.c_str());
    for (auto _ : state) {
        S s(original);
        benchmark::DoNotOptimize(s);
    }
}

template<typename S>
void copyThreaded(benchmark::State& state)
{
    s_bThreadingEnabled = true;
    copy<S>(state);
    s_bThreadingEnabled = false;
}

template<typename S>
void append1MB(benchmark::State& state)
{
    for (auto _ : state) {
        S s("");
        for (int i = 0; i < 1 << 20; ++i)
            s += 'x';
        benchmark::DoNotOptimize(s);
    }
}

template<typename S>
void append100Words(benchmark::State& state)
{
    const char* text = text11;
    for (auto _ : state) {
        S s("");
        for (int i = 0; i < 100; ++i) {
            benchmark::DoNotOptimize(text);
            s += text;
        }
        benchmark::DoNotOptimize(s);
    }
}

template<typename S>
void find(benchmark::State& state)
{
    const S s(text1000.c_str());
    const char* sub = "four";
    for (auto _ : state) {
        benchmark::DoNotOptimize(sub);
        benchmark::DoNotOptimize(Ops<S>::find(s, sub));
    }
}

template<typename S>
void compare(benchmark::State& state)
{
    const S a(text1000.c_str());
    const S b(text1000.c_str());
    for (auto _ : state)
        benchmark::DoNotOptimize(a == b);
}

template<typename S>
void part50(benchmark::State& state)
{
    const S s(text1000.c_str());
    for (auto _ : state)
        benchmark::DoNotOptimize(Ops<S>::part(s));
}

template<typename S>
void upper(benchmark::State& state)
{
    const S s(text1000.c_str());
    for (auto _ : state)
        benchmark::DoNotOptimize(Ops<S>::upper(s));
}

template<typename S>
void substitute(benchmark::State& state)
{
    for (auto _ : state) {
        S s(text1000.c_str());
        Ops<S>::replace(s, "two", "fourteen");
        benchmark::DoNotOptimize(s);
    }
}

template<typename S>
void makeWide(benchmark::State& state)
{
    const char* text = text1000.c_str();
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        benchmark::DoNotOptimize(Ops<S>::wide(text));
    }
}

// ---- the least: a block for the text, because copies share it, with its length, the room in it, its other form, which is
// produced on demand, and the number of its holders; made and freed by a call each, as by any library. Null and markers are
// no text, the empty texts share a block, a text has less than 2 GiB, and memory may run out

class LeastString
{
public:
    explicit LeastString(const char* text)
    {
        if (reinterpret_cast<std::uintptr_t>(text) > 2)
            make(text, std::strlen(text));
    }
    LeastString(const char* text, std::size_t length) { make(text, length); }
    LeastString(const LeastString&) = delete;
    LeastString& operator=(const LeastString&) = delete;
    ~LeastString()
    {
        if (block != nullptr &&
            (block->holders.load(std::memory_order_acquire) == 1 || --block->holders == 0))
            destroy(block);
    }

    /// The characters from `from`, or 0, up to `to`, or the end. Places are characters of UTF-8: each byte before the end of
    /// the part is looked at.
    [[gnu::noinline]] LeastString part(int from, int to) const
    {
        if (block == nullptr)
            return LeastString(nullptr);
        const char* const text = reinterpret_cast<const char*>(block + 1);
        const std::size_t begin = from < 0 ? 0 : static_cast<std::size_t>(from);
        const std::size_t end = to < 0 ? block->length : static_cast<std::size_t>(to);
        if (begin <= end && end <= block->length && isAscii(text, end))
            return LeastString(text + begin, end - begin);
        const std::size_t start = bytesOf(text, begin);
        return LeastString(text + start, std::max(bytesOf(text, end), start) - start);
    }

private:
    static bool isAscii(const char* text, std::size_t length)
    {
        std::uint64_t all = 0;
        std::size_t at = 0;
        for (std::uint64_t eight; at + 8 <= length; at += 8) {
            std::memcpy(&eight, text + at, 8);
            all |= eight;
        }
        for (; at < length; ++at)
            all |= static_cast<unsigned char>(text[at]);
        return (all & 0x8080808080808080u) == 0;
    }
    [[gnu::noinline]] static std::size_t bytesOf(const char* text, std::size_t characters)
    {
        std::size_t at = 0;
        for (; characters > 0 && text[at] != 0; --characters)
            do
                ++at;
            while ((static_cast<unsigned char>(text[at]) & 0xC0u) == 0x80u);
        return at;
    }

    struct Block
    {
        std::atomic<int> holders;
        unsigned length, room;
        char16_t* wide;
    };
    [[gnu::noinline]] void make(const char* text, std::size_t length)
    {
        static constinit Block empty = {1, 0, 1, nullptr};
        if (length == 0) {
            block = &empty;
            ++block->holders;
            return;
        }
        if (length > 0x7fffffff)
            throw std::length_error("too long");
        void* const memory = std::malloc(sizeof(Block) + length + 1);
        if (memory == nullptr)
            throw std::bad_alloc();
        block =
            new (memory) Block{1, static_cast<unsigned>(length), static_cast<unsigned>(length + 1), nullptr};
        char* const copy = reinterpret_cast<char*>(block + 1);
        std::memcpy(copy, text, length);
        copy[length] = 0;
    }
    [[gnu::noinline]] static void destroy(Block* unused)
    {
        if (unused->wide != nullptr)
            std::free(unused->wide);
        std::free(unused);
    }
    Block* block = nullptr;
};

void leastPart50(benchmark::State& state)
{
    const LeastString s(text1000.c_str());
    for (auto _ : state) {
        const LeastString part = s.part(400, 450);
        benchmark::DoNotOptimize(part);
    }
}

#define STRING_BENCH(operation, type, who) BENCHMARK(operation<type>)->Name("string/" #operation "/" who);
#define STRING_BENCH_QT(operation)              \
    STRING_BENCH(operation, xstring, "qelstd")  \
    STRING_BENCH(operation, QString, "QString") \
    STRING_BENCH(operation, QByteArray, "QByteArray")
#define STRING_BENCH_ALL(operation) \
    STRING_BENCH_QT(operation)      \
    STRING_BENCH(operation, std::string, "std::string")

STRING_BENCH_ALL(make11)
STRING_BENCH(make11, LeastString, "the least")
STRING_BENCH_ALL(make100)
STRING_BENCH_ALL(copy)
STRING_BENCH_ALL(copyThreaded)
STRING_BENCH_ALL(append1MB)
STRING_BENCH_ALL(append100Words)
STRING_BENCH_ALL(find)
STRING_BENCH_ALL(compare)
STRING_BENCH_ALL(part50)
BENCHMARK(leastPart50)->Name("string/part50/the least");
STRING_BENCH_QT(upper)
STRING_BENCH_QT(substitute)
STRING_BENCH(makeWide, xstring, "qelstd")
STRING_BENCH(makeWide, QString, "QString")

} // namespace
