#include <qel/base/xpipebuf.h>

xoutputbuf::int_type xoutputbuf::overflow(int_type byte)
{
    if (traits_type::eq_int_type(byte, traits_type::eof()))
        return traits_type::not_eof(byte);
    const char written = traits_type::to_char_type(byte);
    return btkWrite(target, &written, 1) == 1 ? byte : traits_type::eof();
}

std::streamsize xoutputbuf::xsputn(const char* from, std::streamsize count)
{
    return static_cast<std::streamsize>(
        btkWrite(target, from, count < 0 ? 0 : static_cast<std::size_t>(count)));
}

std::streambuf* xoutputbuf::OnGetTryOBuf()
{
    bool broken = false;
    const std::size_t room = btkCountWritable(target, broken);
    tryArea.SetRoom(room, broken);
    return &tryArea;
}
