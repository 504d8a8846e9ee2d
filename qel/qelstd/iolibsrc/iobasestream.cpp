#include "iobasestream.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <streambuf>

#include "ioform_p.h"
#include "qelexception.h"
#include "qeltable.h"
#include <qel/base/xbufaccess.h>
#include <qel/base/xstreambuf.h>

QEL_LABELS(ioError, "iolib::Error", ioStreamState, ioInputNotAllowed, ioOutputNotAllowed,
           ioIncompatibleFormat, ioImproperFunction, ioUnsupportedFunction);
QEL_LABELS(ioEventType, "iolib::EventType", ioInputPending, ioOutputPending);

constinit qelClass ioStream::rtti = {
    .name = "iolib::Stream",
    .attrs = {QEL_ATTR(Serializer), QEL_ATTR(IsOpen), QEL_ATTR(CanRead), QEL_ATTR(CanWrite),
              QEL_ATTR(IsBuffered), QEL_ATTR(BufferSize), QEL_ATTR(ITimeout, qelOptional),
              QEL_ATTR(OTimeout, qelOptional), QEL_ATTR(IsEof), QEL_ATTR(IsFail), QEL_ATTR(IsBad),
              QEL_ATTR(IsGood), QEL_ATTR(IsTimeout), QEL_ATTR(IsDataLost), QEL_ATTR(WouldDataLost),
              QEL_ATTR(Stdin), QEL_ATTR(Stdout), QEL_ATTR(Stderr)},
};

constinit qelClass ioEvent::rtti = {
    .name = "iolib::Event",
    .parents = {QEL_PARENT(evtEvent)},
    .attrs = {QEL_ATTR(Stream), QEL_ATTR(Type)},
};

