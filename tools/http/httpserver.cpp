#include "httpserver.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <microhttpd.h>

#include <qel/base/btksocket.h>

#include "commands.h"

namespace {

constexpr unsigned mostConnections = 500;
constexpr unsigned patience = 15; // seconds without a byte

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
            Fail(Exit::peer, host + ", port " + std::to_string(port),
                 std::string("cannot listen: ") + std::strerror(errno));
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
    std::string host;
    bool isOnLoopback = false;
    int port = 0;
    Handler handler;
    MHD_Daemon* daemon = nullptr;

    HttpReply ReplyTo(MHD_Connection* connection, const std::string& method, const char* path) const
    try {
        if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD)
            return {MHD_HTTP_METHOD_NOT_ALLOWED, {}, "only GET and HEAD\n"};
        if (!IsOwnHost(headerOf(connection, MHD_HTTP_HEADER_HOST), host, isOnLoopback))
            return {MHD_HTTP_MISDIRECTED_REQUEST, {}, "not a name of this server\n"};
        return handler({path, headerOf(connection, MHD_HTTP_HEADER_ACCEPT)});
    } catch (const CommandFailed& failed) {
        return {MHD_HTTP_INTERNAL_SERVER_ERROR, {}, failed.what + ": " + failed.why + '\n'};
    } catch (const std::exception& failed) {
        return {MHD_HTTP_INTERNAL_SERVER_ERROR, {}, std::string(failed.what()) + '\n'};
    } catch (xthrowable* thrown) {
        return {MHD_HTTP_INTERNAL_SERVER_ERROR, {}, FailureOf(thrown).why + '\n'};
    }

    MHD_Result Send(MHD_Connection* connection, const HttpReply& reply) const
    {
        MHD_Response* const response = MHD_create_response_from_buffer(
            reply.body.size(), const_cast<char*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
        if (response == nullptr)
            return MHD_NO;
        static constexpr const char* headers[][2] = {
            {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"},
            {"Content-Security-Policy", "default-src 'none'; frame-ancestors 'none'"},
            {"Referrer-Policy", "no-referrer"},
            {"X-Content-Type-Options", "nosniff"},
        };
        for (const auto& [name, value] : headers)
            MHD_add_response_header(response, name, value);
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                                reply.type.empty() ? HttpReply().type.c_str() : reply.type.c_str());
        if (reply.status == MHD_HTTP_METHOD_NOT_ALLOWED)
            MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        const MHD_Result sent = MHD_queue_response(connection, reply.status, response);
        MHD_destroy_response(response);
        return sent;
    }

    static MHD_Result Serve(void* self, MHD_Connection* connection, const char* path, const char* method,
                            const char*, const char*, std::size_t*, void**)
    {
        const auto& server = *static_cast<const Inside*>(self);
        return server.Send(connection, server.ReplyTo(connection, method, path));
    }
};

HttpServer::HttpServer(const std::string& host, int port, Handler handler) : inside(new Inside)
{
    Door door(host, port);
    inside->host = host;
    inside->isOnLoopback = door.IsOnLoopback();
    inside->port = door.GetPortN();
    inside->handler = std::move(handler);
    const btkHandle listening = door.GiveAway(); // closed by the daemon
    inside->daemon =
        MHD_start_daemon(MHD_USE_EPOLL_INTERNAL_THREAD, 0, nullptr, nullptr, &Inside::Serve, inside.get(),
                         MHD_OPTION_LISTEN_SOCKET, listening, MHD_OPTION_CONNECTION_LIMIT, mostConnections,
                         MHD_OPTION_CONNECTION_TIMEOUT, patience, MHD_OPTION_END);
    if (inside->daemon == nullptr)
        Fail(Exit::peer, host, std::string("cannot serve: ") + std::strerror(errno));
}

HttpServer::~HttpServer()
{
    MHD_stop_daemon(inside->daemon);
}

int HttpServer::GetPort() const
{
    return inside->port;
}
