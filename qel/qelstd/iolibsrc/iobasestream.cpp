#include "iobasestream.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <streambuf>

#include <qel/base/xbufaccess.h>
#include <qel/base/xstreambuf.h>

#include "ioform_p.h"
#include "qelexception.h"
#include "qeltable.h"

constinit qelClass ioStream::rtti = {
    .name = "iolib::Stream",
    .attrs = {QEL_ATTR(Serializer), QEL_ATTR(IsOpen), QEL_ATTR(CanRead), QEL_ATTR(CanWrite),
              QEL_ATTR(IsBuffered), QEL_ATTR(BufferSize), QEL_ATTR(ITimeout, qelOptional),
              QEL_ATTR(OTimeout, qelOptional), QEL_ATTR(IsEof), QEL_ATTR(IsFail), QEL_ATTR(IsBad),
              QEL_ATTR(IsGood), QEL_ATTR(IsTimeout), QEL_ATTR(IsDataLost), QEL_ATTR(WouldDataLost),
              QEL_ATTR(Stdin), QEL_ATTR(Stdout), QEL_ATTR(Stderr)},
};

// ---- life

ioStream::ioStream(ioSerializer* form, xstreambuf* buffer, bool writable, bool readable)
    : streamBuf(buffer), direct(buffer), canRead(readable), canWrite(writable)
{
    setSerializer(form);
}

ioStream::~ioStream()
{
    link.Leave();
}

void ioStream::Close()
{
    if (!isOpen)
        return;
    struct AtEnd
    {
        ~AtEnd() { stream.Release(); }
        ioStream& stream;
    } const atEnd{*this};
    if (!streamBuf->Finish())
        ThrowState(stateBad);
}

void ioStream::Release()
{
    if (!isOpen)
        return;
    OnClose();
    isOpen = false;
    FindWays();
    streamBuf = nullptr;
    direct = nullptr;
}

btkHandle ioStream::GetInheritHandle()
{
    return -1;
}

btkHandle ioStream::GetSettledHandle()
{
    CheckOpen();
    return streamBuf->pubsync() == 0 && streamBuf->GiveBack() ? streamBuf->GetHandle() : -1;
}

void ioStream::SetTextMode()
{
}

void ioStream::SetBinaryMode()
{
}

// ---- blocking operations

void ioStream::GuardRead()
{
    CheckReadable();
    if (!keepsITimeout)
        Throw(ioUnsupportedFunction, "ITimeout != INFINITE");
    SetActive();
}

void ioStream::GuardWrite()
{
    CheckWritable();
    if (!keepsOTimeout)
        Throw(ioUnsupportedFunction, "OTimeout != INFINITE");
    SetActive();
}

ioStream::Way ioStream::GetFormWay() const
{
    return serializer == ioSerializer::getXDR()      ? asNetwork
           : serializer == ioSerializer::getBinary() ? asNative
           : serializer == ioSerializer::getAscii()  ? asText
                                                     : bySerializer;
}

void ioStream::FindWays()
{
    readWay = writeWay = withGuards;
    if (!active || !isOpen || state != 0)
        return;
    const Way way = GetFormWay();
    if (canRead && keepsITimeout)
        readWay = way;
    if (canWrite && keepsOTimeout)
        writeWay = way;
}

template<class Value>
inline bool ioStream::ReadHeld(Value& value)
{
    if (readWay == asNetwork) [[likely]]
        return ioReadHeld<ioNetwork>(value, *direct);
    return readWay == asNative && ioReadHeld<ioNative>(value, *direct);
}

template<class Value>
inline bool ioStream::WriteHeld(Value value)
{
    if (writeWay == asNetwork) [[likely]]
        return ioWriteHeld<ioNetwork>(value, *direct);
    return writeWay == asNative && ioWriteHeld<ioNative>(value, *direct);
}

// Out of line, so that transfers directly in the buffer need no stack frame.
template<auto read, class Value, class... Delims>
[[gnu::noinline]] Value ioStream::ReadByForm(Delims... delims)
{
    BeginRead();
    Value value{};
    CheckTryCode((serializer->*read)(value, direct, delims...));
    return value;
}

template<auto write, class Value>
[[gnu::noinline]] void ioStream::WriteByForm(Value value)
{
    BeginWrite();
    CheckTryCode((serializer->*write)(value, direct));
}

template<auto write, class Value>
[[gnu::noinline]] void ioStream::WriteNumber(Value value)
{
    if (writeWay != asText || !ioFormatHeld(value, *direct))
        WriteByForm<write>(value);
}

int ioStream::ReadByte()
{
    char c;
    const bool held = readWay >= asNative && ioReadHeld<ioNative>(c, *direct);
    return static_cast<signed char>(held ? c : ReadByForm<&ioSerializer::RdByte, char>());
}

int ioStream::ReadInt()
{
    int v;
    return ReadHeld(v) ? v : ReadByForm<&ioSerializer::RdInt, int>();
}

unsigned char ioStream::ReadBool()
{
    return ReadByForm<&ioSerializer::RdBool, unsigned char>();
}

double ioStream::ReadReal()
{
    double d;
    return ReadHeld(d) ? d : ReadByForm<&ioSerializer::RdReal, double>();
}

