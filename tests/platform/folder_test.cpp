#include <gtest/gtest.h>

#include <qel/platform/errortable.h>
#include <qel/platform/folder.h>

#include <sys/stat.h>
#include <unistd.h>

#include "support/tempdir.h"

TEST(Folder, RemovesATreeAndNeverEntersALink)
{
    TempDir dir;
    dir.write("outside/kept", "x");
    dir.write("tree/a/b/file");
    dir.write("tree/.hidden");
    dir.write("tree/back\\slash");
    dir.link("../outside", "tree/link");
    dir.link("nowhere", "tree/a/dangling");
    platFolder folder;

    ASSERT_TRUE(folder.Open(dir.path("tree")));
    EXPECT_TRUE(folder.RemoveContents(platNoLimit));

    EXPECT_TRUE(std::filesystem::is_empty(dir.path("tree")));
    EXPECT_TRUE(dir.has("outside/kept"));
}

TEST(Folder, StopsRemovingAtAPathThatIsTooLongToShow)
{
    TempDir dir;
    dir.write("tree/abcd/efgh");
    platFolder folder;
    ASSERT_TRUE(folder.Open(dir.path("tree")));

    EXPECT_FALSE(folder.RemoveContents(8)); // "abcd\efgh" takes nine
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_TRUE(dir.has("tree/abcd/efgh"));

    ASSERT_TRUE(folder.Open(dir.path("tree")));
    EXPECT_TRUE(folder.RemoveContents(9));
}

TEST(Folder, RefusesALinkThatTookThePlaceOfADirectory)
{
    TempDir dir;
    dir.write("outside/kept");
    dir.makeDir("tree/sub");
    platFolder tree, sub;
    ASSERT_TRUE(tree.Open(dir.path("tree")));
    platEntry entry;
    ASSERT_TRUE(tree.Read(entry));
    ASSERT_EQ(entry.kind, platDirectory);

    std::filesystem::remove(dir.path("tree/sub"));
    dir.link("../outside", "tree/sub");

    EXPECT_FALSE(sub.Open(tree, "sub", platKeepLinks));
    EXPECT_FALSE(tree.RemoveFolder("sub"));
    EXPECT_TRUE(sub.Open(tree, "sub", platFollowLinks));
    EXPECT_TRUE(dir.has("outside/kept"));
}

TEST(Folder, KeepsWorkingOnItsDirectoryWhenThatIsMovedAway)
{
    TempDir dir;
    dir.write("tree/inner");
    dir.write("other/inner", "kept");
    platFolder tree;
    ASSERT_TRUE(tree.Open(dir.path("tree")));

    std::filesystem::rename(dir.path("tree"), dir.path("moved"));
    std::filesystem::rename(dir.path("other"), dir.path("tree"));

    EXPECT_TRUE(tree.DeleteFile("inner"));
    EXPECT_EQ(dir.read("tree/inner"), "kept");
    EXPECT_FALSE(dir.has("moved/inner"));
}

TEST(Folder, TellsKindsAndIdentities)
{
    TempDir dir;
    dir.write("file");
    dir.makeDir("sub/deep");
    dir.link("file", "link");
    dir.link("gone", "dangling");
    mkfifo(dir.path("pipe"), 0600);
    platFolder folder;
    std::string name;
    ASSERT_TRUE(folder.OpenParent(dir.path("file/"), name));
    EXPECT_EQ(name, "file");
    platNodeId file, link;

    EXPECT_EQ(folder.Kind("file", platKeepLinks, &file), platFile);
    EXPECT_EQ(folder.Kind("link", platKeepLinks), platLink);
    EXPECT_EQ(folder.Kind("link", platFollowLinks, &link), platFile);
    EXPECT_TRUE(file == link);
    EXPECT_EQ(folder.Kind("sub", platKeepLinks), platDirectory);
    EXPECT_EQ(folder.Kind("pipe", platKeepLinks), platSpecial);
    EXPECT_EQ(folder.Kind("dangling", platFollowLinks), platAbsent);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});

    platFolder deep, top;
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
    platFolder from, to, made;
    ASSERT_TRUE(from.Open(dir.path("from")));
    ASSERT_TRUE(to.Open(dir.path("to")));

    ASSERT_TRUE(from.CopyLink("link", to, "newlink"));
    EXPECT_EQ(std::filesystem::read_symlink(dir.path("to/newlink")), "any/text");
    EXPECT_FALSE(from.CopyLink("link", to, "newlink"));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});

    platSource source;
    EXPECT_FALSE(source.Open(from, "link", platKeepLinks));
    ASSERT_TRUE(source.Open(from, "file", platKeepLinks));
    ASSERT_TRUE(from.DeleteFile("file")); // what is open is copied whatever becomes of its name
    ASSERT_TRUE(source.CopyTo(to, "file"));
    EXPECT_EQ(dir.read("to/file"), "contents");
    EXPECT_FALSE(source.CopyTo(to, "newlink")); // a link is never written through

    chmod(dir.path("from"), 0750);
    ASSERT_TRUE(to.Create("sub"));
    ASSERT_TRUE(made.Open(to, "sub", platKeepLinks));
    ASSERT_TRUE(from.CopyStatus(made));
    struct stat status;
    ASSERT_EQ(stat(dir.path("to/sub"), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750u);
}

TEST(Folder, AnswersErrorsWithoutADirectory)
{
    TempDir dir;
    dir.write("file");
    platFolder none;
    platEntry entry;
    std::string name;

    EXPECT_FALSE(none.Read(entry));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_FALSE(none.Open(dir.path("file")));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_DIRECTORY});
    EXPECT_FALSE(none.OpenParent(dir.path("missing/x"), name));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_FALSE(none.IsWithin({1, 1}));
}
