#include <gtest/gtest.h>
#include <string>
#include <thread>

#include <qel/base/btksocket.h>
#include <qel/netaddress.h>

#include "support/nameserver.h"
#include "support/qelprogram.h"

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
