#include <qel/qeltraverse.h>
#include <qel/xrtti.h>

#include "services/recorder.h"
#include "services/testtypes.h"
#include "support/test.h"

using namespace testtypes;

namespace {

xany anyOf(int tag, auto set)
{
    __xany_c c{};
    c.tag = tag;
    set(c);
    return xcadapt_c2cxx(c);
}

} // namespace

// ---- values

TEST(qelTraverse, ReportsValuesByKind)
{
    EXPECT_EQ(record(xany()), "");
    EXPECT_EQ(record(xany(nullptr)), "null");
    EXPECT_EQ(record(xany(-5)), "int -5");
    EXPECT_EQ(record(xany(true)), "bool 1");
    EXPECT_EQ(record(xany(0.5)), "real 0.500000");
    EXPECT_EQ(record(xany("a")), "string a");
    EXPECT_EQ(record(xany(blue, qelGetRtti_Colour())), "enum test::Colour 2");
}

TEST(qelTraverse, ReportsValuesStoredByCCode)
{
    const auto setType = [](xrtti* type) { return [=](__xany_c& c) { c.u.enumValue = {1, type}; }; };
    EXPECT_EQ(record(anyOf(xanyEnum, setType(qelGetRtti_int()))), "error Invalid enum value");
    EXPECT_EQ(record(anyOf(xanyEnum, setType(nullptr))), "error Invalid enum value");

    const auto setObject = [](xobject* p) { return [=](__xany_c& c) { c.u.objectValue = p; }; };
    EXPECT_EQ(record(anyOf(xanyObject, setObject(nullptr))), "null");
    EXPECT_EQ(record(anyOf(xanyObject, setObject(xuninitobj))), "");
}

// ---- structures

TEST(qelTraverse, WalksAttributesInOrder)
{
    EXPECT_EQ(record(new Person("Ann", 33)),
              "structure test::Person{test::Person.Name{string Ann} test::Person.Age{int 33} "
              "test::Person.Height{null} test::Person.Member{null} test::Person.Favourite{enum "
              "test::Colour 0}}");
    EXPECT_EQ(Person::alive(), 0); // never attached: destroyed with the value
}

TEST(qelTraverse, WalksASharedBaseOnceAndBasesFirst)
{
    EXPECT_EQ(record(new Duck), "structure test::Duck{test::Being.Id{int 1} test::Swimmer.Depth{int 2} "
                                "test::Flyer.Height{int 3} test::Duck.Call{string quack}}");
}

TEST(qelTraverse, WalksALatticeOfBasesInLinearTime)
{
    // 2 classes in each of 40 layers, each with both of the layer below as bases: 2^40 ways to the bottom.
    constexpr int layers = 40;
    static int reads = 0;
    xrttiattr attr("N", qelGetRtti_int(), 0, [](xobject*) { return xany(++reads); });
    xrttiattr* attrs[] = {&attr};
    xrttistruct types[layers][2];
    xrttiobject* parents[layers][2];
    for (int i = 0; i < layers; ++i)
        for (int j = 0; j < 2; ++j) {
            const std::string name = "test::Lattice" + std::to_string(2 * i + j);
            types[i][j].initialize(name.c_str(), 0, i == 0 ? 0 : 2, i == 0 ? nullptr : parents[i - 1], 1,
                                   attrs);
            parents[i][j] = &types[i][j];
        }

    Recorder counter;
    Described object(&types[layers - 1][0]);
    qelTraverse(&object, &counter);

    EXPECT_EQ(counter.values, 2 * layers - 1);
    EXPECT_EQ(reads, 2 * layers - 1);
}

TEST(qelTraverse, StopsAtCyclesAndAtAnObjectInItself)
{
    const xrchandle<Pair> pair(new Pair(1));
    pair->right = xany(pair);
    EXPECT_EQ(record(pair),
              "structure test::Pair{test::Pair.Left{int 1} test::Pair.Right{already test::Pair}}");

    Loose loose;
    pair->right = xany(new List{xany(&loose), xany(pair)});
    const std::string through = record(pair, "structure test::Loose");
    EXPECT_NE(through.find("1{already test::Pair}}"), std::string::npos) << through;
    EXPECT_EQ(xrcgetcount(pair.get()), 2);
    pair->right = xany();
}

