
#include <qel/base/xstringbuf.h>
#include <qel/xrtti.h>

#include "iosupport.h"
#include "support/test.h"

namespace {

const std::string prefix = "Stream Error (iolib): ";
const std::string eofText = prefix + "EOF reached";
const std::string closedText = prefix + "stream not open";

// A concrete stream that counts its calls.
class CountingStream : public ioStream
{
public:
    CountingStream(bool writable, bool readable)
        : CountingStream(new xstringbuf("12345678", 8), writable, readable)
    {
    }
    ~CountingStream() override { Close(); }

    using ioStream::ThrowState;

    int closes = 0, textModes = 0, binaryModes = 0;

private:
    CountingStream(xstreambuf* made, bool writable, bool readable)
        : ioStream(ioSerializer::getAscii(), made, writable, readable), buffer(made)
    {
    }
    void OnClose() override
    {
        ++closes;
        delete buffer;
    }
    void SetTextMode() override { ++textModes; }
    void SetBinaryMode() override { ++binaryModes; }

    xstreambuf* buffer;
};

using Operation = std::function<void(ioStream&)>;

const std::vector<Operation> reads = {
    [](ioStream& s) { s.TryReadByte(); },
    [](ioStream& s) { s.TryReadInt(); },
    [](ioStream& s) { s.TryReadBool(); },
    [](ioStream& s) { s.TryReadReal(); },
    [](ioStream& s) { s.TryReadString(nullptr); },
    [](ioStream& s) { s.PeekNBytes(); },
    [](ioStream& s) { s.InputEvent(); },
    [](ioStream& s) { s.ReadByte(); },
    [](ioStream& s) { s.ReadInt(); },
    [](ioStream& s) { s.ReadBool(); },
    [](ioStream& s) { s.ReadReal(); },
    [](ioStream& s) { s.ReadString(nullptr); },
    [](ioStream& s) { s.ReadBytes(nullptr, 0); },
    [](ioStream& s) { s.WriteStream(Owned<ioStringStream>(ioStringStream::Create(xnullstr)).get()); },
    [](ioStream& s) { s.getWouldDataLost(); },
    [](ioStream& s) { s.Ignore(); },
};

const std::vector<Operation> writes = {
    [](ioStream& s) { s.TryWriteByte(1); },
    [](ioStream& s) { s.TryWriteInt(1); },
    [](ioStream& s) { s.TryWriteBool(1); },
    [](ioStream& s) { s.TryWriteReal(1); },
    [](ioStream& s) { s.TryWriteString("1"); },
    [](ioStream& s) { s.OutputEvent(); },
    [](ioStream& s) { s.WriteByte(1); },
    [](ioStream& s) { s.WriteInt(1); },
    [](ioStream& s) { s.WriteBool(1); },
    [](ioStream& s) { s.WriteReal(1); },
    [](ioStream& s) { s.WriteString("1"); },
    [](ioStream& s) { s.WriteBytes(nullptr, 0); },
    [](ioStream& s) { s.ReadStream(Owned<ioStringStream>(ioStringStream::Create("1")).get()); },
};

const std::vector<Operation> others = {
    [](ioStream& s) { s.SizeOfByte(1); },    [](ioStream& s) { s.SizeOf(1); },
    [](ioStream& s) { s.SizeOf(""); },       [](ioStream& s) { s.setSerializer(ioSerializer::getXDR()); },
    [](ioStream& s) { s.setITimeout(1); },   [](ioStream& s) { s.setOTimeout(1); },
    [](ioStream& s) { s.setIsFail(1); },     [](ioStream& s) { s.setIsBad(1); },
    [](ioStream& s) { s.getIsBuffered(); },  [](ioStream& s) { s.getBufferSize(); },
    [](ioStream& s) { s.setBufferSize(1); },
};

} // namespace

