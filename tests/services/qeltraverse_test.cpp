#include <gtest/gtest.h>
#include <string>

#include <qel/qeltraverse.h>
#include <qel/xrtti.h>

#include "services/recorder.h"
#include "services/testtypes.h"

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
    EXPECT_EQ(record(xany(nullptr)), "null\n");
    EXPECT_EQ(record(xany(-5)), "int -5\n");
    EXPECT_EQ(record(xany(true)), "bool 1\n");
    EXPECT_EQ(record(xany(0.5)), "real 0.500000\n");
    EXPECT_EQ(record(xany("a")), "string a\n");
    EXPECT_EQ(record(xany(blue, qelGetRtti_Colour())), "enum test::Colour 2\n");
}

TEST(qelTraverse, ReportsValuesStoredByCCode)
{
    const auto setType = [](xrtti* type) { return [=](__xany_c& c) { c.u.enumValue = {1, type}; }; };
    EXPECT_EQ(record(anyOf(xanyEnum, setType(qelGetRtti_int()))), "error Invalid enum value\n");
    EXPECT_EQ(record(anyOf(xanyEnum, setType(nullptr))), "error Invalid enum value\n");

    const auto setObject = [](xobject* p) { return [=](__xany_c& c) { c.u.objectValue = p; }; };
    EXPECT_EQ(record(anyOf(xanyObject, setObject(nullptr))), "null\n");
    EXPECT_EQ(record(anyOf(xanyObject, setObject(xuninitobj))), "");
}

// ---- structures

TEST(qelTraverse, WalksAttributesInOrder)
{
    EXPECT_EQ(record(new Person("Ann", 33)), "structure test::Person\n"
                                             "  test::Person.Name\n"
                                             "    string Ann\n"
                                             "  end test::Person.Name\n"
                                             "  test::Person.Age\n"
                                             "    int 33\n"
                                             "  end test::Person.Age\n"
                                             "  test::Person.Height\n"
                                             "    null\n"
                                             "  end test::Person.Height\n"
                                             "  test::Person.Member\n"
                                             "    null\n"
                                             "  end test::Person.Member\n"
                                             "  test::Person.Favourite\n"
                                             "    enum test::Colour 0\n"
                                             "  end test::Person.Favourite\n"
                                             "end structure\n");
    EXPECT_EQ(Person::alive(), 0); // never attached: destroyed with the value
}

TEST(qelTraverse, WalksASharedBaseOnceAndBasesFirst)
{
    EXPECT_EQ(record(new Duck), "structure test::Duck\n"
                                "  test::Being.Id\n"
                                "    int 1\n"
                                "  end test::Being.Id\n"
                                "  test::Swimmer.Depth\n"
                                "    int 2\n"
                                "  end test::Swimmer.Depth\n"
                                "  test::Flyer.Height\n"
                                "    int 3\n"
                                "  end test::Flyer.Height\n"
                                "  test::Duck.Call\n"
                                "    string quack\n"
                                "  end test::Duck.Call\n"
                                "end structure\n");
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

    Counter counter;
    Described object(&types[layers - 1][0]);
    qelTraverse(&object, &counter);

    EXPECT_EQ(counter.values, 2 * layers - 1);
    EXPECT_EQ(reads, 2 * layers - 1);
}

TEST(qelTraverse, StopsAtCyclesAndAtAnObjectInItself)
{
    const xrchandle<Pair> pair(new Pair(1));
    pair->right = xany(pair);
    EXPECT_EQ(record(pair), "structure test::Pair\n"
                            "  test::Pair.Left\n"
                            "    int 1\n"
                            "  end test::Pair.Left\n"
                            "  test::Pair.Right\n"
                            "    already test::Pair\n"
                            "  end test::Pair.Right\n"
                            "end structure\n");

    Loose loose;
    pair->right = xany(new List{xany(&loose), xany(pair)});
    const std::string through = record(pair, "structure test::Loose");
    EXPECT_NE(through.find("\n      1\n        already test::Pair\n      end 1\n    end sequence\n"),
              std::string::npos)
        << through;
    EXPECT_EQ(xrcgetcount(pair.get()), 2);
    pair->right = xany();
}

