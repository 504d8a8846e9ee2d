#include "tlssession.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <new>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <string_view>
#include <sys/socket.h>

#include <qel/base/btkretry.h>
#include <qel/base/btktrace.h>

namespace {

// In the form of the protocol, with its length; its version is that of the frames inside.
constexpr std::string_view protocol = "\5qel/1";
constexpr std::string_view scheme = "qel://";
constexpr std::size_t longestName = 255;
constexpr std::size_t mostNames = 64;
// Four records, so that a stream of them takes one call of the kernel for several.
constexpr std::size_t receivedRoom = 4 * 16406;
constexpr int deepest = 8;
constexpr long longestChain = 65536;

const unsigned char* bytesOf(std::string_view text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

TlsOwned<GENERAL_NAMES> namesOf(const X509& certificate)
{
    return TlsOwned<GENERAL_NAMES>(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)));
}

std::string_view textOf(const ASN1_STRING* text)
{
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
            static_cast<std::size_t>(ASN1_STRING_length(text))};
}

bool isVisible(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

// For messages: a name that the certificate shows, else its number.
std::string describe(const X509* certificate)
{
    if (certificate == nullptr)
        return "no certificate";
    const TlsOwned<GENERAL_NAMES> names = namesOf(*certificate);
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_URI || name->type == GEN_DNS)
            return btkWithoutControls(textOf(name->d.ia5).substr(0, longestName));
    }
    std::string number = "certificate number ";
    for (const char byte : textOf(X509_get0_serialNumber(certificate)).substr(0, 20)) {
        constexpr const char* digits = "0123456789abcdef";
        number += digits[static_cast<unsigned char>(byte) / 16];
        number += digits[static_cast<unsigned char>(byte) % 16];
    }
    return number;
}

// The names NAME of the URIs `qel://NAME`. False when one of them is none.
bool readNames(const X509& certificate, std::vector<std::string>& to)
{
    const TlsOwned<GENERAL_NAMES> names = namesOf(certificate);
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type != GEN_URI || !textOf(name->d.ia5).starts_with(scheme))
            continue;
        const std::string_view text = textOf(name->d.ia5).substr(scheme.size());
        if (text.empty() || text.size() > longestName || !isVisible(text) || to.size() == mostNames)
            return false;
        to.emplace_back(text);
    }
    return true;
}

// The whole name, no part of it standing for anything else; never the subject's.
bool showsHost(X509& certificate, const std::string& host)
{
    const TlsOwned<ASN1_OCTET_STRING> address(a2i_IPADDRESS(host.c_str()));
    if (address != nullptr)
        return X509_check_ip_asc(&certificate, host.c_str(), 0) == 1;
    ERR_clear_error();
    return X509_check_host(&certificate, host.data(), host.size(),
                           X509_CHECK_FLAG_NO_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT, nullptr) == 1;
}

int chooseProtocol(SSL*, const unsigned char** chosen, unsigned char* size, const unsigned char* offered,
                   unsigned int offeredSize, void*)
{
    unsigned char* found = nullptr;
    if (SSL_select_next_proto(&found, size, bytesOf(protocol), static_cast<unsigned int>(protocol.size()),
                              offered, offeredSize) != OPENSSL_NPN_NEGOTIATED)
        return SSL_TLSEXT_ERR_ALERT_FATAL;
    *chosen = found;
    return SSL_TLSEXT_ERR_OK;
}

// Alerts about a certificate: bad_certificate to unknown_ca, access_denied, certificate_required.
bool isAboutCertificate(int alert)
{
    return (alert >= 42 && alert <= 49) || alert == 116;
}

} // namespace

