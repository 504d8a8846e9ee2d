// qel-http export HOST PORT FILE...: the web server of `qel mon export`, which starts it.
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include <qel/base/btkevent.h>

#include "commands.h"
#include "daemon.h"
#include "exposition.h"
#include "httpserver.h"

namespace {

btkHandle told = -1;

// From now on, SIGTERM and SIGINT make the event readable.
void expectSignals()
{
    told = Event_Create(false);
    for (const int signal : {SIGTERM, SIGINT})
        std::signal(signal, [](int) { Event_Set(told); });
    std::signal(SIGPIPE, SIG_IGN);
}

void serveMetrics(const std::string& host, int port, const std::vector<std::string>& paths)
{
    const ExposedFiles files(paths);
    const HttpServer server(host, port, [&](const HttpRequest& request) -> HttpReply {
        if (request.path != "/metrics")
            return {404, {}, "see /metrics\n"};
        const ExpositionForm form = FormFor(request.accept);
        return {200, MediaTypeOf(form), Expose(files.Read(), form)};
    });
    ReportServing(host, server.GetPort());
    btkEvent isTold(new btkSelectEvent(told, 0));
    btkEvent::Wait({&isTold}, btkTimeval::Forever());
}

} // namespace

int main(int count, char** words)
try {
    const std::vector<std::string> arguments(words + 1, words + count);
    if (arguments.size() < 3 || arguments[0] != "export")
        Fail(Exit::usage, {}, "started by `qel mon export` only");
    expectSignals();
    serveMetrics(arguments[1], std::stoi(arguments[2]), {arguments.begin() + 3, arguments.end()});
    return 0;
} catch (const CommandFailed& failed) {
    std::cerr << "qel mon export: " << (failed.what.empty() ? "" : Printable(failed.what) + ": ")
              << Printable(failed.why) << std::endl;
    return static_cast<int>(failed.status);
}
