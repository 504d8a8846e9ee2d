// The bytes of values in the three forms that a stream can have.

#include <cstdio>

#include <qel/qelown.h>
#include <qel/xiolib.h>
#include <qel/xstring.h>

namespace {

// sample dump
template<class Write>
void dump(const char* what, Write write)
{
    std::printf("%-18s", what);
    for (ioSerializer* const form :
         {ioSerializer::getAscii(), ioSerializer::getBinary(), ioSerializer::getXDR()}) {
        const qel::owned<ioStringStream> stream(ioStringStream::Create(xnullstr));
        stream->setSerializer(form);
        write(*stream);
        int width = form == ioSerializer::getAscii() ? 34 : 25;
        for (unsigned left = stream->PeekNBytes(); left > 0; --left)
            width -= std::printf(" %02x", static_cast<unsigned char>(stream->ReadByte()));
        std::printf("%*s", form == ioSerializer::getXDR() ? 0 : width, "");
    }
    std::printf("\n");
}
// end

} // namespace

int main()
{
    std::printf("%-18s %-34s%-25s%s\n", "", "ASCII", "binary", "XDR");
    dump("byte 0x41", [](ioStream& s) { s.WriteByte(0x41); });
    dump("int 258", [](ioStream& s) { s.WriteInt(258); });
    dump("int -1", [](ioStream& s) { s.WriteInt(-1); });
    dump("int null", [](ioStream& s) { s.WriteInt(xnullint); });
    dump("bool true", [](ioStream& s) { s.WriteBool(1); });
    dump("bool false", [](ioStream& s) { s.WriteBool(0); });
    dump("bool null", [](ioStream& s) { s.WriteBool(xnullbool); });
    dump("real 1.5", [](ioStream& s) { s.WriteReal(1.5); });
    dump("real -1e300", [](ioStream& s) { s.WriteReal(-1e300); });
    dump("real null", [](ioStream& s) { s.WriteReal(xnullreal); });
    dump("string \"hi\"", [](ioStream& s) { s.WriteString("hi"); });
    dump("string \"\", null", [](ioStream& s) { s.WriteString(nullptr); });
}
