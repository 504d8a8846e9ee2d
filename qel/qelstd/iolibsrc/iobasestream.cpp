#include "iobasestream.h"

#include <algorithm>
#include <climits>
#include <streambuf>

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
    if (link != nullptr)
        *link = nullptr;
}

void ioStream::Close()
{
    if (!isOpen)
        return;
    OnClose();
    isOpen = false;
    streamBuf = nullptr;
    direct = nullptr;
}

btkHandle ioStream::GetInheritHandle()
{
    return -1;
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
    state |= bits;
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
        ThrowState(stateEof);
    case ioIOError:
        ThrowState(stateBad);
    case ioFormatError:
        ThrowState(stateFail);
    default:
        Throw(ioUnsupportedFunction);
    }
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
    ioTryCode code = transfer(view);
    // What the view ended with may go on in the source, a number for instance; until that has ended nobody
    // knows.
    if (streamBuf->IsTryExhausted() && !streamBuf->IsEofReached() &&
        (code == ioSuccess || code == ioEndOfFile))
        code = ioWouldBlock;
    if (code == ioWouldBlock && streamBuf->IsEofReached())
        code = ioEndOfFile;
    return code;
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
    xstring s;
    return TryRead([&](std::streambuf* view) { return serializer->RdString(s, view, delims); });
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
    GetLink(); // made now, so that nothing can fail once the event has an owner
    ioEvent* const made = new (pDefMemMgr) ioEvent(this, type, event);
    owned.release();
    return made;
}

// ---- blocking operations

inline void ioStream::BeginRead()
{
    CheckReadable();
    if (iTimeout != INFINITE)
        Throw(ioUnsupportedFunction, "ITimeout != INFINITE");
    SetActive();
}

inline void ioStream::BeginWrite()
{
    CheckWritable();
    if (oTimeout != INFINITE)
        Throw(ioUnsupportedFunction, "OTimeout != INFINITE");
    SetActive();
}

int ioStream::ReadByte()
{
    BeginRead();
    char c = 0;
    CheckTryCode(serializer->RdByte(c, direct));
    return static_cast<signed char>(c);
}

int ioStream::ReadInt()
{
    BeginRead();
    int v = 0;
    CheckTryCode(serializer->RdInt(v, direct));
    return v;
}

unsigned char ioStream::ReadBool()
{
    BeginRead();
    unsigned char b = 0;
    CheckTryCode(serializer->RdBool(b, direct));
    return b;
}

double ioStream::ReadReal()
{
    BeginRead();
    double d = 0;
    CheckTryCode(serializer->RdReal(d, direct));
    return d;
}

xstring ioStream::ReadString(const char* delims)
{
    BeginRead();
    xstring s;
    CheckTryCode(serializer->RdString(s, direct, delims));
    return s;
}

void ioStream::WriteByte(int byte)
{
    BeginWrite();
    CheckTryCode(serializer->WrByte(static_cast<char>(byte), direct));
}

void ioStream::WriteInt(int v)
{
    BeginWrite();
    CheckTryCode(serializer->WrInt(v, direct));
}

void ioStream::WriteBool(unsigned char b)
{
    BeginWrite();
    CheckTryCode(serializer->WrBool(b, direct));
}

void ioStream::WriteReal(double d)
{
    BeginWrite();
    CheckTryCode(serializer->WrReal(d, direct));
}

void ioStream::WriteString(const char* s)
{
    BeginWrite();
    CheckTryCode(serializer->WrString(s, direct));
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
    // A stream copied into itself would grow for ever: it gets what was unread at the beginning.
    for (std::size_t left = to == from ? from->streamBuf->CountReadable() : SIZE_MAX; left > 0;) {
        // What the source holds is written from where it stands, unless writing may move it.
        const bool lent = to != from && source.sgetc() != EOF && xbufaccess::View(source, 1) != nullptr;
        const char* const part = lent ? xbufaccess::Next(source) : block;
        const std::streamsize size =
            lent ? xbufaccess::End(source) - part
                 : source.sgetn(block, static_cast<std::streamsize>(std::min(left, sizeof block)));
        if (size <= 0)
            break;
        const std::streamsize written = to->direct->sputn(part, size);
        if (lent)
            xbufaccess::Advance(source, part + std::max<std::streamsize>(written, 0));
        if (written < size)
            to->ThrowState(ioStream::stateBad);
        left -= static_cast<std::size_t>(size);
    }
}

ioEvent* ioStream::Flush(unsigned char blocking)
{
    if (!blocking)
        Throw(ioUnsupportedFunction, "non-blocking Flush");
    if (isOpen && direct->pubsync() == -1)
        ThrowState(stateBad);
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
    if (seconds != INFINITE)
        iTimeval = btkTimeval(seconds);
}

void ioStream::setOTimeout(double seconds)
{
    CheckOpen();
    oTimeout = seconds;
    if (seconds != INFINITE)
        oTimeval = btkTimeval(seconds);
}

void ioStream::setIsFail(unsigned char fail)
{
    CheckOpen();
    state = fail ? state | stateFail : 0;
}

void ioStream::setIsBad(unsigned char bad)
{
    CheckOpen();
    state = bad ? state | stateBad : 0;
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

const std::shared_ptr<ioStream*>& ioStream::GetLink()
{
    if (link == nullptr)
        link = std::make_shared<ioStream*>(this);
    return link;
}

ioEvent::ioEvent(ioStream* owner, ioEventType kind, btkBaseEvent* base)
    : evtEvent(base), stream(owner->GetLink()), type(kind)
{
}

ioStream* ioEvent::getStream()
{
    return *stream;
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
    : stream(failed->GetLink()), error(code),
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
    return *stream;
}

xstring ioXStream::getMsg()
{
    return text;
}
