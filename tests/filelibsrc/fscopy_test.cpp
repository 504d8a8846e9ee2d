#include <gtest/gtest.h>

#include <algorithm>

#include <qel/filelib.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "filelibsrc/raised.h"
#include "support/environment.h"
#include "support/tempdir.h"

namespace {

/// A temporary directory that is also drive X.
class Copying : public testing::Test
{
protected:
    static Raised copy(const char* from, const char* to, fsRecursiveCopyMode mode = fsMerge,
                       fsSoftLinkCopyMode links = fsNewLink, fsOpMode parents = fsSimple)
    {
        return raisedBy([&] { fsCopy(from, to, mode, links, parents); });
    }

    std::string target(const std::string& link) const
    {
        return std::filesystem::read_symlink(dir.path(link)).string();
    }

    /// Every name below the directory, with the contents of files and the texts of links.
    std::string shape(const std::string& name) const
    {
        std::map<std::string, std::string> all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path(name))) {
            const std::string at =
                entry.path().lexically_relative(std::filesystem::path(dir.path(name))).string();
            all[at] = entry.is_symlink()     ? "->" + std::filesystem::read_symlink(entry.path()).string()
                      : entry.is_directory() ? "/"
                                             : "=" + dir.read(name + "/" + at);
        }
        std::string text;
        for (const auto& [at, what] : all)
            text += at + what + " ";
        return text;
    }

    const Raised done{};
    TempDir dir;
    EnvSetting drive{"QELSTD_DRIVE_X", dir.path()};
};

Raised refused(int code, const char* path)
{
    return {code, "fsCopy", path};
}

} // namespace

