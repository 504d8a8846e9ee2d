// JSON texts of values and values of JSON texts, with nlohmann/json as the judge.

#include <cmath>
#include <nlohmann/json.hpp>
#include <streambuf>

#include <qel/qeljson.h>
#include <qel/qeltable.h>
#include <qel/xdictionary.h>
#include <qel/xsequence.h>

#include "support/test.h"
#include "support/texts.h"
#include "support/thrown.h"
#include "testtypes.h"

namespace json = qel::json;

namespace jsontypes {

enum Grade : int { low, middle, high };
QEL_ENUM(Grade);

/// Every kind of attribute; Next makes lists, trees and cycles.
class Node : public virtual xobject, public testtypes::Counted<Node>
{
    QEL_OBJECT(Node); // "json::Node"
    QEL_REBUILD(Node);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);
    QEL_PROPERTY(double, Height);
    QEL_PROPERTY(unsigned char, Member);
    QEL_PROPERTY(Grade, Rank);
    QEL_PROPERTY(xrchandle<Node>, Next);
    QEL_PROPERTY(xrchandle<xintsequence>, Marks);
    QEL_PROPERTY(xany, Extra);

public:
    enum class Tone : short { deep = 3, bright = 7 }; // its values are not the positions of its labels
    explicit Node(const char* name = nullptr, int age = xnullint) : Name(name), Age(age) {}
    xstring getGreeting() const { return xstring("hello ", getName().CastToCString()); } // computed
};
QEL_ENUM_IN(Node, Tone);
constinit qelClass Node::rtti = {
    .name = "json::Node",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Age, qelOptional), QEL_ATTR(Height, qelOptional),
              QEL_ATTR(Member, qelOptional), QEL_ATTR(Rank, qelOptional), QEL_ATTR(Next, qelOptional),
              QEL_ATTR(Marks, qelOptional), QEL_ATTR(Extra, qelOptional), QEL_ATTR(Greeting)},
    .rebuild = &qelRebuildOf<self>,
};

class Leaf : public virtual Node
{
    QEL_OBJECT(Leaf); // "json::Leaf"
    QEL_REBUILD(Leaf);
    QEL_PROPERTY(xstring, Title);

public:
    explicit Leaf(const char* name, const char* title) : Node(name), Title(title) {}
};
constinit qelClass Leaf::rtti = {
    .name = "json::Leaf",
    .counted = true,
    .parents = {QEL_PARENT(Node)},
    .attrs = {QEL_ATTR(Title, qelOptional)},
    .rebuild = &qelRebuildOf<self>,
};

/// 2 x 3 numbers.
class Grid : public virtual xobject
{
    QEL_OBJECT(Grid); // "json::Grid"

public:
    static Grid* create() { return new Grid; }
    double getelement(const int* i) const { return cells[i[0]][i[1]]; }
    void setelement(const int* i, double value) { cells[i[0]][i[1]] = value; }

    double cells[2][3] = {};
};
constinit qelClass Grid::rtti = {.name = "json::Grid",
                                 .counted = true,
                                 .elements = qelArrayOf<self>,
                                 .dims = {2, 3},
                                 .create = &qelCreateOf<self>};

/// Rank low has the member Depth, high the member Peak, middle none.
class Choice : public virtual xobject
{
    QEL_OBJECT(Choice); // "json::Choice"
    QEL_REBUILD(Choice);
    QEL_PROPERTY(Grade, Rank);
    QEL_PROPERTY(int, Depth);
    QEL_PROPERTY(xstring, Peak);

public:
    explicit Choice(Grade rank) : Rank(rank), Depth(7), Peak("top") {}
};
constinit qelClass Choice::rtti = {
    .name = "json::Choice",
    .counted = true,
    .discriminator = QEL_ATTR(Rank),
    .cases = {{low, QEL_ATTR(Depth)}, {high, QEL_ATTR(Peak)}},
    .rebuild = &qelRebuildOf<self>,
};

/// A sequence that does not keep its elements alive.
class Careless : public xtssequence<Node*>
{
    QEL_OBJECT(Careless); // "json::Careless"

public:
    static Careless* create() { return new Careless; }
};
constinit qelClass Careless::rtti = {
    .name = "json::Careless", .counted = true, .elements = qelSequenceOf<self>, .create = &qelCreateOf<self>};

