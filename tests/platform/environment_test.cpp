#include <sys/time.h>
#include <unistd.h>

#include <qel/base/btkenvironment.h>
#include <qel/platform/environment.h>
#include <qel/platform/errortable.h>

#include "support/child.h"
#include "support/test.h"

TEST(Environment, NamesTheMachineAndTheUser)
{
    char host[256] = {}, user[256] = {};
    DWORD hostSize = sizeof host, userSize = sizeof user;
    ASSERT_TRUE(GetComputerNameA(host, &hostSize));
    EXPECT_EQ(hostSize, std::string(host).size());
    ASSERT_TRUE(GetUserNameA(user, &userSize));
    EXPECT_EQ(userSize, std::string(user).size() + 1);

    DWORD small = 1;
    EXPECT_FALSE(GetComputerNameA(host, &small));
    EXPECT_EQ(GetLastError(), ERROR_BUFFER_OVERFLOW);
    EXPECT_EQ(small, hostSize + 1);
    small = 1;
    EXPECT_FALSE(GetUserNameA(user, &small));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
}

TEST(Environment, ReportsAUserWithoutAName)
{
    expectSuccessInChild("needs the right to become another user", [] {
        char user[256];
        DWORD size = sizeof user;
        if (seteuid(1999999999) != 0)
            return notAllowed;
        EXPECT_FALSE(GetUserNameA(user, &size));
        EXPECT_EQ(GetLastError(), ERROR_NONE_MAPPED);
        return 0;
    });
}

// The program may remove variables itself, which moves the entries behind them.
TEST(Environment, ReadsWhileAnotherThreadRemovesVariables)
{
    std::jthread remover([](std::stop_token stop) {
        while (!stop.stop_requested())
            unsetenv("QELSTD_TEST_REMOVED");
    });
    std::string value;
    for (int i = 0; i < 50000; ++i) {
        ASSERT_TRUE(btkEnvironment::Set("QELSTD_TEST_REMOVED", "x"));
        const bool isThere = btkEnvironment::Get("QELSTD_TEST_REMOVED", value);
        ASSERT_TRUE(!isThere || value == "x");
    }
}

TEST(Environment, SleepLastsItsFullTimeDespiteSignals)
{
    struct sigaction action = {}, before;
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before);
    const itimerval often = {{0, 5000}, {0, 5000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);

    const auto begin = std::chrono::steady_clock::now();
    Sleep(120);
    const auto slept = std::chrono::steady_clock::now() - begin;

    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(slept, std::chrono::milliseconds(120));
}
