// qel selftest: uses each part of the library once, in a new directory and on free ports.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>

#include <qel/base/btkfd.h>
#include <qel/base/nmsclient.h>
#include <qel/base/nmsserver.h>
#include <qel/filelib.h>
#include <qel/hmxconfigfile.h>
#include <qel/hmxregistry.h>
#include <qel/iofilestream.h>
#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/qelcaught.h>
#include <qel/qelown.h>
#include <qel/syslib.h>
#include <qel/xmonlib.h>

#include "commands.h"

namespace {

constexpr const char* text = "Grüße";
constexpr int number = 20260;

// Throws an exception for FailureOf unless `condition` holds.
void require(bool condition, const char* what)
{
    if (!condition)
        Fail(Exit::no, "", what);
}

// ---- the tests; each gets an empty `folder`

void testFiles(const std::string& folder)
{
    const std::string path = folder + "/file";
    const std::string copy = folder + "/copy";
    {
        const qel::owned<ioFileStream> file(ioFileStream::Open(path.c_str(), ioWriteOnly));
        require(file != nullptr, "a file cannot be created");
        file->WriteInt(number);
        file->WriteString(text);
    }
    fsCopy(path.c_str(), copy.c_str(), fsForceNew, fsNewLink, fsSimple);
    {
        const qel::owned<ioFileStream> file(ioFileStream::Open(copy.c_str(), ioReadOnly));
        require(file != nullptr, "the copy cannot be opened");
        require(file->ReadInt() == number && file->ReadString(nullptr) == text,
                "the copy differs from the file");
    }
    fsRemove(copy.c_str(), fsSimple);
    require(!std::filesystem::exists(copy), "the copy has not been removed");
}

void testMonitor(const std::string& folder)
{
    const std::string path = folder + "/monitor";
    const qel::owned<monFile> writer(monFile::Create(path.c_str(), "selftest"));
    require(writer != nullptr, "a monitor file cannot be created");
    writer->Int("number")->setValue(number);
    const qel::owned<monFile> reader(monFile::Open(path.c_str()));
    require(reader != nullptr && reader->Int("number")->getValue() == number,
            "the value differs from the one set");
    writer->String("text", 100)->setValue(text);
    require(reader->String("text", 100)->getValue() == text, "a value added later is not found");
}

void testConfiguration(const std::string& folder)
{
    const std::string path = folder + "/settings";
    {
        hmxConfigFile file;
        require(file.Open(path.c_str(), hmxConfigFile::ReadWrite) && file.SetValue("key", text) &&
                    file.CloseChecked(),
                "a value cannot be stored in a file");
    }
    hmxConfigFile file;
    require(file.Open(path.c_str(), hmxConfigFile::ReadOnly) && file.GetValue("key") == text,
            "the file does not contain the value");
}

void testRegistry(const std::string& folder)
{
    sysPutEnv("QELSTD_REGISTRY", (folder + "/registry").c_str());
    hmxRegistryKey key;
    require(key.Create(hmxRegistry::User().root, "Software\\VRX\\selftest") && key.SetValue("key", text),
            "a value cannot be stored in the registry");
    require(key.GetValue("key") == text, "the registry does not contain the value");
}

// Sends back an integer and a text.
struct Echo : netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* accepted) override
    {
        const qel::owned<netSocketStream> stream(accepted);
        try {
            stream->WriteInt(stream->ReadInt());
            stream->WriteString(stream->ReadString(nullptr).CastToCString());
        } catch (xthrowable* thrown) {
            const qel::caught broken(thrown); // the client reports the failure
        }
        return netServerContinue;
    }
};

// Runs a function in a thread, which `stop` ends.
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

void requireEcho(netAddress* address)
{
    constexpr double limit = 2; // seconds
    const qel::owned<netSocketStream> stream(netServer::Connect(address, limit));
    require(stream != nullptr, "the server does not respond");
    stream->setITimeout(limit); // where no descriptor is left, it cannot accept
    stream->WriteInt(number);
    stream->WriteString(text);
    require(stream->ReadInt() == number && stream->ReadString(nullptr) == text,
            "the reply differs from the request");
}

void testServer(const std::string&)
{
    Echo echo;
    const qel::owned<netServer> server(netServer::Create(nullptr, 0));
    require(server != nullptr, "no port is available");
    server->setOnRequest(&echo);
    const xrchandle<netAddress> address(netAddress::Create(server->getPortN(), nullptr));
    const Beside loop([&] { server->Run(); }, [&] { server->Stop(); });
    require(netServer::GetVersion(address.get()) == server->getVersion(),
            "the version differs from the server's");
    requireEcho(address.get());
}

void testNames(const std::string&)
{
    nmsServerOptions options;
    options.port = 0;
    nmsServer names(options);
    require(names.Listen(), "no port is available");
    const Beside nameLoop([&] { names.Run(); }, [&] { names.Stop(); });
    sysPutEnv("VRXNMSPORT", std::to_string(names.GetPort()).c_str());

    Echo echo;
    const xrchandle<netAddress> address(netAddress::Create("selftest", nullptr));
    {
        const qel::owned<netServer> server(netServer::Create("selftest", 0, "127.0.0.1"));
        require(server != nullptr, "no port is available");
        server->setOnRequest(&echo);
        const Beside loop([&] { server->Run(); }, [&] { server->Stop(); });
        requireEcho(address.get());
    }
    const nmsOwnedProxy proxy(getNameServer(nullptr));
    require(proxy != nullptr && !IsRegisteredWithNMS(proxy.get(), "selftest"),
            "the name is still registered after its server has stopped");
}

struct Test
{
    const char* name;
    void (*run)(const std::string& folder);
};

constexpr Test tests[] = {
    {"files", &testFiles},       {"monitor", &testMonitor}, {"configuration", &testConfiguration},
    {"registry", &testRegistry}, {"server", &testServer},   {"names", &testNames},
};

// A directory that exists during the object's lifetime.
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

// The most that a test has open at once, with some to spare.
constexpr std::size_t neededDescriptors = 16;

// A server without a descriptor for its client's connection would leave both waiting.
bool hasDescriptors()
{
    std::array<btkFd, neededDescriptors> opened;
    std::generate(opened.begin(), opened.end(), [] { return btkOpenFile("/dev/null", btkOpenRead); });
    return std::all_of(opened.begin(), opened.end(), [](const btkFd& fd) { return static_cast<bool>(fd); });
}

// The reason why the test has failed; empty when it has passed.
std::string problemOf(const Test& test, const std::string& folder)
{
    if (!hasDescriptors())
        return "fewer than " + std::to_string(neededDescriptors) +
               " more descriptors can be opened (ulimit -n)";
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

void runTests()
{
    const Folder folder;
    Json results = Json::array();
    bool isWhole = true;
    for (const Test& test : tests) {
        const auto start = std::chrono::steady_clock::now();
        const std::string problem = problemOf(test, folder.path);
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
        program, "selftest", "Test files, monitor files, configuration, registry, a server and a name server",
        &runTests);
    selftest.footer("qel selftest\tCheck this installation. Leaves nothing behind.\n");
    OfferJson(selftest, "a line for each test: test, passed, ms, and why when it has failed");
}
