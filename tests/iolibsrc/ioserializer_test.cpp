#include <array>
#include <bit>
#include <cmath>

#include <qel/qelown.h>
#include <qel/xrtti.h>

#include "iosupport.h"
#include "support/test.h"
#include "support/texts.h"
#include "support/thrown.h"

using namespace std::literals;

namespace {

// The bytes that `write` puts into a stream of the form `serializer`.
template<class Write>
std::string Written(ioSerializer* serializer, Write write)
{
    const auto stream = MemoryStream(serializer);
    write(*stream);
    return RestOf(*stream);
}

ioSerializer* const binary = ioSerializer::getBinary();
ioSerializer* const xdr = ioSerializer::getXDR();
ioSerializer* const ascii = ioSerializer::getAscii();

// A stream of the form `serializer` that holds `bytes`.
Owned<ioStringStream> Holding(ioSerializer* serializer, const std::string& bytes)
{
    auto stream = MemoryStream(serializer);
    stream->WriteBytes(bytes.data(), static_cast<unsigned>(bytes.size()));
    return stream;
}

// The bytes of a number, given from the highest to the lowest, in this machine's order.
std::string Native(const std::string& hex)
{
    const std::string bytes = Hex(hex);
    return std::endian::native == std::endian::big ? bytes : std::string(bytes.rbegin(), bytes.rend());
}

// The text form's operations, for any buffer.
struct Ascii : ioAsciiSerializer
{
    using ioAsciiSerializer::RdBool;
    using ioAsciiSerializer::RdByte;
    using ioAsciiSerializer::RdInt;
    using ioAsciiSerializer::RdReal;
    using ioAsciiSerializer::RdString;
    using ioAsciiSerializer::WrReal;
};

// A buffer that shows a text in parts of `size` bytes; 0: without a get area.
class PartBuffer : public std::streambuf
{
public:
    PartBuffer(std::string all, std::size_t size) : text(std::move(all)), part(size) {}
    std::string Rest() const { return std::string(gptr(), egptr()) + text.substr(at); }

protected:
    int_type underflow() override
    {
        if (at == text.size())
            return EOF;
        if (part == 0)
            return static_cast<unsigned char>(text[at]);
        const std::size_t size = std::min(part, text.size() - at);
        setg(text.data() + at, text.data() + at, text.data() + at + size);
        at += size;
        return static_cast<unsigned char>(*gptr());
    }
    int_type uflow() override
    {
        if (part != 0)
            return std::streambuf::uflow();
        return at == text.size() ? EOF : static_cast<unsigned char>(text[at++]);
    }

private:
    std::string text;
    std::size_t at = 0;
    std::size_t part;
};

// The status that corresponds to a standard stream's state after a conversion.
ioTryCode CodeOf(const std::istream& stream)
{
    return !stream.fail() ? ioSuccess : stream.eof() ? ioEndOfFile : ioFormatError;
}

std::string RestOf(std::istream& stream)
{
    stream.clear();
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

// Compares reading a V from `input` with a standard stream's result.
template<class V>
void CompareWithStandard(const std::string& input, ioTryCode (Ascii::*read)(V&, std::streambuf*))
{
    std::istringstream standard(input);
    V expected{};
    standard >> expected;
    const ioTryCode code = CodeOf(standard);
    const std::string rest = RestOf(standard);
    for (const std::size_t part : {std::size_t(0), std::size_t(1), std::size_t(3), input.size() + 1}) {
        SCOPED_TRACE("'" + input + "' in parts of " + std::to_string(part));
        Ascii form;
        PartBuffer buffer(input, part);
        V value{};
        ASSERT_EQ((form.*read)(value, &buffer), code);
        if (code == ioSuccess) {
            ASSERT_EQ(std::memcmp(&value, &expected, sizeof value), 0) << value << " " << expected;
        }
        ASSERT_EQ(buffer.Rest(), rest);
    }
}

} // namespace

TEST(BinaryForm, HasNativeByteOrder)
{
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteByte(0xC7); }), Hex("C7"));
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteInt(1); }), Native("00 00 00 01"));
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteInt(-2); }), Native("FF FF FF FE"));
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteBool(1); }), Hex("01"));
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteBool(77); }), Hex("4D"));
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteReal(1.0); }), Native("3F F0 00 00 00 00 00 00"));
    // length, bytes
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteString("abc"); }), Native("00 00 00 03") + "abc");
    EXPECT_EQ(Written(binary, [](ioStream& s) { s.WriteString(""); }), Hex("00 00 00 00"));
}

