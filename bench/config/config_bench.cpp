// The configuration file against GKeyFile, the registry against plain files read and replaced by GLib.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <memory>
#include <string>

#include <qel/hmxconfigfile.h>
#include <qel/hmxregistry.h>
#include <qel/reglib.h>

#include "curve.h"

namespace {

constexpr int lines = 100000;

std::string keyOf(int i)
{
    return "key" + std::to_string(1000000 + i);
}

/// The two files and the registry that the benchmarks use.
struct Data
{
    std::string root, ours, glibs, plain;

    Data()
    {
        std::string name = (std::filesystem::temp_directory_path() / "qelbench.XXXXXX").string();
        root = mkdtemp(name.data());
        ours = root + "/ours";
        glibs = root + "/glibs";
        plain = root + "/plain";
        std::ofstream first(ours), second(glibs);
        second << "[all]\n";
        for (int i = 0; i < lines; ++i) {
            first << keyOf(i) << ":the value of line " << i << '\n';
            second << keyOf(i) << "=the value of line " << i << '\n';
        }
        std::ofstream(plain) << "10.0.0.*";
        setenv("QELSTD_REGISTRY", (root + "/registry").c_str(), 1);
    }
    ~Data() { std::filesystem::remove_all(root); }
} data;

void rewriteOurs(benchmark::State& state)
{
    int n = 0;
    for (auto _ : state) {
        hmxConfigFile file;
        file.Open(data.ours.c_str(), hmxConfigFile::ReadWrite);
        file.SetValue("changed", std::to_string(++n).c_str());
    }
}
BENCHMARK(rewriteOurs)->Name("config/load_rewrite_100000/qelstd")->UseRealTime();

void rewriteGlib(benchmark::State& state)
{
    int n = 0;
    for (auto _ : state) {
        GKeyFile* const file = g_key_file_new();
        g_key_file_load_from_file(file, data.glibs.c_str(), G_KEY_FILE_NONE, nullptr);
        g_key_file_set_string(file, "all", "changed", std::to_string(++n).c_str());
        g_key_file_save_to_file(file, data.glibs.c_str(), nullptr);
        g_key_file_free(file);
    }
}
BENCHMARK(rewriteGlib)->Name("config/load_rewrite_100000/GKeyFile")->UseRealTime();

void lookUpOurs(benchmark::State& state)
{
    hmxConfigFile file;
    file.Open(data.ours.c_str(), hmxConfigFile::ReadOnly);
    int i = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(file.GetValue(keyOf(i = (i + 7919) % lines).c_str()));
}
BENCHMARK(lookUpOurs)->Name("config/look_up/qelstd");

void lookUpGlib(benchmark::State& state)
{
    GKeyFile* const file = g_key_file_new();
    g_key_file_load_from_file(file, data.glibs.c_str(), G_KEY_FILE_NONE, nullptr);
    int i = 0;
    for (auto _ : state) {
        char* const value =
            g_key_file_get_string(file, "all", keyOf(i = (i + 7919) % lines).c_str(), nullptr);
        benchmark::DoNotOptimize(value);
        g_free(value);
    }
    g_key_file_free(file);
}
BENCHMARK(lookUpGlib)->Name("config/look_up/GKeyFile");

// ---- the file by its number of settings

using KeyFile = std::unique_ptr<GKeyFile, decltype([](GKeyFile* file) { g_key_file_free(file); })>;

/// The paths of two files with that many settings, which exist from their first use on.
std::string pathOf(std::int64_t n, bool isOurs)
{
    const std::string top = data.root + "/settings" + std::to_string(n);
    if (!std::filesystem::exists(top)) {
        std::ofstream first(top), second(top + ".glib");
        second << "[all]\n";
        for (int i = 0; i < n; ++i) {
            first << keyOf(i) << ":the value of line " << i << '\n';
            second << keyOf(i) << "=the value of line " << i << '\n';
        }
    }
    return isOurs ? top : top + ".glib";
}

std::unique_ptr<hmxConfigFile> openOurs(std::int64_t n)
{
    auto file = std::make_unique<hmxConfigFile>();
    file->Open(pathOf(n, true).c_str(), hmxConfigFile::ReadOnly);
    return file;
}

KeyFile openGlib(std::int64_t n)
{
    KeyFile file(g_key_file_new());
    g_key_file_load_from_file(file.get(), pathOf(n, false).c_str(), G_KEY_FILE_NONE, nullptr);
    return file;
}

template<auto open>
void openFile(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(open(state.range(0)));
}

/// Each was found once before.
template<auto open, auto find>
void findSetting(benchmark::State& state)
{
    const auto file = open(state.range(0));
    std::int64_t i = 0;
    while (i < state.range(0))
        find(*file, keyOf(static_cast<int>(i++)).c_str());
    for (auto _ : state)
        find(*file, keyOf(static_cast<int>(curvePlace(i++, state.range(0)))).c_str());
}

void findOurs(const hmxConfigFile& file, const char* name)
{
    benchmark::DoNotOptimize(file.GetValue(name));
}

void findGlib(GKeyFile& file, const char* name)
{
    char* const value = g_key_file_get_string(&file, "all", name, nullptr);
    benchmark::DoNotOptimize(value);
    g_free(value);
}

[[maybe_unused]] const bool added = [] {
    constexpr int last = 100'000;
    addCurve("curves/read a file of settings", "qelstd", openFile<openOurs>, 100, last);
    addCurve("curves/read a file of settings", "GKeyFile", openFile<openGlib>, 100, last);
    addCurve("curves of one/find a setting", "qelstd", findSetting<openOurs, findOurs>, 100, last);
    addCurve("curves of one/find a setting", "GKeyFile", findSetting<openGlib, findGlib>, 100, last);
    addMemoryCurve("curves of memory/settings", "qelstd", openOurs, 100, last);
    addMemoryCurve("curves of memory/settings", "GKeyFile", openGlib, 100, last);
    return true;
}();

// ---- the registry

hmxRegistryKey& key()
{
    static hmxRegistryKey opened;
    if (!opened.IsOpened() && opened.Create(hmxRegistry::User().root, "Software\\VRX\\Server"))
        opened.SetValue("ConnectionAllowed", "10.0.0.*");
    return opened;
}

void readOurs(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(key().GetValue("ConnectionAllowed"));
}
BENCHMARK(readOurs)->Name("registry/read/qelstd");

void readPlain(benchmark::State& state)
{
    for (auto _ : state) {
        char* text = nullptr;
        g_file_get_contents(data.plain.c_str(), &text, nullptr, nullptr);
        benchmark::DoNotOptimize(text);
        g_free(text);
    }
}
BENCHMARK(readPlain)->Name("registry/read/g_file_get_contents");

void setOurs(benchmark::State& state)
{
    for (auto _ : state)
        key().SetValue("ConnectionAllowed", "10.0.0.*");
}
BENCHMARK(setOurs)->Name("registry/set/qelstd");

void setPlain(benchmark::State& state)
{
    for (auto _ : state)
        g_file_set_contents_full(data.plain.c_str(), "10.0.0.*", -1, G_FILE_SET_CONTENTS_CONSISTENT, 0600,
                                 nullptr);
}
BENCHMARK(setPlain)->Name("registry/set/g_file_set_contents");

constexpr int batchSize = 2000;

std::string valueOf(int i)
{
    return "value" + std::to_string(i);
}

void setManyOurs(benchmark::State& state)
{
    for (auto _ : state) {
        regBatch batch;
        for (int i = 0; i < batchSize; ++i)
            key().SetValue(valueOf(i).c_str(), "10.0.0.*");
        if (!batch.Commit())
            state.SkipWithError("not committed");
    }
}
BENCHMARK(setManyOurs)
    ->Name("registry/set_2000_in_batch/qelstd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// The peer has no batches: it syncs each file separately.
void setManyPlain(benchmark::State& state)
{
    const std::string folder = data.root + "/many";
    std::filesystem::create_directory(folder);
    for (auto _ : state) {
        for (int i = 0; i < batchSize; ++i)
            g_file_set_contents_full((folder + '/' + valueOf(i)).c_str(), "10.0.0.*", -1,
                                     G_FILE_SET_CONTENTS_CONSISTENT, 0600, nullptr);
    }
}
BENCHMARK(setManyPlain)
    ->Name("registry/set_2000_in_batch/g_file_set_contents")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
