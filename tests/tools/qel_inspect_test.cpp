#include <iterator>
#include <nlohmann/json.hpp>

#include <qel/base/nmstable.h>
#include <qel/hmxconfigfile.h>
#include <qel/qelown.h>
#include <qel/xmonlib.h>

#include "inspect.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const fs::path& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

// One file of each kind that has damage.
std::vector<std::string> samplesIn(const fs::path& folder)
{
    {
        const auto file = qel::own(monFile::Create((folder / "a.mon").c_str(), "title"));
        file->Int("number")->setValue(7);
        file->String("text", 20)->setValue("words");
        file->Real("real")->setValue(1.5);
    }
    nmsTable table;
    for (const char* const name : {"first", "second"}) {
        nmsFields record;
        record.Set("_ServerName", name);
        table.Add(std::move(record), "uid:0");
    }
    write(folder / "state", table.Save());
    write(folder / "a.value", std::string("1 Name\ntext\0", 12));
    write(folder / "update", "qelstd update 1 00000000000000000004 00000000000000000006\na:1\nb:22\nx");
    return {"a.mon", "state", "a.value", "update"};
}

// Whatever a file has, it is described: its damage is within it, and its records are no more than wanted.
void expectDescribed(const fs::path& path)
{
    const Json result = Inspect(path.string(), 10);
    ASSERT_TRUE(result["kind"].is_string());
    EXPECT_LE(result.value("offset", 0LL), static_cast<long long>(fs::file_size(path)));
    EXPECT_LE(result.value("records", Json::array()).size(), 10U);
    for (const Json& record : result.value("records", Json::array()))
        EXPECT_LE(record.value("offset", 0LL), static_cast<long long>(fs::file_size(path)));
}

TEST(QelInspect, DescribesDamagedFiles)
{
    const TempDir folder;
    const fs::path changed = fs::path(folder.path()) / "changed";
    for (const std::string& name : samplesIn(folder.path())) {
        const std::string content = contentOf(fs::path(folder.path()) / name);
        const fs::path copy = changed.string() + fs::path(name).extension().string();
        for (std::size_t i = 0; i < content.size(); ++i) {
            SCOPED_TRACE(name + ", " + std::to_string(i));
            write(copy, content.substr(0, i));
            expectDescribed(copy);
            for (const char other : {'\xFF', '\0'}) {
                std::string bad = content;
                bad[i] = other;
                write(copy, bad);
                expectDescribed(copy);
            }
        }
    }
}

TEST(QelInspect, DescribesTheInputsThatParsersWereTestedWith)
{
    const TempDir folder;
    std::size_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(QEL_CORPUS))
        for (const char* const ending : {"", ".value", ".meta"}) {
            if (!entry.is_regular_file())
                continue;
            SCOPED_TRACE(entry.path().string() + ending);
            const fs::path copy = fs::path(folder.path()) / ("copy" + std::string(ending));
            fs::copy_file(entry.path(), copy, fs::copy_options::overwrite_existing);
            expectDescribed(copy);
            EXPECT_EQ(contentOf(copy), contentOf(entry.path())); // nothing is changed
            ++count;
        }
    EXPECT_GT(count, 100U);
}

TEST(QelInspect, ReadsNoMoreThanItMay)
{
    const TempDir folder;
    const fs::path large = fs::path(folder.path()) / "large";
    for (const std::string& name : samplesIn(folder.path())) {
        fs::copy_file(fs::path(folder.path()) / name, large, fs::copy_options::overwrite_existing);
        fs::resize_file(large, std::uintmax_t(1) << 33); // with a hole
        expectDescribed(large);
    }
}

} // namespace
