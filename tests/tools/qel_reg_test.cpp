#include <gtest/gtest.h>

#include "support/environment.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"

namespace {

class QelReg : public testing::Test
{
protected:
    TempDir dir;
    EnvSetting store{"QELSTD_REGISTRY", dir.path("store").c_str()};
};

} // namespace

TEST_F(QelReg, KeepsValuesUnderBothRoots)
{
    EXPECT_EQ(Qel("reg list").output, "");
    EXPECT_EQ(Qel("reg set 'Software\\VRX' MaxFields 10").output, "");
    EXPECT_EQ(Qel("reg set --system 'Software\\VRX' MaxFields 20").output, "");
    EXPECT_EQ(Qel("reg get 'software\\vrx' MAXFIELDS").output, "10\n");
    EXPECT_EQ(Qel("reg get --user --json 'Software\\VRX' MaxFields").output, "\"10\"\n");
    EXPECT_EQ(Qel("reg get --system 'Software\\VRX' MaxFields").output, "20\n");

    EXPECT_EQ(Qel("reg set 'Software\\VRX' '' 'two\nlines'").output, "");
    EXPECT_EQ(Qel("reg get 'Software\\VRX' ''").output, "two\nlines\n");
    EXPECT_EQ(Qel("reg set '\\' 'of the root' x").output, "");
    EXPECT_EQ(Qel("reg get '\\' 'Of The Root'").output, "x\n");
    EXPECT_EQ(Qel("reg delete 'Software\\VRX' MaxFields").output, "");
    EXPECT_EQ(Qel("reg get 'Software\\VRX' MaxFields").output,
              "qel reg get: Software\\VRX, MaxFields: no such value\n");
    EXPECT_EQ(Qel("reg get --system 'Software\\VRX' MaxFields").status, 0);
    EXPECT_EQ(Qel("reg get 'Software\\None' x").output, "qel reg get: Software\\None: no such key\n");
}

TEST_F(QelReg, ListsKeysAndValues)
{
    Qel("reg set 'Software\\VRX\\files' ConnectionAllowed '10.* 192.168.0.1'");
    Qel("reg set 'Software\\VRX' '' 'no name'");
    Qel("reg set 'Software' 'b\x1b[2J' 'esc\x1b[2Jape'");
    dir.write("store/User/software/damaged.value", "no head");
    EXPECT_EQ(Qel("reg list Software").output, "b[2J = esc[2Jape\ndamaged (no text)\nVRX\\\n");
    EXPECT_EQ(Qel("reg list --all").output, "Software\\\n"
                                            "  b[2J = esc[2Jape\n"
                                            "  damaged (no text)\n"
                                            "  VRX\\\n"
                                            "    (no name) = no name\n"
                                            "    files\\\n"
                                            "      ConnectionAllowed = 10.* 192.168.0.1\n");
    EXPECT_EQ(Qel("reg list --json Software").output,
              "{\n  \"values\": {\n    \"b\\u001b[2J\": \"esc\\u001b[2Jape\",\n    \"damaged\": null\n  },\n"
              "  \"keys\": [\n    \"VRX\"\n  ]\n}\n");
    EXPECT_EQ(Qel("reg list 'Software\\VRX\\files' --all --json").output,
              "{\n  \"values\": {\n    \"ConnectionAllowed\": \"10.* 192.168.0.1\"\n  },\n"
              "  \"keys\": {}\n}\n");
    const Outcome damaged = Qel("reg get Software damaged");
    EXPECT_EQ(damaged.status, 3);
    EXPECT_EQ(damaged.output, "qel reg get: Software, damaged: damaged file\n");
    EXPECT_EQ(Qel("reg list --all >/dev/full").status, 3);
}

TEST_F(QelReg, DeletesAKeyWithSubkeysOnlyOnRequest)
{
    Qel("reg set 'A\\B\\C' x 1");
    Qel("reg set 'A\\D' x 1");
    const Outcome refused = Qel("reg delete A");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "qel reg delete: A: has subkeys; --all deletes them too\n");
    EXPECT_EQ(Qel("reg delete 'A\\D'").output, "");
    EXPECT_EQ(Qel("reg list --all").output, "A\\\n  B\\\n    C\\\n      x = 1\n");
    EXPECT_EQ(Qel("reg delete --all 'A\\'").output, "");
    EXPECT_EQ(Qel("reg list --all").output, "");
    EXPECT_EQ(Qel("reg delete A").output, "qel reg delete: A: no such key\n");
    EXPECT_EQ(Qel("reg delete 'A\\B'").output, "qel reg delete: A: no such key\n");
    EXPECT_EQ(Qel("reg delete '\\'").status, 2);
}

TEST_F(QelReg, DeletesNothingOutsideTheStore)
{
    Qel("reg set 'A\\B' x 1");
    dir.write("outside/sub/file", "the user's");
    dir.link(dir.path("outside"), "store/User/a/linked");
    dir.link("/", "store/User/a/b/root");
    dir.link("..", "store/User/a/b/parent");
    EXPECT_EQ(Qel("reg list --all").output, "A\\\n  B\\\n    x = 1\n");
    const Outcome refused = Qel("reg delete --all A");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output,
              "qel reg delete: A\\B: its folder holds files or links that are not the registry's\n");
    EXPECT_EQ(dir.read("outside/sub/file"), "the user's");
    EXPECT_EQ(Qel("reg get 'A\\B' x").output, "1\n");
    EXPECT_EQ(Qel("reg list 'A\\linked'").output, "qel reg list: A\\linked: not a directory\n");
}

TEST_F(QelReg, RejectsRightsThatCanNeverApply)
{
    for (const char* const name : {"my.server", "a:1", "a/b", "a*", "a?"})
        for (const char* const root : {"--system", "--user"}) {
            const Outcome refused = Qel(std::string("reg set ") + root + " 'SOFTWARE\\vrx\\" + name +
                                        "' connectionallowed '10.*'");
            EXPECT_EQ(refused.status, 2);
            EXPECT_EQ(refused.output, std::string("qel reg set: ") + name +
                                          ": no rights can be set for a server whose name holds one of / . : "
                                          "* ?: it admits everybody\n");
        }
    EXPECT_FALSE(dir.has("store"));
}

TEST_F(QelReg, RejectsWrongArguments)
{
    for (const char* const arguments :
         {"set Software/VRX a b", "set Software a.b x", "set Software 'a\\b' x", "get Software",
          "set Software a", "get --system --user Software a", "delete Software a --all", "list 'a*'", ""})
        EXPECT_EQ(Qel(std::string("reg ") + arguments).status, 2) << arguments;
    EXPECT_EQ(Qel("reg set 'a\\\\b' x y").status, 3);
}

TEST_F(QelReg, ReportsWhyTheStoreCannotBeUsed)
{
    const EnvSetting nowhere("QELSTD_REGISTRY", "/proc/nowhere");
    const Outcome refused = Qel("reg set a b c");
    EXPECT_EQ(refused.status, 3);
    EXPECT_EQ(refused.output, "qel reg set: a, b: not set: not found\n");
    EXPECT_EQ(Qel("reg list").output, "");
    const EnvSetting unset("QELSTD_REGISTRY", nullptr), config("XDG_CONFIG_HOME", nullptr),
        home("HOME", nullptr);
    EXPECT_EQ(Qel("reg list").output, "qel reg list: an environment variable is not set\n");
}
