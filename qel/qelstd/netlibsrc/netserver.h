#pragma once

#include <qel/netbaseserver.h>

class netAddress;

/// A server with a version, which clients can ask whether it lives and to stop. Its clients say first what
/// they want (one byte); peers on other machines are admitted when the registry allows it, see netrights.h.
/// Requests for connections go to the request handler.
///
/// Any program of this machine can ask it to stop, and so can every admitted peer. Silent clients delay
/// nobody: they are closed after a while. Not counted: freed with xdelete.
class QEL_API netServer : public netBaseServer
{
    QEL_OBJECT(netServer); // "netlib::Server"

public:
    /// As netBaseServer::Create. Warns on the standard error output when a server with a name listens beyond
    /// the loopback and has no rights, so that every machine may connect, and when the registry cannot
    /// restrict the connections to a server of that name at all.
    static netServer* Create(const char* name, int port);
    static netServer* Create(const char* name, int port, const char* interface);
    ~netServer() override;

    xstring getVersion() { return version; }
    /// Seconds after which a client that has sent nothing is closed; 5 at first, more than 0.
    void setSilentPatience(double seconds);
    double getSilentPatience() { return GetSilentPatience().ToSeconds(); }
    /// How many clients may be silent at once, at least 1; 256 at first. For one more another is closed: the
    /// oldest of the address that holds most of the places, but none younger than 0.1 seconds while another
    /// address has an older one.
    void setSilentPlaces(int most) { SetSilentPlaces(most); }
    int getSilentPlaces() { return GetSilentPlaces(); }

    // ---- for clients: each asks the server at `address`, whose port is asked of the name server of its host
    // when it is not known, and throws what ResolvePort throws. Ends after the time that setAnswerLimit says.
    // Safe to call from any thread, an address from one at a time.

    /// Opens a connection for requests. `timeout`, in seconds, is for all of it instead of the answer limit:
    /// asking for the port, connecting and the verdict; with INFINITE connecting takes as long as the
    /// operating system lets it, and what comes before and after it each the answer limit at most. Null when
    /// nobody answers. The caller owns the stream.
    /// @throws netXException  the server refuses this machine
    static netSocketStream* Connect(netAddress* address, double timeout);
    /// Whether it accepts connections and does not answer them wrongly. A listener that answers nothing
    /// counts as alive: GetVersion tells more.
    static unsigned char IsAlive(netAddress* address);
    /// Its version text.
    /// @throws netXException  nobody listens there, or the server refuses this machine or does not answer
    static xstring GetVersion(netAddress* address);
    /// Asks it to stop; quiet when nobody listens there.
    /// @throws netXException  the server refuses this machine or does not answer
    static void Shutdown(netAddress* address);

    /// How many seconds each of those calls, and each request to a name server, takes at most: 10 at first,
    /// INFINITE without limit. Holds for the whole process.
    static void setAnswerLimit(double seconds);

protected:
    netServer(btkAcceptSocket* listening, xstring name);

    /// Reads what the client wants, and answers it.
    netServerLoopAction PreprocessRequest(btkStreamSocket* socket) override;
    /// Whether the peer of `socket` may do more than ping. Called for each such request, in the loop's
    /// thread. At first: one on the same machine, and one that the registry allows.
    virtual bool MayCome(btkStreamSocket* socket);

private:
    friend class netBaseServer;

    xstring version;
};
