#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include <qel/base/btksocket.h>
#include <qel/netaddress.h>

#include "support/environment.h"
#include "support/hostilepeer.h"
#include "support/nameserver.h"
#include "support/qelprogram.h"
#include "support/tempdir.h"

namespace {

// `qel ns serve` on a free port, which the clients of this process find.
class Server : public RunningQel
{
public:
    Server() : RunningQel({"ns", "serve", "--port", "0", "--max-records-of-process", "2"})
    {
        setenv("VRXNMSPORT", std::to_string(port()).c_str(), 1);
    }

private:
    EnvSetting portAfterwards{"VRXNMSPORT", nullptr};
};

} // namespace

TEST(QelNs, ServesItsClients)
{
    Server server;
    EXPECT_EQ(Qel("ns ping").status, 0);
    EXPECT_EQ(Qel("ns version").output.substr(0, 7), "qel ns ");
    EXPECT_EQ(Qel("ns register _ServerName=a 'note=two words'").output, "");
    const std::string self = std::to_string(getpid());
    EXPECT_EQ(Qel("ns register _ServerName=b --process " + self).status, 0);
    EXPECT_EQ(Qel("ns query _ServerName=b").output, self + " _ServerName=b\n");
    EXPECT_EQ(Qel("ns list").output, "0 _ServerName=a note=two\\ words\n" + self + " _ServerName=b\n");

    EXPECT_EQ(Qel("ns query _ServerName=c").status, 1);
    EXPECT_EQ(Qel("ns query --json _ServerName=a").output, R"([
  {
    "process": 0,
    "fields": {
      "_ServerName": "a",
      "note": "two words"
    }
  }
]
)");
    EXPECT_EQ(Qel("ns register _ServerName=b").status, 1);
    EXPECT_EQ(Qel("ns register _ServerName=b").output,
              "qel ns register: _ServerName=b: this record(s) already exists.\n");
    EXPECT_EQ(Qel("ns delete _ServerName=a").output, "1\n");
    EXPECT_EQ(Qel("ns delete _ServerName=a").status, 1);
    EXPECT_EQ(Qel("ns register --process " + self + " x=1").status, 0);
    EXPECT_EQ(Qel("ns register --process " + self + " x=2").status, 3) << "more than its share";

    EXPECT_EQ(Qel("ns shutdown").status, 0);
    EXPECT_EQ(server.child.wait(), 0);
    const Outcome without = Qel("ns ping");
    EXPECT_EQ(without.status, 3);
    EXPECT_EQ(without.output, "qel ns ping: name server on this machine, port " +
                                  std::string(std::getenv("VRXNMSPORT")) + ": no answer\n");
}

TEST(QelNs, RejectsWrongArguments)
{
    for (const char* const arguments :
         {"", "ns", "ns delete", "ns register a", "ns serve --port 65536", "no"})
        EXPECT_EQ(Qel(arguments).status, 2) << arguments;
    EXPECT_EQ(Qel("ns register a").output,
              "qel ns register: field: not NAME=VALUE: a (see qel ns register --help)\n");
    EXPECT_EQ(Qel("ns serve --help").status, 0);
    EXPECT_EQ(Qel("ns serve --interface nowhere.invalid --port 0").status, 3);
}

TEST(QelNs, WaitsForAServer)
{
    const TestNameServer names;
    EXPECT_EQ(Qel("ns wait --timeout 0.1 late").output, "qel ns wait: late: no server of that name\n");
    EXPECT_EQ(Qel("ns wait --timeout 0.1 late").status, 1);

    RunningQel waiting({"ns", "wait", "late", "--timeout", "20"});
    EXPECT_FALSE(btkIsReadable(waiting.output.Get(), btkTimeval(0.2))); // its end would be readable
    ASSERT_TRUE(RegisterWithNMS(getNameServer(nullptr), 4000, "late"));
    EXPECT_EQ(waiting.child.wait(), 0);
}

