#include <gtest/gtest.h>

#include <cstring>

#include "support/thrown.h"
#include <qel/qelexception.h>
#include <qel/qeltable.h>

enum testMood { calm, merry, cross };
QEL_ENUM(testMood);

namespace test {

class Being : public virtual xobject
{
    QEL_OBJECT(Being);
    QEL_REBUILD(Being);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);

public:
    Being() = default;
    static Being* create() { return new (pDefMemMgr) Being; }
};

class Diary : public virtual xobject
{
    QEL_OBJECT(Diary);

public:
    int getPages() { return 12; }
};

/// Refers to itself, and to a class that is not counted.
class Person : public virtual Being
{
    QEL_OBJECT(Person);

public:
    testMood getMood() { return mood; }
    xrchandle<Person> getFriend() { return best; }
    unsigned char getAwake() { return 1; }
    double getHeight() { return 1.75; }
    xany getAnything() { return xany("thing"); }
    Diary* getDiary() { return &diary; }
    xobject* getSelf() { return this; }

    testMood mood = merry;
    xrchandle<Person> best;

private:
    xauto<Diary> diary;
    int secret() const { return 42; }
};

/// int when Kind is 0, text when it is 1, and nothing else.
class Choice : public virtual xobject
{
    QEL_OBJECT(Choice);

public:
    explicit Choice(int k) : kind(k) {}
    int getKind() { return kind; }
    int getNumber() { return 7; }
    xstring getText() { return "seven"; }

private:
    int kind;
};

class Grid : public virtual xobject
{
    QEL_OBJECT(Grid);

public:
    int getelement(const int* indices) { return 10 * indices[0] + indices[1]; }
};

/// Three people, without a class of the library beneath.
class Crowd : public virtual xobject
{
    QEL_OBJECT(Crowd);

public:
    int getarraysize() { return 3; }
    Person* get(int index)
    {
        if (index >= 3)
            qelhThrowInvalidSeqIndex(this, index);
        return &people[index];
    }
    xauto<Person> people[3];
};

constinit qelClass Being::rtti = {
    .name = "test::Being",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Age, qelOptional)},
    .create = &qelCreateOf<self>,
    .rebuild = &qelRebuildOf<self>,
};

constinit qelClass Diary::rtti = {.name = "test::Diary", .attrs = {QEL_ATTR(Pages)}};

constinit qelClass Person::rtti = {
    .name = "test::Person",
    .counted = true,
    .parents = {QEL_PARENT(Being)},
    .attrs = {QEL_ATTR(Mood), QEL_ATTR(Friend, qelOptional), QEL_ATTR(Awake), QEL_ATTR(Height),
              QEL_ATTR(Anything), QEL_ATTR(Diary), QEL_ATTR(Self), QEL_ATTR_BY(Secret, object.secret())},
};

constinit qelClass Choice::rtti = {
    .name = "test::Choice",
    .counted = true,
    .discriminator = QEL_ATTR(Kind),
    .cases = {{0, QEL_ATTR(Number)}, {1, QEL_ATTR(Text)}},
};

constinit qelClass Grid::rtti = {
    .name = "test::Grid", .counted = true, .elements = qelArrayOf<self, qelOptional>, .dims = {2, 3}};

constinit qelClass Crowd::rtti = {.name = "test::Crowd", .elements = qelSequenceOf<self>};

} // namespace test

QEL_LABELS(testMood, "test::Mood", calm, merry, cross);

using namespace test;

namespace {

xany read(xobject* owner, const char* attr)
{
    return xrttistruct::cast(owner->getRtti())->findAttr(attr, 1)->getValue(owner);
}

} // namespace

TEST(Table, GivesStructuresTheirAttributes)
{
    const xrchandle<Person> person(new Person);
    person->_s11n_setName("Ann");
    auto* const type = xrttistruct::cast(Person::getClassRtti());

    EXPECT_TRUE(type->getName() == "test::Person");
    EXPECT_TRUE(type->getIsRefCount());
    EXPECT_EQ(type->getParent(0), Being::getClassRtti());
    EXPECT_EQ(type->getAttr(0)->getType(), qelGetRtti_testMood());
    EXPECT_EQ(type->findAttr("Friend", 0)->getType(), Person::getClassRtti());
    EXPECT_TRUE(type->findAttr("Friend", 0)->getIsOptional());
    EXPECT_FALSE(type->findAttr("Mood", 0)->getIsOptional());
    EXPECT_EQ(type->findAttr("Self", 0)->getType(), static_cast<xrtti*>(qelGetRtti_object()));

    EXPECT_TRUE(read(person.get(), "Name") == "Ann");
    EXPECT_TRUE(read(person.get(), "Age").isNull()); // not the number that stands for null
    EXPECT_TRUE(read(person.get(), "Mood") == xany(merry, qelGetRtti_testMood()));
    EXPECT_TRUE(read(person.get(), "Friend").isNull());
    EXPECT_TRUE(read(person.get(), "Awake") == true);
    EXPECT_TRUE(read(person.get(), "Height") == 1.75);
    EXPECT_TRUE(read(person.get(), "Anything") == "thing");
    EXPECT_TRUE(read(person.get(), "Secret") == 42);
    EXPECT_TRUE(read(read(person.get(), "Diary"), "Pages") == 12);
    EXPECT_TRUE(read(person.get(), "Self") == xany(person));
    EXPECT_EQ(xrcgetcount(person.get()), 1);
}

