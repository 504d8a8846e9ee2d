#include <climits>
#include <cstdint>
#include <ctime>
#include <sys/resource.h>

#include <qel/base/btkbyteorder.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/xiolib.h>

#include "support/environment.h"
#include "support/owned.h"
#include "support/programs.h"
#include "support/streampair.h"
#include "support/test.h"
#include "support/wire.h"

namespace {

constexpr double aWhile = 20;

void Send(const StreamPair& pair, const std::string& bytes)
{
    EXPECT_EQ(btkWrite(pair.nearSocket->GetHandle(), bytes.data(), bytes.size()), bytes.size());
}

// The received bytes, until there are `count`, or these are the last ones, or the end.
std::string Receive(const StreamPair& pair, std::size_t count, const std::string& last = {})
{
    std::string got(count, '\0');
    std::size_t done = 0;
    while (done < count && (last.empty() || !std::string_view(got.data(), done).ends_with(last)) &&
           btkIsReadable(pair.nearSocket->GetHandle(), btkTimeval(aWhile))) {
        const std::ptrdiff_t size = btkRead(pair.nearSocket->GetHandle(), got.data() + done, count - done);
        if (size <= 0)
            break;
        done += static_cast<std::size_t>(size);
    }
    got.resize(done);
    return got;
}

// How often this thread has slept.
long CountSleeps()
{
    rusage used;
    getrusage(RUSAGE_THREAD, &used);
    return used.ru_nvcsw;
}

// A server whose client the test plays byte by byte. It must end before its patience does, unless that is short.
struct Served
{
    explicit Served(double patience = 3 * aWhile) : server(rshServer::Create(pair.far.get(), nullptr, 0))
    {
        rshServer::setPatience(patience);
    }
    ~Served()
    {
        const Owned<rshServerEvent> end(server->ExitEvent());
        EXPECT_EQ(end->evtEvent::Wait(aWhile), 1);
        EXPECT_TRUE(hasNoChildren());
    }

    StreamPair pair;
    Owned<rshServer> server;
};

} // namespace

TEST(rshServer, FollowsTheProtocolByteByByte)
{
    const Served served;
    // Request: command, working directory, shell flag.
    Send(served.pair, Text("cat") + Text("") + Number(0));
    EXPECT_EQ(Receive(served.pair, 4), Number(0));
    // A block of input; unknown tags; the block comes back as output.
    Send(served.pair,
         Number(4) + Text("hello") + Number(1) + Number(99) + Number(-1) + Number(4) + Number(0));
    EXPECT_EQ(Receive(served.pair, 13), Number(3) + Text("hello"));
    // A block in three parts.
    Send(served.pair, Number(4) + Number(3).substr(0, 2));
    EXPECT_FALSE(btkIsReadable(served.pair.nearSocket->GetHandle(), btkTimeval(0.02)));
    Send(served.pair, Number(3).substr(2) + "ab");
    EXPECT_EQ(Receive(served.pair, 10), Number(3) + Text("ab"));
    Send(served.pair, "c");
    EXPECT_EQ(Receive(served.pair, 9), Number(3) + Text("c"));
    // The end of the input; exit code 0; the end, which the client acknowledges.
    Send(served.pair, Number(5));
    EXPECT_EQ(Receive(served.pair, 12), Number(6) + Number(0) + Number(7));
    Send(served.pair, Number(4) + Text("too late") + Number(7));
}

TEST(rshServer, TerminatesAndInterruptsByTagsAndUrgentValues)
{
    for (const bool urgent : {false, true})
        for (const int tag : {8, 9}) {
            const Served served;
            Send(served.pair, Text("cat") + Text("") + Number(0));
            EXPECT_EQ(Receive(served.pair, 4), Number(0));
            if (urgent) {
                EXPECT_EQ(served.pair.near->WriteOutOfBand(5), 1); // has no meaning
                // Once the input comes back, the server has read the value.
                Send(served.pair, Number(4) + Text("x"));
                EXPECT_EQ(Receive(served.pair, 9), Number(3) + Text("x"));
                EXPECT_EQ(served.pair.near->WriteOutOfBand(tag), 1);
            } else {
                Send(served.pair, Number(tag));
            }
            EXPECT_EQ(Receive(served.pair, 12), Number(6) + Number(tag == 8 ? 137 : 130) + Number(7));
            Send(served.pair, Number(7));
        }
}

TEST(rshServer, EndsOnAnInvalidMessage)
{
    const std::string sleeping = Text("sleep 60") + Text("") + Number(0);
    for (const std::string& bytes :
         {Number(-1), Number(INT_MAX), Text("x") + Number(-5), sleeping + Number(4) + Number(-1),
          sleeping + Number(4) + Number(INT_MIN)}) {
        const Served served;
        Send(served.pair, bytes);
    }
}