TEST(XDRForm, IsInNetworkOrder)
{
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteByte(-1); }), Hex("FF"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteInt(1); }), Hex("00 00 00 01"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteInt(-2); }), Hex("FF FF FF FE"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteBool(1); }), Hex("00 00 00 01"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteBool(xuninitbool); }), Hex("00 00 00 81"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteReal(1.0); }), Hex("3F F0 00 00 00 00 00 00"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteReal(xnullreal); }), Hex("5A 17 A2 EC C4 14 A0 40"));
    // length, bytes, no padding
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteString("abc"); }), Hex("00 00 00 03 61 62 63"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteString(nullptr); }), Hex("00 00 00 00"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteString(xnullstr); }), Hex("00 00 00 00"));
    EXPECT_EQ(Written(xdr, [](ioStream& s) { s.WriteString(xuninitstr); }), Hex("00 00 00 00"));
}

TEST(AsciiForm, WritesTextWithoutSeparators)
{
    EXPECT_EQ(Written(ascii,
                      [](ioStream& s) {
                          s.WriteInt(12);
                          s.WriteInt(34);
                          s.WriteByte(' ');
                          s.WriteInt(xnullint);
                          s.WriteBool(1);
                          s.WriteBool(0);
                          s.WriteReal(0.1 + 0.2);
                          s.WriteByte(',');
                          s.WriteReal(1e20);
                          s.WriteString("");
                          s.WriteString("a b");
                      }),
              "1234 -2147483648TF0.3,1e+20a b");
}

TEST(Serializers, ReadBackWhatTheyWrote)
{
    const std::string large(70001, 'l');
    for (ioSerializer* const form : {binary, xdr}) {
        const auto stream = MemoryStream(form);
        stream->WriteInt(xuninitint);
        stream->WriteBool(xnullbool);
        stream->WriteReal(-0.0);
        stream->WriteReal(std::numeric_limits<double>::denorm_min());
        stream->WriteString("");
        stream->WriteString("text");
        stream->WriteString(large.c_str());
        stream->WriteByte(-3);

        EXPECT_EQ(stream->ReadInt(), xuninitint);
        EXPECT_EQ(stream->ReadBool(), xnullbool);
        EXPECT_TRUE(std::signbit(stream->ReadReal()));
        EXPECT_EQ(stream->ReadReal(), std::numeric_limits<double>::denorm_min());
        EXPECT_EQ(textOf(stream->ReadString(nullptr)), "");
        EXPECT_EQ(textOf(stream->ReadString("x")), "text");
        EXPECT_EQ(textOf(stream->ReadString(nullptr)), large);
        EXPECT_EQ(stream->ReadByte(), -3);
    }
    EXPECT_EQ(Holding(xdr, Hex("12 34 56 02"))->ReadBool(), 2); // the low byte counts
}

TEST(Serializers, WriteEveryKindOfText)
{
    const auto stream = MemoryStream(ascii);
    const char characters[] = "array";

    stream->WriteString("literal ");
    stream->WriteString(u"gr\u00FCn ");
    stream->WriteString(u8"\u20AC ");
    stream->WriteString("std "s);
    stream->WriteString(u"wide "s);
    stream->WriteString("view, not this"sv.substr(0, 4));
    stream->WriteString(xstring(" xstring "));
    stream->WriteString(characters);
    stream->WriteString(nullptr);
    stream->WriteString(xstring());
    stream->WriteString(std::string_view());
    EXPECT_EQ(stream->TryWriteString(u"."), stream->TryWriteString(".")); // not supported here

    EXPECT_EQ(RestOf(*stream), "literal gr\u00FCn \u20AC std wide view xstring array");
    EXPECT_EQ(RestOf(*qel::own(ioStringStream::Create("42 "s))), "42 ");
}

TEST(Serializers, TransferArraysLikeSingleValues)
{
    std::vector<int> ints(3000); // more than one part
    std::vector<double> reals(1500);
    for (std::size_t i = 0; i < ints.size(); ++i)
        ints[i] = static_cast<int>(i * 2654435761u);
    for (std::size_t i = 0; i < reals.size(); ++i)
        reals[i] = static_cast<double>(i) * 1.25;
    for (ioSerializer* const form : {binary, xdr}) {
        const auto one = MemoryStream(form), all = MemoryStream(form);
        for (const int v : ints)
            one->WriteInt(v);
        for (const double v : reals)
            one->WriteReal(v);
        all->WriteInts(ints);
        all->WriteReals(reals);
        all->WriteInts(nullptr, 0);
        const std::string bytes = RestOf(*one);
        EXPECT_EQ(RestOf(*all), bytes);

        const auto stream = Holding(form, bytes);
        std::vector<int> readInts(ints.size());
        std::vector<double> readReals(reals.size());
        stream->ReadInts(readInts);
        stream->ReadReals(readReals);
        EXPECT_EQ(readInts, ints);
        EXPECT_EQ(readReals, reals);
        EXPECT_EQ(thrownBy([&] { stream->ReadInts(readInts.data(), 1); }), "iolib::XStream");
        EXPECT_TRUE(stream->getIsEof());
        EXPECT_EQ(thrownBy([&] { stream->WriteInts(ints); }), "iolib::XStream");
    }
    const auto text = Holding(ascii, "12 -3 0.5 ");
    std::array<int, 2> two;
    std::array<double, 1> real;
    text->ReadInts(two);
    text->ReadReals(real);
    EXPECT_TRUE(two == (std::array{12, -3}) && real[0] == 0.5);
}

