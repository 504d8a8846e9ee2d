#include "btkframes.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace {

// Makes room for the whole frame first, so that without memory there is none of it.
void putHeader(std::string& to, btkFrameKind kind, std::uint32_t number, std::size_t dataSize = 0)
{
    to.reserve(to.size() + btkFrameHeader + dataSize);
    to += static_cast<char>(kind);
    for (int shift = 24; shift >= 0; shift -= 8)
        to += static_cast<char>(number >> shift);
}

std::uint32_t numberOf(const char* bytes)
{
    std::uint32_t number = 0;
    for (int i = 0; i < 4; ++i)
        number = number << 8 | static_cast<unsigned char>(bytes[i]);
    return number;
}

} // namespace

void btkPutDataFrame(std::string& to, std::string_view bytes)
{
    putHeader(to, btkFrameKind::data, static_cast<std::uint32_t>(bytes.size()), bytes.size());
    to += bytes;
}

void btkPutUrgentFrame(std::string& to, const btkUrgentValue& value)
{
    putHeader(to, btkFrameKind::urgent, numberOf(value.data()));
}

void btkPutCreditFrame(std::string& to, std::size_t count)
{
    putHeader(to, btkFrameKind::credit, static_cast<std::uint32_t>(count));
}

void btkPutEndFrame(std::string& to)
{
    to += static_cast<char>(btkFrameKind::end);
}

bool btkFrameReader::Take(std::string_view bytes)
{
    while (isValid && !bytes.empty()) {
        const std::size_t count = std::min(bytes.size(), dataLeft);
        if (count > 0) {
            held.append(bytes.substr(0, count));
            dataLeft -= count;
            bytes.remove_prefix(count);
        } else {
            header[headerSize++] = bytes.front();
            bytes.remove_prefix(1);
            isValid = TakeHeader();
        }
    }
    return isValid;
}

// Acts on a header once it is complete. False when it is not valid.
bool btkFrameReader::TakeHeader()
{
    const auto kind = static_cast<btkFrameKind>(header[0]);
    if (kind == btkFrameKind::end) {
        headerSize = 0;
        return !std::exchange(isEnded, true);
    }
    if (kind > btkFrameKind::end)
        return false;
    if (headerSize < header.size())
        return true;
    headerSize = 0;
    const std::size_t number = numberOf(&header[1]);
    switch (kind) {
    case btkFrameKind::data:
        if (isEnded || number == 0 || number > btkFrameMostData || number > allowed)
            return false;
        allowed -= number;
        dataLeft = number;
        return true;
    case btkFrameKind::urgent:
        PutUrgent({header[1], header[2], header[3], header[4]});
        return true;
    default:
        if (number > btkFrameWindow - credit)
            return false;
        credit += number;
        return true;
    }
}

void btkFrameReader::PutUrgent(const btkUrgentValue& value)
{
    urgents[(firstUrgent + urgentCount) % urgents.size()] = value;
    if (urgentCount < urgents.size())
        ++urgentCount;
    else
        firstUrgent = (firstUrgent + 1) % urgents.size();
}

std::optional<btkUrgentValue> btkFrameReader::TakeUrgent()
{
    if (urgentCount == 0)
        return {};
    const btkUrgentValue value = urgents[firstUrgent];
    firstUrgent = (firstUrgent + 1) % urgents.size();
    --urgentCount;
    return value;
}

void btkFrameReader::Drop(std::size_t count)
{
    begin += count;
    dropped += count;
    if (begin == held.size()) {
        held.clear();
        begin = 0;
    } else if (begin > btkFrameWindow / 2) {
        held.erase(0, std::exchange(begin, 0));
    }
}

std::size_t btkFrameReader::TakeGrant(std::size_t least)
{
    if (dropped < least)
        return 0;
    allowed += dropped;
    return std::exchange(dropped, 0);
}

bool btkFrameLink::Flush()
{
    bool hasWritten = false;
    while (CountWaiting() > 0) {
        const std::ptrdiff_t count = isDeaf ? -1 : channel->Write(frames.data() + sent, CountWaiting());
        if (count == 0)
            return hasWritten;
        isDeaf = count < 0;
        hasWritten = hasWritten || !isDeaf;
        sent += isDeaf ? CountWaiting() : static_cast<std::size_t>(count);
    }
    frames.clear();
    sent = 0;
    return hasWritten;
}
