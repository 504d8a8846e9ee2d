// Monitor files: a value stored or loaded against one pwrite or pread of its bytes; a lookup among many
// parameters against one among few; discovering many parameters against discovering few as often.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/base/btkfd.h>
#include <qel/base/btkfilepart.h>
#include <qel/qelown.h>
#include <qel/xmonlib.h>

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

} // namespace
