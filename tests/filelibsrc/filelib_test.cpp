#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qel/filelib.h>
#include <qel/fsfile.h>
#include <qel/tmtime.h>

#include "filelibsrc/raised.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

std::string native(std::string path)
{
    for (char& c : path)
        if (c == '/')
            c = '\\';
    return path;
}

/// A temporary directory that is also drive X, so that paths with a drive are short and stay within it.
class Files : public testing::Test
{
protected:
    /// The native path of a name in the directory, as in exceptions.
    static std::string x(const std::string& name) { return "X:\\" + native(name); }

    static std::set<std::string> setOf(const xrchandle<xstringsequence>& texts)
    {
        std::set<std::string> all;
        for (int i = 0; i < texts->getarraysize(); ++i)
            all.insert(texts->get(i).CastToCString());
        return all;
    }

    TempDir dir;
    EnvSetting drive{"QELSTD_DRIVE_X", dir.path()};
};

} // namespace

// ---- path checks

TEST_F(Files, RejectEmptyDriveOnlyRemoteAndOversizedPaths)
{
    const std::string tooLong = "/" + std::string(259, 'x');
    using Operation = void (*)(const char*);
    const struct
    {
        const char* name;
        Operation run;
        bool always; // whether a path without "/" is refused for its length, too
    } operations[] = {
        {"fsCreateDir", [](const char* p) { fsCreateDir(p, fsSimple); }, true},
        {"fsRemove", [](const char* p) { fsRemove(p, fsRecursive); }, true},
        {"fsExpandPattern", [](const char* p) { fsExpandPattern(p); }, true},
        {"fsRename", [](const char* p) { fsRename(p, "new"); }, true},
        {"fsMove", [](const char* p) { fsMove("from", p, fsSimple); }, true},
        {"fsMove", [](const char* p) { fsMove(p, "none/to", fsSimple); }, false},
        {"fsCopy", [](const char* p) { fsCopy("from", p, fsMerge, fsExpand, fsSimple); }, true},
        {"fsCopy", [](const char* p) { fsCopy(p, "to", fsMerge, fsExpand, fsSimple); }, true},
        {"fsGetAvailableDiskSpace", [](const char* p) { fsGetAvailableDiskSpace(p); }, false},
        {"fsSetFileSize", [](const char* p) { fsSetFileSize(p, 5); },
         true}, // by the platform, as the next ones
        {"fsCalculateCheckSum", [](const char* p) { fsCalculateCheckSum(p); }, true},
        {"fsListDirectory", [](const char* p) { fsListDirectory(p, "*"); }, true},
        {"fsGetNodeInfo", [](const char* p) { fsGetNodeInfo(p); }, true},
    };
    for (const auto& operation : operations) {
        for (const std::string& path : {std::string(), std::string("C:"), std::string("host::x"), tooLong})
            EXPECT_EQ(raisedBy([&] { operation.run(path.c_str()); }), Raised(5, operation.name, path));
        EXPECT_EQ(raisedBy([&] { operation.run(xnullstr); }), Raised(5, operation.name, "(null)"));
        const std::string plain(260, 'y');
        const Raised raised = raisedBy([&] { operation.run(plain.c_str()); });
        EXPECT_EQ(raised == Raised(5, operation.name, plain), operation.always) << operation.name << raised;
    }
    EXPECT_EQ(raisedBy([&] { fsChangeDir("Z:"); }), Raised(5, "fsChangeDir", "Z:"));
    EXPECT_EQ(raisedBy([&] { fsChangeDir("a::b"); }), Raised(6, "fsChangeDir", "a::b"));
    EXPECT_EQ(raisedBy([&] { fshExists(tooLong.c_str()); }), Raised(5, "fshExists", tooLong));
    EXPECT_EQ(raisedBy([] { fsCopy("a::b", "", fsMerge, fsExpand, fsSimple); }), Raised(5, "fsCopy", ""));
}

TEST_F(Files, DoNotSupportTheTwoLinkOperations)
{
    EXPECT_EQ(raisedBy([] { fsReadLink("/a"); }), Raised(8, "fsReadLink", "/a"));
    EXPECT_EQ(raisedBy([] { fsReadLink("a::b"); }), Raised(5, "fsReadLink", "a::b"));
    EXPECT_EQ(raisedBy([] { fsCreateSoftLink("", "", fsSimple); }), Raised(8, "fsCreateSoftLink", "(null)"));
}

