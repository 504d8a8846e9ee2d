#include "etcd.h"

#include <algorithm>
#include <new>
#include <utility>

namespace {

// Quorum reads hang for 7 seconds at a member that has lost the others.
constexpr long requestMilliseconds = 2000;
constexpr std::size_t greatestResponse = std::size_t(64) << 20;

} // namespace

struct Etcd::Transfer
{
    Transfer() : easy(curl_easy_init())
    {
        if (easy == nullptr)
            throw std::bad_alloc();
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;
    ~Transfer()
    {
        curl_easy_cleanup(easy);
        curl_slist_free_all(headers);
    }

    static std::size_t Take(char* data, std::size_t, std::size_t size, void* self)
    {
        std::string& received = static_cast<Transfer*>(self)->received;
        if (received.size() + size > greatestResponse)
            return 0;
        received.append(data, size);
        return size;
    }
    void AddHeader(const std::string& line) { headers = curl_slist_append(headers, line.c_str()); }

    CURL* easy;
    curl_slist* headers = nullptr;
    std::string sent;
    std::string received;
    std::size_t searched = 0; // bytes of `received` without the end of a line
    std::size_t endpoint = 0;
    Done done;
};

Etcd::Etcd(EtcdOptions wanted) : options(std::move(wanted)), multi(curl_multi_init())
{
    if (multi == nullptr)
        throw std::bad_alloc();
}

Etcd::~Etcd()
{
    StopWatch();
    for (const auto& transfer : transfers)
        curl_multi_remove_handle(multi, transfer->easy);
    transfers.clear();
    curl_multi_cleanup(multi);
}

std::unique_ptr<Etcd::Transfer> Etcd::Start(const char* path, const Json& body)
{
    auto transfer = std::make_unique<Transfer>();
    CURL* const easy = transfer->easy;
    const auto set = [easy](CURLoption option, auto value) { curl_easy_setopt(easy, option, value); };
    transfer->endpoint = current;
    transfer->sent = body.dump();
    transfer->AddHeader("Content-Type: application/json");
    transfer->AddHeader("Expect:");
    if (!token.empty())
        transfer->AddHeader("Authorization: " + token);
    set(CURLOPT_URL, ((options.authority.empty() ? "http://" : "https://") + GetEndpoint() + path).c_str());
    set(CURLOPT_PROXY, "");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_CONNECTTIMEOUT_MS, requestMilliseconds / 2);
    set(CURLOPT_TCP_KEEPALIVE, 1L);
    set(CURLOPT_TCP_KEEPIDLE, 5L);
    set(CURLOPT_TCP_KEEPINTVL, 2L);
    if (!options.authority.empty())
        set(CURLOPT_CAINFO, options.authority.c_str());
    if (!options.certificate.empty()) {
        set(CURLOPT_SSLCERT, options.certificate.c_str());
        set(CURLOPT_SSLKEY, options.key.c_str());
    }
    set(CURLOPT_POSTFIELDSIZE, static_cast<long>(transfer->sent.size()));
    set(CURLOPT_POSTFIELDS, transfer->sent.c_str());
    set(CURLOPT_WRITEFUNCTION, &Transfer::Take);
    set(CURLOPT_WRITEDATA, transfer.get());
    return transfer;
}

void Etcd::Post(const char* path, const Json& body, Done done)
{
    auto transfer = Start(path, body);
    transfer->done = std::move(done);
    curl_easy_setopt(transfer->easy, CURLOPT_TIMEOUT_MS, requestMilliseconds);
    curl_easy_setopt(transfer->easy, CURLOPT_HTTPHEADER, transfer->headers);
    curl_multi_add_handle(multi, transfer->easy);
    transfers.push_back(std::move(transfer));
}

void Etcd::Watch(const Json& request, Message called)
{
    StopWatch();
    watch = Start("/v3/watch", request);
    message = std::move(called);
    // Without it, a member that has lost the others stays silent.
    watch->AddHeader("Grpc-Metadata-hasleader: true");
    curl_easy_setopt(watch->easy, CURLOPT_HTTPHEADER, watch->headers);
    curl_multi_add_handle(multi, watch->easy);
}

void Etcd::StopWatch()
{
    if (watch == nullptr)
        return;
    curl_multi_remove_handle(multi, watch->easy);
    watch.reset();
    message = {};
    ++watches;
}

// Goes to the next endpoint, unless that has happened already.
void Etcd::Leave(std::size_t endpoint)
{
    if (endpoint != current)
        return;
    current = (current + 1) % options.endpoints.size();
    if (watch == nullptr || options.endpoints.size() == 1)
        return;
    EndWatch("the endpoint has changed");
}

void Etcd::EndWatch(const char* why)
{
    const Message ended = std::exchange(message, nullptr);
    StopWatch();
    ended({{}, true, why});
}

void Etcd::End(CURL* easy, CURLcode result)
{
    if (watch != nullptr && watch->easy == easy) {
        const unsigned delivered = watches;
        DeliverWatch();
        if (watches != delivered)
            return;
        EndWatch(curl_easy_strerror(result));
        return;
    }
    const auto place = std::find_if(transfers.begin(), transfers.end(),
                                    [easy](const auto& transfer) { return transfer->easy == easy; });
    if (place == transfers.end())
        return;
    const std::unique_ptr<Transfer> transfer = std::move(*place);
    transfers.erase(place);
    curl_multi_remove_handle(multi, easy);

    EtcdReply reply;
    if (result == CURLE_OK) {
        long status = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        reply = ReplyOf(status, transfer->received);
    } else {
        reply.why = options.endpoints[transfer->endpoint] + ": " + curl_easy_strerror(result);
    }
    if (reply.code == EtcdReply::noConnection)
        Leave(transfer->endpoint);
    transfer->done(reply);
}

// Passes the complete messages on.
void Etcd::DeliverWatch()
{
    std::string& buffer = watch->received;
    const bool isWhole = buffer.find('\n', watch->searched) != std::string::npos;
    const std::size_t whole = isWhole ? buffer.rfind('\n') + 1 : 0;
    const std::string lines = buffer.substr(0, whole);
    buffer.erase(0, whole);
    watch->searched = buffer.size();
    const unsigned delivered = watches;
    // Handling a message may end this watch, or begin another.
    for (std::size_t begin = 0, end = 0; begin < lines.size() && watches == delivered; begin = end + 1) {
        end = lines.find('\n', begin);
        const EtcdMessage received = MessageOf(std::string_view(lines).substr(begin, end - begin));
        const Message called = message;
        const std::size_t endpoint = watch->endpoint;
        if (received.isEnd)
            StopWatch();
        if (received.isRefused)
            Leave(endpoint);
        called(received);
    }
}

bool Etcd::Work(btkTimeval limit, btkHandle other, bool wantsToWrite)
{
    curl_waitfd also = {};
    also.fd = other;
    also.events = static_cast<short>(CURL_WAIT_POLLIN | (wantsToWrite ? CURL_WAIT_POLLOUT : 0));
    const double milliseconds = std::clamp(limit.ToSeconds() * 1000, 0.0, 60000.0);
    curl_multi_poll(multi, &also, 1, static_cast<int>(milliseconds), nullptr);
    int running = 0;
    curl_multi_perform(multi, &running);
    if (watch != nullptr)
        DeliverWatch();
    int left = 0;
    while (const CURLMsg* const ended = curl_multi_info_read(multi, &left))
        if (ended->msg == CURLMSG_DONE)
            End(ended->easy_handle, ended->data.result);
    return also.revents != 0;
}
