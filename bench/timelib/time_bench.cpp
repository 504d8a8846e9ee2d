#include <benchmark/benchmark.h>
#include <ctime>

#include <qel/tmtime.h>

namespace {

constexpr const char* format = "%m/%d/%Y %H:%M:%S";
constexpr const char* text = "01/03/2005 10:20:30";

void formatOurs(benchmark::State& state)
{
    tmTime time(1104744030);
    for (auto _ : state)
        benchmark::DoNotOptimize(tmTime::TimeToString(&time, format));
}
BENCHMARK(formatOurs)->Name("time/to_text/qelstd");

void formatC(benchmark::State& state)
{
    for (auto _ : state) {
        std::time_t time = 1104744030;
        benchmark::DoNotOptimize(time);
        std::tm fields;
        char out[1000];
        std::strftime(out, sizeof out, format, localtime_r(&time, &fields));
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(formatC)->Name("time/to_text/strftime");

void parseOurs(benchmark::State& state)
{
    for (auto _ : state) {
        long time;
        tmString2Time(text, &time);
        benchmark::DoNotOptimize(time);
    }
}
BENCHMARK(parseOurs)->Name("time/from_text/qelstd");

void parseC(benchmark::State& state)
{
    for (auto _ : state) {
        std::tm fields = {};
        fields.tm_isdst = -1;
        strptime(text, format, &fields);
        benchmark::DoNotOptimize(std::mktime(&fields));
    }
}
BENCHMARK(parseC)->Name("time/from_text/strptime");

} // namespace
