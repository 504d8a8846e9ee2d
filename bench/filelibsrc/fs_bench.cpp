// File operations against the programs that do the same, and directory reading against std::filesystem.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <qel/filelib.h>
#include <qel/fsdir.h>

#include "curve.h"

namespace {

namespace fs = std::filesystem;

/// The files of the benchmarks, created at their first use and removed at the end.
class Data
{
public:
    explicit Data(const fs::path& where)
    {
        std::string name = (where / "qelbench.XXXXXX").string();
        root = mkdtemp(name.data());
    }
    ~Data() { fs::remove_all(root); }

    std::string path(const std::string& name) const { return root + "/" + name; }

    /// 2000 files of 0 to 16 KiB in 40 directories.
    std::string tree()
    {
        return made("tree", [](const std::string& top) {
            for (int i = 0; i < 2000; ++i) {
                const std::string folder = top + "/d" + std::to_string(i % 8) + "/e" + std::to_string(i % 40);
                fs::create_directories(folder);
                std::ofstream(folder + "/file" + std::to_string(i))
                    << std::string(static_cast<std::size_t>(i) * 8, 'x');
            }
        });
    }

    std::string smallFile()
    {
        return made("small", [](const std::string& name) { std::ofstream(name) << std::string(8192, 'x'); });
    }

    std::string largeFile()
    {
        return made("large", [](const std::string& name) {
            std::string block(1 << 20, '\0');
            for (std::size_t i = 0; i < block.size(); ++i)
                block[i] = static_cast<char>(i * 2654435761U >> 11);
            std::ofstream file(name);
            for (int i = 0; i < 512; ++i)
                file << block;
            file.close();
            sync(); // the first copy does not wait for this to reach the disk
        });
    }

    /// 10^5 files in one directory.
    std::string crowd()
    {
        return made("crowd", [](const std::string& top) {
            fs::create_directory(top);
            for (int i = 0; i < 100000; ++i)
                std::ofstream(top + "/name" + std::to_string(i) + (i % 10 == 0 ? ".txt" : ".dat"));
        });
    }

    /// `n` files of eight bytes, in directories of a hundred.
    std::string small(std::int64_t n)
    {
        return made("small" + std::to_string(n), [n](const std::string& top) {
            for (std::int64_t i = 0; i < n; ++i) {
                const std::string folder = top + "/d" + std::to_string(i / 100);
                if (i % 100 == 0)
                    fs::create_directories(folder);
                std::ofstream(folder + "/file" + std::to_string(i)) << "contents";
            }
        });
    }

    /// `n` empty files in one directory.
    std::string flat(std::int64_t n)
    {
        return made("flat" + std::to_string(n), [n](const std::string& top) {
            fs::create_directory(top);
            for (std::int64_t i = 0; i < n; ++i)
                std::ofstream(top + "/file" + std::to_string(i));
        });
    }

    /// 10^4 directories, each with two files.
    std::string forest()
    {
        return made("forest", [](const std::string& top) {
            for (int i = 0; i < 10000; ++i) {
                const std::string folder = top + "/d" + std::to_string(i);
                fs::create_directories(folder);
                std::ofstream(folder + "/log" + std::to_string(i % 10) + ".txt");
                std::ofstream(folder + "/other");
            }
        });
    }

private:
    template<typename Make>
    std::string made(const std::string& name, Make make)
    {
        if (!fs::exists(path(name)))
            make(path(name));
        return path(name);
    }

