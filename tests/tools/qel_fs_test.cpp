#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "progress.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"
#include "support/terminal.h"

namespace {

constexpr const char* sumOfAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* sumOfNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class QelFs : public testing::Test
{
protected:
    /// Runs `qel fs COMMAND` in the directory of the test.
    Outcome fs(const std::string& command) const
    {
        const auto before = std::filesystem::current_path();
        std::filesystem::current_path(dir.path());
        Outcome outcome = Qel("fs " + command);
        std::filesystem::current_path(before);
        return outcome;
    }

    TempDir dir;
};

} // namespace

TEST_F(QelFs, ListsADirectory)
{
    dir.write("b.log", "12345");
    dir.write("a.log", "");
    dir.makeDir("sub");
    dir.link("nowhere", "lost");
    EXPECT_EQ(fs("ls").output, "a.log\nb.log\nlost\nsub\n");
    EXPECT_EQ(fs("ls --like '?.log' .").output, "a.log\nb.log\n");
    EXPECT_EQ(fs("ls sub").output, "");
    EXPECT_EQ(fs("ls b.log").output, "b.log\n");

    ASSERT_EQ(std::system(("TZ=UTC touch -d '2024-02-29 23:59:58' " + dir.path("b.log")).c_str()), 0);
    const EnvSetting zone("TZ", "UTC");
    EXPECT_EQ(fs("ls -l b.log").output, "TYPE  SIZE  MODIFIED             NAME\n"
                                        "file     5  2024-02-29 23:59:58  b.log\n");
    EXPECT_EQ(fs("ls -l lost").output, "qel fs ls: lost: File or directory does not exist\n");
    EXPECT_EQ(fs("ls -l --like lost").output, "TYPE  SIZE  MODIFIED  NAME\nlost                  lost\n");
    EXPECT_EQ(fs("ls --json b.log").output,
              "[\n  {\n    \"name\": \"b.log\",\n    \"type\": \"file\",\n    \"size\": 5,\n"
              "    \"modified\": \"2024-02-29T23:59:58+0000\"\n  }\n]\n");

    const Outcome none = fs("ls none/x");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.output,
              "qel fs ls: none/x: File or directory does not exist: a directory on the way is not found\n");
    EXPECT_EQ(fs("ls host::/x").status, 1);
}

TEST_F(QelFs, AcceptsAndPrintsNamesInTheSystemsForm)
{
    const std::string sum = std::string(sumOfAbc) + "  ";
    for (const char* const name : {"C:note", "x::y", "b\\s", "sub/C:deep"})
        dir.write(name, "abc");
    dir.write("note", "");
    EXPECT_EQ(fs("ls").output, "C:note\nb\\s\nnote\nsub\nx::y\n");
    EXPECT_EQ(fs("ls --like 'C:*'").output, "C:note\n");
    EXPECT_EQ(fs("ls --native --like 'C*'").output, "C\xEF\x80\xBAnote\n");
    EXPECT_EQ(fs("ls 'C:note'").output, "C:note\n");
    EXPECT_EQ(fs("sum C:note x::y sub/C:deep").output,
              sum + "C:note\n" + sum + "x::y\n" + sum + "sub/C:deep\n");
    EXPECT_EQ(fs("sum 'b\\s'").output, "\\" + sum + "b\\\\s\n");
    EXPECT_EQ(fs("sum --native C:note").output, std::string(sumOfNothing) + "  C:note\n") << "drive C";
    EXPECT_EQ(fs("sum " + dir.path("x::y")).output, sum + dir.path("x::y") + "\n");

    EXPECT_EQ(fs("cp C:note sub").output, "");
    EXPECT_EQ(fs("cp -r sub D:copy").output, "");
    EXPECT_EQ(dir.read("D:copy/C:note") + dir.read("D:copy/C:deep"), "abcabc");
    EXPECT_EQ(fs("rm a::b").output, "qel fs rm: a::b: File or directory does not exist\n");
    EXPECT_EQ(fs("rm --native a::b").status, 1);
    EXPECT_EQ(fs("rm -r C:note x::y 'b\\s' D:copy").output, "");
    EXPECT_EQ(fs("ls").output, "note\nsub\n");

    const std::string there = "cd " + dir.path() + " && " QEL_PROGRAM; // the other commands that take files
    EXPECT_EQ(Line(there + " conf set C:conf a 1").status, 0);
    EXPECT_EQ(Line(there + " mon create C:mon").status, 0);
    EXPECT_TRUE(dir.has("C:conf") && dir.has("C:mon"));
}

