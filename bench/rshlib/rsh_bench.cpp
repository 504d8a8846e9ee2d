// What a remote command writes, and what it is sent at the same time, against a relay of plain blocks of 64
// KiB over the same pipes and a socket.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/owned.h"
#include "support/streampair.h"
#include <qel/base/btkpipe.h>
#include <qel/pcprocess.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/xiolib.h>

namespace {

constexpr std::size_t total = 1 << 30;
constexpr std::size_t part = 1 << 16;
constexpr const char* writer = "head -c 1073741824 /dev/zero";

void Require(bool holds)
{
    if (!holds)
        std::abort();
}

// Reads until the end.
std::size_t Drain(btkHandle handle)
{
    std::vector<char> block(part);
    std::size_t done = 0;
    for (std::ptrdiff_t size; (size = btkRead(handle, block.data(), part)) > 0;)
        done += static_cast<std::size_t>(size);
    return done;
}

std::size_t Drain(ioStream& stream)
{
    std::vector<char> block(part);
    std::size_t done = 0;
    try {
        for (;;)
            done += stream.ReadBytes(block.data(), static_cast<unsigned>(part));
    } catch (xthrowable* thrown) {
        xdelete(ioXStream::cast(thrown));
    }
    return done;
}

void Copy(btkHandle from, btkHandle to)
{
    std::vector<char> block(part);
    for (std::ptrdiff_t size; (size = btkRead(from, block.data(), part)) > 0;)
        if (const auto count = static_cast<std::size_t>(size); btkWrite(to, block.data(), count) != count)
            break;
}

void Fill(ioStream& stream)
{
    const std::vector<char> block(part, 'x');
    for (std::size_t done = 0; done < total; done += part)
        stream.WriteBytes(block.data(), static_cast<unsigned>(part));
    stream.Close();
}

void outputOurs(benchmark::State& state)
{
    for (auto _ : state) {
        const StreamPair pair;
        const Owned<rshServer> server(rshServer::Create(pair.far.get(), nullptr, 0));
        const Owned<rshProcess> process(
            rshProcess::Create(pair.near.get(), writer, nullptr, nullptr, nullptr, nullptr, 0, 0));
        Require(Drain(*process->getStdout()) == total && process->netThread::GetExitCode() == 0);
        server->WaitExitCode();
    }
}

// A pipe of the command, a socket, a pipe of the reader: a thread for each copy.
void outputPlain(benchmark::State& state)
{
    for (auto _ : state) {
        int ends[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        const Owned<ioPipe> command(ioPipe::Create());
        const Owned<pcProcess> process(
            pcProcess::Create(writer, nullptr, nullptr, command->getWriteEnd(), nullptr, 0, 0));
        btkOutputPipe output;
        btkInputPipe input;
        Require(btkAnonymousPipe::Create(output, input));
        std::thread sender([&] {
            const btkFd to(ends[0]);
            std::vector<char> block(part);
            for (std::size_t done = 0; done < total;) {
                const unsigned size =
                    std::min<unsigned>(part, std::max(command->getReadEnd()->PeekNBytes(), 1u));
                const unsigned got = command->getReadEnd()->ReadBytes(block.data(), size);
                Require(btkWrite(to.Get(), block.data(), got) == got);
                done += got;
            }
        });
        std::thread receiver([&] {
            const btkFd from(ends[1]);
            Copy(from.Get(), output.Get());
            output.Reset();
        });
        Require(Drain(input.Get()) == total);
        sender.join();
        receiver.join();
    }
}
BENCHMARK(outputOurs)
    ->Name("remote_shell/output_1GiB/qelstd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK(outputPlain)
    ->Name("remote_shell/output_1GiB/plain")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

void bothWaysOurs(benchmark::State& state)
{
    for (auto _ : state) {
        const StreamPair pair;
        const Owned<rshServer> server(rshServer::Create(pair.far.get(), nullptr, 0));
        const Owned<rshProcess> process(
            rshProcess::Create(pair.near.get(), "cat", nullptr, nullptr, nullptr, nullptr, 0, 0));
        std::thread filler([&] { Fill(*process->getStdin()); });
        Require(Drain(*process->getStdout()) == total);
        filler.join();
        Require(process->netThread::GetExitCode() == 0);
        server->WaitExitCode();
    }
}
BENCHMARK(bothWaysOurs)
    ->Name("remote_shell/both_ways_1GiB/qelstd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

} // namespace
