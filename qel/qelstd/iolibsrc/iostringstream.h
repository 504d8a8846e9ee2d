#pragma once

#include <qel/iobasestream.h>

class xstringbuf;

/// A stream in memory. ASCII form unless set otherwise. What is written can be read at once.
class QEL_API ioStringStream : public ioStream
{
    QEL_OBJECT(ioStringStream); // "iolib::StringStream"

public:
    /// With a text: a stream that reads a copy of it. With xnullstr, or no text at all: an empty one to be
    /// written and read back.
    static ioStringStream* Create(const char* text);
    ~ioStringStream() override;

    /// All that was written so far, read or not; a string ends at its first zero.
    /// @throws ioXStream  ioOutputNotAllowed when the stream reads a given text
    xstring getStr();

private:
    ioStringStream(xstringbuf* memory, bool writable);

    void OnClose() override;

    xstringbuf* stringBuf;
};
