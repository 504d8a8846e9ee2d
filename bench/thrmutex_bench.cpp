#include <benchmark/benchmark.h>
#include <mutex>

#include <qel/base/thrmutex.h>

namespace {

void lockOurs(benchmark::State& state)
{
    static thrMutex mutex;
    for (auto _ : state)
        thrLock lock(mutex);
}
BENCHMARK(lockOurs)->Name("base/recursive_lock/qelstd");
BENCHMARK(lockOurs)->Name("base/recursive_lock_contended/qelstd")->Threads(2)->UseRealTime();

void lockStd(benchmark::State& state)
{
    static std::recursive_mutex mutex;
    for (auto _ : state)
        std::lock_guard lock(mutex);
}
BENCHMARK(lockStd)->Name("base/recursive_lock/std");
BENCHMARK(lockStd)->Name("base/recursive_lock_contended/std")->Threads(2)->UseRealTime();

} // namespace
