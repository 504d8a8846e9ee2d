#include <barrier>

#include <qel/qelexception.h>
#include <qel/qelprint.h>
#include <qel/qeltable.h>

#include "services/testtypes.h"
#include "support/test.h"
#include "support/thrown.h"

enum testMood : int { calm, merry, cross };
QEL_ENUM(testMood);
enum testPulse : unsigned char { slow, fast };
QEL_ENUM(testPulse);

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

/// Enumerations that were never set, one of them too narrow for the null marker.
class Patient : public virtual xobject
{
    QEL_OBJECT(Patient);
    QEL_PROPERTY(testMood, Mood);
    QEL_PROPERTY(testPulse, Pulse);
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

constinit qelClass Patient::rtti = {.name = "test::Patient", .attrs = {QEL_ATTR(Mood), QEL_ATTR(Pulse)}};

constinit qelClass Crowd::rtti = {.name = "test::Crowd", .elements = qelSequenceOf<self>};

} // namespace test

QEL_LABELS(testMood, "test::Mood", calm, merry, cross);
QEL_LABELS(testPulse, "test::Pulse", slow, fast);

using namespace test;

namespace {

xany read(xobject* owner, const char* attr)
{
    return xrttistruct::cast(owner->getRtti())->findAttr(attr, 1)->getValue(owner);
}

/// A T without references that records its destruction.
template<class T>
struct Fresh : T
{
    explicit Fresh(bool& e) : ended(e) {}
    ~Fresh() override { ended = true; }
    bool& ended;
};

} // namespace

TEST(Reading, NeitherFreesAnObjectNorChangesItsCount)
{
    bool ended = false;
    auto* const person = new Fresh<Person>(ended);
    auto* const diary = new Fresh<Diary>(ended);
    auto* const crowd = new Fresh<Crowd>(ended);
    const qelAttr& rebuildName = *qelClassOf(Being::getClassRtti())->attrs.begin();

    rebuildName.rebuild(person, "Ann");
    EXPECT_EQ(read(person, "Name"), "Ann");
    EXPECT_EQ(read(diary, "Pages"), 12);
    EXPECT_EQ(xrttisequence::cast(crowd->getRtti())->getSize(crowd), 3);
    testing::internal::CaptureStderr();
    qelDebugPrint(diary);
    qelDebugPrint(crowd);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Pages : 12"), std::string::npos);

    EXPECT_FALSE(ended);
    for (xobject* const object : std::initializer_list<xobject*>{person, diary, crowd})
        EXPECT_EQ(xrcgetcount(object), 0);
    xdelete(diary);
    xdelete(crowd);
    ended = false;
    // The result of the read holds the object, and releases it last.
    EXPECT_EQ(read(person, "Self"), xany(xrchandle<Person>(person)));
}

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

TEST(Table, ReadsEnumerationsWithoutAValueAsNull)
{
    Patient patient;
    for (const qelAttr& attr : qelClassOf(Patient::getClassRtti())->attrs) {
        EXPECT_TRUE(attr.read(&patient).isNull()) << attr.name;
        attr.rebuild(&patient, xany(1, xrttienum::cast(attr.type())));
        EXPECT_EQ(static_cast<int>(attr.read(&patient)), 1) << attr.name;
        attr.rebuild(&patient, nullptr);
        EXPECT_TRUE(attr.read(&patient).isNull()) << attr.name;
    }
}

TEST(Table, GivesUnionsTheirMembers)
{
    const xrchandle<testtypes::Choice> choice(new testtypes::Choice(2));
    auto* const type = xrttiunion::cast(testtypes::Choice::getClassRtti());
    const xany kind = type->getDiscr()->getValue(choice.get());

    EXPECT_TRUE(type->mapLabelToAttr(kind, 1)->getValue(choice.get()) == "seven");
    EXPECT_EQ(type->mapLabelToAttr(1, 1)->getType(), qelGetRtti_int());
    EXPECT_EQ(type->mapLabelToAttr(3, 1), nullptr);
    EXPECT_EQ(type->getDefaultAttr(), nullptr);
}

TEST(Table, GivesArraysAndSequencesTheirElements)
{
    const xrchandle<testtypes::Grid> grid(new testtypes::Grid);
    auto* const array = xrttiarray::cast(testtypes::Grid::getClassRtti());
    int indices[] = {1, 2};
    EXPECT_TRUE(array->getElemValue(grid.get(), indices) == 23);
    EXPECT_EQ(array->getNDimentions(), 2);
    EXPECT_EQ(array->getDimention(1), 3);
    EXPECT_FALSE(array->getIsElemOptional());
    EXPECT_TRUE(xrttisequence::cast(testtypes::List::getClassRtti())->getIsElemOptional());

    xauto<Crowd> crowd;
    auto* const sequence = xrttisequence::cast(Crowd::getClassRtti());
    EXPECT_EQ(sequence->getSize(&crowd), 3);
    EXPECT_EQ(sequence->getElemType(), Person::getClassRtti());
    EXPECT_TRUE(sequence->getElemValue(&crowd, 1) == xany(&crowd.people[1]));
}

