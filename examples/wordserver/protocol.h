#pragma once

#include <string>

#include <qel/qelcaught.h>

// The protocol of the word server, in the XDR form of the stream. The client sends the text in blocks, each
// as its size and its bytes, and after the last one the size 0. The server sends the number of words, of
// distinct words and of the words that follow, and for each of those its count and the word.

/// Maximum number of bytes of a block.
constexpr int wordsBlock = 4096;

/// The text of a caught exception, which is freed.
inline std::string reasonOf(xthrowable* thrown)
{
    return qel::caught(thrown).what().CastToCString();
}
