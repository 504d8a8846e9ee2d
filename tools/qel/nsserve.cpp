// qel ns serve: the name server.
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <qel/base/btkcmdline.h>
#include <qel/base/btkruntime.h>
#include <qel/base/btksystem.h>
#include <qel/base/btktrace.h>
#include <qel/base/nmsclient.h>
#include <qel/base/nmsserver.h>
#include <qel/monstatistics.h>
#include <qel/syslib.h>

#include "commands.h"
#include "daemon.h"
#include "files.h"

namespace {

constexpr btkTimeval resolutionLimit(5, 0);

struct ServeChoices
{
    std::string interface = "127.0.0.1";
    int port = -1;
    double seconds = 5;
    std::string stateFolder;
    bool hasNoState = false;
    bool hasNoStatistics = false;
    bool isCheckOnly = false;
    std::vector<std::string> shared;
    nmsServerOptions options;
    // The store; empty: none.
    std::string store;
    std::string advertised;
    std::string authority;
    std::string certificate;
    std::string key;
    std::string user;
    std::string passwordFile;
    bool isPlainAllowed = false;
    int mebibytesCopied = 64;
};

std::string stateFile(const ServeChoices& choices, int port)
{
    const std::string folder = choices.stateFolder.empty() ? btkRuntimeFolder() : choices.stateFolder;
    if (choices.hasNoState || port == 0 || folder.empty())
        return {};
    return folder + "/nameserver-" + std::to_string(port);
}

void check(const ServeChoices& choices)
{
    const std::string& file = choices.options.stateFile;
    if (choices.port > 65535)
        Fail(Exit::usage, "VRXNMSPORT", "no port: " + std::to_string(choices.port));
    RequireInterface(choices.interface);
    if (const std::filesystem::path folder = std::filesystem::path(file).parent_path();
        !file.empty() && !std::filesystem::is_directory(folder))
        Fail(Exit::no, folder.string(), "no such directory");
    Json settings = {
        {"interface", choices.interface}, {"port", choices.port}, {"state", file.empty() ? "none" : file}};
    if (!choices.store.empty()) {
        const nmsSharingOptions& sharing = choices.options.sharing;
        settings["store"] = choices.store;
        settings["advertised"] = choices.advertised;
        settings["copied"] = sharing.records;
        settings["copied of a machine"] = sharing.recordsOfMachine;
        settings["bytes copied"] = sharing.bytes;
        settings["bytes copied of a machine"] = sharing.BytesOfMachine();
    }
    Show(settings);
}

// ---- the store that it shares with other machines

constexpr const char* storeScheme = "etcd://";

std::vector<std::string> endpointsOf(const ServeChoices& choices)
{
    std::vector<std::string> endpoints;
    std::string rest = choices.store.substr(std::strlen(storeScheme));
    for (std::size_t end = 0; end != std::string::npos; rest.erase(0, end + 1)) {
        end = rest.find(',');
        endpoints.push_back(rest.substr(0, end));
        if (end == std::string::npos)
            break;
    }
    return endpoints;
}

void checkStore(const ServeChoices& choices)
{
    if (choices.store.rfind(storeScheme, 0) != 0)
        Fail(Exit::usage, choices.store, "not etcd://HOST:PORT[,HOST:PORT...]");
    if (choices.port == 0)
        Fail(Exit::usage, "--store", "needs a fixed port, which other machines can know");
    const std::string& host = choices.advertised;
    const bool isText =
        host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.:-") ==
        std::string::npos;
    if (host.empty() || !isText || host.size() > 253)
        Fail(Exit::usage, "--advertise", "no name or address of this machine: " + host);
    if (nmsIsLoopbackHost(host.c_str(), resolutionLimit))
        Fail(Exit::no, host, "resolves to the loopback, which is no address for other machines");
    for (const std::string& endpoint : endpointsOf(choices)) {
        const std::size_t colon = endpoint.rfind(':');
        const std::string port = colon == std::string::npos ? "" : endpoint.substr(colon + 1);
        if (colon == 0 || port.empty() || port.find_first_not_of("0123456789") != std::string::npos)
            Fail(Exit::usage, endpoint, "not HOST:PORT");
        if (choices.authority.empty() && !choices.isPlainAllowed &&
            !nmsIsLoopbackHost(endpoint.substr(0, colon).c_str(), resolutionLimit))
            Fail(Exit::usage, endpoint, "beyond this machine a store needs --store-ca, or --store-plain");
    }
}

// The command line of the program that keeps the records there.
std::string keeperOf(const ServeChoices& choices)
{
    const std::string program = FindHelper("qel-names-etcd", "qelstd-etcd");
    std::string line = btkQuoteWord(program);
    const auto option = [&line](const char* name, const std::string& value) {
        if (!value.empty())
            line.append(1, ' ').append(name).append(1, ' ').append(btkQuoteWord(value));
    };
    for (const std::string& endpoint : endpointsOf(choices))
        option("--endpoint", endpoint);
    option("--host", choices.advertised);
    option("--port", std::to_string(choices.port));
    option("--state", choices.options.stateFile.empty() ? "" : choices.options.stateFile + ".lease");
    option("--ca", choices.authority);
    option("--cert", choices.certificate);
    option("--key", choices.key);
    option("--user", choices.user);
    option("--password-file", choices.passwordFile);
    if (!choices.shared.empty())
        line += " --shared";
    return line;
}

void addStore(CLI::App& command, ServeChoices& choices)
{
    CLI::Option* const store = command.add_option(
        "--store", choices.store,
        "Share the records with the name servers of other machines: the etcd that keeps them, as "
        "etcd://HOST:PORT[,HOST:PORT...]");
    store->type_name("URL");
    const auto add = [&](const char* name, std::string& value, const char* help, const char* type) {
        command.add_option(name, value, help)->type_name(type)->needs(store);
    };
    add("--advertise", choices.advertised,
        "Name or address by which other machines reach this one (default: its name)", "HOST");
    add("--store-ca", choices.authority,
        "Certificate of the store's authority; with it, the connection is encrypted", "FILE");
    add("--store-cert", choices.certificate, "Certificate of this client for the store", "FILE");
    add("--store-key", choices.key, "Its key", "FILE");
    add("--store-user", choices.user, "User of the store", "NAME");
    add("--store-password-file", choices.passwordFile, "A file with its password", "FILE");
    command
        .add_flag("--store-plain", choices.isPlainAllowed,
                  "Allow a plain connection to a store beyond this machine")
        ->needs(store);
    command
        .add_option("--max-copied", choices.options.sharing.records, "Limit of the records of other machines")
        ->type_name("COUNT")
        ->capture_default_str();
    command
        .add_option("--max-copied-of-machine", choices.options.sharing.recordsOfMachine,
                    "Limit of the records of one other machine, whose part of --max-copied-size is the same")
        ->type_name("COUNT")
        ->capture_default_str();
    command
        .add_option("--max-copied-size", choices.mebibytesCopied,
                    "Limit of the mebibytes of other machines' records")
        ->type_name("MIB")
        ->check(CLI::Range(1, 1 << 20).description(""))
        ->capture_default_str();
}

// ---- its statistics

std::unique_ptr<monStatistics> openStatistics(const ServeChoices& choices)
{
    std::unique_ptr<monStatistics> statistics =
        choices.hasNoStatistics ? nullptr : monStatistics::Create("nameserver", "nameserver");
    if (statistics != nullptr) {
        const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
        statistics->Set("kind", "qel ns serve");
        statistics->Set("process", btkProcessNumber());
        statistics->Set("started", std::floor(now.count()));
    }
    return statistics;
}

void publish(monStatistics& statistics, const nmsServerCounts& counts, const nmsTableUse& use)
{
    const auto set = [&](const char* name, auto value) { statistics.Set(name, static_cast<double>(value)); };
    const auto requests = [&](nmsRequestCode code) {
        return counts.requests[static_cast<std::size_t>(code)];
    };
    set("records", use.records);
    set("records.ownerless", use.recordsWithoutOwner);
    set("records.bytes", use.bytes);
    set("owners", use.owners);
    set("connections", counts.connections);
    set("requests.register", requests(nmsRequestCode::enter));
    set("requests.delete", requests(nmsRequestCode::remove));
    set("requests.query", requests(nmsRequestCode::query));
    set("requests.ping", requests(nmsRequestCode::ping));
    set("requests.version", requests(nmsRequestCode::version));
    set("requests.shutdown", requests(nmsRequestCode::shutdown));
    set("requests.other", counts.others);
    set("refused", counts.refused);
    set("refused.full", use.refused);
    set("silent.expired", counts.expired);
    set("silent.displaced", counts.displaced);
}

// ---- its log

// Reports refusals since the last call, ten times a second at most: clients cannot fill the log. The server itself
// reports a full table.
class RefusalLog
{
public:
    void Note(const nmsServerCounts& counts)
    {
        report(refused, counts.refused, "requests refused: not permitted, or incomplete");
        report(expired, counts.expired, "clients closed: no request in time");
        report(displaced, counts.displaced, "clients closed: too many waited");
    }

private:
    template<class Count>
    static void report(unsigned long long& last, Count now, const char* what)
    {
        if (now > last)
            btkLog(btkLevel::warning, std::to_string(now - last) + ' ' + what);
        last = now;
    }

