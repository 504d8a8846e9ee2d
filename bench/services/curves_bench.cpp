// Costs by size, against the containers that a program would use instead: each row at every power of ten.

#include <QByteArray>
#include <benchmark/benchmark.h>
#include <glib.h>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <qel/xdictionary.h>
#include <qel/xsequence.h>
#include <qel/xstring.h>

#include "curve.h"

namespace {

std::string keyOf(std::int64_t i)
{
    return "key" + std::to_string(i);
}

// ---- one class for each container: made with `n` elements, read one by one

struct OurInts
{
    static constexpr const char* name = "qelstd";
    explicit OurInts(std::int64_t n)
    {
        for (std::int64_t i = 0; i < n; ++i)
            all->append(static_cast<int>(i));
    }
    int read(std::int64_t i) const { return all->get(static_cast<int>(i)); }

    xrchandle<xintsequence> all = xintsequence::make();
};

struct VectorInts
{
    static constexpr const char* name = "std::vector";
    explicit VectorInts(std::int64_t n)
    {
        for (std::int64_t i = 0; i < n; ++i)
            all->push_back(static_cast<int>(i));
    }
    int read(std::int64_t i) const { return (*all)[static_cast<std::size_t>(i)]; }

    std::unique_ptr<std::vector<int>> all = std::make_unique<std::vector<int>>();
};

/// The keys are made before the time is taken, and looked up in another order than that in which they were set.
class Keys
{
public:
    static const std::string& at(std::int64_t i)
    {
        static std::vector<std::string> all;
        while (all.size() <= static_cast<std::size_t>(i))
            all.push_back(keyOf(static_cast<std::int64_t>(all.size())));
        return all[static_cast<std::size_t>(i)];
    }
};

struct OurKeys
{
    static constexpr const char* name = "qelstd";
    explicit OurKeys(std::int64_t n)
    {
        for (std::int64_t i = 0; i < n; ++i)
            all->set(Keys::at(i).c_str(), static_cast<int>(i));
    }
    int read(std::int64_t i) const
    {
        int value = -1;
        all->find(Keys::at(i).c_str(), &value);
        return value;
    }
    void replace(std::int64_t i, std::int64_t n)
    {
        all->remove(Keys::at(i).c_str());
        all->set(Keys::at(n + i).c_str(), 1);
    }

    xrchandle<xintdictionary> all = xintdictionary::make();
};

struct GlibKeys
{
    static constexpr const char* name = "GHashTable";
    explicit GlibKeys(std::int64_t n)
    {
        for (std::int64_t i = 0; i < n; ++i)
            g_hash_table_insert(all.get(), g_strdup(Keys::at(i).c_str()),
                                GINT_TO_POINTER(static_cast<int>(i)));
    }
    int read(std::int64_t i) const
    {
        void* value = nullptr;
        return g_hash_table_lookup_extended(all.get(), Keys::at(i).c_str(), nullptr, &value)
                   ? GPOINTER_TO_INT(value)
                   : -1;
    }
    void replace(std::int64_t i, std::int64_t n)
    {
        g_hash_table_remove(all.get(), Keys::at(i).c_str());
        g_hash_table_insert(all.get(), g_strdup(Keys::at(n + i).c_str()), GINT_TO_POINTER(1));
    }

    struct Free
    {
        void operator()(GHashTable* t) const { g_hash_table_unref(t); }
    };
    std::unique_ptr<GHashTable, Free> all{g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)};
};

struct MapKeys
{
    static constexpr const char* name = "std::unordered_map";
    explicit MapKeys(std::int64_t n)
    {
        for (std::int64_t i = 0; i < n; ++i)
            all[Keys::at(i)] = static_cast<int>(i);
    }
    int read(std::int64_t i) const
    {
        const auto found = all.find(Keys::at(i));
        return found == all.end() ? -1 : found->second;
    }
    void replace(std::int64_t i, std::int64_t n)
    {
        all.erase(Keys::at(i));
        all[Keys::at(n + i)] = 1;
    }

    std::unordered_map<std::string, int> all;
};

template<class S>
struct Text
{
    static constexpr const char* name = std::is_same_v<S, xstring>       ? "qelstd"
                                        : std::is_same_v<S, std::string> ? "std::string"
                                                                         : "QByteArray";
    explicit Text(std::int64_t n)
    {
        for (std::int64_t i = 0; i < n; ++i)
            all += 'x';
    }

    S all = S("");
};

// ---- what is measured

template<class C>
void build(benchmark::State& state)
{
    Keys::at(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(C(state.range(0)));
}

template<class C>
void readAll(benchmark::State& state)
{
    const std::int64_t n = state.range(0);
    const C all(n);
    for (auto _ : state)
        for (std::int64_t i = 0; i < n; ++i)
            benchmark::DoNotOptimize(all.read(i));
}

template<class C, bool isThere>
void find(benchmark::State& state)
{
    const std::int64_t n = state.range(0);
    Keys::at(2 * n);
    const C all(n);
    for (auto _ : state)
        for (std::int64_t i = 0; i < n; ++i) {
            const std::int64_t key = curvePlace(i, n) + (isThere ? 0 : n);
            if ((all.read(key) >= 0) != isThere)
                return state.SkipWithError("another result");
        }
}

/// Half of the keys are replaced by others.
template<class C>
void replace(benchmark::State& state)
{
    const std::int64_t n = state.range(0);
    Keys::at(2 * n);
    for (auto _ : state) {
        state.PauseTiming();
        auto all = std::make_unique<C>(n);
        state.ResumeTiming();
        for (std::int64_t i = 0; i < n; ++i)
            all->replace(curvePlace(i, n), n);
        state.PauseTiming();
        all.reset();
        state.ResumeTiming();
    }
}

template<class C>
std::unique_ptr<C> made(std::int64_t n)
{
    Keys::at(n);
    return std::make_unique<C>(n);
}

template<class C>
void addInts()
{
    addCurve("curves/append ints", C::name, build<C>, 100, 10'000'000);
    addCurve("curves/read ints by index", C::name, readAll<C>, 100, 10'000'000);
    addMemoryCurve("curves of memory/ints", C::name, made<C>, 100, 1'000'000);
}

template<class C>
void addKeys()
{
    addCurve("curves/set keys", C::name, build<C>, 100, 1'000'000);
    addCurve("curves/find keys", C::name, find<C, true>, 100, 1'000'000);
    addCurve("curves/miss keys", C::name, find<C, false>, 100, 1'000'000);
    addCurve("curves/remove a key and set another", C::name, replace<C>, 100, 1'000'000);
    addMemoryCurve("curves of memory/keys", C::name, made<C>, 100, 1'000'000);
}

template<class S>
void addText()
{
    addCurve("curves/append characters", Text<S>::name, build<Text<S>>, 100, 10'000'000);
    addMemoryCurve("curves of memory/characters", Text<S>::name, made<Text<S>>, 100, 1'000'000);
}

[[maybe_unused]] const bool added = [] {
    addInts<OurInts>();
    addInts<VectorInts>();
    addKeys<OurKeys>();
    addKeys<GlibKeys>();
    addKeys<MapKeys>();
    addText<xstring>();
    addText<std::string>();
    addText<QByteArray>();
    return true;
}();

} // namespace
