// qel mon serve and export: monitor files by HTTP, for people and for Prometheus.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btkprocess.h>

#include "commands.h"
#include "exposition.h"
#include "files.h"
#include "monitor.h"

namespace {

struct WebChoices
{
    std::vector<std::string> paths;
    std::string listenOn;
    // of `export`
    bool isOnce = false;
    // of `serve`
    bool admitsAll = false;
    double interval = 1;
    double oldAge = 60;
};

void printOnce(const WebChoices& choices)
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

// The program that serves is another, so that this one needs no web server: it gets the address, the words and the
// files.
void becomeServer(const char* command, const WebChoices& choices, const std::vector<std::string>& more = {})
{
    const auto [host, port] = splitAddress(choices.listenOn);
    const std::string program = FindHelper("qel-http", "qelstd-web");
    std::vector<std::string> words = {program, command, host, port};
    words.insert(words.end(), more.begin(), more.end());
    words.insert(words.end(), choices.paths.begin(), choices.paths.end());
    Process_Become(words);
    Fail(Exit::peer, program, std::strerror(errno));
}

// The options of both commands.
CLI::Option* addServing(CLI::App& command, WebChoices& choices, const char* listenOn)
{
    command
        .add_option("file", choices.paths,
                    "The monitor files (default: those of the running servers that `qel top` shows)")
        ->type_name("FILE");
    choices.listenOn = listenOn;
    return command
        .add_option(
            "--listen", choices.listenOn,
            "Where to listen, as HOST:PORT: an address or name of this machine, and a port; 0: a free one")
        ->type_name("ADDRESS")
        ->capture_default_str();
}

} // namespace

void AddWebCommands(CLI::App& group)
{
    const auto served = std::make_shared<WebChoices>();
    CLI::App& serve = AddCommand(
        group, "serve",
        "Show the values in a web browser as they change, with curves, until SIGTERM. Other users of this "
        "machine are refused, and nobody can change anything",
        [served] {
            becomeServer("serve", *served,
                         {served->admitsAll ? "all" : "own", std::to_string(served->interval),
                          std::to_string(served->oldAge)});
        });
    addServing(serve, *served, "127.0.0.1:1242");
    serve.add_flag(
        "--any-user", served->admitsAll,
        "Serve everybody who can connect: every user of this machine, and other machines if ADDRESS is "
        "not of the loopback");
    OfferSeconds(serve, "--interval", served->interval, "Time between samples",
                 CLI::Range(0.1, 60.0).description(""));
    OfferSeconds(serve, "--old", served->oldAge,
                 "Age of the last change from which values are marked as old");

    const auto exported = std::make_shared<WebChoices>();
    CLI::App& exporting = AddCommand(
        group, "export",
        "Serve the values to Prometheus, under /metrics, until SIGTERM. Everybody who can connect reads them. "
        "qelstd-monitor(5) explains how types, units and helps are declared",
        [exported] { exported->isOnce ? printOnce(*exported) : becomeServer("export", *exported); });
    CLI::Option* const address = addServing(exporting, *exported, "127.0.0.1:1241");
    exporting
        .add_flag("--once", exported->isOnce, "Do not serve: print the values, in Prometheus's text format")
        ->excludes(address);
}
