// Walking and printing 100 000 attributes and elements, and other numbers of them: of a group of persons, with five
// attributes each, and four times as many numbers. The walk is compared with a program that reads the same from QObjects through their
// meta-objects; the printing with hand-written code that prints the same text.

#include <QMetaProperty>
#include <QObject>
#include <QVariant>
#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <qel/qelprint.h>
#include <qel/qeltable.h>
#include <qel/qeltraverse.h>
#include <qel/xobject.h>
#include <qel/xrtti.h>
#include <qel/xsequence.h>

#include "curve.h"

namespace {

constexpr int manyParts = 100000; // attributes and elements

/// A group of the class with as many parts, which exists from its first use on.
template<class Made>
const Made& ofSize(int parts)
{
    static std::map<int, std::unique_ptr<Made>> all;
    std::unique_ptr<Made>& made = all[parts];
    if (made == nullptr)
        made = std::make_unique<Made>(parts / 10, parts / 10 * 4);
    return *made;
}

std::string nameOf(int i)
{
    return "Person number " + std::to_string(i);
}

// ---- ours

enum Colour { red, green, blue };
QEL_ENUM(Colour);
QEL_LABELS(Colour, "bench::Colour", red, green, blue);

class Person : public virtual xobject
{
    QEL_OBJECT(Person);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);
    QEL_PROPERTY(double, Height);
    QEL_PROPERTY(unsigned char, Member);
    QEL_PROPERTY(Colour, Favourite);

public:
    explicit Person(int i)
        : Name(nameOf(i).c_str()), Age(i), Height(i / 8.0), Member(i % 2 == 1), Favourite(Colour(i % 3))
    {
    }
};
constinit qelClass Person::rtti = {
    .name = "bench::Person",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Age), QEL_ATTR(Height), QEL_ATTR(Member), QEL_ATTR(Favourite)},
};

class PersonList : public virtual xobject
{
    QEL_OBJECT(PersonList);

public:
    int getarraysize() const { return static_cast<int>(list.size()); }
    xrchandle<Person> get(int i) const { return list[static_cast<std::size_t>(i)]; }

    std::vector<xrchandle<Person>> list;
};
constinit qelClass PersonList::rtti = {
    .name = "bench::PersonList",
    .counted = true,
    .elements = qelSequenceOf<self>,
};

class Group : public virtual xobject
{
    QEL_OBJECT(Group);
    QEL_PROPERTY(xrchandle<PersonList>, Members);
    QEL_PROPERTY(xrchandle<xintsequence>, Numbers);

public:
    Group(int persons, int numbers) : Members(new PersonList), Numbers(xintsequence::create())
    {
        for (int i = 0; i < persons; ++i)
            Members->list.emplace_back(new Person(i));
        for (int i = 0; i < numbers; ++i)
            Numbers->append(i);
    }
};
constinit qelClass Group::rtti = {
    .name = "bench::Group",
    .counted = true,
    .attrs = {QEL_ATTR(Members), QEL_ATTR(Numbers)},
};

struct OurGroup
{
    OurGroup(int persons, int numbers) : group(new Group(persons, numbers)) {}
    xany group;
};

/// Adds up the values, so that none is optimized away.
class Adder final : public qelTraverser
{
public:
    double sum = 0;
    int parts = 0;

