#pragma once

#include <functional>
#include <memory>
#include <string>

/// A request that may be served: GET or HEAD, for a host that is this server's.
struct HttpRequest
{
    std::string path;
    std::string accept; // the header
};

struct HttpReply
{
    unsigned status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body;
};

/// A small web server with a thread of its own.
class HttpServer
{
public:
    /// Called by the server's thread.
    using Handler = std::function<HttpReply(const HttpRequest&)>;

    /// Listens on `host`, "*": all interfaces, and `port`, 0: a free one. Throws CommandFailed when it cannot.
    HttpServer(const std::string& host, int port, Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    int GetPort() const;

private:
    struct Inside;
    const std::unique_ptr<Inside> inside;
};

/// Whether a request with this header Host is for a server that listens on `host`. The name must be an address, localhost
/// or `host` itself: a web page of elsewhere whose name its owner makes lead here must not read what we serve.
bool IsOwnHost(const std::string& header, const std::string& host, bool isOnLoopback);