constinit qelClass ioXStream::rtti = {
    .name = "iolib::XStream",
    .attrs = {QEL_ATTR(Stream), QEL_ATTR(Error), QEL_ATTR(Msg, qelOptional)},
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

// ---- failures

void ioStream::Throw(ioError error, const char* msg)
{
    ioXStream::Throw(this, error, msg);
}

void ioStream::ThrowState(int bits)
{
    SetState(state | bits);
    Throw(ioStreamState);
}

void ioStream::ThrowGuard(ioError denied)
{
    Throw(!isOpen || state != 0 ? ioStreamState : denied);
}

void ioStream::ThrowTryCode(ioTryCode code)
{
    switch (code) {
    case ioEndOfFile:
        ThrowState(WhyFailed(streamBuf->HasFailed() ? stateBad : stateEof));
    case ioIOError:
        ThrowState(WhyFailed(stateBad));
    case ioFormatError:
        ThrowState(stateFail);
    default:
        Throw(ioUnsupportedFunction);
    }
}

int ioStream::WhyFailed(int bits) const
{
    return streamBuf->IsLimitPassed() ? stateTimeout : bits;
}

const char* ioStream::StateText() const
{
    static constexpr struct
    {
        int bit;
        const char* text;
    } texts[] = {
        {stateEof, "EOF reached"},         {stateBad, "I/O error"},      {stateFail, "conversion error"},
        {stateTimeout, "timeout expired"}, {stateDataLost, "data lost"},
    };
    if (!isOpen)
        return "stream not open";
    for (const auto& row : texts) {
        if ((state & row.bit) != 0)
            return row.text;
    }
    return "unknown error";
}

// ---- try operations

namespace {

// Gives a try view or area back.
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
    // What the view ended with may go on in the source, a number for instance; until that has ended nobody
    // knows.
    if (streamBuf->IsTryExhausted() && !streamBuf->IsEofReached() &&
        (code == ioSuccess || code == ioEndOfFile))
        code = ioWouldBlock;
    if (code == ioWouldBlock && streamBuf->IsEofReached())
        code = ioEndOfFile;
    return code == ioEndOfFile && streamBuf->HasFailed() ? ioIOError : code;
}

namespace {

// The unread bytes of an area that is not empty, passed over part by part.
class AreaPart
{
public:
    // What is unread in `buffer`: its get area, or a single byte of a buffer without one.
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

// As the ASCII form reads a string, but nothing is made of it, and nothing is looked at twice while the text
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
        switch (GetFormWay()) {
        case asText:
            return TryFindText(*view, delims);
        case asNative:
        case asNetwork:
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

ioEvent* ioStream::InputEvent()
{
    CheckReadable();
    return CreateEvent(streamBuf->GetInputEvent(), ioInputPending);
}

ioEvent* ioStream::OutputEvent()
{
    CheckWritable();
    return CreateEvent(streamBuf->GetOutputEvent(), ioOutputPending);
}

ioEvent* ioStream::CreateEvent(btkBaseEvent* event, ioEventType type)
{
    if (event == nullptr)
        return nullptr;
    std::unique_ptr<btkBaseEvent> owned(event);
    link.To(this); // made now, so that nothing can fail once the event has an owner
    ioEvent* const made = new (pDefMemMgr) ioEvent(this, type, event);
    owned.release();
    return made;
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

// Out of line, so that what transfers right in the buffer needs no frame.
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

void ioStream::ReadStream(ioStream* src)
{
    CopyStream(this, src);
}

void ioStream::WriteStream(ioStream* dst)
{
    CopyStream(dst, this);
}

void CopyStream(ioStream* to, ioStream* from)
{
    if (!qelIsObject(to) || !qelIsObject(from))
        qelhThrowNotInitialized();
    from->CheckReadable();
    to->CheckWritable();
    if (to->serializer != from->serializer)
        from->Throw(ioIncompatibleFormat);
    from->SetActive();
    to->SetActive();

    std::streambuf& source = *from->direct;
    char block[4096];
    const bool isSame = to == from || btkIsSameFile(to->streamBuf->GetHandle(), from->streamBuf->GetHandle());
    // A stream or file copied into itself would grow forever: it gets what was unread at the beginning.
    std::size_t left = isSame ? from->streamBuf->CountReadable() : SIZE_MAX;
    for (bool isPassed = isSame; left > 0;) {
        if (!isPassed && xbufaccess::View(source, 1) == nullptr) {
            from->streamBuf->PassTo(*to->streamBuf);
            isPassed = true;
        }
        // What the source holds is written from where it stands, unless writing may move it.
        const bool isLent = !isSame && source.sgetc() != EOF && xbufaccess::View(source, 1) != nullptr;
        const char* const part = isLent ? xbufaccess::Next(source) : block;
        const std::streamsize size =
            isLent ? xbufaccess::End(source) - part
                   : source.sgetn(block, static_cast<std::streamsize>(std::min(left, sizeof block)));
        if (size <= 0)
            break;
        const std::streamsize written = to->direct->sputn(part, size);
        if (isLent)
            xbufaccess::Advance(source, part + std::max<std::streamsize>(written, 0));
        if (written < size)
            to->ThrowState(to->WhyFailed(ioStream::stateBad));
        left -= static_cast<std::size_t>(size);
    }
    const int failed = from->WhyFailed(from->streamBuf->HasFailed() ? ioStream::stateBad : 0);
    if (left > 0 && failed != 0)
        from->ThrowState(failed);
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
    constexpr std::size_t least = 65536; // what a buffer may hold is not looked at
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

// ---- events and exceptions

ioEvent::ioEvent(ioStream* owner, ioEventType kind, btkBaseEvent* base)
    : evtEvent(base), stream(owner->link.To(owner)), type(kind)
{
}

ioStream* ioEvent::getStream()
{
    return stream.Get();
}

namespace {

xstring ErrorText(ioError error, const char* stateText, const char* msg)
{
    const char* const format = error == ioStreamState          ? stateText
                               : error == ioInputNotAllowed    ? "input denied"
                               : error == ioOutputNotAllowed   ? "output denied"
                               : error == ioIncompatibleFormat ? "incompatible format"
                               : error == ioImproperFunction
                                   ? "function \"%s\" can not be called in the current context"
                               : error == ioUnsupportedFunction ? "function \"%s\" not supported"
                                                                : "unknown error";
    xstring text("Stream Error (iolib): ", format);
    text.Substitute("%s", msg, 0, 1);
    return text;
}

} // namespace

ioXStream::ioXStream(ioStream* failed, ioError code, const char* msg)
    : stream(failed->link.To(failed)), error(code),
      text(ErrorText(code, failed->StateText(), qelIsObject(msg) ? msg : ""))
{
}

ioXStream::~ioXStream() = default;

void ioXStream::Throw(ioStream* failed, ioError code, const char* msg)
{
    qelThrowNew<ioXStream>(failed, code, msg);
}

ioStream* ioXStream::getStream()
{
    return stream.Get();
}

xstring ioXStream::getMsg()
{
    return text;
}
