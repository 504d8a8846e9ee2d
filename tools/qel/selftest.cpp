// qel selftest: does what the library is for once, in a directory and on ports of its own.
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "commands.h"
#include <qel/base/nmsclient.h>
#include <qel/base/nmsserver.h>
#include <qel/filelib.h>
#include <qel/hmxconfigfile.h>
#include <qel/hmxregistry.h>
#include <qel/iofilestream.h>
#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/syslib.h>
#include <qel/xmonlib.h>

namespace {

template<class T>
using Owned = std::unique_ptr<T, qelDelete>;

constexpr const char* text = "Grüße";
constexpr int number = 20260;

// Throws what FailureOf understands when `condition` does not hold.
void Require(bool condition, const char* what)
{
    if (!condition)
        Fail(Exit::no, "", what);
}

// ---- the tests; `folder` is theirs, and empty

void TestFiles(const std::string& folder)
{
    const std::string path = folder + "/file";
    const std::string copy = folder + "/copy";
    {
        const Owned<ioFileStream> file(ioFileStream::Open(path.c_str(), ioWriteOnly));
        Require(file != nullptr, "a file cannot be made");
        file->WriteInt(number);
        file->WriteString(text);
    }
    fsCopy(path.c_str(), copy.c_str(), fsForceNew, fsNewLink, fsSimple);
    {
        const Owned<ioFileStream> file(ioFileStream::Open(copy.c_str(), ioReadOnly));
        Require(file != nullptr, "the copy cannot be opened");
        Require(file->ReadInt() == number && file->ReadString(nullptr) == text,
                "the copy holds something else");
    }
    fsRemove(copy.c_str(), fsSimple);
    Require(!std::filesystem::exists(copy), "the copy is still there");
}

void TestMonitor(const std::string& folder)
{
    const std::string path = folder + "/monitor";
    const Owned<monFile> writer(monFile::Create(path.c_str(), "selftest"));
    Require(writer != nullptr, "a monitor file cannot be made");
    writer->Int("number")->setValue(number);
    const Owned<monFile> reader(monFile::Open(path.c_str()));
    Require(reader != nullptr && reader->Int("number")->getValue() == number,
            "the value is not what was set");
    writer->String("text", 100)->setValue(text);
    Require(reader->String("text", 100)->getValue() == text, "a value that was added later is not found");
}

void TestConfiguration(const std::string& folder)
{
    const std::string path = folder + "/settings";
    {
        hmxConfigFile file;
        Require(file.Open(path.c_str(), hmxConfigFile::ReadWrite) && file.SetValue("key", text) &&
                    file.CloseChecked(),
                "a value cannot be kept in a file");
    }
    hmxConfigFile file;
    Require(file.Open(path.c_str(), hmxConfigFile::ReadOnly) && file.GetValue("key") == text,
            "the file does not hold the value");
}

void TestRegistry(const std::string& folder)
{
    sysPutEnv("QELSTD_REGISTRY", (folder + "/registry").c_str());
    hmxRegistryKey key;
    Require(key.Create(hmxRegistry::User().root, "Software\\VRX\\selftest") && key.SetValue("key", text),
            "a value cannot be kept in the registry");
    Require(key.GetValue("key") == text, "the registry does not hold the value");
}

// Answers an integer and a text with themselves.
struct Echo : netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* accepted) override
    {
        const Owned<netSocketStream> stream(accepted);
        try {
            stream->WriteInt(stream->ReadInt());
            stream->WriteString(stream->ReadString(nullptr).CastToCString());
        } catch (xthrowable* broken) { // the client says what it misses
            xdelete(broken);
        }
        return netServerContinue;
    }
};

// Runs something in a thread, which `stop` ends.
class Beside
{
public:
    template<class Run, class Stop>
    Beside(Run run, Stop stop) : end(std::move(stop)), thread(std::move(run))
    {
    }
    ~Beside()
    {
        end();
        thread.join();
    }

private:
    std::function<void()> end;
    std::thread thread;
};