// ---- creating and removing

TEST_F(Files, CreateMissingLevels)
{
    EXPECT_EQ(raisedBy([] { fsCreateDir("X:/a/b/c", fsSimple); }), Raised(6, "fsCreateDir", x("a/b/c")));
    fsCreateDir("X:/a/b/c/", fsRecursive);
    EXPECT_TRUE(dir.has("a/b/c"));
    fsCreateDir("X:/a/b", fsRecursive);
    EXPECT_EQ(raisedBy([] { fsCreateDir("X:/a/b", fsSimple); }), Raised(7, "fsCreateDir", x("a/b")));
    fsCreateDir((dir.path("r/s")).c_str(), fsRecursive); // rooted without a drive
    EXPECT_TRUE(dir.has("r/s"));

    dir.write("file");
    EXPECT_EQ(raisedBy([] { fsCreateDir("X:/file/x", fsRecursive); }), Raised(6, "fsCreateDir", x("file/x")));
    EXPECT_EQ(raisedBy([] { fsCreateDir("Q:/no/drive", fsRecursive); }).code, 6);
    EXPECT_EQ(raisedBy([] { fsCreateDir("X:/file", fsRecursive); }), Raised(7, "fsCreateDir", x("file")));
    dir.link("nowhere", "lost");
    EXPECT_EQ(raisedBy([] { fsCreateDir("X:/lost", fsRecursive); }), Raised(7, "fsCreateDir", x("lost")));
}

TEST_F(Files, CreateLevelsWhileOthersCreateThemToo)
{
    constexpr int trees = 100;
    std::atomic<int> failed = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int tree = 0; tree < trees; ++tree)
                if (raisedBy([&] {
                        fsCreateDir(x("raced" + std::to_string(tree) + "/a/b/c/d").c_str(), fsRecursive);
                    }).code != Raised().code)
                    ++failed;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failed, 0);
}

TEST_F(Files, RemoveATreeWithoutFollowingLinks)
{
    dir.write("kept/inside", "x");
    dir.write("tree/a/b/file");
    dir.write("tree/a\\b");
    dir.write("tree/\xFF\xFE:x::y");
    dir.link(dir.path("kept"), "tree/link");
    dir.link("nowhere", "tree/dangling");
    dir.link("kept", "toplink");

    EXPECT_EQ(raisedBy([] { fsRemove("X:/tree", fsSimple); }), Raised(7, "fsRemove", x("tree")));
    fsRemove("X:/tree", fsRecursive);
    EXPECT_FALSE(dir.has("tree"));
    EXPECT_EQ(raisedBy([] { fsRemove("X:/toplink/", fsRecursive); }), Raised(6, "fsRemove", x("toplink/")));
    fsRemove("X:/toplink", fsRecursive);
    EXPECT_FALSE(dir.has("toplink"));
    EXPECT_EQ(dir.read("kept/inside"), "x");

    EXPECT_EQ(raisedBy([] { fsRemove("X:/tree", fsRecursive); }), Raised(6, "fsRemove", x("tree")));
    fsRemove("X:/kept/inside", fsSimple);
    fsRemove("X:/kept/", fsSimple);
    EXPECT_FALSE(dir.has("kept"));
}

TEST_F(Files, RemoveNothingOutsideAConcurrentlyChangedTree)
{
    constexpr int rounds = 100;
    constexpr int parts = 20;
    for (int i = 0; i < parts; ++i)
        dir.write("kept/" + std::to_string(i));
    std::atomic<int> changes = 0;
    for (int round = 0; round < rounds; ++round) {
        dir.link(dir.path("kept"), "link");
        for (int i = 0; i < parts; ++i)
            for (const char* name : {"0", "1", "2"})
                dir.write("tree/" + std::to_string(i) + "/" + name);
        std::atomic<bool> isDone = false;
        const int before = changes;
        // Swaps the link and a directory, and back.
        std::thread changer([&] {
            for (int i = 0; !isDone; i = (i + 1) % parts)
                for (int there = 0; there < 2; ++there)
                    changes += renameat2(AT_FDCWD, dir.path("link").c_str(), AT_FDCWD,
                                         dir.path("tree/" + std::to_string(i)).c_str(), RENAME_EXCHANGE) == 0;
        });
        EXPECT_TRUE(soon([&] { return changes > before; })); // it is at work
        raisedBy([] { fsRemove("X:/tree", fsRecursive); });
        isDone = true;
        changer.join();
        for (int i = 0; i < parts; ++i)
            ASSERT_TRUE(dir.has("kept/" + std::to_string(i))) << "round " << round;
        for (const char* rest : {"tree", "link"})
            std::filesystem::remove_all(dir.path(rest));
    }
    EXPECT_GT(changes, rounds);
}

