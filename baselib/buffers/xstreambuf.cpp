#include "xstreambuf.h"

/// An input or output event of a buffer. The buffer may be destroyed first.
class xbufferevent final : public btkBaseEvent
{
public:
    xbufferevent(xstreambuf& owner, btkHandle watched, int type)
        : btkBaseEvent(watched, SelectEvents(type)), buffer(&owner), isInput(type == 0), next(owner.eventList)
    {
        if (next != nullptr)
            next->place = &next;
        owner.eventList = this;
        place = &owner.eventList;
        GetWatch().asks = true;
    }
    ~xbufferevent() override { Leave(); }

    // Detaches from the buffer, which is being destroyed; the event is on from now on.
    void Leave()
    {
        if (buffer == nullptr)
            return;
        *place = next;
        if (next != nullptr)
            next->place = place;
        buffer = nullptr;
        GetWatch() = {-1, btkNotReady, true};
    }

    // The buffer has state about its input or output: its events of that kind call it before they poll.
    static void NoteKnown(xbufferevent* list, bool ofInput)
    {
        for (; list != nullptr; list = list->next)
            list->GetWatch().asks |= list->isInput == ofInput;
    }

protected:
    State OnAsk() override
    {
        if (buffer == nullptr)
            return On;
        if (!isInput) {
            const State state = buffer->OnAskOutput();
            GetWatch().asks = state != Ask;
            return state;
        }
        const bool mayKnow = buffer->gptr() != buffer->egptr() || buffer->asksInput;
        GetWatch().asks = mayKnow;
        if (!mayKnow)
            return Ask;
        const State state = buffer->OnAskInput();
        GetWatch().awaited = buffer->awaitedInput;
        return state;
    }
    bool OnPolled(btkReadiness ready) override
    {
        return isInput && buffer != nullptr ? buffer->OnInputPolled(ready) : ready != btkNotReady;
    }

private:
    xstreambuf* buffer; // null once the buffer is destroyed
    bool isInput;
    // The buffer's list of events.
    xbufferevent* next;
    xbufferevent** place; // the pointer to this event
};

xstreambuf::~xstreambuf()
{
    while (eventList != nullptr)
        eventList->Leave();
}

std::streambuf* xstreambuf::GetTryIBuf()
{
    tryExhausted = tryTooLarge = false;
    return OnGetTryIBuf();
}

void xstreambuf::FreeTryIBuf()
{
    OnFreeTryIBuf();
}

std::streambuf* xstreambuf::GetTryOBuf()
{
    tryExhausted = tryTooLarge = false;
    return OnGetTryOBuf();
}

void xstreambuf::FreeTryOBuf()
{
    OnFreeTryOBuf();
}

void xstreambuf::PassTo(xstreambuf& to)
{
    const btkPlace source = GetSourcePlace();
    const btkPlace target = source.handle < 0 ? btkPlace() : to.GetTargetPlace();
    while (target.handle >= 0 && btkMove(source, target) > 0) {
    }
}

void xstreambuf::NoteHeld()
{
    xbufferevent::NoteKnown(eventList, true);
}

void xstreambuf::NoteShort()
{
    xbufferevent::NoteKnown(eventList, false);
}

btkBaseEvent* xstreambuf::MakeInputEvent(btkHandle handle)
{
    return new xbufferevent(*this, handle, 0);
}

btkBaseEvent* xstreambuf::MakeOutputEvent(btkHandle handle)
{
    return new xbufferevent(*this, handle, 1);
}

std::size_t xGetTextLimit(const std::streambuf& buffer)
{
    if (const auto* const own = dynamic_cast<const xstreambuf*>(&buffer))
        return own->GetTextLimit();
    const auto* const view = dynamic_cast<const xtrystreambuf*>(&buffer);
    return view != nullptr ? view->GetOwner().GetTextLimit() : static_cast<std::size_t>(-1);
}

xtrystreambuf::int_type xtrystreambuf::underflow()
{
    if (gptr() == egptr() && !owner.OnTryUnderflow()) {
        owner.SetTryExhausted();
        return traits_type::eof();
    }
    return traits_type::to_int_type(*gptr());
}

xstreambuf::int_type xstreambuf::PutOne(int_type byte)
{
    if (traits_type::eq_int_type(byte, traits_type::eof()))
        return traits_type::not_eof(byte);
    const char written = traits_type::to_char_type(byte);
    return xsputn(&written, 1) == 1 ? byte : traits_type::eof();
}

xtryoutputbuf::int_type xtryoutputbuf::overflow(int_type byte)
{
    const char taken = traits_type::to_char_type(byte);
    return xsputn(&taken, 1) == 1 ? traits_type::not_eof(byte) : traits_type::eof();
}

std::streamsize xtryoutputbuf::xsputn(const char*, std::streamsize count)
{
    const std::size_t size = count < 0 ? 0 : static_cast<std::size_t>(count);
    const std::size_t taken = size < room ? size : room;
    if (size > largest)
        owner.SetTryTooLarge();
    else if (taken < size && !isBroken)
        owner.SetTryExhausted();
    room -= taken;
    largest -= taken;
    return static_cast<std::streamsize>(taken);
}
