#pragma once

#include <string>

#include <qel/base/btksocket.h>

namespace CLI {
class App;
}

// Shared by the commands that serve, under a service manager and without one.

/// Adds `qel ns serve`.
void AddNameServer(CLI::App& group);

/// Returns the socket that the service manager listens on for this server; one that is not open when it has
/// passed none. `interface` and `port` are then the socket's.
btkAcceptSocket TakePassedSocket(std::string& interface, int& port);
/// Prints where the server serves, and reports that to the service manager. A program that started the server
/// with port 0 reads the port from the line.
void ReportServing(const std::string& interface, int port);
/// Ends the program with the reason in errno for which it cannot listen; suggests port 0 when the port is in use.
[[noreturn]] void FailToListen(const std::string& interface, int port);
/// Fails unless a server could listen on `interface`; "*" means all of them.
void RequireInterface(const std::string& interface);
