// The web server of `qel mon serve` and `qel mon export`, which start it:
//     qel-http serve HOST PORT own|all INTERVAL OLD FILE...
//     qel-http export HOST PORT FILE...
#include <algorithm>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include <qel/base/btkevent.h>

#include "board.h"
#include "daemon.h"
#include "exposition.h"
#include "httpserver.h"
#include "output.h"
#include "page.h"

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

// Waits for a signal to end; false: the time is over.
bool isTold(btkTimeval limit)
{
    btkEvent event(new btkSelectEvent(told, 0));
    return btkEvent::Wait({&event}, limit) > 0;
}

void serveMetrics(const HttpPlace& place, const std::vector<std::string>& paths)
{
    const ExposedFiles files(paths);
    const HttpServer server(place, [&](const HttpRequest& request) -> HttpReply {
        if (request.path != "/metrics")
            return {404, {}, "see /metrics\n"};
        const ExpositionForm form = FormFor(request.accept);
        return {200, MediaTypeOf(form), Expose(files.Read(), form)};
    });
    ReportServing(place.host, server.GetPort());
    isTold(btkTimeval::Forever());
}

// The page may load its own files and events, and nothing else.
constexpr const char* pagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'";

void servePage(const HttpPlace& place, double interval, double oldAge, const std::vector<std::string>& paths)
{
    Board board(paths, interval, oldAge);
    HttpServer server(place, [&](const HttpRequest& request) -> HttpReply {
        if (request.path == "/events")
            return {.type = "text/event-stream", .body = {}, .stream = &board};
        if (const PageFile* const file = PageFileAt(request.path))
            return {200, file->type, std::string(file->content), pagePolicy};
        return {404, {}, "see /\n"};
    });
    ReportServing(place.host, server.GetPort());
    btkTimeval next = btkTimeval::Now();
    do {
        board.TakeSample();
        server.Wake();
        next = std::max(next + btkTimeval(interval), btkTimeval::Now()); // it does not catch up
    } while (!isTold(next - btkTimeval::Now()));
}

} // namespace

int main(int count, char** words)
{
    const std::vector<std::string> arguments(words + 1, words + count);
    const std::string command = arguments.empty() ? "" : arguments[0];
    try {
        expectSignals();
        if (command == "export" && arguments.size() >= 3)
            serveMetrics({arguments[1], std::stoi(arguments[2])}, {arguments.begin() + 3, arguments.end()});
        else if (command == "serve" && arguments.size() >= 6)
            servePage({arguments[1], std::stoi(arguments[2]), arguments[3] == "own"}, std::stod(arguments[4]),
                      std::stod(arguments[5]), {arguments.begin() + 6, arguments.end()});
        else
            Fail(Exit::usage, {}, "started by `qel mon serve` and `qel mon export` only");
        return 0;
    } catch (const CommandFailed& failed) {
        std::cerr << "qel mon " << command << ": "
                  << (failed.what.empty() ? "" : Printable(failed.what) + ": ") << Printable(failed.why)
                  << std::endl;
        return static_cast<int>(failed.status);
    }
}
