#pragma once

#include <qel/netbaseserver.h>
#include <qel/qelduration.h>

class netAddress;
enum class netRequestCode : unsigned char;

/// A server with a version, which answers pings and can be stopped by clients. A client first sends its
/// request code (one byte); peers on other machines are admitted when the registry allows it, see
/// netrights.h. Requests for connections go to the request handler.
///
/// Any program of this machine, and every admitted peer, can stop it. Silent clients delay no other client;
/// they are closed after getSilentPatience() seconds. Not counted: freed with xdelete.
///
///     const auto server = qel::own(netServer::Create("words", 0)); // any port; clients find it by its name
///     server->setOnRequest(qel::onRequest([](netSocketStream& client) { client.WriteString("hello"); }));
///     server->Run(); // until Stop, or a client's netServer::Shutdown
class QEL_API netServer : public netBaseServer
{
    QEL_OBJECT(netServer); // "netlib::Server"

public:
    /// As netBaseServer::Create: the caller owns the server. Warns on the standard error output when a server with a
    /// name listens beyond the loopback and has no rights, so that every machine may connect, and when the registry
    /// cannot restrict the connections to a server of that name at all.
    static netServer* Create(const char* name, int port);
    static netServer* Create(const char* name, int port, const char* listenOn);
    template<qelTextObject S>
    static netServer* Create(const S& name, int port)
    {
        return Create(qelTextArgument(name), port);
    }
    template<qelText S, qelText L>
    requires(qelTextObject<S> || qelTextObject<L>) static netServer* Create(const S& name, int port,
                                                                            const L& listenOn)
    {
        return Create(qelTextArgument(name), port, qelTextArgument(listenOn));
    }
    ~netServer() override;

    xstring getVersion() { return version; }
    /// Seconds after which a client that has sent nothing is closed; initially 5, more than 0.
    void setSilentPatience(double seconds);
    template<qelDuration D>
    void setSilentPatience(const D& limit)
    {
        return setSilentPatience(qelSeconds(limit));
    }
    double getSilentPatience() { return GetSilentPatience().ToSeconds(); }
    /// How many clients may be silent at once, at least 1; initially 256. One more closes another: the oldest
    /// of the address that holds most places, but none younger than 0.1 seconds while another address has an
    /// older one.
    void setSilentPlaces(int most) { SetSilentPlaces(most); }
    int getSilentPlaces() { return GetSilentPlaces(); }

    // ---- for clients: each sends one request to the server at `address`. If its port is not known, it
    // queries the name server of its host and throws as ResolvePort. Each returns within the limit of
    // setAnswerLimit. Safe to call from any thread, an address from one at a time. Where TLS is configured, the
    // connection to another machine is encrypted, see nettls.h: the server's certificate must show the address's server
    // name, else its host. Each fails with netConnectionRefused when one end does not accept the other's certificate.

    /// Opens a connection for requests. `timeout`, in seconds, is for all of it instead of the answer limit:
    /// resolving the port, connecting and the admission reply; with INFINITE, connecting takes as long as the
    /// operating system allows, and the steps before and after it at most the answer limit each. Null when
    /// the server does not respond. The caller owns the stream.
    /// @throws netXException  the server refuses this machine
    static netSocketStream* Connect(netAddress* address, double timeout);
    template<qelDuration D>
    static netSocketStream* Connect(netAddress* address, const D& limit)
    {
        return Connect(address, qelSeconds(limit));
    }
    /// Whether it accepts connections and sends no wrong reply. A listener that sends no reply counts as
    /// alive; GetVersion is the stricter test.
    static unsigned char IsAlive(netAddress* address);
    /// Its version text.
    /// @throws netXException  the port has no listener, or the server refuses this machine or does not reply
    static xstring GetVersion(netAddress* address);
    /// Requests it to stop; no failure when the port has no listener.
    /// @throws netXException  the server refuses this machine or does not reply
    static void Shutdown(netAddress* address);

    /// The longest time, in seconds, that each of those calls, and each request to a name server, takes:
    /// initially 10, INFINITE without limit. Applies to the whole process.
    static void setAnswerLimit(double seconds);
    template<qelDuration D>
    static void setAnswerLimit(const D& limit)
    {
        return setAnswerLimit(qelSeconds(limit));
    }

protected:
    netServer(btkAcceptSocket* listening, xstring name);

    /// Reads the client's request code and replies to it.
    netServerLoopAction PreprocessRequest(btkStreamSocket* socket) override;
    /// Whether the peer of `socket` may do more than ping. Called for each such request, in the loop's
    /// thread. By default: peers on the same machine, and peers that the registry allows.
    virtual bool MayCome(btkStreamSocket* socket);

private:
    friend class netBaseServer;

    void NoteRequest(netRequestCode code);

    xstring version;
};
