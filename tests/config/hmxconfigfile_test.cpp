#include <sys/stat.h>
#include <unistd.h>

#include <qel/hmxconfigfile.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "configsupport.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/test.h"

// ---- reading and writing

TEST_F(Config, IsReadLineByLine)
{
    dir.write("config", "b:2\na : 1\njunk\n:no key\nb:3\nk:\n \t:blank key\na b:x:y\nlast: no line end");
    hmxConfigFile file;
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadOnly));
    EXPECT_TRUE(file.IsOpened());

    EXPECT_EQ(textOf(file.GetValue("a")), " 1");
    EXPECT_EQ(textOf(file.GetValue("b")), "3"); // the last line with a key counts
    EXPECT_EQ(textOf(file.GetValue("a\tb")), "x:y");
    EXPECT_EQ(textOf(file.GetValue("last")), " no line end");
    for (const char* none : {"junk", "k", "", "B", static_cast<const char*>(nullptr), xnullstr})
        EXPECT_EQ(textOf(file.GetValue(none)), "(null)");
    EXPECT_FALSE(file.SetValue("a", "2"));
    EXPECT_FALSE(file.DeleteValue("a"));
    file.Close();
    EXPECT_EQ(textOf(file.GetValue("a")), "(null)");
    EXPECT_NE(content().find("junk"), std::string::npos);
}

TEST_F(Config, IsWrittenBackInTheOrderOfItsKeysWhenItChanged)
{
    dir.write("config", "b:2\na : 1\njunk\n\xFF:high\n");
    hmxConfigFile file;
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    file.Close();
    EXPECT_EQ(content(), "b:2\na : 1\njunk\n\xFF:high\n"); // untouched

    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    EXPECT_TRUE(file.SetValue(" z ", "9"));
    EXPECT_TRUE(file.SetValue("b", "two"));
    EXPECT_TRUE(file.SetValue("null", nullptr));
    EXPECT_TRUE(file.SetValue("empty", ""));
    EXPECT_TRUE(file.SetValue("Capital", "\r"));
    EXPECT_TRUE(file.SetValue("co:lon", "x"));
    EXPECT_EQ(textOf(file.GetValue("b")), "two");
    EXPECT_EQ(textOf(file.GetValue("empty")), "");
    file.Close();
    EXPECT_EQ(content(), "Capital:\r\na: 1\nb:two\nco:lon:x\nempty:\nnull:nil\nz:9\n\xFF:high\n");

    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    EXPECT_EQ(textOf(file.GetValue("co")), "lon:x");
    EXPECT_EQ(textOf(file.GetValue("null")), "nil");
    EXPECT_EQ(textOf(file.GetValue("empty")), "(null)");
    EXPECT_TRUE(file.DeleteValue("z"));
    EXPECT_FALSE(file.DeleteValue("z"));
    for (const char* key : {"null", "empty", "Capital", "co", "b", "\xFF"})
        EXPECT_TRUE(file.DeleteValue(key));
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadOnly)); // closes first, which writes
    EXPECT_EQ(content(), "a: 1\n");
}

TEST_F(Config, ListsItsKeysInTheOrderOfTheLines)
{
    dir.write("config", "z:1\nremark\nb:2\na : 3\nz:4\n");
    hmxConfigFile file;
    EXPECT_EQ(listOf(file), "");
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    EXPECT_EQ(listOf(file), "b=2;a= 3;z=4;"); // z at its effective line
    EXPECT_EQ(file.GetOffset("b"), 11);
    EXPECT_EQ(file.GetOffset(xstring("a")), 15);
    EXPECT_EQ(file.GetOffset("z"), 21);
    EXPECT_EQ(file.GetOffset("remark"), -1);

    EXPECT_TRUE(file.SetValue("y", "new"));
    EXPECT_TRUE(file.SetValue("b", nullptr));
    EXPECT_TRUE(file.SetValue("k", "newer"));
    EXPECT_TRUE(file.DeleteValue("a"));
    EXPECT_EQ(listOf(file), "b=(null);z=4;y=new;k=newer;");
    EXPECT_EQ(file.GetOffset("b"), 11);
    EXPECT_EQ(file.GetOffset("y"), -1);
    file.Close();
    EXPECT_EQ(listOf(file), "");
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadOnly));
    EXPECT_EQ(listOf(file), "b=nil;k=newer;y=new;z=4;");
}

namespace {

struct NothingFound : hmxConfigOddityHandler
{
    void Invoke(hmxConfigOddity, long long, const char*, long long) override { ADD_FAILURE(); }
} nothing;

} // namespace

