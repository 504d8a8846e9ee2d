// Arbitrary bytes from the other end of a tunnel, in pieces whose sizes the last byte decides, and partly dropped: no
// more is held than was granted, and no credit beyond the window counts.
#include <algorithm>
#include <string_view>

#include <qel/base/btkframes.h>

#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t piece = 1 + data[size - 1];
    std::string_view rest(reinterpret_cast<const char*>(data), size - 1);
    btkFrameReader reader;
    reader.UseCredit(piece * 100);
    bool isValid = true;
    while (!rest.empty()) {
        const bool wasValid = isValid;
        isValid = reader.Take(rest.substr(0, piece));
        rest.remove_prefix(std::min(piece, rest.size()));
        require((!isValid || wasValid) && reader.GetData().size() <= btkFrameWindow &&
                reader.GetCredit() <= btkFrameWindow);
        reader.Drop(reader.GetData().size() / 2);
        require(reader.TakeGrant(piece) <= btkFrameWindow);
        if (piece % 2 == 0)
            reader.TakeUrgent();
    }
    return 0;
}
