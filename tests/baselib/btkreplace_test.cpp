#include <cstdint>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <qel/base/btkreplace.h>

#include "support/child.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

constexpr const char* accessList = "system.posix_acl_access";
constexpr const char* defaultList = "system.posix_acl_default";

/// An access list in the kernel's form: user rw, user 1000 rwx, group as given, mask rw, others none.
std::string listWith(std::uint16_t groupBits)
{
    std::string list("\2\0\0\0", 4);
    const auto add = [&list](std::uint16_t tag, std::uint16_t bits, std::uint32_t id) {
        list.append(reinterpret_cast<const char*>(&tag), 2).append(reinterpret_cast<const char*>(&bits), 2);
        list.append(reinterpret_cast<const char*>(&id), 4);
    };
    add(1, 6, ~0U);
    add(2, 7, 1000);
    add(4, groupBits, ~0U);
    add(16, 6, ~0U);
    add(32, 0, ~0U);
    return list;
}

std::string attribute(const char* path, const char* name)
{
    char value[1000];
    const ssize_t size = getxattr(path, name, value, sizeof value);
    return size < 0 ? "(none)" : std::string(value, static_cast<std::size_t>(size));
}

bool setAttribute(const char* path, const char* name, const std::string& value)
{
    return setxattr(path, name, value.data(), value.size(), 0) == 0;
}

unsigned modeOf(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 ? status.st_mode & 07777U : 0U;
}

