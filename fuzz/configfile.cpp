// Reading and writing back configuration files of any content, against the simplest interpretation of their
// lines.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <unistd.h>

#include <qel/hmxconfigfile.h>

#include "target.h"

namespace {

using Entries = std::map<std::string, std::string>; // an empty value is null

Entries entriesOf(std::string text)
{
    Entries entries;
    for (text += '\n'; !text.empty(); text.erase(0, text.find('\n') + 1)) {
        const std::string line = text.substr(0, text.find('\n'));
        const std::size_t colon = line.find(':');
        std::string key = line.substr(0, colon);
        std::erase_if(key, [](char c) { return c == ' ' || c == '\t'; });
        if (colon != std::string::npos && !key.empty())
            entries[key] = line.substr(colon + 1);
    }
    return entries;
}

/// A file of this process, in memory if the system provides such a folder.
std::string fileName()
{
    const char* const folder = std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
    return std::string(folder) + "/qelfuzz" + std::to_string(getpid());
}

const struct OwnFile
{
    std::string name = fileName();
    ~OwnFile() { std::remove(name.c_str()); }
} file;

/// Counts the lines that a rewrite drops.
class Dropped : public hmxConfigOddityHandler
{
public:
    void Invoke(hmxConfigOddity oddity, long long line, const char* text, long long later) override
    {
        require(line >= last && text != nullptr && (oddity == hmxOverridden ? later > line : later == 0));
        last = line;
        if (oddity == hmxNoColon || oddity == hmxNoKey || oddity == hmxOverridden)
            ++count;
    }

    std::size_t count = 0;
    long long last = 1;
};

/// Requires that the file holds `expected`.
void requireEntries(hmxConfigFile& config, const Entries& expected)
{
    for (const auto& [key, value] : expected) {
        if (key.find('\0') != std::string::npos)
            continue; // no query can name it
        const xstring found = config.GetValue(key.c_str());
        require(value.empty() ? found == nullptr : found == value.c_str());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string content(reinterpret_cast<const char*>(data), size);
    std::ofstream(file.name, std::ios::binary) << content;
    Entries expected = entriesOf(content);
    Dropped dropped;
    require(hmxConfigFile::Check(file.name.c_str(), dropped));
    const auto lineEnds = static_cast<std::size_t>(std::count(content.begin(), content.end(), '\n'));
    const std::size_t lines = lineEnds + (content.empty() || content.back() == '\n' ? 0 : 1);
    require(lines == dropped.count + expected.size());
    hmxConfigFile config;
    require(config.Open(file.name.c_str(), hmxConfigFile::ReadWrite));
    requireEntries(config, expected);
    require(static_cast<std::size_t>(config.GetKeys()->getarraysize()) == expected.size());
    require(config.SetValue("added", "value") && !config.SetValue("", "x"));
    config.Close();

    expected["added"] = "value";
    for (auto& [key, value] : expected)
        if (value.empty())
            value = "nil";
    require(config.Open(file.name.c_str(), hmxConfigFile::ReadOnly));
    requireEntries(config, expected);
    return 0;
}
