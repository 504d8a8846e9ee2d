#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <qel/base/btkchannel.h>

/// Frames carry data, and urgent values that overtake it, over two plain streams of bytes, one in each direction. A
/// frame begins with its kind; integers have four bytes, the most significant first:
///
///     0  count, bytes   data, of 1 to 65536 bytes; no more in all than the window and the credit received
///     1  value          an urgent value of four bytes
///     2  count          credit: so many more bytes of data may be sent
///     3                 the end of the data
enum class btkFrameKind : unsigned char { data = 0, urgent = 1, credit = 2, end = 3 };

/// The data that each end may send before it has received any credit, and the most that is held for a reader.
inline constexpr std::size_t btkFrameWindow = 256 << 10;
inline constexpr std::size_t btkFrameMostData = 65536;
/// The bytes of a frame before its data.
inline constexpr std::size_t btkFrameHeader = 5;

using btkUrgentValue = std::array<char, 4>;

/// Append a frame to `to`. `bytes`: 1 to btkFrameMostData of them.
BASE_API void btkPutDataFrame(std::string& to, std::string_view bytes);
BASE_API void btkPutUrgentFrame(std::string& to, const btkUrgentValue& value);
BASE_API void btkPutCreditFrame(std::string& to, std::size_t count);
BASE_API void btkPutEndFrame(std::string& to);

/// Parses the frames of the other end, in pieces of any size, and keeps what they carry. Holds at most the window of
/// data and 16 urgent values, of which the newest are kept.
class BASE_API btkFrameReader
{
public:
    /// Parses more bytes. False, and no more is parsed, when they are not valid: an unknown kind, more data or credit
    /// than allowed, anything but urgent values and credit behind the end.
    bool Take(std::string_view bytes);

    /// The data that has arrived and has not been dropped; valid until the next call of Take or Drop.
    std::string_view GetData() const { return std::string_view(held).substr(begin); }
    /// Drops the first `count` bytes of it, which may then be granted anew.
    void Drop(std::size_t count);

    /// The number of bytes of data that come next in the stream, which the caller may read from there itself while
    /// GetData() is empty; TakeOutside counts them as parsed and dropped.
    std::size_t GetNextData() const { return dataLeft; }
    void TakeOutside(std::size_t count)
    {
        dataLeft -= count;
        dropped += count;
    }
    /// With no such data next, the number of bytes that can be read without reading data.
    std::size_t GetNextHeader() const { return header.size() - headerSize; }

    /// The oldest urgent value, which is taken.
    std::optional<btkUrgentValue> TakeUrgent();
    bool HasUrgent() const { return urgentCount > 0; }
    /// Whether the data has ended.
    bool IsEnded() const { return isEnded; }

    /// Returns the dropped bytes that have not been granted anew, and counts them as granted if there are at least
    /// `least`; else 0.
    std::size_t TakeGrant(std::size_t least);
    /// The number of bytes of data that this end may send.
    std::size_t GetCredit() const { return credit; }
    /// Counts `count` bytes as sent, at most GetCredit().
    void UseCredit(std::size_t count) { credit -= count; }

private:
    bool TakeHeader();
    void PutUrgent(const btkUrgentValue& value);

    std::array<char, btkFrameHeader> header = {};
    std::size_t headerSize = 0;
    std::size_t dataLeft = 0; // of the current frame
    std::string held;
    std::size_t begin = 0;
    std::size_t allowed = btkFrameWindow; // data that the other end may send
    std::size_t dropped = 0;              // and not granted anew
    std::size_t credit = btkFrameWindow;
    std::array<btkUrgentValue, 16> urgents = {};
    std::size_t firstUrgent = 0;
    std::size_t urgentCount = 0;
    bool isEnded = false;
    bool isValid = true;
};

/// One end of a connection by frames over a channel.
struct BASE_API btkFrameLink
{
    std::unique_ptr<btkChannel> channel;
    btkFrameReader reader;
    std::string frames; // to be sent; the first `sent` bytes have been
    std::size_t sent = 0;
    bool isDeaf = false; // the other end; what it has sent is still to be read

    /// The number of bytes of frames that the channel has not taken.
    std::size_t CountWaiting() const { return frames.size() - sent; }
    /// Writes the waiting bytes as far as there is room; discards them if the other end is deaf. Returns whether it
    /// wrote any.
    bool Flush();
};
