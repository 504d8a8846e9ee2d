// Sequences and dictionaries against the containers that a program would use instead.

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVariant>
#include <QVector>
#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <glib.h>
#include <malloc.h>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <sys/mman.h>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include <qel/qelcpp.h>
#include <qel/xdictionary.h>
#include <qel/xsequence.h>

#include "least_p.h"

namespace {

constexpr int million = 1000000;

// ---- sequences

/// Whether freed large blocks stay in the process, or the system provides new memory each time. By default,
/// the C library does either, depending on the other contents of the heap.
enum class Freed { kept, goes };

/// Uses as much memory as a row does, and gives it back. A virtual machine may return free memory to its host, large blocks
/// first: then the next use of a page takes up to fifty times as long, and the row would measure what ran before it.
void warmMemory()
{
    constexpr std::size_t size = 256 << 20;
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return;
    madvise(memory, size, MADV_HUGEPAGE);
    for (std::size_t at = 0; at < size; at += 4096)
        static_cast<volatile char*>(memory)[at] = 1;
    munmap(memory, size);
}

void treatFreed(Freed freed)
{
    mallopt(M_TRIM_THRESHOLD, freed == Freed::kept ? 1 << 30 : 1 << 17);
    mallopt(M_MMAP_THRESHOLD, freed == Freed::kept ? 1 << 25 : 1 << 17);
}

template<class Make, class Value>
void append(benchmark::State& state, Make make, Value value, Freed freed)
{
    treatFreed(freed);
    for (auto _ : state) {
        {
            auto sequence = make();
            for (int i = 0; i < million; ++i)
                sequence->append(value(i));
            benchmark::DoNotOptimize(sequence);
        }
        if (freed == Freed::goes) {
            state.PauseTiming();
            malloc_trim(0);
            state.ResumeTiming();
        }
    }
}

template<class Value>
class StdVector
{
public:
    void append(Value value) { values.push_back(std::move(value)); }
    void assign(const std::vector<Value>& range) { values.assign(range.begin(), range.end()); }
    Value get(int i) const { return values[static_cast<std::size_t>(i)]; }
    const std::vector<Value>& all() const { return values; }

private:
    std::vector<Value> values;
};

template<class S>
xrchandle<S> qelNew()
{
    return qel::make<S>();
}

template<class Make, class Get>
void read(benchmark::State& state, Make make, Get get)
{
    const auto sequence = make();
    for (int i = 0; i < million; ++i)
        sequence->append({i});
    for (auto _ : state)
        for (int i = 0; i < million; ++i)
            benchmark::DoNotOptimize(get(*sequence, i)); // each by itself, not many by one vector instruction
}

template<class Make, class Elements>
void readElements(benchmark::State& state, Make make, Elements elements)
{
    const auto sequence = make();
    for (int i = 0; i < million; ++i)
        sequence->append(i);
    for (auto _ : state)
        for (const int value : elements(sequence))
            benchmark::DoNotOptimize(value);
}

/// Short sequences, so that most of their memory was used a moment before.
template<class Make>
void appendThousand(benchmark::State& state, Make make)
{
    treatFreed(Freed::kept);
    for (auto _ : state) {
        auto sequence = make();
        for (int i = 0; i < 1000; ++i)
            sequence->append(i);
        benchmark::DoNotOptimize(sequence);
    }
}

/// The same from a range, in one call.
template<class Make>
void appendRange(benchmark::State& state, Make make)
{
    treatFreed(Freed::kept);
    const std::vector<int> range(1000, 7);
    for (auto _ : state) {
        auto sequence = make();
        sequence->assign(range);
        benchmark::DoNotOptimize(sequence);
    }
}

LeastHandle<LeastSequence> makeLeast()
{
    auto* made = new LeastSequence;
    benchmark::DoNotOptimize(made); // a library does not know its class
    return LeastHandle(made);
}

void addSequences()
{
    const auto add = [](const std::string& what, const char* who, auto make, auto value) {
        for (const Freed freed : {Freed::goes, Freed::kept}) {
            const std::string name = "collections/append 10^6 " + what +
                                     (freed == Freed::kept ? ", reused memory/" : ", new memory/") + who;
            benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& s) {
                append(s, make, value, freed);
            })->Unit(benchmark::kMillisecond);
        }
    };
    const auto number = [](int i) { return i; };
    add("ints", "qelstd", qelNew<xintsequence>, number);
    add("ints", "std::vector", std::make_unique<StdVector<int>>, number);
    add("ints", "the least", makeLeast, number);
    add("variants", "qelstd", qelNew<xanysequence>, [](int i) { return xany(i); });
    add("variants", "QVector<QVariant>", std::make_unique<QVector<QVariant>>,
        [](int i) { return QVariant(i); });
    static const std::array<xstring, 2> ours = {"a text of some length", "another one"};
    static const std::array<QString, 2> theirs = {"a text of some length", "another one"};
    const auto text = [](int i) { return theirs[static_cast<unsigned>(i) % 2]; };
    add("strings", "qelstd", qelNew<xstringsequence>,
        [](int i) { return ours[static_cast<unsigned>(i) % 2]; });
    add("strings", "QVector<QVariant>", std::make_unique<QVector<QVariant>>, text);
    add("strings", "QVector<QString>", std::make_unique<QVector<QString>>, text);
    const auto get = [](auto& sequence, int i) { return sequence.get(i); };
    benchmark::RegisterBenchmark("collections/read 10^6 ints/qelstd",
                                 [=](benchmark::State& s) { read(s, qelNew<xintsequence>, get); });
    benchmark::RegisterBenchmark("collections/read 10^6 ints/std::vector", [=](benchmark::State& s) {
        read(s, std::make_unique<StdVector<int>>, get);
    });
    benchmark::RegisterBenchmark("collections/read 10^6 ints by span/qelstd", [](benchmark::State& s) {
        readElements(s, qelNew<xintsequence>, [](const auto& sequence) { return qel::span(*sequence); });
    });
    benchmark::RegisterBenchmark("collections/read 10^6 ints by span/std::vector", [](benchmark::State& s) {
        readElements(s, std::make_unique<StdVector<int>>,
                     [](const auto& sequence) { return std::span(sequence->all()); });
    });
    benchmark::RegisterBenchmark("collections/read 10^6 variants/qelstd",
                                 [=](benchmark::State& s) { read(s, qelNew<xanysequence>, get); });
    benchmark::RegisterBenchmark("collections/read 10^6 variants/std::vector", [=](benchmark::State& s) {
        read(s, std::make_unique<StdVector<std::variant<std::monostate, int, double, std::string>>>, get);
    });
    benchmark::RegisterBenchmark("collections/append 10^3 ints in one call/qelstd",
                                 [](benchmark::State& s) { appendRange(s, qelNew<xintsequence>); });
    benchmark::RegisterBenchmark("collections/append 10^3 ints in one call/the least",
                                 [](benchmark::State& s) { appendRange(s, makeLeast); });
    benchmark::RegisterBenchmark(
        "collections/append 10^3 ints in one call/std::vector",
        [](benchmark::State& s) { appendRange(s, std::make_unique<StdVector<int>>); });
    benchmark::RegisterBenchmark("collections/append 10^3 ints/qelstd",
                                 [](benchmark::State& s) { appendThousand(s, qelNew<xintsequence>); });
    benchmark::RegisterBenchmark("collections/append 10^3 ints/the least",
                                 [](benchmark::State& s) { appendThousand(s, makeLeast); });
    benchmark::RegisterBenchmark("collections/append 10^3 ints/std::vector", [](benchmark::State& s) {
        appendThousand(s, std::make_unique<StdVector<int>>);
    });
}