void RequireEcho(netAddress* address)
{
    constexpr double limit = 2; // seconds
    const Owned<netSocketStream> stream(netServer::Connect(address, limit));
    Require(stream != nullptr, "the server does not answer");
    stream->setITimeout(limit); // where no descriptor is left, it cannot accept
    stream->WriteInt(number);
    stream->WriteString(text);
    Require(stream->ReadInt() == number && stream->ReadString(nullptr) == text,
            "what comes back is something else");
}

void TestServer(const std::string&)
{
    Echo echo;
    const Owned<netServer> server(netServer::Create(nullptr, 0));
    Require(server != nullptr, "no port can be listened on");
    server->setOnRequest(&echo);
    const xrchandle<netAddress> address(netAddress::Create(server->getPortN(), nullptr));
    const Beside loop([&] { server->Run(); }, [&] { server->Stop(); });
    Require(netServer::GetVersion(address.get()) == server->getVersion(), "the version is not the server's");
    RequireEcho(address.get());
}

void TestNames(const std::string&)
{
    nmsServerOptions options;
    options.port = 0;
    nmsServer names(options);
    Require(names.Listen(), "no port can be listened on");
    const Beside nameLoop([&] { names.Run(); }, [&] { names.Stop(); });
    sysPutEnv("VRXNMSPORT", std::to_string(names.GetPort()).c_str());

    Echo echo;
    const xrchandle<netAddress> address(netAddress::Create("selftest", nullptr));
    {
        const Owned<netServer> server(netServer::Create("selftest", 0, "127.0.0.1"));
        Require(server != nullptr, "no port can be listened on");
        server->setOnRequest(&echo);
        const Beside loop([&] { server->Run(); }, [&] { server->Stop(); });
        RequireEcho(address.get());
    }
    const nmsOwnedProxy proxy(getNameServer(nullptr));
    Require(proxy != nullptr && !IsRegisteredWithNMS(proxy.get(), "selftest"),
            "the name has outlived its server");
}

struct Test
{
    const char* name;
    void (*run)(const std::string& folder);
};

constexpr Test tests[] = {
    {"files", &TestFiles},       {"monitor", &TestMonitor}, {"configuration", &TestConfiguration},
    {"registry", &TestRegistry}, {"server", &TestServer},   {"names", &TestNames},
};

// A directory that is there while the object is.
class Folder
{
public:
    Folder()
    {
        path = (std::filesystem::temp_directory_path() / "qel-selftest-XXXXXX").string();
        if (mkdtemp(path.data()) == nullptr)
            Fail(Exit::peer, path, std::strerror(errno));
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string path;
};

// Why the test has failed; nothing when it has not.
std::string Problem(const Test& test, const std::string& folder)
{
    try {
        test.run(folder);
        return {};
    } catch (const CommandFailed& failed) {
        return failed.why;
    } catch (xthrowable* thrown) {
        const CommandFailed failed = FailureOf(thrown);
        return failed.what.empty() ? failed.why : failed.what + ": " + failed.why;
    } catch (const std::exception& failure) {
        return failure.what();
    }
}

void Run()
{
    const Folder folder;
    Json results = Json::array();
    bool isWhole = true;
    for (const Test& test : tests) {
        const auto start = std::chrono::steady_clock::now();
        const std::string problem = Problem(test, folder.path);
        const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
        Json result;
        result["test"] = test.name;
        result["passed"] = problem.empty();
        result["ms"] = static_cast<long>(taken.count());
        if (!problem.empty())
            result["why"] = problem;
        results.push_back(result);
        isWhole = isWhole && problem.empty();
    }
    Show(results);
    if (!isWhole)
        AnswerNo();
}

} // namespace

void AddSelftestCommand(CLI::App& program)
{
    CLI::App& selftest = AddCommand(
        program, "selftest",
        "Try files, monitor files, configuration, registry, a server and a name server of its own once",
        &Run);
    selftest.footer("qel selftest\tIs this installation whole? Leaves nothing behind.\n");
    OfferJson(selftest);
}
