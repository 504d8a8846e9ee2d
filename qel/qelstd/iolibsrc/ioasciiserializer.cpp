#include <charconv>
#include <climits>
#include <cstdint>
#include <string>

#include <qel/base/xstreambuf.h>

#include "ioserializer.h"
#include "iotext_p.h"

// Writes and accepts the same text as a default standard stream in the classic locale, without constructing
// one per value. A value is read directly in the get area when it ends there, else byte by byte through the
// buffer's operations.

namespace {

constexpr int end = std::char_traits<char>::eof();

bool isDigit(int c)
{
    return c >= '0' && c <= '9';
}

// The unread bytes of a get area. Peek returns the end mark behind the last one, though more may follow in
// the source.
class AreaCursor
{
public:
    explicit AreaCursor(const std::streambuf& sb) : next(xbufaccess::Next(sb)), limit(xbufaccess::End(sb)) {}

    int Peek() const { return next == limit ? end : static_cast<unsigned char>(*next); }
    int Next()
    {
        ++next;
        return Peek();
    }
    bool IsAtEnd() const { return next == limit; }
    const char* Place() const { return next; }

private:
    const char* next;
    const char* limit;
};

// The input of a buffer; characters passed are consumed.
class BufferCursor
{
public:
    explicit BufferCursor(std::streambuf& buffer) : sb(buffer) {}

    int Peek() { return sb.sgetc(); }
    int Next() { return sb.snextc(); }

private:
    std::streambuf& sb;
};

template<class Cursor>
int skipSpace(Cursor& input)
{
    int c = input.Peek();
    while (ioIsSpace(c))
        c = input.Next();
    return c;
}

// The result of a conversion besides its value: `failed` as a stream sets its failure bit, `ended` when the
// input ended.
ioTryCode codeOf(bool failed, bool ended)
{
    return !failed ? ioSuccess : ended ? ioEndOfFile : ioFormatError;
}

template<class Cursor>
ioTryCode readInt(int& value, Cursor& input)
{
    int c = skipSpace(input);
    const bool negative = c == '-';
    if (c == '-' || c == '+')
        c = input.Next();
    bool failed = !isDigit(c);
    // All digits belong to the number, even those beyond its range.
    const std::int64_t limit = negative ? 1 + std::int64_t{INT_MAX} : INT_MAX;
    std::int64_t number = 0;
    for (; isDigit(c); c = input.Next()) {
        number = number * 10 + (c - '0');
        if (number > limit) {
            failed = true;
            number = limit;
        }
    }
    if (!failed)
        value = static_cast<int>(negative ? -number : number);
    return codeOf(failed, c == end);
}

// Skips the characters that a stream accepts for a real, and calls `keep(c)` for its characters: a sign,
// digits with one point, an exponent. Leading zeros are kept once. Does not check that it is a number.
template<class Cursor, class Keep>
int scanReal(Cursor& input, Keep keep)
{
    int c = skipSpace(input);
    auto take = [&] {
        keep(static_cast<char>(c));
        c = input.Next();
    };
    if (c == '-' || c == '+')
        take();
    bool mantissa = c == '0';
    if (mantissa) {
        take();
        while (c == '0')
            c = input.Next();
    }
    for (bool point = false, exponent = false;;) {
        if (isDigit(c)) {
            mantissa = true;
            take();
        } else if (c == '.' && !point && !exponent) {
            point = true;
            take();
        } else if ((c == 'e' || c == 'E') && !exponent && mantissa) {
            exponent = true;
            take();
            if (c == '-' || c == '+')
                take();
        } else {
            return c;
        }
    }
}

// Whether a number that no double can represent, from `text` on, is too small and not too large.
bool isTooSmall(const char* text, const char* const stop)
{
    // The position of the first significant digit, relative to the point, plus the exponent.
    long long place = 0;
    bool found = false, point = false;
    for (; text < stop && *text != 'e' && *text != 'E'; ++text) {
        if (*text == '.')
            point = true;
        else if (isDigit(*text)) {
            found |= *text != '0';
            place += point ? (found ? 0 : -1) : (found ? 1 : 0);
        }
    }
    if (text == stop)
        return place <= 0;
    ++text;
    const bool negative = text < stop && *text == '-';
    long long exponent = 0;
    for (; text < stop; ++text) {
        if (isDigit(*text) && exponent < LLONG_MAX / 100)
            exponent = exponent * 10 + (*text - '0');
    }
    return place + (negative ? -exponent : exponent) <= 0;
}

// Converts the text of a real. False when it is not a number, or too large.
bool convertReal(double& value, const char* text, const char* stop)
{
    if (text < stop && *text == '+')
        ++text;
    double number = 0;
    const auto [read, error] = std::from_chars(text, stop, number);
    if (error == std::errc::invalid_argument || read != stop)
        return false;
    if (error == std::errc::result_out_of_range) {
        if (!isTooSmall(text, stop))
            return false;
        number = *text == '-' ? -0.0 : 0.0;
    }
    value = number;
    return true;
}

ioTryCode readReal(double& value, std::streambuf& sb)
{
    AreaCursor area(sb);
    skipSpace(area);
    const char* const start = area.Place();
    scanReal(area, [](char) {});
    if (!area.IsAtEnd()) {
        const bool converted = convertReal(value, start, area.Place());
        xbufaccess::Advance(sb, area.Place());
        return codeOf(!converted, false);
    }
    std::string text;
    BufferCursor input(sb);
    const std::size_t limit = xGetTextLimit(sb);
    const int c = scanReal(input, [&](char kept) {
        if (text.size() < limit)
            text += kept;
    });
    const bool converted = text.size() < limit && convertReal(value, text.data(), text.data() + text.size());
    return codeOf(!converted, c == end);
}

// The longest text of a number.
constexpr std::size_t longestNumber = 32;

char* format(char* to, int v)
{
    return std::to_chars(to, to + longestNumber, v).ptr;
}

char* format(char* to, double d)
{
    return std::to_chars(to, to + longestNumber, d, std::chars_format::general, 6).ptr;
}

template<class Value>
ioTryCode writeNumber(Value value, std::streambuf& sb)
{
    if (char* const room = xbufaccess::Reserve(sb, longestNumber)) {
        xbufaccess::Commit(sb, static_cast<int>(format(room, value) - room));
        return ioSuccess;
    }
    char text[longestNumber];
    return ioPut(sb, text, static_cast<std::size_t>(format(text, value) - text));
}

template<class Value>
int sizeOfNumber(Value value)
{
    char text[longestNumber];
    return static_cast<int>(format(text, value) - text);
}

// Reads up to `delimiter` or the end. Consumes only the bytes that go into the string.
ioTryCode readUpTo(char delimiter, xstring& s, std::streambuf& sb)
{
    std::string text; // parts that reached to the end of the get area
    const std::size_t limit = xGetTextLimit(sb);
    while (sb.sgetc() != end) {
        const char* const next = xbufaccess::Next(sb);
        const std::size_t held = static_cast<std::size_t>(xbufaccess::End(sb) - next);
        if (held == 0) {
            // A buffer without a get area.
            const int c = sb.sgetc();
            if (c == static_cast<unsigned char>(delimiter))
                break;
            if (text.size() >= limit)
                return ioFormatError;
            text += static_cast<char>(c);
            sb.sbumpc();
            continue;
        }
        const char* const found = static_cast<const char*>(std::memchr(next, delimiter, held));
        const std::size_t size = found == nullptr ? held : static_cast<std::size_t>(found - next);
        if (size > limit - text.size())
            return ioFormatError;
        if (found != nullptr && text.empty()) {
            if (size == 0)
                return ioFormatError;
            s = ioMakeString(next, size);
            xbufaccess::Advance(sb, found);
            return ioSuccess;
        }
        text.append(next, size);
        xbufaccess::Advance(sb, next + size);
        if (found != nullptr)
            break;
    }
    if (text.empty())
        return sb.sgetc() == end ? ioEndOfFile : ioFormatError;
    s = ioMakeString(text.data(), text.size());
    return ioSuccess;
}

} // namespace

