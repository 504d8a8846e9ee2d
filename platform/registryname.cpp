#include "registryname.h"

namespace {

constexpr std::size_t partLength = 200; // leaves room for the endings in a name of 255 bytes
constexpr char partEnd = '+';

void appendHex(std::string& to, char byte)
{
    constexpr char digits[] = "0123456789ABCDEF";
    const auto value = static_cast<unsigned char>(byte);
    to.append({'%', digits[value >> 4], digits[value & 0xF]});
}

/// The value of a hexadecimal digit as it is written here, or -1.
int digitOf(char c)
{
    return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

/// `text` with its escapes decoded.
std::string unescaped(std::string_view text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? digitOf(text[i + 1]) : -1;
        const int low = high >= 0 ? digitOf(text[i + 2]) : -1;
        result.push_back(low >= 0 ? static_cast<char>(high * 16 + low) : text[i]);
        i += low >= 0 ? 2 : 0;
    }
    return result;
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

std::string platNameAsWritten(std::string_view text)
{
    return unescaped(text);
}

std::optional<std::string> platNameOfFile(std::string_view path)
{
    std::string whole(path);
    for (std::size_t at = partLength; at + 2 < whole.size(); at += partLength)
        whole.erase(at, 2);
    std::string name = unescaped(whole);
    if (escaped(name) != path)
        return std::nullopt;
    return name;
}