TEST(ioStream, ChecksOpenThenStateThenDirection)
{
    for (const auto* const operations : {&reads, &writes}) {
        const std::string denied = prefix + (operations == &reads ? "input denied" : "output denied");
        for (std::size_t i = 0; i < operations->size(); ++i) {
            SCOPED_TRACE(denied + " " + std::to_string(i));
            CountingStream stream(operations == &writes ? false : true, operations == &reads ? false : true);
            EXPECT_EQ(FailureOf([&] { (*operations)[i](stream); }), denied);
            stream.setIsFail(1);
            EXPECT_EQ(FailureOf([&] { (*operations)[i](stream); }), prefix + "conversion error");
            stream.Close();
            EXPECT_EQ(FailureOf([&] { (*operations)[i](stream); }), closedText);
            EXPECT_EQ(stream.closes, 1);
        }
    }
    for (const Operation& operation : others) {
        CountingStream stream(true, true);
        stream.Close();
        EXPECT_EQ(FailureOf([&] { operation(stream); }), closedText);
    }
}

TEST(ioStream, ClosesOnceAndKeepsItsFieldsReadable)
{
    CountingStream stream(true, true);
    stream.setITimeout(2.5);
    stream.Close();
    stream.Close();

    EXPECT_EQ(stream.closes, 1);
    EXPECT_EQ(stream.getIsOpen(), 0);
    EXPECT_EQ(stream.getITimeout(), 2.5);
    EXPECT_EQ(stream.getIsGood(), 1);
    EXPECT_EQ(stream.Flush(1), nullptr);
    EXPECT_EQ(FailureOf([&] { stream.Flush(0); }), prefix + "function \"non-blocking Flush\" not supported");
}

TEST(ioStream, ReportsUnsupportedOperations)
{
    CountingStream stream(true, true);
    const auto text = [](const std::string& name) {
        return prefix + "function \"" + name + "\" not supported";
    };

    EXPECT_EQ(FailureOf([&] { stream.getIsBuffered(); }), text("getIsBuffered"));
    EXPECT_EQ(FailureOf([&] { stream.getBufferSize(); }), text("getBufferSize"));
    EXPECT_EQ(FailureOf([&] { stream.setBufferSize(8); }), text("setBufferSize"));
    EXPECT_EQ(FailureOf([&] { stream.Ignore(); }), text("Ignore"));
    EXPECT_EQ(FailureOf([&] { stream.getWouldDataLost(); }), text("getWouldDataLost"));

    stream.setITimeout(5.0);
    stream.setOTimeout(0.0);
    EXPECT_EQ(FailureOf([&] { stream.ReadInt(); }), text("ITimeout != INFINITE"));
    EXPECT_EQ(FailureOf([&] { stream.WriteInt(1); }), text("OTimeout != INFINITE"));
    EXPECT_EQ(stream.TryReadByte(), ioSuccess);
    stream.setITimeout(INFINITE);
    EXPECT_EQ(stream.ReadInt(), 12345678);
}

TEST(ioStream, FormCanBeChosenUntilTheFirstTransfer)
{
    const std::string refused = prefix + "function \"\" can not be called in the current context";
    const auto becomesActive = [&](const Operation& operation) {
        CountingStream stream(true, true);
        operation(stream);
        return FailureOf([&] { stream.setSerializer(ioSerializer::getXDR()); }) == refused;
    };

    EXPECT_TRUE(becomesActive([](ioStream& s) { s.ReadByte(); }));
    EXPECT_TRUE(becomesActive([](ioStream& s) { s.TryReadInt(); }));
    EXPECT_TRUE(becomesActive([](ioStream& s) { s.PeekNBytes(); }));
    EXPECT_TRUE(becomesActive([](ioStream& s) { s.ReadBytes(nullptr, 0); }));
    EXPECT_TRUE(becomesActive([](ioStream& s) { s.WriteBytes(nullptr, 0); }));
    EXPECT_FALSE(becomesActive([](ioStream& s) { s.SizeOf(1); }));
    EXPECT_FALSE(becomesActive([](ioStream& s) { xdelete(s.InputEvent()); }));
    EXPECT_FALSE(becomesActive([](ioStream& s) { s.Flush(1); }));
    EXPECT_FALSE(becomesActive([](ioStream& s) {
        s.setITimeout(1);
        FailureOf([&] { s.ReadByte(); });
    }));

    CountingStream stream(true, true);
    stream.setSerializer(ioSerializer::getXDR());
    stream.setSerializer(ioSerializer::getAscii());
    EXPECT_EQ(stream.binaryModes, 1);
    EXPECT_EQ(stream.textModes, 1);
    EXPECT_EQ(FailureOf([&] { stream.setSerializer(nullptr); }), "another exception");
    EXPECT_EQ(stream.getSerializer(), ioSerializer::getAscii());
}