// ---- bytes and bools

ioTryCode ioAsciiSerializer::RdByte(char& c, std::streambuf* sb)
{
    BufferCursor input(*sb);
    if (skipSpace(input) == end)
        return ioEndOfFile;
    c = static_cast<char>(sb->sbumpc());
    return ioSuccess;
}

ioTryCode ioAsciiSerializer::WrByte(char c, std::streambuf* sb)
{
    return ioByteSerializer::WrByte(c, sb);
}

int ioAsciiSerializer::SzByte(char)
{
    return 1;
}

ioTryCode ioAsciiSerializer::RdBool(unsigned char& b, std::streambuf* sb)
{
    char c = 0;
    if (const ioTryCode code = RdByte(c, sb); code != ioSuccess)
        return code;
    if (c != 'T' && c != 'F')
        return ioFormatError;
    b = c == 'T';
    return ioSuccess;
}

ioTryCode ioAsciiSerializer::WrBool(unsigned char b, std::streambuf* sb)
{
    return ioByteSerializer::WrByte(b != 0 ? 'T' : 'F', sb);
}

int ioAsciiSerializer::SzBool(unsigned char)
{
    return 1;
}

// ---- numbers

ioTryCode ioAsciiSerializer::RdInt(int& v, std::streambuf* sb)
{
    AreaCursor area(*sb);
    int number = 0;
    const ioTryCode code = readInt(number, area);
    if (!area.IsAtEnd()) {
        if (code == ioSuccess)
            v = number;
        xbufaccess::Advance(*sb, area.Place());
        return code;
    }
    BufferCursor input(*sb);
    return readInt(v, input);
}

ioTryCode ioAsciiSerializer::WrInt(int v, std::streambuf* sb)
{
    return writeNumber(v, *sb);
}

int ioAsciiSerializer::SzInt(int v)
{
    return sizeOfNumber(v);
}

ioTryCode ioAsciiSerializer::RdReal(double& d, std::streambuf* sb)
{
    return readReal(d, *sb);
}

ioTryCode ioAsciiSerializer::WrReal(double d, std::streambuf* sb)
{
    return writeNumber(d, *sb);
}

int ioAsciiSerializer::SzReal(double d)
{
    return sizeOfNumber(d);
}

// ---- strings

ioTryCode ioAsciiSerializer::RdString(xstring& s, std::streambuf* sb, const char* delims)
{
    BufferCursor input(*sb);
    return skipSpace(input) == end ? ioEndOfFile : readUpTo(ioDelimiterOf(delims), s, *sb);
}

ioTryCode ioAsciiSerializer::WrString(const char* s, std::streambuf* sb)
{
    const std::size_t length = ioTextLength(s);
    return length < 1 ? ioSuccess : ioPut(*sb, s, length);
}

int ioAsciiSerializer::SzString(const char* s)
{
    const std::size_t length = ioTextLength(s);
    return length > INT_MAX ? xnullint : static_cast<int>(length);
}
