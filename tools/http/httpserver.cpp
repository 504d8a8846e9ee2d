#include "httpserver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <microhttpd.h>
#include <mutex>
#include <utility>
#include <vector>

#include <qel/base/btkpeeruser.h>
#include <qel/base/btksocket.h>
#include <qel/base/btktimeval.h>

#include "daemon.h"
#include "output.h"

namespace {

constexpr unsigned mostConnections = 500;
constexpr unsigned mostViewers = 400; // of streams; the other connections are for what is short
constexpr unsigned patience = 15;     // seconds without a byte, or for one text of a stream
constexpr unsigned strangersPatience = 1;
constexpr int sendBuffer = 1 << 17;       // bytes that the system keeps for a peer that does not read
constexpr std::size_t streamBlock = 4096; // for old clients; others get as much as fits

std::string headerOf(MHD_Connection* connection, const char* name)
{
    const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value != nullptr ? value : "";
}

// A socket that listens and is given away.
class Door : public btkAcceptSocket
{
public:
    Door(const std::string& host, int port)
    {
        if (!Listen(port, host == "*" ? nullptr : host.c_str()))
            FailToListen(host, port);
    }
    btkHandle GiveAway() { return fd.Release(); }
};

bool isAddress(const std::string& name)
{
    const bool isVersion6 = name.find(':') != std::string::npos;
    return !name.empty() && name.find_first_not_of(isVersion6 ? "0123456789abcdefABCDEF:." : "0123456789.") ==
                                std::string::npos;
}

bool isLoopbackAddress(const std::string& name)
{
    return name == "::1" || (name.starts_with("127.") && isAddress(name));
}

} // namespace

bool IsOwnHost(const std::string& header, const std::string& host, bool isOnLoopback)
{
    std::string name = header;
    if (const std::size_t bracket = name.find(']'); name.starts_with('[') && bracket != std::string::npos)
        name = name.substr(1, bracket - 1);
    else
        name.resize(std::min(name.find(':'), name.size()));
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return name == "localhost" || (host != "*" && name == host) ||
           (isOnLoopback ? isLoopbackAddress(name) : isAddress(name));
}

struct HttpServer::Inside
{
    HttpPlace place;
    bool isOnLoopback = false;
    Handler handler;
    MHD_Daemon* daemon = nullptr;
    std::size_t viewers = 0; // used by the daemon's thread only

    // A viewer waits from the moment when its stream has nothing new until it is woken: its connection is suspended.
    std::mutex waitMutex;
    std::vector<MHD_Connection*> waiting;
    bool isEnding = false;

    void WakeAll()
    {
        for (MHD_Connection* const connection : waiting)
            MHD_resume_connection(connection);
        waiting.clear();
    }

    // The mark of a connection whose user is another.
    bool IsStranger(MHD_Connection* connection) const
    {
        return MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context !=
               nullptr;
    }

