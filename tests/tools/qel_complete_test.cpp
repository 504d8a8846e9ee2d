#include <chrono>
#include <gtest/gtest.h>
#include <string>

#include <qel/base/btksocket.h>
#include <qel/netaddress.h>

#include "support/nameserver.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"

namespace {

// The completions of the last word, without descriptions.
std::string Offered(const std::string& words)
{
    const Outcome outcome = Qel("complete -- " + words);
    EXPECT_EQ(outcome.status, 0) << words;
    std::string texts;
    bool inText = true;
    for (const char c : outcome.output) {
        inText = c != '\t' && (inText || c == '\n');
        if (inText)
            texts += c == '\n' ? ' ' : c;
    }
    return texts;
}

} // namespace

TEST(QelComplete, OffersCommandsAndOptions)
{
    EXPECT_EQ(Offered("ser"), "server ");
    EXPECT_EQ(Offered("server ''"), "ping version shutdown check ");
    EXPECT_EQ(Offered("ns serve --max"), "--max-records --max-records-of-process --max-records-of-peer ");
    EXPECT_EQ(Offered("ns query --host=x --js"), "--json ");
    EXPECT_EQ(Offered("ns query --host --js"), "") << "it is the host";
    EXPECT_EQ(Offered("completion ''"), "bash zsh ");
    EXPECT_EQ(Offered("completion bash ''"), "");
    EXPECT_EQ(Offered("man --directory ''"), ":directories ");
    EXPECT_EQ(Offered("nothing -"), "--help --version ");
    EXPECT_EQ(Offered("co"), "conf completion ") << "hidden ones are not offered";
    EXPECT_EQ(Offered("mon add f p ''"), "bool int real string ");
    EXPECT_EQ(Offered("ns query --host=x --none=y --"), Offered("ns query --"));
    EXPECT_EQ(Offered("ns query --none=''"), "");
    EXPECT_EQ(Offered("mon plot --svg=''"), ":files ");
    EXPECT_EQ(Offered("man -- --d"), "") << "behind -- there are no options";
    EXPECT_TRUE(Offered("types filelib::XD").starts_with("filelib::XDiskFull "));
    EXPECT_EQ(Offered("''").substr(0, 3), Offered("").substr(0, 3));
}

TEST(QelComplete, OffersRegisteredServers)
{
    const TestNameServer names;
    ASSERT_TRUE(RegisterWithNMS(getNameServer(nullptr), 4000, "files"));
    ASSERT_TRUE(RegisterWithNMS(getNameServer(nullptr), 4001, "two\x1b words"));
    EXPECT_EQ(Offered("server ping f"), "files ");
    EXPECT_EQ(Offered("server ping --limit 3 ''"), "files two words ");
    EXPECT_EQ(Offered("ns query _S"), "_ServerName=files _ServerName=two words ");
}

TEST(QelComplete, DoesNotWaitForSilentNameServer)
{
    btkAcceptSocket silent;
    ASSERT_TRUE(silent.Listen(0, "127.0.0.1"));
    const EnvSetting port("VRXNMSPORT", std::to_string(silent.GetPortN()).c_str());

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Offered("server ping ''"), "");
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::seconds(2)); // 0.2 without instrumentation
}

TEST(QelComplete, OffersKeysAndPaths)
{
    const TempDir dir;
    const std::string file = dir.path("app.conf");
    dir.write("app.conf", "port:1\npeer:2\nhost:3\n");
    EXPECT_EQ(Offered("conf get " + file + " p"), "port peer ");
    EXPECT_EQ(Offered("conf delete " + file + " port ''"), "port peer host ");
    EXPECT_EQ(Offered("conf get ''"), ":files ");
    EXPECT_EQ(Offered("conf get " + file + "none ''"), "");
    EXPECT_EQ(Offered("fs cp ''"), ":files ");

    Qel("mon create " + dir.path("run.mon"));
    Qel("mon add " + dir.path("run.mon") + " 'load 1' int 1");
    EXPECT_EQ(Offered("mon get " + dir.path("run.mon") + " l"), "load 1 ");
    EXPECT_EQ(Offered("mon get " + file + " ''"), "") << "it is no monitor file";

    const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
    Qel("reg set 'Software\\VRX' MaxFields 1");
    Qel("reg set --system System x 1");
    EXPECT_EQ(Offered("reg get S"), "Software Software\\VRX ");
    EXPECT_EQ(Offered("reg list --system ''"), "System ");
    EXPECT_EQ(Offered("reg get '\\' ''"), "");
    EXPECT_EQ(Offered("reg get None ''"), "");
    EXPECT_EQ(Offered("reg get SoftwareVRX ''"), "MaxFields ") << "the shells take the backslash out";
}
