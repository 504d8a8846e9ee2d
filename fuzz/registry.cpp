// Registry names of any content stay inside the store, each maps to a distinct file, and a value's file of
// any content is read or refused. The input is split at its first line feed into a name and the content.
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

#include <qel/platform/registry.h>
#include <qel/platform/registryname.h>

#include "target.h"

namespace {

constexpr std::size_t longestFileName = 255;

/// A store of this process.
const struct OwnStore
{
    std::string folder =
        (std::filesystem::temp_directory_path() / ("qelfuzz" + std::to_string(getpid()))).string();
    OwnStore() { setenv("QELSTD_REGISTRY", folder.c_str(), 1); }
    ~OwnStore() { std::filesystem::remove_all(folder); }
} store;

/// Requires that every step of a path is an ordinary name.
void requireInside(std::string path)
{
    require(!path.empty() && path.front() != '/');
    for (path += '/'; !path.empty(); path.erase(0, path.find('/') + 1)) {
        const std::string step = path.substr(0, path.find('/'));
        require(!step.empty() && step != "." && step != ".." && step.size() <= longestFileName);
        require(step.find('\0') == std::string::npos);
    }
}

/// Requires that a directory of the store is found under the name by which it is listed, whatever its `.name`
/// file contains.
void enumerateAny(const std::string& path, const std::string& writtenName)
{
    const std::string folder = store.folder + "/System/" + path;
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/.name", std::ios::binary) << writtenName;
    char name[8192];
    DWORD size = sizeof name;
    require(RegEnumKeyExA(HKEY_CLASSES_ROOT, 0, name, &size, nullptr, nullptr, nullptr, nullptr) == 0);
    require(platKeyPath(name) == path);
    std::filesystem::remove_all(store.folder + "/System");
}

/// The name, in lower case, that a path represents.
std::string nameOf(const std::string& path)
{
    std::string name;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '+' && path[i + 1] == '/')
            ++i;
        else if (path[i] != '%')
            name += path[i];
        else if (path[i + 1] == '+') // the escape continues behind a cut
            name += static_cast<char>(std::stoi(path.substr(i + 3, 2), nullptr, 16)), i += 4;
        else if (path[i + 2] == '+')
            name += static_cast<char>(std::stoi(path.substr(i + 1, 1) + path[i + 4], nullptr, 16)), i += 4;
        else
            name += static_cast<char>(std::stoi(path.substr(i + 1, 2), nullptr, 16)), i += 2;
    }
    return name;
}

void readAny(const std::string& content)
{
    const std::string folder = store.folder + "/User/k";
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/v.value", std::ios::binary) << content;
    HKEY key = nullptr;
    require(RegOpenKeyExA(HKEY_CURRENT_USER, "K", 0, KEY_ALL_ACCESS, &key) == 0);
    DWORD type = 0, length = 0;
    if (RegQueryValueExA(key, "V", nullptr, &type, nullptr, &length) == 0) {
        require(length <= content.size());
        std::string value(length, '\0');
        require(RegQueryValueExA(key, "V", nullptr, &type, reinterpret_cast<unsigned char*>(value.data()),
                                 &length) == 0);
        require(content.ends_with(value));
    }
    RegCloseKey(key);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t cut = std::min(input.find('\n'), input.size());
    std::string name = input.substr(0, cut);
    requireInside(platValuePath(name));
    std::string path = platValuePath(name);
    path.resize(path.size() - std::string(".value").size());
    if (const auto keys = platKeyPath(name))
        requireInside(*keys);
    for (char& c : name)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    require(nameOf(path) == name);
    require(platNameOfFile(path) == name);
    require(platNameAsWritten(platWrittenName(name)) == name);
    if (!name.empty() && name.size() < 1000 &&
        name.find_first_of(std::string("\\\0", 2)) == std::string::npos)
        enumerateAny(path, cut < input.size() ? input.substr(cut + 1) : "");
    readAny(cut < input.size() ? input.substr(cut + 1) : "");
    return 0;
}