TEST(ioStream, WorksWithAnApplicationDefinedForm)
{
    struct Doubling : ioXDRSerializer
    {
        ioTryCode WrInt(int v, std::streambuf* sb) override { return ioXDRSerializer::WrInt(2 * v, sb); }
        ioTryCode WrByte(char, std::streambuf*) override { return ioNotSupported; }
    } form;
    const auto stream = MemoryStream(&form);

    stream->WriteInt(1);
    stream->WriteInt(21);
    stream->WriteString("ab"); // its length is an int of the form
    EXPECT_EQ(stream->ReadInt(), 2);
    EXPECT_EQ(stream->ReadInt(), 42);
    EXPECT_EQ(stream->ReadInt(), 4);
    EXPECT_EQ(FailureOf([&] { stream->WriteByte(1); }), prefix + "function \"\" not supported");
}

TEST(ioStream, FailuresPersistUntilTheyAreCleared)
{
    CountingStream stream(true, true);
    stream.ReadInt();
    EXPECT_EQ(FailureOf([&] { stream.ReadInt(); }), eofText);
    EXPECT_EQ(stream.getIsEof(), 1);
    EXPECT_EQ(stream.getIsGood(), 0);
    EXPECT_EQ(FailureOf([&] { stream.WriteInt(1); }), eofText);

    stream.setIsFail(0);
    EXPECT_EQ(stream.getIsGood(), 1);
    EXPECT_EQ(FailureOf([&] { stream.WriteInt(1); }), prefix + "I/O error"); // the buffer accepts nothing
    EXPECT_EQ(stream.getIsBad(), 1);
    stream.setIsFail(1);
    EXPECT_EQ(stream.getIsFail(), 1);
    stream.setIsBad(0);
    EXPECT_EQ(stream.getIsGood(), 1);

    EXPECT_EQ(FailureOf([&] { stream.ThrowState(0x10); }), prefix + "data lost");
    EXPECT_EQ(stream.getIsDataLost(), 1);
    EXPECT_EQ(FailureOf([&] { stream.ThrowState(0x08); }), prefix + "timeout expired");
    EXPECT_EQ(stream.getIsTimeout(), 1);
    EXPECT_EQ(FailureOf([&] { stream.ThrowState(0x02); }), prefix + "conversion error");
    EXPECT_EQ(FailureOf([&] { stream.ThrowState(0x04); }), prefix + "I/O error");
    EXPECT_EQ(FailureOf([&] { stream.ThrowState(0x01); }), eofText);
    stream.setIsBad(0);
    EXPECT_EQ(FailureOf([&] { stream.ThrowState(0); }), prefix + "unknown error");
}

TEST(ioStream, TriesWithoutConsuming)
{
    const Owned<ioStringStream> stream(ioStringStream::Create(" 12 T x"));

    EXPECT_EQ(stream->TryReadInt(), ioSuccess);
    EXPECT_EQ(stream->TryReadReal(), ioSuccess);
    EXPECT_EQ(stream->TryReadBool(), ioFormatError);
    EXPECT_EQ(stream->TryReadString(" "), ioSuccess);
    EXPECT_EQ(stream->getIsGood(), 1);
    EXPECT_EQ(stream->PeekNBytes(), 7u);
    EXPECT_EQ(stream->ReadInt(), 12);
    EXPECT_EQ(stream->TryReadBool(), ioSuccess);
    stream->ReadBool();
    stream->ReadByte();
    EXPECT_EQ(stream->TryReadByte(), ioEndOfFile);
    EXPECT_EQ(stream->PeekNBytes(), 0u);
    EXPECT_EQ(stream->getIsGood(), 1);

    const auto memory = MemoryStream(ioSerializer::getXDR());
    EXPECT_EQ(memory->TryWriteInt(1), ioNotSupported);
    EXPECT_EQ(memory->OutputEvent(), nullptr);
    const Owned<ioEvent> input(memory->InputEvent());
    EXPECT_EQ(input->getIsSignaled(), 1);
}

