// Arbitrary bytes received as a record: it is within its limits or refused, and a received record can be sent
// again unchanged.
#include <string>

#include <qel/base/nmswire.h>

#include "target.h"

namespace {

nmsRecordReader readRecord(const std::string& bytes)
{
    nmsRecordReader reader;
    std::size_t at = 0;
    while (const std::size_t wanted = reader.GetWanted()) {
        require(wanted <= nmsRecordReader::maxPiece);
        if (bytes.size() - at < wanted || !reader.Take(bytes.data() + at))
            break;
        at += wanted;
    }
    return reader;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const nmsRecordReader first = readRecord(std::string(reinterpret_cast<const char*>(data), size));
    std::string bytes;
    // A text of 256 characters may be received but not sent: there is no room for its terminating zero.
    if (first.record.fields.size() > 256 || !first.IsWhole() || !nmsPutRecord(bytes, first.record))
        return 0;
    const nmsRecordReader second = readRecord(bytes);
    require(second.IsWhole() && second.record.owner == first.record.owner &&
            second.record.fields == first.record.fields);
    return 0;
}
