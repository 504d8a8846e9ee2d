#pragma once

#include <string>

#include <qel/qelexception.h>

// What a client of the word server sends, in the XDR form of its stream: the text in blocks, each as its size
// and its bytes, and after the last one the size 0. The server answers how many words and distinct words
// there are, how many of them follow, and for each of those its count and the word.

/// Bytes of a block, at most.
constexpr int wordsBlock = 4096;

/// What a caught exception says. Frees it.
inline std::string reasonOf(xthrowable* failure)
{
    const std::string text = qelTextOf(failure).CastToCString();
    xdelete(failure);
    return text;
}