TEST_F(Config, ReportsWhyItCannotBeRead)
{
    dir.makeDir("sub");
    EXPECT_FALSE(hmxConfigFile::Check(path(), nothing));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(hmxConfigFile::Check(dir.path("none/config").c_str(), nothing));
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(hmxConfigFile::Check(dir.path("sub").c_str(), nothing));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    hmxConfigFile file;
    EXPECT_FALSE(file.Open(path(), hmxConfigFile::ReadOnly));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_TRUE(file.CloseChecked());
}

TEST_F(Config, RejectsEntriesThatWouldBeReadBackDifferently)
{
    dir.write("config", "a:1\n");
    hmxConfigFile file;
    EXPECT_FALSE(file.SetValue("a", "2")); // closed
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    for (const char* key : {"", " \t", "x\ny", static_cast<const char*>(nullptr), xnullstr})
        EXPECT_FALSE(file.SetValue(key, "v"));
    EXPECT_FALSE(file.SetValue("a", "1\nb:2"));
    file.Close();
    EXPECT_EQ(content(), "a:1\n");
}

TEST_F(Config, KeepsZeroAndNonAsciiBytesAndFilesBesideIt)
{
    const std::string odd("\0:zero\0value\na\0b:\xFF\xFE\n", 20);
    dir.write("config", odd);
    dir.write(".config.new", "the user's");
    EXPECT_TRUE(update("z", "1"));
    EXPECT_EQ(content(), odd + "z:1\n");
    EXPECT_EQ(dir.read(".config.new"), "the user's");
}

TEST_F(Config, HoldsManyAndLongLines)
{
    std::string expected, longest(3000000, 'v');
    {
        hmxConfigFile file;
        ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite)); // created, as it is missing
        for (int i = 19999; i >= 0; --i)
            file.SetValue(std::to_string(100000 + i).c_str(), std::to_string(i).c_str());
        file.SetValue("long", longest.c_str());
    }
    hmxConfigFile file;
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    for (int i = 0; i < 20000; i += 3) // from some number of finds on by another way
        EXPECT_EQ(textOf(file.GetValue(std::to_string(100000 + i).c_str())), std::to_string(i));
    EXPECT_EQ(textOf(file.GetValue("missing")), "(null)");
    EXPECT_TRUE(file.SetValue("100001", "changed"));
    EXPECT_EQ(textOf(file.GetValue("100001")), "changed");
    EXPECT_TRUE(file.DeleteValue("100001"));
    EXPECT_EQ(textOf(file.GetValue("100001")), "(null)");
    for (int i = 0; i < 20000; i += 3)
        EXPECT_EQ(textOf(file.GetValue(std::to_string(100000 + i).c_str())), std::to_string(i));
    EXPECT_TRUE(file.SetValue("missing", "added"));
    EXPECT_EQ(textOf(file.GetValue("missing")), "added");
    EXPECT_TRUE(file.SetValue("100001", "1"));
    EXPECT_TRUE(file.DeleteValue("missing"));
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadOnly)); // without what it found before
    EXPECT_EQ(textOf(file.GetValue("long")), longest);
    EXPECT_EQ(file.GetOffset("long"), static_cast<long long>(content().size() - longest.size() - 6));
}

TEST_F(Config, OpensRegularFilesOnly)
{
    dir.makeDir("sub");
    ASSERT_EQ(mkfifo(dir.path("pipe"), 0600), 0);
    hmxConfigFile file;
    for (const char* none : {"sub", "pipe", "missing/x"})
        for (const auto mode : {hmxConfigFile::ReadOnly, hmxConfigFile::ReadWrite}) {
            EXPECT_FALSE(file.Open(dir.path(none), mode)) << none;
            EXPECT_FALSE(file.IsOpened());
        }
    EXPECT_FALSE(file.Open(path(), hmxConfigFile::ReadOnly));
    EXPECT_FALSE(file.Open(nullptr, hmxConfigFile::ReadWrite));
    EXPECT_FALSE(dir.has("config"));
    file.Close();
}

TEST_F(Config, AcceptsNativePaths)
{
    EnvSetting drive("QELSTD_DRIVE_X", dir.path());
    hmxConfigFile file;
    ASSERT_TRUE(file.Open("X:\\config", hmxConfigFile::ReadWrite));
    file.SetValue("a", "1");
    file.Close();
    EXPECT_EQ(content(), "a:1\n");
}

// ---- replacing the file

