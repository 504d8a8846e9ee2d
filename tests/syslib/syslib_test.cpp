#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <sstream>

#include <qel/syslib.h>

#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "support/child.h"
#include "support/environment.h"
#include "support/tempdir.h"

namespace {

std::string textOf(const xstring& text)
{
    return text == nullptr ? "(null)" : text.CastToCString();
}

} // namespace

TEST(SystemQueries, NameTheMachineAndItsTypes)
{
    utsname host;
    ASSERT_EQ(uname(&host), 0);

    EXPECT_EQ(textOf(sysGetCurHostName()), host.nodename);
    EXPECT_EQ(textOf(sysGetPlatform()), host.machine);
    EXPECT_EQ(textOf(sysGetOSType()), "linux");
    EXPECT_NE(textOf(sysGetCurUserName()), "(null)");
}

TEST(SystemQueries, ReportAUserWithoutNameOnTheErrorStream)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs the right to become another user";
    const int result = runInChild([] {
        if (seteuid(1999999999) != 0)
            return 3;
        testing::internal::CaptureStderr();
        const bool null = sysGetCurUserName() == nullptr;
        const std::string report = testing::internal::GetCapturedStderr();
        return null && report == "Exception: \"Can't get user name\"\n\tin function \"sysGetCurUserName\"\n"
                   ? 0
                   : 1;
    });
    EXPECT_EQ(result, 0);
}

TEST(SystemEnvironment, TellsUnsetFromEmptyAndCopies)
{
    EnvSetting restored("QEL_TEST_SYS", nullptr);
    EXPECT_EQ(textOf(sysGetEnv("QEL_TEST_SYS")), "(null)");
    EXPECT_EQ(textOf(sysGetEnv(xnullstr)), "(null)");

    char value[] = "value";
    sysPutEnv("QEL_TEST_SYS", value);
    value[0] = 'X';
    EXPECT_EQ(textOf(sysGetEnv("QEL_TEST_SYS")), "value");
    sysPutEnv("QEL_TEST_SYS", "");
    EXPECT_EQ(textOf(sysGetEnv("QEL_TEST_SYS")), "");
}

TEST(SystemEnvironment, ReportsAVariableThatCannotBeSet)
{
    for (const auto& [name, value] :
         {std::pair<const char*, const char*>{"A=B", "x"}, {"", "x"}, {"X", nullptr}}) {
        testing::internal::CaptureStderr();
        sysPutEnv(name, value);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Exception: \"Can't set environment variable\"\n\tin function \"sysPutEnv\"\n"
                  "\t( Environment variable: \"" +
                      std::string(name) + "\" )\n");
    }
    testing::internal::CaptureStderr();
    sysHandleKnownError(sysInternalError, "f", nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_STREQ(sysGetDescription(3), "Internal error");
    EXPECT_STREQ(sysGetDescription(4), "No description");
}

TEST(SystemCommands, AnswerTheExitStatus)
{
    TempDir dir;
    EXPECT_EQ(sysOSCall("exit 7"), 7);
    EXPECT_EQ(sysOSCall(("echo done > '" + dir.path("out") + "'").c_str()), 0);
    EXPECT_EQ(dir.read("out"), "done\n");
    EXPECT_EQ(sysOSCall("-no-option"), 127);
    EXPECT_EQ(sysOSCall("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_EQ(sysOSCall(nullptr), -1);
}

TEST(SystemCommands, StartWithSignalsAsByDefaultAndLeaveOursAlone)
{
    sigset_t blocked, before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto handler = std::signal(SIGINT, SIG_IGN);

    EXPECT_EQ(sysOSCall("kill -INT $$; exit 1"), 128 + SIGINT);
    EXPECT_EQ(sysOSCall("kill -TERM $$; exit 1"), 128 + SIGTERM);

    EXPECT_EQ(std::signal(SIGINT, handler), SIG_IGN);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST(SystemSleep, LastsAtLeastAsLongAsAsked)
{
    const auto begin = std::chrono::steady_clock::now();
    sysSleep(-5);
    sysSleep(0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
    sysSleep(1);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}