// ---- dictionaries: each class below maps keys of its text type to ints

struct Qelstd
{
    static constexpr const char* name = "qelstd";
    struct Key
    {
        std::string text;
        explicit Key(const std::string& from) : text(from) {}
    };
    bool find(const Key& key, int* out) { return d->find(key.text.c_str(), out); }
    void set(const Key& key, int value) { d->set(key.text.c_str(), value); }
    void remove(const Key& key) { d->remove(key.text.c_str()); }
    template<class Visit>
    void walk(Visit visit)
    {
        for (int slot = 0, n = d->getarraysize(), value; slot < n; ++slot)
            if (d->getbyindex(slot, &value))
                visit(value);
    }

private:
    xrchandle<xintdictionary> d = xintdictionary::create();
};

struct StdMap
{
    static constexpr const char* name = "std::unordered_map";
    using Key = std::string;
    bool find(const Key& key, int* out)
    {
        const auto at = d.find(key);
        if (at == d.end())
            return false;
        *out = at->second;
        return true;
    }
    void set(const Key& key, int value) { d[key] = value; }
    void remove(const Key& key) { d.erase(key); }
    template<class Visit>
    void walk(Visit visit)
    {
        for (const auto& entry : d)
            visit(entry.second);
    }

private:
    std::unordered_map<std::string, int> d;
};

