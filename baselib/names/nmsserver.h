#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btksocket.h>
#include <qel/base/netsilentset.h>
#include <qel/base/nmstable.h>

struct pollfd;

struct nmsServerOptions
{
    /// The interface to listen on, by address or name; null: all of them.
    const char* interface = "127.0.0.1";
    /// 0: the host chooses.
    int port = nmsDefaultPort;
    /// What the version record says in its field "Version".
    std::string version = {};
    /// A file that keeps the records, so that they outlive this server: Listen takes them from it, without
    /// those whose processes have ended; Run writes it within a second of a change, and at its end, and
    /// replaces it whole. Its folder must exist. Empty: none.
    std::string stateFile = {};
    /// How long a client may take for its request and for taking the answer.
    btkTimeval requestLimit = btkTimeval(5, 0);
    /// How many clients may be waiting at once. When one more comes, another leaves: see netSilentSet.
    std::size_t waiting = 256;
    nmsTableLimits table = {};
    /// SIGTERM and SIGINT end the server. The thread that calls Listen has them blocked from then on.
    bool untilSignal = false;
};

/// A name server. One thread serves all clients, and none of them is waited for: who is silent, slow or sends
/// something else delays nobody. Only clients of this machine may register records of processes and shut the
/// server down. Once a minute at most it reports on the standard error output that it has refused records for
/// want of room, and once that the state file cannot be read or written. Does not throw but for want of
/// memory at its start.
class BASE_API nmsServer
{
public:
    explicit nmsServer(nmsServerOptions wanted);
    ~nmsServer();
    nmsServer(const nmsServer&) = delete;
    nmsServer& operator=(const nmsServer&) = delete;

    /// False, with the reason in errno, when the port or a descriptor cannot be had.
    bool Listen();
    int GetPort() const { return door.GetPortN(); }

    /// Serves until Stop is called or a client asks for the end; answers that are on their way are sent
    /// first, for at most half a second.
    void Run();
    /// Safe to call from any thread and in a signal handler.
    void Stop();

private:
    struct Client;

    bool Sleep(btkTimeval limit);
    void AcceptClients();
    void Serve(Client& client);
    void Receive(Client& client);
    bool Parse(Client& client);
    void Answer(Client& client);
    void Send(Client& client);
    btkTimeval NextLimit() const;
    void DropLate();
    nmsFields Describe() const;
    void ReportRefusals();
    void LoadState();
    void SaveState();

    nmsServerOptions options;
    nmsTable table;
    btkFd stateFolder;
    std::uint64_t savedVersion = 0; // of the table
    btkTimeval saveAt = btkTimeval::Forever();
    bool isStateReported = false;
    std::size_t reportedRefusals = 0;
    btkTimeval nextReport;
    btkAcceptSocket door;
    btkTimeval doorClosedUntil; // while there is no room for a client
    btkHandle stop = -1;        // an event
    btkFd signals;              // readable once one that ends the server has come
    bool isStopping = false;
    // Both have room for all that may be there, so that serving needs memory for requests only.
    netSilentSet<Client> clients;
    std::unique_ptr<pollfd[]> asked;
};
