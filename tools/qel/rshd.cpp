// qel rshd: the server that runs commands for other machines.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <qel/base/btkcarrier.h>
#include <qel/base/btkcmdline.h>
#include <qel/base/btkenvironment.h>
#include <qel/base/btkpeeruser.h>
#include <qel/base/btkservice.h>
#include <qel/base/btksocket.h>
#include <qel/base/btksystem.h>
#include <qel/base/btktls.h>
#include <qel/base/btktrace.h>
#include <qel/base/btktunnel.h>
#include <qel/base/netsilentset.h>
#include <qel/hmxregistry.h>
#include <qel/netrights.h>
#include <qel/netserver.h>
#include <qel/nettls.h>
#include <qel/pcprocess.h>
#include <qel/qelown.h>
#include <qel/rshserver.h>

#include "commands.h"
#include "daemon.h"
#include "rsh.h"

namespace {

constexpr std::size_t mostUnfinished = 64;

struct ServeChoices
{
    std::string interface = "127.0.0.1";
    std::string name = "rshd";
    int port = usualShellPort;
    bool isRegistered = false;
    std::string directory;
    double seconds = 10;
    double patience = 10;
    int sessions = 32;
    std::vector<std::string> users;
    std::string audit = "program";
    bool mayBeRoot = false;
    bool hasNoStatistics = false;
    bool isCheckOnly = false;
    bool isForOne = false; // over the standard input and output
    bool isInsecure = false;
};

// The remote peers that are admitted: lists of patterns of certificates, and, where addresses are enough, of these; a
// peer must match every list.
class AllowLists
{
public:
    AllowLists(std::string name, bool areAddressesEnough)
        : server(std::move(name)), isInsecure(areAddressesEnough)
    {
    }

    bool IsPossible() const { return IsConnectionRestrictable(server.c_str()); }
    /// Whether there is a list that does not admit every peer.
    bool Restrict() const { return Restricts(hmxRegistry::System()) || Restricts(hmxRegistry::User()); }
    /// Checks the lists each time: a deleted one must not admit every peer.
    bool Admit(btkStreamSocket& peer) const
    {
        return Restrict() &&
               IsConnectionAllowed(&peer, server.c_str(), isInsecure ? netTlsAsSet : netTlsDemanded);
    }
    std::string GetPath() const { return netRightsPath + server; }

private:
    bool Restricts(hmxRegistry& registry) const
    {
        const xrchandle<xstringsequence> patterns = ReadConnectionPatterns(registry, server.c_str());
        if (!patterns)
            return false;
        const int count = patterns->getarraysize();
        int ofCertificates = 0;
        for (int i = 0; i < count; ++i) {
            const xstring pattern = patterns->get(i);
            if (IsCertificatePattern(pattern))
                ++ofCertificates;
            else if (std::strcspn(pattern.CastToCString(), "0123456789") == pattern.GetMBSize() - 1)
                return false; // it contains no address
        }
        return isInsecure || ofCertificates > 0 || count == 0;
    }

    std::string server;
    bool isInsecure;
};

// The users of this machine that are admitted.
class AllowedUsers
{
public:
    explicit AllowedUsers(const std::vector<std::string>& names) : numbers{btkGetOwnUser()}
    {
        for (const std::string& name : names) {
            const std::optional<btkUserId> user = btkFindUser(name);
            if (name == "*")
                isEverybody = true;
            else if (user)
                numbers.insert(*user);
            else
                Fail(Exit::usage, "--allow-user", name + ": no such user");
        }
    }

    bool AreEverybody() const { return isEverybody; }
    bool Contain(std::optional<btkUserId> user) const
    {
        return isEverybody || (user && numbers.contains(*user));
    }

private:
    std::set<btkUserId> numbers;
    bool isEverybody = false;
};

/// Logs refusals: ten a second at most, so that clients cannot fill the log, and how many more there were.
class RefusalLog
{
public:
    RefusalLog() = default;
    ~RefusalLog() { NoteLeftOut(); }
    RefusalLog(const RefusalLog&) = delete;
    RefusalLog& operator=(const RefusalLog&) = delete;

