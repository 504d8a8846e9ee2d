#include <sys/utsname.h>
#include <unistd.h>

#include <qel/filelib.h>
#include <qel/syslib.h>
#include <qel/tmtime.h>

#include "support/child.h"
#include "support/environment.h"
#include "support/longrun.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/texts.h"

TEST(SystemQueries, ReturnMachineNameAndTypes)
{
    utsname host;
    ASSERT_EQ(uname(&host), 0);

    EXPECT_EQ(textOf(sysGetCurHostName()), host.nodename);
    EXPECT_EQ(textOf(sysGetPlatform()), host.machine);
    EXPECT_EQ(textOf(sysGetOSType()), "linux");
    EXPECT_NE(textOf(sysGetCurUserName()), "(null)");
}

TEST(SystemQueries, ReportUserWithoutNameOnErrorStream)
{
    expectSuccessInChild("needs the right to become another user", [] {
        if (seteuid(1999999999) != 0)
            return notAllowed;
        testing::internal::CaptureStderr();
        EXPECT_TRUE(sysGetCurUserName() == nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Exception: \"Can't get user name\"\n\tin function \"sysGetCurUserName\"\n");
        return 0;
    });
}

TEST(SystemEnvironment, DistinguishesUnsetFromEmptyAndCopies)
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

TEST(SystemEnvironment, ReportsVariableThatCannotBeSet)
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

TEST(SystemEnvironment, ChangesWhilePathsTimesAndProcessesAreUsed)
{
    // Each new name enlarges the table, so that readers access it while it is reallocated.
    const EnvSetting restored("QELSTD_DRIVE_Q", nullptr);
    const int names = ofALongRun(1000, 20000);
    TempDir dir;
    dir.write("inside", "12345");
    std::atomic<bool> done = false;
    std::vector<std::thread> readers;
    const auto repeat = [&](auto work) {
        readers.emplace_back([&done, work] {
            do
                work();
            while (!done);
        });
    };
    for (int i = 0; i < 2; ++i)
        repeat([&] { EXPECT_EQ(fshGetSize(dir.path("inside")), 5.0); });
    repeat([] {
        const std::unique_ptr<tmTime, void (*)(tmTime*)> noon(tmTime::LocalTime(2024, 1, 31, 12, 0, 0, 0),
                                                              [](tmTime* time) { xdelete(time); });
        EXPECT_EQ(noon->getHour(), 12);
        EXPECT_EQ(textOf(sysGetEnv("QEL_TEST_SYS_NONE")), "(null)");
    });
    repeat([] { EXPECT_EQ(sysOSCall("test ${QEL_TEST_SYS_0:-0} = 0"), 0); });

    for (int i = 0; i < names; ++i) {
        const std::string name = "QEL_TEST_SYS_" + std::to_string(i);
        sysPutEnv(name.c_str(), "0");
        sysPutEnv(name.c_str(), std::to_string(i).c_str());
        sysPutEnv("QELSTD_DRIVE_Q", i % 2 == 0 ? dir.path().c_str() : "");
    }
    sysPutEnv("QELSTD_DRIVE_Q", dir.path());

    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(textOf(sysGetEnv("QEL_TEST_SYS_999")), "999");
    EXPECT_EQ(fshGetSize("Q:\\inside"), 5.0);
}

TEST(SystemCommands, ReturnExitStatus)
{
    TempDir dir;
    EXPECT_EQ(sysOSCall("exit 7"), 7);
    EXPECT_EQ(sysOSCall(("echo done > '" + dir.path("out") + "'").c_str()), 0);
    EXPECT_EQ(dir.read("out"), "done\n");
    EXPECT_EQ(sysOSCall("-no-option"), 127);
    EXPECT_EQ(sysOSCall("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_EQ(sysOSCall(nullptr), -1);
}

TEST(SystemCommands, StartWithDefaultSignalsAndKeepCallersHandlers)
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

TEST(SystemCommands, ReturnExitStatusWhileChildExitsAreIgnored)
{
    struct sigaction unwaited = {}, before;
    unwaited.sa_flags = SA_NOCLDWAIT;
    unwaited.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &unwaited, &before);
    EXPECT_EQ(sysOSCall("exit 7"), 7);
    unwaited.sa_handler = SIG_IGN;
    sigaction(SIGCHLD, &unwaited, nullptr);
    {
        const ChildProcess another([] { return pause(); }); // not waited for
        EXPECT_EQ(sysOSCall("(exit 5); test $? = 5 && exit 7"), 7);
        EXPECT_EQ(sysOSCall("kill -TERM $$; exit 1"), 128 + SIGTERM);
        EXPECT_EQ(sysOSCall("-no-option"), 127);
    }
    sigaction(SIGCHLD, &before, nullptr);
}

TEST(SystemSleep, LastsAtLeastGivenTime)
{
    const auto begin = std::chrono::steady_clock::now();
    sysSleep(-5);
    sysSleep(0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
    sysSleep(1);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}