    void simpleValue(xany value) override
    {
        switch (value.getKind()) {
        case xanyInt:
            sum += static_cast<int>(value);
            break;
        case xanyBool:
            sum += static_cast<unsigned char>(value);
            break;
        case xanyReal:
            sum += static_cast<double>(value);
            break;
        case xanyString: {
            const xstring text = value;
            sum += text.GetLength();
            break;
        }
        default:
            break;
        }
    }
    void enumValue(xrttienum*, int value) override { sum += value; }
    bool beginObject(xrttiobject*, xrcunihandle<xobject>) override { return true; }
    void endObject(xrttiobject*, xrcunihandle<xobject>) override {}
    bool beginStructure(xrttistruct*, xrcunihandle<xobject>) override { return true; }
    void endStructure(xrttistruct*, xrcunihandle<xobject>) override {}
    bool beginStructAttribute(xrttistruct*, xrttiattr*, xrcunihandle<xobject>) override { return ++parts; }
    bool beginSequence(xrttisequence*, xrcunihandle<xobject>) override { return true; }
    void endSequence(xrttisequence*, xrcunihandle<xobject>) override {}
    bool beginSeqElement(xrttisequence*, int, xrcunihandle<xobject>) override { return ++parts; }
    bool beginDictionary(xrttidictionary*, xrcunihandle<xobject>) override { return true; }
    void endDictionary(xrttidictionary*, xrcunihandle<xobject>) override {}
    bool beginDictElement(xrttidictionary*, xstring, xrcunihandle<xobject>) override { return true; }
    bool beginArray(xrttiarray*, xrcunihandle<xobject>) override { return true; }
    void endArray(xrttiarray*, xrcunihandle<xobject>) override {}
    bool beginArrayDimension(xrttiarray*, int, xrchandle<xintsequence>, xrcunihandle<xobject>) override
    {
        return true;
    }
    void endArrayDimension(xrttiarray*, int, xrchandle<xintsequence>, xrcunihandle<xobject>) override {}
    bool beginArrayElement(xrttiarray*, xrchandle<xintsequence>, xrcunihandle<xobject>) override
    {
        return true;
    }
    bool beginUnion(xrttiunion*, xrcunihandle<xobject>) override { return true; }
    void endUnion(xrttiunion*, xrcunihandle<xobject>) override {}
    bool beginUnionDicriminator(xrttiunion*, xrttiattr*, xrcunihandle<xobject>) override { return true; }
    bool beginUnionValue(xrttiunion*, xrttiattr*, xrcunihandle<xobject>) override { return true; }
    void errorOccured(const char*, xrcunihandle<xthrowable>) override { std::abort(); }
    void alreadyVisited(xrcunihandle<xobject>) override { std::abort(); }
};

// ---- the peer of the walk

class QtPerson : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(int age MEMBER age)
    Q_PROPERTY(double height MEMBER height)
    Q_PROPERTY(bool member MEMBER member)
    Q_PROPERTY(Colour favourite MEMBER favourite)

public:
    enum Colour { red, green, blue };
    Q_ENUM(Colour)

    explicit QtPerson(int i)
        : name(QString::fromStdString(nameOf(i))), age(i), height(i / 8.0), member(i % 2 != 0),
          favourite(Colour(i % 3))
    {
    }

    QString name;
    int age;
    double height;
    bool member;
    Colour favourite;
};

class QtGroup : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QVariantList members MEMBER members)
    Q_PROPERTY(QVariantList numbers MEMBER numbers)

public:
    QtGroup(int persons, int howMany)
    {
        for (int i = 0; i < persons; ++i) {
            owned.push_back(std::make_unique<QtPerson>(i));
            members << QVariant::fromValue<QObject*>(owned.back().get());
        }
        for (int i = 0; i < howMany; ++i)
            numbers << i;
    }

    QVariantList members;
    QVariantList numbers;
    std::vector<std::unique_ptr<QtPerson>> owned;
};

/// Reads any value, whatever its type.
struct QtAdder
{
    double sum = 0;
    int parts = 0;

    void value(const QVariant& v)
    {
        switch (v.userType()) {
        case QMetaType::Int:
            sum += v.toInt();
            break;
        case QMetaType::Bool:
            sum += v.toBool();
            break;
        case QMetaType::Double:
            sum += v.toDouble();
            break;
        case QMetaType::QString:
            sum += v.toString().size();
            break;
        case QMetaType::QVariantList: {
            const QVariantList list = v.toList();
            for (const QVariant& element : list) {
                ++parts;
                value(element);
            }
            break;
        }
        case QMetaType::QObjectStar:
            object(*v.value<QObject*>());
            break;
        default: // an enumeration
            sum += v.toInt();
        }
    }
    void object(const QObject& o)
    {
        const QMetaObject* const meta = o.metaObject();
        for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i) {
            ++parts;
            value(meta->property(i).read(&o));
        }
    }
};

