#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "qeljson.h"

namespace qel::json {

/// A number as it is written.
struct Number
{
    std::string_view text;
    bool isWhole = true; ///< neither fraction nor exponent
    bool isLong = false; ///< `digits` does not hold it
    std::uint64_t digits = 0;

    bool isNegative() const { return text.front() == '-'; }
};

/// The tokens of a text, which is in memory or taken from a stream in pieces. A view of a token is valid
/// until the next call. Errors are about the latest token.
class Source
{
public:
    Source(std::string_view text, const options& how);
    Source(std::istream& stream, const options& how);

    /// Skips blanks, begins a token, and returns its first byte, or `none` at the end.
    int next()
    {
        for (;; ++at) {
            if (at == end && !more()) {
                token = at;
                return none;
            }
            if (*at != ' ' && *at != '\n' && *at != '\r' && *at != '\t')
                break;
            token = at; // may be dropped
        }
        token = at;
        return static_cast<unsigned char>(*at);
    }
    /// Takes the byte that next() returned.
    void take() { ++at; }
    bool takeIf(char wanted)
    {
        if (next() != static_cast<unsigned char>(wanted))
            return false;
        take();
        return true;
    }

    /// Each takes the token at whose first byte next() stopped.
    /// @throws qelXJson
    std::string_view string();
    Number number();
    void word(std::string_view wanted);

    /// The path of an error found here; set by the reader.
    struct Path
    {
        virtual std::string text() const = 0;

    protected:
        ~Path() = default;
    };
    void setPath(const Path& p) { path = &p; }
    /// About the latest token.
    [[noreturn]] void fail(const std::string& expected);
    [[noreturn]] void fail(const std::string& expected, const std::string& found);

    static constexpr int none = -1;

private:
    /// Takes more of the stream; false at the end. Moves the latest token.
    bool more();
    /// The byte after the latest taken one, or `none`.
    int peek() { return at == end && !more() ? none : static_cast<unsigned char>(*at); }
    void digits(Number* into);
    std::string_view escapedString();
    unsigned escapedUnit();
    void checkUtf8();
    [[noreturn]] void failHere(const std::string& expected);
    std::string describe();
    void checkSize();
    void skipMark();

    const options& how;
    const Path* path = nullptr;
    const char* at;
    const char* end;
    const char* token; ///< the start of the latest
    std::string decoded;

    std::istream* in = nullptr;
    std::unique_ptr<char[]> buffer;
    std::size_t capacity = 0;
    const char* start; ///< of what is held
    std::uint64_t taken = 0;
    // Of what was dropped:
    std::uint64_t lines = 0;
    std::uint64_t columns = 0;
};

} // namespace qel::json
