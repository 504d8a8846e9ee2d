// The heap memory of collections, against the containers that a program would use instead. The counter
// `bytes` is compared: all blocks that the C library allocated, with its overhead for each.

#include <QByteArray>
#include <QHash>
#include <QVariant>
#include <QVector>
#include <array>
#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdio>
#include <glib.h>
#include <malloc.h>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <variant>
#include <vector>

#include <qel/xdictionary.h>
#include <qel/xsequence.h>

namespace {

std::size_t heapInUse()
{
    const struct mallinfo2 now = mallinfo2();
    return now.uordblks + now.hblkhd;
}

template<class Make>
void measure(benchmark::State& state, Make make, bool isSmall)
{
    // The C library counts a few freed blocks of each size as used, which is negligible with many containers.
    const std::size_t copies = isSmall ? 1000 : 1;
    std::size_t bytes = 0;
    for (auto _ : state) {
        std::vector<decltype(make())> all;
        all.reserve(copies);
        const std::size_t before = heapInUse();
        while (all.size() < copies)
            all.push_back(make());
        benchmark::DoNotOptimize(all);
        bytes = heapInUse() - before;
    }
    state.counters["bytes"] = static_cast<double>(bytes) / static_cast<double>(copies);
}

template<class Make>
void add(const std::string& what, const char* who, Make make)
{
    const bool isSmall = what.find("10^6") == std::string::npos && what.find("200 ") == std::string::npos;
    benchmark::RegisterBenchmark(("memory/" + what + "/" + who).c_str(),
                                 [make, isSmall](benchmark::State& state) { measure(state, make, isSmall); })
        ->Iterations(1)
        ->Repetitions(3)
        ->Unit(benchmark::kMillisecond);
}

// ---- dictionaries with keys of nine bytes

using Key = std::array<char, 16>;

Key keyOf(int i)
{
    Key text;
    std::snprintf(text.data(), text.size(), "key%06d", i);
    return text;
}

template<class D>
xrchandle<D> ours(int n, bool walked)
{
    const xrchandle<D> d = D::create();
    for (int i = 0; i < n; ++i)
        d->set(keyOf(i).data(), i);
    for (int slot = 0; walked && slot < d->getarraysize(); ++slot)
        d->getkeybyindex(slot, nullptr);
    return d;
}

template<class M>
std::unique_ptr<M> mapped(int n)
{
    auto m = std::make_unique<M>();
    for (int i = 0; i < n; ++i)
        (*m)[keyOf(i).data()] = i;
    return m;
}

struct FreeTable
{
    void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};

std::unique_ptr<GHashTable, FreeTable> glibs(int n)
{
    std::unique_ptr<GHashTable, FreeTable> table(
        g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr));
    for (int i = 0; i < n; ++i)
        g_hash_table_insert(table.get(), g_strdup(keyOf(i).data()), GINT_TO_POINTER(i));
    return table;
}

void addDictionaries(const std::string& number, int n, bool walked = false)
{
    const std::string ints = "dictionary of " + number + " ints" + (walked ? ", walked" : "");
    add(ints, "qelstd", [=] { return ours<xintdictionary>(n, walked); });
    add(ints, "std::unordered_map", [=] { return mapped<std::unordered_map<std::string, int>>(n); });
    add(ints, "QHash", [=] { return mapped<QHash<QByteArray, int>>(n); });
    add(ints, "GHashTable", [=] { return glibs(n); });
    const std::string variants = "dictionary of " + number + " variants" + (walked ? ", walked" : "");
    using Variant = std::variant<std::monostate, int, double, std::string>;
    add(variants, "qelstd", [=] { return ours<xanydictionary>(n, walked); });
    add(variants, "std::unordered_map", [=] { return mapped<std::unordered_map<std::string, Variant>>(n); });
    add(variants, "QHash<QVariant>", [=] { return mapped<QHash<QByteArray, QVariant>>(n); });
}

// ---- sequences

template<class V>
std::unique_ptr<V> vectorOf(int n)
{
    auto v = std::make_unique<V>();
    for (int i = 0; i < n; ++i)
        v->push_back(i);
    return v;
}

xrchandle<xintsequence> sequenceOf(int n)
{
    const xrchandle<xintsequence> s = xintsequence::create();
    for (int i = 0; i < n; ++i)
        s->append(i);
    return s;
}

template<class Make>
auto many(Make make)
{
    std::vector<decltype(make())> all;
    for (int i = 0; i < 200; ++i)
        all.push_back(make());
    return all;
}

[[maybe_unused]] const bool added = [] {
    addDictionaries("1", 1);
    addDictionaries("5", 5);
    addDictionaries("100", 100);
    addDictionaries("10^6", 1000000);
    addDictionaries("10^6", 1000000, true);
    for (const int n : {3, 100, 1000000}) {
        const std::string what =
            "sequence of " + (n == 1000000 ? std::string("10^6") : std::to_string(n)) + " ints";
        add(what, "qelstd", [=] { return sequenceOf(n); });
        add(what, "std::vector", [=] { return vectorOf<std::vector<int>>(n); });
        add(what, "QVector", [=] { return vectorOf<QVector<int>>(n); });
    }
    const int large = 270000;
    add("200 sequences of 270000 ints", "qelstd", [=] { return many([=] { return sequenceOf(large); }); });
    add("200 sequences of 270000 ints", "std::vector",
        [=] { return many([=] { return vectorOf<std::vector<int>>(large); }); });
    return true;
}();

} // namespace
