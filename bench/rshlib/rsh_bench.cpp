// The output of a remote command, and its simultaneous input, against a relay of plain blocks of 64 KiB over
// the same pipes and a socket.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <thread>
#include <vector>

#include <qel/base/btkpipe.h>
#include <qel/base/btkprocess.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/xiolib.h>

#include "support/owned.h"
#include "support/socketpair.h"
#include "support/streampair.h"

namespace {

constexpr std::size_t total = 1 << 30;
constexpr std::size_t part = 1 << 16;
constexpr const char* writer = "head -c 1073741824 /dev/zero";

void Require(bool holds)
{
    if (!holds)
        std::abort();
}

// A program with pipes, which exits at the end of the benchmark.
class Started
{
public:
    Started(const char* command, btkHandle in, btkHandle out)
    {
        unsigned long id = 0;
        Require(Process_Launch(&process, &id, command, nullptr, in, out, -1, 0));
    }
    ~Started()
    {
        long code = -1;
        Require(Process_Wait(process, &code, true, true) && code == 0);
    }

private:
    btkProcess* process = nullptr;
};

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

struct Pipe
{
    Pipe() { Require(btkAnonymousPipe::Create(output, input)); }

    btkOutputPipe output;
    btkInputPipe input;
};

// Copies in a separate thread, and closes the destination.
class Copier
{
public:
    template<class Close>
    Copier(btkHandle from, btkHandle to, Close close)
        : thread([=] {
              Copy(from, to);
              close();
          })
    {
    }
    ~Copier() { thread.join(); }

private:
    std::thread thread;
};

// A pipe of the command, a socket, a pipe of the reader.
void outputPlain(benchmark::State& state)
{
    for (auto _ : state) {
        SocketPair sockets;
        Pipe command, reader;
        Started child(writer, -1, command.output.Get());
        command.output.Reset();
        const Copier sender(command.input.Get(), sockets.far.GetHandle(),
                            [&] { sockets.far.ShutdownOutput(); });
        const Copier receiver(sockets.near.GetHandle(), reader.output.Get(), [&] { reader.output.Reset(); });
        Require(Drain(reader.input.Get()) == total);
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
void bothWaysPlain(benchmark::State& state)
{
    for (auto _ : state) {
        SocketPair sockets;
        Pipe given, commandIn, commandOut, reader;
        Started child("cat", commandIn.input.Get(), commandOut.output.Get());
        commandIn.input.Reset();
        commandOut.output.Reset();
        btkStreamSocket &near = sockets.near, &far = sockets.far;
        const Copier sender(given.input.Get(), near.GetHandle(), [&] { near.ShutdownOutput(); });
        const Copier toCommand(far.GetHandle(), commandIn.output.Get(), [&] { commandIn.output.Reset(); });
        const Copier fromCommand(commandOut.input.Get(), far.GetHandle(), [&] { far.ShutdownOutput(); });
        const Copier receiver(near.GetHandle(), reader.output.Get(), [&] { reader.output.Reset(); });
        std::thread filler([&] {
            const std::vector<char> block(part, 'x');
            for (std::size_t done = 0; done < total; done += part)
                Require(btkWrite(given.output.Get(), block.data(), part) == part);
            given.output.Reset();
        });
        Require(Drain(reader.input.Get()) == total);
        filler.join();
    }
}
BENCHMARK(bothWaysOurs)
    ->Name("remote_shell/both_ways_1GiB/qelstd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK(bothWaysPlain)
    ->Name("remote_shell/both_ways_1GiB/plain")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);

} // namespace
