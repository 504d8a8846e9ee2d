// A name server and its keeper, which shares the records in etcd, with all that they read: the input is a list of
// lines, each a response of etcd, a message of its watch, a message between the two, or a record that is registered or
// removed. The keeper handles each without more requests at once than it may have, and ends when the name server does.
// The name server's records then are within their limits.
//
// The first letter of a line: r, f: the response to the oldest request, with HTTP status 200 or 400; x: none came; w: a
// message of the watch; p, n: a record of this process, or of none, is registered; d: it is removed; k, s: the bytes of
// a message to the keeper, or to the name server, the digit of its kind first. In what etcd sends, @ and a letter stand
// for texts of the last transaction: k, v: the key and the value of its record; c, d: of its claim.
#include "keeper.h"

#include <deque>
#include <memory>
#include <optional>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

#include <qel/base/btksystem.h>
#include <qel/base/nmsshared.h>

#include "target.h"

namespace {

// As many transactions and readings as the keeper has on their way, the renewal of its lease, and what an attempt to
// connect needs.
constexpr std::size_t mostRequests = 56;

bool isReadable(int handle)
{
    pollfd one = {handle, POLLIN, 0};
    return poll(&one, 1, 0) == 1;
}

struct Request
{
    Json body;
    Etcd::Done done;
};

class Script
{
public:
    explicit Script(std::string_view input) : rest(input)
    {
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        toKeeper = btkFd(dup(ends[0]));
        toServer = btkFd(dup(ends[1]));
        nmsSharingOptions options;
        options.records = 100;
        options.recordsOfMachine = 10;
        options.bytes = 1 << 15;
        options.connect = [this] { return btkFd(std::exchange(ends[0], -1)); };
        server.emplace(table, options);
        server->Work(false);
    }
    btkFd takeEndOfKeeper() { return btkFd(std::exchange(ends[1], -1)); }

    // Does what the next line says; without one, closes the connection.
    void proceed()
    {
        if (rest.empty()) {
            shutdown(toKeeper.Get(), SHUT_RDWR);
            return;
        }
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (!line.empty())
            perform(line[0], line.substr(1));
        server->Work(isReadable(server->GetHandle()));
        server->TakeResults();
    }

    void check()
    {
        for (const nmsTable::Encoded& encoded : server->Find({})) {
            nmsPartReader reader(*encoded);
            require(reader.TakeRecord().fields.size() <= nmsLimits().fields && reader.IsAtEnd());
        }
        nmsFields about;
        server->Describe(about);
        require(about.fields.size() > 4);
    }

    std::deque<Request> requests;
    Etcd::Message watch;

private:
    void perform(char what, std::string_view text)
    {
        if (what == 'r' || what == 'f' || what == 'x')
            respond(what, text);
        else if (what == 'w' && watch)
            hearWatch(MessageOf(filled(text)));
        else if (what == 'p' || what == 'n')
            enter({what == 'p' ? static_cast<std::uint32_t>(btkProcessNumber()) : 0,
                   {{"_ServerName", std::string(text)}}});
        else if (what == 'd')
            table.Remove({0, {{"_ServerName", std::string(text)}}});
        else if ((what == 'k' || what == 's') && !text.empty())
            send(what == 'k' ? toKeeper : toServer, text);
    }

    void respond(char what, std::string_view text)
    {
        if (requests.empty())
            return;
        const Request answered = std::move(requests.front());
        requests.pop_front();
        if (what == 'x')
            return answered.done(EtcdReply{EtcdReply::noConnection, "no connection", {}});
        answered.done(ReplyOf(what == 'r' ? 200 : 400, filled(text)));
    }

    void hearWatch(const EtcdMessage& message)
    {
        const Etcd::Message called = watch;
        if (message.isEnd)
            watch = {};
        called(message);
    }

    void enter(nmsFields record)
    {
        nmsTable::Id id = 0;
        if (table.Add(std::move(record), {}, {}, nmsTable::Hidden, id) == nmscDone)
            server->Enter(id);
    }

    static void send(const btkFd& to, std::string_view text)
    {
        std::string message;
        nmsPutInt(message, static_cast<int>(text.size()));
        message += static_cast<char>(text[0] - '0');
        message += text.substr(1);
        ::send(to.Get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    // A text of etcd, with the parts of the last transaction.
    std::string filled(std::string_view text) const
    {
        std::string result;
        for (std::size_t i = 0; i < text.size(); ++i) {
            const std::size_t part =
                std::string_view("kvcd").find(text[i] == '@' && i + 1 < text.size() ? text[i + 1] : '-');
            if (part == std::string_view::npos) {
                result += text[i];
                continue;
            }
            ++i;
            if (requests.empty())
                continue;
            const Json& puts = MemberOf(requests.back().body, "success");
            if (puts.is_array() && puts.size() > part / 2) {
                const Json& wanted =
                    MemberOf(MemberOf(puts[part / 2], "request_put"), part % 2 == 0 ? "key" : "value");
                result += wanted.is_string() ? wanted.get<std::string>() : std::string();
            }
        }
        return result;
    }

    std::string_view rest;
    int ends[2] = {-1, -1};
    btkFd toKeeper, toServer;
    nmsTable table;
    std::optional<nmsShared> server;
};

std::unique_ptr<Script> script;

} // namespace

// ---- in place of the client of etcd

struct Etcd::Transfer
{
};

Etcd::Etcd(EtcdOptions wanted) : options(std::move(wanted)), multi(nullptr)
{
}

Etcd::~Etcd() = default;

void Etcd::Post(const char*, const Json& body, Done done)
{
    script->requests.push_back({Json::parse(body.dump()), std::move(done)});
    require(script->requests.size() <= mostRequests);
}

void Etcd::Watch(const Json& request, Message called)
{
    request.dump();
    script->watch = std::move(called);
}

void Etcd::StopWatch()
{
    script->watch = {};
}

bool Etcd::Work(btkTimeval, btkHandle other, bool)
{
    script->proceed();
    return isReadable(other);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > 20000)
        return 0;
    script = std::make_unique<Script>(std::string_view(reinterpret_cast<const char*>(data), size));
    Keeper(nmsChannel(script->takeEndOfKeeper()), {"10.0.0.1", 1239, {}, size % 2 == 0},
           {{"etcd:2379"}, {}, {}, {}, {}, {}})
        .Run();
    script->check();
    script.reset();
    return 0;
}
