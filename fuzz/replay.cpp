// Stands in for the fuzzing engine: runs the target once with the empty input and once with each file of the
// folders named on the command line.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "target.h"

namespace {

void replay(const std::string& input)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
}

} // namespace

int main(int argc, char** argv)
{
    replay("");
    for (int i = 1; i < argc; ++i) {
        int inputs = 0;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::string input(std::istreambuf_iterator<char>(file), {});
            if (!file) {
                std::fprintf(stderr, "%s: can not be read\n", entry.path().c_str());
                return 1;
            }
            std::fprintf(stderr, "%s\n", entry.path().c_str()); // the last one named is the one that failed
            replay(input);
            ++inputs;
        }
        if (inputs == 0) {
            std::fprintf(stderr, "%s: no inputs\n", argv[i]);
            return 1;
        }
    }
    return 0;
}
