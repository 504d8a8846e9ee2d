// Load. Soak: all libraries in one process, clients of the name server and of a named server, monitor files that are
// written and watched, remote commands, configuration files and the registry; QELSTD_SOAK_SECONDS is the duration.
// Load: many clients of one server. Nothing may be lost, and memory and descriptors must not grow.

#include <array>
#include <future>

#include <qel/hmxconfigfile.h>
#include <qel/hmxregistry.h>
#include <qel/iopipe.h>
#include <qel/netserver.h>
#include <qel/rshprocess.h>
#include <qel/rshserver.h>
#include <qel/xmonlib.h>

#include "support/descriptors.h"
#include "support/environment.h"
#include "support/longrun.h"
#include "support/nameserver.h"
#include "support/programs.h"
#include "support/resident.h"
#include "support/streampair.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/testserver.h"

namespace {

double soakSeconds()
{
    const char* const given = std::getenv("QELSTD_SOAK_SECONDS");
    return given != nullptr ? std::atof(given) : 4;
}

// Sends back an integer and a text that its client sends.
void echo(netSocketStream& stream)
{
    const int value = stream.ReadInt();
    const xstring text = stream.ReadString(nullptr);
    stream.WriteInt(value);
    stream.WriteString(text.CastToCString());
    stream.Flush(1);
}

netServer* makeServer(const char* name)
{
    netServer* const server = netServer::Create(name, 0);
    server->setOnRequest(qel::onRequest([](netSocketStream& stream) {
        if (stream.ReadInt() == 1)
            return netSpawnAsyncServer;
        echo(stream);
        return netServerContinue;
    }));
    server->setOnAsyncRequest(qel::onAsyncRequest(&echo));
    return server;
}

// One request; the server is to start a thread for an odd one.
bool isServed(netAddress* address, int number)
{
    const Owned<netSocketStream> stream(netServer::Connect(address, 30.0));
    if (stream == nullptr)
        return false;
    const std::string text(static_cast<std::size_t>(number * 37 % 5000), 'x');
    stream->WriteInt(number % 2);
    stream->WriteInt(number);
    stream->WriteString(text.c_str());
    return stream->ReadInt() == number && stream->ReadString(nullptr) == text.c_str();
}

// ---- one round each; true when all results were right

bool askServer(int round)
{
    const xrchandle<netAddress> address(netAddress::Create("soaked", nullptr));
    return round % 16 == 0 ? netServer::GetVersion(address.get()) == "QEL netServer Version 0.99"
                           : isServed(address.get(), round);
}

bool registerServer(int round)
{
    const std::string name = "passing" + std::to_string(round);
    const xrchandle<netAddress> address(netAddress::Create(name.c_str(), nullptr));
    const Owned<netBaseServer> server(netBaseServer::Create(name.c_str(), 0));
    return server != nullptr && ResolvePort(address.get()) == server->getPortN();
}

bool relayCommand(int round)
{
    StreamPair pair;
    const auto serving =
        std::async(std::launch::async, [&] { return rshServer::Execute(pair.far.get(), nullptr, nullptr); });
    const std::string command = "head -c " + std::to_string(round * 977 % 100000) + " /dev/zero; exit 7";
    std::size_t got = 0;
    bool isRight = false;
    {
        const Owned<rshProcess> process(
            rshProcess::Create(pair.near.get(), command.c_str(), nullptr, nullptr, nullptr, nullptr, 1, 0));
        char block[4096];
        allowStreamFailure([&] {
            for (;;)
                got += process->getStdout()->ReadBytes(block, 1);
        });
        process->WaitExitCode();
        isRight = process->GetExitCode() == 7;
    }
    pair.near->Close();
    serving.wait();
    return isRight && got == static_cast<std::size_t>(round * 977 % 100000);
}

bool watchValues(const std::string& path, int round)
{
    const Owned<monFile> writer(monFile::Create(path.c_str(), "soak"));
    writer->Int("round")->setValue(round);
    writer->String("text", 100)->setValue(std::to_string(round).c_str());
    const Owned<monFile> watcher(monFile::Open(path.c_str()));
    monParamDict* const params = watcher->getParams();
    for (int i = 0; i < 20; ++i)
        writer->Real("real")->setValue(i);
    return params != nullptr && watcher->Int("round")->getValue() == round &&
           watcher->String("text", 100)->getValue() == std::to_string(round).c_str() &&
           watcher->Real("real")->getValue() == 19;
}

bool keepSettings(const std::string& path, int round)
{
    const std::string value = std::to_string(round);
    {
        hmxConfigFile file;
        if (!file.Open(path.c_str(), hmxConfigFile::ReadWrite) || !file.SetValue("round", value.c_str()))
            return false;
        file.Close();
    }
    hmxConfigFile file;
    hmxRegistryKey key;
    return file.Open(path.c_str(), hmxConfigFile::ReadOnly) && file.GetValue("round") == value.c_str() &&
           key.Create(hmxRegistry::User().root, "Software\\VRX\\soak") &&
           key.SetValue("round", value.c_str()) && key.GetValue("round") == value.c_str();
}

} // namespace