xstring ioStream::ReadString(const char* delims)
{
    if (readWay >= asNative) {
        std::size_t length = 0;
        const char* const bytes = readWay == asNetwork ? ioReadTextHeld<ioNetwork>(length, *direct)
                                                       : ioReadTextHeld<ioNative>(length, *direct);
        if (bytes != nullptr)
            return ioMakeString(bytes, length);
    }
    return ReadByForm<&ioSerializer::RdString, xstring>(delims);
}

void ioStream::WriteByte(int byte)
{
    const char c = static_cast<char>(byte);
    if (writeWay < asText || !ioWriteHeld<ioNative>(c, *direct))
        WriteByForm<&ioSerializer::WrByte>(c);
}

void ioStream::WriteInt(int v)
{
    if (!WriteHeld(v))
        WriteNumber<&ioSerializer::WrInt>(v);
}

void ioStream::WriteBool(unsigned char b)
{
    WriteByForm<&ioSerializer::WrBool>(b);
}

void ioStream::WriteReal(double d)
{
    if (!WriteHeld(d))
        WriteNumber<&ioSerializer::WrReal>(d);
}

void ioStream::WriteString(const char* s)
{
    const std::size_t length = writeWay < asNative ? 0 : ioTextLength(s);
    if (!(writeWay == asNetwork ? ioWriteTextHeld<ioNetwork>(s, length, *direct)
                                : writeWay == asNative && ioWriteTextHeld<ioNative>(s, length, *direct)))
        WriteByForm<&ioSerializer::WrString>(s);
}

unsigned int ioStream::ReadBytes(void* p, unsigned int n)
{
    CheckReadable();
    SetActive();
    if (n == 0)
        return 0;
    const unsigned int count = serializer->RdBytes(p, n, direct);
    if (count == 0)
        ThrowTryCode(ioEndOfFile);
    if (count < n)
        SetState(state | WhyFailed(0));
    return count;
}

void ioStream::WriteBytes(const void* p, unsigned int n)
{
    CheckWritable();
    SetActive();
    if (n > 0)
        CheckTryCode(serializer->WrBytes(p, n, direct));
}

ioEvent* ioStream::Flush(unsigned char blocking)
{
    if (!blocking)
        Throw(ioUnsupportedFunction, "non-blocking Flush");
    if (isOpen && direct->pubsync() == -1)
        ThrowState(WhyFailed(stateBad));
    return nullptr;
}

// ---- sizes

int ioStream::SizeOfByte(int byte)
{
    CheckOpen();
    return serializer->SzByte(static_cast<char>(byte));
}

int ioStream::SizeOf(int v)
{
    CheckOpen();
    return serializer->SzInt(v);
}

int ioStream::SizeOf(unsigned char b)
{
    CheckOpen();
    return serializer->SzBool(b);
}

int ioStream::SizeOf(double d)
{
    CheckOpen();
    return serializer->SzReal(d);
}

int ioStream::SizeOf(const char* s)
{
    CheckOpen();
    return serializer->SzString(s);
}

// ---- settings

void ioStream::setSerializer(ioSerializer* s)
{
    CheckOpen();
    if (active)
        Throw(ioImproperFunction);
    if (!qelIsObject(s))
        qelhThrowNotInitialized();
    serializer = s;
    if (s->isBinary == 0)
        SetTextMode();
    else
        SetBinaryMode();
}

void ioStream::setITimeout(double seconds)
{
    CheckOpen();
    iTimeout = seconds;
    const bool hasLimit = seconds != INFINITE;
    if (hasLimit)
        iTimeval = btkTimeval(seconds);
    keepsITimeout = streamBuf->SetInputLimit(hasLimit ? iTimeval : btkTimeval::Forever()) || !hasLimit;
    FindWays();
}

void ioStream::setOTimeout(double seconds)
{
    CheckOpen();
    oTimeout = seconds;
    const bool hasLimit = seconds != INFINITE;
    if (hasLimit)
        oTimeval = btkTimeval(seconds);
    keepsOTimeout = streamBuf->SetOutputLimit(hasLimit ? oTimeval : btkTimeval::Forever()) || !hasLimit;
    FindWays();
}

void ioStream::SetTextLimit(std::size_t bytes)
{
    CheckOpen();
    constexpr std::size_t least = 65536; // text within the buffer is not checked against the limit
    streamBuf->SetTextLimit(std::max(bytes, least));
}

void ioStream::setIsFail(unsigned char fail)
{
    CheckOpen();
    SetState(fail ? state | stateFail : 0);
}

void ioStream::setIsBad(unsigned char bad)
{
    CheckOpen();
    SetState(bad ? state | stateBad : 0);
}

unsigned char ioStream::getIsBuffered()
{
    CheckOpen();
    Throw(ioUnsupportedFunction, "getIsBuffered");
}

int ioStream::getBufferSize()
{
    CheckOpen();
    Throw(ioUnsupportedFunction, "getBufferSize");
}

void ioStream::setBufferSize(int)
{
    CheckOpen();
    Throw(ioUnsupportedFunction, "setBufferSize");
}

unsigned char ioStream::getWouldDataLost()
{
    CheckReadable();
    Throw(ioUnsupportedFunction, "getWouldDataLost");
}

void ioStream::Ignore()
{
    CheckReadable();
    Throw(ioUnsupportedFunction, "Ignore");
}
