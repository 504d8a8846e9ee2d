#include <cstdio>

#include <qel/pcprocess.h>
#include <qel/xiolib.h>

#include "iosupport.h"
#include "support/child.h"
#include "support/environment.h"
#include "support/programs.h"
#include "support/streampair.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/thrown.h"

namespace {

using Process = Owned<pcProcess>;

Process Start(const char* command, ioStream* in = nullptr, ioStream* out = nullptr, ioStream* err = nullptr,
              unsigned char ownGroup = 0, const char* workDir = xnullstr)
{
    return Process(pcProcess::Create(command, workDir, in, out, err, ownGroup, 0));
}

// "code: message" of the failure.
template<class Work>
std::string FailureToCreate(Work work)
{
    return describeThrown<pcXCreate>(
        work,
        [](pcXCreate* failure) {
            return std::to_string(failure->getError()) + ": " + textOf(failure->getMsg());
        },
        "none");
}

std::string ReadAll(ioStream& stream)
{
    std::string all;
    const Owned<ioEvent> input(stream.InputEvent());
    while (input->Wait(20.0) && stream.PeekNBytes() > 0)
        all += RestOf(stream);
    return all;
}

int ExitCodeOf(pcProcess& process)
{
    const Owned<pcEvent> end(process.ExitEvent());
    EXPECT_EQ(end->Wait(20.0), 1);
    EXPECT_EQ(end->getProcess(), &process);
    return process.GetExitCode();
}

} // namespace

TEST_F(Processes, CommunicateThroughGivenStreams)
{
    const Owned<ioPipe> in(ioPipe::Create()), out(ioPipe::Create()), err(ioPipe::Create());
    const Process process = Start("sh -c \"tr a-z A-Z; echo end >&2; exit 7\"", in->getReadEnd(),
                                  out->getWriteEnd(), err->getWriteEnd());
    EXPECT_EQ(
        in->getReadEnd()->getIsOpen() + out->getWriteEnd()->getIsOpen() + err->getWriteEnd()->getIsOpen(), 0);
    EXPECT_GT(process->getId(), 0);
    EXPECT_EQ(process->IsRunning(), 1);
    EXPECT_EQ(process->GetStatus(), pcRunning);
    EXPECT_EQ(pcGetProcessStatus(process->getId()), pcRunning);
    EXPECT_EQ(process->GetExitCode(), xnullint);

    in->getWriteEnd()->WriteBytes("text", 4);
    in->getWriteEnd()->Close();
    EXPECT_EQ(ReadAll(*out->getReadEnd()), "TEXT");
    EXPECT_EQ(ReadAll(*err->getReadEnd()), "end\n");

    const Owned<pcEvent> end(process->ExitEvent());
    EXPECT_EQ(end->Wait(20.0), 1);
    EXPECT_EQ(process->GetStatus(), pcExited);
    EXPECT_EQ(pcGetProcessStatus(process->getId()), pcExited);
    EXPECT_EQ(process->GetExitCode(), 7);

    EXPECT_EQ(process->GetExitCode(), 7);
    EXPECT_EQ(process->GetStatus(), pcUninit);
    EXPECT_EQ(process->IsRunning(), 0);
    EXPECT_EQ(process->ExitEvent(), nullptr);
    EXPECT_EQ(end->getIsSignaled(), 1);
    process->Interrupt();
    process->Terminate();
}

TEST_F(Processes, AcceptFilesAndConnectionsAsStreams)
{
    const TempDir dir;
    dir.write("in", "TEXT");
    const StreamPair connection;
    const Owned<ioFileStream> file(ioFileStream::Open(dir.path("in").c_str(), ioReadOnly));
    file->ReadByte(); // the process continues after it

    const Process process = Start("tr A-Z a-z", file.get(), connection.near.get(), ioStream::getStderr());
    EXPECT_EQ(ExitCodeOf(*process), 0);
    EXPECT_EQ(file->getIsOpen() + connection.near->getIsOpen(), 0);
    std::string text(10, '\0');
    text.resize(connection.farSocket->RecvAll(text.data(), text.size()));
    EXPECT_EQ(text, "ext");
}

TEST_F(Processes, ContinueAtPositionOfGivenStreams)
{
    const TempDir dir;
    dir.write("out", "");
    const Owned<ioFileStream> file(ioFileStream::Open(dir.path("out").c_str(), ioReadWrite));
    file->WriteString("first ");
    EXPECT_EQ(ExitCodeOf(*Start("printf second", nullptr, file.get())), 0);
    EXPECT_EQ(dir.read("out"), "first second");

    const Owned<ioPipe> pipe(ioPipe::Create());
    pipe->getWriteEnd()->setBuffered(true);
    pipe->getWriteEnd()->WriteBytes("1 ", 2);
    EXPECT_EQ(ExitCodeOf(*Start("printf 2", nullptr, pipe->getWriteEnd())), 0);
    EXPECT_EQ(ReadAll(*pipe->getReadEnd()), "1 2");

    // Data that cannot be written, or were read ahead and cannot be returned, prevent the start.
    const Owned<ioFileStream> full(ioFileStream::Open("/dev/full", ioWriteOnly));
    full->WriteInt(1);
    EXPECT_EQ(
        FailureToCreate([&] { Start("touch started", nullptr, full.get(), nullptr, 0, dir.path().c_str()); }),
        "12: Stream can not be passed to a process created as an output stream");
    const Owned<ioPipe> ahead(ioPipe::Create());
    ahead->getWriteEnd()->WriteBytes("ab", 2);
    ahead->getReadEnd()->ReadByte();
    EXPECT_EQ(FailureToCreate([&] {
                  Start("touch started", ahead->getReadEnd(), nullptr, nullptr, 0, dir.path().c_str());
              }),
              "11: Stream can not be passed to a process created as an input stream");
    EXPECT_FALSE(std::filesystem::exists(dir.path("started")));
}