TEST_F(Copying, TakesATreeWithItsModesAndTimes)
{
    dir.write("from/a/file", "1");
    dir.write("from/a\\b", "2");
    dir.write("from/\xFF:x::y", "3");
    dir.makeDir("from/empty");
    dir.link("../outside", "from/link");
    chmod(dir.path("from/a/file"), 0640);
    chmod(dir.path("from/a"), 0500);
    const timespec times[] = {{1, 0}, {1000000000, 5}};
    utimensat(AT_FDCWD, dir.path("from/a"), times, 0);
    utimensat(AT_FDCWD, dir.path("from/a/file"), times, 0);

    EXPECT_EQ(copy("X:/from", "X:/new/deep/to", fsForceNew, fsNewLink, fsRecursive), done);

    EXPECT_EQ(shape("new/deep/to"), shape("from"));
    for (const auto& [name, mode] : {std::pair<const char*, unsigned>{"a/file", 0640}, {"a", 0500}}) {
        struct stat status;
        ASSERT_EQ(stat(dir.path(std::string("new/deep/to/") + name), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, mode);
        EXPECT_EQ(status.st_mtim.tv_sec, 1000000000);
    }
    chmod(dir.path("from/a"), 0700);
    chmod(dir.path("new/deep/to/a"), 0700);
}

TEST_F(Copying, MergesReplacesOrInsistsOnANewDestination)
{
    dir.write("from/both", "new");
    dir.write("from/sub/added", "new");
    dir.write("to/both", "old");
    dir.write("to/sub/kept", "old");

    EXPECT_EQ(copy("X:/from", "X:/to", fsForceNew), refused(7, "X:\\to"));
    EXPECT_EQ(copy("X:/from", "X:/to", fsMerge), done);
    EXPECT_EQ(shape("to"), "both=new sub/ sub/added=new sub/kept=old ");
    EXPECT_EQ(copy("X:/from", "X:/to", fsReplace), done);
    EXPECT_EQ(shape("to"), shape("from"));

    EXPECT_EQ(copy("X:/none", "X:/to", fsReplace), refused(5, "X:\\none"));
    EXPECT_EQ(shape("to"), shape("from"));
    EXPECT_EQ(copy("X:/none", "X:/other"), refused(5, "X:\\none"));
}

TEST_F(Copying, RefusesToPutADirectoryWhereSomethingElseIs)
{
    dir.write("from/x", "file");
    dir.write("file", "kept");
    dir.makeDir("to/x");
    dir.link("to", "link");

    EXPECT_EQ(copy("X:/from", "X:/file"), refused(7, "X:\\from"));
    EXPECT_EQ(copy("X:/from", "X:/link"), refused(7, "X:\\from"));
    EXPECT_EQ(copy("X:/file", "X:/to"), refused(7, "X:\\to"));
    EXPECT_EQ(copy("X:/from", "X:/to"), refused(7, "X:\\to\\x"));
    EXPECT_EQ(dir.read("file"), "kept");
    EXPECT_TRUE(dir.has("to/x"));
}

TEST_F(Copying, NeedsTheParentUnlessItIsToBeMade)
{
    dir.write("file", "x");
    dir.write("tree/file", "y");
    EXPECT_EQ(copy("X:/file", "X:/a/b/file"), refused(6, "X:\\file"));
    EXPECT_EQ(copy("X:/file", "X:/a/b/file", fsMerge, fsNewLink, fsRecursive), done);
    EXPECT_EQ(copy("X:/tree", "X:/c/d/tree"), done); // a directory brings its levels with it
    EXPECT_EQ(dir.read("c/d/tree/file"), "y");
}

TEST_F(Copying, TreatsLinksAsTheModeSays)
{
    dir.write("from/file", "1");
    dir.write("outside/inner", "2");
    dir.link("file", "from/tofile");
    dir.link("../outside", "from/todir");

    EXPECT_EQ(copy("X:/from", "X:/new", fsMerge, fsNewLink), done);
    EXPECT_EQ(shape("new"), "file=1 todir->../outside tofile->file ");
    EXPECT_EQ(copy("X:/from", "X:/expanded", fsMerge, fsExpand), done);
    EXPECT_EQ(shape("expanded"), "file=1 todir/ todir/inner=2 tofile=1 ");
    EXPECT_EQ(copy("X:/from", "X:/without", fsMerge, fsIgnore), done);
    EXPECT_EQ(shape("without"), "file=1 ");

    EXPECT_EQ(copy("X:/from/todir", "X:/ignored", fsMerge, fsIgnore), done);
    EXPECT_FALSE(dir.has("ignored"));
    EXPECT_EQ(copy("X:/from/todir", "X:/top", fsMerge, fsNewLink), done);
    EXPECT_EQ(target("top"), "../outside");
}

TEST_F(Copying, RefusesLinksThatLeadNowhereOrBack)
{
    dir.write("from/file");
    dir.link("nowhere", "dangling");
    dir.link("loop", "loop");
    EXPECT_EQ(copy("X:/dangling", "X:/to", fsMerge, fsExpand), refused(5, "X:\\dangling"));
    EXPECT_EQ(copy("X:/loop", "X:/to", fsMerge, fsExpand), refused(5, "X:\\loop"));
    EXPECT_EQ(copy("X:/dangling", "X:/to", fsMerge, fsNewLink), done);

    dir.makeDir("from/sub");
    dir.link("../..", "from/sub/up"); // to a directory that holds the destination
    EXPECT_EQ(copy("X:/from", "X:/to2", fsMerge, fsExpand), refused(5, "X:\\from\\sub\\up"));
    std::filesystem::remove(dir.path("from/sub/up"));
    dir.link("..", "from/sub/up"); // to one that is being copied
    EXPECT_EQ(copy("X:/from", "X:/to3", fsMerge, fsExpand), refused(5, "X:\\from\\sub\\up"));
    EXPECT_EQ(copy("X:/from", "X:/to4", fsMerge, fsNewLink), done);
}

TEST_F(Copying, ReplacesALinkAtTheDestinationAndNeverWritesThroughIt)
{
    dir.write("from/x", "new");
    dir.write("victim", "kept");
    dir.makeDir("to");
    dir.link("../victim", "to/x");
    dir.link("victim", "top");
    dir.link("nowhere", "dangling");

    EXPECT_EQ(copy("X:/from", "X:/to"), done);
    EXPECT_EQ(copy("X:/from/x", "X:/top"), done);
    EXPECT_EQ(dir.read("victim"), "kept");
    EXPECT_EQ(shape("to"), "x=new ");
    EXPECT_FALSE(std::filesystem::is_symlink(dir.path("top")));
    EXPECT_EQ(copy("X:/from/x", "X:/dangling", fsForceNew), refused(7, "X:\\dangling"));
    EXPECT_EQ(copy("X:/from/x", "X:/dangling"), done);
    EXPECT_FALSE(dir.has("nowhere"));
}

TEST_F(Copying, OntoItselfIsRefusedAndChangesNothing)
{
    dir.write("a/b/file", "kept");
    dir.link("a", "alias");
    dir.link("b/file", "a/tofile");
    std::filesystem::create_hard_link(dir.path("a/b/file"), dir.path("a/hard"));
    const std::string before = shape("");
    const struct
    {
        const char *from, *to;
    } rows[] = {
        {"X:/a", "X:/a"},
        {"X:/a", "X:/a/b"},
        {"X:/a", "X:/a/new/deeper"},
        {"X:/a", "X:/alias/new"},
        {"X:/alias", "X:/a/x"},
        {"X:/a/b", "X:/a"},
        {"X:/a/b/file", "X:/a"},
        {"X:/a/b/file", "X:/a/b/file"},
        {"X:/a/b/file", "X:/alias/b/file"},
        {"X:/a/tofile", "X:/a/b/file"},
        {"X:/a/hard", "X:/a/b/file"},
        {"X:/a/../a", "X:/a"},
    };
    for (const auto& row : rows)
        for (const auto mode : {fsMerge, fsReplace}) {
            const Raised raised = copy(row.from, row.to, mode, fsExpand, fsRecursive);
            EXPECT_EQ(raised.code, 5) << row.from << " to " << row.to;
            EXPECT_EQ(shape(""), before) << row.from << " to " << row.to;
        }
}

TEST_F(Copying, KeepsAFileWhoseOtherNameItReplaces)
{
    dir.write("from/file", "kept");
    dir.makeDir("to");
    std::filesystem::create_hard_link(dir.path("from/file"), dir.path("to/file"));

    EXPECT_EQ(copy("X:/from", "X:/to"), done);
    EXPECT_EQ(dir.read("to/file"), "kept");
    EXPECT_FALSE(std::filesystem::equivalent(dir.path("from/file"), dir.path("to/file")));
}

TEST_F(Copying, RefusesPipesWithoutWaitingAndKeepsWhatIsCopied)
{
    dir.makeDir("from");
    ASSERT_EQ(mkfifo(dir.path("from/pipe"), 0600), 0);
    EXPECT_EQ(copy("X:/from", "X:/to"), refused(9, "X:\\from\\pipe"));
    EXPECT_EQ(copy("X:/from/pipe", "X:/other"), refused(9, "X:\\from\\pipe"));
    EXPECT_TRUE(dir.has("to"));
}

// ---- progress

namespace {

/// Keeps what it is told, and ends the copy at the call `last`.
class Watch : public fsProgressHandler
{
public:
    explicit Watch(std::size_t last = 1000000) : lastCall(last) {}

    bool Invoke(const char* path, double done, double total) override
    {
        paths.emplace_back(path);
        steps.push_back(done - (paths.size() == 1 ? 0 : lastDone));
        lastDone = done;
        lastTotal = total;
        return paths.size() < lastCall;
    }

    std::vector<std::string> paths;
    std::vector<double> steps;
    double lastDone = 0, lastTotal = 0;

private:
    std::size_t lastCall;
};

constexpr std::size_t mebibyte = 1 << 20;

} // namespace

TEST_F(Copying, TellsHowItGetsOn)
{
    dir.write("from/deep/small", "12345");
    dir.write("from/large", std::string(20 * mebibyte, 'l'));
    dir.write("outside", "123");
    dir.link("../outside", "from/link");
    dir.link(".", "from/deep/back");
    Watch watch;
    fsCopy("X:/from", "X:/to", fsForceNew, fsNewLink, fsSimple, watch);

    EXPECT_EQ(shape("to"), shape("from"));
    EXPECT_EQ(watch.lastTotal, 20.0 * mebibyte + 5);
    EXPECT_EQ(watch.lastDone, watch.lastTotal);
    EXPECT_EQ(std::count(watch.paths.begin(), watch.paths.end(), "X:\\from\\large"), 3);
    EXPECT_EQ(std::count(watch.paths.begin(), watch.paths.end(), "X:\\from\\deep\\small"), 1);
    EXPECT_LE(*std::max_element(watch.steps.begin(), watch.steps.end()), 8.0 * mebibyte);

    Watch followed; // what the links lead to counts
    std::filesystem::remove(dir.path("from/deep/back"));
    fsCopy("X:/from", "X:/expanded", fsForceNew, fsExpand, fsSimple, followed);
    EXPECT_EQ(followed.lastTotal, 20.0 * mebibyte + 8);
    EXPECT_EQ(followed.lastDone, followed.lastTotal);
}

TEST_F(Copying, CountsHolesAsCopied)
{
    dir.write("holes", "begin");
    std::filesystem::resize_file(dir.path("holes"), 100 * mebibyte);
    Watch watch;
    fsCopy("X:/holes", "X:/copy", fsMerge, fsNewLink, fsSimple, watch);
    EXPECT_EQ(watch.lastDone, 100.0 * mebibyte);
    EXPECT_EQ(watch.lastTotal, 100.0 * mebibyte);
    EXPECT_EQ(std::filesystem::file_size(dir.path("copy")), 100 * mebibyte);
}

TEST_F(Copying, EndsWhenItIsToldTo)
{
    dir.write("large", std::string(20 * mebibyte, 'l'));
    Watch watch(2);
    const Raised raised =
        raisedBy([&] { fsCopy("X:/large", "X:/copy", fsMerge, fsNewLink, fsSimple, watch); });
    EXPECT_EQ(raised, refused(10, "X:\\large")); // signal
    EXPECT_EQ(watch.paths.size(), 2u);
    EXPECT_FALSE(dir.has("copy"));

    dir.write("tree/a", "1");
    dir.write("tree/b", "2");
    Watch first(1);
    EXPECT_EQ(raisedBy([&] { fsCopy("X:/tree", "X:/copies", fsMerge, fsNewLink, fsSimple, first); }).code,
              10);
    const std::filesystem::directory_iterator copies(dir.path("copies"));
    EXPECT_EQ(std::distance(begin(copies), end(copies)), 1); // what was complete stays
    EXPECT_EQ(copy("X:/large", "X:/copy"), done);
}

TEST_F(Copying, OrRemovingTellsOfNodesAndCanBeEnded)
{
    for (const char* name : {"tree/a", "tree/sub/b", "tree/sub/c"})
        dir.write(name, "1");
    Watch ended(2);
    const Raised raised = raisedBy([&] { fsRemove("X:/tree", fsRecursive, ended); });
    EXPECT_EQ(raised, Raised(10, "fsRemove", "X:\\tree")); // signal
    EXPECT_EQ(ended.lastDone, 2);
    EXPECT_TRUE(dir.has("tree"));

    Watch watch;
    fsRemove("X:/tree", fsRecursive, watch);
    EXPECT_FALSE(dir.has("tree"));
    EXPECT_EQ(watch.lastDone, 2); // what was left
    EXPECT_EQ(watch.lastTotal, 0);
    EXPECT_EQ(watch.paths.front(), "X:\\tree");
    EXPECT_EQ(raisedBy([&] { fsRemove("X:/tree", fsRecursive, watch); }).code, 6); // not found
}

TEST_F(Copying, StopsAtAPathThatIsTooLong)
{
    std::string deep = "from";
    while (deep.size() < 300)
        deep += "/" + std::string(60, 'd');
    dir.makeDir(deep);
    EXPECT_EQ(copy("X:/from", "X:/to"), refused(5, "(null)"));
    EXPECT_EQ(copy("X:/from/", (("X:/" + std::string(250, 'l')).c_str())), refused(5, "(null)"));
}