TEST(qelTraverse, WalksAnObjectReachedTwiceWithoutACycleAgain)
{
    const std::string once = "    structure test::Pair\n"
                             "      test::Pair.Left\n"
                             "        int 1\n"
                             "      end test::Pair.Left\n"
                             "      test::Pair.Right\n" // uninit: nothing between
                             "      end test::Pair.Right\n"
                             "    end structure\n";
    const xrchandle<Pair> shared(new Pair(1));

    EXPECT_EQ(record(new Pair(shared, shared)), "structure test::Pair\n"
                                                "  test::Pair.Left\n" +
                                                    once +
                                                    "  end test::Pair.Left\n"
                                                    "  test::Pair.Right\n" +
                                                    once +
                                                    "  end test::Pair.Right\n"
                                                    "end structure\n");
    EXPECT_EQ(xrcgetcount(shared.get()), 1);
}

// ---- sequences, dictionaries, arrays

TEST(qelTraverse, WalksSequencesInsideSequences)
{
    EXPECT_EQ(record(new List{xany("a"), xany(), xany(new List{xany(2)}), xany(new List)}),
              "sequence test::List\n"
              "  0\n"
              "    string a\n"
              "  end 0\n"
              "  1\n"
              "  end 1\n"
              "  2\n"
              "    sequence test::List\n"
              "      0\n"
              "        int 2\n"
              "      end 0\n"
              "    end sequence\n"
              "  end 2\n"
              "  3\n"
              "    sequence test::List\n"
              "    end sequence\n"
              "  end 3\n"
              "end sequence\n");
    EXPECT_EQ(List::alive(), 0);
}

TEST(qelTraverse, SkipsEmptySlotsOfADictionaryAndNamesMissingValues)
{
    Loose loose;
    EXPECT_EQ(record(new Table{{nullptr, 1}, {"b", 2}, {nullptr, 3}, {"d", xany()}, {"e", &loose}},
                     "structure test::Loose"),
              "dictionary test::Table\n"
              "  key b\n"
              "    int 2\n"
              "  end key b\n"
              "  key d\n"
              "    string <uninit>\n"
              "  end key d\n"
              "  key e\n"
              "    structure test::Loose\n"
              "  end key e\n"
              "end dictionary\n");
}

TEST(qelTraverse, WalksAnArrayWithALiveIndex)
{
    EXPECT_EQ(record(new Grid), "array test::Grid\n"
                                "  dimension 0 0,0\n"
                                "    element 0,0\n"
                                "      int 11\n"
                                "    end element 0,0\n"
                                "    element 0,1\n"
                                "      int 12\n"
                                "    end element 0,1\n"
                                "    element 0,2\n"
                                "      int 13\n"
                                "    end element 0,2\n"
                                "  end dimension 0 0,2\n"
                                "  dimension 0 1,2\n"
                                "    element 1,0\n"
                                "      int 21\n"
                                "    end element 1,0\n"
                                "    element 1,1\n"
                                "      int 22\n"
                                "    end element 1,1\n"
                                "    element 1,2\n"
                                "      int 23\n"
                                "    end element 1,2\n"
                                "  end dimension 0 1,2\n"
                                "end array\n");
}

TEST(qelTraverse, WalksArraysOfObjectsAndOfAnyNumberOfDimensions)
{
    static constexpr auto pairOf = [](xobject*, int* at) { return xany(new Pair(at[0], at[2])); };
    int extents[] = {2, 1, 2};
    xrttiarray cubeType;
    cubeType.initialize("test::Cube", 0, 3, extents, Pair::getClassRtti(), 0, pairOf);
    Described cube(&cubeType);
    EXPECT_EQ(record(&cube, "structure test::Pair"), "array test::Cube\n"
                                                     "  dimension 0 0,0,0\n"
                                                     "    dimension 1 0,0,0\n"
                                                     "      element 0,0,0\n"
                                                     "        structure test::Pair\n"
                                                     "      end element 0,0,0\n"
                                                     "      element 0,0,1\n"
                                                     "        structure test::Pair\n"
                                                     "      end element 0,0,1\n"
                                                     "    end dimension 1 0,0,1\n"
                                                     "  end dimension 0 0,0,1\n"
                                                     "  dimension 0 1,0,1\n"
                                                     "    dimension 1 1,0,1\n"
                                                     "      element 1,0,0\n"
                                                     "        structure test::Pair\n"
                                                     "      end element 1,0,0\n"
                                                     "      element 1,0,1\n"
                                                     "        structure test::Pair\n"
                                                     "      end element 1,0,1\n"
                                                     "    end dimension 1 1,0,1\n"
                                                     "  end dimension 0 1,0,1\n"
                                                     "end array\n");
    Counter counter;
    qelTraverse(&cube, &counter);
    EXPECT_EQ(counter.objects, 5);
    EXPECT_EQ(counter.values, 8);
    EXPECT_EQ(Pair::alive(), 0);

    xrttiarray pointType;
    pointType.initialize("test::Point", 0, 0, nullptr, Pair::getClassRtti(), 0, pairOf);
    Described point(&pointType);
    EXPECT_EQ(record(&point), "array test::Point\nend array\n");
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

    EXPECT_EQ(record(&object), "object test::Plain\n"
                               "  element 0\n"
                               "    int 4\n"
                               "  end element 0\n"
                               "end object\n");
}

