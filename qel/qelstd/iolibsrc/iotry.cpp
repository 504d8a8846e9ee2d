#include <algorithm>
#include <climits>
#include <streambuf>

#include <qel/base/xbufaccess.h>
#include <qel/base/xstreambuf.h>

#include "iobasestream.h"
#include "ioform_p.h"

// The operations that never block.

namespace {

// Releases a try view or area.
struct TryLoan
{
    ~TryLoan() { (buffer.*giveBack)(); }
    xstreambuf& buffer;
    void (xstreambuf::*giveBack)();
};

} // namespace

template<class Transfer>
ioTryCode ioStream::TryRead(Transfer transfer)
{
    CheckReadable();
    std::streambuf* const view = streamBuf->GetTryIBuf();
    if (view == nullptr)
        return ioNotSupported;
    const TryLoan loan{*streamBuf, &xstreambuf::FreeTryIBuf};
    SetActive();
    const Searched before = std::exchange(searched, {});
    if (streamBuf->IsStarved())
        searched = before;
    ioTryCode code = transfer(view);
    // The last value of the view may continue in the source, as a number can; that is unknown until it has
    // ended.
    if (streamBuf->IsTryExhausted() && !streamBuf->IsEofReached() &&
        (code == ioSuccess || code == ioEndOfFile))
        code = ioWouldBlock;
    if (code == ioWouldBlock && streamBuf->IsEofReached())
        code = ioEndOfFile;
    return code == ioEndOfFile && streamBuf->HasFailed() ? ioIOError : code;
}

namespace {

// The unread bytes of a non-empty area, skipped part by part.
class AreaPart
{
public:
    // The unread bytes of `buffer`: its get area, or a single byte of a buffer without one.
    explicit AreaPart(std::streambuf& buffer) : sb(buffer)
    {
        const int c = sb.sgetc();
        single = static_cast<char>(c);
        hasArea = xbufaccess::View(sb, 1) != nullptr;
        first = hasArea ? xbufaccess::Next(sb) : &single;
        last = hasArea ? xbufaccess::End(sb) : first + (c != EOF);
    }
    const char* begin() const { return first; }
    const char* end() const { return last; }
    bool IsEmpty() const { return first == last; }
    void Pass(std::size_t count)
    {
        if (hasArea)
            xbufaccess::Advance(sb, first + count);
        else if (count > 0)
            sb.sbumpc();
    }

private:
    std::streambuf& sb;
    char single;
    bool hasArea;
    const char* first;
    const char* last;
};

} // namespace

// As the ASCII form reads a string, but without creating it, and without scanning a byte twice while the text
// arrives.
ioTryCode ioStream::TryFindText(std::streambuf& view, const char* delims)
{
    const char delimiter = ioDelimiterOf(delims);
    if (searched.delimiter != delimiter || xbufaccess::View(view, searched.count) == nullptr)
        searched = {0, delimiter, false};
    xbufaccess::Advance(view, xbufaccess::Next(view) + searched.count);
    for (;;) {
        AreaPart part(view);
        if (part.IsEmpty())
            return searched.hasText ? ioSuccess : ioEndOfFile;
        const char* const text =
            searched.hasText ? part.begin() : std::find_if_not(part.begin(), part.end(), ioIsSpace);
        if (!searched.hasText && text != part.end() && *text == delimiter)
            return ioFormatError;
        const char* const found = std::find(text, part.end(), delimiter);
        if (searched.count + static_cast<std::size_t>(found - text) > streamBuf->GetTextLimit())
            return ioFormatError;
        if (found != part.end())
            return ioSuccess;
        searched.hasText |= text != part.end();
        searched.count += static_cast<std::size_t>(part.end() - part.begin());
        part.Pass(static_cast<std::size_t>(part.end() - part.begin()));
    }
}

// As the other forms read a string.
ioTryCode ioStream::TryPassText(std::streambuf& view)
{
    int announced = 0;
    if (const ioTryCode code = serializer->RdInt(announced, &view); code != ioSuccess)
        return code;
    if (announced < 0 || static_cast<std::size_t>(announced) > streamBuf->GetTextLimit())
        return ioFormatError;
    for (std::size_t left = static_cast<std::size_t>(announced); left > 0;) {
        AreaPart part(view);
        if (part.IsEmpty())
            return ioEndOfFile;
        const std::size_t passed = std::min(left, static_cast<std::size_t>(part.end() - part.begin()));
        part.Pass(passed);
        left -= passed;
    }
    return ioSuccess;
}

template<class Transfer>
ioTryCode ioStream::TryWrite(Transfer transfer)
{
    CheckWritable();
    std::streambuf* const area = streamBuf->GetTryOBuf();
    if (area == nullptr)
        return ioNotSupported;
    const TryLoan loan{*streamBuf, &xstreambuf::FreeTryOBuf};
    SetActive();
    const ioTryCode code = transfer(area);
    if (code == ioIOError && streamBuf->IsTryTooLarge())
        return ioNotSupported;
    return code == ioIOError && streamBuf->IsTryExhausted() ? ioWouldBlock : code;
}

ioTryCode ioStream::TryReadByte()
{
    char c;
    return TryRead([&](std::streambuf* view) { return serializer->RdByte(c, view); });
}

ioTryCode ioStream::TryReadInt()
{
    int v;
    return TryRead([&](std::streambuf* view) { return serializer->RdInt(v, view); });
}

ioTryCode ioStream::TryReadBool()
{
    unsigned char b;
    return TryRead([&](std::streambuf* view) { return serializer->RdBool(b, view); });
}

ioTryCode ioStream::TryReadReal()
{
    double d;
    return TryRead([&](std::streambuf* view) { return serializer->RdReal(d, view); });
}

ioTryCode ioStream::TryReadString(const char* delims)
{
    return TryRead([&](std::streambuf* view) {
        xstring s;
        switch (serializer->form) {
        case ioSerializer::textForm:
            return TryFindText(*view, delims);
        case ioSerializer::nativeForm:
        case ioSerializer::networkForm:
            return TryPassText(*view);
        default:
            return serializer->RdString(s, view, delims);
        }
    });
}

ioTryCode ioStream::TryWriteByte(int byte)
{
    return TryWrite([&](std::streambuf* area) { return serializer->WrByte(static_cast<char>(byte), area); });
}

ioTryCode ioStream::TryWriteInt(int v)
{
    return TryWrite([&](std::streambuf* area) { return serializer->WrInt(v, area); });
}

ioTryCode ioStream::TryWriteBool(unsigned char b)
{
    return TryWrite([&](std::streambuf* area) { return serializer->WrBool(b, area); });
}

ioTryCode ioStream::TryWriteReal(double d)
{
    return TryWrite([&](std::streambuf* area) { return serializer->WrReal(d, area); });
}

ioTryCode ioStream::TryWriteString(const char* s)
{
    return TryWrite([&](std::streambuf* area) { return serializer->WrString(s, area); });
}

unsigned int ioStream::PeekNBytes()
{
    CheckReadable();
    SetActive();
    return static_cast<unsigned int>(std::min<std::size_t>(streamBuf->CountReadable(), UINT_MAX));
}
