// qel mon export: monitor files for Prometheus.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btkprocess.h>

#include "exposition.h"
#include "files.h"
#include "monitor.h"

namespace {

struct Choices
{
    std::vector<std::string> paths;
    std::string listenOn = "127.0.0.1:1241";
    bool isOnce = false;
};

void printOnce(const Choices& choices)
{
    for (const std::string& path : choices.paths)
        OpenMonitor(path); // reports why it cannot be read
    std::cout << Expose(ExposedFiles(choices.paths).Read(), ExpositionForm::prometheus) << std::flush;
}

// HOST:PORT, [HOST]:PORT or PORT.
std::pair<std::string, std::string> splitAddress(const std::string& address)
{
    const std::size_t colon = address.rfind(':');
    std::string host = colon == std::string::npos ? "127.0.0.1" : address.substr(0, colon);
    const std::string port = colon == std::string::npos ? address : address.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (host.empty() || port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) > 65535)
        Fail(Exit::usage, address, "not an address of the form HOST:PORT");
    return {host, port};
}

// The program that serves is another, so that this one needs no web server.
void becomeServer(const char* command, const Choices& choices)
{
    const auto [host, port] = splitAddress(choices.listenOn);
    const std::string program = FindHelper("qel-http", "qelstd-web");
    std::vector<std::string> words = {program, command, host, port};
    words.insert(words.end(), choices.paths.begin(), choices.paths.end());
    Process_Become(words);
    Fail(Exit::peer, program, std::strerror(errno));
}

} // namespace

void AddExportCommands(CLI::App& group)
{
    const auto choices = std::make_shared<Choices>();
    CLI::App& command =
        AddCommand(group, "export",
                   "Serve the values to Prometheus, under /metrics, until SIGTERM. Everybody who can connect "
                   "reads them. qelstd-monitor(5) explains how types, units and helps are declared",
                   [choices] { choices->isOnce ? printOnce(*choices) : becomeServer("export", *choices); });
    command
        .add_option("file", choices->paths,
                    "The monitor files (default: those of the running servers that `qel top` shows)")
        ->type_name("FILE");
    CLI::Option* const address =
        command
            .add_option(
                "--listen", choices->listenOn,
                "Where to listen, as HOST:PORT: an address or name of this machine, and a port; 0: a free one")
            ->type_name("ADDRESS")
            ->capture_default_str();
    command
        .add_flag("--once", choices->isOnce, "Do not serve: print the values, in Prometheus's text format")
        ->excludes(address);
}
