// The C interface against a library written in C, and the framework's exceptions against those of the
// language.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <stdexcept>
#include <string>
#include <vector>

#include <qel/qelexception.h>
#include <qel/qelstd_c.h>

namespace {

constexpr int elements = 10000;

std::vector<std::string> makeKeys()
{
    std::vector<std::string> keys;
    for (int i = 0; i < elements; ++i)
        keys.push_back("service/" + std::to_string(i * 7919));
    return keys;
}

const std::vector<std::string> keys = makeKeys();

// ---- sequences

void fillSequenceQelstd(benchmark::State& state)
{
    for (auto _ : state) {
        xintsequence* const s = xintsequence_create();
        for (int i = 0; i < elements; ++i)
            xintsequence_insert(s, i, i);
        xrcrelease_c(reinterpret_cast<xobject*>(s));
    }
}
void fillSequenceGlib(benchmark::State& state)
{
    for (auto _ : state) {
        GArray* const s = g_array_new(FALSE, FALSE, sizeof(int));
        for (int i = 0; i < elements; ++i)
            g_array_append_val(s, i);
        g_array_unref(s);
    }
}
BENCHMARK(fillSequenceQelstd)->Name("c/append 10000 ints/qelstd");
BENCHMARK(fillSequenceGlib)->Name("c/append 10000 ints/glib");

// ---- dictionaries

void findQelstd(benchmark::State& state)
{
    xintdictionary* const d = xintdictionary_create();
    for (int i = 0; i < elements; ++i)
        xintdictionary_set(d, keys[static_cast<std::size_t>(i)].c_str(), i);
    for (auto _ : state) {
        int value = 0;
        for (const std::string& key : keys)
            benchmark::DoNotOptimize(xintdictionary_find(d, key.c_str(), &value));
        benchmark::DoNotOptimize(value);
    }
    xrcrelease_c(reinterpret_cast<xobject*>(d));
}
void findGlib(benchmark::State& state)
{
    GHashTable* const d = g_hash_table_new(g_str_hash, g_str_equal);
    for (int i = 0; i < elements; ++i)
        g_hash_table_insert(d, const_cast<char*>(keys[static_cast<std::size_t>(i)].c_str()),
                            GINT_TO_POINTER(i));
    for (auto _ : state) {
        gpointer value = nullptr;
        for (const std::string& key : keys)
            benchmark::DoNotOptimize(g_hash_table_lookup_extended(d, key.c_str(), nullptr, &value));
        benchmark::DoNotOptimize(value);
    }
    g_hash_table_unref(d);
}
BENCHMARK(findQelstd)->Name("c/find 10000 keys/qelstd");
BENCHMARK(findGlib)->Name("c/find 10000 keys/glib");

// ---- exceptions

void throwQelstd(benchmark::State& state)
{
    for (auto _ : state) {
        try {
            qelhThrowNegativeIndex(-1);
        } catch (xthrowable* thrown) {
            benchmark::DoNotOptimize(qelXNegativeIndex::softcast(thrown)->getIndex());
            xrcrelease(thrown);
        }
    }
}
void throwStd(benchmark::State& state)
{
    for (auto _ : state) {
        try {
            throw std::out_of_range("Negative index");
        } catch (const std::exception& thrown) {
            benchmark::DoNotOptimize(dynamic_cast<const std::out_of_range&>(thrown).what());
        }
    }
}
BENCHMARK(throwQelstd)->Name("c/throw, catch and identify/qelstd");
BENCHMARK(throwStd)->Name("c/throw, catch and identify/std");

} // namespace