bool TlsSession::Prepare(SSL_CTX& context)
{
    SSL_CTX_set_verify(&context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, &Verify);
    SSL_CTX_set_verify_depth(&context, deepest);
    SSL_CTX_set_max_cert_list(&context, longestChain);
    SSL_CTX_set_session_cache_mode(&context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(&context, SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
    // The file has the chain: without the last of these, each handshake would search for one, and verify it.
    SSL_CTX_set_mode(&context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                   SSL_MODE_RELEASE_BUFFERS | SSL_MODE_NO_AUTO_CHAIN);
    SSL_CTX_set_security_level(&context, 2);
    SSL_CTX_set_alpn_select_cb(&context, &chooseProtocol, nullptr);
    return SSL_CTX_set_min_proto_version(&context, TLS1_3_VERSION) == 1 &&
           SSL_CTX_set_max_proto_version(&context, TLS1_3_VERSION) == 1 &&
           SSL_CTX_set_num_tickets(&context, 0) == 1 && SSL_CTX_set_max_early_data(&context, 0) == 1 &&
           SSL_CTX_set_recv_max_early_data(&context, 0) == 1 &&
           SSL_CTX_set_alpn_protos(&context, bytesOf(protocol), static_cast<unsigned int>(protocol.size())) ==
               0;
}

std::unique_ptr<TlsSession> TlsSession::Create(SSL_CTX& context, std::unique_ptr<btkStreamSocket> socket,
                                               TlsRole role, const btkTlsServer& expected)
{
    std::unique_ptr<TlsSession> made(new TlsSession(std::move(socket), role, expected));
    made->received.reset(new char[receivedRoom]);
    made->ssl.reset(SSL_new(&context));
    BIO* const bio = GetBioMethod() != nullptr ? BIO_new(GetBioMethod()) : nullptr;
    if (made->ssl == nullptr || bio == nullptr) {
        BIO_free(bio);
        return nullptr;
    }
    BIO_set_data(bio, made.get());
    BIO_set_init(bio, 1);
    SSL_set_bio(made->ssl.get(), bio, bio);
    SSL_set_app_data(made->ssl.get(), made.get());
    if (role == TlsRole::server)
        SSL_set_accept_state(made->ssl.get());
    else
        SSL_set_connect_state(made->ssl.get());
    return made;
}

TlsSession::~TlsSession() = default;

// ---- the bytes of the connection

BIO_METHOD* TlsSession::GetBioMethod()
{
    static BIO_METHOD* const method = [] {
        BIO_METHOD* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "qel connection");
        if (made != nullptr) {
            BIO_meth_set_read(made, &ReadBio);
            BIO_meth_set_write(made, &WriteBio);
            BIO_meth_set_ctrl(made, &ControlBio);
        }
        return made;
    }();
    return method;
}

int TlsSession::ReadBio(BIO* bio, char* to, int size)
{
    auto& self = *static_cast<TlsSession*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (size <= 0)
        return 0;
    if (self.receivedBegin == self.receivedEnd) {
        const std::ptrdiff_t count = btkRetry([&] {
            return recv(self.GetSocket().GetHandle(), self.received.get(), receivedRoom, MSG_DONTWAIT);
        });
        self.isAtEnd = count == 0;
        if (count < 0 && errno == EAGAIN)
            BIO_set_retry_read(bio);
        if (count <= 0)
            return static_cast<int>(count);
        self.receivedBegin = 0;
        self.receivedEnd = static_cast<std::size_t>(count);
    }
    const std::size_t count = std::min(static_cast<std::size_t>(size), self.receivedEnd - self.receivedBegin);
    std::memcpy(to, self.received.get() + self.receivedBegin, count);
    self.receivedBegin += count;
    return static_cast<int>(count);
}

// A failure is not reported to OpenSSL: the session must still be able to read why the peer has closed it.
int TlsSession::WriteBio(BIO* bio, const char* from, int size)
{
    auto& self = *static_cast<TlsSession*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (size <= 0)
        return 0;
    if (!self.isOutputBroken) {
        const std::ptrdiff_t count = btkRetry([&] {
            return send(self.GetSocket().GetHandle(), from, static_cast<std::size_t>(size),
                        MSG_NOSIGNAL | MSG_DONTWAIT);
        });
        if (count > 0)
            return static_cast<int>(count);
        self.isOutputBroken = errno != EAGAIN;
    }
    BIO_set_retry_write(bio);
    return -1;
}

long TlsSession::ControlBio(BIO* bio, int command, long, void*)
{
    switch (command) {
    case BIO_CTRL_EOF:
        return static_cast<TlsSession*>(BIO_get_data(bio))->isAtEnd ? 1 : 0;
    case BIO_CTRL_FLUSH:
    case BIO_CTRL_DUP:
        return 1;
    default:
        return 0;
    }
}

// ---- the handshake

int TlsSession::Verify(int isGood, X509_STORE_CTX* store)
{
    const auto* const ssl =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto& self = *static_cast<TlsSession*>(SSL_get_app_data(ssl));
    X509* const certificate = X509_STORE_CTX_get_current_cert(store);
    try {
        if (isGood == 0) {
            self.refusal =
                describe(certificate) + ": " + X509_verify_cert_error_string(X509_STORE_CTX_get_error(store));
            return 0;
        }
        if (X509_STORE_CTX_get_error_depth(store) > 0 || self.Accepts(*certificate))
            return 1;
    } catch (const std::bad_alloc&) {
        X509_STORE_CTX_set_error(store, X509_V_ERR_OUT_OF_MEM);
        return 0;
    }
    X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REJECTED);
    return 0;
}

// Checks the usage and the names of the peer's certificate; OpenSSL has checked the rest.
bool TlsSession::Accepts(X509& certificate)
{
    const std::uint32_t usage = X509_get_extended_key_usage(&certificate);
    const bool isServer = role == TlsRole::server;
    if (usage == UINT32_MAX || (usage & (isServer ? XKU_SSL_CLIENT : XKU_SSL_SERVER)) == 0) {
        refusal = describe(&certificate) + ": its extended key usage is not that of a " +
                  (isServer ? "client" : "server");
        return false;
    }
    peerNames.clear();
    if (!readNames(certificate, peerNames)) {
        refusal = describe(&certificate) + ": a name in it is not valid";
        return false;
    }
    const bool hasName = expected.name.empty() ||
                         std::find(peerNames.begin(), peerNames.end(), expected.name) != peerNames.end();
    if (hasName && (expected.host.empty() || showsHost(certificate, expected.host)))
        return true;
    refusal = describe(&certificate) + ": it is not that of " +
              btkWithoutControls(hasName ? expected.host : std::string(scheme) + expected.name);
    return false;
}