    std::string root;
};

Data data(fs::temp_directory_path());

void run(benchmark::State& state, const std::string& command)
{
    if (std::system(command.c_str()) != 0)
        state.SkipWithError(command.c_str());
}

// ---- copying and removing

template<typename Copy>
void copyTree(benchmark::State& state, Copy copy)
{
    const std::string from = data.tree(), to = data.path("copy");
    for (auto _ : state) {
        copy(state, from, to);
        state.PauseTiming();
        fs::remove_all(to);
        state.ResumeTiming();
    }
}

void byLibrary(benchmark::State&, const std::string& from, const std::string& to)
{
    fsCopy(from.c_str(), to.c_str(), fsForceNew, fsNewLink, fsSimple);
}

void byProgram(benchmark::State& state, const std::string& from, const std::string& to)
{
    run(state, "cp -r " + from + " " + to);
}

void copyLarge(benchmark::State& state,
               void (*copy)(benchmark::State&, const std::string&, const std::string&))
{
    const std::string from = data.largeFile(), to = data.path("copy");
    for (auto _ : state) {
        copy(state, from, to);
        state.PauseTiming();
        fs::remove(to);
        sync();
        state.ResumeTiming();
    }
}

/// One file of 8 KiB to a new name.
void copyOne(benchmark::State& state)
{
    const std::string from = data.smallFile(), to = data.path("one");
    for (auto _ : state) {
        fsCopy(from.c_str(), to.c_str(), fsMerge, fsNewLink, fsSimple);
        state.PauseTiming();
        unlink(to.c_str());
        state.ResumeTiming();
    }
}
BENCHMARK(copyOne)->Name("files/copy_one/qelstd")->UseRealTime();

void copyOneStd(benchmark::State& state)
{
    const std::string from = data.smallFile(), to = data.path("one");
    for (auto _ : state) {
        fs::copy_file(from, to);
        state.PauseTiming();
        unlink(to.c_str());
        state.ResumeTiming();
    }
}
BENCHMARK(copyOneStd)->Name("files/copy_one/std")->UseRealTime();

template<typename Remove>
void removeTree(benchmark::State& state, Remove remove)
{
    const std::string from = data.tree(), to = data.path("doomed");
    for (auto _ : state) {
        state.PauseTiming();
        fs::copy(from, to, fs::copy_options::recursive);
        state.ResumeTiming();
        remove(to);
    }
}

BENCHMARK_CAPTURE(copyTree, qelstd, byLibrary)->Name("files/copy_tree_2000/qelstd")->UseRealTime();
BENCHMARK_CAPTURE(copyTree, cp, byProgram)->Name("files/copy_tree_2000/cp")->UseRealTime();
BENCHMARK_CAPTURE(copyLarge, qelstd, byLibrary)
    ->Name("files/copy_512_MB/qelstd")
    ->UseRealTime()
    ->Iterations(1);
BENCHMARK_CAPTURE(copyLarge, cp, byProgram)->Name("files/copy_512_MB/cp")->UseRealTime()->Iterations(1);

void removeOurs(benchmark::State& state)
{
    removeTree(state, [](const std::string& tree) { fsRemove(tree.c_str(), fsRecursive); });
}
BENCHMARK(removeOurs)->Name("files/remove_tree_2000/qelstd")->UseRealTime();

void removeRm(benchmark::State& state)
{
    removeTree(state, [&](const std::string& tree) { run(state, "rm -rf " + tree); });
}
BENCHMARK(removeRm)->Name("files/remove_tree_2000/rm")->UseRealTime();

// ---- contents

void checksumOurs(benchmark::State& state)
{
    const std::string file = data.largeFile();
    for (auto _ : state)
        benchmark::DoNotOptimize(fsCalculateCheckSum(file.c_str()));
}
BENCHMARK(checksumOurs)->Name("files/checksum_512_MB/qelstd")->UseRealTime();

void checksumCksum(benchmark::State& state)
{
    const std::string file = data.largeFile();
    for (auto _ : state)
        run(state, "cksum " + file + " >/dev/null");
}
BENCHMARK(checksumCksum)->Name("files/checksum_512_MB/cksum")->UseRealTime();

// ---- names

void listOurs(benchmark::State& state)
{
    const std::string folder = data.crowd();
    for (auto _ : state)
        benchmark::DoNotOptimize(fsListDirectory(folder.c_str(), "*5*.txt")->getarraysize());
}
BENCHMARK(listOurs)->Name("files/list_100000/qelstd")->UseRealTime();

void listStd(benchmark::State& state)
{
    const std::string folder = data.crowd();
    for (auto _ : state) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(folder)) {
            std::string name = entry.path().filename().string();
            if (fsMatchesPattern(name.c_str(), "*5*.txt"))
                names.push_back(std::move(name));
        }
        benchmark::DoNotOptimize(names.size());
    }
}
BENCHMARK(listStd)->Name("files/list_100000/std")->UseRealTime();

