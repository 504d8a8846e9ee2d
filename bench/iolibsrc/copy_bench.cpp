// One whole stream copied into another, against `cat` between the same two: from file to file, and from a
// pipe that a thread fills to a file. Each side's time includes a child program: cat for the peer, and true,
// which does nothing, for this library.
#include <QTemporaryDir>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include <qel/xiolib.h>

#include "support/owned.h"

namespace {

constexpr std::size_t size = 64 << 20;

void Run(const std::string& command)
{
    if (std::system(command.c_str()) != 0)
        std::abort();
}

struct Files
{
    Files()
    {
        const Owned<ioFileStream> source(ioFileStream::Open(from.c_str(), ioWriteOnly));
        const std::string block(1 << 20, 'c');
        for (std::size_t done = 0; done < size; done += block.size())
            source->WriteBytes(block.data(), static_cast<unsigned>(block.size()));
    }

    QTemporaryDir dir;
    std::string from = dir.filePath("from").toStdString();
    std::string to = dir.filePath("to").toStdString();
};

void copyFileOurs(benchmark::State& state)
{
    const Files files;
    for (auto _ : state) {
        Run("true");
        const Owned<ioFileStream> source(ioFileStream::Open(files.from.c_str(), ioReadOnly));
        const Owned<ioFileStream> target(ioFileStream::Open(files.to.c_str(), ioWriteOnly));
        CopyStream(target.get(), source.get());
    }
}
BENCHMARK(copyFileOurs)->Name("streams/copy_file/qelstd")->UseRealTime()->Unit(benchmark::kMillisecond);

void copyFileCat(benchmark::State& state)
{
    const Files files;
    for (auto _ : state)
        Run("cat " + files.from + " > " + files.to);
}
BENCHMARK(copyFileCat)->Name("streams/copy_file/cat")->UseRealTime()->Unit(benchmark::kMillisecond);

// The pipe's writer writes blocks of 64 KiB, as cat would.
void copyPipeOurs(benchmark::State& state)
{
    const Files files;
    for (auto _ : state) {
        Run("true");
        const Owned<ioPipe> pipe(ioPipe::Create());
        std::thread writer([&] {
            const Owned<ioFileStream> source(ioFileStream::Open(files.from.c_str(), ioReadOnly));
            source->setSerializer(ioSerializer::getBinary());
            CopyStream(pipe->getWriteEnd(), source.get());
            pipe->getWriteEnd()->Close();
        });
        const Owned<ioFileStream> target(ioFileStream::Open(files.to.c_str(), ioWriteOnly));
        target->setSerializer(ioSerializer::getBinary());
        CopyStream(target.get(), pipe->getReadEnd());
        writer.join();
    }
}
BENCHMARK(copyPipeOurs)
    ->Name("streams/copy_pipe_to_file/qelstd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void copyPipeCat(benchmark::State& state)
{
    const Files files;
    for (auto _ : state)
        Run("cat " + files.from + " | cat > " + files.to);
}
BENCHMARK(copyPipeCat)->Name("streams/copy_pipe_to_file/cat")->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
