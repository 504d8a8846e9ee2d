#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <qel/base/btkchannel.h>
#include <qel/base/btksocket.h>

// Encrypted connections: TLS 1.3 with certificates of both ends. libqelstd-tls, which uses OpenSSL, implements the two
// abstract classes; it is loaded when a folder is opened for the first time, and stays.
//
// A folder has the files authorities.pem (certificates of the trusted authorities), certificate.pem (this end's
// certificate, and then those between it and an authority), key.pem (its private key, which must belong to this user or
// the superuser and be closed to everybody else) and revoked.pem (a list of revoked certificates from each authority).

/// The first byte of a client that begins an encrypted connection.
inline constexpr unsigned char btkTlsFirstByte = 22;

/// The server that is expected: its certificate must show a subjectAltName for each that is given.
struct btkTlsServer
{
    /// The URI `qel://NAME`.
    std::string name;
    /// A DNS name or numeric IP address.
    std::string host;
};

/// One end of an encrypted connection. The connection cannot be used before the handshake is done.
class BASE_API btkTlsSession : public btkChannel
{
public:
    ~btkTlsSession() override;

    enum class Step { done, readable, writable, failed };
    /// Continues the handshake as far as possible without waiting, and says what to wait for.
    virtual Step Handshake() = 0;
    /// See btkCarrier::peerNames; once the handshake is done.
    virtual const std::vector<std::string>& GetPeerNames() const = 0;
    /// The connection to the peer.
    const btkStreamSocket& GetSocket() const { return *socket; }

protected:
    explicit btkTlsSession(std::unique_ptr<btkStreamSocket> connected) : socket(std::move(connected)) {}

private:
    std::unique_ptr<btkStreamSocket> socket;
};

/// The certificates of a folder. Before each new session the files are read anew if they have changed; while they
/// cannot be used, those of before stay in use, and the reason is logged. Safe to call from any thread.
class BASE_API btkTlsFolder
{
public:
    virtual ~btkTlsFolder();

    /// Sessions over a connected socket, which they own. Null, with the reason in `why`, when memory runs out.
    virtual std::unique_ptr<btkTlsSession> Accept(std::unique_ptr<btkStreamSocket> socket,
                                                  std::string& why) = 0;
    virtual std::unique_ptr<btkTlsSession> Connect(std::unique_ptr<btkStreamSocket> socket,
                                                   const btkTlsServer& to, std::string& why) = 0;

    /// Opens a folder, once for each path in a process. Null, with the reason in `why`, when the library or the files
    /// cannot be used.
    static std::shared_ptr<btkTlsFolder> Open(const std::string& path, std::string& why);

    btkTlsFolder(const btkTlsFolder&) = delete;
    btkTlsFolder& operator=(const btkTlsFolder&) = delete;

protected:
    btkTlsFolder() = default;
};

/// The entry of libqelstd-tls; the number in its name changes with the classes above.
inline constexpr const char* btkTlsEntryName = "qel_tls_open_2";
using btkTlsEntry = btkTlsFolder* (*)(const char* path, std::string& why);

/// Returns the socket of the user of an encrypted connection whose handshake is done. Null when there are no
/// descriptors left.
BASE_API std::unique_ptr<btkStreamSocket> btkCarry(std::unique_ptr<btkTlsSession> session);