    void Note(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (const btkTimeval now = btkTimeval::Now(); now >= end) {
            NoteLeftOut();
            end = now + btkTimeval(1, 0);
            written = leftOut = 0;
        }
        if (written == 10) {
            ++leftOut;
        } else {
            ++written;
            btkLog(btkLevel::warning, "refused: " + line);
        }
    }

private:
    void NoteLeftOut() const
    {
        if (leftOut > 0)
            btkLog(btkLevel::warning, std::to_string(leftOut) + " more refused");
    }

    std::mutex mutex;
    btkTimeval end; // of the second
    int written = 0;
    int leftOut = 0;
};

RefusalLog refusals;

// The program of a command line; its arguments may be secret.
std::string programOf(const rshRequest& request)
{
    std::vector<std::string> words;
    if (request.isForShell() || !btkSplitCommandLine(request.getCommand().CastToCString(), words) ||
        words.empty())
        return request.isForShell() ? "a line for the shell" : "no program";
    return words.front();
}

// The part of a line that names the peer's certificate; empty without one.
std::string certificatePart(const std::vector<std::string>& names)
{
    std::string part;
    for (const std::string& name : names)
        part.append(part.empty() ? " certificate=" : ",").append(name);
    return part;
}

class ShellServer : public netServer
{
public:
    ShellServer(btkAcceptSocket* door, const ServeChoices& choices, AllowedUsers allowedUsers)
        : netServer(door, nullptr), name(choices.name.c_str()), allowed(choices.name, choices.isInsecure),
          users(std::move(allowedUsers))
    {
        // Requests that were asked to stop need a moment.
        setAsyncLimit(choices.sessions + 2 * static_cast<int>(mostUnfinished));
        setTimeSlice(0.1);
    }
    ~ShellServer() override { EndService(); }

    void RegisterByName()
    try {
        Register(name.CastToCString());
    } catch (xthrowable* refusal) {
        throw FailureOf(refusal, Exit::peer, name.CastToCString());
    }

private:
    bool MayCome(btkStreamSocket* socket) override
    {
        if (socket->IsPeerOnTheSameMachine()) {
            const std::optional<btkUserId> user = socket->GetPeerUser();
            if (!users.Contain(user))
                refusals.Note((user ? "user " + std::to_string(*user) : "an unknown user") +
                              " of this machine");
            return users.Contain(user);
        }
        const bool mayCome = allowed.Admit(*socket);
        if (!mayCome)
            refusals.Note(socket->GetPeerAddrStr() + (socket->IsEncrypted()
                                                          ? certificatePart(socket->GetCarrier()->peerNames)
                                                          : ", not encrypted"));
        return mayCome;
    }

    xstring name;
    AllowLists allowed;
    AllowedUsers users;
};

// While this object exists, SIGTERM and SIGINT stop the server; afterwards they are ignored. Stopping ends
// the requests and their commands.
class StopWhenTold
{
public:
    explicit StopWhenTold(netBaseServer& server)
    {
        told = &server;
        std::signal(SIGTERM, &Stop);
        std::signal(SIGINT, &Stop);
    }
    ~StopWhenTold()
    {
        std::signal(SIGTERM, SIG_IGN);
        std::signal(SIGINT, SIG_IGN);
    }
    StopWhenTold(const StopWhenTold&) = delete;
    StopWhenTold& operator=(const StopWhenTold&) = delete;

private:
    static void Stop(int) { told.load()->Stop(); }

    static inline std::atomic<netBaseServer*> told;
};

struct ServeBeside : netBaseServer_OnRequest_cb
{
    netServerLoopAction Invoke(netBaseServer*, netSocketStream*) override { return netSpawnAsyncServer; }
};

// The connections whose requests are not complete yet. They have separate places; one too many evicts
// another, as in netSilentSet.
class Unfinished
{
public:
    /// The place of one connection, from its admission until its request is complete or abandoned.
    class Place
    {
    public:
        Place(Unfinished& of, netSocketStream& stream)
            : places(of), handle(Event_Create(false)), lost(new btkSelectEvent(handle, 0))
        {
            const std::lock_guard<std::mutex> lock(places.mutex);
            places.peers.Add(std::make_unique<Peer>(
                Peer{stream.getPeerAddress().CastToCString(), btkTimeval::Now(), this}));
            if (places.peers.IsOverfull())
                Event_Set(places.peers.TakeLeaving(btkTimeval::Now())->place->handle);
        }
        ~Place()
        {
            const std::lock_guard<std::mutex> lock(places.mutex);
            places.peers.DropIf([this](const Peer& peer) { return peer.place == this; });
            Event_Free(handle);
        }
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;

