#pragma once

#include <cstddef>

#include <qel/base/baseexport.h>

// UTF-8 ("MB") and UTF-16 ("WC") texts, whatever the locale.
//
// A byte that does not begin a valid UTF-8 sequence (cut short, overlong, a surrogate, beyond U+10FFFF) is
// one character for itself, and becomes U+FFFD when it is converted. A UTF-16 text with an unpaired surrogate
// is not converted at all.

/// The result for a text that cannot be converted.
inline constexpr std::size_t btkNoLength = static_cast<std::size_t>(-1);

/// Bytes of the character at the start of `text`, which ends at its first zero: 0 there.
BASE_API std::size_t btkMBCharSize(const char* text);

/// Bytes of the first `characters` characters of `text`, or of all when its first zero comes earlier. Looks
/// at nothing behind them.
BASE_API std::size_t btkMBByteCount(const char* text, std::size_t characters);

/// Characters that end within the first `length` bytes of `text`, which has so many before its first zero.
BASE_API std::size_t btkMBCharCount(const char* text, std::size_t length);

/// Units that `length` bytes of `text` become.
BASE_API std::size_t btkMBToWCLength(const char* text, std::size_t length);

/// Converts to `wide`, which has room for btkMBToWCLength units. No terminator is written.
BASE_API void btkMBToWC(const char* text, std::size_t length, unsigned short* wide);

/// Bytes that `length` units of `text` become, or btkNoLength.
BASE_API std::size_t btkWCToMBLength(const unsigned short* text, std::size_t length);

/// Converts a text for which btkWCToMBLength gives a length to `mb`, which has room for that many bytes. No
/// terminator is written.
BASE_API void btkWCToMB(const unsigned short* text, std::size_t length, char* mb);
