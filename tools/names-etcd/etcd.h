#pragma once

#include <curl/curl.h>
#include <functional>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include <qel/base/btkfd.h>

using Json = nlohmann::json;

/// Bytes in the form in which etcd's gateway takes and gives them.
std::string ToBase64(const std::string& bytes);
/// Empty for what is not of that form.
std::string FromBase64(const std::string& text);
/// A number of a response. The gateway writes large ones as texts, and leaves out 0.
std::uint64_t NumberIn(const Json& object, const char* name);
/// A member, or null; the gateway leaves out what is empty or false.
const Json& MemberOf(const Json& object, const char* name);

struct EtcdOptions
{
    std::vector<std::string> endpoints; // HOST:PORT
    std::string authority;              // the file of its certificate; empty: plain HTTP
    std::string certificate;            // the client's own, with its key; empty: none
    std::string key;
    std::string user; // empty: no authentication
    std::string password;
};

/// The response to a request.
struct EtcdReply
{
    /// The codes that matter here, of those that the gateway gives.
    enum Code {
        done = 0,
        invalid = 3,
        leaseNotFound = 5,
        denied = 7,
        full = 8,
        unauthenticated = 16,
        noConnection = 1000
    };

    int code = noConnection;
    std::string why; // of a failure
    Json body;
};

/// Parses the response to a request, with its HTTP status.
EtcdReply ReplyOf(long status, const std::string& response);

/// A message of a watch.
struct EtcdMessage
{
    Json result;
    bool isEnd = false;
    std::string why;        // of the end
    bool isRefused = false; // at this endpoint
};

/// Parses a line of a watch.
EtcdMessage MessageOf(std::string_view line);

/// A client of etcd's JSON gateway. All requests go to one endpoint, and after a failure there to the next. Used
/// by one thread; the functions that it calls may make further requests.
class Etcd
{
public:
    using Done = std::function<void(const EtcdReply& reply)>;
    using Message = std::function<void(const EtcdMessage& message)>;

    explicit Etcd(EtcdOptions wanted);
    Etcd(const Etcd&) = delete;
    Etcd& operator=(const Etcd&) = delete;
    ~Etcd();

    /// Sends a request; `done` is called within its time limit, but not before Work.
    void Post(const char* path, const Json& body, Done done);
    /// Watches keys, instead of those watched so far, and calls `message` up to the end, which comes also when the
    /// endpoint changes.
    void Watch(const Json& request, Message message);
    void StopWatch();
    /// Sets, or clears, what authenticates requests from now on.
    void SetToken(std::string text) { token = std::move(text); }
    bool HasToken() const { return !token.empty(); }
    const EtcdOptions& GetOptions() const { return options; }
    const std::string& GetEndpoint() const { return options.endpoints[current]; }

    /// Waits until there is something to do, `other` is readable or, if that is wanted, writable, or `limit`
    /// has passed, and does it. True when `other` is ready.
    bool Work(btkTimeval limit, btkHandle other, bool wantsToWrite);

private:
    struct Transfer;

    std::unique_ptr<Transfer> Start(const char* path, const Json& body);
    void End(CURL* easy, CURLcode result);
    void Leave(std::size_t endpoint);
    void EndWatch(const char* why);
    void DeliverWatch();

    EtcdOptions options;
    std::string token;
    std::size_t current = 0;
    CURLM* multi;
    std::list<std::unique_ptr<Transfer>> transfers;
    std::unique_ptr<Transfer> watch;
    unsigned watches = 0; // that have ended
    Message message;
};
