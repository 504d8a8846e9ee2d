#include <qel/qelexception.h>
#include <qel/xerrhandler.h>

#include "support/test.h"

namespace {

std::vector<int> heard; // the called listeners, in order

/// Records its call, runs its action and returns its status.
class Listener final : public xerrlistener
{
public:
    Listener(int number, xerhstatus answer) : name(number), status(answer) {}

    xerhstatus onError(const char* text, xrcunihandle<xthrowable> error, xrcunihandle<xobject> subject,
                       xrcunihandle<xobject> context) override
    {
        heard.push_back(name);
        said = text;
        handles = bool(error) + bool(subject) + bool(context);
        const xerhstatus answer = status; // the action may destroy this object
        if (action)
            action();
        return answer;
    }

    void (*action)() = nullptr;
    const char* said = nullptr;
    int handles = 0;

private:
    const int name;
    const xerhstatus status;
};

class ErrorHandler : public testing::Test
{
protected:
    void SetUp() override { heard.clear(); }
};

xerhstatus dispatch()
{
    return xerrhandler::dispatch("text", nullptr, nullptr, nullptr);
}

std::unique_ptr<Listener> self;
Listener* removed;
Listener* added;

} // namespace

TEST_F(ErrorHandler, ReleasesTheHandlesWithAndWithoutListeners)
{
    const xrchandle<qelXNull> error(new qelXNull);
    const xrchandle<qelXArgs> subject(new qelXArgs);
    EXPECT_EQ(xerrhandler::dispatch("lost", error, subject, subject), 0);
    EXPECT_EQ(xrcgetcount(error.get()), 1);
    EXPECT_EQ(xrcgetcount(subject.get()), 1);

    Listener listener(1, 5);
    xerrhandler::addlistener(&listener);
    EXPECT_EQ(xerrhandler::dispatch("lost", error, subject, subject), 5);
    EXPECT_STREQ(listener.said, "lost");
    EXPECT_EQ(listener.handles, 3);
    EXPECT_EQ(xrcgetcount(error.get()), 1);
    EXPECT_EQ(xrcgetcount(subject.get()), 1);
}

TEST_F(ErrorHandler, CallsListenersInAddressOrderUntilOneHandlesTheError)
{
    Listener listeners[] = {{0, 0}, {1, 0}, {2, 7}, {3, 9}};
    for (const int i : {3, 1, 0, 2})
        xerrhandler::addlistener(&listeners[i]);

    EXPECT_EQ(dispatch(), 7);
    EXPECT_EQ(heard, (std::vector<int>{0, 1, 2}));

    xerrhandler::removelistener(&listeners[2]);
    xerrhandler::removelistener(&listeners[3]);
    EXPECT_EQ(dispatch(), 0);
}

TEST_F(ErrorHandler, RegistersEachListenerOnce)
{
    Listener listener(1, 0);
    xerrhandler::addlistener(&listener);
    xerrhandler::addlistener(&listener);
    dispatch();
    EXPECT_EQ(heard.size(), 1u);

    xerrhandler::removelistener(&listener);
    xerrhandler::removelistener(&listener);
    xerrhandler::addlistener(nullptr);
    dispatch();
    EXPECT_EQ(heard.size(), 1u);
}

TEST_F(ErrorHandler, RemovesADestroyedListener)
{
    {
        Listener listener(1, 3);
        xerrhandler::addlistener(&listener);
        EXPECT_EQ(dispatch(), 3);
    }
    EXPECT_EQ(dispatch(), 0);
    EXPECT_EQ(heard.size(), 1u);
}

TEST_F(ErrorHandler, ListenersMayBeAddedAndRemovedDuringACall)
{
    self = std::make_unique<Listener>(1, 0);
    Listener others[] = {{2, 0}, {3, 0}, {4, 0}};
    removed = &others[1];
    added = &others[2];
    for (Listener* const l : {self.get(), &others[0], removed})
        xerrhandler::addlistener(l);
    self->action = others[0].action = [] {
        self.reset();
        xerrhandler::removelistener(removed);
        xerrhandler::addlistener(added);
    };

    EXPECT_EQ(dispatch(), 0);
    EXPECT_EQ(std::count(heard.begin(), heard.end(), 3), 0); // removed by an earlier one
    EXPECT_EQ(std::count(heard.begin(), heard.end(), 4), 0); // was not registered when the call began

    heard.clear();
    dispatch();
    EXPECT_EQ(heard, (std::vector<int>{2, 4}));
}

TEST_F(ErrorHandler, GrowsInStepsAndKeepsItsCapacity)
{
    std::vector<std::unique_ptr<Listener>> listeners;
    const auto addUpTo = [&](std::size_t count) {
        while (listeners.size() < count) {
            listeners.push_back(std::make_unique<Listener>(0, 0));
            xerrhandler::addlistener(listeners.back().get());
        }
        return xerrhandler::getcapacity();
    };

    EXPECT_EQ(addUpTo(1), 64);
    EXPECT_EQ(addUpTo(64), 64);
    EXPECT_EQ(addUpTo(65), 128);
    EXPECT_EQ(addUpTo(129), 192);
    dispatch();
    EXPECT_EQ(heard.size(), 129u);

    listeners.clear();
    EXPECT_EQ(xerrhandler::getcapacity(), 192);
    EXPECT_EQ(dispatch(), 0);
}
