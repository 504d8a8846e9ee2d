#include <mutex>
#include <openssl/ssl.h>

#include <qel/base/btkframes.h>
#include <qel/hmxregistry.h>
#include <qel/pcprocess.h>
#include <qel/qelfind.h>
#include <qel/xiolib.h>
#include <qel/xnetlib.h>

#include "failure.h"
#include "support/certificates.h"
#include "support/descriptors.h"
#include "support/environment.h"
#include "support/longrun.h"
#include "support/nameserver.h"
#include "support/socketpair.h"
#include "support/streampair.h"
#include "support/test.h"
#include "support/testserver.h"

using namespace std::literals;

namespace {

constexpr double aWhile = 20;
constexpr btkTimeval patience(20, 0);

// An authority, folders of a server and of a client, and a server that tells each client what it knows about it, and
// then sends back each integer.
class NetTls : public testing::Test
{
protected:
    NetTls()
    {
        authority.fill(dir, "server", authority.issue(serverWish()));
        authority.fill(dir, "client", authority.issue(clientWish()));
    }

    static CertificateWish serverWish(const std::string& names = "URI:qel://words,DNS:localhost,IP:127.0.0.1")
    {
        return {.names = names};
    }
    static CertificateWish
    clientWish(const std::string& names = "URI:qel://alice,URI:qel://ops,DNS:alice.example")
    {
        return {.names = names};
    }

    void echo(netSocketStream& stream)
    {
        const std::string failure = failureOf([&] {
            stream.WriteString(stream.getPeerCertificate());
            stream.WriteString(stream.getPeerAddress());
            for (;;)
                stream.WriteInt(stream.ReadInt());
        });
        const std::lock_guard<std::mutex> lock(mutex);
        lastEnd = failure;
        ++ends;
    }
    std::string waitForEnd()
    {
        EXPECT_TRUE(soon([&] { return ends != 0; }));
        const std::lock_guard<std::mutex> lock(mutex);
        return lastEnd;
    }

    // A server that begins with that folder.
    void serve(const char* folder = "server", netServer* made = netServer::Create(nullptr, 0, "127.0.0.1"),
               double silentPatience = 3 * aWhile)
    {
        made->setSilentPatience(silentPatience);
        made->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
        made->setOnAsyncRequest(qel::onAsyncRequest([this](netSocketStream& stream) { echo(stream); }));
        const EnvSetting own("QELSTD_TLS", folder != nullptr ? dir.path(folder).c_str() : nullptr);
        const EnvSetting plain("QELSTD_TLS_LOCAL", nullptr);
        served = std::make_unique<ServedInThread<netServer>>(made);
        // It replies once its loop has begun, and has read its settings.
        ASSERT_TRUE(netServer::IsAlive(served->address().get()));
    }

    xrchandle<netAddress> address(const char* host = "127.0.0.1") const
    {
        return netAddress::Create(served->getPort(), host);
    }
    Owned<netSocketStream> connect(const char* folder = "client", const char* host = "127.0.0.1") const
    {
        const EnvSetting own("QELSTD_TLS", dir.path(folder));
        return Owned<netSocketStream>(netServer::Connect(address(host).get(), aWhile));
    }
    std::string failureOfConnecting(const char* folder = "client", const char* host = "127.0.0.1") const
    {
        return failureOf([&] { connect(folder, host); });
    }