TEST(Serializers, RejectImpossibleLengths)
{
    for (const char* const length : {"FF FF FF FF", "80 00 00 00"}) {
        const auto stream = Holding(xdr, Hex(length) + "abc");
        EXPECT_EQ(FailureOf([&] { stream->ReadString(nullptr); }), "Stream Error (iolib): conversion error");
        EXPECT_EQ(stream->getIsFail(), 1);
    }
    // The length exceeds the input: memory grows with the received bytes only.
    for (const char* const length : {"00 00 00 04", "00 01 00 01", "7F FF FF FF"}) {
        const auto stream = Holding(xdr, Hex(length) + "abc");
        EXPECT_EQ(FailureOf([&] { stream->ReadString(nullptr); }), "Stream Error (iolib): EOF reached");
    }
    EXPECT_EQ(FailureOf([] { Holding(binary, Hex("01 02 03"))->ReadInt(); }),
              "Stream Error (iolib): EOF reached");
    EXPECT_EQ(FailureOf([] { Holding(xdr, Hex("01 02 03 04 05 06 07"))->ReadReal(); }),
              "Stream Error (iolib): EOF reached");
}

TEST(Serializers, EndAStringAtItsFirstZeroAndConsumeItWhole)
{
    const auto stream = Holding(xdr, Hex("00 00 00 04 61 00 62 63 00 00 00 07"));
    EXPECT_EQ(textOf(stream->ReadString(nullptr)), "a");
    EXPECT_EQ(stream->ReadInt(), 7);
}

TEST(Serializers, ReportTheSizesOfValues)
{
    const auto text = MemoryStream(ascii);
    EXPECT_EQ(text->SizeOfByte('x'), 1);
    EXPECT_EQ(text->SizeOf(-12), 3);
    EXPECT_EQ(text->SizeOf(xnullbool), 1);
    EXPECT_EQ(text->SizeOf(0.5), 3);
    EXPECT_EQ(text->SizeOf("abc"), 3);
    const auto network = MemoryStream(xdr);
    EXPECT_EQ(network->SizeOfByte('x'), 1);
    EXPECT_EQ(network->SizeOf(-12), 4);
    EXPECT_EQ(network->SizeOf(xnullbool), 4);
    EXPECT_EQ(network->SizeOf(0.5), 8);
    EXPECT_EQ(network->SizeOf("abc"), 7);
    EXPECT_EQ(network->SizeOf(xnullstr), 4);
    const auto native = MemoryStream(binary);
    EXPECT_EQ(native->SizeOf(xnullbool), 1);
    EXPECT_EQ(native->SizeOf("abc"), 7);
    EXPECT_EQ(native->SizeOf(0.5), 8);
}

TEST(Serializers, ReportThatTheReaderIsClosed)
{
    const std::string large(100000, 'x');
    const std::function<void(ioStream&)> writes[] = {
        [](ioStream& stream) { stream.WriteByte('x'); },
        [](ioStream& stream) { stream.WriteInt(1); },
        [](ioStream& stream) { stream.WriteReal(0.5); },
        [](ioStream& stream) { stream.WriteBool(1); },
        [](ioStream& stream) { stream.WriteString("text"); },
        [&](ioStream& stream) { stream.WriteString(large.c_str()); },
        [&](ioStream& stream) { stream.WriteBytes(large.data(), 100000); },
    };
    for (ioSerializer* const form : {ascii, binary, xdr})
        for (const auto& write : writes) {
            const Owned<ioPipe> pipe(ioPipe::Create());
            ioStream& stream = *pipe->getWriteEnd();
            stream.setSerializer(form);
            pipe->getReadEnd()->Close();
            EXPECT_EQ(thrownBy([&] { write(stream); }), "iolib::XStream");
            EXPECT_NE(stream.getIsBad(), 0);
        }
}