TEST_F(Processes, ContinueAtPositionOfInheritedStandardStreams)
{
    const TempDir dir;
    dir.write("in", "one\ntwo\n");
    EXPECT_EQ(runInChild([&] {
                  if (std::freopen(dir.path("in").c_str(), "r", stdin) == nullptr ||
                      std::freopen(dir.path("out").c_str(), "w", stdout) == nullptr)
                      return 1;
                  char lineFeed;
                  ioStream::getStdin()->ReadString(nullptr);
                  ioStream::getStdin()->ReadBytes(&lineFeed, 1);
                  ioStream::getStdout()->WriteString("before ");
                  return ExitCodeOf(*Start("cat"));
              }),
              0);
    EXPECT_EQ(dir.read("out"), "before two\n");
}

TEST_F(Processes, AreNotStartedWhenStreamCannotBePassed)
{
    const Owned<ioStringStream> memory(ioStringStream::Create("text"));
    const Owned<ioPipe> pipe(ioPipe::Create());
    EXPECT_EQ(FailureToCreate([&] { Start("true", memory.get(), memory.get()); }),
              "11: Stream can not be passed to a process created as an input stream");
    EXPECT_EQ(FailureToCreate([&] { Start("true", pipe->getReadEnd(), memory.get(), memory.get()); }),
              "12: Stream can not be passed to a process created as an output stream");
    EXPECT_EQ(FailureToCreate([&] { Start("true", nullptr, pipe->getWriteEnd(), memory.get()); }),
              "13: Stream can not be passed to a process created as an error stream");
    EXPECT_EQ(FailureToCreate([&] { Start("no-such-program", pipe->getReadEnd()); }),
              "3: No such file or directory");
    EXPECT_EQ(FailureToCreate([&] { Start("true", nullptr, nullptr, nullptr, 0, "/no/such"); }),
              "3: No such file or directory");
    EXPECT_EQ(FailureToCreate([&] { Start(nullptr); }), "3: No such file or directory");
    EXPECT_EQ(pipe->getReadEnd()->getIsOpen() + pipe->getWriteEnd()->getIsOpen(), 2);
}

TEST_F(Processes, StartInDirectoryInNativeForm)
{
    const TempDir dir;
    dir.makeDir("a/b");
    const EnvSetting drive("QELSTD_DRIVE_D", dir.path());
    const Owned<ioPipe> out(ioPipe::Create());
    const Process process = Start("pwd -P", nullptr, out->getWriteEnd(), nullptr, 0, "D:\\a\\b");
    EXPECT_EQ(ReadAll(*out->getReadEnd()), std::filesystem::canonical(dir.path("a/b")).string() + "\n");
    EXPECT_EQ(ExitCodeOf(*process), 0);
}

TEST_F(Processes, AreInterruptedAndTerminatedWithGroup)
{
    for (const bool kill : {false, true}) {
        const Owned<ioPipe> in(ioPipe::Create()), out(ioPipe::Create());
        const Process process =
            Start("sh -c \"cat; exit 3\"", in->getReadEnd(), out->getWriteEnd(), nullptr, 1);
        in->getWriteEnd()->WriteByte('x');
        EXPECT_EQ(out->getReadEnd()->ReadByte(), 'x'); // now cat runs
        if (kill)
            process->Terminate();
        else
            process->Interrupt();
        EXPECT_EQ(ReadAll(*out->getReadEnd()), ""); // no process of the group holds it
        EXPECT_EQ(ExitCodeOf(*process), 128 + (kill ? SIGKILL : SIGINT));
    }
}

TEST_F(Processes, OpenedByIdAreObservedButNotWaitedFor)
{
    const Process process = Start("sleep 60");
    const Process opened(pcProcess::Open(process->getId()));
    EXPECT_EQ(opened->getId(), process->getId());
    EXPECT_EQ(opened->ExitEvent(), nullptr);
    EXPECT_EQ(opened->GetStatus(), pcRunning);
    opened->Terminate();
    EXPECT_EQ(ExitCodeOf(*process), 128 + SIGKILL);
    EXPECT_EQ(opened->GetStatus(), pcExited);
    EXPECT_EQ(opened->GetExitCode(), xnullint);
    opened->Close();
    EXPECT_EQ(opened->GetStatus(), pcUninit);

    for (const int id : {process->getId(), 0, -1, xnullint}) {
        EXPECT_EQ(FailureToCreate([&] { pcProcess::Open(id); }), "3: No such process");
        EXPECT_EQ(pcGetProcessStatus(id), pcUninit);
    }
}

TEST(pcGetShellCommand, FollowsEnvironment)
{
    const EnvSetting noShell("SHELL", nullptr), noComspec("COMSPEC", nullptr);
    EXPECT_TRUE(pcGetShellCommand() == nullptr);
    const EnvSetting comspec("COMSPEC", "cmd.exe");
    EXPECT_EQ(textOf(pcGetShellCommand()), "cmd.exe /c");
    const EnvSetting shell("SHELL", "/bin/sh");
    EXPECT_EQ(textOf(pcGetShellCommand()), "/bin/sh -c");
}
