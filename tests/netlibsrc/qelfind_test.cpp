#include <qel/base/btksocket.h>
#include <qel/base/nmsclient.h>
#include <qel/netfind_c.h>
#include <qel/qelfind.h>
#include <qel/syslib.h>
#include <qel/xnetlib.h>

#include "failure.h"
#include "support/closedport.h"
#include "support/nameserver.h"
#include "support/test.h"
#include "support/testserver.h"

using namespace std::chrono_literals;

TEST(qelfind, FindsAServerAnewEachTime)
{
    const TestNameServer names;
    EXPECT_EQ(failureOf([] { qel::find("mover"); }), "2 Server is not registered");
    EXPECT_EQ(failureOf([] { qel::connect("mover", 20s); }), "2 Server is not registered");
    EXPECT_EQ(failureOf([] { qel::find(xstring()); }), "1 A server without a name cannot be found");
    std::optional<ServedInThread<netServer>> served(netServer::Create("mover", 0));
    const xrchandle<netAddress> first = qel::find(std::string("mover"));
    EXPECT_EQ(first->getPortN(), served->getPort());
    EXPECT_TRUE(first->getHostName() == sysGetCurHostName());
    EXPECT_NE(qel::connect("mover", 20s), nullptr);

    // The server leaves its record behind, and moves between the first answer and the second.
    served.reset();
    const nmsOwnedRecord stale(MakeServerRecord("mover"));
    const ClosedPort closed;
    nmsRecAdd(stale.get(), "_PortNumber", std::to_string(closed.get()).c_str());
    nmsRecAdd(stale.get(), "_HostName", "127.0.0.1");
    const nmsOwnedProxy proxy(nmsServConnectLocal());
    ASSERT_EQ(nmsServRegister(proxy.get(), stale.get()), nullptr);
    EXPECT_TRUE(qel::find("mover", "localhost")->getHostName() == "127.0.0.1");
    EXPECT_EQ(failureOf([] { qel::connect("mover", 20s); }), "3 Connection refused");

    btkAcceptSocket silent;
    ASSERT_TRUE(silent.Listen(0, "127.0.0.1"));
    const nmsOwnedRecord record(MakeServerRecord("silent"));
    nmsRecAdd(record.get(), "_PortNumber", std::to_string(silent.GetPortN()).c_str());
    ASSERT_EQ(nmsServRegister(proxy.get(), record.get()), nullptr);
    EXPECT_EQ(failureOf([] { qel::connect("silent", 2s); }), "3 Connection refused");

    __xstring_c host;
    EXPECT_EQ(netfind_c("mover", &host), closed.get());
    EXPECT_STREQ(xstrgetmb_c(host), "127.0.0.1");
    xstrunlock_c(host);
    EXPECT_EQ(netfind_c("nobody", &host), xuninitint);
    EXPECT_TRUE(xisexc_c());
    xcleanupexc_c();
}
