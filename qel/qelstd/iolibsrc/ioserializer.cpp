#include "ioserializer.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <streambuf>
#include <string>

#include <qel/base/xbufaccess.h>
#include <qel/base/xstreambuf.h>
#include <qel/xstring.h>

#include "ioform_p.h"
#include "iotext_p.h"
#include "qeltable.h"

QEL_LABELS(ioTryCode, "iolib::TryCode", ioSuccess, ioWouldBlock, ioEndOfFile, ioIOError, ioFormatError,
           ioNotSupported);

constinit qelClass ioSerializer::rtti = {
    .name = "iolib::Serializer",
    .attrs = {QEL_ATTR(Ascii), QEL_ATTR(Binary), QEL_ATTR(XDR)},
};

namespace {

// A string of at most this length is read into memory taken before its bytes arrive.
constexpr std::size_t trustedLength = 65536;

// An output buffer over memory of a fixed size.
class ShortBuffer : public std::streambuf
{
public:
    ShortBuffer() { setp(bytes, bytes + sizeof bytes); }
    const char* Text() const { return bytes; }
    std::size_t Size() const { return static_cast<std::size_t>(pptr() - bytes); }

    static constexpr std::size_t room = 512;

private:
    char bytes[room];
};

// Reads `length` bytes in parts, so that memory grows only as bytes arrive. False when the input ends before.
bool readInParts(std::string& text, std::size_t length, std::streambuf& sb)
{
    while (text.size() < length) {
        const std::size_t had = text.size();
        const std::size_t part = std::min(length - had, std::max(had, trustedLength));
        text.resize(had + part);
        if (sb.sgetn(text.data() + had, static_cast<std::streamsize>(part)) !=
            static_cast<std::streamsize>(part))
            return false;
    }
    return true;
}

} // namespace

ioSerializer* ioSerializer::Share(ioSerializer* made, Form known)
{
    made->form = known;
    return made;
}

ioSerializer* ioSerializer::getAscii()
{
    static ioSerializer* const shared = Share(new (pDefMemMgr) ioAsciiSerializer, textForm);
    return shared;
}

ioSerializer* ioSerializer::getBinary()
{
    static ioSerializer* const shared = Share(new (pDefMemMgr) ioBinarySerializer, nativeForm);
    return shared;
}

ioSerializer* ioSerializer::getXDR()
{
    static ioSerializer* const shared = Share(new (pDefMemMgr) ioXDRSerializer, networkForm);
    return shared;
}

// ---- raw bytes and strings

unsigned int ioByteSerializer::RdBytes(void* p, unsigned int n, std::streambuf* sb)
{
    return static_cast<unsigned int>(sb->sgetn(static_cast<char*>(p), n));
}

ioTryCode ioByteSerializer::WrBytes(const void* p, unsigned int n, std::streambuf* sb)
{
    return ioPut(*sb, static_cast<const char*>(p), n);
}

ioTryCode ioByteSerializer::RdByte(char& c, std::streambuf* sb)
{
    const int byte = sb->sbumpc();
    if (byte == EOF)
        return ioEndOfFile;
    c = static_cast<char>(byte);
    return ioSuccess;
}

ioTryCode ioByteSerializer::WrByte(char c, std::streambuf* sb)
{
    return sb->sputc(c) == EOF ? ioIOError : ioSuccess;
}

int ioByteSerializer::SzByte(char)
{
    return 1;
}

ioTryCode ioByteSerializer::RdString(xstring& s, std::streambuf* sb, const char*)
{
    int announced = 0;
    if (const ioTryCode code = RdInt(announced, sb); code != ioSuccess)
        return code;
    if (announced < 0)
        return ioFormatError;
    const std::size_t length = static_cast<std::size_t>(announced);
    if (length > trustedLength && length > xGetTextLimit(*sb))
        return ioFormatError;
    if (const char* const view = xbufaccess::View(*sb, length)) {
        s = ioMakeString(view, length);
        xbufaccess::Consume(*sb, announced);
        return ioSuccess;
    }
    if (length <= trustedLength) {
        ioStringMaker maker(length);
        if (sb->sgetn(maker.Text(), announced) != announced)
            return ioEndOfFile;
        s = maker.Finish(length);
        return ioSuccess;
    }
    std::string text;
    if (!readInParts(text, length, *sb))
        return ioEndOfFile;
    s = ioMakeString(text.data(), length);
    return ioSuccess;
}

