#include <cstdio>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/environment.h"
#include "support/qelprogram.h"

namespace {

// `qel ns serve` on a free port, which the clients of this process find.
class Server
{
public:
    Server() : child([this] { return serve(); })
    {
        close(ends[1]);
        FILE* const said = fdopen(ends[0], "r");
        int port = 0;
        if (std::fscanf(said, "serving on 127.0.0.1, port %d", &port) != 1)
            ADD_FAILURE() << "does not serve";
        std::fclose(said);
        setenv("VRXNMSPORT", std::to_string(port).c_str(), 1);
    }

private:
    struct Pipe
    {
        explicit Pipe(int* both)
        {
            if (pipe(both) != 0)
                ADD_FAILURE() << "no pipe";
        }
    };

    int serve() const
    {
        dup2(ends[1], 1);
        execl(QEL_PROGRAM, "qel", "ns", "serve", "--port", "0", "--max-records-of-process", "2", nullptr);
        return 127;
    }

    EnvSetting portAfterwards{"VRXNMSPORT", nullptr};
    int ends[2] = {-1, -1};
    Pipe made{ends};

public:
    ChildProcess child;
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

    const Outcome again = Qel("ns register _ServerName=b");
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.output, "ERROR  : NameServer on client request: this record(s) already exists.\n");
    EXPECT_EQ(Qel("ns delete _ServerName=a").output, "1\n");
    EXPECT_EQ(Qel("ns delete _ServerName=a").status, 1);
    EXPECT_EQ(Qel("ns register --process " + self + " x=1").status, 0);
    EXPECT_EQ(Qel("ns register --process " + self + " x=2").status, 1) << "more than its share";

    EXPECT_EQ(Qel("ns shutdown").status, 0);
    EXPECT_EQ(server.child.wait(), 0);
    EXPECT_EQ(Qel("ns ping").status, 1);
}

TEST(QelNs, StopsAtSigterm)
{
    Server server;
    server.child.signal(SIGTERM);
    EXPECT_EQ(server.child.wait(), 0);
}

TEST(QelNs, RefusesWrongArguments)
{
    for (const char* const arguments :
         {"", "ns", "ns delete", "ns register a", "ns serve --port 65536", "no"})
        EXPECT_EQ(Qel(arguments).status, 2) << arguments;
    EXPECT_EQ(Qel("ns serve --help").status, 0);
    EXPECT_EQ(Qel("ns serve --interface nowhere.invalid --port 0").status, 1);
}
