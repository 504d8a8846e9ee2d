#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <string>
#include <vector>

#include "support/resident.h"

/// Adds the rows AREA/TITLE/WHO/SIZE of a curve, one for each power of ten from `first` to `last`. The area says what a
/// row measures: "curves", the time of SIZE elements; "curves of one", that of one operation among SIZE; "curves of
/// memory", the bytes of SIZE elements.
template<class Run>
benchmark::internal::Benchmark* addCurve(const std::string& areaAndTitle, const char* who, Run run, int first,
                                         int last)
{
    return benchmark::RegisterBenchmark((areaAndTitle + '/' + who).c_str(), run)
        ->RangeMultiplier(10)
        ->Range(first, last);
}

/// Adds a curve of the heap memory of what `make(size)` returns; what its first call leaves is not counted. Small ones are
/// made many times, as the C library counts a few freed blocks as used. Of large blocks, only pages in use count.
template<class Make>
void addMemoryCurve(const std::string& areaAndTitle, const char* who, Make make, int first, int last)
{
    addCurve(
        areaAndTitle, who,
        [make](benchmark::State& state) {
            const auto allocated = [] {
                const struct mallinfo2 all = mallinfo2();
                return static_cast<double>(all.uordblks + all.hblkhd);
            };
            const std::int64_t size = state.range(0);
            const std::int64_t copies = std::clamp<std::int64_t>(100'000 / size, 1, 1000);
            make(size);
            for (auto _ : state) {
                std::vector<decltype(make(size))> all;
                all.reserve(static_cast<std::size_t>(copies));
                malloc_trim(0);
                const double before = allocated();
                const long residentBefore = residentKiB();
                for (std::int64_t i = 0; i < copies; ++i)
                    all.push_back(make(size));
                double bytes = allocated() - before;
                if (bytes > 4 << 20)
                    bytes = std::min(bytes, 1024.0 * static_cast<double>(residentKiB() - residentBefore));
                state.counters["bytes"] = bytes / static_cast<double>(copies);
            }
        },
        first, last)
        ->Iterations(1);
}

/// The number of elements of a row: `fixed`, or in a curve, where that is 0, the row's size.
template<int fixed>
int curveSize(const benchmark::State& state)
{
    if constexpr (fixed > 0)
        return fixed;
    else
        return static_cast<int>(state.range(0));
}

/// Visits the numbers below `n` in an order that no prefetcher follows: that of step `i`.
inline std::int64_t curvePlace(std::int64_t i, std::int64_t n)
{
    return i * 7919 % n;
}
