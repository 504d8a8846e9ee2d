// qel server: what every versioned server answers, whatever it serves.
#include <iostream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "commands.h"
#include <qel/base/nethandshake.h>
#include <qel/netaddress.h>
#include <qel/netexception.h>

namespace {

// NAME or NAME@HOST.
struct Address
{
    std::string name;
    std::string host; // empty: this machine
    double seconds = 10;
};

[[noreturn]] void Fail(const Address& address, const std::string& reason)
{
    std::cerr << "qel server: " << address.name << (address.host.empty() ? "" : "@") << address.host << ": "
              << reason << std::endl;
    throw CommandFailed{};
}

// The port under which the server is registered.
int FindPort(const Address& address)
{
    const xrchandle<netAddress> server(
        netAddress::Create(address.name.c_str(), address.host.empty() ? nullptr : address.host.c_str()));
    std::string problem;
    try {
        return ResolvePort(server.get());
    } catch (xthrowable* thrown) {
        if (netXException* const failure = netXException::softcast(thrown))
            problem = failure->getMsg().CastToCString();
        xdelete(thrown);
    }
    Fail(address, problem);
}

// Asks the server and requires the answer 1; leaves the connection for what follows.
void Ask(const Address& address, netRequestCode code, btkStreamSocket& socket)
{
    const btkTimeval limit(address.seconds);
    if (!socket.Connect(address.host.c_str(), FindPort(address), limit))
        Fail(address, "Connection refused");
    socket.SetSendLimit(limit);
    socket.SetRecvLimit(limit);
    const int answer = netAsk(socket, code);
    if (answer < 0)
        Fail(address, "no answer");
    if (answer != netAdmitted)
        Fail(address, "Connection refused due to lack of rights");
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
        Fail(address, "the version did not come whole");
    std::cout << Printable(text) << std::endl;
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
    CLI::App& group = *program.add_subcommand("server", "A server that is registered with a name server");
    group.require_subcommand(1);
    for (const Command& command : commands) {
        const auto address = std::make_shared<Address>();
        const auto whole = std::make_shared<std::string>();
        CLI::App& added = *group.add_subcommand(command.name, command.help);
        added.add_option("server", *whole, "NAME, or NAME@HOST")->required();
        added.add_option("--limit", address->seconds, "Seconds to wait for an answer")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        added.callback([address, whole, run = command.run] {
            const std::size_t at = whole->rfind('@');
            address->name = whole->substr(0, at);
            address->host = at == std::string::npos ? std::string() : whole->substr(at + 1);
            run(*address);
        });
    }
}