TEST_F(Files, RemoveNothingFromADirectoryThatCannotBeRemovedItself)
{
    dir.write("tree/sub/file");
    for (const char* path : {"tree/sub/.", "tree/sub/.."})
        EXPECT_NE(raisedBy([&] { fsRemove(dir.path(path), fsRecursive); }).code, 0);
    EXPECT_TRUE(dir.has("tree/sub/file"));
}

TEST_F(Files, KeepNodesThatCannotBeRemoved)
{
    dir.write("tree/closed/file");
    for (const std::string& folder : {dir.path("tree"), dir.path()})
        std::filesystem::permissions(folder, std::filesystem::perms(0777));
    std::filesystem::permissions(dir.path("tree/closed/file"), std::filesystem::perms(0));

    expectSuccessInChild("needs the right to become another user", [] {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            return notAllowed;
        EXPECT_EQ(raisedBy([] { fsRemove("X:/tree", fsRecursive); }), Raised(9, "fsRemove", x("tree")));
        EXPECT_EQ(raisedBy([] { fsCreateDir("X:/tree/closed/new", fsSimple); }),
                  Raised(9, "fsCreateDir", x("tree/closed/new")));
        EXPECT_EQ(raisedBy([] { fsCalculateCheckSum("X:/tree/closed/file"); }),
                  Raised(9, "fsCalculateCheckSum", x("tree/closed/file")));
        return 0;
    });
    EXPECT_TRUE(dir.has("tree/closed/file"));
}

// ---- moving

TEST_F(Files, MoveWithoutReplacing)
{
    dir.write("from", "x");
    dir.write("to", "kept");

    EXPECT_EQ(raisedBy([] { fsMove("X:/from", "X:/to", fsSimple); }), Raised(7, "fsMove", x("to")));
    EXPECT_EQ(raisedBy([] { fsMove("X:/from", "X:/a/b", fsSimple); }), Raised(6, "fsMove", x("a/b")));
    fsMove("X:/from", "X:/a/b", fsRecursive);
    EXPECT_EQ(dir.read("a/b"), "x");
    EXPECT_EQ(dir.read("to"), "kept");
    fsMove("X:/a", "X:/moved", fsRecursive);
    EXPECT_EQ(dir.read("moved/b"), "x");
    EXPECT_EQ(raisedBy([] { fsMove("X:/none", "X:/new", fsRecursive); }), Raised(6, "fsMove", x("new")));
}

TEST_F(Files, RenameWithinADirectory)
{
    dir.write("d/old.txt", "x");
    dir.write("d/other", "kept");

    fsRename("X:/d/old.txt", "new.txt");
    EXPECT_EQ(dir.read("d/new.txt"), "x");
    EXPECT_EQ(raisedBy([] { fsRename("X:/d/new.txt", "other"); }), Raised(7, "fsRename", "(null)"));
    EXPECT_EQ(dir.read("d/other"), "kept");
    for (const char* name : {"a/b", "a\\b"})
        EXPECT_EQ(raisedBy([&] { fsRename("", name); }), Raised(4, "fsRename", name));
    const std::string path = "X:/" + std::string(200, 'd') + "/x";
    EXPECT_EQ(raisedBy([&] { fsRename(path.c_str(), std::string(60, 'n').c_str()); }),
              Raised(5, "fsRename", native(path)));
}

// ---- sizes and sums