Adder walkOurs(int parts)
{
    Adder adder;
    qelTraverse(ofSize<OurGroup>(parts).group, &adder);
    return adder;
}

QtAdder walkQt(int parts)
{
    QtAdder adder;
    adder.object(ofSize<QtGroup>(parts));
    return adder;
}

template<int parts, auto once>
void walk(benchmark::State& state)
{
    for (auto _ : state) {
        const auto adder = once(curveSize<parts>(state));
        if (adder.parts != curveSize<parts>(state) + 2)
            return state.SkipWithError("parts are missing");
        benchmark::DoNotOptimize(adder.sum);
    }
}
BENCHMARK(walk<manyParts, walkOurs>)->Name("traverse/walk/qelstd");
BENCHMARK(walk<manyParts, walkQt>)->Name("traverse/walk/QMetaProperty");

// ---- the peer of the printing

struct PlainPerson
{
    explicit PlainPerson(int i)
        : name(nameOf(i)), age(i), height(i / 8.0), member(i % 2 != 0), favourite(Colour(i % 3))
    {
    }

    std::string name;
    int age;
    double height;
    bool member;
    Colour favourite;
};

struct PlainGroup
{
    PlainGroup(int persons, int howMany)
    {
        for (int i = 0; i < persons; ++i)
            members.emplace_back(i);
        for (int i = 0; i < howMany; ++i)
            numbers.push_back(i);
    }

    std::vector<PlainPerson> members;
    std::vector<int> numbers;
};

void write(std::ostream& os, const PlainPerson& person, const std::string& pad)
{
    static const char* const colours[] = {"red", "green", "blue"};
    os << "bench::Person" << std::endl;
    os << pad << '{' << std::endl;
    os << pad << "  Name : \"" << person.name << '"' << std::endl;
    os << pad << "  Age : " << person.age << std::endl;
    os << pad << "  Height : " << person.height << std::endl;
    os << pad << "  Member : " << (person.member ? "true" : "false") << std::endl;
    os << pad << "  Favourite : " << colours[person.favourite] << std::endl;
    os << pad << '}';
}

void write(std::ostream& os, const PlainGroup& group)
{
    os << "bench::Group" << std::endl;
    os << '{' << std::endl;
    os << "  Members : bench::PersonList" << std::endl;
    os << "  [" << std::endl;
    for (std::size_t i = 0; i < group.members.size(); ++i) {
        os << "    " << i << " : ";
        write(os, group.members[i], "    ");
        os << std::endl;
    }
    os << "  ]" << std::endl;
    os << "  Numbers : intseq" << std::endl;
    os << "  [" << std::endl;
    for (std::size_t i = 0; i < group.numbers.size(); ++i)
        os << "    " << i << " : " << group.numbers[i] << std::endl;
    os << "  ]" << std::endl;
    os << '}';
}

std::string wanted(int parts)
{
    std::ostringstream os;
    write(os, ofSize<PlainGroup>(parts));
    return os.str();
}

template<int parts, auto print>
void toString(benchmark::State& state)
{
    std::ostringstream os; // one for all, or the growth of its string would dominate
    for (auto _ : state) {
        os.seekp(0);
        print(os, curveSize<parts>(state));
        benchmark::DoNotOptimize(os);
    }
    if (os.str() != wanted(curveSize<parts>(state)))
        state.SkipWithError("the text is another");
}

template<class Print>
void toFile(benchmark::State& state, Print print)
{
    const std::filesystem::path path = std::filesystem::temp_directory_path() / "qelstd_traverse_bench.txt";
    for (auto _ : state) {
        std::ofstream os(path);
        print(os, manyParts);
        os.close();
    }
    if (std::filesystem::file_size(path) != wanted(manyParts).size())
        state.SkipWithError("the text is another");
    std::filesystem::remove(path);
}

