#include <qel/platform/registryname.h>

namespace {

constexpr std::size_t partLength = 200; // leaves room for the endings in a name of 255 bytes
constexpr char partEnd = '+';

void appendHex(std::string& to, char byte)
{
    constexpr char digits[] = "0123456789ABCDEF";
    const auto value = static_cast<unsigned char>(byte);
    to.append({'%', digits[value >> 4], digits[value & 0xF]});
}

std::string escaped(std::string_view name)
{
    std::string result;
    for (char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
        if (c >= 'A' && c <= 'Z')
            result.push_back(static_cast<char>(c - 'A' + 'a'));
        else if (plain)
            result.push_back(c);
        else
            appendHex(result, c);
    }
    for (std::size_t at = partLength; at < result.size(); at += partLength + 2)
        result.insert(at, {partEnd, '/'});
    return result;
}

} // namespace

std::optional<std::string> platKeyPath(std::string_view path)
{
    std::string result;
    if (path.size() > 1 && path.back() == '\\')
        path.remove_suffix(1);
    for (;;) {
        const std::size_t end = path.find('\\');
        if (end == 0 || path.empty())
            return std::nullopt;
        result += escaped(path.substr(0, end));
        if (end == std::string_view::npos)
            return result;
        result.push_back('/');
        path.remove_prefix(end + 1);
    }
}

std::string platValuePath(std::string_view name)
{
    return escaped(name) + ".value";
}

bool platIsNamePart(std::string_view fileName)
{
    return fileName.ends_with(partEnd);
}

std::string platWrittenName(std::string_view name)
{
    std::string result;
    for (char c : name) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F' || c == '%')
            appendHex(result, c);
        else
            result.push_back(c);
    }
    return result;
}
