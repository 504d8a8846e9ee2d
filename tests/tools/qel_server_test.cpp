#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include <qel/base/btksocket.h>
#include <qel/netaddress.h>

#include "support/nameserver.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"

namespace {

// Registered as "echo"; sends `answer` to one client, whatever it sends.
class OneAnswer
{
public:
    explicit OneAnswer(std::string bytes) : answer(std::move(bytes))
    {
        EXPECT_TRUE(door.Listen(0, "127.0.0.1"));
        EXPECT_TRUE(RegisterWithNMS(getNameServer(nullptr), door.GetPortN(), "echo"));
        loop = std::thread([this] { serve(); });
    }
    OneAnswer(const OneAnswer&) = delete;
    OneAnswer& operator=(const OneAnswer&) = delete;
    ~OneAnswer() { code(); }

    /// The byte that the client sent.
    int code()
    {
        if (loop.joinable())
            loop.join();
        return got;
    }

private:
    void serve()
    {
        btkStreamSocket client;
        unsigned char byte = 0;
        if (door.Wait(btkTimeval(10, 0), 1) != 1 || !door.Accept(&client) || client.RecvAll(&byte, 1) != 1)
            return;
        got = byte;
        client.Send(answer.data(), answer.size());
    }

    std::string answer;
    btkAcceptSocket door;
    int got = -1;
    std::thread loop;
};

} // namespace

TEST(QelServer, PerformsTheHandshake)
{
    const std::string lacksRights = ": echo: Connection refused due to lack of rights\n";
    const struct
    {
        const char* command;
        std::string answer;
        int code;
        int status;
        std::string output;
    } cases[] = {{"ping", "\1", 1, 0, ""},
                 {"ping", "", 1, 3, ": echo: no answer\n"},
                 {"version", std::string("\1\6v\x1B 1\a\0", 8), 2, 0, "v 1\n"},
                 {"version", "\1\4v", 2, 3, ": echo: the version did not come whole\n"},
                 {"version", std::string(1, 0), 2, 1, lacksRights},
                 {"shutdown", "\1", 3, 0, ""},
                 {"shutdown", std::string(1, 0), 3, 1, lacksRights}};
    for (const auto& [command, answer, code, status, output] : cases) {
        const TestNameServer names;
        OneAnswer server(answer);
        const Outcome outcome = Qel("server " + std::string(command) + " echo");
        EXPECT_EQ(server.code(), code);
        EXPECT_EQ(outcome.status, status);
        const bool failed = status != 0;
        EXPECT_EQ(outcome.output, (failed ? "qel server " + std::string(command) : "") + output);
    }
}

TEST(QelServer, ReportsAMissingServer)
{
    const TestNameServer names;
    const Outcome outcome = Qel("server ping nobody@127.0.0.1");
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.output, "qel server ping: nobody@127.0.0.1: Server is not registered\n");
    const EnvSetting elsewhere("VRXNMSPORT", "1"); // a port without a listener
    const std::string without = "qel server ping: nobody: Name Server is not found\n";
    EXPECT_EQ(Qel("server ping nobody").output, without);
    EXPECT_EQ(Qel("server ping nobody").status, 3);
    EXPECT_EQ(Qel("server ping").status, 2);
}

TEST(QelServer, ChecksTheRightToConnect)
{
    const TempDir dir;
    const EnvSetting registry("QELSTD_REGISTRY", dir.path("store").c_str());
    const TestNameServer names;
    ASSERT_TRUE(RegisterWithNMS(getNameServer(nullptr), 4000, "open"));
    EXPECT_EQ(Qel("reg set --system 'Software\\VRX\\narrow' ConnectionAllowed '10.1.* 10.2.0.1'").status, 0);
    EXPECT_EQ(Qel("reg set --user 'Software\\VRX\\shut' ConnectionAllowed ''").status, 0);

    EXPECT_EQ(Qel("server check narrow shut").status, 0);
    EXPECT_EQ(Qel("server check open").status, 1);
    const Outcome all = Qel("server check --json");
    EXPECT_EQ(all.status, 1);
    const auto rights = nlohmann::json::parse(all.output);
    ASSERT_EQ(rights.size(), 3u) << all.output;
    EXPECT_EQ(rights[0]["server"], "narrow");
    EXPECT_EQ(rights[0]["admits"], "these");
    EXPECT_EQ(rights[0]["system"], nlohmann::json({"10.1.*", "10.2.0.1"}));
    EXPECT_EQ(rights[1]["admits"], "everybody");
    EXPECT_EQ(rights[2]["admits"], "nobody");

    EXPECT_EQ(rights[0]["system found"], "patterns");
    EXPECT_EQ(rights[0]["user found"], "no value");

    dir.write("store/User/software/vrx/open/connectionallowed.value", "damaged");
    const auto damaged = nlohmann::json::parse(Qel("server check --json open").output);
    EXPECT_EQ(damaged[0]["user found"], "cannot be read: damaged file");
    EXPECT_EQ(damaged[0]["admits"], "nobody");
    std::filesystem::rename(dir.path("store/System"), dir.path("moved"));
    dir.link("nowhere", "store/System");
    EXPECT_EQ(Qel("server check").output, "qel server check: Software\\VRX\\: not a directory\n");

    const auto dotted = nlohmann::json::parse(Qel("server check --json files.old").output);
    EXPECT_EQ(dotted[0]["restrictable"], false);
    EXPECT_EQ(dotted[0]["admits"], "everybody");
}
