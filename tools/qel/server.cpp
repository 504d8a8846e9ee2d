// qel server: the requests that every versioned server answers.
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include <qel/base/btkcarrier.h>
#include <qel/base/nethandshake.h>
#include <qel/base/nmsclient.h>
#include <qel/hmxregistry.h>
#include <qel/netaddress.h>
#include <qel/netexception.h>
#include <qel/netrights.h>
#include <qel/nettls.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>
#include <qel/qelcaught.h>

#include "commands.h"
#include "files.h"

namespace {

// NAME or NAME@HOST.
struct Address
{
    std::string name;
    std::string host; // empty: this machine
    double seconds = 10;
};

[[noreturn]] void refused(const Address& address, Exit status, const std::string& why)
{
    Fail(status, address.name + (address.host.empty() ? "" : "@") + address.host, why);
}

// Sends a request and requires the reply 1; returns the connection for the rest of the exchange.
std::unique_ptr<btkStreamSocket> ask(const Address& address, netRequestCode code)
{
    nmsSetAnswerLimit(btkTimeval(address.seconds));
    const xrchandle<netAddress> server(
        netAddress::Create(address.name.c_str(), address.host.empty() ? nullptr : address.host.c_str()));
    std::unique_ptr<btkStreamSocket> socket;
    try {
        socket.reset(netConnectSocket(server.get(), address.seconds));
    } catch (xthrowable* thrown) {
        const qel::caught failure(thrown);
        auto* const unknown = failure.as<netXException>(); // its server is named anyway
        const bool isUnnamed = unknown != nullptr && unknown->getError() == netNameServiceProblem;
        refused(address, Exit::peer,
                std::string((unknown != nullptr ? unknown->getMsg() : failure.what()).CastToCString()) +
                    (isUnnamed ? "; see `qel ns list`" : ""));
    }
    if (socket == nullptr)
        refused(address, Exit::peer, "Connection refused");
    const int answer = netAsk(*socket, code);
    if (answer < 0) {
        const std::string why = socket->IsEncrypted() ? socket->GetCarrier()->GetFailure({}) : std::string();
        refused(address, Exit::peer, why.empty() ? "no response" : why);
    }
    if (answer != netAdmitted)
        refused(address, Exit::no, "Connection refused due to lack of rights");
    return socket;
}

void pingServer(const Address& address)
{
    ask(address, netRequestCode::ping);
}

void printVersion(const Address& address)
{
    std::string text;
    if (!netReadVersion(*ask(address, netRequestCode::version), text))
        refused(address, Exit::peer, "the version was not received completely");
    Show(text);
}

void shutDownServer(const Address& address)
{
    ask(address, netRequestCode::shutdown);
}

// ---- connection rights

// The rights in one root: the patterns of a value, or the reason why there are none.
struct Rights
{
    netRightsState state = netRightsAbsent;
    Json patterns;           // null: no value
    std::string description; // of the state
};

Rights rightsIn(hmxRegistry& registry, const std::string& server)
{
    xrchandle<xstringsequence> patterns;
    Rights rights;
    rights.state = ReadConnectionRights(registry, server.c_str(), &patterns);
    if (rights.state == netRightsAbsent)
        return {netRightsAbsent, {}, "no value"};
    if (rights.state == netRightsUnknown)
        return {netRightsUnknown, Json::array(), "cannot be read: " + LastErrorText()};
    rights.description = "patterns";
    rights.patterns = Json::array();
    for (int i = 0; i < patterns->getarraysize(); ++i)
        rights.patterns.push_back(patterns->get(i).CastToCString());
    return rights;
}

const char* admittedBy(const Json& patterns, bool isTlsRequired)
{
    return patterns.is_null() ? (isTlsRequired ? "every certificate" : "everybody")
           : patterns.empty() ? "nobody"
                              : "these";
}

Json rightsOf(const std::string& server)
{
    const bool isKey = IsConnectionRestrictable(server.c_str());
    const Rights none = {netRightsAbsent, {}, "no key can have this name"};
    const Rights system = isKey ? rightsIn(hmxRegistry::System(), server) : none;
    const Rights user = isKey ? rightsIn(hmxRegistry::User(), server) : none;
    const bool isTlsRequired = isKey && netIsTlsRequired(server.c_str());
    const bool systemDecides =
        user.patterns.is_null() || (!system.patterns.is_null() && system.patterns.empty());
    return {{"server", server},
            {"restrictable", isKey},
            {"admits", admittedBy(systemDecides ? system.patterns : user.patterns, isTlsRequired)},
            {"TLS required", isTlsRequired},
            {"system", system.patterns},
            {"system found", system.description},
            {"user", user.patterns},
            {"user found", user.description}};
}

// The servers named in the registry and those that the name server knows.
std::set<std::string> allServers(double limit)
{
    std::set<std::string> names;
    for (const std::string& name : ServerNames(limit))
        names.insert(name);
    for (hmxRegistry* const registry : {&hmxRegistry::System(), &hmxRegistry::User()}) {
        hmxRegistryKey key;
        const std::string path(netRightsPath);
        const bool isOpen = key.Open(registry->root, path.substr(0, path.size() - 1).c_str());
        if (!isOpen && GetLastError() == ERROR_FILE_NOT_FOUND)
            continue;
        const xrchandle<xstringsequence> subkeys = isOpen ? key.ListSubkeys() : nullptr;
        if (!subkeys)
            FailForLastError(path);
        for (int i = 0; i < subkeys->getarraysize(); ++i)
            names.insert(subkeys->get(i).CastToCString());
    }
    return names;
}

struct CheckChoices
{
    std::vector<std::string> servers;
    double seconds = 10;
};

void checkAddress(const CheckChoices& choices)
{
    Json all = Json::array();
    bool isRestricted = true;
    const std::set<std::string> named(choices.servers.begin(), choices.servers.end());
    for (const std::string& server : named.empty() ? allServers(choices.seconds) : named) {
        all.push_back(rightsOf(server));
        isRestricted = isRestricted && all.back()["admits"] != "everybody";
    }
    Show(all);
    if (!isRestricted)
        AnswerNo();
}

void addCheck(CLI::App& group)
{
    const auto choices = std::make_shared<CheckChoices>();
    CLI::App& check =
        AddCommand(group, "check",
                   "Print which machines and certificates a server admits, by the registry of this "
                   "machine, and whether that can be restricted at all; the answer is no when one "
                   "admits everybody. Where TLS is required, patterns of addresses admit nobody beside "
                   "patterns of certificates. Programs of its own machine are always admitted",
                   [choices] { checkAddress(*choices); });
    check
        .add_option("server", choices->servers,
                    "Names of servers (default: those in the registry, and those that the name server knows)")
        ->type_name("SERVER");
    OfferSeconds(check, "--limit", choices->seconds, "Time to wait for the name server", CLI::PositiveNumber);
    OfferJson(
        check,
        "a line for each server: server, restrictable, admits (nobody, these, every certificate, everybody), "
        "TLS required, and for the lists of system and user their patterns and how they were found: system found, "
        "user found");
}

struct Command
{
    const char* name;
    const char* help;
    void (*run)(const Address& address);
};

constexpr Command commands[] = {{"ping", "Succeed when the server answers", &pingServer},
                                {"version", "Print the server's version text", &printVersion},
                                {"shutdown", "Ask the server to stop", &shutDownServer}};

} // namespace

void AddServerCommands(CLI::App& program)
{
    CLI::App& group = AddGroup(
        program, "server", "A server that is registered with a name server",
        {{"qel server ping files", "Whether the server \"files\" of this machine answers."},
         {"qel server version files@lab2", "The version of the server of that name on the machine lab2."},
         {"qel server shutdown files", "Ask it to stop; it may refuse."},
         {"qel server check", "Which machines may connect to which server."}});
    for (const Command& command : commands) {
        const auto address = std::make_shared<Address>();
        const auto whole = std::make_shared<std::string>();
        CLI::App& added = AddCommand(group, command.name, command.help, [address, whole, run = command.run] {
            const std::size_t at = whole->rfind('@');
            address->name = whole->substr(0, at);
            address->host = at == std::string::npos ? std::string() : whole->substr(at + 1);
            run(*address);
        });
        added.add_option("server", *whole, "NAME, or NAME@HOST")->type_name("SERVER")->required();
        OfferSeconds(added, "--limit", address->seconds,
                     "Time for the name server's and the server's answer together", CLI::PositiveNumber);
        if (command.run == &printVersion)
            OfferJson(added, "a text");
    }
    addCheck(group);
}