TEST(qelTraverse, WalksAnObjectReachedTwiceWithoutACycleAgain)
{
    const std::string once = "structure test::Pair{test::Pair.Left{int 1} test::Pair.Right{}}";
    const xrchandle<Pair> shared(new Pair(1));

    EXPECT_EQ(record(new Pair(shared, shared)),
              "structure test::Pair{test::Pair.Left{" + once + "} test::Pair.Right{" + once + "}}");
    EXPECT_EQ(xrcgetcount(shared.get()), 1);
}

// ---- sequences, dictionaries, arrays

TEST(qelTraverse, WalksSequencesInsideSequences)
{
    EXPECT_EQ(record(new List{xany("a"), xany(), xany(new List{xany(2)}), xany(new List)}),
              "sequence test::List{0{string a} 1{} 2{sequence test::List{0{int 2}}} 3{sequence "
              "test::List{}}}");
    EXPECT_EQ(List::alive(), 0);
}

TEST(qelTraverse, SkipsEmptySlotsOfADictionaryAndNamesMissingValues)
{
    Loose loose;
    EXPECT_EQ(record(new Table{{nullptr, 1}, {"b", 2}, {nullptr, 3}, {"d", xany()}, {"e", &loose}},
                     "structure test::Loose"),
              "dictionary test::Table{key b{int 2} key d{string <uninit>} key e{structure test::Loose}}");
}

TEST(qelTraverse, WalksAnArrayWithALiveIndex)
{
    EXPECT_EQ(record(new Grid),
              "array test::Grid{dimension 0 0,0{element 0,0{int 11} element 0,1{int 12} element "
              "0,2{int 13}} at dimension 0 0,2 dimension 0 1,2{element 1,0{int 21} element 1,1{int 22} "
              "element 1,2{int 23}}}");
}

TEST(qelTraverse, WalksArraysOfObjectsAndOfAnyNumberOfDimensions)
{
    static constexpr auto pairOf = [](xobject*, int* at) { return xany(new Pair(at[0], at[2])); };
    int extents[] = {2, 1, 2};
    xrttiarray cubeType;
    cubeType.initialize("test::Cube", 0, 3, extents, Pair::getClassRtti(), 0, pairOf);
    Described cube(&cubeType);
    EXPECT_EQ(record(&cube, "structure test::Pair"),
              "array test::Cube{dimension 0 0,0,0{dimension 1 0,0,0{element 0,0,0{structure "
              "test::Pair} element 0,0,1{structure test::Pair}} at dimension 1 0,0,1} at dimension 0 "
              "0,0,1 dimension 0 1,0,1{dimension 1 1,0,1{element 1,0,0{structure test::Pair} element "
              "1,0,1{structure test::Pair}}}}");
    Recorder counter;
    qelTraverse(&cube, &counter);
    EXPECT_EQ(counter.objects, 5);
    EXPECT_EQ(counter.values, 8);
    EXPECT_EQ(Pair::alive(), 0);

    xrttiarray pointType;
    pointType.initialize("test::Point", 0, 0, nullptr, Pair::getClassRtti(), 0, pairOf);
    Described point(&pointType);
    EXPECT_EQ(record(&point), "array test::Point{}");
}

TEST(qelTraverse, AnnouncesAPlainObjectAndWalksItsBasesByTheirKind)
{
    int extents[] = {1};
    xrttiarray base;
    base.initialize("test::Base", 0, 1, extents, qelGetRtti_int(), 0, [](xobject*, int*) { return xany(4); });
    xrttiobject* parents[] = {&base};
    xrttiobject plain;
    plain.initialize("test::Plain", 0, 1, parents);
    Described object(&plain);

    EXPECT_EQ(record(&object), "object test::Plain{element 0{int 4}}");
}

// ---- unions

TEST(qelTraverse, WalksTheMemberThatTheDiscriminatorSelects)
{
    EXPECT_EQ(record(new Choice(2)), "union test::Choice{discriminator test::Choice.Kind{int 2} member "
                                     "test::Choice.Text{string seven}}");
    EXPECT_EQ(record(new Choice(9)),
              "union test::Choice{discriminator test::Choice.Kind{int 9} member test::Choice.none{}}");
    EXPECT_EQ(record(new ColourChoice(blue)),
              "union test::ColourChoice{discriminator test::ColourChoice.Colour{enum test::Colour 2} "
              "member test::ColourChoice.Rest{null}}");
    EXPECT_EQ(record(new ColourChoice(red), "discriminator test::ColourChoice.Colour"),
              "union test::ColourChoice{discriminator test::ColourChoice.Colour member "
              "test::ColourChoice.Heat{real 36.600000}}");
}