TEST(ioStream, ReadsAndWritesRawBytes)
{
    const auto stream = MemoryStream(ioSerializer::getAscii());
    stream->WriteBytes(" \n1", 3);
    stream->WriteByte(0xE4);

    char bytes[9] = "........";
    EXPECT_EQ(stream->ReadBytes(bytes, 0), 0u);
    EXPECT_EQ(stream->ReadBytes(bytes, 3), 3u);
    EXPECT_EQ(std::string(bytes, 4), " \n1.");
    EXPECT_EQ(stream->ReadByte(), static_cast<signed char>(0xE4));
    stream->WriteByte('a');
    EXPECT_EQ(stream->ReadBytes(bytes, 8), 1u);
    EXPECT_EQ(FailureOf([&] { stream->ReadBytes(bytes, 8); }), eofText);
}

TEST(CopyStream, CopiesTheRestUnchanged)
{
    const Owned<ioStringStream> from(ioStringStream::Create("x 1\n2  "));
    const auto to = MemoryStream(ioSerializer::getAscii());
    from->ReadByte();

    to->ReadStream(from.get());
    EXPECT_EQ(textOf(to->getStr()), " 1\n2  ");
    from->WriteStream(to.get()); // the end is not a failure
    EXPECT_EQ(from->getIsGood(), 1);

    to->ReadByte();
    CopyStream(to.get(), to.get());
    EXPECT_EQ(textOf(to->getStr()), " 1\n2  \n2  ");
}

TEST(CopyStream, ReportsTheStreamConcerned)
{
    const Owned<ioStringStream> from(ioStringStream::Create("12"));
    const auto binary = MemoryStream(ioSerializer::getBinary());
    CountingStream full(true, true);

    EXPECT_EQ(FailureOf([&] { CopyStream(binary.get(), from.get()); }), prefix + "incompatible format");
    EXPECT_EQ(FailureOf([&] { CopyStream(from.get(), from.get()); }), prefix + "output denied");
    EXPECT_EQ(FailureOf([&] { CopyStream(nullptr, from.get()); }), "another exception");
    EXPECT_EQ(describeThrown<ioXStream>([&] { CopyStream(&full, from.get()); },
                                        [&](ioXStream* failure) {
                                            EXPECT_EQ(failure->getStream(), &full);
                                            EXPECT_EQ(failure->getError(), ioStreamState);
                                            return textOf(failure->getMsg());
                                        }),
              prefix + "I/O error");
    EXPECT_EQ(full.getIsBad(), 1);
    EXPECT_EQ(from->ReadInt(), 12); // unwritten input is kept
}

TEST(ioXStream, OutlivesItsStream)
{
    xthrowable* kept = nullptr;
    {
        CountingStream stream(false, true);
        try {
            stream.WriteInt(1);
        } catch (xthrowable* thrown) {
            kept = thrown;
        }
    }
    ioXStream* const failure = ioXStream::cast(kept);
    EXPECT_EQ(failure->getStream(), nullptr);
    EXPECT_EQ(textOf(failure->getMsg()), prefix + "output denied");
    xrttiattr* const msg = xrttistruct::cast(failure->getRtti())->findAttr("Msg", 0);
    EXPECT_EQ(textOf(msg->getValue(failure)), prefix + "output denied");
    xdelete(failure);

    CountingStream stream(true, true);
    ioXStream strange(&stream, static_cast<ioError>(9), "detail");
    EXPECT_EQ(textOf(strange.getMsg()), prefix + "unknown error");
}

TEST(StandardStreams, AreCreatedOnceAndWrite)
{
    EXPECT_EQ(ioStream::getStdout(), ioStream::getStdout());
    EXPECT_EQ(ioStream::getStdin()->getCanWrite(), 0);
    EXPECT_EQ(ioStream::getStderr()->getCanRead(), 0);
    EXPECT_EQ(ioStream::getStdin()->getSerializer(), ioSerializer::getAscii());

    testing::internal::CaptureStdout();
    ioStream::getStdout()->WriteInt(17);
    ioStream::getStdout()->WriteString(" texts\n");
    ioStream::getStdout()->Flush(1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "17 texts\n");

    EXPECT_DEATH(ioStream::setStdin(nullptr), "qel/qelstd/iolibsrc/xiolib");
    EXPECT_DEATH(ioStream::setStdout(nullptr), "qel/qelstd/iolibsrc/xiolib");
    EXPECT_DEATH(ioStream::setStderr(nullptr), "qel/qelstd/iolibsrc/xiolib");
}
