#include <future>

#include <qel/qelexception.h>
#include <qel/qeltable.h>
#include <qel/xobject.h>

#include "support/test.h"
#include "support/thrown.h"

namespace {

/// The events of objects of the classes below, in order.
std::vector<std::string> events;

/// Countable, with a virtual base, so that a conversion of a marker pointer to xobject* would read memory.
class Counted : public virtual xobject
{
    QEL_OBJECT(Counted);

public:
    explicit Counted(std::function<void()> deleting = {}) : whenDeleted(std::move(deleting)) {}
    ~Counted() override { events.push_back("destroyed"); }

private:
    void onDelete() override
    {
        events.push_back("onDelete");
        if (whenDeleted)
            whenDeleted();
    }

    std::function<void()> whenDeleted;
};

class Derived : public virtual Counted
{
    QEL_OBJECT(Derived);
};

class Uncounted : public virtual xobject
{
    QEL_OBJECT(Uncounted);

public:
    ~Uncounted() override { events.push_back("uncounted destroyed"); }
};

constinit qelClass Counted::rtti = {.name = "test::Counted", .counted = true};
constinit qelClass Derived::rtti = {
    .name = "test::Derived", .counted = true, .parents = {QEL_PARENT(Counted)}};
constinit qelClass Uncounted::rtti = {.name = "test::Uncounted"};

/// Sets the count of an object to a value that only a broken program produces.
void corrupt(xobject* p, std::int32_t count)
{
    // The count is the first field after the table of virtual operations.
    std::memcpy(reinterpret_cast<char*>(p) + sizeof(void*), &count, sizeof count);
}

template<class T>
T* marker()
{
    return reinterpret_cast<T*>(xuninitobj);
}

class Objects : public testing::Test
{
protected:
    Objects() { events.clear(); }
};

} // namespace

TEST_F(Objects, LiveFromTheFirstReferenceToTheLast)
{
    auto* const object = new Counted;
    xrcrelease(object);
    EXPECT_EQ(xrcgetcount(object), 0);

    xrcattach(object);
    xrcuniattach(object);
    EXPECT_EQ(xrcgetcount(object), 2);
    xrcunirelease(object);
    EXPECT_TRUE(events.empty());

    xrcrelease(object);
    EXPECT_EQ(events, (std::vector<std::string>{"onDelete", "destroyed"}));
}

TEST_F(Objects, OfAnUncountableClassAreFreedByXdeleteOnly)
{
    auto* const object = new Uncounted;
    for (int i = 0; i < 3; ++i)
        xrcattach(object);
    for (int i = 0; i < 5; ++i)
        xrcrelease(object);
    EXPECT_EQ(xrcgetcount(object), -1);
    EXPECT_TRUE(events.empty());

    xdelete(object);
    EXPECT_EQ(events, (std::vector<std::string>{"uncounted destroyed"}));
}

TEST_F(Objects, OfACountableClassAreRejectedByXdelete)
{
    const xrchandle<Counted> object(new Counted);
    xdelete(nullptr);

    EXPECT_TRUE(describeThrown<qelXRefCountable>(
        [&] { xdelete(object.get()); },
        [&](qelXRefCountable* thrown) { return thrown->getQelObject() == xany(object); }));
    EXPECT_EQ(thrownBy([] { xdelete(xuninitobj); }), "qellib::XNotInitialized");

    EXPECT_EQ(xrcgetcount(object.get()), 1);
}

TEST_F(Objects, AreDestroyedOnceThoughTheirDestructorAttachesAndReleases)
{
    Counted* object = nullptr;
    object = new Counted([&] { const xrchandle<Counted> again(object); });

    {
        const xrchandle<Counted> owner(object);
    }

    EXPECT_EQ(events, (std::vector<std::string>{"onDelete", "destroyed"}));
}