TEST(QelNs, ReportsTheServersUsage)
{
    const RunningQel server({"ns", "serve", "--port", "0", "--max-records", "12", "--max-records-of-peer",
                             "2", "--shared", "_ServerName"});
    const EnvSetting port("VRXNMSPORT", std::to_string(server.port()).c_str());
    EXPECT_EQ(Qel("ns register x=1").status, 0);
    EXPECT_EQ(Qel("ns register x=2").status, 0);
    EXPECT_EQ(Qel("ns status").status, 0);
    EXPECT_EQ(Qel("ns register x=3").status, 3);
    const Outcome full = Qel("ns status --json");
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.output.find("\"RecordsOfNoProcess\": 2,\n  \"MaxRecordsOfNoProcess\": 3,"),
              std::string::npos)
        << full.output;
    EXPECT_NE(full.output.find("\"Refused\": 1,\n  \"LastRefusal\": \"an address has as many"),
              std::string::npos)
        << full.output;

    const std::string self = std::to_string(getpid()), parent = std::to_string(getppid());
    EXPECT_EQ(Qel("ns register _ServerName=a y=1 --process " + self).status, 0);
    EXPECT_EQ(Qel("ns register _ServerName=a y=2 --process " + parent).status, 0) << "shared";
}

TEST(QelNs, KeepsItsRecordsWhileItRestarts)
{
    const TempDir dir;
    const int port = [] {
        btkAcceptSocket free;
        return free.Listen(0, "127.0.0.1") ? free.GetPortN() : 0;
    }();
    const EnvSetting runtime("RUNTIME_DIRECTORY", dir.path());
    const EnvSetting setting("VRXNMSPORT", std::to_string(port).c_str());
    {
        RunningQel server({"ns", "serve"});
        server.port();
        EXPECT_EQ(Qel("ns register _ServerName=a").status, 0);
        server.child.signal(SIGTERM);
        EXPECT_EQ(server.child.wait(), 0);
    }
    EXPECT_TRUE(dir.has("nameserver-" + std::to_string(port)));
    const RunningQel server({"ns", "serve"});
    server.port();
    EXPECT_EQ(Qel("ns list").output, "0 _ServerName=a\n");
}

// Each command exits within its limit, whatever the name server does.
TEST(QelNs, KeepsItsLimits)
{
    const HostilePeer silent;
    for (const char* const command :
         {"ns list --limit 0.5", "ns query --limit 0.5 a=b", "ns register --limit 0.5 a=b",
          "ns delete --limit 0.5 a=b", "ns ping --limit 0.5", "ns version --limit 0.5",
          "ns status --limit 0.5", "ns shutdown --limit 0.5", "ns wait --limit 0.5 a",
          "server ping --limit 0.5 a", "server version --limit 0.5 a", "server shutdown --limit 0.5 a",
          "rsh --limit 0.5 --name a localhost true"}) {
        const std::string line = command;
        const btkTimeval start = btkTimeval::Now();
        EXPECT_EQ(Qel(line).status, 3) << line;
        EXPECT_LT((btkTimeval::Now() - start).ToSeconds(), 1.2) << line; // the program's start included
    }
    const HostilePeer dripping(std::string("\0\x7f\xff\xff\xff", 5), HostilePeer::Drips);
    const btkTimeval start = btkTimeval::Now();
    EXPECT_EQ(Qel("ns list --limit 0.5").status, 3);
    EXPECT_LT((btkTimeval::Now() - start).ToSeconds(), 1.2);
}

TEST(QelNs, WaitingWithoutANameServerFails)
{
    const int port = [] {
        btkAcceptSocket free;
        return free.Listen(0, "127.0.0.1") ? free.GetPortN() : 0;
    }();
    const EnvSetting nobody("VRXNMSPORT", std::to_string(port).c_str());
    EXPECT_EQ(Qel("ns wait --timeout 0.1 late").status, 3);
}