TEST_F(QelFs, ReportsTheFailingPath)
{
    dir.write("a", "1");
    EXPECT_EQ(fs("cp a none/deep/b").output,
              "qel fs cp: none/deep: no such directory; --parents creates it\n");
    EXPECT_EQ(fs("cp a a/b").status, 1);
    if (access("/dev/full", W_OK) != 0 || geteuid() != 0)
        GTEST_SKIP() << "needs the right to mount";
    const Outcome full =
        Line("unshare -m sh -c 'mkdir " + dir.path("small") + " && mount -t tmpfs -o size=4k none " +
             dir.path("small") + " && cd " + dir.path() +
             " && head -c 9000 /dev/zero >large; " QEL_PROGRAM
             " fs cp large small; mount -o remount,ro small; " QEL_PROGRAM " fs cp a small' 2>&1");
    EXPECT_EQ(full.output, "qel fs cp: small/large: Disk Full\nqel fs cp: small/a: read-only volume\n");
}

TEST_F(QelFs, CopiesFilesTreesAndLinks)
{
    dir.write("from/a", "1");
    dir.write("from/deep/b", "2");
    dir.link("a", "from/link");
    dir.makeDir("into");

    EXPECT_EQ(fs("cp from/a new").output, "");
    EXPECT_EQ(fs("cp from/a from/deep/b into").output, "");
    EXPECT_EQ(dir.read("new") + dir.read("into/a") + dir.read("into/b"), "112");
    EXPECT_EQ(fs("cp from into").output, "qel fs cp: from: is a directory; --recursive copies it\n");
    EXPECT_EQ(fs("cp -r from into").output, "");
    EXPECT_EQ(dir.read("into/from/deep/b"), "2");
    EXPECT_EQ(std::filesystem::read_symlink(dir.path("into/from/link")), "a");
    EXPECT_EQ(fs("cp -r --links follow from/ followed").output, "");
    EXPECT_FALSE(std::filesystem::is_symlink(dir.path("followed/link")));
    EXPECT_EQ(dir.read("followed/link"), "1");
    EXPECT_EQ(fs("cp -r --links skip from skipped").output, "");
    EXPECT_FALSE(dir.has("skipped/link"));

    dir.write("into/from/extra", "3");
    EXPECT_EQ(fs("cp -r --existing refuse from into").status, 1);
    EXPECT_EQ(fs("cp -r from into").status, 0);
    EXPECT_TRUE(dir.has("into/from/extra"));
    EXPECT_EQ(fs("cp -r --existing replace from into").status, 0);
    EXPECT_FALSE(dir.has("into/from/extra"));

    EXPECT_EQ(fs("cp -p from/a missing/way/a").output, "");
    EXPECT_EQ(dir.read("missing/way/a"), "1");
}

