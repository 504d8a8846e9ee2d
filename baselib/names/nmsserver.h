#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btksocket.h>
#include <qel/base/netsilentset.h>
#include <qel/base/nmsshared.h>
#include <qel/base/nmstable.h>

struct pollfd;

/// The counts of a name server since its start.
struct nmsServerCounts
{
    std::uint64_t connections = 0;
    /// By their code, see nmsRequestCode.
    std::array<std::uint64_t, 8> requests = {};
    /// Of no such code, or not of the protocol at all.
    std::uint64_t others = 0;
    /// Requests that were not allowed, or had no room.
    std::uint64_t refused = 0;
    /// Clients that did not send their request in time, and those evicted because too many were waiting.
    std::uint64_t expired = 0;
    std::uint64_t displaced = 0;
};

struct nmsServerOptions
{
    /// The interface to listen on, by address or name; null: all of them.
    const char* listenOn = "127.0.0.1";
    /// 0: the operating system chooses.
    int port = nmsDefaultPort;
    /// The version record's field "Version".
    std::string version = {};
    /// A file that keeps the records, so that they outlive this server: Listen restores them from it, except
    /// those whose processes have exited; Run writes it within a second of a change, and when it returns, and
    /// replaces it as a whole. Its folder must exist. Empty: none.
    std::string stateFile = {};
    /// Limits how long a client may take to send its request and to receive the response.
    btkTimeval requestLimit = btkTimeval(5, 0);
    /// Number of clients that may wait at once. One more evicts another: see netSilentSet.
    std::size_t waiting = 256;
    nmsTableLimits table = {};
    /// If it connects to a keeper, a record is registered once the store holds it, and queries with the scope
    /// of nmsScopeField are for the records of all machines.
    nmsSharingOptions sharing = {};
    /// Unless empty, Run calls it at its beginning, and at most ten times a second when the counts may have
    /// changed. It does not throw.
    std::function<void(const nmsServerCounts& counts, const nmsTableUse& use)> publish = {};
    /// SIGTERM and SIGINT stop the server. The thread that calls Listen has them blocked from then on.
    bool untilSignal = false;
};

/// A name server. One thread serves all clients without waiting for any of them: a silent, slow or
/// misbehaving client delays no other. A client on this machine may register records of its user's processes,
/// and remove its user's records; the superuser and the server's own user may do so for everybody and shut the
/// server down. Where the operating system does not report users, every client on this machine may do
/// everything, which is reported at the start. Reports on the standard error output, at most once a minute, that
/// it has refused records for lack of room, and once that the state file cannot be read or written. Throws only
/// for lack of memory at its start.
class BASE_API nmsServer
{
public:
    explicit nmsServer(nmsServerOptions wanted);
    ~nmsServer();
    nmsServer(const nmsServer&) = delete;
    nmsServer& operator=(const nmsServer&) = delete;

    /// False, with the reason in errno, when the port or a descriptor is not available. `passed`, if it is open,
    /// is used instead of the options' interface and port.
    bool Listen(btkAcceptSocket passed = btkAcceptSocket());
    int GetPort() const { return door.GetPortN(); }

    /// Serves until Stop is called or a client requests a shutdown; pending responses are sent first, for at
    /// most half a second.
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
    nmsRights RightsOf(const btkStreamSocket& client) const;
    void Finish(Client& client, int status);
    void FinishShared();
    int Enter(Client& client);
    std::size_t Remove(Client& client, std::size_t& kept);
    void Send(Client& client);
    btkTimeval NextLimit() const;
    btkTimeval NextSharedWork() const;
    void DropLate();
    nmsFields Describe() const;
    void ReportRefusals();
    void PublishIfDue();
    void Count(const Client& client, int status);
    void LoadState();
    void SaveState();

    nmsServerOptions options;
    nmsTable table;
    std::unique_ptr<nmsShared> shared; // null: it shares nothing
    nmsServerCounts counts;
    bool isCountChanged = true;
    btkTimeval publishAt; // if the counts have changed
    btkFd stateFolder;
    std::uint64_t savedVersion = 0; // of the table
    btkTimeval saveAt = btkTimeval::Forever();
    bool isStateReported = false;
    std::size_t reportedRefusals = 0;
    btkTimeval nextReport;
    btkAcceptSocket door;
    bool areUsersKnown = false; // of the clients on this machine
    btkTimeval doorClosedUntil; // while there is no room for a client
    btkHandle stop = -1;        // an event
    btkFd signals;              // readable once a termination signal has arrived
    bool isStopping = false;
    // Both have room for their greatest size, so that serving allocates memory for requests only.
    netSilentSet<Client> clients;
    std::unique_ptr<pollfd[]> asked;
};
