#include <gtest/gtest.h>
#include <unistd.h>

#include <qel/hmxconfigfile.h>

#include "support/qelprogram.h"
#include "support/tempdir.h"

namespace {

class QelConf : public testing::Test
{
protected:
    /// Runs `qel conf COMMAND FILE ARGUMENTS` on the file of the test.
    Outcome conf(const std::string& command, const std::string& arguments = "") const
    {
        return Qel("conf " + command + " " + path + " " + arguments);
    }

    /// The line that a failure writes, without the path of the file in it.
    std::string complaint(const Outcome& outcome) const
    {
        std::string text = outcome.output;
        const std::size_t at = text.find(path);
        if (at != std::string::npos)
            text.erase(at, path.size());
        return text;
    }

    TempDir dir;
    const std::string path = dir.path("app.conf");
};

} // namespace

TEST_F(QelConf, ReadsValues)
{
    dir.write("app.conf", "remark\nport: 4711\nb:x:y\nnothing:\nbell:\x1b[2J\t\r\nport:1\na b:2");
    EXPECT_EQ(conf("get", "port").output, "1\n");
    EXPECT_EQ(conf("get", "'a b'").output, "2\n");
    EXPECT_EQ(conf("get", "bell").output, "\x1b[2J\t\r\n") << "a program gets it as it is";
    EXPECT_EQ(conf("get", "nothing").output, "\n");
    EXPECT_EQ(conf("get", "--json nothing").output, "null\n");
    EXPECT_EQ(conf("get", "none --default 7").output, "7\n");
    EXPECT_EQ(conf("get", "nothing --default 7").output, "\n") << "it is there";
    EXPECT_EQ(conf("list").output, "b:x:y\nnothing:\nbell:\x1b[2J\t\r\nport:1\nab:2\n");
    EXPECT_EQ(conf("list", "--json").output, "{\n  \"b\": \"x:y\",\n  \"nothing\": null,\n"
                                             "  \"bell\": \"\\u001b[2J\\t\\r\",\n  \"port\": \"1\",\n"
                                             "  \"ab\": \"2\"\n}\n");

    const Outcome none = conf("get", "none");
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(complaint(none), "qel conf get: : no key \"none\"\n");
}

TEST_F(QelConf, ChangesAddsAndRemovesEntries)
{
    EXPECT_EQ(conf("set", "'a b' ' 1 '").output, "") << "a missing file is made";
    EXPECT_EQ(conf("set", "a 2").status, 0);
    EXPECT_EQ(conf("set", "a -- -3").status, 0);
    EXPECT_EQ(dir.read("app.conf"), "a:-3\nab: 1 \n");
    EXPECT_EQ(conf("delete", "a none").status, 1);
    EXPECT_EQ(dir.read("app.conf"), "a:-3\nab: 1 \n") << "all or nothing";
    EXPECT_EQ(conf("delete", "a 'a b'").output, "");
    EXPECT_EQ(dir.read("app.conf"), "");
}

TEST_F(QelConf, RejectsEntriesThatWouldNotBeReadBack)
{
    for (const char* const arguments : {"a 'x\ny'", "'a\nb' x", "a:b x", "' ' x", "a", ""})
        EXPECT_EQ(conf("set", arguments).status, 2) << arguments;
    EXPECT_FALSE(dir.has("app.conf"));
    EXPECT_EQ(conf("delete", "a").status, 1);
    EXPECT_FALSE(dir.has("app.conf")) << "deleting makes no file";
}

TEST_F(QelConf, DropsCommentsOnlyOnRequest)
{
    const std::string written = "# for people\n\nport:1\n:x\nport:2\n";
    dir.write("app.conf", written);
    const Outcome refused = conf("set", "port 3");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(complaint(refused), "qel conf set: : 3 lines, from line 1 on, would be dropped (see qel conf "
                                  "lint); --drop to go on\n");
    EXPECT_EQ(conf("delete", "port").status, 1);
    EXPECT_EQ(dir.read("app.conf"), written);
    EXPECT_EQ(conf("set", "port 3 --drop").output, "");
    EXPECT_EQ(dir.read("app.conf"), "port:3\n");
    dir.write("app.conf", "\na:1\n \t\n");
    EXPECT_EQ(conf("set", "a 2").status, 0) << "nobody misses blank lines";
}