TEST_F(Files, AreTruncatedAndExtendedToASize)
{
    dir.write("f", "0123456789");
    fsSetFileSize("X:/f", 10000);
    EXPECT_EQ(dir.read("f"), "0123456789" + std::string(9990, '\0'));
    fsSetFileSize("X:/f", 4.7);
    EXPECT_EQ(dir.read("f"), "0123");
    fsSetFileSize("X:/new", 5);
    EXPECT_EQ(dir.read("new"), std::string(5, '\0'));
    for (const double none : {-1.0, xnullreal, static_cast<double>(__builtin_nan("")), 1e19})
        EXPECT_EQ(raisedBy([&] { fsSetFileSize("X:/f", none); }), Raised(11, "fsSetFileSize", x("f")));
    EXPECT_EQ(raisedBy([&] { fsSetFileSize("X:/none/f", 1); }), Raised(6, "fsSetFileSize", x("none/f")));
    EXPECT_EQ(dir.read("f"), "0123");

    fsiFile writer;
    ASSERT_TRUE(writer.Open(dir.path("f"), fsWriteOnly));
    EXPECT_EQ(raisedBy([&] { fsSetFileSize("X:/f", 1); }), Raised(5, "fsSetFileSize", x("f")));
}

TEST_F(Files, ReportAFullDisk)
{
    const rlimit limit = {20000, 20000};
    const int code = runInChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
        return raisedBy([] {
                   fsSetFileSize("X:/f", 100);
                   fsSetFileSize("X:/f", 30000);
               })
            .code;
    });
    EXPECT_EQ(code, 11); // the limit of a file; a full disk has a separate number
    EXPECT_EQ(std::filesystem::file_size(dir.path("f")), 100u);
}

TEST_F(Files, ChecksumUsesSignedBytes)
{
    const struct
    {
        std::string bytes;
        unsigned sum;
    } rows[] = {{"", 0},
                {"\x01", 0x00010101},
                {"\x01\x02", 0x00020303},
                {"\xFF", 0xFFFFFFFF},
                {"\x80\x80", 0x00020000},
                {"\x80\x81\x82", 0xFFFFFF83}};
    for (const auto& row : rows) {
        dir.write("f", row.bytes);
        EXPECT_EQ(static_cast<unsigned>(fsCalculateCheckSum("X:/f")), row.sum);
    }

    // Against the definition, byte by byte, over a file of several blocks.
    std::string bytes;
    for (unsigned i = 0; i < 700001; ++i)
        bytes.push_back(static_cast<char>(i * 2654435761U >> 13));
    dir.write("f", bytes);
    unsigned sum = 0, x = 0, count = 0;
    for (const char c : bytes) {
        const auto b = static_cast<unsigned>(static_cast<int>(static_cast<signed char>(c)));
        sum = (sum + b) % 256;
        x ^= b;
        count = (count + 1) % 65536;
    }
    EXPECT_EQ(static_cast<unsigned>(fsCalculateCheckSum("X:/f")), (count << 16) | (sum << 8) | x);

    ASSERT_EQ(mkfifo(dir.path("pipe"), 0600), 0);
    EXPECT_EQ(raisedBy([] { fsCalculateCheckSum("X:/pipe"); }), Raised(9, "fsCalculateCheckSum", "X:\\pipe"));
}

// ---- directories and volumes

TEST_F(Files, TakeTheHomeDirectoryFromTwoVariables)
{
    const Raised none(11, "fsGetHomeDir", "(null)");
    {
        EnvSetting homeDrive("HOMEDRIVE", "C:"), homePath("HOMEPATH", "\\home\\me");
        EXPECT_TRUE(fsGetHomeDir() == "C:\\home\\me");
    }
    const std::string longest(255, 'p');
    EnvSetting homeDrive("HOMEDRIVE", "abc"), homePath("HOMEPATH", longest.c_str());
    EXPECT_TRUE(fsGetHomeDir() == ("abc" + longest).c_str());
    for (const auto& [variable, value] : {std::pair<const char*, const char*>{"HOMEDRIVE", nullptr},
                                          {"HOMEDRIVE", ""},
                                          {"HOMEDRIVE", "abcd"},
                                          {"HOMEPATH", nullptr},
                                          {"HOMEPATH", ""}}) {
        EnvSetting bad(variable, value);
        EXPECT_EQ(raisedBy([] { fsGetHomeDir(); }), none);
    }
    EnvSetting tooLong("HOMEPATH", (longest + "p").c_str());
    EXPECT_EQ(raisedBy([] { fsGetHomeDir(); }), none);
}

