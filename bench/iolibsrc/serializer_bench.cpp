// Values through a whole stream against peers with the same values: in the network form in memory against XDR
// memory streams, through a file against the better of XDR stdio streams and QDataStream, and in the text
// form against the standard streams. Their curves are those of ints in memory.
#include <QDataStream>
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <benchmark/benchmark.h>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <rpc/xdr.h>
#include <sstream>
#include <streambuf>
#include <string>
#include <type_traits>
#include <vector>

#include <qel/base/btkbyteorder.h>
#include <qel/xiolib.h>

#include "curve.h"
#include "support/owned.h"

namespace {

// Values in a batch, which is one iteration.
constexpr int inMemory = 16384;
constexpr int inFile = 16384;
constexpr int inText = 2048;
const char* const text20 = "twenty bytes of text";

int IntAt(int i)
{
    return static_cast<int>(static_cast<unsigned>(i) * 2654435761u + 7);
}

double RealAt(int i)
{
    return i * 1.37 + 0.001;
}

// ---- one class for each kind of value and stream

struct Int
{
    using Item = int;
    static int At(int i) { return IntAt(i); }
    static constexpr int size = 4;
    static void Write(ioStream& s, int i) { s.WriteInt(IntAt(i)); }
    static void Read(ioStream& s) { benchmark::DoNotOptimize(s.ReadInt()); }
    static void Encode(XDR& x, int i)
    {
        int v = IntAt(i);
        if (!xdr_int(&x, &v))
            std::abort();
    }
    static void Decode(XDR& x)
    {
        int v;
        if (!xdr_int(&x, &v))
            std::abort();
        benchmark::DoNotOptimize(v);
    }
    static void Write(QDataStream& s, int i) { s << qint32(IntAt(i)); }
    static void Read(QDataStream& s)
    {
        qint32 v;
        s >> v;
        benchmark::DoNotOptimize(v);
    }
    static void Write(std::ostream& s, int i) { s << IntAt(i); }
    static void Read(std::istream& s)
    {
        int v;
        s >> v;
        benchmark::DoNotOptimize(v);
    }
};

struct Real
{
    using Item = double;
    static double At(int i) { return RealAt(i); }
    static constexpr int size = 8;
    static void Write(ioStream& s, int i) { s.WriteReal(RealAt(i)); }
    static void Read(ioStream& s) { benchmark::DoNotOptimize(s.ReadReal()); }
    static void Encode(XDR& x, int i)
    {
        double v = RealAt(i);
        if (!xdr_double(&x, &v))
            std::abort();
    }
    static void Decode(XDR& x)
    {
        double v;
        if (!xdr_double(&x, &v))
            std::abort();
        benchmark::DoNotOptimize(v);
    }
    static void Write(QDataStream& s, int i) { s << RealAt(i); }
    static void Read(QDataStream& s)
    {
        double v;
        s >> v;
        benchmark::DoNotOptimize(v);
    }
    static void Write(std::ostream& s, int i) { s << RealAt(i); }
    static void Read(std::istream& s)
    {
        double v;
        s >> v;
        benchmark::DoNotOptimize(v);
    }
};

struct String
{
    static constexpr int size = 24;
    static void Write(ioStream& s, int) { s.WriteString(text20); }
    static void Read(ioStream& s) { benchmark::DoNotOptimize(s.ReadString(nullptr)); }
    static void Encode(XDR& x, int)
    {
        char* v = const_cast<char*>(text20);
        if (!xdr_string(&x, &v, 1000))
            std::abort();
    }
    static void Decode(XDR& x) // into a new text, as readers of strings of unknown length do
    {
        char* v = nullptr;
        if (!xdr_string(&x, &v, 1000))
            std::abort();
        benchmark::DoNotOptimize(v);
        std::free(v);
    }
    static void Write(QDataStream& s, int) { s.writeBytes(text20, 20); }
    static void Read(QDataStream& s)
    {
        char* v;
        uint length;
        s.readBytes(v, length);
        benchmark::DoNotOptimize(v);
        delete[] v;
    }
};

// ---- in memory

Owned<ioStringStream> NewMemory(ioSerializer* form)
{
    Owned<ioStringStream> stream(ioStringStream::Create(xnullstr));
    stream->setSerializer(form);
    return stream;
}

template<class Value, class Stream>
void WriteAll(Stream& stream, int values)
{
    for (int i = 0; i < values; ++i)
        Value::Write(stream, i);
}

template<class Value, class Stream>
void ReadAll(Stream& stream, int values)
{
    for (int i = 0; i < values; ++i)
        Value::Read(stream);
}

double CpuSeconds()
{
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Into new memory for each batch: this library's grows, the peer allocates the right size.
template<class Value, int values = inMemory>
void encodeMemoryOurs(benchmark::State& state)
{
    for (auto _ : state)
        WriteAll<Value>(*NewMemory(ioSerializer::getXDR()), curveSize<values>(state));
}

template<class Value, int values = inMemory>
void encodeMemoryXdr(benchmark::State& state)
{
    const auto count = static_cast<unsigned>(curveSize<values>(state));
    for (auto _ : state) {
        const auto memory = std::make_unique_for_overwrite<char[]>(count * Value::size);
        XDR x;
        xdrmem_create(&x, memory.get(), count * Value::size, XDR_ENCODE);
        for (unsigned i = 0; i < count; ++i)
            Value::Encode(x, static_cast<int>(i));
        benchmark::ClobberMemory();
    }
}

// Arrays in one call.
template<class Value, class Item>
std::vector<Item> Items()
{
    std::vector<Item> items(inMemory);
    for (int i = 0; i < inMemory; ++i)
        items[static_cast<std::size_t>(i)] = static_cast<Item>(Value::At(i));
    return items;
}

template<class Value>
void encodeArrayOurs(benchmark::State& state)
{
    const auto items = Items<Value, typename Value::Item>();
    for (auto _ : state) {
        const auto stream = NewMemory(ioSerializer::getXDR());
        if constexpr (Value::size == 4)
            stream->WriteInts(items);
        else
            stream->WriteReals(items);
    }
}

template<class Value>
void encodeArrayXdr(benchmark::State& state)
{
    auto items = Items<Value, typename Value::Item>();
    const auto one =
        Value::size == 4 ? reinterpret_cast<xdrproc_t>(xdr_int) : reinterpret_cast<xdrproc_t>(xdr_double);
    for (auto _ : state) {
        const auto memory = std::make_unique_for_overwrite<char[]>(inMemory * Value::size);
        XDR x;
        xdrmem_create(&x, memory.get(), inMemory * Value::size, XDR_ENCODE);
        if (!xdr_vector(&x, reinterpret_cast<char*>(items.data()), inMemory, Value::size, one))
            std::abort();
        benchmark::ClobberMemory();
    }
}

template<class Value>
std::vector<char> Encoded(int values)
{
    std::vector<char> bytes(static_cast<std::size_t>(values) * Value::size);
    const auto stream = NewMemory(ioSerializer::getXDR());
    WriteAll<Value>(*stream, values);
    if (stream->ReadBytes(bytes.data(), static_cast<unsigned>(bytes.size())) != bytes.size())
        std::abort();
    return bytes;
}

template<class Value, int values = inMemory>
void decodeMemoryOurs(benchmark::State& state)
{
    const int count = curveSize<values>(state);
    const std::vector<char> bytes = Encoded<Value>(count);
    for (auto _ : state) {
        const auto stream = NewMemory(ioSerializer::getXDR());
        stream->WriteBytes(bytes.data(), static_cast<unsigned>(bytes.size()));
        const double start = CpuSeconds();
        ReadAll<Value>(*stream, count);
        state.SetIterationTime(CpuSeconds() - start);
    }
}

template<class Value, int values = inMemory>
void decodeMemoryXdr(benchmark::State& state)
{
    const int count = curveSize<values>(state);
    std::vector<char> bytes = Encoded<Value>(count);
    for (auto _ : state) {
        XDR x;
        xdrmem_create(&x, bytes.data(), static_cast<u_int>(bytes.size()), XDR_DECODE);
        const double start = CpuSeconds();
        for (int i = 0; i < count; ++i)
            Value::Decode(x);
        state.SetIterationTime(CpuSeconds() - start);
    }
}

// ---- through a file

struct Folder
{
    QTemporaryDir dir;
    std::string path = dir.filePath("values").toStdString();
};

template<class Value>
void FillFile(const std::string& path)
{
    const Owned<ioFileStream> stream(ioFileStream::Open(path.c_str(), ioWriteOnly));
    stream->setSerializer(ioSerializer::getXDR());
    WriteAll<Value>(*stream, inFile);
}

template<class Value>
void encodeFileOurs(benchmark::State& state)
{
    const Folder folder;
    FillFile<Value>(folder.path);
    const Owned<ioFileStream> stream(ioFileStream::Open(folder.path.c_str(), ioReadWrite));
    stream->setSerializer(ioSerializer::getXDR());
    for (auto _ : state) {
        stream->SeekOff(0, ioBegin);
        WriteAll<Value>(*stream, inFile);
        stream->Flush(1);
    }
}

template<class Value>
void decodeFileOurs(benchmark::State& state)
{
    const Folder folder;
    FillFile<Value>(folder.path);
    const Owned<ioFileStream> stream(ioFileStream::Open(folder.path.c_str(), ioReadOnly));
    stream->setSerializer(ioSerializer::getXDR());
    for (auto _ : state) {
        stream->SeekOff(0, ioBegin);
        ReadAll<Value>(*stream, inFile);
    }
}

template<class Value, xdr_op direction>
void fileXdr(benchmark::State& state)
{
    const Folder folder;
    FillFile<Value>(folder.path);
    std::FILE* const file = std::fopen(folder.path.c_str(), "r+");
    XDR x;
    xdrstdio_create(&x, file, direction);
    for (auto _ : state) {
        std::rewind(file);
        for (int i = 0; i < inFile; ++i) {
            if constexpr (direction == XDR_ENCODE)
                Value::Encode(x, i);
            else
                Value::Decode(x);
        }
        std::fflush(file);
    }
    xdr_destroy(&x);
    std::fclose(file);
}

template<class Value>
void encodeFileQt(benchmark::State& state)
{
    const Folder folder;
    FillFile<Value>(folder.path);
    QFile file(QString::fromStdString(folder.path));
    file.open(QIODevice::ReadWrite);
    QDataStream stream(&file);
    for (auto _ : state) {
        file.seek(0);
        WriteAll<Value>(stream, inFile);
        file.flush();
    }
}

template<class Value>
void decodeFileQt(benchmark::State& state)
{
    const Folder folder;
    FillFile<Value>(folder.path);
    QFile file(QString::fromStdString(folder.path));
    file.open(QIODevice::ReadOnly);
    QDataStream stream(&file);
    for (auto _ : state) {
        file.seek(0);
        ReadAll<Value>(stream, inFile);
    }
}

// ---- text, in memory

template<class Value, class Stream>
void WriteText(Stream& stream, int values)
{
    for (int i = 0; i < values; ++i) {
        Value::Write(stream, i);
        if constexpr (std::is_base_of_v<ioStream, Stream>)
            stream.WriteByte(' ');
        else
            stream.put(' ');
    }
}

template<class Value, int values = inText>
void writeTextOurs(benchmark::State& state)
{
    for (auto _ : state)
        WriteText<Value>(*NewMemory(ioSerializer::getAscii()), curveSize<values>(state));
}

template<class Value, int values = inText>
void writeTextStd(benchmark::State& state)
{
    for (auto _ : state) {
        std::ostringstream stream;
        WriteText<Value>(stream, curveSize<values>(state));
        benchmark::DoNotOptimize(stream.rdbuf());
    }
}

template<class Value>
std::string Text(int values)
{
    std::ostringstream stream;
    WriteText<Value>(stream, values);
    return stream.str();
}

template<class Value, int values = inText>
void readTextOurs(benchmark::State& state)
{
    const int count = curveSize<values>(state);
    const std::string text = Text<Value>(count);
    for (auto _ : state)
        ReadAll<Value>(*Owned<ioStringStream>(ioStringStream::Create(text.c_str())), count);
}

template<class Value, int values = inText>
void readTextStd(benchmark::State& state)
{
    const int count = curveSize<values>(state);
    const std::string text = Text<Value>(count);
    for (auto _ : state) {
        std::istringstream stream(text);
        ReadAll<Value>(stream, count);
    }
}

/// The least: a call for each value, which may fail, by its address as calls into a library are, and into a buffer of the
/// standard streams, whose memory grows. The form of the values is chosen at run time.
class LeastBuffer : public std::streambuf
{
public:
    LeastBuffer() = default;
    LeastBuffer(const LeastBuffer&) = delete;
    LeastBuffer& operator=(const LeastBuffer&) = delete;
    ~LeastBuffer() override { std::free(pbase()); }
    template<class Word>
    void Put(Word word)
    {
        if (static_cast<std::size_t>(epptr() - pptr()) < sizeof word)
            Grow();
        std::memcpy(pptr(), &word, sizeof word);
        pbump(sizeof word);
    }

private:
    [[gnu::noinline]] void Grow()
    {
        const auto used = static_cast<int>(pptr() - pbase()), room = std::max(256, 2 * used);
        char* const bytes = static_cast<char*>(std::realloc(pbase(), static_cast<std::size_t>(room)));
        if (bytes == nullptr)
            throw std::bad_alloc();
        setp(bytes, bytes + room);
        pbump(used);
    }
};

enum class Form : unsigned char { none, native, network };

template<class Word>
struct LeastStream
{
    static void Write(LeastStream& to, Word word)
    {
        if (to.form == Form::network) [[likely]]
            to.buffer->Put(btkNetworkOrder(word));
        else if (to.form == Form::native)
            to.buffer->Put(word);
        else
            std::abort();
    }

    LeastBuffer* buffer;
    Form form = Form::network;
};

template<class Value, class Word>
void encodeMemoryLeast(benchmark::State& state)
{
    for (auto _ : state) {
        LeastBuffer buffer;
        LeastStream<Word> stream{&buffer};
        benchmark::DoNotOptimize(stream);
        auto* write = &LeastStream<Word>::Write;
        benchmark::DoNotOptimize(write);
        for (int i = 0; i < inMemory; ++i)
            write(stream, std::bit_cast<Word>(Value::At(i)));
    }
}
BENCHMARK(encodeMemoryLeast<Int, std::uint32_t>)->Name("streams/xdr_encode_memory_int/the least");
BENCHMARK(encodeMemoryLeast<Real, std::uint64_t>)->Name("streams/xdr_encode_memory_real/the least");

#define BENCH_XDR(Value, name)                                                                              \
    BENCHMARK(encodeMemoryOurs<Value>)->Name("streams/xdr_encode_memory_" name "/qelstd");                  \
    BENCHMARK(encodeMemoryXdr<Value>)->Name("streams/xdr_encode_memory_" name "/xdrmem");                   \
    BENCHMARK(decodeMemoryOurs<Value>)->Name("streams/xdr_decode_memory_" name "/qelstd")->UseManualTime(); \
    BENCHMARK(decodeMemoryXdr<Value>)->Name("streams/xdr_decode_memory_" name "/xdrmem")->UseManualTime();  \
    BENCHMARK(encodeFileOurs<Value>)->Name("streams/xdr_encode_file_" name "/qelstd");                      \
    BENCHMARK(fileXdr<Value, XDR_ENCODE>)->Name("streams/xdr_encode_file_" name "/xdrstdio");               \
    BENCHMARK(encodeFileQt<Value>)->Name("streams/xdr_encode_file_" name "/QDataStream");                   \
    BENCHMARK(decodeFileOurs<Value>)->Name("streams/xdr_decode_file_" name "/qelstd");                      \
    BENCHMARK(fileXdr<Value, XDR_DECODE>)->Name("streams/xdr_decode_file_" name "/xdrstdio");               \
    BENCHMARK(decodeFileQt<Value>)->Name("streams/xdr_decode_file_" name "/QDataStream")
BENCH_XDR(Int, "int");
BENCH_XDR(Real, "real");
BENCH_XDR(String, "string20");
BENCHMARK(encodeArrayOurs<Int>)->Name("streams/xdr_encode_memory_ints_in_one_call/qelstd");
BENCHMARK(encodeArrayXdr<Int>)->Name("streams/xdr_encode_memory_ints_in_one_call/xdr_vector");
BENCHMARK(encodeArrayOurs<Real>)->Name("streams/xdr_encode_memory_reals_in_one_call/qelstd");
BENCHMARK(encodeArrayXdr<Real>)->Name("streams/xdr_encode_memory_reals_in_one_call/xdr_vector");

#define BENCH_TEXT(Value, name)                                                \
    BENCHMARK(writeTextOurs<Value>)->Name("streams/text_out_" name "/qelstd"); \
    BENCHMARK(writeTextStd<Value>)->Name("streams/text_out_" name "/std");     \
    BENCHMARK(readTextOurs<Value>)->Name("streams/text_in_" name "/qelstd");   \
    BENCHMARK(readTextStd<Value>)->Name("streams/text_in_" name "/std")
BENCH_TEXT(Int, "int");
BENCH_TEXT(Real, "real");

// ---- by size

std::unique_ptr<QByteArray> QtInts(std::int64_t n)
{
    auto bytes = std::make_unique<QByteArray>();
    QDataStream stream(bytes.get(), QIODevice::WriteOnly);
    WriteAll<Int>(stream, static_cast<int>(n));
    return bytes;
}

Owned<ioStringStream> OurInts(std::int64_t n)
{
    auto stream = NewMemory(ioSerializer::getXDR());
    WriteAll<Int>(*stream, static_cast<int>(n));
    return stream;
}

[[maybe_unused]] const bool added = [] {
    constexpr int last = 10'000'000, lastText = 1'000'000;
    addCurve("curves/encode ints in XDR", "qelstd", encodeMemoryOurs<Int, 0>, 100, last);
    addCurve("curves/encode ints in XDR", "xdrmem", encodeMemoryXdr<Int, 0>, 100, last);
    addCurve("curves/decode ints from XDR", "qelstd", decodeMemoryOurs<Int, 0>, 100, last)->UseManualTime();
    addCurve("curves/decode ints from XDR", "xdrmem", decodeMemoryXdr<Int, 0>, 100, last)->UseManualTime();
    addCurve("curves/write ints as text", "qelstd", writeTextOurs<Int, 0>, 100, lastText);
    addCurve("curves/write ints as text", "std::ostringstream", writeTextStd<Int, 0>, 100, lastText);
    addCurve("curves/read ints from text", "qelstd", readTextOurs<Int, 0>, 100, lastText);
    addCurve("curves/read ints from text", "std::istringstream", readTextStd<Int, 0>, 100, lastText);
    addMemoryCurve("curves of memory/ints in XDR", "qelstd", OurInts, 100, last);
    addMemoryCurve("curves of memory/ints in XDR", "QDataStream", QtInts, 100, last);
    return true;
}();

} // namespace