/// A sequence of objects that are made when they are read.
class Maker : public virtual xobject
{
    QEL_OBJECT(Maker); // "json::Maker"

public:
    int getarraysize() const { return 20; }
    xany get(int) const { return xany(new Grid); }
};
constinit qelClass Maker::rtti = {.name = "json::Maker", .counted = true, .elements = qelSequenceOf<self>};

QEL_LABELS(Grade, "json::Grade", low, middle, high);
QEL_LABELS_IN(Node, Tone, "json::Tone", deep, bright);

} // namespace jsontypes

namespace {

using jsontypes::Choice;
using jsontypes::Grid;
using jsontypes::Leaf;
using jsontypes::Node;
using testtypes::List;
using testtypes::Pair;

const bool registered = [] {
    qelRegister<Node, Leaf, Grid, Choice, jsontypes::Careless, jsontypes::Grade, Pair, testtypes::Person,
                testtypes::Loose>();
    return true;
}();

std::string written(const xany& value, const json::options& how = {})
{
    std::ostringstream out;
    json::write(value, out, how);
    return out.str();
}

template<class T>
std::string writtenAs(const xany& value, const json::options& how = {})
{
    std::ostringstream out;
    json::write<T>(value, out, how);
    return out.str();
}

std::string failureOf(const std::function<void()>& action)
{
    return describeThrown<qelXJson>(
        action, [](qelXJson* thrown) { return std::string(thrown->getDescription().CastToCString()); });
}

template<class T = xany>
std::string refusal(const std::string& text, const json::options& how = {})
{
    return failureOf([&] { json::read<T>(text, how); });
}

/// A stream that delivers a few bytes at a time.
class Drip : private std::streambuf, public std::istream
{
public:
    Drip(std::string s, std::streamsize n) : std::istream(this), rest(std::move(s)), most(n) {}

private:
    std::streamsize xsgetn(char* to, std::streamsize n) override
    {
        const std::string piece = rest.substr(0, static_cast<std::size_t>(std::min(n, most)));
        rest.erase(0, piece.size());
        piece.copy(to, piece.size());
        return static_cast<std::streamsize>(piece.size());
    }

    std::string rest;
    std::streamsize most;
};

xany sequenceOf(std::initializer_list<xany> values)
{
    xanysequence* const sequence = xanysequence::create();
    for (const xany& value : values)
        sequence->append(value);
    return xany(sequence);
}

/// A node with a value in each attribute.
xrchandle<Node> fullNode()
{
    xrchandle<Node> node(new Node("Ada", 36));
    node->_s11n_setHeight(1.75);
    node->_s11n_setMember(1);
    node->_s11n_setRank(jsontypes::middle);
    node->_s11n_setNext(xrchandle<Node>(new Leaf("Leo", "Dr")));
    xrchandle<xintsequence> marks(xintsequence::create());
    marks->append(1);
    marks->append(xuninitint);
    marks->append(xnullint);
    node->_s11n_setMarks(marks);
    node->_s11n_setExtra(sequenceOf({1, 1.0, "x", nullptr, xany(), true,
                                     xany(2, jsontypes::qelGetRtti_Grade()), xintsequence::create(),
                                     xstringdictionary::create(), new Grid, new Choice(jsontypes::low)}));
    return node;
}

constexpr const char* fullText =
    R"({"Name":"Ada","Age":36,"Height":1.75,"Member":true,"Rank":"middle",)"
    R"("Next":{"$type":"json::Leaf","Name":"Leo","Age":null,"Height":null,"Member":null,"Rank":null,)"
    R"("Next":null,"Marks":null,"Greeting":"hello Leo","Title":"Dr"},)"
    R"("Marks":[1,{"$uninit":true},null],)"
    R"("Extra":[1,1.0,"x",null,{"$uninit":true},true,{"$type":"json::Grade","$value":"high"},)"
    R"({"$type":"intseq","$value":[]},{"$type":"stringdict"},)"
    R"({"$type":"json::Grid","$value":[[0.0,0.0,0.0],[0.0,0.0,0.0]]},)"
    R"({"$type":"json::Choice","Rank":"low","Depth":7}],"Greeting":"hello Ada"})";

} // namespace

