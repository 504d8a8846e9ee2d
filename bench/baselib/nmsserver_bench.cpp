// A name server on the loopback and its clients: requests per second of eight concurrent clients and the 99th
// percentile of the time of a request, with few and with many records; and the time of an answer without the
// network.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <string>
#include <thread>
#include <vector>

#include <qel/base/nmsclient.h>

#include "support/nameserver.h"

namespace {

constexpr int clients = 8;
constexpr int rounds = 250;

nmsFields Record(const std::string& name)
{
    nmsFields made;
    made.Set("_ServerName", name);
    return made;
}

std::string Encoded(const nmsFields& record)
{
    std::string bytes;
    nmsPutRecord(bytes, record);
    return bytes;
}

// One request and its time; false when it failed.
bool Ask(int port, nmsRequestCode code, const std::string& record, std::vector<double>& seconds)
{
    const btkTimeval start = btkTimeval::Now();
    nmsExchange exchange;
    bool isDone = exchange.Ask("127.0.0.1", port, code, record) == nmscDone;
    std::vector<nmsFields> found;
    int count = 0;
    if (code == nmsRequestCode::query)
        isDone = isDone && exchange.ReadRecords(found) && found.size() == 1;
    if (code == nmsRequestCode::remove)
        isDone = isDone && exchange.ReadInt(count) && count == 1;
    seconds.push_back((btkTimeval::Now() - start).ToSeconds());
    return isDone;
}

void RegisterQueryDelete(benchmark::State& state)
{
    const TestNameServer serving;
    std::vector<double> ignored;
    for (int i = 0; i < state.range(0); ++i)
        if (!Ask(serving.getPort(), nmsRequestCode::enter, Encoded(Record("held" + std::to_string(i))),
                 ignored))
            state.SkipWithError("not registered");

    std::vector<double> all;
    for (auto _ : state) {
        std::vector<std::vector<double>> seconds(clients);
        std::vector<char> done(clients, 1);
        std::vector<std::thread> threads;
        for (std::size_t client = 0; client < clients; ++client)
            threads.emplace_back([&, client] {
                const std::string record = Encoded(Record("of" + std::to_string(client)));
                for (int i = 0; i < rounds; ++i)
                    for (const auto code :
                         {nmsRequestCode::enter, nmsRequestCode::query, nmsRequestCode::remove})
                        if (!Ask(serving.getPort(), code, record, seconds[client]))
                            done[client] = 0;
            });
        for (std::thread& thread : threads)
            thread.join();
        if (std::count(done.begin(), done.end(), 0) != 0)
            state.SkipWithError("a wrong answer");
        for (const auto& some : seconds)
            all.insert(all.end(), some.begin(), some.end());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(all.size()));
    std::sort(all.begin(), all.end());
    if (!all.empty())
        state.counters["p99_ms"] = all[all.size() * 99 / 100] * 1000;
}
BENCHMARK(RegisterQueryDelete)
    ->Name("names/register, query, delete/qelstd")
    ->Arg(0)
    ->Arg(9900)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void FindByField(benchmark::State& state)
{
    nmsTable table;
    for (int i = 0; i < state.range(0); ++i)
        table.Add(Record("held" + std::to_string(i)));
    const nmsFields pattern = Record("held7");
    for (auto _ : state)
        benchmark::DoNotOptimize(table.Find(pattern));
}
BENCHMARK(FindByField)->Name("names/find by field/qelstd")->Arg(10)->Arg(10000);

} // namespace
