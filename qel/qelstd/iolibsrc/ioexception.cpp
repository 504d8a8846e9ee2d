#include <qel/base/xstreambuf.h>

#include "iobasestream.h"
#include "qelexception.h"
#include "qeltable.h"

// The exceptions of a stream and their reasons.

QEL_LABELS(ioError, "iolib::Error", ioStreamState, ioInputNotAllowed, ioOutputNotAllowed,
           ioIncompatibleFormat, ioImproperFunction, ioUnsupportedFunction);

constinit qelClass ioXStream::rtti = {
    .name = "iolib::XStream",
    .attrs = {QEL_ATTR(Stream), QEL_ATTR(Error), QEL_ATTR(Msg, qelOptional)},
};

// ---- of the stream

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

// ---- the exception

namespace {

xstring errorText(ioError error, const char* stateText, const char* msg)
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
      text(errorText(code, failed->StateText(), qelIsObject(msg) ? msg : ""))
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
