#pragma once

#include <string>

#include <qel/iobasestream.h>
#include <qel/netexception.h>

// What a client of the word server sends, in the XDR form of its stream: one of these numbers; then the text
// in blocks, each as its size and its bytes, and after the last one the size 0. The server answers how many
// words and distinct words there are, how many of them follow, and for each of those its count and the word.

enum : int { serveAtOnce, serveByThread };

/// Bytes of a block, at most.
constexpr int wordsBlock = 4096;

/// What a caught exception says. Frees it.
inline std::string reasonOf(xthrowable* failure)
{
    xstring text = failure->getQelTypeName();
    if (netXException* const network = netXException::softcast(failure))
        text = network->getMsg();
    else if (ioXStream* const broken = ioXStream::softcast(failure))
        text = broken->getMsg();
    xdelete(failure);
    return text.CastToCString();
}