void expandOurs(benchmark::State& state)
{
    const std::string pattern = data.forest() + "/*/log?.*";
    for (auto _ : state)
        benchmark::DoNotOptimize(fsExpandPattern(pattern.c_str())->getarraysize());
}
BENCHMARK(expandOurs)->Name("files/expand_10000/qelstd")->UseRealTime();

void expandStd(benchmark::State& state)
{
    const std::string top = data.forest();
    for (auto _ : state) {
        std::vector<std::string> paths;
        for (const auto& folder : fs::directory_iterator(top)) {
            if (!folder.is_directory() || !fsMatchesPattern(folder.path().filename().c_str(), "*"))
                continue;
            for (const auto& entry : fs::directory_iterator(folder))
                if (fsMatchesPattern(entry.path().filename().c_str(), "log?.*"))
                    paths.push_back(entry.path().string());
        }
        benchmark::DoNotOptimize(paths.size());
    }
}
BENCHMARK(expandStd)->Name("files/expand_10000/std")->UseRealTime();

// ---- by the number of files, in memory where the system has a file system for that

Data inMemory(fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path());

xrchandle<xstringsequence> namesOurs(std::int64_t n)
{
    return fsListDirectory(inMemory.flat(n).c_str(), nullptr);
}

std::vector<std::string> namesStd(std::int64_t n)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(inMemory.flat(n)))
        names.push_back(entry.path().filename().string());
    return names;
}

xrchandle<xstringsequence> pathsOurs(std::int64_t n)
{
    return fsExpandPattern((inMemory.small(n) + "/*/*").c_str());
}

std::vector<std::string> pathsStd(std::int64_t n)
{
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(inMemory.small(n)))
        if (!entry.is_directory())
            paths.push_back(entry.path().string());
    return paths;
}

template<auto list>
void listFiles(benchmark::State& state)
{
    list(state.range(0)); // the files exist
    for (auto _ : state)
        benchmark::DoNotOptimize(list(state.range(0)));
}

void copyOurs(const std::string& from, const std::string& to)
{
    fsCopy(from.c_str(), to.c_str(), fsForceNew, fsNewLink, fsSimple);
}

void copyStd(const std::string& from, const std::string& to)
{
    fs::copy(from, to, fs::copy_options::recursive);
}

template<auto copy>
void copyFiles(benchmark::State& state)
{
    const std::string from = inMemory.small(state.range(0)), to = inMemory.path("copy");
    for (auto _ : state) {
        copy(from, to);
        state.PauseTiming();
        fs::remove_all(to);
        state.ResumeTiming();
    }
}

template<auto remove>
void removeFiles(benchmark::State& state)
{
    const std::string from = inMemory.small(state.range(0)), to = inMemory.path("doomed");
    for (auto _ : state) {
        state.PauseTiming();
        copyStd(from, to);
        state.ResumeTiming();
        remove(to);
    }
}

[[maybe_unused]] const bool added = [] {
    constexpr int last = 100'000;
    const auto add = [](const char* title, const char* who, auto run) {
        addCurve(title, who, run, 10, last)->UseRealTime();
    };
    add("curves/list a directory", "qelstd", listFiles<namesOurs>);
    add("curves/list a directory", "std::filesystem", listFiles<namesStd>);
    add("curves/find files in directories", "qelstd", listFiles<pathsOurs>);
    add("curves/find files in directories", "std::filesystem", listFiles<pathsStd>);
    add("curves/copy files", "qelstd", copyFiles<copyOurs>);
    add("curves/copy files", "std::filesystem", copyFiles<copyStd>);
    add("curves/remove files", "qelstd",
        removeFiles<[](const std::string& top) { fsRemove(top.c_str(), fsRecursive); }>);
    add("curves/remove files", "std::filesystem",
        removeFiles<[](const std::string& top) { fs::remove_all(top); }>);
    addMemoryCurve("curves of memory/a list of names", "qelstd", namesOurs, 10, last);
    addMemoryCurve("curves of memory/a list of names", "std::filesystem", namesStd, 10, last);
    return true;
}();

} // namespace