TEST_F(QelConf, ReportsTheLinesThatAreNotKept)
{
    dir.write("app.conf", "# \x1b[2Jfor people\n\nport:1\n:x\nport:2\r\na b:\nlast:1");
    const Outcome found = conf("lint");
    EXPECT_EQ(found.status, 1);
    std::string text = found.output;
    for (std::size_t at; (at = text.find(path)) != std::string::npos;)
        text.replace(at, path.size(), "F");
    EXPECT_EQ(text, "F:1: dropped, it has no colon: # [2Jfor people\n"
                    "F:2: dropped, it is blank\n"
                    "F:3: dropped, line 5 has the same key: port:1\n"
                    "F:4: dropped, no key stands before its colon: :x\n"
                    "F:5: kept, its value ends in a carriage return: port:2\n"
                    "F:6: changed, the blanks in its key go: a b:\n"
                    "F:6: changed, its value becomes \"nil\": a b:\n"
                    "F:7: changed, it gets a line end: last:1\n");
    EXPECT_EQ(conf("lint", "--json | grep -c '\"fate\": \"dropped\"'").output, "4\n");

    dir.write("app.conf", "a: 1\nb:2\n");
    EXPECT_EQ(conf("lint").status, 0);
    EXPECT_EQ(conf("lint", "--json").output, "[]\n");
    EXPECT_EQ(conf("lint", dir.path("none")).status, 1);
}

TEST_F(QelConf, ReportsWhyItFails)
{
    EXPECT_EQ(complaint(conf("list")), "qel conf list: : not found\n");
    EXPECT_EQ(Qel("conf list /").output, "qel conf list: /: is a directory\n");
    EXPECT_EQ(Qel("conf set " + dir.path("none/app.conf") + " a 1").status, 1);
    dir.write("app.conf", "a:1\n");
    EXPECT_EQ(conf("list", "2>" + dir.path("why") + " >/dev/full").status, 3);
    EXPECT_EQ(conf("get", "a | cat").output, "1\n");
}

TEST_F(QelConf, KeepsTheFileOnAFullDisk)
{
    dir.write("app.conf", "a:1\n");
    // The limit of 512 bytes is less than the new content needs. Its signal is ignored.
    const Outcome outcome =
        Line("trap '' XFSZ; ulimit -f 1; " QEL_PROGRAM " conf set " + path + " a " + std::string(5000, 'x'));
    EXPECT_EQ(outcome.status, 3);
    EXPECT_NE(outcome.output.find("not changed: file too large"), std::string::npos) << outcome.output;
    EXPECT_EQ(dir.read("app.conf"), "a:1\n");
    EXPECT_FALSE(dir.has(".app.conf.new"));
}

TEST_F(QelConf, LosesNoChangeOfSeveralPrograms)
{
    const std::string one = "(" QEL_PROGRAM " conf set " + path + " ";
    std::string all;
    for (int i = 0; i < 10; ++i)
        all += one + std::to_string(i) + " x) & ";
    ASSERT_EQ(std::system((all + "wait").c_str()), 0);
    EXPECT_EQ(conf("list").output, "0:x\n1:x\n2:x\n3:x\n4:x\n5:x\n6:x\n7:x\n8:x\n9:x\n");
}

TEST_F(QelConf, ReportsTheLockHolderAndGivesUp)
{
    dir.write("app.conf", "a:1\n");
    hmxConfigFile file;
    ASSERT_TRUE(file.Open(path.c_str(), hmxConfigFile::ReadWrite));
    const std::string holder = "is in use by process " + std::to_string(getpid()) + " (qel_conf_test)";
    for (const char* command : {"get", "set", "delete", "list", "lint"}) {
        const std::string arguments = command[0] == 's' ? "a 2" : command[0] == 'l' ? "" : "a";
        const Outcome refused = conf(command, arguments + " --limit 0");
        EXPECT_EQ(refused.status, 3);
        EXPECT_EQ(complaint(refused), std::string("qel conf ") + command + ": : " + holder + "\n");
    }
    const Outcome waited = conf("set", "a 2 --limit 1.2");
    EXPECT_EQ(waited.status, 3);
    EXPECT_EQ(waited.output.find(path + " " + holder + "; waiting\n"), 0u) << waited.output;
    EXPECT_EQ(dir.read("app.conf"), "a:1\n");
}