// ---- writing

TEST(JsonWrite, PlainValues)
{
    const std::pair<xany, const char*> cases[] = {
        {nullptr, "null"},
        {xany(), R"({"$uninit":true})"},
        {-5, "-5"},
        {true, "true"},
        {static_cast<unsigned char>(0), "false"},
        {0.1, "0.1"},
        {-2.0, "-2.0"},
        {1e300, "1e+300"},
        {1152921504606846976.0, "1152921504606846976.0"},
        {-0.0, "-0.0"},
        {"", "\"\""},
        {"a\"b\\c/\b\f\n\r\t\x01\x7F\xC3\xA4", "\"a\\\"b\\\\c/\\b\\f\\n\\r\\t\\u0001\x7F\xC3\xA4\""},
        {sequenceOf({}), "[]"},
        {sequenceOf({1, sequenceOf({2})}), "[1,[2]]"},
    };

    for (const auto& [value, text] : cases)
        EXPECT_EQ(written(value), text);
}

TEST(JsonWrite, TypesAreNamedWhereTheDeclarationDoesNotTell)
{
    const xrchandle<Node> node = fullNode();

    EXPECT_EQ(writtenAs<Node>(node), fullText);
    EXPECT_EQ(written(node), R"({"$type":"json::Node",)" + std::string(fullText).substr(1));
    EXPECT_EQ(writtenAs<xobject>(xrchandle<xanydictionary>(xanydictionary::create())), "{}");
    EXPECT_EQ(writtenAs<xintsequence>(xintsequence::create()), "[]");
    EXPECT_EQ(writtenAs<jsontypes::Grade>(xany(1, jsontypes::qelGetRtti_Grade())), "\"middle\"");
}

TEST(JsonWrite, IndentedTextHasTheSameValue)
{
    const xrchandle<Node> node = fullNode();

    const std::string indented = written(node, {.indent = 2});

    EXPECT_EQ(nlohmann::json::parse(indented), nlohmann::json::parse(written(node)));
    EXPECT_EQ(written(sequenceOf({1, sequenceOf({}), new Grid, xintsequence::create()}), {.indent = 1}),
              R"([
 1,
 [],
 {
  "$type": "json::Grid",
  "$value": [
   [
    0.0,
    0.0,
    0.0
   ],
   [
    0.0,
    0.0,
    0.0
   ]
  ]
 },
 {
  "$type": "intseq",
  "$value": []
 }
])");
}

TEST(JsonWrite, DollarsInNamesAreDoubled)
{
    const xrchandle<xanydictionary> dictionary(xanydictionary::create());
    dictionary->set("$type", 1);

    const std::string text = written(dictionary);

    EXPECT_EQ(text, R"({"$$type":1})");
    EXPECT_EQ(written(json::read<xany>(text)), text);
}

TEST(JsonWrite, AnObjectMetAgainIsAReference)
{
    const xrchandle<Node> shared(new Node("s"));
    const xrchandle<xanysequence> list(xanysequence::create());
    list->append(1);

    EXPECT_EQ(written(sequenceOf({list, list})), R"([{"$id":1,"$value":[1]},{"$ref":1}])");
    const std::string pair = written(new Pair(shared, shared));
    EXPECT_TRUE(pair.starts_with(R"({"$type":"test::Pair","Left":{"$type":"json::Node","$id":1,"Name":"s",)"))
        << pair;
    EXPECT_TRUE(pair.ends_with(R"("Right":{"$ref":1}})")) << pair;

    list->append(list);
    EXPECT_EQ(written(list), R"({"$id":1,"$value":[1,{"$ref":1}]})");
    list->clear();
}

TEST(JsonWrite, ObjectsMadeByAccessorsAreNotTakenForOneAnother)
{
    // Each element is made while it is read; if it were freed at once, the next one would take its place.
    EXPECT_EQ(written(new jsontypes::Maker).find("$ref"), std::string::npos);
}