btkTlsSession::Step TlsSession::Handshake()
{
    ERR_clear_error();
    const int result = SSL_do_handshake(ssl.get());
    if (result == 1) {
        const unsigned char* chosen = nullptr;
        unsigned int size = 0;
        SSL_get0_alpn_selected(ssl.get(), &chosen, &size);
        const std::string_view name(reinterpret_cast<const char*>(chosen), size);
        if (name == protocol.substr(1))
            return Step::done;
        Fail("the peer speaks another protocol");
        return Step::failed;
    }
    if (Judge(result) != Outcome::again) {
        // So that the alert with the reason is not lost to a reset that unread input would cause.
        shutdown(GetSocket().GetHandle(), SHUT_WR);
        btkRetry([&] { return recv(GetSocket().GetHandle(), received.get(), receivedRoom, MSG_DONTWAIT); });
        return Step::failed;
    }
    return needsRoom ? Step::writable : Step::readable;
}

TlsSession::Outcome TlsSession::Judge(int result)
{
    const int error = errno;
    needsRoom = false;
    switch (SSL_get_error(ssl.get(), result)) {
    case SSL_ERROR_WANT_READ:
        return Outcome::again;
    case SSL_ERROR_WANT_WRITE:
        needsRoom = !isOutputBroken;
        if (needsRoom || SSL_is_init_finished(ssl.get()))
            return Outcome::again;
        errno = EPIPE;
        Fail("the connection was lost");
        return Outcome::failed;
    case SSL_ERROR_ZERO_RETURN:
        return Outcome::ended;
    case SSL_ERROR_SYSCALL:
        Fail(std::string("the connection was lost: ") + (error != 0 ? std::strerror(error) : "it ended"));
        return Outcome::failed;
    default:
        Fail(DescribeError());
        return Outcome::failed;
    }
}

std::string TlsSession::DescribeError()
{
    const int reason = ERR_GET_REASON(ERR_peek_last_error());
    if (!refusal.empty())
        return "the peer's certificate is not accepted: " + refusal;
    if (reason == SSL_R_UNEXPECTED_EOF_WHILE_READING)
        return "the peer ended the connection without notice";
    if (reason >= SSL_AD_REASON_OFFSET) {
        const int alert = reason - SSL_AD_REASON_OFFSET;
        const std::string text = SSL_alert_desc_string_long(alert);
        return isAboutCertificate(alert) ? "the peer refused this end's certificate (" +
                                               describe(SSL_get_certificate(ssl.get())) + "): " + text
                                         : "the peer refused: " + text;
    }
    const char* const text = ERR_reason_error_string(ERR_peek_last_error());
    return text != nullptr ? text : "an error of the protocol";
}

void TlsSession::Fail(std::string why)
{
    if (failure.empty())
        failure = std::move(why);
}

// ---- afterwards

std::ptrdiff_t TlsSession::Read(char* to, std::size_t size)
{
    if (isInputOver)
        return -1;
    ERR_clear_error();
    errno = 0;
    const int count = SSL_read(ssl.get(), to, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
    if (count > 0) {
        needsRoom = false;
        return count;
    }
    isInputOver = Judge(count) != Outcome::again;
    return isInputOver ? -1 : 0;
}

std::ptrdiff_t TlsSession::Write(const char* from, std::size_t size)
{
    if (isOutputBroken || isOutputFinished)
        return -1;
    ERR_clear_error();
    errno = 0;
    const bool didNeedRoom = needsRoom;
    const int count = SSL_write(ssl.get(), from, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
    if (count > 0)
        return count;
    const Outcome outcome = Judge(count);
    // Its own need of room is the caller's.
    needsRoom = didNeedRoom;
    return outcome == Outcome::again && !isOutputBroken ? 0 : -1;
}

bool TlsSession::HoldsInput() const
{
    return !isInputOver && (receivedBegin < receivedEnd || SSL_pending(ssl.get()) > 0);
}

bool TlsSession::FinishOutput()
{
    if (!isOutputFinished && !isOutputBroken) {
        ERR_clear_error();
        const int result = SSL_shutdown(ssl.get());
        if (result < 0 && SSL_get_error(ssl.get(), result) == SSL_ERROR_WANT_WRITE && !isOutputBroken)
            return false;
        isOutputFinished = true;
    }
    return true;
}

// Closing the socket while the peer still sends resets it, and what has not arrived is lost.
bool TlsSession::HasArrived() const
{
    return isOutputBroken || btkCountUnsent(GetSocket().GetHandle()) == 0;
}

void TlsSession::Close()
{
    shutdown(GetSocket().GetHandle(), SHUT_RDWR);
}
