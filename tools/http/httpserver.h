#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

/// A request that may be served: GET or HEAD, for a host that is this server's.
struct HttpRequest
{
    std::string path;
    std::string accept; // the header
};

/// Something that changes, which a viewer gets as one text after the other.
class HttpStream
{
public:
    virtual ~HttpStream() = default;
    /// Returns the text for a viewer who has had the state number `seen`, 0: none, and sets `seen` to the number of the
    /// state that the viewer has then. A viewer who is slow misses states. Null: there is no later state yet; Wake ends
    /// the wait. Called by the server's thread.
    virtual std::shared_ptr<const std::string> Next(std::uint64_t& seen) = 0;
};

struct HttpReply
{
    unsigned status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body;
    /// The sources that a page of this content may load.
    std::string policy = "default-src 'none'; frame-ancestors 'none'";
    HttpStream* stream = nullptr; // in place of the body, until the viewer leaves; outlives the server
};

struct HttpPlace
{
    std::string host; // "*": all interfaces
    int port = 0;     // 0: a free one
    /// Only processes of this process's user may connect, from this machine. Others get the status 403.
    bool isForOwnUser = false;
};

/// A small web server with a thread of its own.
class HttpServer
{
public:
    /// Called by the server's thread.
    using Handler = std::function<HttpReply(const HttpRequest&)>;

    /// Throws CommandFailed when it cannot listen, or could not know the users.
    HttpServer(const HttpPlace& place, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    int GetPort() const;
    /// Sends the latest state of their streams to the viewers. Any thread.
    void Wake();

private:
    struct Inside;
    const std::unique_ptr<Inside> inside;
};

/// Whether a request with this header Host is for a server that listens on `host`. The name must be an address,
/// localhost or `host` itself: a foreign web page must not read what we serve by making its own name resolve to here.
bool IsOwnHost(const std::string& header, const std::string& host, bool isOnLoopback);
