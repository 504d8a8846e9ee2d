// Monitor files: a value stored or loaded against one pwrite or pread of its bytes; a lookup among many
// parameters against one among few; discovering many parameters against discovering few as often.
#include <benchmark/benchmark.h>
#include <map>
#include <memory>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/base/btkfilepart.h>
#include <qel/qelown.h>
#include <qel/xmonlib.h>

#include "curve.h"

namespace {

using Monitor = qel::owned<monFile>;

// A monitor file that is removed at the end.
class Published
{
public:
    Published()
    {
        close(mkstemp(path.data()));
        file.reset(monFile::Create(path.c_str(), "title"));
        if (file == nullptr)
            std::abort();
    }
    ~Published() { unlink(path.c_str()); }

    monFile* operator->() const { return file.get(); }
    const char* Path() const { return path.c_str(); }
    Monitor OpenAgain() const { return Monitor(monFile::Open(path.c_str())); }
    btkFd OpenPlain() const { return btkOpenFile(path.c_str(), btkOpenRead | btkOpenWrite); }
    void Add(int count) const
    {
        for (int i = 0; i < count; ++i)
            file->Int(NameOf(i).c_str());
    }
    static std::string NameOf(int i) { return "service.parameter " + std::to_string(i); }

private:
    std::string path = "/tmp/qelbench.XXXXXX";
    Monitor file;
};

// ---- one value

void storeInt(benchmark::State& state)
{
    const Published file;
    monIntParam* const param = file->Int("name");
    int v = 0;
    for (auto _ : state)
        param->setValue(++v);
}

void loadInt(benchmark::State& state)
{
    const Published file;
    monIntParam* const param = file->Int("name");
    for (auto _ : state)
        benchmark::DoNotOptimize(param->getValue());
}

void storeReal(benchmark::State& state)
{
    const Published file;
    monRealParam* const param = file->Real("name");
    double v = 0;
    for (auto _ : state)
        param->setValue(++v);
}

void loadReal(benchmark::State& state)
{
    const Published file;
    monRealParam* const param = file->Real("name");
    for (auto _ : state)
        benchmark::DoNotOptimize(param->getValue());
}

// A real that lies across the end of a page is locked while it is used.
monRealParam* AddLocked(const Published& file)
{
    file->String("filler", 4096 - 4 - 13 - 26 - 14);
    return file->Real("rl");
}

void storeLocked(benchmark::State& state)
{
    const Published file;
    monRealParam* const param = AddLocked(file);
    double v = 0;
    for (auto _ : state)
        param->setValue(++v);
}

void loadLocked(benchmark::State& state)
{
    const Published file;
    monRealParam* const param = AddLocked(file);
    for (auto _ : state)
        benchmark::DoNotOptimize(param->getValue());
}

const std::string text(100, 'x');

void storeString(benchmark::State& state)
{
    const Published file;
    monStringParam* const param = file->String("name", 200);
    for (auto _ : state)
        param->setValue(text.c_str());
}

void loadString(benchmark::State& state)
{
    const Published file;
    monStringParam* const param = file->String("name", 200);
    param->setValue(text.c_str());
    for (auto _ : state)
        benchmark::DoNotOptimize(param->getValue());
}

template<std::size_t size>
void pwritePlain(benchmark::State& state)
{
    const Published file;
    file->String("name", 200);
    const btkFd plain = file.OpenPlain();
    char bytes[size] = {};
    for (auto _ : state) {
        ++bytes[0];
        benchmark::DoNotOptimize(pwrite(plain.Get(), bytes, size, 40));
    }
}

template<std::size_t size>
void preadPlain(benchmark::State& state)
{
    const Published file;
    file->String("name", 200);
    const btkFd plain = file.OpenPlain();
    char bytes[size] = {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(pread(plain.Get(), bytes, size, 40));
        benchmark::DoNotOptimize(bytes);
    }
}

// The least of a load, which tells when the file has been removed.
void statAndPread(benchmark::State& state)
{
    const Published file;
    file->String("name", 200);
    const btkFd plain = file.OpenPlain();
    char bytes[4] = {};
    struct stat status;
    for (auto _ : state) {
        benchmark::DoNotOptimize(fstat(plain.Get(), &status));
        benchmark::DoNotOptimize(status);
        benchmark::DoNotOptimize(pread(plain.Get(), bytes, sizeof bytes, 40));
        benchmark::DoNotOptimize(bytes);
    }
}

// ---- one more parameter: the least of it looks whether the file is still there under its name, and keeps other processes
// from adding

void add(benchmark::State& state)
{
    const Published file;
    int i = 0;
    for (auto _ : state)
        file->Int(Published::NameOf(i++).c_str());
}

template<bool safely>
void statAndPwrite(benchmark::State& state)
{
    const Published file;
    const btkFd plain = file.OpenPlain();
    struct stat status;
    int i = 0;
    for (auto _ : state) {
        const std::string record = Published::NameOf(i++) + std::string(16, '\0');
        btkRangeLock lock(plain.Get(), 0, 1);
        if (safely) {
            benchmark::DoNotOptimize(stat(file.Path(), &status));
            benchmark::DoNotOptimize(fstat(plain.Get(), &status));
            lock.Wait(btkRangeLock::Exclusive, btkTimeval(2, 0));
        }
        benchmark::DoNotOptimize(fstat(plain.Get(), &status));
        benchmark::DoNotOptimize(pwrite(plain.Get(), record.data(), record.size(), status.st_size));
    }
}

BENCHMARK(add)->Name("monitor/add_a_parameter/qelstd")->Iterations(20000);
BENCHMARK(statAndPwrite<false>)->Name("monitor/add_a_parameter/fstat and pwrite")->Iterations(20000);
BENCHMARK(statAndPwrite<true>)->Name("monitor/add_a_parameter/the least")->Iterations(20000);
BENCHMARK(storeInt)->Name("monitor/store_int/qelstd");
BENCHMARK(pwritePlain<4>)->Name("monitor/store_int/pwrite");
BENCHMARK(pwritePlain<4>)->Name("monitor/store_int/the least");
BENCHMARK(loadInt)->Name("monitor/load_int/qelstd");
BENCHMARK(preadPlain<4>)->Name("monitor/load_int/pread");
BENCHMARK(statAndPread)->Name("monitor/load_int/the least");
BENCHMARK(storeReal)->Name("monitor/store_real/qelstd");
BENCHMARK(pwritePlain<8>)->Name("monitor/store_real/pwrite");
BENCHMARK(loadReal)->Name("monitor/load_real/qelstd");
BENCHMARK(preadPlain<8>)->Name("monitor/load_real/pread");
BENCHMARK(storeLocked)->Name("monitor/store_real_across_pages/qelstd");
BENCHMARK(pwritePlain<8>)->Name("monitor/store_real_across_pages/pwrite");
BENCHMARK(loadLocked)->Name("monitor/load_real_across_pages/qelstd");
BENCHMARK(preadPlain<8>)->Name("monitor/load_real_across_pages/pread");
BENCHMARK(storeString)->Name("monitor/store_string_of_100/qelstd");
BENCHMARK(pwritePlain<104>)->Name("monitor/store_string_of_100/pwrite");
BENCHMARK(loadString)->Name("monitor/load_string_of_100/qelstd");
BENCHMARK(preadPlain<104>)->Name("monitor/load_string_of_100/pread");

// ---- many parameters

void find(benchmark::State& state, int count)
{
    const Published file;
    file.Add(count);
    int i = 0;
    for (auto _ : state) {
        i = (i + 7919) % count;
        benchmark::DoNotOptimize(file->Int(Published::NameOf(i).c_str()));
    }
}

void discover(benchmark::State& state, int count, int times)
{
    const Published file;
    file.Add(count);
    for (auto _ : state) {
        for (int i = 0; i < times; ++i) {
            const Monitor opened = file.OpenAgain();
            benchmark::DoNotOptimize(opened->getParams());
        }
    }
}

BENCHMARK_CAPTURE(find, many, 10000)->Name("monitor/find_among_10000/qelstd");
BENCHMARK_CAPTURE(find, few, 100)->Name("monitor/find_among_10000/among_100");
BENCHMARK_CAPTURE(discover, many, 10000, 1)->Name("monitor/discover_10000/qelstd");
BENCHMARK_CAPTURE(discover, few, 1000, 10)->Name("monitor/discover_10000/10_times_1000");

// ---- by the number of parameters; a peer's parameter is four bytes in a plain file

void addOurs(benchmark::State& state)
{
    for (auto _ : state)
        Published().Add(static_cast<int>(state.range(0)));
}

/// A file for `n` parameters, which has no name.
btkFd PlainOf(std::int64_t n)
{
    std::string path = "/tmp/qelbench.XXXXXX";
    btkFd plain(mkstemp(path.data()));
    unlink(path.c_str());
    btkWrite(plain.Get(), std::string(static_cast<std::size_t>(n) * 40, 'x').data(),
             static_cast<std::size_t>(n) * 40);
    return plain;
}

void addPlain(benchmark::State& state)
{
    for (auto _ : state) {
        const btkFd plain = PlainOf(0);
        off_t at = 0;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            const std::string record = Published::NameOf(static_cast<int>(i)) + std::string(5, '\0');
            at += pwrite(plain.Get(), record.data(), record.size(), at);
        }
    }
}

