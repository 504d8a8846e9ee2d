#include <qel/base/btkruntime.h>
#include <qel/monstatistics.h>

#include "monlibsrc/monsupport.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

class MonStatistics : public testing::Test
{
protected:
    std::vector<std::string> published() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(root.path("qelstd").c_str()))
            names.push_back(entry.path().filename().string());
        return names;
    }

    TempDir root;
    EnvSetting noService{"RUNTIME_DIRECTORY", nullptr};
    EnvSetting runtime{"XDG_RUNTIME_DIR", root.path()};
};

TEST_F(MonStatistics, PublishesValuesWhileItLives)
{
    auto figures = monStatistics::Create("a/b server", "the title");
    ASSERT_NE(nullptr, figures);
    const std::string path = figures->getPath();
    EXPECT_EQ(0U, path.find(root.path("qelstd/a_b_server-" + std::to_string(getpid()) + "-")));
    figures->Set("count", 7);
    figures->Set("count", 8);
    figures->Set("state", "idle");
    figures->Set("state", "a text that has no room");

    const Owned<monFile> file = OpenMonitor(path);
    EXPECT_STREQ("the title", file->getTitle().CastToCString());
    EXPECT_EQ(8, file->Real("count")->getValue());
    EXPECT_STREQ("idle", file->String("state", 0)->getValue().CastToCString());
    EXPECT_TRUE(btkIsHeld(path.c_str()));
    btkRemoveUnheld(path.c_str());
    EXPECT_TRUE(std::filesystem::exists(path));
    // A child's copy does not end the parent's publication.
    EXPECT_EQ(0, runInChild([&] {
                  figures.reset();
                  return 0;
              }));
    EXPECT_TRUE(std::filesystem::exists(path));
    figures.reset();
    EXPECT_TRUE(published().empty());
}

TEST_F(MonStatistics, RemovesFilesOfTheDeadOnly)
{
    ChildProcess killed([] {
        const auto abandoned = monStatistics::Create("killed", "");
        raise(SIGSTOP);
        return abandoned == nullptr;
    });
    ASSERT_TRUE(killed.waitUntilStopped());
    const auto first = monStatistics::Create("first", "");
    EXPECT_EQ(2U, published().size());
    killed.signal(SIGKILL);
    killed.wait();
    // Other files are not ours to remove, whatever their names contain.
    root.write("qelstd/nameserver-1239", "");
    root.write("qelstd/kept.mon", "");
    root.link(root.path("qelstd/kept.mon"), "qelstd/link-1-2.mon");
    const auto second = monStatistics::Create("second", "");
    EXPECT_EQ(5U, published().size());
    for (const std::string& name : published())
        EXPECT_NE(0U, name.find("killed-")) << name;
    EXPECT_TRUE(btkIsHeld(first->getPath().c_str()));
}

TEST_F(MonStatistics, TrustsNoFolderThatOthersCanChange)
{
    root.makeDir("qelstd");
    std::filesystem::permissions(root.path("qelstd").c_str(), std::filesystem::perms::all);
    EXPECT_EQ(nullptr, monStatistics::Create("a", ""));
    std::filesystem::remove(root.path("qelstd").c_str());
    root.makeDir("elsewhere");
    root.link("elsewhere", "qelstd");
    EXPECT_EQ(nullptr, monStatistics::Create("a", ""));
    const EnvSetting relative("RUNTIME_DIRECTORY", "elsewhere");
    EXPECT_EQ(nullptr, monStatistics::Create("a", ""));
    // Of several folders of a service it takes the first.
    const EnvSetting service("RUNTIME_DIRECTORY", root.path("elsewhere:/nowhere"));
    const auto figures = monStatistics::Create("a", "");
    ASSERT_NE(nullptr, figures);
    EXPECT_EQ(0U, figures->getPath().find(root.path("elsewhere/a-")));
}

} // namespace