    unsigned long long refused = 0, expired = 0, displaced = 0;
};

// ---- its start

void serve(ServeChoices& choices)
{
    nmsServerOptions& options = choices.options;
    if (choices.port < 0)
        choices.port = nmsFindPort();
    btkAcceptSocket passed = TakePassedSocket(choices.interface, choices.port);
    options.port = choices.port;
    options.listenOn = choices.interface == "*" ? nullptr : choices.interface.c_str();
    options.requestLimit = btkTimeval(choices.seconds);
    options.version = "qel ns " QEL_VERSION;
    options.stateFile = stateFile(choices, options.port);
    options.table.areNamesShared = !choices.shared.empty();
    options.untilSignal = true;
    if (!choices.store.empty()) {
        if (choices.advertised.empty())
            choices.advertised = sysGetCurHostName().CastToCString();
        checkStore(choices);
        options.sharing.bytes = static_cast<std::size_t>(choices.mebibytesCopied) << 20;
        options.sharing.connect = [line = keeperOf(choices)] { return nmsStartKeeper(line); };
    }
    if (choices.isCheckOnly)
        return check(choices);
    const std::unique_ptr<monStatistics> statistics = openStatistics(choices);
    RefusalLog log;
    options.publish = [&](const nmsServerCounts& counts, const nmsTableUse& use) {
        log.Note(counts);
        if (statistics != nullptr)
            publish(*statistics, counts, use);
    };
    nmsServer server(options);
    if (!server.Listen(std::move(passed)))
        FailToListen(choices.interface, options.port);
    if (statistics != nullptr)
        statistics->Set("port", server.GetPort());
    ReportServing(choices.interface, server.GetPort());
    server.Run();
    btkLog(btkLevel::info, "stopped");
}

} // namespace