TEST(qelTraverse, WalksADerivedUnionWithTheMembersOfBoth)
{
    // A label without a member of its own uses the parent's member.
    EXPECT_EQ(record(new WiderChoice(1)),
              "union test::WiderChoice{discriminator test::Choice.Kind{int 1} member "
              "test::Choice.Number{int 7} discriminator test::WiderChoice.Kind{int 1} member "
              "test::WiderChoice.Number{int 7}}");
    const std::string own = record(new WiderChoice(3));
    EXPECT_NE(own.find("member test::Choice.none{}"), std::string::npos) << own;
    EXPECT_NE(own.find("member test::WiderChoice.More{string more}"), std::string::npos) << own;
}

TEST(qelTraverse, ReportsAUnionWithAParentOfAnotherKind)
{
    xrttiattr discriminator("D", qelGetRtti_int(), 0, [](xobject*) { return xany(4); });
    xrttiobject* parents[] = {Being::getClassRtti()};
    xrttiunion type;
    type.initialize("test::Odd", 0, 1, parents, &discriminator, 0, nullptr, nullptr, nullptr);
    Described odd(&type);

    EXPECT_EQ(record(&odd, "test::Being.Id"),
              "union test::Odd{test::Being.Id discriminator test::Odd.D{int 4} error QEL exception "
              "qellib::XTypeMismatch member test::Odd.none{}}");
}

// ---- failures

TEST(qelTraverse, ReportsAnExceptionOfAReadAndContinues)
{
    EXPECT_EQ(record(new Faulty),
              "structure test::Faulty{test::Faulty.Own{error QEL exception qellib::XNull} "
              "test::Faulty.Loose{error QEL exception test::LooseError} test::Faulty.Foreign{error "
              "Unknown exception} test::Faulty.Number{error Unknown exception} test::Faulty.Good{int "
              "1}}");
    EXPECT_EQ(LooseError::alive(), 0);
}

TEST(qelTraverse, ReportsADictionaryWithUnreadableSizeKeyOrValue)
{
    EXPECT_EQ(record(new FaultyTable(true)),
              "dictionary test::FaultyTable{error QEL exception qellib::XNegativeIndex key {int 0} key "
              "half{error QEL exception qellib::XNegativeIndex}}");
    EXPECT_EQ(record(new FaultyTable(false)), "dictionary test::FaultyTable{error Unknown exception}");
}

TEST(qelTraverse, VisitorMayKeepAReportedException)
{
    class Keeper final : public Recorder
    {
    public:
        xrcunihandle<xthrowable> kept;
        void errorOccured(const char*, xrcunihandle<xthrowable> error) override
        {
            if (!kept)
                kept = error;
        }
    } keeper;
    qelTraverse(new Faulty, &keeper);

    ASSERT_TRUE(keeper.kept);
    EXPECT_EQ(xrcgetcount(keeper.kept.get()), 1);
    EXPECT_EQ(textOf(keeper.kept->getQelTypeName()), "qellib::XNull");
}

// ---- the visitor

TEST(qelTraverse, SkipsPartsThatTheVisitorRefuses)
{
    Loose loose;
    EXPECT_EQ(record(&loose, "structure test::Loose"), "structure test::Loose");
    EXPECT_EQ(record(new List{xany(1)}, "sequence test::List"), "sequence test::List");
    EXPECT_EQ(record(new Table{}, "dictionary test::Table"), "dictionary test::Table");
    EXPECT_EQ(record(new Grid, "array test::Grid"), "array test::Grid");
    EXPECT_EQ(record(new Choice, "union test::Choice"), "union test::Choice");

    EXPECT_EQ(record(new List{xany(1), xany(2)}, "0"), "sequence test::List{0 1{int 2}}");
    EXPECT_EQ(record(new Table{{"a", 1}, {"b", 2}}, "key a"), "dictionary test::Table{key a key b{int 2}}");
    EXPECT_EQ(record(new Pair(1, 2), "test::Pair.Left"),
              "structure test::Pair{test::Pair.Left test::Pair.Right{int 2}}");
    EXPECT_EQ(record(new Choice(1), "member test::Choice.Number"),
              "union test::Choice{discriminator test::Choice.Kind{int 1} member test::Choice.Number}");
    const std::string grid = record(new Grid, "dimension 0 0,0");
    EXPECT_EQ(grid.substr(0, grid.find("element")), "array test::Grid{dimension 0 0,0 dimension 0 1,0{");
    EXPECT_EQ(record(new Grid, "element 0,1").find("int 12"), std::string::npos);
}

