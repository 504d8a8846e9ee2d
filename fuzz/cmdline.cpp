// Arbitrary command lines. The words of a line can be joined to an equivalent line, and a refused line has no
// words.
#include <string>
#include <vector>

#include <qel/base/btkcmdline.h>

#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string line(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> words, again;
    if (!btkSplitCommandLine(line.c_str(), words)) {
        require(words.empty());
        return 0;
    }
    std::string joined;
    std::size_t length = 0;
    for (const std::string& word : words) {
        joined += btkQuoteWord(word) + " ";
        length += word.size();
    }
    require(length <= line.size());
    require(btkSplitCommandLine(joined.c_str(), again) && again == words);
    return 0;
}