TEST_F(Files, TakeTheHomeDirectoryFromTheSystemsVariable)
{
    EnvSetting homeDrive("HOMEDRIVE", nullptr), homePath("HOMEPATH", nullptr);
    EnvSetting home("HOME", dir.path("C:me/").c_str());
    EXPECT_TRUE(fsGetHomeDir() == "X:\\C\xEF\x80\xBAme");
    for (const char* const none : {"", "relative", static_cast<const char*>(nullptr)}) {
        EnvSetting bad("HOME", none);
        EXPECT_EQ(raisedBy([] { fsGetHomeDir(); }), Raised(11, "fsGetHomeDir", "(null)"));
    }
}

TEST_F(Files, ChangeAndReportTheCurrentDirectory)
{
    const std::filesystem::path before = std::filesystem::current_path();
    dir.makeDir("sub/" + std::string(250, 'd'));
    fsChangeDir("X:/sub");
    EXPECT_TRUE(fsGetCurDir() == "X:\\sub");
    fsChangeDir(std::string(250, 'd').c_str());
    EXPECT_TRUE(fsGetCurDir() == ("X:\\sub\\" + std::string(250, 'd')).c_str());
    fsChangeDir("..\\..\\..\\.."); // not beyond the drive
    EXPECT_TRUE(fsGetCurDir() == "X:\\");
    EXPECT_EQ(raisedBy([] { fsChangeDir("no/such"); }), Raised(6, "fsChangeDir", "no/such"));
    std::filesystem::current_path(before);
}

