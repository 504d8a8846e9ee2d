#include <qel/base/xstreambuf.h>

#include <utility>

/// An input or output event of a buffer. The buffer may go first.
class xbufferevent final : public btkBaseEvent
{
public:
    xbufferevent(std::shared_ptr<xstreambuf*> shared, btkHandle watched, int type)
        : btkBaseEvent(watched, SelectEvents(type), true), buffer(std::move(shared)), isInput(type == 0)
    {
    }

protected:
    State OnAsk() override
    {
        if (*buffer == nullptr) {
            handle = -1;
            return On;
        }
        return isInput ? (*buffer)->OnAskInput() : Ask;
    }
    bool OnPolled(short ready) override
    {
        return isInput && *buffer != nullptr ? (*buffer)->OnInputPolled(ready) : ready != 0;
    }

private:
    std::shared_ptr<xstreambuf*> buffer;
    bool isInput;
};

xstreambuf::~xstreambuf()
{
    if (link != nullptr)
        *link = nullptr;
}

std::streambuf* xstreambuf::GetTryIBuf()
{
    tryExhausted = false;
    return OnGetTryIBuf();
}

void xstreambuf::FreeTryIBuf()
{
    OnFreeTryIBuf();
}

std::streambuf* xstreambuf::GetTryOBuf()
{
    tryExhausted = false;
    return OnGetTryOBuf();
}

void xstreambuf::FreeTryOBuf()
{
    OnFreeTryOBuf();
}

std::shared_ptr<xstreambuf*> xstreambuf::GetLink()
{
    if (link == nullptr)
        link = std::make_shared<xstreambuf*>(this);
    return link;
}

btkBaseEvent* xstreambuf::MakeInputEvent(btkHandle handle)
{
    return new xbufferevent(GetLink(), handle, 0);
}

btkBaseEvent* xstreambuf::MakeOutputEvent(btkHandle handle)
{
    return new xbufferevent(GetLink(), handle, 1);
}

xtrystreambuf::int_type xtrystreambuf::underflow()
{
    if (gptr() == egptr() && !owner.OnTryUnderflow()) {
        owner.SetTryExhausted();
        return traits_type::eof();
    }
    return traits_type::to_int_type(*gptr());
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
    if (taken < size && !isBroken)
        owner.SetTryExhausted();
    room -= taken;
    return static_cast<std::streamsize>(taken);
}