        /// Signaled once the place belongs to another connection.
        btkEvent& Lost() { return lost; }

    private:
        Unfinished& places;
        btkHandle handle;
        btkEvent lost;
    };

private:
    struct Peer
    {
        std::string address;
        btkTimeval since;
        Place* place;
    };

    std::mutex mutex;
    netSilentSet<Peer> peers{mostUnfinished};
};

struct RunCommand : netBaseServer_OnAsyncRequest_cb
{
    explicit RunCommand(const ServeChoices& choices)
        : directory(choices.directory), audit(choices.audit), requestLimit(choices.seconds),
          sessions(choices.sessions)
    {
    }
    netServerLoopAction Invoke(netBaseServer*, netSocketStream* stream, evtEvent* stop) override
    {
        const qel::owned<netSocketStream> connection(stream);
        rshRequest request;
        {
            // A client without a complete request does not occupy a command's place.
            Unfinished::Place place(unfinished, *stream);
            if (!request.Read(stream, requestLimit, {stop, &place.Lost()}))
                return netServerContinue;
        }
        const std::string peer = peerOf(*stream);
        const int others = running++;
        const std::unique_ptr<std::atomic<int>, decltype([](auto* count) { --*count; })> place(&running);
        if (others < sessions) {
            rshOutcome outcome;
            const btkTimeval begin = btkTimeval::Now();
            request.Execute(stream, directory.c_str(), stop, outcome);
            Note(request, peer, outcome, (btkTimeval::Now() - begin).ToSeconds());
        } else {
            rshRequest::Refuse(stream, "the server runs as many commands as it may");
            refusals.Note(peer + ": " + std::to_string(sessions) + " commands run already");
        }
        return netServerContinue;
    }

    // Its address, and the names in its certificate.
    static std::string peerOf(netSocketStream& stream)
    {
        const std::string address = stream.getPeerAddress().CastToCString();
        std::string names = stream.getPeerCertificate().CastToCString();
        std::replace(names.begin(), names.end(), ' ', ',');
        return (address.empty() ? "unknown" : address) + (names.empty() ? "" : " certificate=" + names);
    }

    // The client's text comes last, so that it cannot pose as another part of the line.
    void Note(const rshRequest& request, const std::string& peer, const rshOutcome& outcome,
              double seconds) const
    {
        if (audit == "none")
            return;
        char duration[32];
        std::snprintf(duration, sizeof duration, "%.3f", seconds);
        btkLog(btkLevel::info,
               "command: peer=" + peer +
                   " user=" + (outcome.user < 0 ? "unknown" : std::to_string(outcome.user)) + " status=" +
                   (!outcome.isStarted             ? "not-started"
                    : outcome.exitCode == xnullint ? "unknown"
                                                   : std::to_string(outcome.exitCode)) +
                   " seconds=" + duration + (audit == "line" ? " line=" : " program=") +
                   (audit == "line" ? request.getCommand().CastToCString() : programOf(request)));
    }