    TempDir dir;
    TestAuthority authority;
    const EnvSetting local{"QELSTD_TLS_LOCAL", "1"};
    std::mutex mutex;
    std::string lastEnd;
    std::atomic<int> ends = 0;
    std::unique_ptr<ServedInThread<netServer>> served;
};

// A client that is another program: OpenSSL itself, over a plain connection.
class OtherClient
{
public:
    OtherClient(const TestAuthority& authority, const TestCertificate& own, int port,
                int version = TLS1_3_VERSION)
        : context(SSL_CTX_new(TLS_method())), ssl(nullptr)
    {
        const auto bio = [](const std::string& text) {
            return BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
        };
        const std::string authorities = authority.getCertificate();
        BIO* const bios[] = {bio(own.chain), bio(own.key), bio(authorities)};
        X509* const certificate = PEM_read_bio_X509(bios[0], nullptr, nullptr, nullptr);
        EVP_PKEY* const key = PEM_read_bio_PrivateKey(bios[1], nullptr, nullptr, nullptr);
        X509* const trusted = PEM_read_bio_X509(bios[2], nullptr, nullptr, nullptr);
        SSL_CTX_use_certificate(context, certificate);
        SSL_CTX_use_PrivateKey(context, key);
        X509_STORE_add_cert(SSL_CTX_get_cert_store(context), trusted);
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_max_proto_version(context, version);
        X509_free(certificate);
        X509_free(trusted);
        EVP_PKEY_free(key);
        for (BIO* const one : bios)
            BIO_free(one);
        socket.Connect("127.0.0.1", port, patience);
        ssl = SSL_new(context);
        SSL_set_alpn_protos(ssl, reinterpret_cast<const unsigned char*>("\5qel/1"), 6);
        SSL_set_fd(ssl, socket.GetHandle());
    }
    OtherClient(const OtherClient&) = delete;
    OtherClient& operator=(const OtherClient&) = delete;
    ~OtherClient()
    {
        quiet.Raised();
        SSL_free(ssl);
        SSL_CTX_free(context);
    }

    bool connects() { return SSL_connect(ssl) == 1; }
    void send(const std::string& bytes) { SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size())); }
    std::string receive(std::size_t size)
    {
        std::string got(size, '\0');
        std::size_t done = 0;
        for (int count = 1; done < size && count > 0; done += static_cast<std::size_t>(std::max(count, 0)))
            count = SSL_read(ssl, got.data() + done, static_cast<int>(size - done));
        got.resize(done);
        return got;
    }

    btkNoSigPipe quiet; // OpenSSL's own connections raise it
    btkStreamSocket socket;
    SSL_CTX* context;
    SSL* ssl;
};

std::string framed(std::string_view data)
{
    std::string frames;
    btkPutDataFrame(frames, data);
    return frames;
}

std::string outputOf(const std::string& command)
{
    FILE* const pipe = popen(command.c_str(), "r");
    std::string all;
    char block[4096];
    while (const std::size_t count = fread(block, 1, sizeof block, pipe))
        all.append(block, count);
    pclose(pipe);
    return all;
}

const std::string versionReply("\1\x1bQEL netServer Version 0.99\0", 29);

} // namespace

// ---- connections

TEST_F(NetTls, EncryptsAConnectionWhoseEndsKnowEachOther)
{
    serve();
    const Owned<netSocketStream> stream = connect();
    ASSERT_NE(stream, nullptr);
    EXPECT_TRUE(stream->isEncrypted());
    EXPECT_TRUE(stream->getPeerCertificate() == "words");
    EXPECT_TRUE(stream->getPeerAddress() == "127.0.0.1");
    EXPECT_TRUE(stream->ReadString("") == "alice ops");
    EXPECT_TRUE(stream->ReadString("") == "127.0.0.1");
    stream->WriteInt(258);
    EXPECT_EQ(stream->ReadInt(), 258);
    EXPECT_EQ(
        thrownBy([&] { pcProcess::Create("/bin/true", nullptr, stream.get(), nullptr, nullptr, 0, 0); }),
        "proclib::XCreate")
        << "a child would write beside the encryption";

    // Plain clients of this machine come through the same port.
    {
        const EnvSetting plain("QELSTD_TLS_LOCAL", nullptr);
        const Owned<netSocketStream> other = connect();
        ASSERT_NE(other, nullptr);
        EXPECT_FALSE(other->isEncrypted());
        EXPECT_TRUE(other->getPeerCertificate() == "");
        EXPECT_TRUE(other->ReadString("") == "");
    }
    const EnvSetting own("QELSTD_TLS", dir.path("client"));
    EXPECT_TRUE(netServer::IsAlive(address().get()));
    EXPECT_TRUE(netServer::GetVersion(address("localhost").get()) == "QEL netServer Version 0.99");
    netServer::Shutdown(address().get());
    served->waitForEnd();
}

