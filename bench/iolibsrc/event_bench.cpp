// One wait on a thousand pipes, none of them ready or the last one, against poll on as many.
#include <benchmark/benchmark.h>
#include <memory>
#include <poll.h>
#include <sys/resource.h>
#include <vector>

#include <qel/base/btkpipe.h>
#include <qel/evteventarray.h>
#include <qel/xiolib.h>

#include "support/owned.h"

namespace {

constexpr int pipes = 1000;

void AllowDescriptors()
{
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void Require(bool holds)
{
    if (!holds)
        std::abort();
}

void waitOurs(benchmark::State& state, bool lastIsReady)
{
    AllowDescriptors();
    std::vector<Owned<ioPipe>> made;
    std::vector<Owned<ioEvent>> events;
    const Owned<evtEventArray> array(evtEventArray::create());
    for (int i = 0; i < pipes; ++i) {
        made.emplace_back(ioPipe::Create());
        Require(made.back() != nullptr);
        events.emplace_back(made.back()->getReadEnd()->InputEvent());
        array->append(events.back().get());
    }
    if (lastIsReady)
        made.back()->getWriteEnd()->WriteByte(1);
    for (auto _ : state)
        Require(evtEvent::Wait(array.get(), 0) == lastIsReady);
}

void waitPoll(benchmark::State& state, bool lastIsReady)
{
    AllowDescriptors();
    std::vector<btkInputPipe> inputs(pipes);
    std::vector<btkOutputPipe> outputs(pipes);
    std::vector<pollfd> asked;
    for (std::size_t i = 0; i < pipes; ++i) {
        Require(btkAnonymousPipe::Create(outputs[i], inputs[i]));
        asked.push_back({inputs[i].Get(), POLLIN, 0});
    }
    if (lastIsReady)
        btkWrite(outputs.back().Get(), "x", 1);
    for (auto _ : state)
        Require(poll(asked.data(), asked.size(), 0) == lastIsReady);
}

BENCHMARK_CAPTURE(waitOurs, none, false)->Name("events/wait_on_1000_pipes/qelstd");
BENCHMARK_CAPTURE(waitPoll, none, false)->Name("events/wait_on_1000_pipes/poll");
BENCHMARK_CAPTURE(waitOurs, last, true)->Name("events/wait_on_1000_pipes_last_ready/qelstd");
BENCHMARK_CAPTURE(waitPoll, last, true)->Name("events/wait_on_1000_pipes_last_ready/poll");

} // namespace
