#include <algorithm>

#include "etcd.h"

namespace {

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

EtcdReply ReplyOf(long status, const std::string& response)
{
    EtcdReply reply;
    // A streaming call has a line for each message; these have one.
    reply.body = Json::parse(response.substr(0, response.find('\n')), nullptr, false);
    const Json& error = MemberOf(reply.body, "error");
    if (status == 200 && error.is_null() && reply.body.is_object()) {
        reply.code = EtcdReply::done;
        return reply;
    }
    const Json& about = error.is_object() ? error : reply.body;
    const Json& text = error.is_string() ? error : MemberOf(about, "message");
    reply.why = text.is_string() ? text.get<std::string>() : "HTTP status " + std::to_string(status);
    const auto code = static_cast<int>(NumberIn(about, error.is_object() ? "grpc_code" : "code"));
    constexpr int known[] = {EtcdReply::invalid, EtcdReply::leaseNotFound, EtcdReply::denied, EtcdReply::full,
                             EtcdReply::unauthenticated};
    if (std::find(std::begin(known), std::end(known), code) != std::end(known))
        reply.code = code;
    return reply;
}

EtcdMessage MessageOf(std::string_view line)
{
    EtcdMessage message;
    Json parsed = Json::parse(line, nullptr, false);
    if (MemberOf(parsed, "result").is_object())
        message.result = std::move(parsed["result"]);
    message.isRefused = message.result.is_null();
    message.isEnd = message.isRefused || MemberOf(message.result, "canceled").is_boolean();
    if (!message.isEnd)
        return message;
    const Json& reason = MemberOf(message.result, "cancel_reason");
    const Json& error = MemberOf(MemberOf(parsed, "error"), "message");
    message.why = reason.is_string()  ? reason.get<std::string>()
                  : error.is_string() ? error.get<std::string>()
                                      : "canceled";
    return message;
}
