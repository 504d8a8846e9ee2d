#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/filelib.h>
#include <qel/platform/errornumbers.h>

#include "filelibsrc/raised.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/failingcalls.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/texts.h"

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

TEST_F(Copying, KeepsModesAndTimesOfATree)
{
    dir.write("from/a/file", "1");
    dir.write("from/a\\b", "2");
    dir.write("from/\xFF:x::y", "3");
    dir.makeDir("from/empty");
    dir.link("../outside", "from/link");
    chmod(dir.path("from/a/file"), 0640);
    chmod(dir.path("from/a"), 0500);
    const timespec times[] = {{1, 0}, {1000000000, 123456789}};
    utimensat(AT_FDCWD, dir.path("from/a"), times, 0);
    utimensat(AT_FDCWD, dir.path("from/a/file"), times, 0);

    EXPECT_EQ(copy("X:/from", "X:/new/deep/to", fsForceNew, fsNewLink, fsRecursive), done);

    EXPECT_EQ(shape("new/deep/to"), shape("from"));
    for (const auto& [name, mode] : {std::pair<const char*, unsigned>{"a/file", 0640}, {"a", 0500}}) {
        struct stat status;
        ASSERT_EQ(stat(dir.path(std::string("new/deep/to/") + name), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, mode);
        EXPECT_EQ(status.st_mtim.tv_sec, 1000000000);
        EXPECT_EQ(status.st_mtim.tv_nsec, 123456789);
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

TEST_F(Copying, RefusesToReplaceAnotherNodeByADirectory)
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

TEST_F(Copying, NeedsTheParentUnlessToldToCreateIt)
{
    dir.write("file", "x");
    dir.write("tree/file", "y");
    EXPECT_EQ(copy("X:/file", "X:/a/b/file"), refused(6, "X:\\file"));
    EXPECT_EQ(copy("X:/file", "X:/a/b/file", fsMerge, fsNewLink, fsRecursive), done);
    EXPECT_EQ(copy("X:/tree", "X:/c/d/tree"), done); // missing levels above a directory are created
    EXPECT_EQ(dir.read("c/d/tree/file"), "y");
}

TEST_F(Copying, TreatsLinksAccordingToTheMode)
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

TEST_F(Copying, RefusesDanglingAndCircularLinks)
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

TEST_F(Copying, ReplacesADestinationLinkWithoutWritingThroughIt)
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
    for (const auto& [from, to] :
         rowsOf<2>("a,a|a,a/b|a,a/new/deeper|a,alias/new|alias,a/x|a/b,a|a/b/file,a|a/b/file,a/b/file|"
                   "a/b/file,alias/b/file|a/tofile,a/b/file|a/hard,a/b/file|a/../a,a"))
        for (const auto mode : {fsMerge, fsReplace}) {
            const Raised raised =
                copy(("X:/" + from).c_str(), ("X:/" + to).c_str(), mode, fsExpand, fsRecursive);
            EXPECT_EQ(raised.code, 5) << from << " to " << to;
            EXPECT_EQ(shape(""), before) << from << " to " << to;
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

TEST_F(Copying, KeepsTheDestinationUntilTheSourceIsOpen)
{
    dir.write("from/file", "new");
    dir.link("nowhere", "dangling");
    dir.link("from/file", "link");
    const TempDir aside;
    ASSERT_EQ(mkfifo(aside.path("pipe"), 0600), 0);
    dir.write("file", "old");
    dir.write("folder/inner", "old");
    const std::string before = shape("");

    for (const char* to : {"X:/file", "X:/folder"}) {
        EXPECT_EQ(copy(aside.path("pipe"), to, fsReplace).code, 9);
        EXPECT_EQ(copy("X:/dangling", to, fsReplace, fsExpand).code, 5);
        EXPECT_EQ(copy("X:/link", to, fsReplace, fsIgnore), done);
        EXPECT_EQ(shape(""), before);
    }
    const auto swaps = [&](const char* from, const char* to, const std::string& now) {
        EXPECT_EQ(copy(from, to, fsReplace), done);
        EXPECT_TRUE(shape("").find(now) != std::string::npos) << shape("");
    };
    swaps("X:/link", "X:/folder", "folder->from/file ");
    swaps("X:/from", "X:/folder", "folder/ folder/file=new ");
    swaps("X:/from/file", "X:/folder", "folder=new ");
    swaps("X:/from", "X:/file", "file/ file/file=new ");
    swaps("X:/link", "X:/folder", "folder->from/file ");
}

// ---- faults

/// Each file call of a copy fails in turn, and then kills the process in turn.
TEST_F(Copying, LeavesTheOldFileOrTheNewOneWhicheverCallFails)
{
    const struct
    {
        int error, code;
        unsigned platformError;
    } faults[] = {
        {ENOSPC, 3, ERROR_DISK_FULL},     {EIO, 1, ERROR_IO_DEVICE}, {EDQUOT, 2, ERROR_NOT_ENOUGH_QUOTA},
        {EROFS, 11, ERROR_WRITE_PROTECT}, {failing::killed, 0, 0},
    };
    const std::string renewed(100000, 'n');
    dir.write("from", renewed);
    for (const auto& [old, isNamed] : {std::pair{"", false}, {"old", false}, {"", true}, {"old", true}})
        for (const auto& [error, code, platformError] : faults) {
            failing::unnamedFilesMissing = isNamed;
            const bool kills = error == failing::killed;
            int refusals = 0;
            bool isStruck = true;
            for (int after = 0; isStruck; ++after) {
                std::filesystem::remove(dir.path("to"));
                if (*old != '\0')
                    dir.write("to", old);
                Raised raised;
                const auto work = [&] {
                    const failing::FailingCall fails(after, error);
                    raised = copy("X:/from", "X:/to", fsReplace);
                    return failing::FailingCall::Struck() != nullptr ? 1 : 0;
                };
                isStruck = (kills ? runInChild(work) : work()) != 0;
                const std::string fault = std::to_string(error) + " at call " + std::to_string(after) + ' ' +
                                          (isStruck && !kills ? failing::FailingCall::Struck() : "") +
                                          (isNamed ? " named" : "");
                const std::string now = dir.read("to");
                if (raised.code != 0) {
                    EXPECT_EQ(raised.code, code) << fault << raised;
                    EXPECT_EQ(GetLastError(), platformError) << fault << raised;
                    EXPECT_TRUE(raised.path == "X:\\from" || raised.path == "X:\\to") << fault << raised;
                    EXPECT_EQ(now, old) << fault;
                    EXPECT_EQ(dir.has("to"), *old != '\0') << fault;
                } else {
                    EXPECT_TRUE(now == renewed || (kills && now == old)) << fault << now.size();
                }
                if (kills) { // the next replacement removes leftovers
                    dir.write("to", old);
                    EXPECT_EQ(copy("X:/from", "X:/to"), done);
                }
                EXPECT_EQ(namesIn(dir.path()).size(), 1u + dir.has("to")) << fault;
                refusals += raised.code != 0;
            }
            EXPECT_GE(refusals, kills ? 0 : 10) << error;
        }
    failing::unnamedFilesMissing = false;
}

TEST_F(Copying, KeepsAFolderUntilTheFileInItsPlaceIsComplete)
{
    dir.write("from", "new");
    int refusals = 0;
    bool isStruck = true;
    for (int after = 0; isStruck; ++after) {
        std::filesystem::remove_all(dir.path("to"));
        dir.write("to/inner", "old");
        Raised raised;
        {
            const failing::FailingCall fails(after, ENOSPC);
            raised = copy("X:/from", "X:/to", fsReplace);
            isStruck = failing::FailingCall::Struck() != nullptr;
        }
        EXPECT_EQ(std::filesystem::is_directory(dir.path("to")), raised.code != 0) << after;
        if (raised.code == 0) {
            EXPECT_EQ(dir.read("to"), "new") << after;
        }
        EXPECT_EQ(namesIn(dir.path()).size(), 2u) << after;
        refusals += raised.code != 0;
    }
    EXPECT_GE(refusals, 5);
}

// ---- failures passed to a handler

namespace {

/// Decides as the test sets it, and records its calls.
class Decisions : public fsFailureHandler
{
public:
    explicit Decisions(fsFailureAction chosen) : action(chosen) {}

    fsFailureAction OnFailure(const char* path, fsXException* failure) override
    {
        asked.emplace_back(path);
        errors.push_back(failure->getPlatformError());
        if (action != fsRetry)
            return action;
        std::filesystem::remove(at);
        return fsRetry;
    }

    std::vector<std::string> asked;
    std::vector<unsigned> errors;
    std::string at; // removed before the node is tried again

private:
    fsFailureAction action;
};

} // namespace

TEST_F(Copying, OrRemovingContinuesAsItsHandlerDecides)
{
    dir.write("from/a/file", "1");
    dir.write("from/z/file", "2");
    dir.link("nowhere", "from/a/dangling");
    ASSERT_EQ(mkfifo(dir.path("from/m"), 0600), 0);
    const auto with = [&](Decisions& decisions, const char* to) {
        return raisedBy([&] { fsCopy("X:/from", to, fsMerge, fsExpand, fsSimple, decisions); });
    };

    Decisions skip(fsSkip);
    EXPECT_EQ(with(skip, "X:/to"), done);
    EXPECT_EQ(shape("to"), "a/ a/file=1 z/ z/file=2 ");
    std::sort(skip.asked.begin(), skip.asked.end());
    EXPECT_EQ(skip.asked, (std::vector<std::string>{"X:\\from\\a\\dangling", "X:\\from\\m"}));

    Decisions stop(fsStop);
    const Raised raised = with(stop, "X:/to2");
    EXPECT_EQ(raised.path, stop.asked.at(0));
    EXPECT_EQ(stop.asked.size(), 1u);

    std::filesystem::remove(dir.path("from/a/dangling"));
    dir.makeDir("to3/z/file");
    std::filesystem::remove(dir.path("from/m"));
    Decisions again(fsRetry);
    again.at = dir.path("to3/z/file");
    EXPECT_EQ(with(again, "X:/to3"), done);
    EXPECT_EQ(again.asked, std::vector<std::string>{"X:\\from\\z\\file"});
    EXPECT_EQ(again.errors, std::vector<unsigned>{ERROR_FILE_EXISTS});
    EXPECT_EQ(shape("to3"), shape("from"));

    Decisions missing(fsSkip), refused(fsSkip);
    EXPECT_EQ(raisedBy([&] { fsCopy("X:/none", "X:/to4", fsMerge, fsNewLink, fsSimple, missing); }), done);
    EXPECT_EQ(missing.asked, std::vector<std::string>{"X:\\none"});
    EXPECT_EQ(raisedBy([&] { fsCopy("X:/from", "X:/from", fsMerge, fsNewLink, fsSimple, refused); }).code, 5);
    EXPECT_EQ(raisedBy([&] { fsRemove("X:/none", fsRecursive, missing); }), done);
    EXPECT_EQ(raisedBy([&] { fsListDirectory("X:/none", "*", missing); }), done);
    EXPECT_EQ(missing.asked.size(), 3u);
    EXPECT_TRUE(refused.asked.empty());
}

TEST_F(Copying, OrRemovingSkipsMountsOnRequest)
{
    dir.write("from/file", "1");
    dir.write("outside/kept", "2");
    dir.makeDir("from/mounted");
    expectSuccessInChild("needs the right to mount", [&] {
        if (!enterOwnMounts() ||
            mount(dir.path("outside"), dir.path("from/mounted"), nullptr, MS_BIND, nullptr) != 0)
            return notAllowed;
        Decisions none(fsStop), busy(fsSkip);
        fsCopy("X:/from", "X:/one", fsMerge, fsNewLink, fsSimple, none, nullptr, fsOneFileSystem);
        fsCopy("X:/from", "X:/all", fsMerge, fsNewLink, fsSimple, none);
        fsRemove("X:/from", fsRecursive, none, nullptr, fsOneFileSystem);
        if (shape("one") != "file=1 " || shape("all") != "file=1 mounted/ mounted/kept=2 " ||
            shape("from") != "mounted/ mounted/kept=2 ")
            return 1;
        fsRemove("X:/from", fsRecursive, busy);
        return busy.asked == std::vector<std::string>{"X:\\from\\mounted"} && !dir.has("outside/kept") ? 0
                                                                                                       : 2;
    });
}

// ---- progress

namespace {

/// Records its calls, and cancels the copy at the call `last`.
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

TEST_F(Copying, IsWatchedByFunctionsToo)
{
    dir.write("from/a", "1");
    dir.write("from/b", "22");
    dir.link("nowhere", "from/dangling");
    double last = 0;
    std::string failed;
    qel::onProgress counting([&](const char*, double bytes, double) { last = bytes; });
    qel::onProgress ending([](const char*, double, double) { return false; });
    qel::onFailure skipping([&](const char* path, fsXException&) {
        failed = path;
        return fsSkip;
    });

    fsCopy("X:/from", "X:/to", fsForceNew, fsExpand, fsSimple, skipping, &counting);
    EXPECT_TRUE(last == 3 && failed == "X:\\from\\dangling") << last << failed;
    EXPECT_EQ(thrownBy([&] { fsRemove("X:/to", fsRecursive, ending); }), "filelib::XSignal");
}

TEST_F(Copying, ReportsProgress)
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

    Watch followed; // the targets of links count
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

    // Data between and behind two holes.
    const int holes = open(dir.path("holes"), O_WRONLY);
    ASSERT_EQ(pwrite(holes, "middle", 6, mebibyte), 6);
    ASSERT_EQ(pwrite(holes, "end", 3, 4 * mebibyte), 3);
    close(holes);
    std::filesystem::resize_file(dir.path("holes"), 8 * mebibyte);
    EXPECT_EQ(copy("X:/holes", "X:/copy"), done);
    struct stat status;
    ASSERT_EQ(stat(dir.path("copy"), &status), 0);
    EXPECT_TRUE(dir.read("holes") == dir.read("copy"));
    EXPECT_LT(status.st_blocks * 512, 1 << 20);

    // A file whose size the kernel does not report.
    EXPECT_EQ(copy("/proc/self/cmdline", "X:/cmdline"), done);
    EXPECT_NE(dir.read("cmdline"), "");
}

TEST_F(Copying, CanBeCancelled)
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
    EXPECT_EQ(namesIn(dir.path("copies")).size(), 1u); // complete files stay
    EXPECT_EQ(copy("X:/large", "X:/copy"), done);
}

TEST_F(Copying, OrRemovingReportsNodesAndCanBeCancelled)
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
    EXPECT_EQ(watch.lastDone, 2); // the rest
    EXPECT_EQ(watch.lastTotal, 0);
    EXPECT_EQ(watch.paths.front(), "X:\\tree");
    EXPECT_EQ(raisedBy([&] { fsRemove("X:/tree", fsRecursive, watch); }).code, 6); // not found
}

TEST_F(Copying, AndRemovingAndListingReachAnyDepth)
{
    constexpr int depth = 60;
    const std::string name(100, 'd');
    std::string deep = dir.path("from"), shown = "X:\\from";
    ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    int folder = open(deep.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth; ++i) { // deeper than a path of the system can be
        ASSERT_EQ(mkdirat(folder, name.c_str(), 0700), 0);
        const int below = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY);
        close(folder);
        folder = below;
    }
    ASSERT_TRUE(close(openat(folder, "file", O_WRONLY | O_CREAT, 0600)) == 0 && close(folder) == 0);
    Watch watch;

    EXPECT_EQ(raisedBy([&] { fsCopy("X:/from", "X:/to", fsMerge, fsNewLink, fsSimple, watch); }), done);

    ASSERT_EQ(watch.paths.size(), 1u);
    EXPECT_EQ(watch.paths[0].size(), shown.size() + depth * (name.size() + 1) + 5);
    std::string pattern = "X:/to";
    for (int i = 0; i < depth; ++i)
        pattern += "/*";
    const xrchandle<xstringsequence> found = fsExpandPattern((pattern + "/f*").c_str());
    ASSERT_EQ(found->getarraysize(), 1);
    EXPECT_EQ(found->get(0).GetLength(), static_cast<int>(watch.paths[0].size()) - 2);
    for (const char* tree : {"X:/from", "X:/to"})
        EXPECT_EQ(raisedBy([&] { fsRemove(tree, fsRecursive); }), done);
    EXPECT_EQ(shape(""), "");

    const std::string longPath = "X:/" + std::string(257, 'l'), native = "X:\\" + std::string(257, 'l');
    EXPECT_EQ(copy("X:/from", longPath.c_str()), refused(5, longPath.c_str()));
    EXPECT_EQ(GetLastError(), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(copy(native.c_str(), "X:/to"), refused(5, native.c_str()));
}