ioTryCode ioByteSerializer::WrString(const char* s, std::streambuf* sb)
{
    const std::size_t length = ioTextLength(s);
    if (length > INT_MAX)
        return ioFormatError;
    const int announced = static_cast<int>(length);
    if (xbufaccess::Reserve(*sb, 1) == nullptr && length + 16 <= ShortBuffer::room) {
        // No room in the buffer: length and text are written in one call, so that a pipe gets both at once.
        ShortBuffer all;
        if (const ioTryCode code = WrInt(announced, &all); code != ioSuccess)
            return code;
        ioPut(all, s, length);
        return ioPut(*sb, all.Text(), all.Size());
    }
    if (const ioTryCode code = WrInt(announced, sb); code != ioSuccess || length < 1)
        return code;
    return ioPut(*sb, s, length);
}

int ioByteSerializer::SzString(const char* s)
{
    const int prefix = SzInt(0);
    const std::size_t length = ioTextLength(s);
    return length > static_cast<std::size_t>(INT_MAX - prefix) ? xnullint : prefix + static_cast<int>(length);
}

// ---- binary form

ioTryCode ioBinarySerializer::RdInt(int& v, std::streambuf* sb)
{
    return ioRead<ioNative>(v, sb);
}

ioTryCode ioBinarySerializer::WrInt(int v, std::streambuf* sb)
{
    return ioWrite<ioNative>(v, sb);
}

int ioBinarySerializer::SzInt(int)
{
    return 4;
}

ioTryCode ioBinarySerializer::RdBool(unsigned char& b, std::streambuf* sb)
{
    char byte = 0;
    const ioTryCode code = RdByte(byte, sb);
    if (code == ioSuccess)
        b = static_cast<unsigned char>(byte);
    return code;
}

ioTryCode ioBinarySerializer::WrBool(unsigned char b, std::streambuf* sb)
{
    return WrByte(static_cast<char>(b), sb);
}

int ioBinarySerializer::SzBool(unsigned char)
{
    return 1;
}

ioTryCode ioBinarySerializer::RdReal(double& d, std::streambuf* sb)
{
    return ioRead<ioNative>(d, sb);
}

ioTryCode ioBinarySerializer::WrReal(double d, std::streambuf* sb)
{
    return ioWrite<ioNative>(d, sb);
}

int ioBinarySerializer::SzReal(double)
{
    return 8;
}

// ---- network form

ioTryCode ioXDRSerializer::RdInt(int& v, std::streambuf* sb)
{
    return ioRead<ioNetwork>(v, sb);
}

ioTryCode ioXDRSerializer::WrInt(int v, std::streambuf* sb)
{
    return ioWrite<ioNetwork>(v, sb);
}

int ioXDRSerializer::SzInt(int)
{
    return 4;
}

ioTryCode ioXDRSerializer::RdBool(unsigned char& b, std::streambuf* sb)
{
    std::uint32_t word = 0;
    const ioTryCode code = ioRead<ioNetwork>(word, sb);
    if (code == ioSuccess)
        b = static_cast<unsigned char>(word & 0xFF);
    return code;
}

ioTryCode ioXDRSerializer::WrBool(unsigned char b, std::streambuf* sb)
{
    return ioWrite<ioNetwork>(std::uint32_t(b), sb);
}

int ioXDRSerializer::SzBool(unsigned char)
{
    return 4;
}

ioTryCode ioXDRSerializer::RdReal(double& d, std::streambuf* sb)
{
    return ioRead<ioNetwork>(d, sb);
}

ioTryCode ioXDRSerializer::WrReal(double d, std::streambuf* sb)
{
    return ioWrite<ioNetwork>(d, sb);
}

int ioXDRSerializer::SzReal(double)
{
    return 8;
}