TEST_F(NetTls, WaitsAndTryOperationsSeeDecryptedBytes)
{
    serve();
    const Owned<netSocketStream> stream = connect();
    ASSERT_NE(stream, nullptr);
    const Owned<ioEvent> input(stream->InputEvent());
    stream->ReadString("");
    stream->ReadString("");
    int value = 0;
    EXPECT_EQ(stream->TryReadInt(), ioWouldBlock);
    for (int i = 1; i <= 3; ++i)
        stream->WriteInt(i);
    stream->Flush(true);
    EXPECT_TRUE(input->Wait(aWhile));
    for (int i = 1; i <= 3; ++i) {
        while (stream->PeekNBytes() < 4 && input->Wait(aWhile)) {
        }
        value = stream->ReadInt();
        EXPECT_EQ(value, i);
    }
    EXPECT_FALSE(input->Wait(0.05));
}

// ---- who is let in

TEST_F(NetTls, ClientAcceptsOnlyACertificateThatNamesItsServer)
{
    TestAuthority stranger("stranger");
    struct Case
    {
        TestCertificate certificate;
        const char* reason;
    };
    const std::string head = "3 No encrypted connection: the peer's certificate is not accepted: ";
    const CertificateWish good = serverWish();
    const auto with = [&](auto change) {
        CertificateWish wish = good;
        change(wish);
        return authority.issue(wish);
    };
    const Case cases[] = {
        {stranger.issue(good), "qel://words: unable to get local issuer certificate"},
        {with([](auto& wish) { wish.until = -60; }), "qel://words: certificate has expired"},
        {with([](auto& wish) { wish.from = 60; }), "qel://words: certificate is not yet valid"},
        {with([](auto& wish) { wish.usage = "clientAuth"; }), "qel://words: unsuitable certificate purpose"},
        {with([](auto& wish) { wish.usage = ""; }),
         "qel://words: its extended key usage is not that of a server"},
        {with([](auto& wish) { wish.names = "DNS:other.example,IP:127.0.0.2"; }),
         "other.example: it is not that of 127.0.0.1"},
        {with([](auto& wish) { wish.names = "URI:qel://127.0.0.1,DNS:*"; }),
         "qel://127.0.0.1: it is not that of 127.0.0.1"},
        {with([](auto& wish) { wish.names = "URI:qel://two words,IP:127.0.0.1"; }),
         "qel://two words: a name in it is not valid"},
    };
    for (const Case& one : cases) {
        authority.fill(dir, "other", one.certificate);
        serve("other");
        EXPECT_EQ(failureOfConnecting(), head + one.reason);
    }
    authority.fill(dir, "other", with([](auto& wish) {
                       wish.names = "";
                       wish.commonName = "127.0.0.1";
                   }));
    serve("other");
    EXPECT_NE(failureOfConnecting().find(": it is not that of 127.0.0.1"), std::string::npos)
        << "the subject's name counts for nothing";
    authority.fill(dir, "other", with([](auto& wish) { wish.names = "DNS:*host,DNS:*"; }));
    serve("other");
    EXPECT_EQ(failureOfConnecting("client", "localhost"), head + "*host: it is not that of localhost");
}

TEST_F(NetTls, ServerFoundByNameMustShowThatName)
{
    const TestNameServer names;
    serve("server", netServer::Create("words", 0, "127.0.0.1"));
    {
        const EnvSetting own("QELSTD_TLS", dir.path("client"));
        EXPECT_TRUE(qel::connect("words", aWhile)->isEncrypted());
        const xrchandle<netAddress> byName(netAddress::Create("words", "127.0.0.1"));
        EXPECT_NE(Owned<netSocketStream>(netServer::Connect(byName.get(), aWhile)), nullptr);
    }

    // Another one takes the name, with a certificate for the machine.
    authority.fill(dir, "other",
                   authority.issue(serverWish("URI:qel://words2,DNS:words,DNS:localhost,IP:127.0.0.1")));
    served.reset();
    serve("other", netServer::Create("words", 0, "127.0.0.1"));
    const EnvSetting own("QELSTD_TLS", dir.path("client"));
    const std::string refused =
        "3 No encrypted connection: the peer's certificate is not accepted: qel://words2: it is "
        "not that of qel://words";
    EXPECT_EQ(failureOf([] { qel::connect("words", aWhile); }), refused);
    EXPECT_EQ(failureOfConnecting(), "");
}