    static void Notice(void* self, MHD_Connection* connection, void** mark,
                       MHD_ConnectionNotificationCode code)
    {
        if (code != MHD_CONNECTION_NOTIFY_STARTED)
            return;
        const MHD_socket socket =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
        setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
        if (!static_cast<const Inside*>(self)->place.isForOwnUser ||
            btkGetPeerUser(socket) == btkGetOwnUser())
            return;
        *mark = self;
        MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, strangersPatience);
    }

    HttpReply ReplyTo(MHD_Connection* connection, const std::string& method, const char* path) const
    try {
        if (IsStranger(connection))
            return {MHD_HTTP_FORBIDDEN, {}, "for the user who started this server only\n"};
        if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD)
            return {MHD_HTTP_METHOD_NOT_ALLOWED, {}, "only GET and HEAD\n"};
        if (!IsOwnHost(headerOf(connection, MHD_HTTP_HEADER_HOST), place.host, isOnLoopback))
            return {MHD_HTTP_MISDIRECTED_REQUEST, {}, "not a name of this server\n"};
        return handler({path, headerOf(connection, MHD_HTTP_HEADER_ACCEPT)});
    } catch (const CommandFailed& failed) {
        return {MHD_HTTP_INTERNAL_SERVER_ERROR, {}, failed.what + ": " + failed.why + '\n'};
    } catch (const std::exception& failed) {
        return {MHD_HTTP_INTERNAL_SERVER_ERROR, {}, std::string(failed.what()) + '\n'};
    } catch (xthrowable* thrown) {
        return {MHD_HTTP_INTERNAL_SERVER_ERROR, {}, FailureOf(thrown).why + '\n'};
    }

    // The part of a stream that one connection gets.
    struct Viewer
    {
        Inside& server;
        MHD_Connection* connection;
        HttpStream& stream;
        std::uint64_t seen = 0;
        std::shared_ptr<const std::string> text = {}; // shared with other viewers; null: all of it was taken
        std::size_t taken = 0;
        btkTimeval since = {};
    };

    // The daemon calls it when the connection has room. A viewer that does not read gets no later text, and is
    // dropped in the end.
    static std::ptrdiff_t Take(void* self, std::uint64_t, char* buffer, std::size_t room)
    {
        Viewer& viewer = *static_cast<Viewer*>(self);
        if (viewer.text == nullptr) {
            const std::lock_guard lock(viewer.server.waitMutex);
            if (viewer.server.isEnding)
                return MHD_CONTENT_READER_END_OF_STREAM;
            viewer.text = viewer.stream.Next(viewer.seen);
            if (viewer.text == nullptr) {
                MHD_suspend_connection(viewer.connection);
                viewer.server.waiting.push_back(viewer.connection);
                return 0;
            }
            viewer.taken = 0;
            viewer.since = btkTimeval::Now();
        } else if (btkTimeval::Now() - viewer.since > btkTimeval(static_cast<double>(patience))) {
            return MHD_CONTENT_READER_END_WITH_ERROR;
        }
        const std::size_t count = std::min(room, viewer.text->size() - viewer.taken);
        std::memcpy(buffer, viewer.text->data() + viewer.taken, count);
        viewer.taken += count;
        if (viewer.taken == viewer.text->size())
            viewer.text = nullptr;
        return static_cast<std::ptrdiff_t>(count);
    }

    static void Leave(void* self)
    {
        const std::unique_ptr<Viewer> viewer(static_cast<Viewer*>(self));
        --viewer->server.viewers;
    }

    MHD_Response* ResponseOf(MHD_Connection* connection, const HttpReply& reply)
    {
        if (reply.stream == nullptr)
            return MHD_create_response_from_buffer(reply.body.size(), const_cast<char*>(reply.body.data()),
                                                   MHD_RESPMEM_MUST_COPY);
        auto viewer = std::make_unique<Viewer>(Viewer{*this, connection, *reply.stream});
        MHD_Response* const response =
            MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, streamBlock, &Take, viewer.get(), &Leave);
        if (response != nullptr) {
            ++viewers;
            viewer.release(); // freed by Leave
        }
        return response;
    }

    MHD_Result Send(MHD_Connection* connection, const HttpReply& reply)
    {
        if (reply.stream != nullptr && viewers >= mostViewers)
            return Send(connection, {MHD_HTTP_SERVICE_UNAVAILABLE, {}, "too many viewers\n"});
        MHD_Response* const response = ResponseOf(connection, reply);
        if (response == nullptr)
            return MHD_NO;
        MHD_add_response_header(response, "Content-Security-Policy", reply.policy.c_str());
        static constexpr const char* headers[][2] = {
            {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"},
            {"Cross-Origin-Resource-Policy", "same-origin"},
            {"Referrer-Policy", "no-referrer"},
            {"X-Content-Type-Options", "nosniff"},
        };
        for (const auto& [name, value] : headers)
            MHD_add_response_header(response, name, value);
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                                reply.type.empty() ? HttpReply().type.c_str() : reply.type.c_str());
        if (reply.status == MHD_HTTP_METHOD_NOT_ALLOWED)
            MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        if (reply.status == MHD_HTTP_FORBIDDEN)
            MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
        const MHD_Result sent = MHD_queue_response(connection, reply.status, response);
        MHD_destroy_response(response);
        return sent;
    }

    static MHD_Result Serve(void* self, MHD_Connection* connection, const char* path, const char* method,
                            const char*, const char*, std::size_t*, void**)
    {
        auto& server = *static_cast<Inside*>(self);
        return server.Send(connection, server.ReplyTo(connection, method, path));
    }
};

HttpServer::HttpServer(const HttpPlace& place, Handler handler) : inside(new Inside)
{
    Door door(place.host, place.port);
    inside->place = place;
    inside->place.port = door.GetPortN();
    inside->isOnLoopback = door.IsOnLoopback();
    inside->handler = std::move(handler);
    if (place.isForOwnUser && !inside->isOnLoopback)
        Fail(Exit::usage, place.host, "users of other machines are not known; --any-user serves every user");
    if (place.isForOwnUser && !btkReportsPeerUsers(door.GetHandle()))
        Fail(Exit::peer, place.host,
             "the system does not report the users of connections; --any-user serves every user");
    const btkHandle listening = door.GiveAway(); // closed by the daemon
    inside->daemon = MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr,
                                      nullptr, &Inside::Serve, inside.get(), MHD_OPTION_LISTEN_SOCKET,
                                      listening, MHD_OPTION_CONNECTION_LIMIT, mostConnections,
                                      MHD_OPTION_CONNECTION_TIMEOUT, patience, MHD_OPTION_NOTIFY_CONNECTION,
                                      &Inside::Notice, inside.get(), MHD_OPTION_END);
    if (inside->daemon == nullptr)
        Fail(Exit::peer, place.host, std::string("cannot serve: ") + std::strerror(errno));
}

HttpServer::~HttpServer()
{
    {
        const std::lock_guard lock(inside->waitMutex);
        inside->isEnding = true;
        inside->WakeAll(); // the daemon cannot stop before
    }
    MHD_stop_daemon(inside->daemon);
}

int HttpServer::GetPort() const
{
    return inside->place.port;
}

void HttpServer::Wake()
{
    const std::lock_guard lock(inside->waitMutex);
    inside->WakeAll();
}
