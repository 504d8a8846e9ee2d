#include <qel/base/xstdbuf.h>

#include <cerrno>
#include <iostream>

namespace {

std::streambuf& StandardBuffer(bool isError)
{
    return isError ? *std::cerr.rdbuf() : *std::cout.rdbuf();
}

// Calls `write` with SIGPIPE kept from the caller.
template<typename Call>
auto WithoutSignal(Call write)
{
    btkNoSigPipe guard;
    errno = 0;
    const auto result = write();
    if (errno == EPIPE)
        guard.Raised();
    return result;
}

} // namespace

std::ptrdiff_t xistdbuf::ReadSome(char* to, std::size_t size)
{
    if (!IsPending())
        WithoutSignal([] { return std::cout.rdbuf()->pubsync(); });
    return xinputbuf::ReadSome(to, size);
}

xostdbuf::xostdbuf(int type) : xoutputbuf(type == 0 ? 1 : 2), isError(type != 0)
{
}

xostdbuf::int_type xostdbuf::overflow(int_type byte)
{
    if (traits_type::eq_int_type(byte, traits_type::eof()))
        return traits_type::not_eof(byte);
    return WithoutSignal([&] { return StandardBuffer(isError).sputc(traits_type::to_char_type(byte)); });
}

std::streamsize xostdbuf::xsputn(const char* from, std::streamsize count)
{
    return WithoutSignal([&] { return StandardBuffer(isError).sputn(from, count); });
}

int xostdbuf::sync()
{
    return WithoutSignal([&] { return StandardBuffer(isError).pubsync(); });
}