TEST_F(Files, GetUniqueTemporaryNames)
{
    const xstring name = fsMkTmpName("X:\\", "job");
    EXPECT_TRUE(name.Match("X:\\job*"));
    EXPECT_EQ(fshGetSize(name.CastToCString()), 0.0);
    EXPECT_FALSE(fsMkTmpName("X:\\", "job") == name);
    EXPECT_EQ(raisedBy([] { fsMkTmpName("X:\\none", "job"); }), Raised(6, "fsMkTmpName", "X:\\none"));
    EXPECT_EQ(raisedBy([] { fsMkTmpName("X:\\", "../x"); }), Raised(4, "fsMkTmpName", "../x"));
    EXPECT_EQ(raisedBy([] { fsMkTmpName("X:\\", std::string(250, 'p').c_str()); }).code, 5);

    dir.makeDir("sub");
    EXPECT_TRUE(fsMkTmpName("X:/sub", "job").Match("X:\\sub\\job*"));
    const xstring directory = fsMkTmpDir("X:/sub", "job");
    EXPECT_TRUE(directory.Match("X:\\sub\\job*"));
    EXPECT_FALSE(fsMkTmpDir("X:/sub", "job") == directory);
    struct stat status;
    ASSERT_EQ(stat(fsPathToHost(directory.CastToCString()).CastToCString(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFDIR | 0700u);
    EXPECT_EQ(raisedBy([] { fsMkTmpDir("X:/none", "job"); }), Raised(6, "fsMkTmpDir", "X:/none"));
}

TEST_F(Files, ReportFreeSpaceOfThePathsVolume)
{
    // The drive's root is one file system, the target of a link in it another.
    const char* const elsewhere = "/dev/shm";
    const auto spaceOf = [](const char* host) {
        return static_cast<double>(std::filesystem::space(host).available);
    };
    ASSERT_TRUE(std::filesystem::is_directory(elsewhere));
    ASSERT_GT(std::abs(spaceOf(elsewhere) - spaceOf(dir.path())), 1e8) << "cannot be told apart";
    dir.link(elsewhere, "other");
    dir.write("file");
    EXPECT_NEAR(fsGetAvailableDiskSpace("X:/other/none/deep\\er"), spaceOf(elsewhere), 2e7);
    for (const char* const path : {"X:/", "X:/none/deeper", "X:/file", "X:file/x/", "\\"})
        EXPECT_GT(std::abs(fsGetAvailableDiskSpace(path) - spaceOf(elsewhere)), 5e7) << path;
    EXPECT_GT(fsGetAvailableDiskSpace("relative"), 0);
    EXPECT_EQ(raisedBy([] { fsGetAvailableDiskSpace("Q:/x"); }),
              Raised(6, "fsGetAvailableDiskSpace", "Q:\\x"));
}

TEST_F(Files, AreListedByPattern)
{
    dir.write("d/a.txt");
    dir.write("d/B.TXT");
    dir.makeDir("d/c.txt");

    EXPECT_EQ(setOf(fsListDirectory("X:/d", "*.txt")), (std::set<std::string>{"a.txt", "c.txt"}));
    EXPECT_EQ(setOf(fsListDirectory("X:/d", xnullstr)).size(), 3u);
    EXPECT_EQ(setOf(fsListDirectory("X:/d", "")).size(), 0u);
    EXPECT_EQ(raisedBy([] { fsListDirectory("X:/d/a.txt", "*"); }),
              Raised(6, "fsListDirectory", x("d/a.txt")));
}

TEST_F(Files, AreFoundByPatternsInEveryEntry)
{
    for (const char* name :
         {"one/log1.txt", "one/log22.txt", "two/log2.txt", "two/deep/log3.txt", "log4.txt"})
        dir.write(std::string("data/") + name);
    using Paths = std::set<std::string>;

    EXPECT_EQ(setOf(fsExpandPattern("X:/data/*/log?.txt")),
              (Paths{x("data/one/log1.txt"), x("data/two/log2.txt")}));
    EXPECT_EQ(setOf(fsExpandPattern("X:/data/two/*/*")), Paths{x("data/two/deep/log3.txt")});
    EXPECT_EQ(setOf(fsExpandPattern("X:/data/log4.txt")), Paths{x("data/log4.txt")});
    EXPECT_EQ(setOf(fsExpandPattern("X:/data/none.txt")), Paths{});
    EXPECT_EQ(setOf(fsExpandPattern("X:/data/*/log1.txt")), Paths{x("data/one/log1.txt")});
    EXPECT_EQ(setOf(fsExpandPattern("X:/d*")), Paths{x("data")});
    EXPECT_EQ(setOf(fsExpandPattern((dir.path() + "/d?ta/lo*").c_str())),
              Paths{native(dir.path("data/log4.txt"))});
    EXPECT_TRUE(setOf(fsExpandPattern("/*")).contains("\\tmp"));

    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path("data"));
    EXPECT_EQ(setOf(fsExpandPattern("*/log1.txt")), Paths{"one\\log1.txt"});
    EXPECT_EQ(setOf(fsExpandPattern("X:log*")), Paths{"X:log4.txt"});
    std::filesystem::current_path(before);

    const std::string longNames = std::string(200, 'l') + "/" + std::string(100, 'm');
    dir.write("data/" + longNames + "/x");
    EXPECT_EQ(setOf(fsExpandPattern("X:/data/l*/m*/x")), Paths{x("data/" + longNames + "/x")});
}

// ---- queries

TEST_F(Files, ReportKindSizeAndTimeOfNodes)
{
    dir.write("file", "123");
    dir.makeDir("sub");
    dir.link("nowhere", "dangling");
    dir.link("sub", "link");

    EXPECT_TRUE(fshIsFile("X:/file") && fshExists("X:/file") && !fshIsDirectory("X:/file"));
    EXPECT_TRUE(fshIsDirectory("X:/sub") && fshIsDirectory("X:/link") && !fshIsSoftLink("X:/link"));
    EXPECT_EQ(fshGetNodeType("X:/sub"), fsDirectory);
    EXPECT_EQ(fshGetSize("X:/file"), 3.0);
    tmTime* const modified = fshGetModTime("X:/file");
    EXPECT_NE(modified, nullptr);
    xdelete(modified);
    for (const char* absent : {"X:/none", "X:/dangling", "X:/file/x", "", "Q:/x", "C:a::b", xnullstr}) {
        EXPECT_EQ(static_cast<int>(fshGetNodeType(absent)), 3);
        EXPECT_EQ(fshGetSize(absent), xnullreal);
        EXPECT_EQ(fshGetModTime(absent), nullptr);
        EXPECT_FALSE(fshExists(absent) || fshIsFile(absent));
    }
    EXPECT_EQ(fsGetNodeInfo("X:/file")->getSize(), 3.0);
    EXPECT_EQ(raisedBy([] { fsGetNodeInfo("X:/none"); }), Raised(6, "fsGetNodeInfo", x("none")));
}