void AddNameServer(CLI::App& group)
{
    const auto choices = std::make_shared<ServeChoices>();
    CLI::App& command = AddCommand(group, "serve", "Run a name server until SIGTERM or `qel ns shutdown`",
                                   [choices] { serve(*choices); });
    command
        .add_option("--interface", choices->interface,
                    "Address or name of the interface to listen on; '*': all of them")
        ->type_name("HOST")
        ->capture_default_str();
    command.add_option("--port", choices->port, "Port; 0: a free one (default: VRXNMSPORT, or 1239)")
        ->type_name("PORT")
        ->check(CLI::Range(0, 65535));
    OfferSeconds(command, "--request-limit", choices->seconds, "Time that one client may take for a request",
                 CLI::PositiveNumber);
    command
        .add_option("--waiting", choices->options.waiting, "Clients that may be waiting at once, 1 to 10000")
        ->type_name("COUNT")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    command.add_option("--max-records", choices->options.table.records, "Limit of all records")
        ->type_name("COUNT")
        ->capture_default_str();
    command
        .add_option("--max-records-of-process", choices->options.table.recordsOfOwner,
                    "Limit of the records of one process")
        ->type_name("COUNT")
        ->capture_default_str();
    command
        .add_option(
            "--max-records-of-peer", choices->options.table.recordsOfPeer,
            "Limit of the records that one address registers for no process; all such records together "
            "have a quarter of the table")
        ->type_name("COUNT")
        ->capture_default_str();
    command
        .add_option("--shared", choices->shared,
                    "Field that records of several processes may have with the same value; without it a name "
                    "is that of one process")
        ->type_name("FIELD")
        ->check(CLI::IsMember({"_ServerName"}));
    command
        .add_option(
            "--state", choices->stateFolder,
            "Directory of the file that keeps the records while the server is stopped; each port but 0 has a "
            "file (default: RUNTIME_DIRECTORY, or qelstd in XDG_RUNTIME_DIR; none without these)")
        ->type_name("DIRECTORY");
    command.add_flag("--no-state", choices->hasNoState,
                     "Do not keep the records while the server is stopped");
    command.add_flag("--no-statistics", choices->hasNoStatistics,
                     "Do not publish figures for `qel top` in the run-time directory");
    addStore(command, *choices);
    command.add_flag("--check-config", choices->isCheckOnly,
                     "Check the settings and print those that the server would have, instead of serving");
    OfferJson(command, "with --check-config: an object with a member for each setting");
}