TEST(JsonWrite, WhatJsonCannotSayIsRefusedWithItsPath)
{
    const xrchandle<xanydictionary> dictionary(xanydictionary::create());
    dictionary->set("a b", sequenceOf({1, std::nan("")}));
    std::ostringstream out;

    EXPECT_EQ(failureOf([&] { json::write(dictionary, out); }),
              R"($["a b"][1]: expected a finite number, found NaN)");
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(written(dictionary, {.nonFinite = json::NonFinite::null}), R"({"a b":[1,null]})");

    EXPECT_EQ(written("\xFFz\xE4\xB8"), "\"\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD\"");
    EXPECT_EQ(failureOf([] { written("\xFF", {.strict = true}); }),
              "$: expected a text in UTF-8, found other bytes");
    const unsigned short wide[] = {'a', 0xD83D, 0xDE00, 0xD83D, 0};
    EXPECT_EQ(written(xstring(wide)), "\"a\xF0\x9F\x98\x80\xEF\xBF\xBD\"");
    EXPECT_EQ(failureOf([&] { written(xany(5, jsontypes::qelGetRtti_Grade())); }),
              "$: expected a value with a label, found 5");
    EXPECT_EQ(failureOf([&] { written(sequenceOf({sequenceOf({})}), {.depth = 1}); }),
              "$[0]: expected at most 1 levels, found more");
    EXPECT_EQ(failureOf([&] { written(std::string(100, 'x').c_str(), {.bytes = 101}); }),
              "$: expected a text of at most 101 bytes, found more");
    EXPECT_EQ(thrownBy([] { written(new testtypes::Faulty); }), "qellib::XNull");
}

TEST(JsonWrite, ClassesOfEveryShapeCanBeWritten)
{
    EXPECT_EQ(written(new testtypes::Duck),
              R"({"$type":"test::Duck","Id":1,"Depth":2,"Height":3,"Call":"quack"})");
    EXPECT_EQ(written(new testtypes::Grid), R"({"$type":"test::Grid","$value":[[11,12,13],[21,22,23]]})");
    EXPECT_EQ(written(new testtypes::WiderChoice(3)),
              R"({"$type":"test::WiderChoice","Kind":3,"More":"more"})");
    EXPECT_EQ(written(new testtypes::WiderChoice(2)),
              R"({"$type":"test::WiderChoice","Kind":2,"Text":"seven"})");
    EXPECT_EQ(written(new testtypes::Choice(9)), R"({"$type":"test::Choice","Kind":9})");
    EXPECT_EQ(written(new testtypes::Table({{"a", 1}, {nullptr, {}}, {"b", {}}})),
              R"({"$type":"test::Table","a":1,"b":{"$uninit":true}})");
    testtypes::Loose loose;
    EXPECT_EQ(written(&loose), R"({"$type":"test::Loose"})");
}

// ---- reading

TEST(JsonRead, WhatIsWrittenIsReadAsTheSame)
{
    const xrchandle<Node> node = fullNode();
    const int alive = Node::alive();
    {
        const xrchandle<Node> again = json::read<Node>(fullText);
        EXPECT_EQ(writtenAs<Node>(again), fullText);
        EXPECT_EQ(again->getAge(), 36);
        EXPECT_NE(Leaf::softcast(again->getNext().get()), nullptr);
        EXPECT_EQ(again->getMarks()->get(1), xuninitint);
        EXPECT_EQ(xrcgetcount(again.get()), 1);
        EXPECT_EQ(written(json::read<xany>(written(node))), written(node));
    }
    EXPECT_EQ(Node::alive(), alive);
}

TEST(JsonRead, PlainTypes)
{
    EXPECT_EQ(json::read<int>(" -12 "), -12);
    EXPECT_EQ(json::read<int>("12.0e1"), 120);
    EXPECT_TRUE(json::read<bool>("true"));
    EXPECT_EQ(json::read<double>("2"), 2.0);
    EXPECT_EQ(json::read<double>("1e-400"), 0.0);
    EXPECT_EQ(json::read<double>("0." + std::string(400, '0') + "1"), 0.0);
    EXPECT_TRUE(std::signbit(json::read<double>("-0")));
    EXPECT_EQ(json::read<xstring>(R"("\u00e4\ud83d\ude00\/")"), "\xC3\xA4\xF0\x9F\x98\x80/");
    EXPECT_EQ(json::read<jsontypes::Grade>("\"high\""), jsontypes::high);
    EXPECT_EQ(json::read<Node::Tone>("\"bright\""), Node::Tone::bright);
    EXPECT_EQ(json::read<xany>("3000000000"), xany(3e9));
    EXPECT_EQ(json::read<xany>("18446744073709551616"), xany(18446744073709551616.0));
    EXPECT_EQ(json::read<xany>("\xEF\xBB\xBF[]").getQelTypeName(), "anyseq");
    EXPECT_TRUE(json::read<xany>("null").isNull());
}