    std::string directory;
    std::string audit;
    double requestLimit;
    int sessions;
    std::atomic<int> running = 0;
    Unfinished unfinished;
};

bool isLoopback(const std::string& interface)
{
    return interface == "localhost" || interface == "::1" ||
           (interface.rfind("127.", 0) == 0 &&
            interface.find_first_not_of("0123456789.") == std::string::npos);
}

// Refuses to listen beyond the loopback without a list, where every machine could run commands, and without TLS, where
// connections could be read and forged.
void requireProtection(const ServeChoices& choices, bool isOnLoopback)
{
    const AllowLists allowed(choices.name, choices.isInsecure);
    if (!allowed.IsPossible())
        Fail(Exit::usage, "--name", "not a valid name of a registry key");
    if (isOnLoopback)
        return;
    if (!choices.isInsecure && !netIsTlsConfigured())
        Fail(Exit::usage, "--interface",
             "others could read the commands, and pose as their senders: name a directory of certificates in "
             "QELSTD_TLS (see qel tls issue --help), or insist with --insecure");
    if (!allowed.Restrict())
        Fail(Exit::usage, "--interface",
             "every machine could run commands here; first set which may connect: patterns of " +
                 std::string(choices.isInsecure ? "addresses" : "certificates, as cert:NAME,") +
                 " in the value ConnectionAllowed of the registry key " + allowed.GetPath() +
                 ", System or User");
    std::string why;
    if (const xstring folder = netGetTlsFolder();
        !choices.isInsecure && btkTlsFolder::Open(folder.CastToCString(), why) == nullptr)
        Fail(Exit::no, folder.CastToCString(), why);
}

// SHELL is not set when the server is started without a login, as in containers.
void nameShell()
{
    if (pcGetShellCommand() == nullptr)
        btkEnvironment::Set("SHELL", "/bin/sh");
}

void check(const ServeChoices& choices, bool isOnLoopback)
{
    RequireInterface(choices.interface);
    if (!choices.directory.empty() && !std::filesystem::is_directory(choices.directory))
        Fail(Exit::no, choices.directory, "no such directory");
    Json settings;
    settings["interface"] = choices.interface;
    settings["port"] = choices.port;
    settings["allow list"] = netRightsPath + choices.name;
    settings["demands TLS"] = !choices.isInsecure && !isOnLoopback;
    settings["shell"] = pcGetShellCommand().CastToCString();
    settings["sessions"] = choices.sessions;
    Show(settings);
}

btkFd duplicateOf(btkHandle handle)
{
    btkFd own(handle);
    btkFd made = own.Duplicate();
    own.Release();
    return made;
}

// Serves one client, the program that started this one, over the standard input and output.
void serveOne(const ServeChoices& choices)
{
    if (btkIsTerminal(0) || btkIsTerminal(1))
        Fail(Exit::usage, "--stdio", "`qel rsh --via` runs this server at the other end of a connection");
    const btkFd signals = btkAwaitTermination();
    std::signal(SIGHUP, SIG_IGN);
    nameShell();
    rshServer::setPatience(choices.patience);
    btkTunnel tunnel;
    std::unique_ptr<btkStreamSocket> socket =
        tunnel.Open(duplicateOf(0), duplicateOf(1), btkTimeval(choices.seconds));
    if (socket == nullptr)
        Fail(Exit::peer, "--stdio", std::string("no client: ") + std::strerror(errno));
    const qel::owned<netSocketStream> stream(netSocketStream::Create(socket.release()));
    const qel::owned<rshServer> server(rshServer::Create(stream.get(), choices.directory.c_str(), 0));
    if (server == nullptr)
        Fail(Exit::peer, "--stdio", "cannot start a thread");
    const qel::owned<rshServerEvent> end(server->ExitEvent());
    btkEvent stop(new btkSelectEvent(signals.Get(), 0));
    btkEvent::List events = {end.get(), &stop};
    btkEvent::Wait(events, btkTimeval::Forever());
}

void runServer(ServeChoices& choices)
{
    if (choices.isForOne)
        return serveOne(choices);
    auto listening = std::make_unique<btkAcceptSocket>(TakePassedSocket(choices.interface, choices.port));
    const bool isOnLoopback = listening->IsOpen() ? listening->IsOnLoopback() : isLoopback(choices.interface);
    requireProtection(choices, isOnLoopback);
    if (btkIsSuperuser() && !choices.mayBeRoot)
        Fail(Exit::usage, "--as-root",
             "every command would run with the rights of the superuser: start the server as another user, or "
             "insist with this option");
    const AllowedUsers users(choices.users);
    nameShell();
    if (choices.isCheckOnly)
        return check(choices, isOnLoopback);
    ServeBeside request;
    RunCommand command(choices);
    rshServer::setPatience(choices.patience);
    if (!listening->IsOpen() &&
        !listening->Listen(choices.port, choices.interface == "*" ? nullptr : choices.interface.c_str()))
        FailToListen(choices.interface, choices.port);
    // Twice the final room: the windows may have 256 KiB then, in units of four bytes.
    btkSetOwnRoom(listening->GetHandle(), 2 * btkUrgentRoom);
    if (!users.AreEverybody() && !btkReportsPeerUsers(listening->GetHandle()))
        btkLog(btkLevel::warning,
               "the system does not report the users of connections: no client of this machine is admitted; "
               "--allow-user '*' admits all");
    const qel::owned<ShellServer> server(new (pDefMemMgr) ShellServer(listening.release(), choices, users));
    if (choices.isRegistered)
        server->RegisterByName();
    server->setOnRequest(&request);
    server->setOnAsyncRequest(&command);
    server->setStatistics(!choices.hasNoStatistics, choices.name.c_str());
    const StopWhenTold stop(*server);
    ReportServing(choices.interface, server->getPortN());
    server->Run();
    btkLog(btkLevel::info, "stopped");
}

} // namespace

