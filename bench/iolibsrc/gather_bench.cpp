// Buffered output: lines to the standard output against std::cout, integers
// from thread to thread through a buffered pipe against stdio on a pipe.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <thread>
#include <unistd.h>

#include <qel/iopipe.h>

#include "support/owned.h"

namespace {

constexpr int count = 1000000;
const char* const line = "a line of twenty-four...";

// The standard output is a file without a name, which begins anew for each batch.
class Redirected
{
public:
    Redirected() : kept(dup(STDOUT_FILENO))
    {
        const int file = open("/tmp", O_TMPFILE | O_RDWR, 0600);
        if (kept < 0 || file < 0 || dup2(file, STDOUT_FILENO) < 0)
            std::abort();
        close(file);
    }
    ~Redirected()
    {
        dup2(kept, STDOUT_FILENO);
        close(kept);
    }
    static void BeginAnew()
    {
        if (lseek(STDOUT_FILENO, 0, SEEK_SET) != 0 || ftruncate(STDOUT_FILENO, 0) != 0)
            std::abort();
    }

private:
    int kept;
};

void linesOurs(benchmark::State& state)
{
    const Redirected output;
    ioStream* const out = ioStream::getStdout();
    for (auto _ : state) {
        Redirected::BeginAnew();
        for (int i = 0; i < count; ++i)
            out->WriteString(line);
        out->Flush(1);
    }
}

void linesStd(benchmark::State& state)
{
    const Redirected output;
    for (auto _ : state) {
        Redirected::BeginAnew();
        for (int i = 0; i < count; ++i)
            std::cout << line << '\n';
        std::cout.flush();
    }
}

void intsOurs(benchmark::State& state)
{
    for (auto _ : state) {
        const Owned<ioPipe> pipe(ioPipe::Create());
        std::thread reader([&] {
            long sum = 0;
            for (int i = 0; i < count; ++i)
                sum += pipe->getReadEnd()->ReadInt();
            benchmark::DoNotOptimize(sum);
        });
        pipe->getWriteEnd()->setBuffered(true);
        for (int i = 0; i < count; ++i)
            pipe->getWriteEnd()->WriteInt(i);
        pipe->getWriteEnd()->Close();
        reader.join();
    }
}

void intsStdio(benchmark::State& state)
{
    for (auto _ : state) {
        int ends[2];
        if (::pipe(ends) != 0)
            std::abort();
        std::thread reader([&] {
            std::FILE* const from = fdopen(ends[0], "r");
            long sum = 0;
            for (int i = 0, v = 0; i < count && std::fread(&v, sizeof v, 1, from) == 1; ++i)
                sum += v;
            benchmark::DoNotOptimize(sum);
            std::fclose(from);
        });
        std::FILE* const to = fdopen(ends[1], "w");
        for (int i = 0; i < count; ++i)
            std::fwrite(&i, sizeof i, 1, to);
        std::fclose(to);
        reader.join();
    }
}

BENCHMARK(linesOurs)->Name("streams/lines_to_stdout/qelstd")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(linesStd)->Name("streams/lines_to_stdout/cout")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(intsOurs)
    ->Name("streams/ints_through_buffered_pipe/qelstd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(intsStdio)
    ->Name("streams/ints_through_buffered_pipe/stdio")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