TEST(JsonRead, NumbersAreNeverRoundedSilently)
{
    for (const char* text : {"9007199254740993", "9007199254740993.0", "-18446744073709551615", "1e400"}) {
        EXPECT_NE(refusal<double>(text), "") << text;
        EXPECT_NE(refusal(text), "") << text;
    }
    for (const char* text : {"2147483648", "-2147483648", "-2147483647", "1.5", "1e99"})
        EXPECT_NE(refusal<int>(text), "") << text;
    EXPECT_NE(refusal("-2147483648"), "");
    EXPECT_NE(refusal("9e125"), ""); // means uninit
    EXPECT_EQ(json::read<double>("3.14159265358979323846"), 3.14159265358979323846);
}

TEST(JsonRead, CyclesAndSharedObjects)
{
    const xrchandle<Node> first(new Node("a"));
    const xrchandle<Node> second(new Node("b"));
    first->_s11n_setNext(second);
    second->_s11n_setNext(first);
    first->_s11n_setExtra(xany(second));

    const xrchandle<Node> again = json::read<Node>(writtenAs<Node>(first));

    EXPECT_EQ(again->getNext()->getNext().get(), again.get());
    EXPECT_EQ(again->getExtra(), xany(again->getNext()));
    EXPECT_EQ(writtenAs<Node>(again), writtenAs<Node>(first));
    again->getNext()->_s11n_setNext(nullptr); // the owner cuts the cycle
    second->_s11n_setNext(nullptr);
}

