#include <qel/qelcaught.h>
#include <qel/qelexception.h>
#include <qel/xportexception.h>

#include "support/test.h"
#include "support/thrown.h"

namespace {

/// Owns the failure that `action` throws.
template<class Action>
qel::caught caughtFrom(Action action)
{
    try {
        action();
    } catch (xthrowable* thrown) {
        return qel::caught(thrown);
    }
    return qel::caught(nullptr);
}

} // namespace

// The address sanitizer shows a leak or a second free of each failure below.

TEST(Caught, OwnsFailuresOfBothKinds)
{
    const qel::caught counted = caughtFrom([] { qelXNegativeIndex::Throw(-3); });
    EXPECT_TRUE(counted && counted.type() == "qellib::XNegativeIndex");
    ASSERT_NE(counted.as<qelXNegativeIndex>(), nullptr);
    EXPECT_EQ(counted.as<qelXNegativeIndex>()->getIndex(), -3);
    EXPECT_EQ(counted.as<qelXNull>(), nullptr);
    EXPECT_EQ(xrcgetcount(counted.get()), 1);

    qel::caught freed = caughtFrom([] { xportXTimeout::Throw("read"); });
    EXPECT_TRUE(freed.what() == "communication timeout (op name read)" &&
                freed.type() == "qeljava::XTimeout");
    freed = caughtFrom([] { qelXNull::Throw(); });
    EXPECT_FALSE(freed->isSameAs(xportXTimeout::getClassRtti()));
}

TEST(Caught, HandsOnItsFailureOnce)
{
    qel::caught first = caughtFrom([] { qelXNull::Throw(); });
    const qel::caught moved(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_TRUE(moved && first.what() == nullptr && first.type() == nullptr);
    EXPECT_EQ(thrownBy([&] { first.rethrow(); }), "qellib::XNotInitialized");

    const auto rethrown = [](auto action) {
        try {
            action();
        } catch (xthrowable* thrown) {
            qel::caught failure(thrown);
            failure.rethrow();
        }
    };
    EXPECT_EQ(thrownBy([&] { rethrown([] { xportXTimeout::Throw("read"); }); }), "qeljava::XTimeout");
    EXPECT_EQ(thrownBy([&] { rethrown([] { qelXNull::Throw(); }); }), "qellib::XNull");
}

TEST(ReportUncaught, NamesClassTextAndFunction)
{
    const auto end = [](auto action) {
        qel::reportUncaught();
        qel::reportUncaught();
        [&]() noexcept { action(); }();
    };

    EXPECT_DEATH(end([] { qelXNull::Throw(); }),
                 "^uncaught qellib::XNull: Attempt to assign null to non-optional object\n");
    EXPECT_DEATH(
        end([] { qelThrowNew<qelXExternFunc>("Invalid path", new (pDefMemMgr) qelXFunc("fsCatPaths")); }),
        "uncaught qellib::XExternFunc: Invalid path, in fsCatPaths\n");
    EXPECT_DEATH(end([] { throw std::runtime_error("foreign"); }), "foreign");
}
