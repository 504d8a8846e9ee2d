#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/base/btkfolder.h>

#include "support/child.h"
#include "support/tempdir.h"
#include "support/test.h"

TEST(Folder, RemovesATreeAndNeverEntersALink)
{
    TempDir dir;
    dir.write("outside/kept", "x");
    dir.write("tree/a/b/file");
    dir.write("tree/.hidden");
    dir.write("tree/back\\slash");
    dir.link("../outside", "tree/link");
    dir.link("nowhere", "tree/a/dangling");
    btkFolder folder;

    ASSERT_TRUE(folder.Open(dir.path("tree")));
    EXPECT_TRUE(folder.RemoveContents());

    EXPECT_TRUE(std::filesystem::is_empty(dir.path("tree")));
    EXPECT_TRUE(dir.has("outside/kept"));
}

TEST(Folder, DescendsAndAscendsAnyDepthWithFewDescriptors)
{
    constexpr int depth = 1500; // its names do not fit into one path
    TempDir dir(TempDir::InMemory);
    dir.makeDir("tree");
    btkFolder top;
    ASSERT_TRUE(top.Open(dir.path("tree")));
    const rlim_t few = 64;
    struct rlimit before, limited;
    getrlimit(RLIMIT_NOFILE, &before);
    limited = {few, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limited), 0);
    {
        btkDescent way(top);
        for (int i = 0; i < depth; ++i) {
            ASSERT_TRUE(way.Last().Create("first") && way.Last().Create("second"));
            btkEntry entry; // the entered folder is read before the other
            ASSERT_TRUE(way.Last().Read(entry));
            ASSERT_TRUE(way.Enter(std::string(entry.hostName).c_str(), btkKeepLinks)) << errno;
        }
        int others = 0;
        while (way.Depth() > 0) {
            ASSERT_TRUE(way.Leave()) << errno;
            btkEntry entry;
            while (way.Last().Read(entry))
                ++others;
        }
        EXPECT_EQ(others, depth);
    }
    ASSERT_TRUE(top.Open(dir.path("tree")));
    EXPECT_TRUE(top.RemoveContents()) << errno;
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path("tree")));
}

TEST(Folder, ConcurrentMoveIsDetectedAndNothingElsewhereChanges)
{
    TempDir dir;
    std::string deep = "tree";
    for (int i = 0; i < 40; ++i)
        deep += "/d";
    dir.makeDir(deep);
    dir.makeDir("elsewhere");
    btkFolder top;
    ASSERT_TRUE(top.Open(dir.path("tree")));
    btkDescent way(top);
    for (int i = 0; i < 40; ++i)
        ASSERT_TRUE(way.Enter("d", btkKeepLinks));

    std::filesystem::rename(dir.path("tree/d/d/d/d/d"), dir.path("elsewhere/d"));

    int left = 0;
    while (way.Leave())
        ++left;
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(left, 35); // up to the moved one; its parent is a different folder now
}

namespace {

/// Removes with a decision about each failure, and records the failures.
struct Decisions : btkTreeWatcher
{
    bool Removed() override
    {
        ++removed;
        return true;
    }
    btkTreeAction Failed(const std::string& path) override
    {
        failed.push_back(path);
        return action;
    }

    btkTreeAction action = btkTreeAction::skip;
    std::vector<std::string> failed;
    int removed = 0;
};

} // namespace

TEST(Folder, RemovesAllItCanAndKeepsThePathToTheRest)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs a mount of its own";
    TempDir dir;
    for (const char* name : {"tree/a/b/file", "tree/a/c/file", "tree/d/file", "outside/kept"})
        dir.write(name);
    dir.makeDir("tree/a/b/mounted");
    expectSuccessInChild("needs a mount of its own", [&] {
        if (!enterOwnMounts() ||
            mount(dir.path("outside"), dir.path("tree/a/b/mounted"), nullptr, MS_BIND, nullptr) != 0)
            return notAllowed;
        Decisions decisions;
        btkFolder tree;
        if (!tree.Open(dir.path("tree")) || tree.RemoveContents(&decisions, btkOneMount) ||
            errno != ENOTEMPTY || !decisions.failed.empty() || decisions.removed != 5)
            return 1;
        if (!dir.has("outside/kept") || dir.has("tree/a/c") || dir.has("tree/d") || dir.has("tree/a/b/file"))
            return 2;
        // An undetected mount is emptied, and stays because it is a mount.
        if (!tree.Open(dir.path("tree")) || tree.RemoveContents(&decisions) ||
            decisions.failed != std::vector<std::string>{"a/b/mounted"} || dir.has("outside/kept"))
            return 3;
        return 0;
    });
}

