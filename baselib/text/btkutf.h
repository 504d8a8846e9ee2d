#pragma once

#include <cstddef>
#include <string_view>

#include <qel/base/baseexport.h>

// UTF-8 ("MB") and UTF-16 ("WC") texts, independent of the locale.
//
// A byte that does not begin a valid UTF-8 sequence (truncated, overlong, a surrogate, beyond U+10FFFF)
// counts as one character and converts to U+FFFD. A UTF-16 text with an unpaired surrogate is not converted
// at all.

/// The result for a text that cannot be converted.
inline constexpr std::size_t btkNoLength = static_cast<std::size_t>(-1);

/// Returns the bytes of the character at the start of `text`, which ends at its first zero: 0 there.
BASE_API std::size_t btkMBCharSize(const char* text);

/// Returns the bytes of the first `characters` characters of `text`, or of all if its first zero comes
/// earlier. Reads nothing behind them.
BASE_API std::size_t btkMBByteCount(const char* text, std::size_t characters);

/// Returns the characters with the indices from `from` up to, not including, `to`: fewer, or none, at the end of
/// `text` and when `to` does not exceed `from`.
BASE_API std::string_view btkMBPart(std::string_view text, std::size_t from, std::size_t to);

/// Returns the number of characters that end within the first `length` bytes of `text`, which has no zero
/// among them.
BASE_API std::size_t btkMBCharCount(const char* text, std::size_t length);

/// Returns the number of units that `length` bytes of `text` convert to.
BASE_API std::size_t btkMBToWCLength(const char* text, std::size_t length);

/// Converts to `wide`, which has room for btkMBToWCLength units. No terminator is written.
BASE_API void btkMBToWC(const char* text, std::size_t length, unsigned short* wide);

/// Returns the number of bytes that `length` units of `text` convert to, or btkNoLength.
BASE_API std::size_t btkWCToMBLength(const unsigned short* text, std::size_t length);

/// Converts a text for which btkWCToMBLength gives a length to `mb`, which has room for that many bytes. No
/// terminator is written.
BASE_API void btkWCToMB(const unsigned short* text, std::size_t length, char* mb);