TEST_F(NetTls, RefusedClientLearnsCertificateAndReason)
{
    serve();
    TestAuthority stranger("stranger");
    CertificateWish expired = clientWish(), other = clientWish(), usage = clientWish(), name = clientWish();
    expired.until = -60;
    usage.usage = "serverAuth";
    name.names = "URI:qel://a b";
    const TestCertificate revoked = authority.issue(clientWish());
    dir.write("server/revoked.pem", authority.list({revoked.number}));
    struct Case
    {
        TestCertificate certificate;
        const char* reason;
    };
    const Case cases[] = {
        {authority.issue(expired), "(qel://alice): certificate expired"},
        {stranger.issue(other), "(qel://alice): unknown CA"},
        {authority.issue(usage), "(qel://alice): unsupported certificate"},
        {authority.issue(name), "(qel://a b): bad certificate"},
        {revoked, "(qel://alice): certificate revoked"},
    };
    for (const Case& one : cases) {
        authority.fill(dir, "other", one.certificate);
        EXPECT_EQ(failureOfConnecting("other"),
                  std::string("3 No encrypted connection: the peer refused this end's certificate ") +
                      one.reason);
    }
    EXPECT_EQ(ends, 0) << "none of them came as far as a request";
    EXPECT_EQ(failureOfConnecting(), "") << "the loop goes on";
}

TEST_F(NetTls, RevocationNeedsAListThatHolds)
{
    serve();
    dir.write("client/revoked.pem", authority.list({}, -60));
    EXPECT_EQ(failureOfConnecting(),
              "3 No encrypted connection: the peer's certificate is not accepted: qel://words: CRL "
              "has expired");
    dir.write("client/revoked.pem", TestAuthority("authority").list());
    EXPECT_NE(failureOfConnecting(), "") << "signed by another of the same name";
    dir.write("other/revoked.pem", authority.list());
    authority.fill(dir, "client", authority.issue(clientWish()));
    EXPECT_EQ(failureOfConnecting(), "");
    dir.write("server/revoked.pem", authority.list({}, -60));
    EXPECT_EQ(
        failureOfConnecting(),
        "3 No encrypted connection: the peer refused this end's certificate (qel://alice): certificate expired");
}

TEST_F(NetTls, FolderThatCannotBeUsedNeverMeansPlain)
{
    serve();
    int number = 0;
    const auto failure = [&](auto damage) {
        std::filesystem::remove_all(dir.path("other").c_str());
        authority.fill(dir, "other", authority.issue(clientWish()));
        damage();
        // A folder is opened once, so each has its own name.
        const std::string name = "damaged" + std::to_string(++number);
        std::filesystem::rename(dir.path("other").c_str(), dir.path(name).c_str());
        const std::string text = failureOfConnecting(name.c_str());
        const std::string head = "3 No encrypted connection: " + dir.path(name) + '/';
        return text.starts_with(head) ? text.substr(head.size()) : text;
    };
    EXPECT_EQ(failure([&] { std::filesystem::remove(dir.path("other/revoked.pem").c_str()); }),
              "revoked.pem: No such file or directory");
    EXPECT_EQ(failure([&] { chmod(dir.path("other/key.pem"), 0640); }),
              "key.pem: it must have the mode 0600, and belong to this user or to root");
    EXPECT_EQ(failure([&] { dir.write("other/key.pem", authority.issue().key); }),
              "key.pem: it is not the key of the certificate");
    EXPECT_EQ(failure([&] { dir.write("other/authorities.pem", "none\n"); }),
              "authorities.pem: it is not valid");
    EXPECT_EQ(failure([&] { dir.write("other/certificate.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n"); }),
              "certificate.pem: it is not valid");
    EXPECT_NE(failureOfConnecting("missing"), "");
    EXPECT_EQ(ends, 0);

    // Nor does a server without one take a client that wants encryption.
    serve(nullptr);
    Owned<netSocketStream> stream;
    EXPECT_NE(failureOf([&] { stream = connect(); }), "");
    EXPECT_EQ(stream, nullptr);
}

