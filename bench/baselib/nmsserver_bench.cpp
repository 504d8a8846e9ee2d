// A name server on the loopback and its clients: requests per second of eight concurrent clients and the 99th
// percentile of the time of a request, with few and with many records; and the time of an answer without the
// network. By the number of records: the table and a server.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <qel/base/nmsclient.h>

#include "curve.h"
#include "support/nameserver.h"
#include "support/tempdir.h"

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

// ---- by the number of records

std::string NameOf(std::int64_t i)
{
    return "server" + std::to_string(i);
}

/// Records of no process, of which all may be of one address and only a quarter of a table's.
nmsTableLimits RoomFor(std::int64_t n)
{
    const std::size_t room = 4 * static_cast<std::size_t>(n) + 4;
    return {room, room, room, std::size_t(1) << 30, false};
}

std::unique_ptr<nmsTable> TableOf(std::int64_t n)
{
    auto table = std::make_unique<nmsTable>(RoomFor(n));
    for (std::int64_t i = 0; i < n; ++i)
        if (table->Add(Record(NameOf(i))) != nmscDone)
            std::abort();
    return table;
}

bool IsFound(nmsTable& table, const std::string& name)
{
    return table.Find(Record(name)).size() == 1;
}

/// The peer: the bytes of each record in a map, by its name.
using Map = std::unordered_map<std::string, std::shared_ptr<const std::string>>;

std::unique_ptr<Map> MapOf(std::int64_t n)
{
    auto map = std::make_unique<Map>();
    for (std::int64_t i = 0; i < n; ++i)
        map->emplace(NameOf(i), std::make_shared<std::string>(Encoded(Record(NameOf(i)))));
    return map;
}

bool IsFound(const Map& map, const std::string& name)
{
    return map.find(name) != map.end();
}

template<auto make>
void AddAll(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(make(state.range(0)));
}

template<auto make>
void FindOne(benchmark::State& state)
{
    const auto made = make(state.range(0));
    std::int64_t i = 0;
    for (auto _ : state)
        if (!IsFound(*made, NameOf(curvePlace(i++, state.range(0)))))
            state.SkipWithError("not found");
}

/// A server with that many records, which it restores from a file.
class Holding
{
public:
    explicit Holding(std::int64_t n)
    {
        std::ofstream(path) << TableOf(n)->Save();
        nmsServerOptions options;
        options.stateFile = path;
        options.table = RoomFor(n);
        server = std::make_unique<TestNameServer>(options);
    }

    int getPort() const { return server->getPort(); }

private:
    TempDir folder;
    std::string path = folder.path("records");
    std::unique_ptr<TestNameServer> server;
};

void AskServer(benchmark::State& state)
{
    const Holding serving(state.range(0));
    std::vector<double> ignored;
    std::int64_t i = 0;
    for (auto _ : state)
        if (!Ask(serving.getPort(), nmsRequestCode::query,
                 Encoded(Record(NameOf(curvePlace(i++, state.range(0))))), ignored))
            state.SkipWithError("not found");
}

[[maybe_unused]] const bool added = [] {
    constexpr int last = 100'000;
    addCurve("curves/add records", "qelstd", AddAll<TableOf>, 100, last);
    addCurve("curves/add records", "std::unordered_map", AddAll<MapOf>, 100, last);
    addCurve("curves of one/find a record", "qelstd", FindOne<TableOf>, 100, last);
    addCurve("curves of one/find a record", "std::unordered_map", FindOne<MapOf>, 100, last);
    addCurve("curves of one/ask a name server", "qelstd", AskServer, 100, last)->UseRealTime();
    addMemoryCurve("curves of memory/records", "qelstd", TableOf, 100, last);
    addMemoryCurve("curves of memory/records", "std::unordered_map", MapOf, 100, last);
    return true;
}();

} // namespace