void AddRemoteShellServer(CLI::App& program)
{
    const auto choices = std::make_shared<ServeChoices>();
    CLI::App& serve =
        AddCommand(program, "rshd",
                   "Run commands for others as the user of this server, until SIGTERM: on the loopback for "
                   "this user and those of --allow-user, and beyond it for those whose certificates are "
                   "allowed. It asks for no password",
                   [choices] { runServer(*choices); });
    serve.footer(
        "qel rshd\tServe this machine.\n"
        "QELSTD_TLS=~/tls qel rshd --interface 10.1.0.7\tServe those whose certificates are allowed, too.\n"
        "qel rshd --port 0 --register --name shell\tOn a free port, which clients find by name.\n");
    serve
        .add_option("--interface", choices->interface,
                    "Address or name of the interface to listen on; '*': all of them. One that is no "
                    "loopback needs a directory of certificates, in QELSTD_TLS, and a list of those that may "
                    "come, cert:NAME, in the value ConnectionAllowed of the registry key Software\\VRX\\NAME")
        ->type_name("HOST")
        ->capture_default_str();
    serve.add_option("--port", choices->port, "Port; 0: a free one")
        ->type_name("PORT")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    serve.add_option("--name", choices->name, "Whose list holds, and what --register registers")
        ->type_name("NAME")
        ->capture_default_str();
    serve.add_flag(
        "--register", choices->isRegistered,
        "Register NAME with the name server of this machine, for clients that ask it for the port");
    serve.add_option("--directory", choices->directory, "Where relative directories of clients begin")
        ->type_name("DIRECTORY");
    OfferSeconds(serve, "--request-limit", choices->seconds, "Time that a client may take for its request",
                 CLI::PositiveNumber);
    OfferSeconds(serve, "--patience", choices->patience,
                 "Time after which a client is given up that takes nothing though its command has ended",
                 CLI::PositiveNumber);
    serve.add_option("--sessions", choices->sessions, "Commands that may run at once")
        ->type_name("COUNT")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    serve
        .add_option("--audit", choices->audit,
                    "What the log says of each command beside its peer, user, exit status and duration: "
                    "none (no line at all), program, or line, with the arguments, which may be secret")
        ->type_name("WHAT")
        ->check(CLI::IsMember({"none", "program", "line"}).description(""))
        ->capture_default_str();
    serve.add_flag("--no-statistics", choices->hasNoStatistics,
                   "Do not publish figures for `qel top` in the run-time directory");
    serve
        .add_option(
            "--allow-user", choices->users,
            "Another user of this machine, by name or number, who may run commands, too; may be given "
            "several times. '*': all of them")
        ->type_name("USER")
        ->expected(1)
        ->take_all();
    serve.add_flag("--insecure", choices->isInsecure,
                   "Admit clients on other machines by their addresses, without encryption");
    serve.add_flag("--as-root", choices->mayBeRoot,
                   "Serve although all commands run with the superuser's rights");
    CLI::Option* const stdio =
        serve.add_flag("--stdio", choices->isForOne,
                       "Serve one client over the standard input and output, and no other: for `qel rsh "
                       "--via`, which runs this at the other end of a connection of ssh");
    for (const char* const other :
         {"--interface", "--port", "--name", "--register", "--sessions", "--allow-user", "--insecure"})
        stdio->excludes(serve.get_option(other));
    serve.add_flag("--check-config", choices->isCheckOnly,
                   "Check the settings and print those that the server would have, instead of serving");
    OfferJson(serve, "with --check-config: an object with a member for each setting");
}