TEST(rshServer, EndsWhenItsClientDisconnectsInTheMiddle)
{
    const std::string session =
        Text("cat") + Text("") + Number(0) + Number(4) + Text("some input") + Number(4) + Number(100);
    for (std::size_t length = 0; length <= session.size(); ++length) {
        Served served;
        Send(served.pair, session.substr(0, length));
        served.pair.near.reset();
    }
}

namespace {

// Sends input, as the client of a command that reads none, until `count` bytes are on their way or no more is
// taken.
void SendUnread(const StreamPair& pair, std::size_t count)
{
    const std::string block = Number(4) + Text(std::string(60000, 'x'));
    for (std::size_t sent = 0, taken = 1; sent < count && taken > 0; sent += taken) {
        const std::ptrdiff_t now = btkTryWrite(pair.nearSocket->GetHandle(), block.data(), block.size());
        taken = now > 0 ? static_cast<std::size_t>(now) : 0;
    }
}

} // namespace

TEST(rshServer, EndsWhenItsClientIsLostWhileTheCommandReadsNothing)
{
    for (const bool isReset : {false, true}) {
        Served served;
        Send(served.pair, Text("sleep 60") + Text("") + Number(0));
        EXPECT_EQ(Receive(served.pair, 4), Number(0));
        SendUnread(served.pair, isReset ? SIZE_MAX : 180000);
        btkResetOnClose(served.pair.nearSocket->GetHandle(), isReset);
        served.pair.near.reset();
    }
}