TEST_F(Objects, InAutomaticStorageSurviveTheirHandles)
{
    xauto<Counted> object;
    {
        const xrchandle<Counted> first(&object);
        const xrchandle<Counted> second(first);
        EXPECT_EQ(xrcgetcount(&object), 2);
    }

    EXPECT_EQ(xrcgetcount(&object), 0);
    EXPECT_EQ(xrcgetcount(xrchandle<Counted>(&object).get()), 1);
}

TEST_F(Objects, CastToTheirClasses)
{
    const xrchandle<Derived> derived(new Derived);
    xobject* const object = derived.get();

    EXPECT_EQ(Counted::cast(object), static_cast<Counted*>(derived.get()));
    EXPECT_EQ(Derived::softcast(object), derived.get());
    EXPECT_EQ(object->dyndowncast(qelGetRtti_object()), object);
    EXPECT_EQ(Uncounted::softcast(object), nullptr);
    EXPECT_EQ(object->dyndowncast(nullptr), nullptr);
    EXPECT_EQ(object->dyndowncast_i(Derived::getClassRtti()), nullptr);
    EXPECT_TRUE(object->isKindOf(Counted::getClassRtti()));
    EXPECT_FALSE(object->isSameAs(Counted::getClassRtti()));
    EXPECT_FALSE(object->isSameAs(nullptr));
    EXPECT_TRUE(object->getQelTypeName() == "test::Derived");

    EXPECT_TRUE(describeThrown<qelXTypeMismatch>([&] { Uncounted::cast(object); },
                                                 [&](qelXTypeMismatch* mismatch) {
                                                     return mismatch->getTypeName() == "test::Uncounted" &&
                                                            mismatch->getQelObject() == xany(object);
                                                 }));
}

TEST_F(Objects, AreNeverReadThroughMarkers)
{
    xrcattach(nullptr);
    xrcrelease(nullptr);
    xrcattach(xuninitobj);
    xrcrelease(xuninitobj);

    EXPECT_EQ(Derived::softcast(nullptr), nullptr);
    EXPECT_EQ(Derived::softcast(xuninitobj), marker<Derived>());
    EXPECT_EQ(Derived::cast(xuninitobj), marker<Derived>());
    EXPECT_EQ(qelObjectOf(marker<Derived>()), xuninitobj);
    const xrchandle<Derived> handle(marker<Derived>());
    const xrchandle<Counted> base(handle);
    const xrcunihandle<Counted> universal(base);
    xrcunihandle<xobject> root;
    root = universal;
    EXPECT_EQ(root.get(), xuninitobj);
    EXPECT_FALSE(root);
    EXPECT_EQ(xany(marker<Derived>()).getKind(), xanyUninit);
}

TEST(Handles, CountTheirReferences)
{
    events.clear();
    auto* const one = new Counted;
    auto* const two = new Counted;
    xrchandle<Counted> keepOne(one), keepTwo(two);
    {
        xrchandle<Counted> handle(one);
        EXPECT_EQ(xrcgetcount(one), 2);
        handle = one;
        EXPECT_EQ(xrcgetcount(one), 2);
        handle = keepTwo;
        EXPECT_EQ(xrcgetcount(one), 1);
        EXPECT_EQ(xrcgetcount(two), 2);
        const xrchandle<Counted> moved(std::move(handle));
        EXPECT_EQ(xrcgetcount(two), 2);
        keepTwo = static_cast<Counted*>(nullptr);
        EXPECT_EQ(xrcgetcount(two), 1);
    }
    EXPECT_EQ(events, (std::vector<std::string>{"onDelete", "destroyed"}));
}

TEST(Handles, UniversalOwnCountableObjectsOnly)
{
    events.clear();
    auto* const plain = new Uncounted;
    auto* const counted = new Counted;
    {
        xrcunihandle<xobject> handle(plain);
        const xrcunihandle<xobject> copy(handle);
        EXPECT_EQ(xrcgetcount(plain), -1);
        handle = counted;
        EXPECT_EQ(xrcgetcount(counted), 1);
        handle = counted;
        EXPECT_EQ(xrcgetcount(counted), 1);
        xdelete(plain); // `copy` refers to a freed object: its destructor must not read it
    }
    EXPECT_EQ(events, (std::vector<std::string>{"uncounted destroyed", "onDelete", "destroyed"}));
}

