#include <unistd.h>

#include <qel/base/btksocket.h>
#include <qel/hmxregistry.h>
#include <qel/netrights.h>
#include <qel/netserver.h>
#include <qel/nettls.h>

#include "support/addresses.h"
#include "support/child.h"
#include "support/descriptors.h"
#include "support/environment.h"
#include "support/failingmalloc.h"
#include "support/faults.h"
#include "support/longrun.h"
#include "support/nameserver.h"
#include "support/tempdir.h"
#include "support/test.h"
#include "support/testserver.h"

namespace {

void Allow(hmxRegistry& registry, const char* patterns)
{
    hmxRegistryKey key;
    ASSERT_TRUE(key.Create(registry.root, "Software\\VRX\\svc"));
    ASSERT_TRUE(key.SetValue("ConnectionAllowed", patterns));
}

/// A connection from 10.1.2.3, another machine in this process's private network.
class RemotePeer
{
public:
    RemotePeer()
    {
        if (!enterOwnNetwork({"10.9.9.9", "10.1.2.3"}))
            return;
        EXPECT_TRUE(door.Listen(0, nullptr));
        client = connectFrom("10.1.2.3", "10.9.9.9", door.GetPortN());
        EXPECT_EQ(door.Wait(btkTimeval(10, 0), 1), 1);
        EXPECT_TRUE(door.Accept(&peer));
        EXPECT_FALSE(peer.IsPeerOnTheSameMachine());
    }
    RemotePeer(const RemotePeer&) = delete;
    RemotePeer& operator=(const RemotePeer&) = delete;
    ~RemotePeer()
    {
        if (client >= 0)
            close(client);
    }
    /// False if the system does not allow network namespaces.
    explicit operator bool() const { return client >= 0; }
    btkStreamSocket* socket() const { return &peer; }

private:
    btkAcceptSocket door;
    mutable btkStreamSocket peer;
    int client = -1;
};

/// Runs `body` in a child with an empty registry and a peer at 10.1.2.3. Skips the test where there are no networks.
void withPeer(const std::function<void(const TempDir& dir, btkStreamSocket* peer)>& body)
{
    expectSuccessInChild("this host lets nobody make networks", [&] {
        const TempDir dir(TempDir::InMemory);
        const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
        const RemotePeer peer;
        if (!peer)
            return notAllowed;
        body(dir, peer.socket());
        return 0;
    });
}

} // namespace

TEST(SplitPatternList, SplitsAtBlanksTabsAndLineEnds)
{
    const auto patterns = SplitPatternList(" 10.1.*\t192.168.0.5\n\n  ? ");
    ASSERT_EQ(patterns->getarraysize(), 3);
    EXPECT_TRUE(patterns->get(0) == "10.1.*" && patterns->get(1) == "192.168.0.5" && patterns->get(2) == "?");
    EXPECT_EQ(SplitPatternList("")->getarraysize(), 0);
    EXPECT_EQ(SplitPatternList(nullptr)->getarraysize(), 0);
}

TEST(MatchAnyPattern, MatchesTheWholeAddress)
{
    const auto patterns = SplitPatternList("10.1.* 192.168.0.?");
    EXPECT_TRUE(MatchAnyPattern("10.1.2.3", patterns));
    EXPECT_TRUE(MatchAnyPattern("192.168.0.5", patterns));
    EXPECT_FALSE(MatchAnyPattern("192.168.0.55", patterns));
    EXPECT_FALSE(MatchAnyPattern("110.1.2.3", patterns));
    EXPECT_FALSE(MatchAnyPattern("", patterns));
    EXPECT_FALSE(MatchAnyPattern("10.1.2.3", nullptr));
}

TEST(MatchAnyPattern, AdmitsByAddressOrByCertificate)
{
    using Names = xrchandle<xstringsequence>;
    const Names mary = SplitPatternList("mary"), both = SplitPatternList("john mary");
    const auto admits = [](const char* patterns, Names names, bool isTlsRequired = false) {
        return MatchAnyPattern("10.1.2.3", names, SplitPatternList(patterns), isTlsRequired);
    };

    EXPECT_TRUE(admits("10.1.* cert:mary", nullptr)) << "an address is enough";
    EXPECT_TRUE(admits("10.9.* cert:m?ry", mary));
    EXPECT_TRUE(admits("cert:mary", both));
    for (const char* const other : {"*", ""})
        EXPECT_FALSE(admits("10.9.* cert:mary cert:m*", SplitPatternList(other)))
            << "only patterns have wildcards";
    EXPECT_FALSE(admits("cert:mary", nullptr));
    EXPECT_FALSE(admits("mary cert:", mary));
    EXPECT_FALSE(admits("", mary));

    EXPECT_FALSE(admits("10.1.* cert:john", mary, true)) << "the address no longer helps";
    EXPECT_TRUE(admits("10.1.* cert:mary", mary, true));
    EXPECT_TRUE(admits("10.1.*", mary, true));
    EXPECT_FALSE(admits("10.2.*", mary, true));
}