// A connection without a request, or that never acknowledges the end, is closed after a limit.
TEST(rshServer, WaitsForALimitedTimeOnly)
{
    const auto readIn = [](const StreamPair& pair) {
        const btkTimeval start = btkTimeval::Now();
        rshRequest request;
        EXPECT_FALSE(request.Read(pair.far.get(), 0.3, {nullptr}));
        return (btkTimeval::Now() - start).ToSeconds();
    };
    for (const bool drips : {false, true}) {
        const StreamPair pair;
        Send(pair, Number(1000) + "x");
        std::atomic<bool> ends = false;
        std::thread sender([&] {
            while (drips && !ends) {
                Send(pair, "x");
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        const long before = CountSleeps();
        EXPECT_LT(readIn(pair), 0.3 * 1.1 + 0.2);
        EXPECT_LT(CountSleeps() - before, 60) << "the bytes wake it one by one";
        ends = true;
        sender.join();
    }
    for (const std::size_t output : {0, 20000000}) {
        const Served served(1.0);
        Send(served.pair,
             Text("head -c " + std::to_string(output) + " /dev/zero") + Text("") + Number(0) + Number(5));
        const Owned<rshServerEvent> end(served.server->ExitEvent());
        if (output > 0) { // the command exits once this client has read most of it
            EXPECT_EQ(end->evtEvent::Wait(1.5), 0) << "patience begins with the end of the command";
            Receive(served.pair, output - 100000);
        }
        const btkTimeval start = btkTimeval::Now();
        EXPECT_EQ(end->evtEvent::Wait(aWhile), 1);
        EXPECT_LT((btkTimeval::Now() - start).ToSeconds(), 3.0);
        // Bytes in transit arrive.
        const std::string last = Number(6) + Number(0) + Number(7);
        EXPECT_TRUE(Receive(served.pair, 1 << 20, last).ends_with(last));
    }
}

TEST(rshServer, SendsOnlyOutputWrittenBeforeTheCommandExited)
{
    const EnvSetting shell("SHELL", "/bin/sh");
    const Served served;
    Send(served.pair, Text("yes & sleep 0.1; kill -STOP $!; kill -CONT $! & exit 4") + Text("") + Number(1));
    EXPECT_EQ(Receive(served.pair, 4), Number(0));
    std::size_t behindTheExitCode = 0;
    bool hasExitCode = false;
    for (std::string tag; (tag = Receive(served.pair, 4)) != Number(7);) {
        ASSERT_EQ(tag.size(), 4u);
        const std::string number = Receive(served.pair, 4);
        ASSERT_EQ(number.size(), 4u);
        hasExitCode |= tag == Number(6);
        if (tag == Number(6)) {
            EXPECT_EQ(number, Number(4));
            continue;
        }
        const auto size = static_cast<std::size_t>(btkGetNetwork<int>(number.data()));
        ASSERT_EQ(Receive(served.pair, size).size(), size);
        behindTheExitCode += hasExitCode ? size : 0;
    }
    EXPECT_TRUE(hasExitCode);
    EXPECT_LE(behindTheExitCode, 1u << 18);
    Send(served.pair, Number(7));
}

namespace {

// A client whose server the test plays: its reply and everything it sends later. Returns the exit code.
int PlayServer(const std::string& answer, std::string& output)
{
    StreamPair pair;
    std::swap(pair.near, pair.far); // the test has the handle of the server's side
    const std::string request = Text("command") + Text("dir") + Number(1);
    Send(pair, answer);
    const Owned<ioStringStream> out(ioStringStream::Create(xnullstr));
    const Owned<rshProcess> process(
        rshProcess::Create(pair.near.get(), "command", "dir", nullptr, out.get(), nullptr, 1, 0));
    EXPECT_EQ(Receive(pair, request.size()), request);
    pair.nearSocket->ShutdownOutput();
    const Owned<rshEvent> end(process->ExitEvent());
    EXPECT_EQ(end->evtEvent::Wait(aWhile), 1);
    output = out->getStr().CastToCString();
    return process->GetExitCode();
}

std::string RefusedBy(const std::string& answer)
{
    std::string output;
    return describeThrown<rshXProcess>([&] { PlayServer(answer, output); },
                                       [](rshXProcess* failure) {
                                           return std::to_string(failure->getCreateError()) + " " +
                                                  failure->getMsg().CastToCString();
                                       },
                                       "not refused");
}

} // namespace

TEST(rshProcess, FollowsTheProtocolByteByByte)
{
    std::string output;
    EXPECT_EQ(PlayServer(Number(0) + Number(3) + Text("out") + Number(2) + Text("err") + Number(6) +
                             Number(5) + Number(3) + Text("put") + Number(99) + Number(7),
                         output),
              5);
    EXPECT_EQ(output, "output");
}

TEST(rshProcess, KeepsOutputReceivedFromAFailedServer)
{
    for (const std::string& rest :
         {Number(3) + Number(-1) + "x", Number(3) + Number(100), Number(6) + "ab", std::string("a")}) {
        std::string output;
        EXPECT_EQ(PlayServer(Number(0) + Number(3) + Text("out") + rest, output), xnullint);
        EXPECT_EQ(output, "out");
    }
}

TEST(rshProcess, ReportsTheServersRefusal)
{
    EXPECT_EQ(RefusedBy(Number(10) + Number(3) + Text("No such file")), "3 No such file");
    EXPECT_EQ(RefusedBy(Number(77) + Number(12) + Text("bad")), "12 bad");
    EXPECT_EQ(RefusedBy(Number(10) + Number(0) + Number(-1)), "0 Remote process launching error");
}

namespace {

// A client whose server has started the command and then reads nothing.
struct Stuck
{
    explicit Stuck(ioStream* out = nullptr)
    {
        std::swap(pair.near, pair.far);
        Send(pair, Number(0));
        process.reset(
            rshProcess::Create(pair.near.get(), "command", nullptr, endless.get(), out, nullptr, 0, 0));
        end.reset(process->ExitEvent());
        EXPECT_TRUE(soon([&] { return btkCountPeerRoom(pair.farSocket->GetHandle()) == 0; }));
    }

    StreamPair pair;
    const Owned<ioFileStream> endless{ioFileStream::Open("/dev/zero", ioReadOnly)};
    Owned<rshProcess> process;
    Owned<rshEvent> end;
};

} // namespace

TEST(rshProcess, AcceptsTheEndFromAServerThatReadsNothing)
{
    Stuck stuck;
    Send(stuck.pair, Number(6) + Number(5) + Number(7));
    EXPECT_EQ(stuck.end->evtEvent::Wait(aWhile), 1);
    EXPECT_EQ(stuck.process->GetExitCode(), 5);
}

TEST(rshProcess, EndsWhenTerminationCannotReachTheServer)
{
    Stuck stuck;
    for (int time = 0; time < 100; ++time)
        stuck.process->Interrupt();
    stuck.process->Terminate();
    EXPECT_EQ(stuck.end->evtEvent::Wait(aWhile), 1);
    EXPECT_EQ(stuck.process->GetExitCode(), xnullint);
    // The server gets a reset, however much data precedes it.
    stuck.pair.near.reset();
    EXPECT_EQ(btkTryWrite(stuck.pair.nearSocket->GetHandle(), "x", 1), -1);
}

TEST(rshProcess, SleepsWhileOutputOfAClosedServerIsUnread)
{
    StreamPair pair;
    std::swap(pair.near, pair.far);
    Send(pair, Number(0) + Number(3) + Text(std::string(100000, 'x')) + Number(3) + Number(1));
    const Owned<rshProcess> process(
        rshProcess::Create(pair.near.get(), "command", nullptr, nullptr, nullptr, nullptr, 0, 0));
    pair.nearSocket->ShutdownOutput();
    const Owned<rshEvent> end(process->ExitEvent());
    EXPECT_EQ(end->evtEvent::Wait(0.2), 0);
    const std::clock_t before = std::clock();
    EXPECT_EQ(end->evtEvent::Wait(0.5), 0);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);

    std::string left(100000, ' ');
    EXPECT_EQ(process->getStdout()->ReadBytes(left.data(), 100000), 100000u);
    EXPECT_EQ(end->evtEvent::Wait(aWhile), 1);
}