TEST_F(Config, KeepsModeLinksAndOtherNames)
{
    dir.write("real/config", "a:1\n");
    dir.link("real/config", "config");
    chmod(dir.path("real/config"), 0604);
    EXPECT_TRUE(update("b", "2"));
    EXPECT_TRUE(std::filesystem::is_symlink(path()));
    struct stat status;
    ASSERT_EQ(stat(path(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0604u);
    EXPECT_EQ(dir.read("real/config"), "a:1\nb:2\n");

    std::filesystem::create_hard_link(dir.path("real/config"), dir.path("other"));
    EXPECT_TRUE(update("c", "3"));
    EXPECT_EQ(dir.read("other"), "a:1\nb:2\nc:3\n");
}

TEST_F(Config, IsWrittenInPlaceInAReadOnlyDirectory)
{
    dir.write("config", "long:content that gets shorter\n");
    chmod(path(), 0666);
    chmod(dir.path(), 0755);
    for (const bool isWritable : {true, false}) {
        expectSuccessInChild("needs the right to become another user", [&] {
            if (setuid(65534) != 0)
                return notAllowed;
            hmxConfigFile file;
            EXPECT_EQ(file.Open(path(), hmxConfigFile::ReadWrite), isWritable);
            file.DeleteValue("long");
            file.SetValue("a", "1");
            return 0;
        });
        chmod(path(), 0644);
    }
    EXPECT_EQ(content(), IsSkipped() ? "long:content that gets shorter\n" : "a:1\n");
}

TEST_F(Config, RelativePathKeepsItsMeaningWhenTheCurrentDirectoryChanges)
{
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    {
        hmxConfigFile file;
        ASSERT_TRUE(file.Open("config", hmxConfigFile::ReadWrite));
        std::filesystem::current_path(before);
        file.SetValue("a", "1");
    }
    EXPECT_EQ(content(), "a:1\n");
}

TEST_F(Config, FailsOnAnUnreadableFile)
{
    hmxConfigFile file;
    EXPECT_FALSE(file.Open("/proc/self/mem", hmxConfigFile::ReadOnly));
    EXPECT_FALSE(file.IsOpened());
    EXPECT_NE(GetLastError(), 0u);
    EXPECT_FALSE(hmxConfigFile::Check("/proc/self/mem", nothing));
}

TEST_F(Config, KeepsItsOwnerWhenTheSuperuserChangesIt)
{
    dir.write("config", "a:1\n");
    if (chown(path(), 65534, 65533) != 0)
        GTEST_SKIP() << "needs the right to give files away";
    hmxConfigFile file;
    ASSERT_TRUE(file.Open(path(), hmxConfigFile::ReadWrite));
    file.SetValue("a", "2");
    EXPECT_TRUE(file.CloseChecked());
    struct stat now = {};
    EXPECT_EQ(stat(path(), &now), 0);
    EXPECT_EQ(now.st_uid, 65534u);
    EXPECT_EQ(now.st_gid, 65533u);
    EXPECT_EQ(content(), "a:2\n");
}

TEST_F(Config, OthersEditsAreNotOverwritten)
{
    constexpr unsigned changedByOthers = ERROR_FILE_INVALID;
    hmxConfigFile file;
    const auto open = [&](int names) {
        std::filesystem::remove(dir.path("other"));
        dir.write("config", "a:1\n");
        if (names == 2)
            std::filesystem::create_hard_link(path(), dir.path("other"));
        return file.Open(path(), hmxConfigFile::ReadWrite) && file.SetValue("a", "ours");
    };
    for (const int links : {1, 2}) {
        ASSERT_TRUE(open(links));
        dir.write("new", "a:theirs\n");
        std::filesystem::rename(dir.path("new"), path()); // as editors do
        EXPECT_FALSE(file.CloseChecked());
        EXPECT_EQ(GetLastError(), changedByOthers);
        EXPECT_EQ(content(), "a:theirs\n");

        ASSERT_TRUE(open(links));
        dir.write("config", "a:theirs\n");
        EXPECT_FALSE(file.CloseChecked());
        EXPECT_EQ(GetLastError(), changedByOthers);
        EXPECT_EQ(content(), "a:theirs\n");
        EXPECT_EQ(nodes(), links);

        ASSERT_TRUE(open(links));
        chmod(path(), 0640);
        std::filesystem::remove(path());
        EXPECT_TRUE(file.CloseChecked());
        EXPECT_EQ(content(), "a:ours\n");
        struct stat status = {};
        EXPECT_EQ(stat(path(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0640u);
    }
}
