#include <deque>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>

#include "keeper.h"
#include "support/test.h"

namespace {

using testing::ElementsAre;

const std::string others = "/qelstd/names/records/10.0.0.2:1239/";

struct Request
{
    std::string path;
    Json body;
    Etcd::Done done;
};

// A test stands for etcd, and for the name server, of which this is the end of the connection.
nmsChannel server;
std::vector<std::string> heard; // by the name server: the kind of each message, with its key
std::deque<Request> requests;
Etcd::Message watcher;
std::deque<std::function<bool()>> steps; // false: not yet

std::string pairOf(const std::string& key)
{
    std::string record;
    nmsPutRecord(record, {0, {{"_ServerName", "far"}}});
    const Json value = {{"owner", 0}, {"start", ""}, {"boot", ""}, {"record", ToBase64(record)}};
    return Json{{"key", ToBase64(others + key)},
                {"value", ToBase64(value.dump())},
                {"create_revision", "3"},
                {"lease", "8"}}
        .dump();
}

std::string found(const std::string& pairs)
{
    return R"({"header":{"revision":"6"},"kvs":[)" + pairs + "]}";
}

// A step that awaits a request, and responds to it.
std::function<bool()> respond(const std::string& path, const std::string& body)
{
    return [path, body] {
        if (requests.empty())
            return false;
        const Request request = std::move(requests.front());
        requests.pop_front();
        EXPECT_EQ(request.path, path);
        request.done(ReplyOf(200, body));
        return true;
    };
}

bool ask(const std::string& first, const std::string& last)
{
    std::string parts;
    nmsPutText(parts, others + first);
    nmsPutText(parts, others + last);
    server.Send(nmsStoreMessage::again, parts);
    server.Flush();
    return true;
}

// Runs a keeper, which has connected and found no records, through the steps.
void run(std::deque<std::function<bool()>> wanted)
{
    steps = std::move(wanted);
    steps.push_front(respond("/v3/kv/range", found("")));
    steps.push_front(respond("/v3/lease/grant", R"({"ID":"9","TTL":"15"})"));
    requests.clear();
    heard.clear();
    int ends[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    server = nmsChannel(btkFd(ends[0]));
    server.Send(nmsStoreMessage::ready);
    server.Flush();
    Keeper(nmsChannel(btkFd(ends[1])), {"10.0.0.1", 1239, {}, false}, {{"etcd:2379"}, {}, {}, {}, {}, {}})
        .Run();
    requests.clear();
}

void hear(nmsStoreMessage kind, nmsPartReader parts)
{
    if (kind == nmsStoreMessage::sent)
        heard.emplace_back("sent");
    else if (kind == nmsStoreMessage::other || kind == nmsStoreMessage::gone)
        heard.push_back((kind == nmsStoreMessage::gone ? "gone " : "other ") +
                        parts.TakeText().substr(others.size()));
}

} // namespace

// ---- in place of the client of etcd

struct Etcd::Transfer
{
};

Etcd::Etcd(EtcdOptions wanted) : options(std::move(wanted)), multi(nullptr)
{
}

Etcd::~Etcd() = default;

void Etcd::Post(const char* path, const Json& body, Done done)
{
    requests.push_back({path, body, std::move(done)});
}

void Etcd::Watch(const Json&, Message called)
{
    watcher = std::move(called);
}

void Etcd::StopWatch()
{
    watcher = {};
}

bool Etcd::Work(btkTimeval, btkHandle other, bool)
{
    server.Receive(&hear);
    pollfd one = {other, POLLIN, 0};
    if (steps.empty())
        server = nmsChannel();
    else if (steps.front()())
        steps.pop_front();
    else
        poll(&one, 1, 10); // until the keeper's next attempt
    return poll(&one, 1, 0) == 1;
}

TEST(Keeper, RecordRemovedWhileItIsReadIsNotSentAgain)
{
    const auto remove = [] {
        if (requests.size() < 2)
            return false;
        EXPECT_EQ(FromBase64(requests[0].body["key"]), others + "k1");
        EXPECT_EQ(FromBase64(requests[0].body["range_end"]), others + "k1" + '\0');
        watcher(MessageOf(R"({"result":{"events":[{"type":"DELETE","kv":{"key":")" + ToBase64(others + "k1") +
                          R"(","mod_revision":"7"}}]}})"));
        return true;
    };
    run({[] { return ask("k1", "k1"); }, [] { return ask("k2", "k3"); }, remove,
         respond("/v3/kv/range", found(pairOf("k1"))),
         respond("/v3/kv/range", found(pairOf("k2") + ',' + pairOf("k3")))});
    EXPECT_THAT(heard, ElementsAre("gone k1", "sent", "other k2", "other k3", "sent"));

    // Once nothing is read any more, it may come back.
    run({[] { return ask("k1", "k1"); }, respond("/v3/kv/range", found(pairOf("k1")))});
    EXPECT_THAT(heard, ElementsAre("other k1", "sent"));
}

TEST(Keeper, RecordsAreReadOnceMoreAfterTheConnectionWasLost)
{
    Etcd::Done late;
    const auto lose = [&late] {
        if (requests.empty())
            return false;
        late = std::move(requests.front().done);
        requests.clear();
        const Etcd::Message called = watcher;
        called({{}, true, "connection lost", false});
        return true;
    };
    const auto beLate = [&late] {
        if (requests.empty())
            return false;
        late(ReplyOf(200, found(pairOf("k1"))));
        return true;
    };
    run({[] { return ask("k1", "k1"); }, lose, respond("/v3/lease/keepalive", R"({"result":{"TTL":"15"}})"),
         beLate, respond("/v3/kv/range", found(pairOf("k1")))});
    EXPECT_THAT(heard, ElementsAre("other k1", "sent"));
}