TEST(JsonRead, ErrorsSayWhereWhatWasExpectedAndWhatWasThere)
{
    const auto node = [](const char* text) { return refusal<Node>(text); };

    EXPECT_EQ(node("{\"Name\":\"\xC3\xA4\",\n  \"Age\": \"old\"}"),
              "$.Age (line 2, column 10): expected int, found \"old\"");
    EXPECT_EQ(node(R"({"Name":"a","Next":{"Name":null}})"),
              "$.Next.Name (line 1, column 28): expected string, found null");
    EXPECT_EQ(node(R"({"Age":1})"), "$ (line 1, column 9): expected the attribute Name, found '}'");
    EXPECT_EQ(node(R"({"Name":"a","Agee":1})"),
              "$ (line 1, column 13): expected an attribute of json::Node, found \"Agee\"");
    EXPECT_EQ(node(R"({"Name":"a","Name":"b"})"),
              "$.Name (line 1, column 13): expected each attribute once, found \"Name\"");
    EXPECT_EQ(node(R"({"Name":"a","Rank":"top"})"),
              "$.Rank (line 1, column 20): expected json::Grade: low, middle, high, found \"top\"");
    EXPECT_EQ(node(R"({"Name":"a","Marks":[1,2.5]})"),
              "$.Marks[1] (line 1, column 24): expected int, found 2.5");
    EXPECT_EQ(node(R"({"Name":"a","Next":{"$type":"json::Grid","$value":[]}})"),
              "$.Next (line 1, column 29): expected json::Node, found \"json::Grid\"");
    EXPECT_EQ(node(R"({"Name":"a","Next":[]})"),
              "$.Next (line 1, column 20): expected json::Node, found an array");
    EXPECT_EQ(node("null"), "$ (line 1, column 1): expected json::Node, found null");
    EXPECT_EQ(node(R"({"Name":"a"} x)"), "$ (line 1, column 14): expected the end of the text, found x");
    EXPECT_EQ(node(R"({"Name":"a)"),
              "$.Name (line 1, column 11): expected the end of the string, found the end of the text");
    EXPECT_EQ(refusal(R"({"a b":{"c":[0,tru]}})"),
              R"($["a b"].c[1] (line 1, column 16): expected a value, found tru)");
    EXPECT_EQ(refusal(R"({"a":1,"a":2})"), "$.a (line 1, column 8): expected each name once, found \"a\"");
    EXPECT_EQ(refusal<Grid>("[[1,2,3],[4,5]]"),
              "$[1][2] (line 1, column 14): expected ',' and 3 elements, found ']'");
    EXPECT_EQ(refusal<Grid>("[[1,2,3,4]]"),
              "$[0][3] (line 1, column 8): expected ']' after 3 elements, found ','");
    EXPECT_EQ(refusal<Choice>(R"({"Rank":"low","Peak":"x"})"),
              "$ (line 1, column 15): expected an attribute of json::Choice, found \"Peak\"");
    EXPECT_EQ(refusal<Choice>(R"({"Rank":"low"})"),
              "$ (line 1, column 14): expected the attribute Depth, found '}'");
    EXPECT_EQ(
        refusal<xobject>(R"({"$type":"test::Person"})"),
        "$ (line 1, column 24): expected a class that can be read, found test::Person, without a .create or "
        ".rebuild row");
    EXPECT_EQ(refusal<qelXNull>("{}"),
              "$ (line 1, column 2): expected a class that can be read, found qellib::XNull, an exception");
    EXPECT_EQ(
        refusal<testtypes::Loose>("{}"),
        "$ (line 1, column 2): expected a class that can be read, found test::Loose, which is not counted");
    EXPECT_EQ(
        refusal<jsontypes::Careless>(R"([{"Name":"a"}])"),
        "$[1] (line 1, column 13): expected an object that json::Careless keeps, found one to which it takes "
        "no reference");
    EXPECT_EQ(refusal(std::string("[\n\n\"\x01\"]")),
              "$[0] (line 3, column 2): expected an escape sequence, found the byte 0x01");
    EXPECT_EQ(describeThrown<qelXJson>([] { json::read<int>("\n x"); },
                                       [](qelXJson* e) { return e->getLine() * 100 + e->getColumn(); }),
              202);
}

TEST(JsonRead, ReservedNamesAreCheckedForWhatTheyMean)
{
    for (const std::string& text :
         textsOf(R"({"$ref":1}|{"$id":1,"$ref":1}|{"$id":0}|{"$id":1.5}|[{"$id":1},{"$id":1}]|)"
                 R"({"$type":"no::Type"}|{"$type":"intseq"}|{"$type":"intseq","$value":{}}|)"
                 R"({"$type":"int","$value":"x"}|{"$type":"intseq","$value":[1],"x":1}|{"$uninit":false}|)"
                 R"({"$value":1|{"$other":1}|{"a":1,"$type":"anydict"}|{"$type":"json::Node","$value":[]}|)"
                 R"({"$type":"json::Grade","$value":3}|{"$id":1,"$value":1}|)"
                 R"({"$type":"anyseq","$type":"anyseq"}|{"$id":1,}|{"$type":5})"))
        EXPECT_NE(refusal(text), "") << text;
    EXPECT_NE(refusal<Node>(R"({"Name":{"$uninit":true}})"), "");
    EXPECT_NE(refusal<Node>(R"({"$uninit":true})"), "");
    EXPECT_EQ(json::read<xany>(R"({"$type":"int","$value":5})"), xany(5));
    const xrchandle<Node> cycle =
        json::read<Node>(R"({"$id":7,"$type":"json::Leaf","Name":"a","Next":{"$ref":7}})");
    EXPECT_EQ(cycle->getNext()->getQelTypeName(), "json::Leaf");
    cycle->_s11n_setNext(nullptr);
}

TEST(JsonRead, UnknownAttributesAreSkippedOnDemand)
{
    const json::options lenient{.ignoreUnknown = true};
    const std::string text = R"({"x":{"y":[1,{"$type":"z"},"\u00e4",null,true,-1e9]},"Name":"a","z":[]})";

    EXPECT_EQ(json::read<Node>(text, lenient)->getName(), "a");
    EXPECT_EQ(refusal<Node>(R"({"x":{"y":[1,{"a" 1}]},"Name":"a"})", lenient),
              "$.x.y[1].a (line 1, column 19): expected ':', found 1");
}