template<class Text>
struct QtHash
{
    static constexpr const char* name =
        std::is_same_v<Text, QString> ? "QHash<QString>" : "QHash<QByteArray>";
    struct Key
    {
        Text text;
        explicit Key(const std::string& from) : text(from.c_str()) {}
    };
    bool find(const Key& key, int* out)
    {
        const auto at = d.constFind(key.text);
        if (at == d.constEnd())
            return false;
        *out = at.value();
        return true;
    }
    void set(const Key& key, int value) { d.insert(key.text, value); }
    void remove(const Key& key) { d.remove(key.text); }
    template<class Visit>
    void walk(Visit visit)
    {
        for (const int value : std::as_const(d))
            visit(value);
    }

private:
    QHash<Text, int> d;
};

/// The published rule of a dictionary's slots, each probe by itself.
class LeastSlots
{
public:
    /// Returns the number of the entry.
    unsigned add(const char* key, std::size_t length)
    {
        if ((count + 1) * 100 > places.size() * 90)
            grow();
        const unsigned id = unused.empty() ? static_cast<unsigned>(all.size()) : unused.back();
        if (unused.empty())
            all.emplace_back();
        else
            unused.pop_back();
        const auto at = [key](std::size_t i) { return static_cast<int>(key[i]); };
        all[id].start = static_cast<unsigned>(at(length / 2) * at(length - 1) * at(0));
        const int way = length < 3 ? at(0) : at(length / 2 + 1) ^ at(length - 2) ^ at(1);
        all[id].step = static_cast<unsigned>(2 * way + 1);
        take(id);
        ++count;
        return id;
    }
    void remove(unsigned id)
    {
        places[all[id].slot] = none;
        unused.push_back(id);
        --count;
    }

private:
    static constexpr unsigned none = ~0u;
    struct Entry
    {
        unsigned start, step, slot;
    };

    void take(unsigned id)
    {
        Entry& entry = all[id];
        const auto mask = static_cast<unsigned>(places.size() - 1);
        for (entry.slot = entry.start & mask; places[entry.slot] != none;)
            entry.slot = (entry.slot + entry.step) & mask;
        places[entry.slot] = id;
    }
    void grow()
    {
        const std::vector<unsigned> old =
            std::exchange(places, std::vector<unsigned>(2 * places.size(), none));
        for (const unsigned id : old)
            if (id != none)
                take(id);
    }

    std::vector<Entry> all;
    std::vector<unsigned> unused;
    std::vector<unsigned> places = std::vector<unsigned>(32, none);
    std::size_t count = 0;
};

/// The least: virtual functions of a library, which classes may override; null and a marker are no keys; keys are
/// zero-terminated, so that each operation measures its key, which a QByteArray knows; and a change takes or frees a slot.
class LeastDictionary : public LeastRoot
{
public:
    [[gnu::noinline]] virtual bool find(const QByteArray& key, int* out)
    {
        if (!isKey(key))
            return false;
        const auto at = d.constFind(key);
        if (at == d.constEnd())
            return false;
        if (out != nullptr)
            *out = static_cast<int>(at.value());
        return true;
    }
    [[gnu::noinline]] virtual void set(const QByteArray& key)
    {
        if (isKey(key) && !d.contains(key))
            d.insert(key, rule.add(key.constData(), std::strlen(key.constData())));
    }
    [[gnu::noinline]] virtual void remove(const QByteArray& key)
    {
        if (!isKey(key))
            return;
        if (const auto at = d.find(key); at != d.end()) {
            rule.remove(at.value());
            d.erase(at);
        }
    }

private:
    static bool isKey(const QByteArray& key)
    {
        if (reinterpret_cast<std::uintptr_t>(key.constData()) <= 22)
            return false;
        benchmark::DoNotOptimize(std::strlen(key.constData()));
        return true;
    }