/// Files with that many parameters, which exist from their first use on.
const Published& OfSize(std::int64_t n)
{
    static std::map<std::int64_t, Published> all;
    const auto [made, isNew] = all.try_emplace(n);
    if (isNew)
        made->second.Add(static_cast<int>(n));
    return made->second;
}

template<auto use>
void oneOfOurs(benchmark::State& state)
{
    const std::int64_t n = state.range(0);
    const Published& file = OfSize(n);
    std::vector<monIntParam*> params;
    for (std::int64_t i = 0; i < n; ++i)
        params.push_back(file->Int(Published::NameOf(static_cast<int>(i)).c_str()));
    std::int64_t i = 0;
    for (auto _ : state)
        use(*params[static_cast<std::size_t>(curvePlace(i++, n))]);
}

template<auto use>
void oneOfPlain(benchmark::State& state)
{
    const btkFd plain = PlainOf(state.range(0));
    int value = 0;
    std::int64_t i = 0;
    for (auto _ : state)
        if (use(plain.Get(), &value, sizeof value, 40 * curvePlace(i++, state.range(0))) != sizeof value)
            state.SkipWithError("not done");
}

void findOurs(benchmark::State& state)
{
    const Published& file = OfSize(state.range(0));
    std::int64_t i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(
            file->Int(Published::NameOf(static_cast<int>(curvePlace(i++, state.range(0)))).c_str()));
}

