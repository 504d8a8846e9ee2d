// qel server: what every versioned server answers, whatever it serves.
#include <memory>
#include <string>

#include "commands.h"
#include <qel/base/nethandshake.h>
#include <qel/netaddress.h>

namespace {

// NAME or NAME@HOST.
struct Address
{
    std::string name;
    std::string host; // empty: this machine
    double seconds = 10;
};

[[noreturn]] void Refused(const Address& address, Exit status, const std::string& why)
{
    Fail(status, address.name + (address.host.empty() ? "" : "@") + address.host, why);
}

// The port under which the server is registered.
int FindPort(const Address& address)
{
    const xrchandle<netAddress> server(
        netAddress::Create(address.name.c_str(), address.host.empty() ? nullptr : address.host.c_str()));
    std::string why;
    try {
        return ResolvePort(server.get());
    } catch (xthrowable* thrown) {
        why = FailureOf(thrown).why;
    }
    Refused(address, Exit::peer, why);
}

// Asks the server and requires the answer 1; leaves the connection for what follows.
void Ask(const Address& address, netRequestCode code, btkStreamSocket& socket)
{
    const btkTimeval limit(address.seconds);
    if (!socket.Connect(address.host.c_str(), FindPort(address), limit))
        Refused(address, Exit::peer, "Connection refused");
    socket.SetSendLimit(limit);
    socket.SetRecvLimit(limit);
    const int answer = netAsk(socket, code);
    if (answer < 0)
        Refused(address, Exit::peer, "no answer");
    if (answer != netAdmitted)
        Refused(address, Exit::no, "Connection refused due to lack of rights");
}

void Ping(const Address& address)
{
    btkStreamSocket socket;
    Ask(address, netRequestCode::ping, socket);
}

void PrintVersion(const Address& address)
{
    btkStreamSocket socket;
    Ask(address, netRequestCode::version, socket);
    std::string text;
    if (!netReadVersion(socket, text))
        Refused(address, Exit::peer, "the version did not come whole");
    Show(text);
}

void Shutdown(const Address& address)
{
    btkStreamSocket socket;
    Ask(address, netRequestCode::shutdown, socket);
}

struct Command
{
    const char* name;
    const char* help;
    void (*run)(const Address& address);
};

constexpr Command commands[] = {{"ping", "Succeed when the server answers", &Ping},
                                {"version", "Print the server's version text", &PrintVersion},
                                {"shutdown", "Ask the server to stop", &Shutdown}};

} // namespace

void AddServerCommands(CLI::App& program)
{
    CLI::App& group =
        AddGroup(program, "server", "A server that is registered with a name server",
                 {{"qel server ping files", "Whether the server \"files\" of this machine answers."},
                  {"qel server version files@lab2", "What the one on the machine lab2 says of its version."},
                  {"qel server shutdown files", "Ask it to stop; it may refuse."}});
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
        added.add_option("--limit", address->seconds, "Time to wait for an answer")
            ->type_name("SECONDS")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        if (command.run == &PrintVersion)
            OfferJson(added);
    }
}