TEST(Soak, NothingIsLostAndMemoryIsStable)
{
    const double seconds = soakSeconds();
    const long before = openDescriptors();
    {
        const TempDir dir(TempDir::InMemory);
        const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
        const EnvSetting shell("SHELL", "/bin/sh");
        const TestNameServer names;
        const ServedInThread served(makeServer("soaked"));

        const long idle = openDescriptors();
        std::atomic<bool> ends = false;
        std::atomic<bool> pauses = false;
        struct Worker
        {
            const char* name;
            std::function<bool(int round)> round;
            std::atomic<int> rounds = 0;
            std::atomic<int> failures = 0;
            std::atomic<bool> rests = false;
        };
        const std::string monitor = dir.path("soak.mon");
        const std::string settings = dir.path("soak.conf");
        std::array<Worker, 6> workers = {{
            {"requests", &askServer},
            {"more requests", &askServer},
            {"registrations", &registerServer},
            {"remote commands", &relayCommand},
            {"monitor files", [&](int round) { return watchValues(monitor, round); }},
            {"settings", [&](int round) { return keepSettings(settings, round); }},
        }};
        std::vector<std::thread> threads;
        for (Worker& worker : workers) {
            threads.emplace_back([&] {
                while (!ends) {
                    worker.rests = pauses.load();
                    if (worker.rests) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(5));
                        continue;
                    }
                    try {
                        worker.failures += !worker.round(++worker.rounds);
                    } catch (xthrowable* thrown) {
                        ++worker.failures;
                        xdelete(thrown);
                    }
                }
            });
        }
        // The memory in use while all workers rest; the server joins its threads then.
        const auto measure = [&] {
            pauses = true;
            const btkTimeval end = btkTimeval::Now() + btkTimeval(20, 0);
            const auto areResting = [&] {
                return std::all_of(workers.begin(), workers.end(),
                                   [](const Worker& one) { return one.rests.load(); });
            };
            while (!areResting() && btkTimeval::Now() < end)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            EXPECT_TRUE(soon([&] { return openDescriptors() <= idle; })) << openDescriptors();
            const long used = residentKiB();
            pauses = false;
            return used;
        };
        const auto goOn = [](double time) {
            std::this_thread::sleep_for(std::chrono::duration<double>(time));
        };
        goOn(seconds / 4);
        const long memory = measure();
        goOn(seconds * 3 / 4);
        const long memoryLater = measure();
        for (const Worker& worker : workers)
            EXPECT_TRUE(soon([&] { return worker.rounds > 3; })) << worker.name;
        ends = true;
        for (std::thread& thread : threads)
            thread.join();

        for (const Worker& worker : workers) {
            EXPECT_EQ(worker.failures, 0) << worker.name;
            RecordProperty(worker.name, worker.rounds);
        }
        if (freedMemoryIsGone) {
            EXPECT_LT(memoryLater - memory, 4096) << "KiB more than the " << memory << " at first";
        }
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_TRUE(hasNoChildren());
}

TEST(Load, SixtyFourClientsLoseNoReply)
{
    const long before = openDescriptors();
    {
        const TestNameServer names;
        ServedInThread served(makeServer("asked"));
        const auto runClients = [](double seconds) {
            std::atomic<int> lost = 0;
            std::atomic<int> done = 0;
            std::vector<std::thread> clients;
            for (int client = 0; client < 64; ++client) {
                clients.emplace_back([&lost, &done, client, seconds] {
                    const btkTimeval end = btkTimeval::Now() + btkTimeval(seconds);
                    for (int turn = 0; turn < 2 || btkTimeval::Now() < end; ++turn) {
                        const xrchandle<netAddress> address(netAddress::Create("asked", nullptr));
                        try {
                            lost += !isServed(address.get(), client * 7 + turn);
                        } catch (xthrowable* failure) {
                            ++lost;
                            xdelete(failure);
                        }
                        ++done;
                    }
                });
            }
            for (std::thread& client : clients)
                client.join();
            EXPECT_EQ(lost, 0) << "of " << done;
            EXPECT_GT(done, 64);
        };
        runClients(1);
        const long warm = residentKiB();
        runClients(ofALongRun(1.0, 60.0));
        if (freedMemoryIsGone) {
            EXPECT_LT(residentKiB() - warm, 4096);
        }
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(Load, ConcurrentRequestsUseLittleMemoryAndAreJoined)
{
    const int count = ofALongRun(200, 1000);
    const DescriptorLimit room(6 * count + 100);
    if (!room)
        GTEST_SKIP() << "too few descriptors for this";
    const long before = openDescriptors();
    {
        ServedInThread served(makeServer(nullptr));
        const xrchandle<netAddress> address = served.address();
        ASSERT_TRUE(isServed(address.get(), 1));
        const long idle = residentKiB();
        std::vector<Owned<netSocketStream>> clients;
        for (int i = 0; i < count; ++i) {
            clients.emplace_back(netServer::Connect(address.get(), INFINITE));
            ASSERT_NE(clients.back(), nullptr);
            clients.back()->WriteInt(1);
            clients.back()->WriteInt(i);
            clients.back()->Flush(1);
        }
        ASSERT_TRUE(isServed(address.get(), 11)); // all earlier ones are being served
        if (freedMemoryIsGone) {                  // both ends, and the used part of a stack
            EXPECT_LT((residentKiB() - idle) / count, 64);
        }
        for (int i = 0; i < count; ++i) {
            clients[static_cast<std::size_t>(i)]->WriteString("end");
            EXPECT_EQ(clients[static_cast<std::size_t>(i)]->ReadInt(), i);
        }
        clients.clear();
        // Completed requests are joined while the server runs.
        EXPECT_TRUE(soon([&] { return openDescriptors() <= before + 10; }));
    }
    EXPECT_EQ(openDescriptors(), before);
}
