// Stands in for the fuzzing engine: runs the target once with the empty input, once with each file of the folders
// named on the command line, and with texts of random bytes, the same in every run.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
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
    std::mt19937 random(1);
    for (int i = 0; i < 150; ++i) {
        std::string input(random() % 4000, '\0');
        for (char& c : input)
            c = static_cast<char>(random());
        replay(input);
    }
    return 0;
}