TEST(Table, RejectsOwnersThatItDoesNotDescribe)
{
    xrttiattr* const name = xrttistruct::cast(Being::getClassRtti())->getAttr(0);
    const xrchandle<testtypes::Grid> grid(new testtypes::Grid);
    const auto thrownFor = [&](xobject* owner) { return thrownBy([&] { name->getValue(owner); }); };

    EXPECT_EQ(thrownFor(grid.get()), "qellib::XTypeMismatch");
    EXPECT_EQ(thrownFor(nullptr), "qellib::XNotInitialized");
    EXPECT_EQ(thrownFor(xuninitobj), "qellib::XNotInitialized");
}

TEST(Table, CreatesAndRebuildsObjectsByName)
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

// ---- classes whose descriptors are built here first

namespace {

constexpr int pairs = 200;

/// "test::Pair000" and so on.
struct PairName
{
    constexpr explicit PairName(int n)
        : text{'t',           'e',      's', 't', ':', ':', 'P', 'a', 'i', 'r', digit(n / 100),
               digit(n / 10), digit(n), '\0'}
    {
    }
    static constexpr char digit(int n) { return static_cast<char>('0' + n % 10); }
    char text[14];
};
template<int n>
constexpr PairName pairName(n);

/// One of two classes that refer to each other.
template<int n>
class Paired : public virtual Being
{
    QEL_OBJECT(Paired);

public:
    Paired<n ^ 1>* getOther() { return nullptr; }
    int getNumber() { return n; }
};
template<int n>
constinit qelClass Paired<n>::rtti = {
    .name = pairName<n>.text,
    .counted = true,
    .parents = {QEL_PARENT(Being)},
    .attrs = {QEL_ATTR(Other, qelOptional), QEL_ATTR(Number)},
};

template<int n>
bool isWhole()
{
    auto* const type = xrttistruct::cast(Paired<n>::getClassRtti());
    return type->getName() == pairName<n>.text && type->getNAttrs() == 2 &&
           type->getParent(0) == Being::getClassRtti() &&
           type->getAttr(0)->getType()->getName() == pairName<n ^ 1>.text &&
           qelRttiGetFromMap(pairName<n>.text) == type && qelClassOf(type) != nullptr;
}

template<int... n>
int countWhole(std::integer_sequence<int, n...>)
{
    return (isWhole<n>() + ...);
}

/// Two classes with the same name by mistake.
template<int n>
class Namesake : public virtual xobject
{
    QEL_OBJECT(Namesake);
};
template<int n>
constinit qelClass Namesake<n>::rtti = {.name = "test::Namesake", .counted = true};

/// Tables with rows that their kind does not use.
template<int n>
class Misfit : public virtual Being
{
    QEL_OBJECT(Misfit);

public:
    int getKind() const { return n; }
    int getarraysize() const { return n; }
    int get(int index) const { return index; }
};
template<>
constinit qelClass Misfit<0>::rtti = {
    .name = "test::ListWithParents", .parents = {QEL_PARENT(Being)}, .elements = qelSequenceOf<self>};
template<>
constinit qelClass Misfit<1>::rtti = {
    .name = "test::ListWithAttrs", .attrs = {QEL_ATTR(Kind)}, .elements = qelSequenceOf<self>};
template<>
constinit qelClass Misfit<2>::rtti = {
    .name = "test::UnionWithAttrs", .attrs = {QEL_ATTR(Kind)}, .discriminator = QEL_ATTR(Kind)};
template<>
constinit qelClass Misfit<3>::rtti = {.name = "test::CasesAlone", .cases = {{1, QEL_ATTR(Kind)}}};

} // namespace

TEST(Table, IsBuiltOnceWhenSeveralThreadsNeedItFirst)
{
    std::barrier together(3);
    std::atomic<int> whole = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 3; ++i)
            threads.emplace_back([&] {
                together.arrive_and_wait();
                whole += countWhole(std::make_integer_sequence<int, pairs>());
            });
    }
    EXPECT_EQ(whole, 3 * pairs);
}

TEST(Table, OfASecondClassOfOneNameIsReported)
{
    testing::internal::CaptureStderr();
    qelRegister<Namesake<1>>();
    qelRegister<Namesake<1>>();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    testing::internal::CaptureStderr();
    qelRegister<Namesake<2>>();
    const std::string report = testing::internal::GetCapturedStderr();
    for (const char* const part : {"Namesake<1>", "Namesake<2>", "\"test::Namesake\""})
        EXPECT_NE(report.find(part), std::string::npos) << report;
    EXPECT_EQ(qelRttiGetFromMap("test::Namesake"), Namesake<2>::getClassRtti()); // the last one
}

TEST(Table, WithRowsItsKindIgnoresIsRejected)
{
    EXPECT_DEATH(Misfit<0>::getClassRtti(), "test::ListWithParents: a table with .elements");
    EXPECT_DEATH(Misfit<1>::getClassRtti(), "test::ListWithAttrs: a table with .elements");
    EXPECT_DEATH(Misfit<2>::getClassRtti(), "test::UnionWithAttrs: a table with a .discriminator");
    EXPECT_DEATH(Misfit<3>::getClassRtti(), "test::CasesAlone: a table with .cases");
}
