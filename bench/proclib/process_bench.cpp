// Starting programs and reading their output. A process gets a given size by touching memory.
#include <QProcess>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/pcprocess.h>
#include <qel/xiolib.h>

#include "curve.h"
#include "support/owned.h"

namespace {

void Require(bool holds)
{
    if (!holds)
        std::abort();
}

// Makes the process use as many MiB of memory as the benchmark's argument.
void Use(const benchmark::State& state)
{
    static std::size_t used = 0;
    static void* memory = nullptr;
    const std::size_t size = static_cast<std::size_t>(state.range(0)) << 20;
    if (size == used)
        return;
    if (used > 0)
        munmap(memory, used);
    used = size;
    if (size == 0)
        return;
    memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    Require(memory != MAP_FAILED);
    std::memset(memory, 1, size);
}

void startOurs()
{
    const Owned<pcProcess> process(pcProcess::Create("true", nullptr, nullptr, nullptr, nullptr, 0, 0));
    const Owned<pcEvent> end(process->ExitEvent());
    Require(end->Wait(INFINITE) == 1 && process->GetExitCode() == 0);
}

void startSpawn()
{
    char name[] = "true";
    char* const arguments[] = {name, nullptr};
    pid_t child;
    int status = 0;
    Require(posix_spawnp(&child, name, nullptr, nullptr, arguments, environ) == 0);
    Require(waitpid(child, &status, 0) == child && status == 0);
}

void startQt()
{
    QProcess process;
    process.start("true", QStringList());
    Require(process.waitForFinished(-1) && process.exitCode() == 0);
}

template<auto start>
void startAndWait(benchmark::State& state)
{
    Use(state);
    for (auto _ : state)
        start();
}

void Sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(0)->Arg(8192)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(0.3);
}
BENCHMARK(startAndWait<startOurs>)->Name("processes/start_and_wait/qelstd")->Apply(Sizes);
BENCHMARK(startAndWait<startSpawn>)->Name("processes/start_and_wait/posix_spawn")->Apply(Sizes);
BENCHMARK(startAndWait<startSpawn>)->Name("processes/start_and_wait/the least")->Apply(Sizes);
BENCHMARK(startAndWait<startQt>)->Name("processes/start_and_wait/QProcess")->Apply(Sizes);

constexpr std::size_t outputSize = 1 << 30;
constexpr const char* writer = "head -c 1073741824 /dev/zero";

void readOurs(benchmark::State& state)
{
    std::vector<char> block(65536);
    for (auto _ : state) {
        const Owned<ioPipe> out(ioPipe::Create());
        const Owned<pcProcess> process(
            pcProcess::Create(writer, nullptr, nullptr, out->getWriteEnd(), nullptr, 0, 0));
        std::size_t done = 0;
        while (done < outputSize)
            done += out->getReadEnd()->ReadBytes(block.data(), static_cast<unsigned>(block.size()));
        const Owned<pcEvent> end(process->ExitEvent());
        Require(end->Wait(INFINITE) == 1 && process->GetExitCode() == 0 && done == outputSize);
    }
}
BENCHMARK(readOurs)
    ->Name("processes/read_1GiB/qelstd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

void readStdio(benchmark::State& state)
{
    std::vector<char> block(65536);
    for (auto _ : state) {
        FILE* const out = popen(writer, "r");
        Require(out != nullptr);
        std::size_t done = 0;
        for (std::size_t count; (count = fread(block.data(), 1, block.size(), out)) > 0;)
            done += count;
        Require(pclose(out) == 0 && done == outputSize);
    }
}
BENCHMARK(readStdio)
    ->Name("processes/read_1GiB/popen")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);

// ---- by the number of open descriptors

template<auto start>
void startBesideDescriptors(benchmark::State& state)
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<btkFd> open;
    for (std::int64_t i = 0; i < state.range(0); ++i)
        Require(open.emplace_back(btkOpenFile("/dev/null", btkOpenRead)).Get() >= 0);
    for (auto _ : state)
        start();
}

[[maybe_unused]] const bool added = [] {
    const auto add = [](const char* who, auto run) {
        addCurve("curves of one/start a process beside open descriptors", who, run, 1, 10'000)
            ->UseRealTime()
            ->MinTime(0.3);
    };
    add("qelstd", startBesideDescriptors<startOurs>);
    add("posix_spawn", startBesideDescriptors<startSpawn>);
    add("QProcess", startBesideDescriptors<startQt>);
    return true;
}();

} // namespace