TEST(Handles, MayBeAssignedAPartOfTheirOwnObject)
{
    events.clear();
    struct Link : Counted
    {
        xrchandle<Link> next;
    };
    xrchandle<Link> list(new Link);
    list->next = new Link;
    list = list->next;

    EXPECT_EQ(xrcgetcount(list.get()), 1);
    EXPECT_EQ(events.size(), 2u);
}

TEST(Handles, InALongChainAreDestroyedInConstantStack)
{
    events.clear();
    struct Link : Counted
    {
        xrchandle<Link> next;
    };
    constexpr std::size_t length = 200000;
    {
        xrchandle<Link> first;
        for (std::size_t i = 0; i < length; ++i) {
            const xrchandle<Link> link(new Link);
            link->next = first;
            first = link;
        }
    }
    EXPECT_EQ(events.size(), 2 * length);
}

TEST(Counts, AreRightWithManyThreads)
{
    events.clear();
    xrchandle<Counted> shared(new Counted);
    xauto<Counted> automatic;
    auto work = [&] {
        for (int i = 0; i < 100000; ++i) {
            const xrchandle<Counted> first(shared);
            const xrcunihandle<Counted> second(first);
            const xrchandle<Counted> swinging(&automatic); // 0 -> 1 and 1 -> 0 meet
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back(work);
    }

    EXPECT_EQ(xrcgetcount(shared.get()), 1);
    EXPECT_EQ(xrcgetcount(&automatic), 0);
    EXPECT_TRUE(events.empty());
}

TEST(Counts, LetOneThreadOfManyDeleteTheObject)
{
    for (int round = 0; round < 200; ++round) {
        events.clear();
        auto* const object = new Counted;
        for (int i = 0; i < 4; ++i)
            xrcattach(object);
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back([=] { xrcrelease(object); });
        }
        ASSERT_EQ(events.size(), 2u);
    }
}

TEST(Counts, OfNewObjectsDoNotWaitForADestructor)
{
    events.clear();
    xrchandle<Counted> made;
    std::future_status status = std::future_status::deferred;
    {
        const xrchandle<Counted> dying(new Counted([&] {
            auto worker = std::async(std::launch::async, [&] { made = new Counted; });
            status = worker.wait_for(std::chrono::seconds(10));
            if (status != std::future_status::ready)
                std::abort(); // the worker cannot finish before this destructor
        }));
    }

    EXPECT_EQ(status, std::future_status::ready);
    EXPECT_EQ(xrcgetcount(made.get()), 1);
}

TEST(Counts, CorruptedEndTheProcess)
{
    xauto<Counted> object;
    corrupt(&object, -7);

    EXPECT_DEATH(xrcattach(&object), "xrcattach: Invalid value of refcount\\.");
    EXPECT_DEATH(xrcrelease(&object), "xrcrelease: Invalid value of refcount\\.");
}

TEST(xthrow, GivesTheCatcherOneReference)
{
    const xrchandle<qelXNull> kept(new qelXNull);
    try {
        xthrow(xrcunihandle<xthrowable>(kept));
    } catch (xobject* caught) { // as its root, too
        EXPECT_EQ(caught, static_cast<xobject*>(kept.get()));
        EXPECT_EQ(xrcgetcount(caught), 2);
        xrcrelease(caught);
    }
    EXPECT_EQ(xrcgetcount(kept.get()), 1);

    EXPECT_THROW(
        {
            try {
                xthrow(nullptr);
            } catch (xthrowable* thrown) {
                EXPECT_NE(qelXNotInitialized::softcast(thrown), nullptr);
                xrcrelease(thrown);
                throw 1;
            }
        },
        int);
}