TEST(Folder, RefusesALinkThatTookThePlaceOfADirectory)
{
    TempDir dir;
    dir.write("outside/kept");
    dir.makeDir("tree/sub");
    btkFolder tree, sub;
    ASSERT_TRUE(tree.Open(dir.path("tree")));
    btkEntry entry;
    ASSERT_TRUE(tree.Read(entry));
    ASSERT_EQ(entry.kind, btkDirectory);

    std::filesystem::remove(dir.path("tree/sub"));
    dir.link("../outside", "tree/sub");

    EXPECT_FALSE(sub.Open(tree, "sub", btkKeepLinks));
    EXPECT_FALSE(tree.RemoveFolder("sub"));
    EXPECT_TRUE(sub.Open(tree, "sub", btkFollowLinks));
    EXPECT_TRUE(dir.has("outside/kept"));
}

TEST(Folder, KeepsWorkingOnItsDirectoryAfterAMove)
{
    TempDir dir;
    dir.write("tree/inner");
    dir.write("other/inner", "kept");
    btkFolder tree;
    ASSERT_TRUE(tree.Open(dir.path("tree")));

    std::filesystem::rename(dir.path("tree"), dir.path("moved"));
    std::filesystem::rename(dir.path("other"), dir.path("tree"));

    EXPECT_TRUE(tree.DeleteFile("inner"));
    EXPECT_EQ(dir.read("tree/inner"), "kept");
    EXPECT_FALSE(dir.has("moved/inner"));
}

TEST(Folder, ReportsKindsAndIdentities)
{
    TempDir dir;
    dir.write("file");
    dir.makeDir("sub/deep");
    dir.link("file", "link");
    dir.link("gone", "dangling");
    mkfifo(dir.path("pipe"), 0600);
    btkFolder folder;
    std::string name;
    ASSERT_TRUE(folder.OpenParent(dir.path("file/"), name));
    EXPECT_EQ(name, "file");
    btkNodeId file, link;

    EXPECT_EQ(folder.Kind("file", btkKeepLinks, &file), btkFile);
    EXPECT_EQ(folder.Kind("link", btkKeepLinks), btkLink);
    EXPECT_EQ(folder.Kind("link", btkFollowLinks, &link), btkFile);
    EXPECT_TRUE(file == link);
    EXPECT_EQ(folder.Kind("sub", btkKeepLinks), btkDirectory);
    EXPECT_EQ(folder.Kind("pipe", btkKeepLinks), btkSpecial);
    EXPECT_EQ(folder.Kind("dangling", btkFollowLinks), btkAbsent);
    EXPECT_EQ(errno, ENOENT);

    btkFolder deep, top;
    ASSERT_TRUE(deep.OpenNearest(dir.path("sub/deep/not/there")));
    EXPECT_TRUE(deep.IsWithin(folder.Id()));
    EXPECT_TRUE(folder.IsWithin(folder.Id()));
    EXPECT_FALSE(folder.IsWithin(deep.Id()));
    ASSERT_TRUE(top.OpenParent("/", name));
    EXPECT_EQ(name, ".");
    EXPECT_TRUE(deep.IsWithin(top.Id()));
}

TEST(Folder, CopiesLinksFilesAndStatus)
{
    TempDir dir;
    dir.write("from/file", "contents");
    dir.link("any/text", "from/link");
    dir.makeDir("to");
    btkFolder from, to, made;
    ASSERT_TRUE(from.Open(dir.path("from")));
    ASSERT_TRUE(to.Open(dir.path("to")));

    ASSERT_TRUE(from.CopyLink("link", to, "newlink", false));
    EXPECT_EQ(std::filesystem::read_symlink(dir.path("to/newlink")), "any/text");
    EXPECT_FALSE(from.CopyLink("link", to, "newlink", false));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(from.CopyLink("link", to, "newlink", true));

    btkSource source;
    EXPECT_FALSE(source.Open(from, "link", btkKeepLinks));
    ASSERT_TRUE(source.Open(from, "file", btkKeepLinks));
    ASSERT_TRUE(from.DeleteFile("file")); // an open file is copied even when its name is removed
    ASSERT_TRUE(source.Copy(to));
    EXPECT_FALSE(source.Place("newlink", false)); // a link is never written through
    EXPECT_TRUE(source.Place("file", false));
    EXPECT_EQ(dir.read("to/file"), "contents");

    chmod(dir.path("from"), 03750);
    ASSERT_TRUE(to.Create("sub"));
    ASSERT_TRUE(made.Open(to, "sub", btkKeepLinks));
    ASSERT_TRUE(from.CopyStatus(made));
    struct stat status;
    ASSERT_EQ(stat(dir.path("to/sub"), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 03750u);
}

TEST(Folder, ReportsErrorsWithoutADirectory)
{
    TempDir dir;
    dir.write("file");
    btkFolder none;
    btkEntry entry;
    std::string name;

    EXPECT_FALSE(none.Read(entry));
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(none.Open(dir.path("file")));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(none.OpenParent(dir.path("missing/x"), name));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(none.IsWithin({1, 1}));
}