TEST_F(NetTls, KeyMayShowARightOfTheGroupAmongCredentialsOnly)
{
    serve();
    authority.fill(dir, "given", authority.issue(clientWish()));
    const std::string refusal = "3 No encrypted connection: " + dir.path("given") +
                                "/key.pem: it must have the mode 0600, and belong to this user or to root";
    const auto failure = [&](mode_t key, mode_t folder, const char* credentials = "given") {
        const EnvSetting set("CREDENTIALS_DIRECTORY",
                             credentials != nullptr ? dir.path(credentials).c_str() : nullptr);
        chmod(dir.path("given/key.pem"), key);
        chmod(dir.path("given"), folder);
        const std::string text = failureOfConnecting("given");
        chmod(dir.path("given"), 0700);
        return text;
    };
    // A folder that was opened once stays in use, so the refusals come first.
    EXPECT_EQ(failure(0440, 0500, nullptr), refusal);
    EXPECT_EQ(failure(0440, 0500, "server"), refusal);
    EXPECT_EQ(failure(0440, 0555), refusal);
    EXPECT_EQ(failure(0440, 0770), refusal);
    EXPECT_EQ(failure(0444, 0500), refusal);
    EXPECT_EQ(failure(0460, 0500), refusal);
    EXPECT_EQ(failure(0440, 0550), "");
    EXPECT_EQ(failure(0440, 0500), "");
}

TEST_F(NetTls, RegistryNamesTheFolderAndRequiresIt)
{
    const EnvSetting none("QELSTD_TLS", nullptr);
    const EnvSetting store("QELSTD_REGISTRY", dir.path("store"));
    EXPECT_FALSE(netIsTlsConfigured());
    EXPECT_TRUE(netGetTlsFolder().isNull());
    hmxRegistryKey user, system;
    ASSERT_TRUE(user.Create(hmxRegistry::User().root, netTlsPath));
    ASSERT_TRUE(user.SetValue("Folder", "/of/the/user"));
    EXPECT_TRUE(netGetTlsFolder() == "/of/the/user");
    ASSERT_TRUE(system.Create(hmxRegistry::System().root, netTlsPath));
    ASSERT_TRUE(system.SetValue("Folder", "/of/the/system"));
    EXPECT_TRUE(netGetTlsFolder() == "/of/the/system");
    const EnvSetting own("QELSTD_TLS", "/of/the/environment");
    EXPECT_TRUE(netGetTlsFolder() == "/of/the/environment");
    EXPECT_TRUE(netIsTlsConfigured());

    SocketPair pair;
    EXPECT_FALSE(netIsTlsRequired("svc"));
    EXPECT_TRUE(IsConnectionAllowed(&pair.far, "svc"));
    hmxRegistryKey server;
    ASSERT_TRUE(server.Create(hmxRegistry::User().root, "Software\\VRX\\svc"));
    ASSERT_TRUE(server.SetValue("TLSRequired", "1"));
    EXPECT_TRUE(netIsTlsRequired("svc"));
    EXPECT_FALSE(IsConnectionAllowed(&pair.far, "svc"));
    ASSERT_TRUE(server.SetValue("TLSRequired", "0"));
    EXPECT_TRUE(IsConnectionAllowed(&pair.far, "svc"));
}

