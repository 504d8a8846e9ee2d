#include <bit>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <locale>
#include <regex>

#include <qel/qelprint.h>
#include <qel/xrtti.h>
#include <qel/xsequence.h>

#include "services/testtypes.h"
#include "support/tempdir.h"
#include "support/test.h"

using namespace testtypes;

namespace {

std::string printed(const xany& value, int step = 2)
{
    std::ostringstream os;
    qelPrint(value, os, step);
    return os.str();
}

/// Captures the output to a standard stream during its lifetime.
class Captured
{
public:
    explicit Captured(std::ostream& stream) : os(stream), old(stream.rdbuf(text.rdbuf())) {}
    ~Captured() { os.rdbuf(old); }
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;
    std::string str() const { return text.str(); }

private:
    std::ostringstream text;
    std::ostream& os;
    std::streambuf* const old;
};

/// A buffer that records where it was flushed, and holds `room` characters.
class FlushedBuffer final : public std::stringbuf
{
public:
    explicit FlushedBuffer(std::size_t characters = 1000) : room(characters) {}
    std::string flushed;

private:
    int sync() override
    {
        flushed += std::to_string(str().size()) + " ";
        return 0;
    }
    std::streamsize xsputn(const char* text, std::streamsize n) override
    {
        return str().size() + static_cast<std::size_t>(n) > room ? 0 : std::stringbuf::xsputn(text, n);
    }

    std::size_t room;
};

} // namespace

TEST(qelPrint, WritesSimpleValues)
{
    EXPECT_EQ(printed(xany()), "");
    EXPECT_EQ(printed(xany(nullptr)), "nil");
    EXPECT_EQ(printed(xany(-2147483646)), "-2147483646");
    EXPECT_EQ(printed(xany(true)), "true");
    EXPECT_EQ(printed(xany(false)), "false");
    EXPECT_EQ(printed(xany(1234567.0)), "1.23457e+06");
    EXPECT_EQ(printed(xany("a \"b\"\n")), "\"a \"b\"\n\"");
    EXPECT_EQ(printed(xany(green, qelGetRtti_Colour())), "green");
    EXPECT_EQ(printed(xany(17, qelGetRtti_Colour())), "nil");
}

TEST(qelPrint, LeavesTheFormatOfRealsToTheStream)
{
    class Comma final : public std::numpunct<char>
    {
        char do_decimal_point() const override { return ','; }
    };
    std::ostringstream fixed, upper, wide, comma, plain;
    fixed << std::fixed << std::setprecision(1) << std::hex;
    upper << std::uppercase << std::showpos;
    wide.width(12);
    comma.imbue(std::locale(std::locale::classic(), new Comma));

    std::mt19937_64 random(1);
    constexpr double infinity = std::numeric_limits<double>::infinity();
    std::vector<double> reals = {0.0,  -0.0,   0.1,   1e-5,     123456.0,  1234567.0,   999999.5,
                                 1e21, 5e-324, 1e308, infinity, -infinity, std::nan("")};
    for (int i = 0; i < 2000; ++i)
        reals.push_back(std::bit_cast<double>(random()));
    for (const double real : reals)
        for (std::ostringstream* stream : {&fixed, &upper, &wide, &comma, &plain}) {
            std::ostringstream wanted;
            wanted.copyfmt(*stream);
            wanted << real;
            stream->str("");
            qelPrint(real, *stream, 2);
            ASSERT_EQ(stream->str(), wanted.str());
        }

    std::ostringstream integers;
    integers << std::hex << std::showbase;
    qelPrint(new Pair(0.25, 255), integers, -1);
    EXPECT_EQ(integers.str(), "test::Pair { Left : 0.25 Right : 255 }");
}

TEST(qelPrint, WritesAnUninitValueOnlyOnRequest)
{
    std::ostringstream os;
    qelPrintTraverser printer(os, 2);
    printer.simpleValue(xany());
    printer.simpleValue(xany(red, qelGetRtti_Colour()));
    EXPECT_EQ(os.str(), "uninit<ERROR: Invalid simple value>");
}

TEST(qelPrint, IndentsByTheStep)
{
    const xrchandle<Pair> pair(new Pair("h", xany(new Person("Ann", 80))));

    const std::string indented = printed(pair);
    EXPECT_EQ(indented, "test::Pair\n{\n  Left : \"h\"\n  Right : test::Person\n  {\n    Name : \"Ann\"\n"
                        "    Age : 80\n    Height : nil\n    Member : nil\n    Favourite : red\n  }\n}");
    EXPECT_EQ(printed(pair, 0), std::regex_replace(indented, std::regex("\n +"), "\n"));
    EXPECT_EQ(printed(pair, -1), "test::Pair { Left : \"h\" Right : test::Person { Name : \"Ann\" Age : 80 "
                                 "Height : nil Member : nil Favourite : red } }");
    const std::string wide = printed(pair, 300);
    EXPECT_NE(wide.find("\n" + std::string(600, ' ') + "Age : 80\n"), std::string::npos) << wide;
}