class Replacement : public testing::Test
{
protected:
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path().c_str()))
            all.push_back(entry.path().filename().string());
        std::sort(all.begin(), all.end());
        return all;
    }

    TempDir dir;
    btkFd folder{open(dir.path(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
};

} // namespace

TEST_F(Replacement, ReplacesTheFileInOneStepOrIsRemoved)
{
    dir.write("a", "old");
    {
        btkReplacement next;
        ASSERT_TRUE(next.Create(folder.Get(), btkReplacement::Named));
        ASSERT_TRUE(next.Write("new", 3));
        const std::vector<std::string> both = names();
        ASSERT_EQ(both.size(), 2u);
        EXPECT_EQ(both[0].find_first_not_of("0123456789abcdef", 8), std::string::npos) << both[0];
        EXPECT_EQ(both[0].size(), 24u);
        EXPECT_EQ(modeOf(dir.path(both[0])), 0600u);
        EXPECT_EQ(runInChild([&] { return next.~btkReplacement(), 0; }), 0);
        EXPECT_EQ(names(), both) << "a forked child has removed it";

        EXPECT_FALSE(next.TakePlace("a", btkReplacement::Synced, btkReplacement::Kept));
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(dir.read("a"), "old");
        ASSERT_TRUE(next.TakePlace("a"));
        EXPECT_EQ(names(), std::vector<std::string>{"a"});
    }
    EXPECT_EQ(dir.read("a"), "new");
    {
        btkReplacement dropped, kept;
        ASSERT_TRUE(dropped.Create(folder.Get()) && kept.Create(folder.Get()));
        EXPECT_TRUE(kept.TakePlace("b", btkReplacement::Unsynced, btkReplacement::Kept));
    }
    EXPECT_EQ(names(), (std::vector<std::string>{"a", "b"}));
}

TEST_F(Replacement, HasNoNameUntilItReplacesAFile)
{
    dir.write("a", "old");
    btkReplacement next, replacing;
    ASSERT_TRUE(next.Create(folder.Get()) && replacing.Create(folder.Get()));
    if (next.IsNamed())
        GTEST_SKIP() << "needs a file system with files without names";
    EXPECT_EQ(names(), std::vector<std::string>{"a"});

    EXPECT_FALSE(next.TakePlace("a", btkReplacement::Unsynced, btkReplacement::Kept));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(dir.read("a"), "old");
    EXPECT_TRUE(next.TakePlace("b", btkReplacement::Unsynced, btkReplacement::Kept));
    ASSERT_TRUE(replacing.Write("new", 3));
    dir.makeDir("c");
    EXPECT_FALSE(replacing.TakePlace("c"));
    EXPECT_TRUE(replacing.TakePlace("a"));
    EXPECT_EQ(dir.read("a"), "new");
    EXPECT_TRUE(btkReplaceByLink(folder.Get(), "any/text", "b"));
    EXPECT_EQ(std::filesystem::read_symlink(dir.path("b")), "any/text");
    EXPECT_FALSE(btkReplaceByLink(folder.Get(), "any/text", "c"));
    EXPECT_EQ(names(), (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(Replacement, RemovesOnlyLeftoversOfDeadProcesses)
{
    EXPECT_EQ(runInChild([&] {
                  static btkReplacement left;
                  return left.Create(folder.Get(), btkReplacement::Named) ? 0 : 1;
              }),
              0);
    ASSERT_EQ(names().size(), 1u);
    btkReplacement inUse;
    ASSERT_TRUE(inUse.Create(folder.Get(), btkReplacement::Named));
    dir.write(".qelnew-mine");
    dir.write(".config.new");
    dir.makeDir(".qelnew-0123456789abcdef");
    dir.link(".config.new", ".qelnew-0123456789abcdee");
    dir.link(".config.new", ".qelnew-0123456789abcdef1");
    dir.link(".config.new", ".qelnew-0123456789abcded");
    const timespec longAgo[2] = {};
    for (const char* old : {".qelnew-0123456789abcdef1", ".qelnew-0123456789abcded"})
        ASSERT_EQ(utimensat(folder.Get(), old, longAgo, AT_SYMLINK_NOFOLLOW), 0);

    btkReplacement next; // gets a name when it replaces a file
    EXPECT_TRUE(next.Create(folder.Get()) && next.TakePlace("next"));
    EXPECT_EQ(names().size(), 7u);
    EXPECT_FALSE(dir.has(".qelnew-0123456789abcded"));
    EXPECT_TRUE(inUse.TakePlace("placed"));
}

TEST_F(Replacement, TakesOverModeListsAndAttributes)
{
    const std::string list = listWith(4);
    dir.write("old");
    dir.makeDir("oldFolder");
    if (!setAttribute(dir.path("old"), accessList, list) || !setAttribute(dir.path("old"), "user.a", "1"))
        GTEST_SKIP() << "needs a file system with access lists";
    ASSERT_TRUE(setAttribute(dir.path("oldFolder"), defaultList, list));
    chmod(dir.path("oldFolder"), 03775);
    dir.write("plain");
    chmod(dir.path("plain"), 0640);
    ASSERT_TRUE(setAttribute(dir.path(), defaultList, listWith(7))); // inherited by files created from now on
    dir.makeDir("folder");
    dir.makeDir("plainFolder");
    ASSERT_NE(attribute(dir.path("plainFolder"), accessList), "(none)");

    const auto open = [&](const char* name) { return btkFd(::open(dir.path(name), O_RDONLY | O_CLOEXEC)); };
    btkReplacement withList, without;
    ASSERT_TRUE(withList.Create(folder.Get()) && without.Create(folder.Get()));
    EXPECT_TRUE(btkCopyOwner(open("old").Get(), withList.Get()));
    EXPECT_TRUE(btkCopyRights(open("old").Get(), withList.Get()));
    EXPECT_TRUE(btkCopyRights(open("plain").Get(), without.Get()));
    EXPECT_TRUE(withList.TakePlace("new") && without.TakePlace("newPlain"));
    EXPECT_EQ(attribute(dir.path("new"), accessList), list);
    EXPECT_EQ(attribute(dir.path("new"), "user.a"), "1");
    EXPECT_EQ(modeOf(dir.path("new")), 0660u); // the mask
    EXPECT_EQ(attribute(dir.path("newPlain"), accessList), "(none)");
    EXPECT_EQ(modeOf(dir.path("newPlain")), 0640u);

    EXPECT_TRUE(btkCopyRights(open("oldFolder").Get(), open("folder").Get(), 07777));
    EXPECT_EQ(attribute(dir.path("folder"), defaultList), list);
    EXPECT_EQ(attribute(dir.path("folder"), accessList), "(none)");
    EXPECT_EQ(modeOf(dir.path("folder")), 03775u);
    dir.makeDir("oldPlainFolder");
    removexattr(dir.path("oldPlainFolder"), accessList);
    removexattr(dir.path("oldPlainFolder"), defaultList);
    EXPECT_TRUE(btkCopyRights(open("oldPlainFolder").Get(), open("plainFolder").Get()));
    EXPECT_EQ(attribute(dir.path("plainFolder"), defaultList), "(none)");
}

TEST_F(Replacement, GrantsNoFurtherRightsWhereAccessListsAreMissing)
{
    dir.write("old");
    dir.makeDir("bare");
    if (!setAttribute(dir.path("old"), accessList, listWith(4)))
        GTEST_SKIP() << "needs a file system with access lists";
    EXPECT_EQ(modeOf(dir.path("old")), 0660u);
    const int mode = runInChild([&] {
        if (!enterOwnMounts() || mount("none", dir.path("bare"), "ramfs", 0, nullptr) != 0)
            return notAllowed;
        const btkFd bare(open(dir.path("bare"), O_PATH | O_DIRECTORY));
        const btkFd old(open(dir.path("old"), O_RDONLY));
        btkReplacement next;
        const bool done =
            next.Create(bare.Get()) && btkCopyRights(old.Get(), next.Get()) && next.TakePlace("new");
        return done ? static_cast<int>(modeOf(dir.path("bare/new")) >> 3) : 1;
    });
    if (mode == notAllowed)
        GTEST_SKIP() << "needs the right to mount";
    EXPECT_EQ(mode, 064) << "the group had r-- within the mask rw-";
}
