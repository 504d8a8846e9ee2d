#include <algorithm>
#include <cstring>
#include <istream>

#include "qeljsonsource_p.h"
#include "qeljsontext_p.h"

namespace qel::json {

namespace {

constexpr std::size_t pieceSize = 64 * 1024;
constexpr std::size_t shownSize = 40; // of a token in an error

/// The bytes that a string may consist of without further thought.
constexpr auto plainBytes = [] {
    struct Table
    {
        bool has[256] = {};
    } table;
    for (int c = 0x20; c < 0x80; ++c)
        table.has[c] = c != '"' && c != '\\';
    return table;
}();

bool isPlain(char c)
{
    return plainBytes.has[static_cast<unsigned char>(c)];
}

bool isDigit(int c)
{
    return c >= '0' && c <= '9';
}

bool isWordByte(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '+' || c == '-' ||
           c == '.' || c == '_';
}

/// Counts the lines and, in the last one, the characters.
void count(std::string_view text, std::uint64_t* lines, std::uint64_t* columns)
{
    const auto feeds = static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
    if (feeds != 0) {
        *lines += feeds;
        *columns = 0;
        text.remove_prefix(text.rfind('\n') + 1);
    }
    *columns += static_cast<std::uint64_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

int positionOf(std::uint64_t counted)
{
    constexpr std::uint64_t most = 0x7FFFFFFE;
    return static_cast<int>(std::min(counted, most) + 1);
}

} // namespace

Source::Source(std::string_view text, const options& o)
    : how(o), at(text.data()), end(at + text.size()), token(at), start(at), taken(text.size())
{
    checkSize();
    skipMark();
}

Source::Source(std::istream& stream, const options& o)
    : how(o), at(nullptr), end(nullptr), token(nullptr), in(&stream), start(nullptr)
{
    skipMark();
}

/// The byte order mark with which some programs begin a text.
void Source::skipMark()
{
    constexpr std::string_view mark = "\xEF\xBB\xBF";
    while (static_cast<std::size_t>(end - at) < mark.size() && more()) {
    }
    if (std::string_view(at, static_cast<std::size_t>(end - at)).starts_with(mark)) {
        at += mark.size();
        start = token = at;
    }
}

bool Source::more()
{
    if (in == nullptr || !in->good())
        return false;
    // The bytes before the token are dropped when there is no room behind it.
    if (static_cast<std::size_t>(buffer.get() + capacity - end) < pieceSize / 2) {
        const auto held = static_cast<std::size_t>(end - token);
        const auto passed = static_cast<std::size_t>(at - token);
        count({start, static_cast<std::size_t>(token - start)}, &lines, &columns);
        if (held > capacity / 2 || capacity == 0) {
            capacity = capacity == 0 ? pieceSize : capacity * 2;
            std::unique_ptr<char[]> larger(new char[capacity]);
            std::copy(token, end, larger.get());
            buffer = std::move(larger);
        } else {
            std::memmove(buffer.get(), token, held);
        }
        start = token = buffer.get();
        at = token + passed;
        end = token + held;
    }
    const auto room = static_cast<std::size_t>(buffer.get() + capacity - end);
    const std::streamsize n =
        in->rdbuf()->sgetn(buffer.get() + (end - buffer.get()), static_cast<std::streamsize>(room));
    if (n <= 0) {
        in->setstate(std::ios_base::eofbit);
        return false;
    }
    taken += static_cast<std::uint64_t>(n);
    end += n;
    checkSize();
    return true;
}

void Source::checkSize()
{
    if (taken > how.bytes)
        fail("a text of at most " + std::to_string(how.bytes) + " bytes", "more");
}

// ---- tokens

std::string_view Source::string()
{
    ++at;
    for (;;) {
        while (at != end && isPlain(*at))
            ++at;
        const int c = peek();
        if (c == '"') {
            ++at;
            return {token + 1, static_cast<std::size_t>(at - token) - 2};
        }
        if (c == '\\')
            return escapedString();
        if (c >= 0x80)
            checkUtf8();
        else if (c == none)
            failHere("the end of the string");
        else if (c < ' ')
            failHere("an escape sequence");
    }
}

/// The rest of a string from its first backslash on.
std::string_view Source::escapedString()
{
    decoded.assign(token + 1, at);
    for (;;) {
        token = at; // more() may drop the decoded bytes
        while (at != end && isPlain(*at))
            ++at;
        decoded.append(token, at);
        token = at;
        const int c = peek();
        if (c == '"') {
            ++at;
            return decoded;
        }
        if (c == none)
            failHere("the end of the string");
        if (c < ' ')
            failHere("an escape sequence");
        if (c >= 0x80) {
            checkUtf8();
            decoded.append(token, at);
        } else if (c == '\\') {
            ++at;
            constexpr std::string_view letters = "\"\\/bfnrt";
            constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
            const int letter = peek();
            const std::size_t which =
                letter == none ? std::string_view::npos : letters.find(static_cast<char>(letter));
            if (which != std::string_view::npos) {
                ++at;
                decoded += meanings[which];
            } else if (letter == 'u') {
                ++at;
                unsigned code = escapedUnit();
                if (isLowSurrogate(code))
                    fail("a high surrogate first");
                if (isHighSurrogate(code)) {
                    if (peek() != '\\')
                        fail("a low surrogate after a high one");
                    ++at;
                    if (peek() != 'u')
                        fail("a low surrogate after a high one");
                    ++at;
                    const unsigned low = escapedUnit();
                    if (!isLowSurrogate(low))
                        fail("a low surrogate after a high one");
                    code = joinSurrogates(code, low);
                }
                if (code == 0)
                    fail("a text without zero characters");
                appendUtf8(decoded, code);
            } else {
                fail("one of \\\" \\\\ \\/ \\b \\f \\n \\r \\t \\u");
            }
        }
    }
}

unsigned Source::escapedUnit()
{
    unsigned unit = 0;
    for (int i = 0; i < 4; ++i) {
        const int c = peek();
        const int value = isDigit(c)             ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (value < 0)
            fail("four hexadecimal digits after \\u");
        ++at;
        unit = unit << 4 | static_cast<unsigned>(value);
    }
    return unit;
}

/// Takes a character of several bytes.
void Source::checkUtf8()
{
    constexpr std::ptrdiff_t most = 4;
    while (end - at < most && more()) {
    }
    const std::size_t size = utf8Size({at, static_cast<std::size_t>(end - at)});
    if (size == 0)
        failHere("a text in UTF-8");
    at += size;
}

Number Source::number()
{
    Number result;
    if (*at == '-')
        ++at;
    if (peek() == '0')
        ++at;
    else
        digits(&result);
    if (peek() == '.') {
        ++at;
        digits(nullptr);
        result.isWhole = false;
    }
    if (const int c = peek(); c == 'e' || c == 'E') {
        ++at;
        if (const int sign = peek(); sign == '+' || sign == '-')
            ++at;
        digits(nullptr);
        result.isWhole = false;
    }
    result.text = {token, static_cast<std::size_t>(at - token)};
    return result;
}

/// At least one digit.
void Source::digits(Number* into)
{
    if (!isDigit(peek()))
        failHere("a digit");
    do {
        for (; at != end && isDigit(*at); ++at) {
            if (into == nullptr)
                continue;
            constexpr std::uint64_t most = 100'000'000'000'000'000;
            into->isLong = into->isLong || into->digits >= most;
            into->digits = into->digits * 10 + static_cast<std::uint64_t>(*at - '0');
        }
    } while (at == end && more());
}

void Source::word(std::string_view wanted)
{
    for (const char c : wanted) {
        if (peek() != static_cast<unsigned char>(c))
            fail("a value");
        ++at;
    }
}

// ---- errors

void Source::fail(const std::string& expected)
{
    const std::string found = describe();
    fail(expected, found);
}

void Source::fail(const std::string& expected, const std::string& found)
{
    std::uint64_t line = lines;
    std::uint64_t column = columns;
    count({start, static_cast<std::size_t>(token - start)}, &line, &column);
    qelXJson::Throw(path != nullptr ? path->text().c_str() : "$", positionOf(line), positionOf(column),
                    expected.c_str(), found.c_str());
}

void Source::failHere(const std::string& expected)
{
    token = at;
    fail(expected);
}

std::string Source::describe()
{
    at = end;
    while (static_cast<std::size_t>(end - token) <= shownSize && more())
        at = end;
    const std::string_view rest(token, static_cast<std::size_t>(end - token));
    if (rest.empty())
        return "the end of the text";
    const char first = rest.front();
    if (first == '{')
        return "an object";
    if (first == '[')
        return "an array";
    if (first == '"') {
        std::size_t size = 1;
        while (size < rest.size() && rest[size] != '"')
            size += rest[size] == '\\' ? 2 : 1;
        const std::string_view whole = rest.substr(0, size + 1);
        const std::string_view shown = cutText(whole, shownSize);
        return std::string(shown) + (shown.size() < whole.size() ? "...\"" : "");
    }
    if (isWordByte(first) || first == '\\') {
        std::size_t size = 1;
        while (size < rest.size() && isWordByte(rest[size]))
            ++size;
        return std::string(rest.substr(0, std::min(size, shownSize))) + (size > shownSize ? "..." : "");
    }
    const std::size_t size = utf8Size(rest);
    if (size == 0 || static_cast<unsigned char>(first) < ' ') {
        constexpr std::string_view digits = "0123456789ABCDEF";
        const auto byte = static_cast<unsigned char>(first);
        return std::string("the byte 0x") + digits[byte >> 4] + digits[byte & 0xF];
    }
    return "'" + std::string(rest.substr(0, size)) + "'";
}

} // namespace qel::json