TEST(qelPrint, WritesSequencesDictionariesArraysAndUnions)
{
    const xrchandle<xintsequence> numbers(xintsequence::create());
    numbers->append(5);
    numbers->append(7);
    EXPECT_EQ(printed(numbers), "intseq\n[\n  0 : 5\n  1 : 7\n]");
    EXPECT_EQ(printed(new Table{{"a\"b", 1}, {nullptr, 2}, {"c", xany()}}),
              "test::Table\n{\n  \"a\"b\" : 1\n  \"c\" : \"<uninit>\"\n}");
    EXPECT_EQ(printed(new Grid), "test::Grid\n[\n  0 : [\n    0 : 11\n    1 : 12\n    2 : 13\n  ]\n"
                                 "  1 : [\n    0 : 21\n    1 : 22\n    2 : 23\n  ]\n]");
    EXPECT_EQ(printed(new ColourChoice(red)), "test::ColourChoice\n{\n  Colour : red\n  Heat : 36.6\n}");
    EXPECT_EQ(printed(new Choice(9)), "test::Choice\n{\n  Kind : 9\n  Unknown union attribute\n}");
}

TEST(qelPrint, NamesAnAnonymousTypeAfterItsParents)
{
    xrttiobject a, b, none, both;
    a.initialize("A", 0, 0, nullptr);
    b.initialize("B", 0, 0, nullptr);
    xrttiobject* parents[] = {&a, &b};
    both.initialize("", 0, 2, parents);
    xrttiobject* grandparents[] = {&both, &a};
    none.initialize(nullptr, 0, 2, grandparents);

    Described object(&both), derived(&none);
    EXPECT_EQ(printed(&object), "B A \n{\n}");
    EXPECT_EQ(printed(&derived), "A B A  \n{\n}");

    grandparents[1] = &none; // a descriptor may be its own ancestor
    EXPECT_EQ(printed(&derived), " B A  \n{\n}");
}

TEST(qelPrint, WritesReadFailuresInline)
{
    EXPECT_EQ(printed(new Faulty, -1),
              "test::Faulty { Own : <ERROR: QEL exception> Loose : <ERROR: QEL exception> "
              "Foreign : <ERROR: Unknown exception> Number : <ERROR: Unknown exception> Good : 1 }");
    EXPECT_EQ(LooseError::alive(), 0);

    const xrchandle<Pair> ring(new Pair);
    ring->left = xany(ring);
    EXPECT_EQ(printed(ring, -1), "test::Pair { Left : <printed> Right :  }");
    ring->left = xany();

    const unsigned short unpaired[] = {'a', 0xD800, 0};
    EXPECT_EQ(printed(new Pair(xany(xstring(unpaired)), "b"), -1),
              "test::Pair { Left : <ERROR: QEL exception> Right : \"b\" }");
}

TEST(qelPrint, FlushesEachLineAndWritesLongTextsWhole)
{
    FlushedBuffer buffer;
    std::ostream os(&buffer);
    qelPrint(new Pair(1, 2), os, 1);
    // 11 test::Pair, 13 {, 23 Left : 1, 34 Right : 2
    EXPECT_EQ(buffer.flushed, "11 13 23 34 ");

    const std::string text(3000, 'x');
    EXPECT_EQ(printed(xany(text.c_str())), "\"" + text + "\"");
    EXPECT_EQ(printed(new Table{{text.c_str(), 1}}, -1), "test::Table { \"" + text + "\" : 1 }");
}

TEST(qelPrint, PassesAWholeTextToTheStreamAtOnce)
{
    class Counting final : public std::stringbuf
    {
    public:
        std::string calls;

    private:
        int sync() override
        {
            calls += "flush ";
            return 0;
        }
        std::streamsize xsputn(const char* text, std::streamsize n) override
        {
            calls += "write ";
            return std::stringbuf::xsputn(text, n);
        }
    } buffer;
    std::ostream os(&buffer);
    const std::string text(3000, 'x'); // longer than the printer's own block
    const xrchandle<Table> table = new Table{{"a", 1}, {text.c_str(), xany(text.c_str())}, {"b", 2.5}};
    qelPrint(table.get(), os, 2, qelWhole);
    EXPECT_EQ(buffer.calls, "write flush ");
    EXPECT_EQ(buffer.str(), printed(table.get(), 2));

    std::ostream exact(&buffer);
    exact.precision(9);
    buffer.str("");
    qelPrint(1.23456789, exact, 2, qelWhole);
    EXPECT_EQ(buffer.str(), "1.23456789");
}

TEST(qelPrint, ReportsFailuresLikeOtherOutput)
{
    FlushedBuffer small(20);
    std::ostream full(&small);
    qelPrint(new Pair(1, 2), full, 1);
    EXPECT_TRUE(full.bad());
    EXPECT_EQ(small.str(), "test::Pair\n{\n");

    class Throwing final : public std::streambuf
    {
        std::streamsize xsputn(const char*, std::streamsize) override { throw std::runtime_error("device"); }
    } broken;
    std::ostream silent(&broken);
    qelPrint(new Pair(1, 2), silent, 1);
    EXPECT_TRUE(silent.bad());

    std::ostream loud(&broken);
    loud.exceptions(std::ios::badbit);
    EXPECT_THROW(qelPrint(new Pair(1, 2), loud, 1), std::runtime_error);
    EXPECT_EQ(Pair::alive(), 0);
}

