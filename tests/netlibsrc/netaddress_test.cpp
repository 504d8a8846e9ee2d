#include <sys/wait.h>
#include <unistd.h>

#include <qel/base/btkpipe.h>
#include <qel/base/btksocket.h>
#include <qel/base/nmsclient.h>
#include <qel/syslib.h>
#include <qel/xnetlib.h>

#include "failure.h"
#include "support/child.h"
#include "support/closedport.h"
#include "support/interrupt.h"
#include "support/nameserver.h"
#include "support/test.h"

namespace {

const InterruptedInLongRuns& interrupted = InterruptedInLongRuns::Add();

class NameService : public testing::Test
{
protected:
    // Registers a record with these fields; a null port leaves it out.
    void add(const char* name, const char* port)
    {
        capi_nmsServerProxy* proxy = nmsServConnectLocal();
        capi_nmsRecord* record = MakeServerRecord(xstring(name));
        nmsRecAdd(record, "n", std::to_string(++added).c_str());
        if (port != nullptr)
            nmsRecAdd(record, "_PortNumber", port);
        EXPECT_EQ(nmsServRegister(proxy, record), nullptr);
        nmsRecDelete(&record);
        nmsServDelete(&proxy);
    }
    static std::string resolve(const char* name, int* port = nullptr)
    {
        const xrchandle<netAddress> address(netAddress::Create(name, nullptr));
        return failureOf([&] {
            const int found = ResolvePort(address.get());
            EXPECT_EQ(found, address->getPortN());
            if (port != nullptr)
                *port = found;
        });
    }

    const TestNameServer server;
    int added = 0;
};

} // namespace

TEST(netAddress, HoldsHostPortAndServerName)
{
    const xrchandle<netAddress> here(netAddress::Create(4000, xnullstr));
    EXPECT_TRUE(here->getHostName() == sysGetCurHostName());
    EXPECT_EQ(here->getPortN(), 4000);
    EXPECT_TRUE(here->getServerName() == nullptr);

    const xrchandle<netAddress> named(netAddress::Create("name", nullptr));
    EXPECT_TRUE(named->getHostName() == nullptr);
    EXPECT_EQ(named->getPortN(), 0);
    EXPECT_TRUE(named->getServerName() == "name");
    EXPECT_EQ(failureOf([] { ResolvePort(nullptr); }), "1 Address is nil!");
}

TEST_F(NameService, TheFirstRecordWithAPortDecides)
{
    add("many", nullptr);
    add("many", "7002");
    add("many", "7003");
    int port = 0;
    EXPECT_EQ(resolve("many", &port), "");
    EXPECT_EQ(port, 7002);

    for (const char* const useless : {"0", "-5", "abc", "65536", "4294974297"}) {
        add(useless, useless);
        EXPECT_EQ(resolve(useless), "0 Server is not registered");
    }
}

TEST(netAddress, NeedsANameServerUnlessThePortIsGiven)
{
    const ClosedPort closed;
    const int port = closed.get();
    const EnvSetting nobody("VRXNMSPORT", std::to_string(port).c_str());
    const xrchandle<netAddress> known(netAddress::Create(port, nullptr));
    const xrchandle<netAddress> named(netAddress::Create("name", nullptr));

    EXPECT_EQ(ResolvePort(known.get()), port);
    EXPECT_EQ(failureOf([&] { ResolvePort(named.get()); }), "0 Name Server is not found");
    const xrchandle<netAddress> remote(netAddress::Create("name", "127.0.0.1"));
    EXPECT_EQ(describeThrown([&] { ResolvePort(remote.get()); },
                             [](xthrowable* thrown) { return std::string(qelTextOf(thrown)); }),
              "Name Server is not found (server name, host 127.0.0.1)");
    EXPECT_EQ(netBaseServer::Connect(known.get(), 5.0), nullptr);
}

// Each checks for the name before it registers it, and all find it free.
TEST(ServerNames, OnlyOneOfManyConcurrentStartsGetsTheName)
{
    const TestNameServer names;
    btkOutputPipe go;
    btkInputPipe gone;
    ASSERT_TRUE(btkAnonymousPipe::Create(go, gone));
    std::vector<std::unique_ptr<ChildProcess>> twins;
    for (int i = 0; i < 12; ++i)
        twins.push_back(std::make_unique<ChildProcess>([&] {
            go.Reset();
            char byte = 0;
            btkRead(gone.Get(), &byte, 1); // until all have started
            try {
                const Owned<netBaseServer> server(netBaseServer::Create("twin", 0));
                if (server == nullptr)
                    return 2;
                pause();
                return 3;
            } catch (xthrowable*) {
                return 1;
            }
        }));
    go.Reset();
    int refused = 0;
    for (int i = 0; i < 11; ++i) {
        int status = 0;
        pid_t ended = -1;
        do
            ended = waitpid(-1, &status, 0);
        while (ended < 0 && errno == EINTR);
        refused += ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 1;
    }
    EXPECT_EQ(refused, 11);
    const nmsOwnedProxy proxy(getNameServer(nullptr));
    EXPECT_TRUE(IsRegisteredWithNMS(proxy.get(), "twin"));
}

TEST(ServerNames, DoesNotTakeTheNameOfAnotherServer)
{
    const TestNameServer names;
    const nmsOwnedProxy proxy(getNameServer(nullptr));
    const xrchandle<netAddress> address(netAddress::Create("counter", nullptr));
    {
        const Owned<netBaseServer> server(netBaseServer::Create("counter", 0));
        const nmsOwnedRecord other(MakeServerRecord("counter")); // of this process, too
        nmsRecAdd(other.get(), "_PortNumber", "7");
        EXPECT_EQ(nmsOwnedError(nmsServRegister(proxy.get(), other.get())), nullptr);
    }
    EXPECT_EQ(ResolvePort(address.get()), 7);
    EXPECT_TRUE(UnregisterFromNMS(proxy.get(), "counter"));
    address->setPortN(0);
    EXPECT_EQ(failureOf([&] { ResolvePort(address.get()); }), "0 Server is not registered");
}