TEST_F(QelFs, RejectsInvalidCopies)
{
    dir.write("a", "1");
    dir.write("b", "2");
    dir.write("sub/c", "3");
    EXPECT_EQ(fs("cp none x").output, "qel fs cp: none: not found\n");
    EXPECT_EQ(fs("cp a b none").output, "qel fs cp: none: is no directory\n");
    EXPECT_EQ(fs("cp a a").output, "qel fs cp: a: Invalid path: cannot be copied onto or into itself\n");
    EXPECT_EQ(fs("cp -r sub sub/below").status, 1);
    EXPECT_EQ(fs("cp -r sub/.. sub").status, 2);
    ASSERT_EQ(mkfifo(dir.path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(fs("cp pipe x").output, "qel fs cp: pipe: Permission Denied\n");
    for (const char* const arguments : {"cp a", "cp", "cp --links no a b", "cp --existing no a b", "no", ""})
        EXPECT_EQ(fs(arguments).status, 2) << arguments;
    EXPECT_EQ(dir.read("a") + dir.read("b") + dir.read("sub/c"), "123");
}

TEST_F(QelFs, ReportsAFullDisk)
{
    dir.write("large", std::string(5000, 'x'));
    const Outcome outcome =
        Line("cd " + dir.path() + "; trap '' XFSZ; ulimit -f 1; " QEL_PROGRAM " fs cp large copy");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.output.substr(0, outcome.output.find('\n')), "qel fs cp: copy: file too large");
    EXPECT_FALSE(dir.has("copy")) << "no part of it is left";
    EXPECT_EQ(fs("ls >/dev/full").status, 3);
}

TEST_F(QelFs, ReportsTheWrongArgument)
{
    dir.write("from/deep/a", std::string(5000, 'x'));
    dir.write("to/from/deep/a", "old");
    dir.makeDir("full");
    EXPECT_EQ(fs("cp from/deep/a missing/way/a").output,
              "qel fs cp: missing/way: no such directory; --parents creates it\n");
    const std::string longName(300, 'l');
    EXPECT_EQ(fs("cp from/deep/a " + longName).output,
              "qel fs cp: " + longName + ": Invalid path: name or path too long\n");
    EXPECT_EQ(fs("rm " + longName).output,
              "qel fs rm: " + longName + ": Invalid path: name or path too long\n");

    const Outcome full = Line("cd " + dir.path() +
                              "; unshare -m sh -c 'mount -t tmpfs -o size=4k none full || exit 77;"
                              " mkdir full/from; " QEL_PROGRAM " fs cp -r from full' 2>&1");
    if (full.status == 77)
        GTEST_SKIP() << "needs the right to mount";
    EXPECT_EQ(full.output, "qel fs cp: full/from/deep/a: Disk Full\n");
    EXPECT_EQ(full.status, 3);
}

TEST_F(QelFs, ContinuesAndListsSkippedNodes)
{
    dir.write("from/a", "1");
    dir.write("from/z", "2");
    ASSERT_EQ(mkfifo(dir.path("from/pipe").c_str(), 0600), 0);
    const Outcome copied = fs("cp -r --keep-going none from to");
    EXPECT_EQ(copied.status, 1) << "several sources need a directory";
    dir.makeDir("to");
    const Outcome listed = fs("cp -r --keep-going none from to");
    EXPECT_EQ(listed.status, 3);
    EXPECT_EQ(listed.output, "qel fs cp: none: Invalid path: not found\n"
                             "qel fs cp: from/pipe: Permission Denied\nqel fs cp: 2 left out\n");
    EXPECT_EQ(dir.read("to/from/a") + dir.read("to/from/z"), "12");

    EXPECT_EQ(fs("rm -r --keep-going none to").output,
              "qel fs rm: none: File or directory does not exist\nqel fs rm: 1 left out\n");
    EXPECT_FALSE(dir.has("to"));
    EXPECT_EQ(fs("rm -rf --keep-going none").status, 0);
}

TEST_F(QelFs, RemovesTheGivenNodes)
{
    dir.write("tree/a", "1");
    dir.write("outside/kept", "2");
    dir.link("../outside", "tree/link");
    dir.makeDir("empty");
    EXPECT_EQ(fs("rm tree").output, "qel fs rm: tree: directory not empty; --recursive removes it\n");
    EXPECT_EQ(fs("rm none").output, "qel fs rm: none: File or directory does not exist\n");
    EXPECT_EQ(fs("rm -f none").output, "");
    EXPECT_EQ(fs("rm empty tree/a").output, "");
    EXPECT_EQ(fs("rm -r -f tree none").output, "");
    EXPECT_EQ(fs("ls").output, "outside\n");
    EXPECT_TRUE(dir.has("outside/kept"));
}

TEST_F(QelFs, RefusesToRemoveRootsAndDotEntries)
{
    // Any fault stays within the directory of the test.
    const EnvSetting drive("QELSTD_DRIVE_C", dir.path().c_str());
    dir.write("sub/a", "1");
    for (const char* const path : {".", "..", "sub/..", "sub/.", "sub/../", "./"})
        for (const char* const options : {"", "-r "}) {
            const Outcome refused = fs(std::string("rm ") + options + "sub/a " + path);
            EXPECT_EQ(refused.status, 2) << path;
        }
    EXPECT_EQ(fs("rm " + dir.path()).output,
              "qel fs rm: " + dir.path() + ": roots, \".\" and \"..\" are not removed\n");
    EXPECT_EQ(fs("rm /").output, "qel fs rm: /: lies on no drive; see QELSTD_DRIVE_C\n");
    EXPECT_EQ(fs("rm --native C:\\\\").status, 2);
    EXPECT_EQ(fs("rm --native C:").status, 2);
    EXPECT_EQ(fs("rm ''").status, 2);
    EXPECT_TRUE(dir.has("sub/a")) << "all paths are looked at before anything is removed";
}

TEST_F(QelFs, SumsMatchThoseOfOtherPrograms)
{
    dir.write("abc", "abc");
    dir.write("empty", "");
    dir.write("large", std::string(3000000, 'l'));
    dir.write("line\nend", "abc");
    EXPECT_EQ(fs("sum abc empty").output, std::string(sumOfAbc) + "  abc\n" + sumOfNothing + "  empty\n");
    EXPECT_EQ(fs("sum <abc").output, std::string(sumOfAbc) + "  -\n");
    EXPECT_EQ(fs("sum --json abc").output,
              "[\n  {\n    \"file\": \"abc\",\n    \"sum\": \"" + std::string(sumOfAbc) + "\"\n  }\n]\n");
    EXPECT_EQ(fs("sum --simple abc").output, "00032660  abc\n");
    EXPECT_EQ(fs("sum abc empty large 'line\nend' | sha256sum --check --strict --quiet && echo same").output,
              "same\n");
    EXPECT_EQ(fs("sum - <large").output.substr(0, 64), fs("sum large").output.substr(0, 64));

    dir.makeDir("sub");
    const Outcome some = fs("sum abc none sub empty");
    EXPECT_EQ(some.status, 1);
    EXPECT_EQ(some.output, std::string(sumOfAbc) + "  abc\n" + sumOfNothing +
                               "  empty\nqel fs sum: none: File or directory does not exist\n");
    EXPECT_EQ(fs("sum sub").output, "qel fs sum: sub: is a directory\n");
    EXPECT_EQ(fs("sum --simple").status, 2);
    EXPECT_EQ(fs("sum abc >/dev/full").status, 3);
}

// ---- long work

TEST(Progress, IsOneLineThatFits)
{
    EXPECT_EQ(ProgressLine::Text("file", 5e8, 2e9, 2), " 25%  500 MB of 2.00 GB  250 MB/s  0:06 left  file");
    EXPECT_EQ(ProgressLine::Text("-", 999, 0, 0), "999 bytes  0 bytes/s  -");
    EXPECT_EQ(ProgressLine::Text("grown", 200, 100, 1), "100%  200 bytes of 200 bytes  200 bytes/s  grown");
    EXPECT_EQ(ProgressLine::Text("x", 1, 1e15, 4000).substr(0, 48),
              "  0%  1 bytes of 1.00 PB  0 bytes/s  99:59:59 le"); // hours have two digits at most
    EXPECT_EQ(ProgressLine::Text(std::string(100, 'a') + "\x1b[2J.log", 1e6, 2e6, 1),
              " 50%  1.00 MB of 2.00 MB  1.00 MB/s  0:01 left  ..." + std::string(21, 'a') + "[2J.log");
    std::string umlauts;
    for (int i = 0; i < 100; ++i)
        umlauts += "\xC3\xA4";
    EXPECT_EQ(ProgressLine::Text(umlauts, 1e6, 2e6, 1).size(), 48 + 3 + 28 * 2u);
    EXPECT_EQ(SizeText(999.4), "999 bytes");
    EXPECT_EQ(SizeText(999.6), "1.00 kB");
    EXPECT_EQ(SizeText(99960), "100 kB");
    EXPECT_EQ(SizeText(12340000), "12.3 MB");
}

TEST_F(QelFs, ShowsProgressOnATerminal)
{
    // Holes take no space and no time to copy; summing them takes a while.
    dir.write("holes", "");
    std::filesystem::resize_file(dir.path("holes"), 4000000000);
    AtTerminal program({"qel", "fs", "sum", dir.path("holes")});
    const std::string shown = program.readUntil("left  holes");
    EXPECT_NE(shown.find("% "), std::string::npos) << shown;
    EXPECT_NE(shown.find(" of 4.00 GB  "), std::string::npos) << shown;
    program.type('\x03');
    EXPECT_EQ(program.wait(), -1) << "ended by the interrupt";
}

TEST_F(QelFs, LeavesNoPartialFileWhenInterrupted)
{
    constexpr int files = 1000;
    for (int i = 0; i < files; ++i)
        dir.write("many/" + std::to_string(i), "x");
    AtTerminal program({"qel", "fs", "cp", "-r", dir.path("many"), dir.path("copy")});
    for (int waited = 0; waited < 10000; ++waited) {
        if (dir.has("copy") && !std::filesystem::is_empty(dir.path("copy")))
            break;
        usleep(1000);
    }
    program.type('\x03');
    const std::string said = program.readUntil("");
    const int status = program.wait();
    int whole = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path("copy")))
        whole += entry.file_size() == 1 ? 1 : 0;
    const std::filesystem::directory_iterator copies(dir.path("copy"));
    EXPECT_EQ(std::distance(begin(copies), end(copies)), whole);
    EXPECT_GT(whole, 0);
    if (whole < files) { // otherwise the interrupt arrived too late
        EXPECT_EQ(status, 3);
        EXPECT_NE(said.find(": interrupted"), std::string::npos) << said;
    }
}
