#include "nmswire.h"

#include <algorithm>
#include <cstring>

#include <qel/base/btkbyteorder.h>

// ---- records

const std::string* nmsFields::Find(std::string_view name) const
{
    const auto found =
        std::find_if(fields.begin(), fields.end(), [&](const auto& field) { return field.first == name; });
    return found == fields.end() ? nullptr : &found->second;
}

void nmsFields::Set(std::string name, std::string value)
{
    for (auto& [known, held] : fields)
        if (known == name) {
            held = std::move(value);
            return;
        }
    fields.emplace_back(std::move(name), std::move(value));
}

// ---- statuses

std::string nmsStatusText(int code, bool fromServer, const char* host, int port)
{
    std::string text = fromServer ? "ERROR  : NameServer on client request: " : "ERROR  : NMS client: ";
    switch (code) {
    case nmscNoConnection:
        text.append("could not connect to NameServer. (").append(host);
        if (port != 0)
            text.append(", port ").append(std::to_string(port));
        return text + ")";
    case nmscNotRecognized:
        return text + "request is not recognized.";
    case nmscExists:
        return text + "this record(s) already exists.";
    case nmscNotFound:
        return text + "could not find matching record.";
    case nmscNotAllowed:
        return text + "not authorized to perform this request.";
    default:
        return text + "internal error occured.";
    }
}

// ---- writing

void nmsPutInt(std::string& to, int value)
{
    char bytes[nmsIntSize];
    btkPutNetwork(bytes, value);
    to.append(bytes, sizeof bytes);
}

bool nmsPutText(std::string& to, const char* text, unsigned size, unsigned length, unsigned limit)
{
    if (size > limit)
        return false;
    nmsPutInt(to, static_cast<int>(size));
    nmsPutInt(to, static_cast<int>(length));
    to.append(text, length);
    return true;
}

bool nmsPutRecord(std::string& to, const nmsFields& record, const nmsLimits& limits)
{
    const std::size_t count = record.fields.size();
    if (count > limits.fields)
        return false;
    nmsPutInt(to, static_cast<int>(record.owner));
    nmsPutInt(to, static_cast<int>(count));
    const auto put = [&](const std::string& text, unsigned limit) {
        const unsigned length = static_cast<unsigned>(std::min<std::size_t>(text.size(), limit));
        return nmsPutText(to, text.data(), length + 1, length, limit);
    };
    for (const auto& [name, value] : record.fields)
        if (!put(name, limits.nameSize) || !put(value, limits.valueSize))
            return false;
    return true;
}

void nmsPutFrame(std::string& to, nmsRequestCode code)
{
    nmsPutInt(to, nmsFrameNumber);
    to += static_cast<char>(code);
}

// ---- reading

int nmsGetInt(const char* from)
{
    return btkGetNetwork<int>(from);
}

nmsRecordReader::nmsRecordReader(const nmsLimits& most) : limits(most)
{
    limits.nameSize = std::min<unsigned>(limits.nameSize, maxPiece);
    limits.valueSize = std::min<unsigned>(limits.valueSize, maxPiece);
}

bool nmsRecordReader::Take(const char* piece)
{
    switch (part) {
    case head: {
        record.owner = static_cast<std::uint32_t>(nmsGetInt(piece));
        // Compared as unsigned, so that a negative count is too large.
        fieldsLeft = static_cast<unsigned>(nmsGetInt(piece + nmsIntSize));
        if (fieldsLeft > limits.fields)
            return Refuse();
        return fieldsLeft == 0 ? Begin(whole, 0) : Begin(nameSizes, 2 * nmsIntSize);
    }
    case nameSizes:
        return TakeSizes(piece, name, limits.nameSize);
    case valueSizes:
        return TakeSizes(piece, value, limits.valueSize);
    case name:
    case value:
        return TakeText(piece);
    default:
        return false;
    }
}

bool nmsRecordReader::Refuse()
{
    Begin(refused, 0);
    return false;
}

bool nmsRecordReader::Begin(Part next, std::size_t size)
{
    part = next;
    wanted = size;
    return true;
}

bool nmsRecordReader::TakeSizes(const char* piece, Part next, unsigned limit)
{
    const auto size = static_cast<unsigned>(nmsGetInt(piece));
    const auto length = static_cast<unsigned>(nmsGetInt(piece + nmsIntSize));
    if (size > limit || length > limit)
        return Refuse();
    Begin(next, length);
    // No bytes follow.
    return length > 0 || TakeText("");
}

bool nmsRecordReader::TakeText(const char* piece)
{
    // A text ends at its first zero byte.
    std::string text(piece, strnlen(piece, wanted));
    if (part == name) {
        fieldName = std::move(text);
        return Begin(valueSizes, 2 * nmsIntSize);
    }
    record.Set(std::move(fieldName), std::move(text));
    return --fieldsLeft == 0 ? Begin(whole, 0) : Begin(nameSizes, 2 * nmsIntSize);
}