TEST(AsciiForm, ReadsIntsLikeAStandardStream)
{
    for (const char* const input :
         {"",     " ",          "12",         "  -34x",       "+5 ",           "-",
          "+-1",  "2147483647", "2147483648", "-2147483648 ", "-2147483649",   "99999999999999999999 1",
          "0x1A", "00012",      "-0",         "1,000",        "\t\n\v\f\r7\n", "1.5",
          "T",    "4294967297 "})
        CompareWithStandard<int>(input, &Ascii::RdInt);
}

TEST(AsciiForm, ReadsRealsLikeAStandardStream)
{
    for (const std::string& input :
         textsOf("| |1.5| -2.25e2x|+.5 |.|-.e5|1e|1e+ |1e5.3|1.2.3|1e400 |-1e400 |1e-400 |-1e-400|"
                 "4.9e-324 |2e-324 |0.0000e999999999999999999999 |1e99999999999999999999 |"
                 "1e-99999999999999999999 |inf|nan|0x1p3|000123.4500 |-00.5 |1,5|1e5e5|"
                 "0.1234567890123456789012345678901234567890 |9007199254740993 |"
                 "123456789012345678901234567890 "))
        CompareWithStandard<double>(input, &Ascii::RdReal);
}

TEST(AsciiForm, ReadsRandomTextsLikeAStandardStream)
{
    std::mt19937 random(20);
    const std::string letters = "0011234567899+-..eE  \nxT";
    for (int i = 0; i < 8000; ++i) {
        std::string input(random() % 14, ' ');
        for (char& c : input)
            c = letters[random() % letters.size()];
        CompareWithStandard<int>(input, &Ascii::RdInt);
        CompareWithStandard<double>(input, &Ascii::RdReal);
        CompareWithStandard<char>(input, &Ascii::RdByte);
        ASSERT_FALSE(HasFatalFailure());
    }
}

TEST(AsciiForm, WritesRealsLikeAStandardStream)
{
    std::mt19937_64 random(4);
    std::ostringstream standard;
    Ascii form;
    std::stringbuf ours;
    for (int i = 0; i < 20000; ++i) {
        const double value = i % 2 == 0 ? std::bit_cast<double>(random())
                                        : static_cast<double>(static_cast<int>(random())) / 1000;
        standard << value << ' ';
        ASSERT_EQ(form.WrReal(value, &ours), ioSuccess);
        ours.sputc(' ');
    }
    EXPECT_EQ(ours.str(), standard.str());
}

TEST(AsciiForm, ReadsBoolsAndBytesAfterWhiteSpace)
{
    EXPECT_EQ(Holding(ascii, "  T")->ReadBool(), 1);
    EXPECT_EQ(Holding(ascii, "\nF")->ReadBool(), 0);
    EXPECT_EQ(Holding(ascii, " q")->ReadByte(), 'q');
    EXPECT_EQ(FailureOf([] { Holding(ascii, "x")->ReadBool(); }), "Stream Error (iolib): conversion error");
    EXPECT_EQ(FailureOf([] { Holding(ascii, " ")->ReadBool(); }), "Stream Error (iolib): EOF reached");
}

TEST(AsciiForm, ReadsStringsUpToTheirDelimiter)
{
    for (const std::size_t part : {0, 1, 2, 100}) {
        Ascii form;
        PartBuffer buffer(" \n a,b\nline two\n\nlast", part);
        xstring s("old");
        EXPECT_EQ(form.RdString(s, &buffer, ","), ioSuccess);
        EXPECT_EQ(textOf(s), "a");
        EXPECT_EQ(form.RdString(s, &buffer, ",;"), ioFormatError);
        EXPECT_EQ(textOf(s), "a");
        EXPECT_EQ(form.RdString(s, &buffer, xnullstr), ioSuccess);
        EXPECT_EQ(textOf(s), ",b");
        EXPECT_EQ(form.RdString(s, &buffer, ""), ioSuccess);
        EXPECT_EQ(textOf(s), "line two");
        EXPECT_EQ(form.RdString(s, &buffer, nullptr), ioSuccess);
        EXPECT_EQ(textOf(s), "last");
        EXPECT_EQ(form.RdString(s, &buffer, nullptr), ioEndOfFile);
        EXPECT_EQ(textOf(s), "last");
    }
}

TEST(Serializers, AreSharedAndDescribed)
{
    EXPECT_EQ(ioSerializer::getXDR(), ioSerializer::getXDR());
    EXPECT_NE(binary, xdr);

    auto* const type = xrttistruct::cast(ioSerializer::getClassRtti());
    ASSERT_EQ(type->getNAttrs(), 3);
    EXPECT_EQ(textOf(type->getAttr(2)->getName()), "XDR");
    EXPECT_EQ(static_cast<xobject*>(type->getAttr(2)->getValue(ascii)), qelObjectOf(xdr));
}
