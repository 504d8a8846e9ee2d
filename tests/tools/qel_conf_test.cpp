#include <unistd.h>

#include <qel/hmxconfigfile.h>

#include "support/qelprogram.h"
#include "support/tempdir.h"
#include "support/test.h"

TEST(QelConf, ReportsTheLockHolderAndGivesUp)
{
    const TempDir dir;
    const std::string path = dir.path("app.conf");
    dir.write("app.conf", "a:1\n");
    hmxConfigFile file;
    ASSERT_TRUE(file.Open(path.c_str(), hmxConfigFile::ReadWrite));
    const std::string why = " is in use by process " + std::to_string(getpid()) + " (qel_conf_test)";
    for (const std::string command : {"get", "set", "delete", "list", "lint"}) {
        const char* const rest = command == "set" ? " a 2" : command[0] == 'l' ? "" : " a";
        const Outcome refused = Qel("conf " + command + " --limit 0 " + path + rest);
        EXPECT_EQ(refused.status, 3);
        EXPECT_EQ(refused.output, "qel conf " + command + ": " + path + ":" + why + "\n");
    }
    const Outcome waited = Qel("conf set --limit 1.2 " + path + " a 2");
    EXPECT_EQ(waited.status, 3);
    EXPECT_EQ(waited.output.find(path + why + "; waiting\n"), 0u) << waited.output;
    EXPECT_EQ(dir.read("app.conf"), "a:1\n");
}