    QHash<QByteArray, unsigned> d;
    LeastSlots rule;
};

struct Least
{
    static constexpr const char* name = "the least";
    using Key = QtHash<QByteArray>::Key;
    bool find(const Key& key, int* out) { return d->find(key.text, out); }
    void set(const Key& key, int) { d->set(key.text); }
    void remove(const Key& key) { d->remove(key.text); }

private:
    LeastHandle<LeastDictionary> d{new LeastDictionary};
};

struct Glib
{
    static constexpr const char* name = "GHashTable";
    using Key = std::string;
    bool find(const Key& key, int* out)
    {
        void* value = nullptr;
        if (!g_hash_table_lookup_extended(d.get(), key.c_str(), nullptr, &value))
            return false;
        *out = GPOINTER_TO_INT(value);
        return true;
    }
    void set(const Key& key, int value)
    {
        g_hash_table_insert(d.get(), g_strdup(key.c_str()), GINT_TO_POINTER(value));
    }
    void remove(const Key& key) { g_hash_table_remove(d.get(), key.c_str()); }
    template<class Visit>
    void walk(Visit visit)
    {
        GHashTableIter at;
        g_hash_table_iter_init(&at, d.get());
        for (void* value = nullptr; g_hash_table_iter_next(&at, nullptr, &value) != 0;)
            visit(GPOINTER_TO_INT(value));
    }

private:
    struct Free
    {
        void operator()(GHashTable* t) const { g_hash_table_unref(t); }
    };
    std::unique_ptr<GHashTable, Free> d{g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)};
};

using Texts = std::vector<std::string>;

Texts english()
{
    Texts words;
    std::ifstream file("/usr/share/dict/words");
    for (std::string word; std::getline(file, word);)
        words.push_back(word);
    std::shuffle(words.begin(), words.end(), std::mt19937(1));
    return words;
}

Texts makeWords(std::size_t n)
{
    Texts words = english();
    words.resize(std::min(n, words.size()));
    return words;
}

Texts makePairs(std::size_t n)
{
    const Texts words = english();
    Texts pairs;
    for (std::size_t i = 0; i < n && !words.empty(); ++i)
        pairs.push_back(words[i % 1000] + " " + words[1000 + i / 1000]);
    return pairs;
}

Texts makeNumbers(std::size_t n)
{
    Texts names;
    for (std::size_t i = 0; i < n; ++i) {
        std::array<char, 16> text;
        std::snprintf(text.data(), text.size(), "key%06zu", i);
        names.emplace_back(text.data());
    }
    return names;
}

/// The keys in the order in which they are set, and copies in another order for the other operations.
template<class D>
struct Keys
{
    explicit Keys(const Texts& texts)
    {
        Texts mixed = texts;
        for (const std::string& text : mixed)
            added.emplace_back(text);
        std::shuffle(mixed.begin(), mixed.end(), std::mt19937(2));
        for (const std::string& text : mixed) {
            sought.emplace_back(text);
            missing.emplace_back(text + "~");
        }
    }
    std::vector<typename D::Key> added, sought, missing;
};

template<class D>
void fill(D& d, const Keys<D>& keys)
{
    int value = 0;
    for (const auto& key : keys.added)
        d.set(key, ++value);
}

template<class D, bool present>
void find(benchmark::State& state, const Keys<D>& keys)
{
    D d;
    fill(d, keys);
    const auto& sought = present ? keys.sought : keys.missing;
    std::size_t i = 0;
    for (auto _ : state) {
        int value = 0;
        if (d.find(sought[i], &value) != present)
            state.SkipWithError(present ? "not found" : "found");
        benchmark::DoNotOptimize(value);
        i = i + 1 == sought.size() ? 0 : i + 1;
    }
}

// Several small dictionaries at a time, so that the cost of stopping the clock is small.
template<class D>
std::size_t batchFor(const Keys<D>& keys)
{
    return std::max<std::size_t>(1, 100000 / keys.added.size());
}