// ---- unions

TEST(qelTraverse, WalksTheMemberThatTheDiscriminatorSelects)
{
    EXPECT_EQ(record(new Choice(2)), "union test::Choice\n"
                                     "  discriminator test::Choice.Kind\n"
                                     "    int 2\n"
                                     "  end discriminator test::Choice.Kind\n"
                                     "  member test::Choice.Text\n"
                                     "    string seven\n"
                                     "  end member test::Choice.Text\n"
                                     "end union\n");
    EXPECT_EQ(record(new Choice(9)), "union test::Choice\n"
                                     "  discriminator test::Choice.Kind\n"
                                     "    int 9\n"
                                     "  end discriminator test::Choice.Kind\n"
                                     "  member test::Choice.none\n"
                                     "  end member test::Choice.none\n"
                                     "end union\n");
    EXPECT_EQ(record(new ColourChoice(blue)), "union test::ColourChoice\n"
                                              "  discriminator test::ColourChoice.Colour\n"
                                              "    enum test::Colour 2\n"
                                              "  end discriminator test::ColourChoice.Colour\n"
                                              "  member test::ColourChoice.Rest\n"
                                              "    null\n"
                                              "  end member test::ColourChoice.Rest\n"
                                              "end union\n");
    EXPECT_EQ(record(new ColourChoice(red), "discriminator test::ColourChoice.Colour"),
              "union test::ColourChoice\n"
              "  discriminator test::ColourChoice.Colour\n"
              "  member test::ColourChoice.Heat\n"
              "    real 36.600000\n"
              "  end member test::ColourChoice.Heat\n"
              "end union\n");
}

TEST(qelTraverse, WalksADerivedUnionWithTheMembersOfBoth)
{
    // A label without a member of its own uses the parent's member.
    EXPECT_EQ(record(new WiderChoice(1)), "union test::WiderChoice\n"
                                          "  discriminator test::Choice.Kind\n"
                                          "    int 1\n"
                                          "  end discriminator test::Choice.Kind\n"
                                          "  member test::Choice.Number\n"
                                          "    int 7\n"
                                          "  end member test::Choice.Number\n"
                                          "  discriminator test::WiderChoice.Kind\n"
                                          "    int 1\n"
                                          "  end discriminator test::WiderChoice.Kind\n"
                                          "  member test::WiderChoice.Number\n"
                                          "    int 7\n"
                                          "  end member test::WiderChoice.Number\n"
                                          "end union\n");
    const std::string own = record(new WiderChoice(3));
    EXPECT_NE(own.find("  member test::Choice.none\n"), std::string::npos) << own;
    EXPECT_NE(own.find("  member test::WiderChoice.More\n    string more\n"), std::string::npos) << own;
}

TEST(qelTraverse, ReportsAUnionWithAParentOfAnotherKind)
{
    xrttiattr discriminator("D", qelGetRtti_int(), 0, [](xobject*) { return xany(4); });
    xrttiobject* parents[] = {Being::getClassRtti()};
    xrttiunion type;
    type.initialize("test::Odd", 0, 1, parents, &discriminator, 0, nullptr, nullptr, nullptr);
    Described odd(&type);

    EXPECT_EQ(record(&odd, "test::Being.Id"), "union test::Odd\n"
                                              "  test::Being.Id\n"
                                              "  discriminator test::Odd.D\n"
                                              "    int 4\n"
                                              "  end discriminator test::Odd.D\n"
                                              "  error QEL exception qellib::XTypeMismatch\n"
                                              "  member test::Odd.none\n"
                                              "  end member test::Odd.none\n"
                                              "end union\n");
}

// ---- failures

TEST(qelTraverse, ReportsAnExceptionOfAReadAndContinues)
{
    EXPECT_EQ(record(new Faulty), "structure test::Faulty\n"
                                  "  test::Faulty.Own\n"
                                  "    error QEL exception qellib::XNull\n"
                                  "  end test::Faulty.Own\n"
                                  "  test::Faulty.Loose\n"
                                  "    error QEL exception test::LooseError\n"
                                  "  end test::Faulty.Loose\n"
                                  "  test::Faulty.Foreign\n"
                                  "    error Unknown exception\n"
                                  "  end test::Faulty.Foreign\n"
                                  "  test::Faulty.Number\n"
                                  "    error Unknown exception\n"
                                  "  end test::Faulty.Number\n"
                                  "  test::Faulty.Good\n"
                                  "    int 1\n"
                                  "  end test::Faulty.Good\n"
                                  "end structure\n");
    EXPECT_EQ(LooseError::alive(), 0);
}