// The peer is 10.1.2.3 throughout.
TEST(IsConnectionAllowed, RequiresAMatchOfEveryExistingValue)
{
    withPeer([&](const TempDir&, btkStreamSocket* peer) {
        hmxRegistry& system = hmxRegistry::System();
        hmxRegistry& user = hmxRegistry::User();
        EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
        Allow(system, "10.1.* 192.168.0.5");
        EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
        Allow(user, "192.168.*");
        EXPECT_FALSE(IsConnectionAllowed(peer, "svc"));
        EXPECT_TRUE(IsConnectionAllowed(peer, "other"));
        EXPECT_TRUE(IsConnectionAllowed(peer, nullptr));
        EXPECT_TRUE(IsConnectionAllowed(peer, ""));
        EXPECT_TRUE(IsConnectionAllowed(peer, "a/b"));
        Allow(user, "10.?.2.3");
        EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
        Allow(system, "");
        EXPECT_FALSE(IsConnectionAllowed(peer, "svc"));
        Allow(system, "*");
        EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
    });
}

TEST(IsConnectionAllowed, AdmitsNoPeerWithoutTlsWhereThatIsRequired)
{
    withPeer([&](const TempDir& dir, btkStreamSocket* peer) {
        Allow(hmxRegistry::System(), "10.1.* cert:mary");
        EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
        EXPECT_FALSE(IsConnectionAllowed(peer, "svc", netTlsDemanded));
        EXPECT_FALSE(IsConnectionAllowed(peer, nullptr, netTlsDemanded));
        for (hmxRegistry* const root : {&hmxRegistry::System(), &hmxRegistry::User()}) {
            hmxRegistryKey key;
            EXPECT_TRUE(key.Create(root->root, "Software\\VRX\\svc"));
            EXPECT_FALSE(netIsTlsRequired("svc"));
            EXPECT_TRUE(key.SetValue("TLSRequired", "1"));
            EXPECT_TRUE(netIsTlsRequired("svc"));
            EXPECT_FALSE(IsConnectionAllowed(peer, "svc"));
            EXPECT_TRUE(key.SetValue("TLSRequired", "0"));
            EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
        }
        dir.write("store/User/software/vrx/svc/tlsrequired.value", "damaged");
        EXPECT_TRUE(netIsTlsRequired("svc"));
        EXPECT_FALSE(IsConnectionAllowed(peer, "svc"));
    });
}

// ---- rights that cannot be read

namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

/// A way to keep the value of the user's root from being read.
struct Obstacle
{
    const char* name;
    std::function<void(const TempDir& dir)> apply;
};

const std::string keyFolder = "store/User/software/vrx/svc";
const std::string valueFile = keyFolder + "/connectionallowed.value";

std::function<void(const TempDir&)> valueIs(const std::string& content)
{
    return [content](const TempDir& dir) { dir.write(valueFile, content); };
}

/// A link with the text `target` in place of `node`.
std::function<void(const TempDir&)> linkAt(const std::string& node, const std::string& target)
{
    return [=](const TempDir& dir) {
        std::filesystem::rename(dir.path(node), dir.path("moved"));
        dir.link(target == "moved" ? std::string(dir.path(target)) : target, node);
    };
}

// One for each kind of error; the registry's own tests have each node on the way to a value.
const Obstacle obstacles[] = {
    {"a value of another type", valueIs("4 ConnectionAllowed\n....")},
    {"a damaged value", valueIs("*")},
    {"a value that is a loop", linkAt(valueFile, "connectionallowed.value")},
    {"a link to a key", linkAt(keyFolder, "moved")},
    {"a store that leads nowhere", linkAt("store", "nowhere")},
    {"no right to read", [](const TempDir&) { EXPECT_EQ(seteuid(geteuid() == 0 ? 65534 : geteuid()), 0); }},
    {"no HOME",
     [](const TempDir&) {
         for (const char* name : {"QELSTD_REGISTRY", "XDG_CONFIG_HOME", "HOME"})
             unsetenv(name);
     }},
};

} // namespace

TEST(IsConnectionAllowed, AdmitsNoPeerWhenTheRightsCannotBeRead)
{
    for (const Obstacle& obstacle : obstacles) {
        SCOPED_TRACE(obstacle.name);
        withPeer([&](const TempDir& dir, btkStreamSocket* peer) {
            EXPECT_TRUE(IsConnectionAllowed(peer, "svc")) << "there is no store";
            Allow(hmxRegistry::User(), "*");
            EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
            obstacle.apply(dir);
            CaptureStderr();
            EXPECT_FALSE(IsConnectionAllowed(peer, "svc"));
            EXPECT_FALSE(IsConnectionAllowed(peer, "svc"));
            const std::string said = GetCapturedStderr();
            EXPECT_TRUE(said.starts_with("netServer: no other machine may connect to \"svc\"")) << said;
            EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
            EXPECT_EQ(seteuid(getuid()), 0);
        });
    }
}