TEST_F(NetTls, FilesAreReadAnewWhenTheyChange)
{
    serve();
    EXPECT_TRUE(connect()->ReadString("") == "alice ops");
    authority.fill(dir, "client", authority.issue(clientWish("URI:qel://bob")));
    EXPECT_TRUE(connect()->ReadString("") == "bob");

    testing::internal::CaptureStderr();
    dir.write("client/certificate.pem", authority.issue(clientWish("URI:qel://carol")).chain);
    EXPECT_TRUE(connect()->ReadString("") == "bob") << "the key is still another's";
    connect();
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string line = dir.path("client/key.pem") + ": it is not the key of the certificate";
    const std::size_t found = log.find(line);
    EXPECT_NE(found, std::string::npos) << log;
    EXPECT_EQ(log.find(line, found + 1), std::string::npos) << "once for each change";

    // The server's own revocations count at once, too.
    const TestCertificate dave = authority.issue(clientWish("URI:qel://dave"));
    authority.fill(dir, "client", dave);
    EXPECT_TRUE(connect()->ReadString("") == "dave");
    dir.write("server/revoked.pem", authority.list({dave.number}));
    EXPECT_NE(failureOfConnecting(), "");
}

// ---- peers that are other programs

TEST_F(NetTls, SpeaksNoOlderVersionAndNoOtherProtocol)
{
    serve();
    const TestCertificate own = authority.issue(clientWish());
    OtherClient old(authority, own, served->getPort(), TLS1_2_VERSION);
    EXPECT_FALSE(old.connects());
    OtherClient other(authority, own, served->getPort());
    SSL_set_alpn_protos(other.ssl, reinterpret_cast<const unsigned char*>("\2h2"), 3);
    EXPECT_FALSE(other.connects());
    OtherClient none(authority, own, served->getPort());
    SSL_set_alpn_protos(none.ssl, nullptr, 0);
    none.connects();
    none.send(framed("\2"));
    EXPECT_EQ(none.receive(1), "");

    OtherClient good(authority, own, served->getPort());
    ASSERT_TRUE(good.connects());
    EXPECT_EQ(SSL_get_early_data_status(good.ssl), SSL_EARLY_DATA_NOT_SENT);
    good.send(framed("\2"));
    EXPECT_EQ(good.receive(5 + versionReply.size() + 1), framed(versionReply) + '\3');
    EXPECT_EQ(good.receive(1), "");
    EXPECT_EQ(SSL_get_shutdown(good.ssl) & SSL_RECEIVED_SHUTDOWN, SSL_RECEIVED_SHUTDOWN);
    EXPECT_EQ(SSL_SESSION_has_ticket(SSL_get0_session(good.ssl)), 0);
}

TEST_F(NetTls, EndWithoutNoticeIsNoEnd)
{
    serve();
    const TestCertificate own = authority.issue(clientWish());
    const auto endOf = [&](auto finish) {
        ends = 0;
        OtherClient client(authority, own, served->getPort());
        EXPECT_TRUE(client.connects());
        client.send(framed("\0\0\0\0\7"s));
        EXPECT_EQ(client.receive(6).back(), 1) << "admitted";
        finish(client);
        client.socket.Close();
        return waitForEnd();
    };
    const std::string cut = endOf([](OtherClient&) {});
    const std::string whole = endOf([](OtherClient& client) {
        client.send("\3");
        SSL_shutdown(client.ssl);
        client.receive(1000);
    });
    const std::string noticeOnly = endOf([](OtherClient& client) { SSL_shutdown(client.ssl); });
    const std::string halfRecord =
        endOf([](OtherClient& client) { client.socket.Send("\x17\3\3\1\0abc", 8); });
    const std::string forged = endOf([](OtherClient& client) {
        const std::string record = "\x17\3\3\0\x20"s + std::string(32, 'x');
        client.socket.Send(record.data(), record.size());
        char rest[100];
        while (client.socket.Recv(rest, sizeof rest) > 0) {
        }
    });
    EXPECT_NE(whole, cut);
    EXPECT_EQ(noticeOnly, cut) << "frames say where the data ends";
    EXPECT_EQ(halfRecord, cut);
    EXPECT_EQ(forged, cut);
}

TEST_F(NetTls, AnotherProgramIsAPeer)
{
    serve();
    authority.fill(dir, "peer", authority.issue(clientWish()));
    const std::string files = " -cert " + dir.path("peer/certificate.pem") + " -key " +
                              dir.path("peer/key.pem") + " -CAfile " + dir.path("peer/authorities.pem");
    EXPECT_EQ(
        outputOf(
            "printf '\\0\\0\\0\\0\\1\\2' | openssl s_client -quiet -verify_quiet -verify_return_error -alpn "
            "qel/1 -connect 127.0.0.1:" +
            std::to_string(served->getPort()) + files + " 2>/dev/null"),
        framed(versionReply) + '\3');
}