TEST(qelTraverse, ReportsADictionaryWithUnreadableSizeKeyOrValue)
{
    EXPECT_EQ(record(new FaultyTable(true)), "dictionary test::FaultyTable\n"
                                             "  error QEL exception qellib::XNegativeIndex\n"
                                             "  key \n"
                                             "    int 0\n"
                                             "  end key \n"
                                             "  key half\n"
                                             "    error QEL exception qellib::XNegativeIndex\n"
                                             "  end key half\n"
                                             "end dictionary\n");
    EXPECT_EQ(record(new FaultyTable(false)), "dictionary test::FaultyTable\n"
                                              "  error Unknown exception\n"
                                              "end dictionary\n");
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
    EXPECT_EQ(record(&loose, "structure test::Loose"), "structure test::Loose\n");
    EXPECT_EQ(record(new List{xany(1)}, "sequence test::List"), "sequence test::List\n");
    EXPECT_EQ(record(new Table{}, "dictionary test::Table"), "dictionary test::Table\n");
    EXPECT_EQ(record(new Grid, "array test::Grid"), "array test::Grid\n");
    EXPECT_EQ(record(new Choice, "union test::Choice"), "union test::Choice\n");

    EXPECT_EQ(record(new List{xany(1), xany(2)}, "0"), "sequence test::List\n"
                                                       "  0\n"
                                                       "  1\n"
                                                       "    int 2\n"
                                                       "  end 1\n"
                                                       "end sequence\n");
    EXPECT_EQ(record(new Table{{"a", 1}, {"b", 2}}, "key a"), "dictionary test::Table\n"
                                                              "  key a\n"
                                                              "  key b\n"
                                                              "    int 2\n"
                                                              "  end key b\n"
                                                              "end dictionary\n");
    EXPECT_EQ(record(new Pair(1, 2), "test::Pair.Left"), "structure test::Pair\n"
                                                         "  test::Pair.Left\n"
                                                         "  test::Pair.Right\n"
                                                         "    int 2\n"
                                                         "  end test::Pair.Right\n"
                                                         "end structure\n");
    EXPECT_EQ(record(new Choice(1), "member test::Choice.Number"), "union test::Choice\n"
                                                                   "  discriminator test::Choice.Kind\n"
                                                                   "    int 1\n"
                                                                   "  end discriminator test::Choice.Kind\n"
                                                                   "  member test::Choice.Number\n"
                                                                   "end union\n");
    const std::string grid = record(new Grid, "dimension 0 0,0");
    EXPECT_EQ(grid.substr(0, grid.find("element")), "array test::Grid\n"
                                                    "  dimension 0 0,0\n"
                                                    "  dimension 0 1,0\n"
                                                    "    ");
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
        Counter counter;
        qelTraverse(chain(qelTraverseDepth), &counter);
        EXPECT_EQ(counter.objects, qelTraverseDepth);
        EXPECT_EQ(counter.ends, qelTraverseDepth);
        EXPECT_EQ(counter.errors, 0);
    }
    {
        Counter counter;
        qelTraverse(chain(100000), &counter);
        EXPECT_EQ(counter.objects, qelTraverseDepth);
        EXPECT_EQ(counter.ends, qelTraverseDepth);
        EXPECT_EQ(counter.errors, 1);
        EXPECT_EQ(counter.errorText, "Nesting too deep");
    }
    EXPECT_EQ(Pair::alive(), 0);

    xany nested(0);
    for (int i = 0; i < 100000; ++i)
        nested = xany(new List{nested});
    Counter counter;
    qelTraverse(nested, &counter);
    EXPECT_EQ(counter.objects, qelTraverseDepth);
    EXPECT_EQ(counter.errors, 1);
}

TEST(qelTraverse, WalksWideValues)
{
    const xrchandle<List> wide(new List);
    wide->elements.assign(1000000, xany(1));
    wide->elements.back() = xany(new Pair(1, wide));

    Counter counter;
    qelTraverse(wide, &counter);

    EXPECT_EQ(counter.values, 1000000);
    EXPECT_EQ(counter.objects, 2);
    wide->elements.clear();
}
