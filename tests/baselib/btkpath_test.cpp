
#include <qel/base/btkpath.h>
#include <qel/platform/directories.h>

#include "support/environment.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

std::string hostOf(const std::string& path)
{
    std::string host = "(refused)";
    btkHostPath(path.c_str(), host);
    return host;
}

/// Changes the current directory to `directory` during its lifetime.
class InDirectory
{
public:
    explicit InDirectory(const std::string& directory)
    {
        before = std::filesystem::current_path();
        std::filesystem::current_path(directory);
    }
    ~InDirectory() { std::filesystem::current_path(before); }

private:
    std::filesystem::path before;
};

} // namespace

TEST(PathMapping, MapsDriveCToTheRoot)
{
    EnvSetting plain("QELSTD_DRIVE_C", nullptr);

    EXPECT_EQ(hostOf("C:\\a\\b"), "/a/b");
    EXPECT_EQ(hostOf("c:/a\\b/"), "/a/b/");
    EXPECT_EQ(hostOf("\\a"), "/a");
    EXPECT_EQ(hostOf("C:\\"), "/");
    EXPECT_EQ(hostOf("a\\..\\b"), "a/../b");
    EXPECT_EQ(hostOf("C:x\\y"), "x/y");
    EXPECT_EQ(hostOf("C:"), ".");
}

TEST(PathMapping, RejectsMissingDrivesAndInvalidPaths)
{
    EnvSetting none("QELSTD_DRIVE_E", nullptr), relative("QELSTD_DRIVE_F", "some/where");
    std::string host;

    for (const char* path : {"E:\\a", "F:\\a", "", static_cast<const char*>(nullptr)}) {
        errno = 0;
        EXPECT_FALSE(btkHostPath(path, host));
        EXPECT_EQ(errno, ENOTDIR);
    }
    EXPECT_EQ(hostOf("ab:c"), "ab:c"); // no drive: two characters before the colon
}

TEST(PathMapping, RootsDrivesAtTheirVariables)
{
    EnvSetting c("QELSTD_DRIVE_C", "/srv/c/"), d("QELSTD_DRIVE_D", "/mnt/d"), e("QELSTD_DRIVE_E", "/");

    EXPECT_EQ(hostOf("C:\\a"), "/srv/c/a");
    EXPECT_EQ(hostOf("C:\\"), "/srv/c/");
    EXPECT_EQ(hostOf("d:\\a\\b"), "/mnt/d/a/b");
    EXPECT_EQ(hostOf("D:x"), "/mnt/d/x"); // the current directory is not on D
    EXPECT_EQ(hostOf("E:\\a\\..\\b"), "/a/../b");
}

TEST(PathMapping, KeepsUpStepsInsideARerootedDrive)
{
    TempDir dir;
    dir.makeDir("root/in");
    const std::string root = std::filesystem::canonical(dir.path("root")).string();
    EnvSetting d("QELSTD_DRIVE_D", root.c_str());

    EXPECT_EQ(hostOf("D:\\..\\..\\etc\\x"), root + "/etc/x");
    EXPECT_EQ(hostOf("D:\\a\\.\\b\\..\\c"), root + "/a/c");
    EXPECT_EQ(hostOf("D:\\.."), root);
    EXPECT_EQ(hostOf("D:\\..a\\b..\\..."), root + "/..a/b../...");

    InDirectory inside(root + "/in");
    EXPECT_EQ(hostOf("..\\..\\..\\x"), root + "/x");
    EXPECT_EQ(hostOf("D:..\\y"), root + "/y");
    EXPECT_EQ(hostOf("D:y"), "y");
    EXPECT_EQ(hostOf("\\y"), root + "/y");
}

