#include "etcd.h"

#include <algorithm>
#include <new>

namespace {

// Quorum reads hang for 7 seconds at a member that has lost the others.
constexpr long requestMilliseconds = 2000;
constexpr std::size_t greatestResponse = std::size_t(64) << 20;
constexpr const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

std::string ToBase64(const std::string& bytes)
{
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        unsigned bits = 0;
        for (std::size_t k = 0; k < 3; ++k)
            bits = bits << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            text += i + k <= bytes.size() ? digits[bits >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

std::string FromBase64(const std::string& text)
{
    static const std::string all = digits;
    std::string bytes;
    unsigned bits = 0;
    int count = 0;
    for (const char c : text.substr(0, text.find('='))) {
        const std::size_t digit = all.find(c);
        if (digit == std::string::npos)
            return {};
        bits = bits << 6 | static_cast<unsigned>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>(bits >> count & 0xFF);
        }
    }
    return bytes;
}

const Json& MemberOf(const Json& object, const char* name)
{
    static const Json none;
    const auto found = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && found != object.end() ? *found : none;
}

std::uint64_t NumberIn(const Json& object, const char* name)
{
    const Json& value = MemberOf(object, name);
    if (value.is_number_integer())
        return value.get<std::uint64_t>();
    return value.is_string() ? std::strtoull(value.get_ref<const std::string&>().c_str(), nullptr, 10) : 0;
}

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
    const Message ended = std::move(message);
    StopWatch();
    ended(nullptr, "the endpoint has changed");
}

void Etcd::End(CURL* easy, CURLcode result)
{
    if (watch != nullptr && watch->easy == easy) {
        const unsigned delivered = watches;
        DeliverWatch();
        if (watches != delivered)
            return;
        const Message ended = std::move(message);
        StopWatch();
        ended(nullptr, curl_easy_strerror(result));
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
    if (result != CURLE_OK) {
        reply.why = options.endpoints[transfer->endpoint] + ": " + curl_easy_strerror(result);
        Leave(transfer->endpoint);
        transfer->done(reply);
        return;
    }
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    // A streaming call has a line for each message; these have one.
    reply.body = Json::parse(transfer->received.substr(0, transfer->received.find('\n')), nullptr, false);
    const Json& error = MemberOf(reply.body, "error");
    if (status == 200 && error.is_null() && reply.body.is_object()) {
        reply.code = EtcdReply::done;
    } else {
        const Json& about = error.is_object() ? error : reply.body;
        const Json& text = error.is_string() ? error : MemberOf(about, "message");
        reply.why = text.is_string() ? text.get<std::string>() : "HTTP status " + std::to_string(status);
        const auto code = static_cast<int>(NumberIn(about, error.is_object() ? "grpc_code" : "code"));
        constexpr int known[] = {EtcdReply::invalid, EtcdReply::leaseNotFound, EtcdReply::denied,
                                 EtcdReply::full, EtcdReply::unauthenticated};
        reply.code = std::find(std::begin(known), std::end(known), code) != std::end(known)
                         ? code
                         : EtcdReply::noConnection;
        if (reply.code == EtcdReply::noConnection)
            Leave(transfer->endpoint);
    }
    transfer->done(reply);
}

// Passes the complete messages on.
void Etcd::DeliverWatch()
{
    std::string& received = watch->received;
    const bool isWhole = received.find('\n', watch->searched) != std::string::npos;
    const std::size_t whole = isWhole ? received.rfind('\n') + 1 : 0;
    const std::string lines = received.substr(0, whole);
    received.erase(0, whole);
    watch->searched = received.size();
    const unsigned delivered = watches;
    // What a message leads to may end this watch, or begin another.
    for (std::size_t begin = 0, end = 0; begin < lines.size() && watches == delivered; begin = end + 1) {
        end = lines.find('\n', begin);
        const Json line = Json::parse(lines.begin() + static_cast<std::ptrdiff_t>(begin),
                                      lines.begin() + static_cast<std::ptrdiff_t>(end), nullptr, false);
        const Json& result = MemberOf(line, "result");
        const Message called = message;
        if (result.is_object() && !MemberOf(result, "canceled").is_boolean()) {
            called(&result, {});
            continue;
        }
        const Json& reason = MemberOf(result, "cancel_reason");
        const Json& error = MemberOf(MemberOf(line, "error"), "message");
        const std::string why = reason.is_string()  ? reason.get<std::string>()
                                : error.is_string() ? error.get<std::string>()
                                                    : "canceled";
        const std::size_t endpoint = watch->endpoint;
        StopWatch();
        if (!result.is_object())
            Leave(endpoint);
        called(nullptr, why);
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
