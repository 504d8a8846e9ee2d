// One wait on a thousand pipes, and on other numbers of them, none ready or the last one, against poll on as many.
#include <benchmark/benchmark.h>
#include <memory>
#include <poll.h>
#include <sys/resource.h>
#include <vector>

#include <qel/base/btkpipe.h>
#include <qel/evteventarray.h>
#include <qel/xiolib.h>

#include "curve.h"
#include "support/owned.h"

namespace {

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

template<int fixed, bool lastIsReady>
void waitOurs(benchmark::State& state)
{
    const int pipes = curveSize<fixed>(state);
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

template<int fixed, bool lastIsReady>
void waitPoll(benchmark::State& state)
{
    const auto pipes = static_cast<std::size_t>(curveSize<fixed>(state));
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

BENCHMARK(waitOurs<1000, false>)->Name("events/wait_on_1000_pipes/qelstd");
BENCHMARK(waitPoll<1000, false>)->Name("events/wait_on_1000_pipes/poll");
BENCHMARK(waitOurs<1000, true>)->Name("events/wait_on_1000_pipes_last_ready/qelstd");
BENCHMARK(waitPoll<1000, true>)->Name("events/wait_on_1000_pipes_last_ready/poll");

[[maybe_unused]] const bool added = [] {
    addCurve("curves/wait for pipes, the last is ready", "qelstd", waitOurs<0, true>, 1, 1000);
    addCurve("curves/wait for pipes, the last is ready", "poll", waitPoll<0, true>, 1, 1000);
    return true;
}();

} // namespace