void printQelstd(std::ostream& os, int parts)
{
    qelPrint(ofSize<OurGroup>(parts).group, os, 2);
}
void printWhole(std::ostream& os, int parts)
{
    qelPrint(ofSize<OurGroup>(parts).group, os, 2, qelWhole);
}
void printByHand(std::ostream& os, int parts)
{
    write(os, ofSize<PlainGroup>(parts));
}
/// A line in which one number is not known before.
struct Line
{
    explicit Line(const std::string& text)
    {
        const std::size_t end = text.find_last_of("0123456789") + 1;
        const std::size_t begin = end == 0 ? 0 : text.find_last_not_of("0123456789", end - 1) + 1;
        before = text.substr(0, begin);
        std::from_chars(text.data() + begin, text.data() + end, number);
        after = text.substr(end);
        hasNumber = end > begin;
    }
    void writeTo(std::ostream& os) const
    {
        std::array<char, 128> line;
        char* at = std::copy(before.begin(), before.end(), line.begin());
        if (hasNumber)
            at = std::to_chars(at, line.end(), number).ptr;
        at = std::copy(after.begin(), after.end(), at);
        os.write(line.data(), at - line.data()).flush();
    }

    std::string before, after;
    long long number = 0;
    bool hasNumber = false;
};

// The least: numbers are converted, and each line is written, so that whoever reads the file sees it at once.
void writeLines(std::ostream& os, int parts)
{
    static const std::vector<Line> lines = [=] {
        std::stringstream text;
        printByHand(text, parts);
        std::vector<Line> made;
        for (std::string line; std::getline(text, line);)
            made.emplace_back(text.eof() ? line : line + '\n');
        return made;
    }();
    for (const Line& line : lines)
        line.writeTo(os);
}

BENCHMARK(toString<manyParts, printQelstd>)->Name("traverse/print to a string/qelstd");
BENCHMARK(toString<manyParts, printByHand>)->Name("traverse/print to a string/handwritten");
BENCHMARK_CAPTURE(toFile, qelstd, printQelstd)->Name("traverse/print to a file/qelstd");
BENCHMARK_CAPTURE(toFile, whole, printWhole)->Name("traverse/print to a file at once/qelstd");
BENCHMARK_CAPTURE(toFile, lines, printByHand)->Name("traverse/print to a file at once/handwritten lines");
BENCHMARK_CAPTURE(toFile, hand, printByHand)->Name("traverse/print to a file/handwritten");
BENCHMARK_CAPTURE(toFile, least, writeLines)->Name("traverse/print to a file/the least");

// ---- by size

template<class Made>
std::unique_ptr<Made> made(std::int64_t parts)
{
    return std::make_unique<Made>(static_cast<int>(parts / 10), static_cast<int>(parts / 10 * 4));
}

[[maybe_unused]] const bool added = [] {
    addCurve("curves/walk a value with fields", "qelstd", walk<0, walkOurs>, 100, 1'000'000);
    addCurve("curves/walk a value with fields", "QMetaProperty", walk<0, walkQt>, 100, 1'000'000);
    addCurve("curves/print a value with fields", "qelstd", toString<0, printQelstd>, 100, 1'000'000);
    addCurve("curves/print a value with fields", "handwritten", toString<0, printByHand>, 100, 1'000'000);
    addMemoryCurve("curves of memory/a value with fields", "qelstd", made<OurGroup>, 100, 1'000'000);
    addMemoryCurve("curves of memory/a value with fields", "QObject", made<QtGroup>, 100, 1'000'000);
    addMemoryCurve("curves of memory/a value with fields", "plain structures", made<PlainGroup>, 100,
                   1'000'000);
    return true;
}();

} // namespace

#include "traverse_bench.moc"
