#include <qel/qelrtti.h>
#include <qel/qels11n.h>
#include <qel/qeltable.h>

#include "support/test.h"

namespace {

/// Counts its living objects.
template<bool counted>
class Thing : public virtual xobject
{
    QEL_OBJECT(Thing);

public:
    Thing() { ++alive; }
    ~Thing() override { --alive; }
    static int alive;
};

template<bool counted>
int Thing<counted>::alive = 0;
template<>
constinit qelClass Thing<true>::rtti = {.name = "test::Thing", .counted = true};
template<>
constinit qelClass Thing<false>::rtti = {.name = "test::Uncounted"};

} // namespace

TEST(S11nContext, KeepsUserDataUnderNames)
{
    qelS11nContext context;
    EXPECT_TRUE(context.getUserData("x").isUninit());
    EXPECT_TRUE(context.getUserData().isUninit());

    context.setUserData("x", 5);
    EXPECT_TRUE(context.getUserData("x") == 5);
    context.setUserData("x", 6);
    EXPECT_TRUE(context.getUserData("x") == 6);

    context.setUserData(xany("unnamed"));
    EXPECT_TRUE(context.getUserData() == "unnamed");
    EXPECT_TRUE(context.getUserData("") == "unnamed");
    EXPECT_TRUE(context.getUserData("x") == 6);
}

TEST(S11nContext, HoldsItsObjectsUntilItIsDestroyed)
{
    {
        qelS11nContext context;
        const xrcunihandle<xobject> first(new Thing<true>);
        EXPECT_FALSE(context.getRootObject());

        context.setRootObject(first);
        EXPECT_EQ(context.getRootObject().get(), first.get());
        EXPECT_EQ(xrcgetcount(first.get()), 2);

        context.setRootObject(new Thing<true>);
        EXPECT_EQ(xrcgetcount(first.get()), 1); // released once
        context.setRootObject(context.getRootObject());
        EXPECT_EQ(Thing<true>::alive, 2);

        context.setUserData("kept", xany(new Thing<true>));
        EXPECT_EQ(Thing<true>::alive, 3);
    }
    EXPECT_EQ(Thing<true>::alive, 0);
}

TEST(S11nContext, OnlyRefersToARootThatIsNotCountable)
{
    auto* const root = new Thing<false>;
    {
        qelS11nContext context;
        context.setRootObject(root);
        EXPECT_EQ(context.getRootObject().get(), root);
    }
    EXPECT_EQ(Thing<false>::alive, 1);
    xdelete(root);
    EXPECT_EQ(Thing<false>::alive, 0);
}

TEST(S11nContextSensitive, MarksClassesByItsBareName)
{
    class Sensitive : public virtual qelS11nContextSensitive
    {
    };
    auto* const type = xrttistruct::cast(qelS11nContextSensitive::getClassRtti());
    EXPECT_EQ(qelRttiGetFromMap("qelS11nContextSensitive"), static_cast<xrtti*>(type));
    EXPECT_EQ(type->getNAttrs(), 0);
    EXPECT_EQ(type->getNParents(), 0);
    EXPECT_FALSE(type->getIsRefCount());

    xobject* const object = new Sensitive;
    EXPECT_NE(qelS11nContextSensitive::softcast(object), nullptr);
    xdelete(object);
}