TEST(qelTraverse, FreesTheWalkWhenTheVisitorThrows)
{
    const xrchandle<Pair> inner(new Pair(1, xany(new Faulty)));
    const char* const places[] = {"structure test::Pair",
                                  "test::Pair.Left",
                                  "int 1",
                                  "end test::Pair.Left",
                                  "end structure",
                                  "already test::Pair",
                                  "sequence test::List",
                                  "end sequence",
                                  "key b",
                                  "element 0,1",
                                  "end dimension 0 0,2",
                                  "member test::Choice.none",
                                  "error Unknown exception",
                                  "error QEL exception test::LooseError"};
    for (const char* place : places) {
        Recorder recorder;
        recorder.stopAt = place;
        const xany value(new List{xany(inner), xany(new Table{{"b", new Grid}}), xany(new Choice)});
        const xrchandle<List> self(List::cast(value));
        self->elements.emplace_back(new Pair(self, inner));
        inner->left = 1;

        bool stopped = false;
        try {
            inner->left = xany(new List{xany(1), xany(inner)});
            qelTraverse(value, &recorder);
        } catch (const Stop&) {
            stopped = true;
        }

        EXPECT_TRUE(stopped) << place << " in\n" << recorder.lines;
        self->elements.clear();
        inner->left = xany();
        EXPECT_EQ(xrcgetcount(inner.get()), 1) << place;
        EXPECT_EQ(xrcgetcount(self.get()), 2) << place;
        EXPECT_EQ(LooseError::alive(), 0) << place;
    }
    EXPECT_EQ(Pair::alive(), 1);
}

TEST(qelTraverse, HoldsTheOwnerWithEachHandle)
{
    class Watcher final : public Recorder
    {
    public:
        std::string counts;
        bool beginStructure(xrttistruct*, xrcunihandle<xobject> obj) override
        {
            counts += std::to_string(xrcgetcount(obj.get()));
            return true;
        }
        bool beginStructAttribute(xrttistruct*, xrttiattr*, xrcunihandle<xobject> obj) override
        {
            counts += std::to_string(xrcgetcount(obj.get()));
            return false;
        }
        void endStructure(xrttistruct*, xrcunihandle<xobject> obj) override
        {
            counts += std::to_string(xrcgetcount(obj.get()));
        }
    } watcher;
    qelTraverse(new Pair, &watcher); // the value's reference and the handle's
    EXPECT_EQ(watcher.counts, "2222");
}

// ---- deep and wide values

TEST(qelTraverse, WalksDeepValuesToItsLimitAndThenReportsAnError)
{
    const auto chain = [](int length) {
        xrchandle<Pair> head(new Pair(0));
        for (int i = 1; i < length; ++i)
            head = new Pair(i, head);
        return head;
    };
    {
        Recorder counter;
        qelTraverse(chain(qelTraverseDepth), &counter);
        EXPECT_EQ(counter.objects, qelTraverseDepth);
        EXPECT_EQ(counter.ends, qelTraverseDepth);
        EXPECT_EQ(counter.errors, 0);
    }
    {
        Recorder counter;
        qelTraverse(chain(100000), &counter);
        EXPECT_EQ(counter.objects, qelTraverseDepth);
        EXPECT_EQ(counter.ends, qelTraverseDepth);
        EXPECT_EQ(counter.errors, 1);
        EXPECT_NE(counter.lines.find("error Nesting too deep"), std::string::npos);
    }
    EXPECT_EQ(Pair::alive(), 0);

    xany nested(0);
    for (int i = 0; i < 100000; ++i)
        nested = xany(new List{nested});
    Recorder counter;
    qelTraverse(nested, &counter);
    EXPECT_EQ(counter.objects, qelTraverseDepth);
    EXPECT_EQ(counter.errors, 1);
}
