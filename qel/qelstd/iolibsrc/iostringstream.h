#pragma once

#include <qel/iobasestream.h>

class xstringbuf;

/// A stream in memory. ASCII form unless set otherwise. Written data can be read at once. Not counted: freed
/// with xdelete.
///
///     const auto text = qel::own(ioStringStream::Create("1 2 3"));
///     int sum = 0;
///     while (text->TryReadInt() == ioSuccess)
///         sum += text->ReadInt();
class QEL_API ioStringStream : public ioStream
{
    QEL_OBJECT(ioStringStream); // "iolib::StringStream"

public:
    /// With a text: a stream that reads a copy of it. With xnullstr, or no text at all: an empty one to be
    /// written and read back. The caller owns the stream.
    static ioStringStream* Create(const char* text);
    template<qelTextObject T>
    static ioStringStream* Create(const T& text)
    {
        return Create(qelTextArgument(text));
    }
    ~ioStringStream() override;

    /// All data written so far, read or not, except data dropped by DiscardRead; a string ends at its first
    /// zero byte. getBytes gives the bytes of the binary forms.
    /// @throws ioXStream  ioOutputNotAllowed when the stream reads a given text
    xstring getStr();
    /// The same bytes unchanged, and their number; valid until the stream is written, closed or freed. Null
    /// when there are none.
    const char* getBytes(unsigned int* size);
    /// Drops the data that was read; getStr and getBytes no longer include it. For a stream used as a queue,
    /// which otherwise keeps all data ever written.
    void DiscardRead();

private:
    ioStringStream(xstringbuf* memory, bool writable);

    void OnClose() override;

    xstringbuf* stringBuf;
};
