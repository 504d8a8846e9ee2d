#pragma once

#include <memory>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <string>
#include <vector>

#include <qel/base/btktls.h>

/// Frees the objects of OpenSSL.
struct TlsFree
{
    void operator()(SSL* one) const { SSL_free(one); }
    void operator()(SSL_CTX* one) const { SSL_CTX_free(one); }
    void operator()(X509* one) const { X509_free(one); }
    void operator()(X509_CRL* one) const { X509_CRL_free(one); }
    void operator()(EVP_PKEY* one) const { EVP_PKEY_free(one); }
    void operator()(BIO* one) const { BIO_free(one); }
    void operator()(GENERAL_NAMES* one) const { GENERAL_NAMES_free(one); }
    void operator()(ASN1_OCTET_STRING* one) const { ASN1_OCTET_STRING_free(one); }
};
template<class T>
using TlsOwned = std::unique_ptr<T, TlsFree>;

enum class TlsRole { client, server };

class TlsSession final : public btkTlsSession
{
public:
    /// Prepares a context, which has its certificates, for sessions.
    static bool Prepare(SSL_CTX& context);
    /// `expected`: for a client, what the server must show. Null when memory runs out.
    static std::unique_ptr<TlsSession> Create(SSL_CTX& context, std::unique_ptr<btkStreamSocket> socket,
                                              TlsRole role, const btkTlsServer& expected);
    ~TlsSession() override;

    Step Handshake() override;
    const std::vector<std::string>& GetPeerNames() const override { return peerNames; }

    btkHandle GetInput() const override { return isInputOver ? -1 : GetSocket().GetHandle(); }
    btkHandle GetOutput() const override { return isOutputBroken ? -1 : GetSocket().GetHandle(); }
    std::ptrdiff_t Read(char* to, std::size_t size) override;
    std::ptrdiff_t Write(const char* from, std::size_t size) override;
    bool HoldsInput() const override;
    bool NeedsRoom() const override { return needsRoom; }
    bool FinishOutput() override;
    bool HasArrived() const override;
    void Close() override;
    std::string GetFailure() const override { return failure; }

private:
    TlsSession(std::unique_ptr<btkStreamSocket> connected, TlsRole is, const btkTlsServer& wanted)
        : btkTlsSession(std::move(connected)), role(is), expected(wanted)
    {
    }

    // ---- called by OpenSSL

    static BIO_METHOD* GetBioMethod();
    static int ReadBio(BIO* bio, char* to, int size);
    static int WriteBio(BIO* bio, const char* from, int size);
    static long ControlBio(BIO* bio, int command, long number, void* pointer);
    static int Verify(int isGood, X509_STORE_CTX* store);

    bool Accepts(X509& certificate);
    /// After a call with that result: none when the call is to be repeated, else why it failed.
    enum class Outcome { again, ended, failed };
    Outcome Judge(int result);
    void Fail(std::string why);
    std::string DescribeError();

    TlsRole role;
    btkTlsServer expected;
    TlsOwned<SSL> ssl;
    std::vector<std::string> peerNames;
    std::string failure;
    std::string refusal; // of the peer's certificate

    std::unique_ptr<char[]> received;
    std::size_t receivedBegin = 0;
    std::size_t receivedEnd = 0;
    bool isAtEnd = false;
    bool isInputOver = false;
    bool isOutputBroken = false;
    bool isOutputFinished = false;
    bool needsRoom = false;
};
