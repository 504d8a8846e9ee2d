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

    /// All that was written so far, read or not, except what DiscardRead has forgotten; a string ends at its
    /// first zero. getBytes gives the bytes of the binary forms.
    /// @throws ioXStream  ioOutputNotAllowed when the stream reads a given text
    xstring getStr();
    /// The same bytes as they are, and their number; valid until the stream is written, closed or freed. Null
    /// when there are none.
    const char* getBytes(unsigned int* size);
    /// Forgets what was read, which getStr and getBytes then leave out. For a stream that is used as a queue:
    /// it keeps all that was ever written otherwise.
    void DiscardRead();

private:
    ioStringStream(xstringbuf* memory, bool writable);

    void OnClose() override;

    xstringbuf* stringBuf;
};