TEST(Table, GivesEnumerationsTheirLabels)
{
    xrttienum* const type = qelGetRtti_testMood();

    EXPECT_EQ(type->getNValues(), 3);
    EXPECT_TRUE(type->mapIntToString(cross) == "cross");
    EXPECT_EQ(qelRttiGetFromMap("test::Mood"), type);
}

TEST(Table, GivesUnionsTheirMembers)
{
    const xrchandle<Choice> choice(new Choice(1));
    auto* const type = xrttiunion::cast(Choice::getClassRtti());
    const xany kind = type->getDiscr()->getValue(choice.get());

    EXPECT_TRUE(type->mapLabelToAttr(kind, 1)->getValue(choice.get()) == "seven");
    EXPECT_EQ(type->mapLabelToAttr(0, 1)->getType(), qelGetRtti_int());
    EXPECT_EQ(type->mapLabelToAttr(2, 1), nullptr);
    EXPECT_EQ(type->getDefaultAttr(), nullptr);
}

TEST(Table, GivesArraysAndSequencesTheirElements)
{
    const xrchandle<Grid> grid(new Grid);
    auto* const array = xrttiarray::cast(Grid::getClassRtti());
    int indices[] = {1, 2};
    EXPECT_TRUE(array->getElemValue(grid.get(), indices) == 12);
    EXPECT_EQ(array->getNDimentions(), 2);
    EXPECT_EQ(array->getDimention(1), 3);
    EXPECT_TRUE(array->getIsElemOptional());

    xauto<Crowd> crowd;
    auto* const sequence = xrttisequence::cast(Crowd::getClassRtti());
    EXPECT_EQ(sequence->getSize(&crowd), 3);
    EXPECT_EQ(sequence->getElemType(), Person::getClassRtti());
    EXPECT_TRUE(sequence->getElemValue(&crowd, 1) == xany(&crowd.people[1]));
}

TEST(Table, RefusesOwnersThatItDoesNotDescribe)
{
    xrttiattr* const name = xrttistruct::cast(Being::getClassRtti())->getAttr(0);
    const xrchandle<Grid> grid(new Grid);
    const auto thrownFor = [&](xobject* owner) { return thrownBy([&] { name->getValue(owner); }); };

    EXPECT_EQ(thrownFor(grid.get()), "qellib::XTypeMismatch");
    EXPECT_EQ(thrownFor(nullptr), "qellib::XNotInitialized");
    EXPECT_EQ(thrownFor(xuninitobj), "qellib::XNotInitialized");
}

TEST(Table, MakesAndRebuildsObjectsByName)
{
    const qelClass* const table = qelClassOf(xrttiobject::cast(qelRttiGetFromMap("test::Being")));
    ASSERT_NE(table, nullptr);
    const xrchandle<xobject> made(table->create());
    EXPECT_TRUE(made->isSameAs(Being::getClassRtti()));

    const xrchandle<Being> rebuilt(Being::cast(table->rebuild(nullptr)));
    for (const qelAttr& attr : table->attrs)
        attr.rebuild(rebuilt.get(), strcmp(attr.name, "Name") == 0 ? xany("Bo") : xany(33));

    EXPECT_TRUE(rebuilt->getName() == "Bo");
    EXPECT_EQ(rebuilt->getAge(), 33);
    EXPECT_EQ(qelClassOf(Diary::getClassRtti())->attrs.begin()->rebuild, nullptr);
    EXPECT_EQ(qelClassOf(qelGetRtti_object()), nullptr);
}

namespace {

/// One of 60 layers, each of which has the layer below as two bases: 2^60 ways to the bottom.
template<int n>
struct Layer
{
    static qelClass table;
    static xrttiobject* rtti() { return qelDescriptorOf(table); }
    static void* downcast(void* object, const xrttiobject* wanted)
    {
        return qelDowncast(table, object, static_cast<xobject*>(object), wanted);
    }
    static constexpr qelParent row = {.rtti = &rtti, .downcast = &downcast};
};

template<>
constinit qelClass Layer<0>::table = {.name = "test::Bottom"};
template<int n>
constinit qelClass Layer<n>::table = {.name = "test::Layer",
                                      .parents = {Layer<n - 1>::row, Layer<n - 1>::row}};

} // namespace

TEST(Table, CastsInALatticeInLinearTime)
{
    test::Diary object;
    EXPECT_EQ(Layer<60>::downcast(&object, Layer<0>::rtti()), &object);
    EXPECT_EQ(Layer<60>::downcast(&object, test::Being::getClassRtti()), nullptr);
}
