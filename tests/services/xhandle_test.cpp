#include <unordered_map>

#include <qel/iostringstream.h>
#include <qel/qelown.h>
#include <qel/qeltable.h>
#include <qel/xdictionary.h>
#include <qel/xsequence.h>

#include "support/test.h"

namespace {

int living = 0;

/// Countable, with a virtual base, so that a conversion of a marker pointer to xobject* would read memory.
class Part : public virtual xobject
{
    QEL_OBJECT(Part);

public:
    explicit Part(int number = 0) : n(number) { ++living; }
    ~Part() override { --living; }
    int number() const { return n; }

private:
    int n;
};

class Wheel : public virtual Part
{
    QEL_OBJECT(Wheel);

public:
    using Part::Part;
};

constinit qelClass Part::rtti = {.name = "test::Part", .counted = true};
constinit qelClass Wheel::rtti = {.name = "test::Wheel", .counted = true, .parents = {QEL_PARENT(Part)}};

class Handles : public testing::Test
{
protected:
    Handles() { living = 0; }
    ~Handles() override { EXPECT_EQ(living, 0); }
};

class Parts : public xtcsequence<xrchandle<Part>>
{
};
class PartsByName : public xtcdictionary<xrchandle<Part>>
{
};

/// Counts by its own rule, as a class may.
class Shy : public virtual xobject
{
    QEL_OBJECT(Shy);
    QEL_COUNTED;

public:
    int attached = 0;

private:
    void xattach() override { ++attached; }
    void xrelease() override
    {
        if (--attached == 0)
            delete this;
    }
};
constinit qelClass Shy::rtti = {.name = "test::Shy", .counted = true};

class Plain : public virtual xobject
{
    QEL_OBJECT(Plain);
    QEL_COUNTED;

public:
    /// Hands itself out while it is made.
    explicit Plain(xrchandle<Plain>* to = nullptr)
    {
        if (to != nullptr)
            *to = this;
    }
};
constinit qelClass Plain::rtti = {.name = "test::Plain", .counted = true};

} // namespace

TEST_F(Handles, TakeTheFirstReferenceOfWhatTheyMake)
{
    const auto plain = qel::make<Plain>();
    EXPECT_EQ(xrcgetcount(plain.get()), 1);
    xrchandle<Plain> early;
    const auto late = qel::make<Plain>(&early);
    EXPECT_TRUE(early == late && xrcgetcount(late.get()) == 2);
    const auto shy = qel::make<Shy>();
    EXPECT_EQ(shy->attached, 1);
    EXPECT_EQ(xrcgetcount(shy.get()), 0);
    EXPECT_EQ(qel::make<Part>(3)->number(), 3);
}

TEST_F(Handles, CompareByIdentityWithoutTakingReferences)
{
    auto* const fresh = new Wheel(1);
    const xrchandle<Part> part = qel::make<Part>(2);
    const xrchandle<Part> none;
    const xrcunihandle<Part> same(part.get());

    // A handle built for a comparison would free the fresh object.
    EXPECT_FALSE(part == fresh);
    EXPECT_TRUE(fresh != part);
    EXPECT_FALSE(none == fresh);
    EXPECT_EQ(xrcgetcount(fresh), 0);
    EXPECT_TRUE(part == same && part == part.get() && part != nullptr && nullptr == none && none == none);
    EXPECT_TRUE((part < part.get() + 1) && none < part && (part <=> part) == 0);

    const xrchandle<Wheel> wheel(fresh);
    const xrchandle<xobject> root = wheel;
    EXPECT_TRUE(root == wheel && wheel == root && root == fresh && root != part);
    const xrchandle<Wheel> uninit(reinterpret_cast<Wheel*>(xuninitobj));
    EXPECT_TRUE(uninit == xuninitobj && uninit != wheel && root != uninit && uninit != nullptr && !uninit);
}

TEST_F(Handles, MoveToABaseClassWithoutCounting)
{
    xrchandle<Wheel> wheel = qel::make<Wheel>(4);
    Wheel* const raw = wheel.get();

    xrchandle<Part> part(std::move(wheel));
    EXPECT_TRUE(wheel == nullptr && part == raw);
    const xrchandle<const Part> reading = std::move(part);
    EXPECT_EQ(xrcgetcount(raw), 1);
    EXPECT_EQ(reading->number(), 4);
    const xrchandle<const Part> another = xrchandle<Wheel>(raw);
    EXPECT_TRUE(another == reading && another == raw);
    EXPECT_EQ(xrcgetcount(raw), 2);

    static_assert(std::is_nothrow_move_constructible_v<xrchandle<Part>> &&
                  std::is_nothrow_constructible_v<xrchandle<Part>, xrchandle<Wheel>> &&
                  std::is_nothrow_default_constructible_v<xrcunihandle<Part>>);
}

TEST_F(Handles, AreKeysAndElementsOfStandardContainers)
{
    std::unordered_map<xrchandle<Part>, std::string> names;
    std::set<xrchandle<Part>> ordered;
    for (int i = 0; i < 40; ++i) {
        const xrchandle<Part> part = qel::make<Part>(i);
        names[part] = std::to_string(i);
        ordered.insert(part);
    }
    EXPECT_TRUE(std::all_of(ordered.begin(), ordered.end(), [&](const xrchandle<Part>& part) {
        return names.at(part) == std::to_string(part->number());
    }));
    EXPECT_EQ(living, 40);
}

TEST_F(Handles, AreElementsOfOurOwnCollections)
{
    const auto parts = qel::make<Parts>();
    const auto byName = qel::make<PartsByName>();
    for (int i = 0; i < 300; ++i) {
        parts->append(i % 2 == 0 ? xrchandle<Part>(new Wheel(i)) : qel::make<Part>(i));
        byName->set(std::to_string(i).c_str(), parts->get(i));
    }
    parts->removerange(0, 100);
    for (int i = 0; i < 290; ++i)
        byName->remove(std::to_string(i).c_str());
    parts->insert(0, nullptr);

    EXPECT_EQ(living, 200);
    EXPECT_TRUE(parts->get(0) == nullptr);
    xrchandle<Part> found;
    EXPECT_TRUE(byName->find("299", &found) && found == parts->get(200));
    EXPECT_EQ(xrcgetcount(found.get()), 3);
}

TEST_F(Handles, AreRefusedWhereTheClassIsNotCounted)
{
    static_assert(qelMayBeCounted<Part>() && !qelMayBeCounted<ioStringStream>());

    const auto stream = qel::own(ioStringStream::Create("x"));
    static_assert(std::is_same_v<decltype(stream), const qel::owned<ioStringStream>>);
    EXPECT_TRUE(stream->ReadString(nullptr) == "x");
}
