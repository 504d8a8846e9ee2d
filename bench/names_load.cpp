// names_load register|query|txn HOST:PORT CLIENTS COUNT: makes that many requests, divided among concurrent clients,
// and prints how many were done in a second and the 99th percentile of their times in ms. It then waits for the end of
// its input, and keeps its registrations until then.
//
// register, query: a name server, whose clients connect for each request. txn: the gateway of etcd, in which each
// transaction creates two keys as a registration does, on a connection of its own for each client.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <qel/base/btksystem.h>
#include <qel/base/nmsclient.h>

namespace {

struct Load
{
    std::string_view kind;
    std::string host;
    int port;
};

const btkTimeval limit(30, 0);

std::string recordOf(const Load& load, int i)
{
    nmsFields record;
    const bool isNew = load.kind == "register";
    record.owner = isNew ? static_cast<std::uint32_t>(btkProcessNumber()) : 0;
    record.Set("_ServerName", "load-" + std::to_string(isNew ? i : 0));
    if (isNew) {
        record.Set("_PortNumber", "4000");
        record.Set("_ServerVersion", "load 1.0");
    }
    std::string encoded;
    nmsPutRecord(encoded, record);
    return encoded;
}

bool ask(const Load& load, int i)
{
    nmsExchange exchange;
    const bool isQuery = load.kind == "query";
    std::vector<nmsFields> found;
    return exchange.Ask(load.host.c_str(), load.port, isQuery ? nmsRequestCode::query : nmsRequestCode::enter,
                        recordOf(load, i)) == nmscDone &&
           (!isQuery || (exchange.ReadRecords(found) && found.size() == 1));
}

/// A transaction of the size that a registration has: a record and a claim.
std::string transactionOf(int i)
{
    char key[17]; // in base 64 as it is
    std::snprintf(key, sizeof key, "%016d", i);
    const std::string value(240, 'A');
    std::string compare, put;
    for (const std::string& name : {"cmVjb3Jk" + std::string(key), "Y2xhaW1z" + std::string(key)}) {
        compare += (compare.empty() ? "" : ",") + (R"({"key":")" + name) +
                   R"(","target":"CREATE","result":"EQUAL","create_revision":"0"})";
        put += (put.empty() ? "" : ",") + (R"({"request_put":{"key":")" + name) + R"(","value":")" + value +
               "\"}}";
    }
    const std::string body = R"({"compare":[)" + compare + R"(],"success":[)" + put + "]}";
    return "POST /v3/kv/txn HTTP/1.1\r\nHost: etcd\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

bool transact(btkStreamSocket& socket, int i)
{
    const std::string request = transactionOf(i);
    if (socket.Send(request.data(), request.size()) != request.size())
        return false;
    std::string response;
    for (std::size_t whole = std::string::npos; response.size() < whole || whole == std::string::npos;) {
        char piece[4096];
        const std::ptrdiff_t count = socket.Recv(piece, sizeof piece);
        if (count <= 0)
            return false;
        response.append(piece, static_cast<std::size_t>(count));
        const std::size_t length = response.find("Content-Length: ");
        const std::size_t head = response.find("\r\n\r\n");
        if (head != std::string::npos && length < head)
            whole = head + 4 + std::strtoul(response.c_str() + length + 16, nullptr, 10);
    }
    return response.find("\"succeeded\":true") != std::string::npos;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string_view place = argc == 5 ? argv[2] : "";
    const std::size_t colon = place.rfind(':');
    if (colon == std::string_view::npos) {
        std::fputs("usage: names_load register|query|txn HOST:PORT CLIENTS COUNT\n", stderr);
        return 2;
    }
    const Load load = {argv[1], std::string(place.substr(0, colon)),
                       std::atoi(std::string(place.substr(colon + 1)).c_str())};
    const int clients = std::clamp(std::atoi(argv[3]), 1, 256);
    const int count = std::max(std::atoi(argv[4]), 1);

    std::atomic<int> next = 0, failed = 0;
    std::vector<double> seconds(static_cast<std::size_t>(count));
    const auto work = [&] {
        btkStreamSocket socket;
        const bool isTxn = load.kind == "txn";
        bool isOpen = isTxn && socket.Connect(load.host.c_str(), load.port, limit);
        socket.SetRecvLimit(limit);
        for (int i = next++; i < count; i = next++) {
            const btkTimeval began = btkTimeval::Now();
            const bool isDone = isTxn ? isOpen && (isOpen = transact(socket, i)) : ask(load, i);
            seconds[static_cast<std::size_t>(i)] = (btkTimeval::Now() - began).ToSeconds();
            failed += isDone ? 0 : 1;
        }
    };
    const btkTimeval began = btkTimeval::Now();
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i)
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
    const double all = (btkTimeval::Now() - began).ToSeconds();
    if (failed != 0) {
        std::fprintf(stderr, "names_load: %d of %d requests failed\n", failed.load(), count);
        return 1;
    }
    std::sort(seconds.begin(), seconds.end());
    std::printf("%.0f %.3f\n", count / all, seconds[seconds.size() * 99 / 100] * 1000);
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}