TEST(qelPrint, ThreadCanBeCancelledWhilePrinting)
{
    const auto cancelled = [](void* (*printing)(void*)) {
        pthread_t thread;
        void* result = nullptr;
        EXPECT_EQ(pthread_create(&thread, nullptr, printing, nullptr), 0);
        EXPECT_EQ(pthread_join(thread, &result), 0);
        return result == PTHREAD_CANCELED;
    };
    EXPECT_TRUE(cancelled([](void*) -> void* {
        std::ostringstream os;
        qelPrint(new Cancelling, os, 1);
        return nullptr;
    }));
    EXPECT_TRUE(cancelled([](void*) -> void* {
        class Buffer final : public std::streambuf
        {
            std::streamsize xsputn(const char*, std::streamsize n) override
            {
                cancelThisThread();
                return n;
            }
        } buffer;
        std::ostream os(&buffer);
        qelPrint(xany(1), os, 1);
        return nullptr;
    }));
}

TEST(qelPrint, FlushesTheTiedStream)
{
    FlushedBuffer first, second;
    std::ostream prompt(&first), os(&second);
    prompt << "?";
    os.tie(&prompt);
    os << std::unitbuf;
    qelPrint(xany(1), os, 2);
    EXPECT_EQ(first.flushed, "1 ");
    EXPECT_EQ(second.flushed, "1 ");
}

TEST(qelPrint, SubclassMayWriteBetweenItsTexts)
{
    class Brief final : public qelPrintTraverser
    {
    public:
        explicit Brief(std::ostream& stream) : qelPrintTraverser(stream, -1), os(stream) {}
        bool beginSequence(xrttisequence*, xrcunihandle<xobject>) override
        {
            os << "...";
            return false;
        }

    private:
        std::ostream& os;
    };
    std::ostringstream text;
    Brief brief(text);
    qelTraverse(new Pair(xany(new List{xany(1)}), 2), &brief);
    EXPECT_EQ(text.str(), "test::Pair { Left : ... Right : 2 }");
}

TEST(qelPrint, WritesDeepAndWideValues)
{
    xrchandle<Pair> chain(new Pair);
    for (int i = 0; i < 100000; ++i)
        chain = new Pair(chain);
    const std::string deep = printed(chain, 0);
    EXPECT_NE(deep.find("<ERROR: Nesting too deep>"), std::string::npos);
    EXPECT_TRUE(deep.ends_with("}\nRight : \n}\nRight : \n}"));

    const xrchandle<List> wide(new List);
    wide->elements.assign(1000000, xany(1));
    EXPECT_EQ(printed(wide, -1).size(), std::string("test::List [ ]").size() + 5 * 1000000 + 5888890);
}

TEST(qelDebugPrint, PrintsToStandardError)
{
    const xrchandle<Pair> pair(new Pair(1));
    const Captured err(std::cerr);
    qelDebugPrint(pair.get());
    qelDebugPrint(nullptr);
    EXPECT_EQ(err.str(), "test::Pair\n{\n  Left : 1\n  Right : \n}nil");
}

TEST(qelDbgPrintDictKeys, ListsTheKeysOfADictionary)
{
    const xrchandle<Table> table(new Table{{"b", 1}, {nullptr, 2}, {"", xany()}, {"a", 3}});
    const Captured out(std::cout);

    qelDbgPrintDictKeys(table.get(), nullptr);
    EXPECT_EQ(out.str(), "Dictionary \"test::Table\" keys: \nb\n\na\n");

    TempDir dir;
    dir.write("keys", "what was there before, and longer than what comes, by far");
    qelDbgPrintDictKeys(table.get(), dir.path("keys"));
    EXPECT_EQ(dir.read("keys"), "Dictionary \"test::Table\" keys: \nb\n\na\n");
    qelDbgPrintDictKeys(table.get(), dir.path("missing/keys"));
}

TEST(qelDbgPrintDictKeys, ReportsThatOtherObjectsAreNoDictionaries)
{
    const xrchandle<Pair> pair(new Pair);
    const Captured out(std::cout);
    qelDbgPrintDictKeys(pair.get(), nullptr);
    qelDbgPrintDictKeys(nullptr, nullptr);
    EXPECT_EQ(out.str(), "Type \"test::Pair\" is not a dictionary\nType \"object\" is not a dictionary\n");
}

TEST(qelDbgPrintDictKeys, PropagatesExceptions)
{
    const xrchandle<FaultyTable> table(new FaultyTable(false));
    const Captured out(std::cout);
    EXPECT_THROW(qelDbgPrintDictKeys(table.get(), nullptr), std::runtime_error);
}