TEST(JsonRead, LimitsHoldWithoutRecursion)
{
    constexpr int deep = 50000;
    std::string text = std::string(deep, '[') + std::string(deep, ']');

    EXPECT_NE(refusal(text), "");
    {
        const json::options how{.depth = deep};
        const xany value = json::read<xany>(text, how);
        EXPECT_EQ(written(value, how), text);
    }
    EXPECT_NE(refusal<Node>(R"({"x":)" + text, {.ignoreUnknown = true}), "");
    EXPECT_EQ(refusal("[1,2]", {.bytes = 4}),
              "$ (line 1, column 1): expected a text of at most 4 bytes, found more");
    Drip endless(std::string(100000, ' '), 5000);
    EXPECT_NE(failureOf([&] { json::read<xany>(endless, {.bytes = 50000}); }), "");
}

TEST(JsonRead, EveryCutTextIsRefusedAndNothingLeaks)
{
    const std::string text = written(fullNode());
    const int alive = Node::alive();

    for (std::size_t size = 0; size < text.size(); ++size)
        EXPECT_NE(refusal(text.substr(0, size)), "") << size;
    EXPECT_EQ(Node::alive(), alive);
}

TEST(JsonRead, AStreamIsReadInPiecesOfAnySize)
{
    std::string text = written(fullNode(), {.indent = 3});
    text.insert(text.find("\"x\""),
                "\"" + std::string(100000, 'y') + "\\n" + std::string(40000, 'z') + "\",");
    const std::string expected = written(json::read<xany>(text));

    for (const std::streamsize size : {1, 2, 3, 7, 4096, 1 << 20}) {
        Drip in(text, size);
        EXPECT_EQ(written(json::read<xany>(in)), expected) << size;
        EXPECT_TRUE(in.eof());
        EXPECT_FALSE(in.fail());
    }
    for (const std::streamsize size : {1, 3, 4096}) {
        Drip in(text + "\n\n  ?", size);
        EXPECT_EQ(failureOf([&] { json::read<xany>(in); }), refusal(text + "\n\n  ?"));
    }
    std::istringstream closed("[]");
    closed.setstate(std::ios_base::badbit);
    EXPECT_EQ(failureOf([&] { json::read<xany>(closed); }),
              "$ (line 1, column 1): expected a value, found the end of the text");
}

// ---- the grammar of RFC 8259

TEST(JsonText, WhatTheStandardAllowsIsRead)
{
    for (const std::string& text :
         textsOf("0|-0|1|-1|10|0.5|1.0|1e1|1E+1|1e-1|0e0|-0.0e-0|123.456e-7|"
                 "0.00000000000000000000000000000000000000000000000000000000000000000000000000000001|true|"
                 "false|null|\"\"|\"a\"| \t\n\r1\t\n\r |[]|[ ]|{}|{ }|[1]|[1,2]|[[],[[]]]|{\"a\":1}|"
                 "{\"\":0}|{ \"a\" : { \"b\" : [ ] } , \"c\" : null }|\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"|"
                 "\"\\u0041\\u00E9\\u20AC\"|\"\\uD83D\\uDE00\"|\"\\u005C\\u0022\"|\"\x7F\"|\"\xC2\x80\"|"
                 "\"\xEF\xBF\xBF\"|\"\xF4\x8F\xBF\xBF\"|\"\\uFFFF\"|\"\\uDBFF\\uDFFE\"|\"\xE2\x80\xA8\"|"
                 "[\"*/\",\"/*\",\"//\"]|{\"min\":-1.0e+28,\"max\":1.0e+28}")) {
        EXPECT_EQ(refusal(text), "") << text;
        EXPECT_TRUE(nlohmann::json::accept(text)) << text;
    }
}