auto MapOf(std::int64_t n)
{
    auto map = std::make_unique<std::unordered_map<std::string, long long>>();
    for (std::int64_t i = 0; i < n; ++i)
        map->emplace(Published::NameOf(static_cast<int>(i)), i);
    return map;
}

/// Which asks the file whether there are new ones, as the library does.
void findInMap(benchmark::State& state)
{
    const auto map = MapOf(state.range(0));
    const btkFd plain = PlainOf(state.range(0));
    struct stat status;
    std::int64_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(fstat(plain.Get(), &status));
        benchmark::DoNotOptimize(
            map->find(Published::NameOf(static_cast<int>(curvePlace(i++, state.range(0))))));
    }
}

double sizeOfOurs(std::int64_t n)
{
    struct stat status = {};
    fstat(OfSize(n).OpenPlain().Get(), &status);
    return static_cast<double>(status.st_size);
}

double sizeOfText(std::int64_t n)
{
    double size = 0;
    for (std::int64_t i = 0; i < n; ++i)
        size += static_cast<double>((Published::NameOf(static_cast<int>(i)) + "=0\n").size());
    return size;
}

template<auto size>
void fileBytes(benchmark::State& state)
{
    for (auto _ : state)
        state.counters["bytes"] = size(state.range(0));
}

[[maybe_unused]] const bool added = [] {
    constexpr int last = 100'000;
    addCurve("curves/add parameters to a new file", "qelstd", addOurs, 1, last);
    addCurve("curves/add parameters to a new file", "pwrite", addPlain, 1, last);
    addCurve("curves of one/find a parameter", "qelstd", findOurs, 1, last);
    addCurve("curves of one/find a parameter", "fstat, std::unordered_map", findInMap, 1, last);
    addCurve("curves of one/store a parameter", "qelstd", oneOfOurs<[](monIntParam& p) { p.setValue(1); }>, 1,
             last);
    addCurve("curves of one/store a parameter", "pwrite", oneOfPlain<pwrite>, 1, last);
    addCurve("curves of one/load a parameter", "qelstd", oneOfOurs<[](monIntParam& p) { p.getValue(); }>, 1,
             last);
    addCurve("curves of one/load a parameter", "pread", oneOfPlain<pread>, 1, last);
    const auto opened = [](std::int64_t n) {
        Monitor file = OfSize(n).OpenAgain();
        file->getParams();
        return file;
    };
    addMemoryCurve("curves of memory/parameters of an open file", "qelstd", opened, 1, last);
    addMemoryCurve("curves of memory/parameters of an open file", "std::unordered_map", MapOf, 1, last);
    addCurve("curves of memory/a file of parameters", "qelstd", fileBytes<sizeOfOurs>, 1, last)
        ->Iterations(1);
    addCurve("curves of memory/a file of parameters", "lines of text", fileBytes<sizeOfText>, 1, last)
        ->Iterations(1);
    return true;
}();

} // namespace
