#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qel::json {

/// A text in blocks, written to a stream once it is complete.
class Output
{
public:
    explicit Output(std::uint64_t most) : limit(most) {}

    void put(char c) { *room(1) = c, ++at; }
    void put(std::string_view text)
    {
        if (text.size() > blockSize)
            return putLong(text);
        std::memcpy(room(text.size()), text.data(), text.size());
        at += text.size();
    }
    void put(int number);
    /// With a fraction or exponent, so that it is read as a real.
    void put(double number);
    /// Quoted. False, with part of it written, for a text that is not UTF-8 if it is `strict`.
    bool string(std::string_view text, bool strict);
    /// A line feed and blanks.
    void newLine(std::size_t blanks);

    /// Whether there is more text than allowed.
    bool isFull() const { return full || size() > limit; }
    /// From now on, no text is kept.
    void discard() { discarded = true; }
    void clear();

    void writeTo(std::ostream& out) const;
    std::string whole() const;

private:
    static constexpr std::size_t blockSize = 64 * 1024;
    struct Block
    {
        std::unique_ptr<char[]> text;
        std::size_t size;
    };

    /// Returns the place for at most blockSize bytes.
    char* room(std::size_t bytes)
    {
        if (static_cast<std::size_t>(end - at) < bytes)
            addBlock();
        return at;
    }
    void addBlock();
    void putLong(std::string_view text);
    std::uint64_t size() const;
    template<class Use>
    void forBlocks(Use use) const;

    std::uint64_t limit;
    std::uint64_t before = 0; // bytes in all blocks but the last
    bool full = false;
    bool discarded = false;
    std::vector<Block> blocks;
    char* at = nullptr;
    char* end = nullptr;
};

} // namespace qel::json