template<class D, bool walked>
void set(benchmark::State& state, const Keys<D>& keys)
{
    warmMemory();
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<D> all(batchFor(keys));
        state.ResumeTiming();
        for (D& d : all) {
            fill(d, keys);
            int sum = 0;
            if (walked)
                d.walk([&](int value) { sum ^= value; });
            benchmark::DoNotOptimize(sum);
        }
        state.PauseTiming();
        all.clear();
        state.ResumeTiming();
    }
}

template<class D>
void remove(benchmark::State& state, const Keys<D>& keys)
{
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<D> all(batchFor(keys));
        for (D& d : all)
            fill(d, keys);
        state.ResumeTiming();
        for (D& d : all)
            for (const auto& key : keys.sought)
                d.remove(key);
        state.PauseTiming();
        all.clear();
        state.ResumeTiming();
    }
}

/// Keys are removed and others added, with a constant number of entries.
template<class D>
void replace(benchmark::State& state, const Keys<D>& keys)
{
    D d;
    fill(d, keys);
    std::size_t i = 0;
    const std::size_t n = keys.sought.size(), away = n / 10;
    for (std::size_t k = 0; k < away; ++k)
        d.remove(keys.sought[k]);
    for (auto _ : state) {
        d.set(keys.sought[i], 1);
        d.remove(keys.sought[(i + away) % n]);
        i = i + 1 == n ? 0 : i + 1;
    }
}

/// Calls `add(operation, run)` for the operations that change.
template<class D, class Add>
void addChanges(Add add, bool large)
{
    // Building a large table takes long, and once is enough.
    const auto addWhole = [&](const char* operation, auto run) {
        benchmark::internal::Benchmark* const added = add(operation, run)->Unit(benchmark::kMillisecond);
        if (large)
            added->Iterations(1);
    };
    add("replace", replace<D>);
    addWhole("set", set<D, false>);
    addWhole("set and walk", set<D, true>);
    addWhole("remove", remove<D>);
}

template<class D>
void addOne(const std::string& family, const Texts& (*texts)(), bool large = false)
{
    const auto add = [&](const char* operation, auto run) {
        const std::string name = std::string("collections/") + operation + " " + family + "/" + D::name;
        benchmark::internal::Benchmark* const added =
            benchmark::RegisterBenchmark(name.c_str(), [texts, run](benchmark::State& state) {
                treatFreed(Freed::kept);
                malloc_trim(0); // whatever ran before
                if (texts().empty())
                    state.SkipWithError("no /usr/share/dict/words: install wamerican");
                else
                    run(state, Keys<D>(texts()));
            });
        return large ? added->Repetitions(5) : added;
    };
    add("find", find<D, true>);
    add("miss", find<D, false>);
    if constexpr (!std::is_same_v<D, Least>)
        addChanges<D>(add, large);
    else
        add("replace", replace<D>);
}

template<Texts (*make)(std::size_t), std::size_t n>
const Texts& made()
{
    static const Texts texts = make(n);
    return texts;
}

void addFamily(const std::string& family, const Texts& (*texts)(), bool large = false)
{
    addOne<Qelstd>(family, texts, large);
    addOne<StdMap>(family, texts, large);
    addOne<QtHash<QByteArray>>(family, texts, large);
    addOne<QtHash<QString>>(family, texts, large);
    addOne<Glib>(family, texts, large);
    if (!large) // the rule alone would take quadratic time
        addOne<Least>(family, texts);
}

[[maybe_unused]] const bool added = [] {
    addSequences();
    addFamily("10^2 words", made<makeWords, 100>);
    addFamily("10^4 words", made<makeWords, 10000>);
    addFamily("10^5 words", made<makeWords, 100000>);
    addFamily("10^4 word pairs", made<makePairs, 10000>);
    addFamily("10^6 word pairs", made<makePairs, million>, true);
    addFamily("10^2 numbered keys", made<makeNumbers, 100>);
    addFamily("10^4 numbered keys", made<makeNumbers, 10000>);
    addFamily("10^5 numbered keys", made<makeNumbers, 100000>);
    addFamily("10^6 numbered keys", made<makeNumbers, million>, true);
    return true;
}();

} // namespace