TEST(IsConnectionAllowed, AdmitsNoPeerWithoutDescriptorsOrMemory)
{
    withPeer([&](const TempDir&, btkStreamSocket* peer) {
        Allow(hmxRegistry::User(), "*");
        EXPECT_TRUE(IsConnectionAllowed(peer, "svc"));
        CaptureStderr();
        const int next = nextDescriptor();
        for (int most = next; most < next + 3; ++most) {
            const DescriptorLimit few(most);
            EXPECT_FALSE(IsConnectionAllowed(peer, "svc")) << most;
        }
        long failures = 0;
        for (bool struck = true; struck; ++failures) {
            const xstring name("svc");
            bool isAdmitted;
            {
                const failing::Failing failure(failures, true);
                isAdmitted = IsConnectionAllowed(peer, name);
                struck = failure.happened();
            }
            EXPECT_EQ(isAdmitted, !struck) << "with " << failures << " allocations";
        }
        EXPECT_GT(failures, failing::ofMalloc ? 3 : 1);
        const std::string said = GetCapturedStderr();
        EXPECT_NE(said.find("too many open files"), std::string::npos) << said;
        EXPECT_NE(said.find("out of memory"), std::string::npos) << said;
    });
}

/// The test below runs this one under strace.
TEST(RightsProgram, ReadsRights)
{
    const char* const output = std::getenv("QEL_TEST_RIGHTS");
    if (output == nullptr)
        GTEST_SKIP() << "run by another test";
    std::ofstream(output) << ReadConnectionRights(hmxRegistry::User(), "svc");
}

TEST(ReadConnectionRights, RightsAreUnknownWhenTheDiskOrTheFileServerFails)
{
    if (!canInjectFaults())
        GTEST_SKIP() << "needs strace";
    const TempDir dir(TempDir::InMemory);
    const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
    const EnvSetting output("QEL_TEST_RIGHTS", dir.path("state").c_str());
    Allow(hmxRegistry::User(), "*");
    // At the store, on the way, and at the value.
    const struct
    {
        const char* call;
        std::string path;
    } places[] = {{"openat", "store"}, {"openat", "store/User"}, {"openat", keyFolder}, {"read", valueFile}};
    for (const char* error : {"EIO", "ESTALE", "ENOMEM", "ENFILE"})
        for (const auto& [call, path] : places) {
            dir.write("state");
            EXPECT_TRUE(passesWithFault("RightsProgram.ReadsRights", call, std::string("error=") + error, 1,
                                        {dir.path(path)}));
            EXPECT_EQ(dir.read("state"), std::to_string(netRightsUnknown)) << call << path << error;
        }
}

// ---- threads

TEST(ReadConnectionRights, ServesThreadsThatReadTheSameAndWriteTheirOwn)
{
    const TempDir dir(TempDir::InMemory);
    const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
    hmxRegistry& user = hmxRegistry::User();
    Allow(user, "10.1.* 10.2.*");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(ofALongRun(1, 600));
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number)
        threads.emplace_back([&, number] {
            const std::string own = "own" + std::to_string(number);
            for (int round = 0; round < 2 || std::chrono::steady_clock::now() < end; ++round) {
                const auto patterns = ReadConnectionPatterns(user, "svc");
                ASSERT_TRUE(patterns);
                EXPECT_EQ(patterns->getarraysize(), 2);
                EXPECT_FALSE(ReadConnectionPatterns(hmxRegistry::System(), "svc"));
                hmxRegistryKey key(user.root);
                ASSERT_TRUE(key.Create(key, own.c_str()) && key.SetValue("v", own.c_str()));
                EXPECT_TRUE(key.GetValue("v") == own.c_str());
                EXPECT_GE(user.root.ListSubkeys()->getarraysize(), 2) << "Software and " << own;
                EXPECT_TRUE(key.Close() && hmxRegistryKey(user.root).DeleteSubkey(own.c_str()));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(ReadConnectionRights, ServesTwoServersInOneProcess)
{
    expectSuccessInChild("this host lets nobody make networks", [] {
        if (!enterOwnNetwork({"127.0.0.1", "10.9.9.9", "10.1.2.3"}))
            return notAllowed;
        const TempDir dir(TempDir::InMemory);
        const EnvSetting store("QELSTD_REGISTRY", dir.path("store").c_str());
        Allow(hmxRegistry::User(), "10.1.*");
        const TestNameServer names;
        ServedInThread first(netServer::Create("svc", 0)), second(netServer::Create("other", 0));
        const auto askOften = [](int port) {
            constexpr int times = 100;
            for (int i = 0; i < times; ++i) {
                btkStreamSocket socket;
                socket.Adopt(btkFd(connectFrom("10.1.2.3", "10.9.9.9", port)));
                socket.SetRecvLimit(btkTimeval(10, 0));
                char byte = 2;
                socket.Send(&byte, 1);
                EXPECT_EQ(socket.RecvAll(&byte, 1), 1u);
                EXPECT_EQ(byte, 1);
            }
        };
        std::thread client(askOften, first.getPort());
        askOften(second.getPort());
        client.join();
        return 0;
    });
}
