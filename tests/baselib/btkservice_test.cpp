#include <cstddef>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <qel/base/btkservice.h>
#include <qel/base/btksocket.h>

#include "support/child.h"
#include "support/environment.h"
#include "support/tempdir.h"
#include "support/test.h"

namespace {

// A service manager's socket, named by NOTIFY_SOCKET.
class ServiceManager
{
public:
    ServiceManager() : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, dir.path("notify"), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    /// The next report; empty when none comes.
    std::string report() const
    {
        char text[200];
        if (!btkIsReadable(socket.Get(), btkTimeval(20.0)))
            return {};
        const ssize_t size = recv(socket.Get(), text, sizeof text, 0);
        return {text, static_cast<std::size_t>(size > 0 ? size : 0)};
    }

private:
    TempDir dir;
    btkFd socket;
    EnvSetting variable{"NOTIFY_SOCKET", dir.path("notify")};
};

} // namespace

TEST(btkService, ReportsOnceThatItIsReady)
{
    const ServiceManager manager;
    EXPECT_TRUE(btkReportReady("serving"));
    EXPECT_EQ(manager.report(), "READY=1\nSTATUS=serving");
    EXPECT_FALSE(btkReportReady("serving")) << "also not from a child";
    for (const char* const nowhere : {"/nowhere/notify", "relative", "@nobody", ""}) {
        const EnvSetting variable("NOTIFY_SOCKET", nowhere);
        EXPECT_FALSE(btkReportReady("serving")) << nowhere;
    }
}

TEST(btkService, TakesTheOneListeningSocketThatIsForThisProcess)
{
    btkAcceptSocket door;
    ASSERT_TRUE(door.Listen(0, "127.0.0.1"));
    // Of a child that got `handle` as its descriptor 3: 0 when it has taken nothing, 1 when a working socket.
    const auto taken = [](btkHandle handle, const char* count, bool isForIt = true) {
        return runInChild([&] {
            dup2(handle, 3);
            setenv("LISTEN_PID", std::to_string(isForIt ? getpid() : getppid()).c_str(), 1);
            setenv("LISTEN_FDS", count, 1);
            btkAcceptSocket passed;
            passed.Adopt(btkTakePassedSocket());
            const bool isOnce = !btkTakePassedSocket();
            btkStreamSocket client, accepted;
            const bool accepts = passed.IsOpen() && !passed.Accept(&accepted) && // does not block
                                 client.Connect("127.0.0.1", passed.GetPortN(), btkTimeval(5.0)) &&
                                 passed.Wait(btkTimeval(5.0), 1) == 1 && passed.Accept(&accepted);
            return passed.IsOpen() ? (isOnce && accepts ? 1 : 2) : 0;
        });
    };
    EXPECT_EQ(taken(door.GetHandle(), "1"), 1);
    EXPECT_EQ(taken(door.GetHandle(), "1", false), 0) << "another process's";
    EXPECT_EQ(taken(door.GetHandle(), "2"), 0);
    EXPECT_EQ(taken(door.GetHandle(), ""), 0);
    EXPECT_EQ(taken(0, "1"), 0) << "no listening socket";
}