TEST(JsonText, WhatTheStandardForbidsIsRefused)
{
    for (const std::string& text :
         textsOf("| |[|]|{|}|[1|[1,|[1,]|[,1]|[1,,2]|[1 2]|[1;2]|[1]]|[1],|1 2|{\"a\"}|{\"a\":}|"
                 "{\"a\":1,}|{,\"a\":1}|{\"a\":1,,\"b\":2}|{\"a\" 1}|{\"a\",1}|{a:1}|{1:1}|{null:1}|"
                 "{'a':1}|{\"a\":1 \"b\":2}|{\"a\":1}}|{\"a\":1|{\"a|{]|[}|[\"a\":1]|{\"a\"::1}|+1|01|-01|"
                 "-|--1|1.|.5|-.5|1.e1|1e|1e+|1eE1|0x1|1_000|Infinity|-Infinity|NaN|nan|1a|1.2.3|1-1|1+|"
                 "0e+-1|tru|truee|True|fals|nul|nulll|undefined|a|'a'|\"|\"a|\"a\nb\"|\"a\tb\"|\"\x1F\"|"
                 "\"\\|\"\\\"|\"\\x41\"|\"\\a\"|\"\\'\"|\"\\u\"|\"\\u1\"|\"\\u12\"|\"\\u123\"|\"\\u12G4\"|"
                 "\"\\uD800\"|\"\\uDC00\"|\"\\uD800\\u0041\"|\"\\uD800\\uD800\"|\"\\uD800x\"|"
                 "\"\\uD800\\n\"|\"\x80\"|\"\xC0\xAF\"|\"\xC1\xBF\"|\"\xE0\x80\xAF\"|\"\xED\xA0\x80\"|"
                 "\"\xF0\x80\x80\x80\"|\"\xF4\x90\x80\x80\"|\"\xF5\x80\x80\x80\"|\"\xE2\x82\"|\"\xE2\"|"
                 "\"\xFF\"|\"a\\u00\xC3\xA4\"|/**/1|1//|#1|[\v1]|[\f1]|\xC2\xA0\x31|\xE2\x81\xA0\x31|<1>|"
                 "[1]\x01|\xFF\xFE[|\xEF\xBB|\xEF\xBB\xBF|*|@|\"a\"b|\"a\" \"b\"|[\"a\",\n1,\n,")) {
        EXPECT_NE(refusal(text), "") << text;
        EXPECT_FALSE(nlohmann::json::accept(text)) << text;
    }
    // Allowed by the grammar, and refused since reading would change the value.
    for (const char* text : {"\"\\u0000\"", "{\"a\":1,\"a\":2}", "1e999", "100000000000000000001"})
        EXPECT_NE(refusal(text), "") << text;
    EXPECT_NE(refusal(std::string("[\0]", 3)), "");
}

namespace {

/// A value of JSON that reads as the same: no int that is reserved, no name that begins with `$`.
nlohmann::json randomValue(std::mt19937& random, int depth)
{
    const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
    const auto text = [&] {
        static const char* const parts[] = {
            "a", "Z", "\"", "\\", "\n", "\x01", "\xC3\xA4", "\xF0\x9F\x98\x80", "/", " "};
        std::string s;
        for (int i = below(6); i > 0; --i)
            s += parts[below(10)];
        return s;
    };
    switch (below(depth > 0 ? 8 : 6)) {
    case 0:
        return nullptr;
    case 1:
        return below(2) == 0;
    case 2:
        return below(2000) - 1000;
    case 3:
        return std::ldexp(static_cast<double>(random()) + 0.5, below(1900) - 1000);
    case 4:
    case 5:
        return text();
    case 6: {
        auto array = nlohmann::json::array();
        for (int i = below(5); i > 0; --i)
            array.push_back(randomValue(random, depth - 1));
        return array;
    }
    default: {
        auto object = nlohmann::json::object();
        for (int i = below(5); i > 0; --i)
            object[text()] = randomValue(random, depth - 1);
        return object;
    }
    }
}

} // namespace

TEST(JsonText, TheJudgeReadsTheSameValues)
{
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        const nlohmann::json value = randomValue(random, 5);
        const xany read = json::read<xany>(value.dump(i % 3 - 1, ' ', i % 2 == 0));
        EXPECT_EQ(nlohmann::json::parse(written(read, {.indent = i % 3 - 1})), value) << value;
    }
}