// ---- limits

TEST_F(NetTls, UrgentValueOvertakesUnreadInput)
{
    // Four fill the window, in which the request's code has been, too.
    constexpr std::size_t blockSize = btkFrameWindow / 4 - 1;
    std::atomic<int> urgent = 0;
    std::atomic<std::size_t> read = 0;
    const btkTimeval end = btkTimeval::Now() + patience;
    const auto slow = qel::onRequest([&](netSocketStream& stream) {
        const Owned<ioEvent> event(stream.OutOfBandEvent());
        do
            event->Wait(aWhile);
        while ((urgent = stream.ReadOutOfBand()) == xnullint && btkTimeval::Now() < end);
        std::string block(blockSize, 0);
        allowStreamFailure([&] {
            for (;;) {
                stream.ReadBytes(block.data(), blockSize);
                read += blockSize;
            }
        });
    });
    netServer* const server = netServer::Create(nullptr, 0, "127.0.0.1");
    serve("server", server);
    server->setOnRequest(slow.get());
    Owned<netSocketStream> stream = connect();
    ASSERT_NE(stream, nullptr);
    // The server reads nothing: the window fills.
    stream->setOTimeout(aWhile);
    const std::string block(blockSize, 'x');
    const std::size_t sent = 4 * blockSize;
    for (int i = 0; i < 4; ++i)
        stream->WriteBytes(block.data(), blockSize);
    stream->Flush(true);

    EXPECT_TRUE(stream->WriteOutOfBand(-9));
    while (read < sent && btkTimeval::Now() < end)
        std::this_thread::yield();
    EXPECT_EQ(urgent, -9);
    EXPECT_EQ(read, sent);
    stream.reset();
    served.reset(); // it uses what this function has
}

TEST_F(NetTls, UnfinishedHandshakesHaveThePlacesOfSilentClients)
{
    netServer* const server = netServer::Create(nullptr, 0, "127.0.0.1");
    server->setSilentPlaces(8);
    serve("server", server, 4.0);
    const long before = openDescriptors();
    std::vector<btkStreamSocket> slow(60);
    for (btkStreamSocket& one : slow) {
        ASSERT_TRUE(one.Connect("127.0.0.1", served->getPort(), patience));
        // The beginning of a client's first record.
        ASSERT_EQ(one.Send("\x16\3\1\2\0\1\0\1\xfc\3\3", 11), 11u);
    }
    EXPECT_NE(connect(), nullptr) << "they delay nobody";
    {
        const EnvSetting plain("QELSTD_TLS_LOCAL", nullptr);
        EXPECT_NE(connect(), nullptr);
    }
    const btkTimeval begin = btkTimeval::Now();
    for (btkStreamSocket& one : slow) {
        char byte = 0;
        one.SetRecvLimit(patience);
        EXPECT_LE(one.Recv(&byte, 1), 0);
        one.Close();
    }
    EXPECT_LT((btkTimeval::Now() - begin).ToSeconds(), 10.0);
    EXPECT_TRUE(soon([&] { return openDescriptors() <= before; }));
}

TEST_F(NetTls, ManyHandshakesLeaveNothingBehind)
{
    serve();
    connect();
    const long before = openDescriptors();
    const int count = ofALongRun(200, 10000);
    const EnvSetting own("QELSTD_TLS", dir.path("client"));
    const auto work = [&] {
        for (int i = 0; i < count / 2; ++i) {
            const Owned<netSocketStream> stream(netServer::Connect(address().get(), aWhile));
            ASSERT_NE(stream, nullptr);
            stream->ReadString("");
            stream->ReadString("");
            stream->WriteInt(i);
            ASSERT_EQ(stream->ReadInt(), i);
        }
    };
    std::thread one(work), other(work);
    one.join();
    other.join();
    EXPECT_TRUE(soon([&] { return openDescriptors() <= before; }));
}