TEST(PathMapping, ShowsTheCurrentDirectoryOnTheDriveWithTheLongestRoot)
{
    TempDir dir;
    dir.makeDir("d/sub");
    dir.makeDir("dd");
    const std::string base = std::filesystem::canonical(dir.path()).string();
    EnvSetting d("QELSTD_DRIVE_D", (base + "/d").c_str());
    char shown[1000];

    for (auto [host, native] : {std::pair{"/d/sub", std::string("D:\\sub")}, {"/d", std::string("D:\\")}}) {
        InDirectory there(base + host);
        ASSERT_GT(GetCurrentDirectoryA(sizeof shown, shown), 0u);
        EXPECT_EQ(shown, native);
    }
    InDirectory beside(base + "/dd");
    const DWORD length = GetCurrentDirectoryA(sizeof shown, shown);
    EXPECT_EQ(std::string(shown).substr(0, 3), "C:\\");
    EXPECT_EQ(length, std::string(shown).size());
    EXPECT_EQ(GetCurrentDirectoryA(length, shown), length + 1);

    EnvSetting c("QELSTD_DRIVE_C", "/nowhere");
    EXPECT_EQ(GetCurrentDirectoryA(sizeof shown, shown), 0u);
    EXPECT_EQ(errno, ENODEV);
}

TEST(PathMapping, MapsEverySystemNameToADistinctForm)
{
    const std::string bs = "\xEF\x81\x9C", escape = "\xEF\x81\x9D", colon = "\xEF\x80\xBA";
    EXPECT_EQ(btkNativeName("a\\b"), "a" + bs + "b");
    EXPECT_EQ(hostOf("C:\\d\\a" + bs + "b"), "/d/a\\b");
    EXPECT_EQ(btkHostName(escape + "x"), escape + "x");
    EXPECT_EQ(btkNativeName("C:note"), "C" + colon + "note");
    EXPECT_EQ(btkNativeName("d:/ab:c/:x/e:"), "d" + colon + "/ab:c/:x/e" + colon);
    EXPECT_EQ(btkNativeName("a::b:::"), "a" + colon + colon + "b" + colon + colon + colon);
    EXPECT_EQ(hostOf("C" + colon + "note"), "C:note");
    EXPECT_EQ(hostOf("C:\\d\\c:note"), "/d/c:note");

    // All names of up to four of these, with the difficult ones side by side.
    const std::string pieces[] = {"\\", ":", bs, colon, escape, "\xEF\x81", "x"};
    std::set<std::string> names{""}, shown;
    for (int length = 0; length < 4; ++length)
        for (const std::string& name : std::set<std::string>(names))
            for (const std::string& piece : pieces)
                names.insert(name + piece);
    for (const std::string& name : names) {
        const std::string native = btkNativeName(name);
        EXPECT_EQ(native.find('\\'), std::string::npos);
        EXPECT_EQ(native.find("::"), std::string::npos);
        EXPECT_NE(native.substr(0, 2), "x:");
        EXPECT_EQ(btkHostName(native), name);
        shown.insert(native);
    }
    EXPECT_EQ(shown.size(), names.size());
}

TEST(PathMapping, SystemPathsFindTheSameNodes)
{
    const std::string colon = "\xEF\x80\xBA", bs = "\xEF\x81\x9C";
    const auto pathOf = [](const std::string& host) {
        std::string path = "(refused)";
        btkPathOfHost(host, path);
        return path;
    };
    EXPECT_EQ(pathOf("/a/C:x/y\\z"), "/a/C" + colon + "x/y" + bs + "z");
    EXPECT_EQ(pathOf("../C:x"), "../C" + colon + "x");

    EnvSetting c("QELSTD_DRIVE_C", "/srv/c"), d("QELSTD_DRIVE_D", "/srv/c/d");
    EXPECT_EQ(pathOf("/srv/c/a/C:x"), "C:\\a\\C" + colon + "x");
    EXPECT_EQ(pathOf("/srv/c/d/../a"), "C:\\a");
    EXPECT_EQ(pathOf("a/C:x"), "a/C" + colon + "x");
    EXPECT_EQ(pathOf("/etc"), "(refused)");
}
