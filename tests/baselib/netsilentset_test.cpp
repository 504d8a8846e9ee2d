#include <qel/base/netsilentset.h>

#include "support/test.h"

namespace {

struct Peer
{
    std::string address;
    btkTimeval since;
};

class NetSilentSet : public testing::Test
{
protected:
    // A connection of an address with one letter that arrived so many milliseconds before the time 10 s.
    void add(char address, int age)
    {
        set.Add(std::make_unique<Peer>(Peer{std::string(1, address), now - btkTimeval(0, 1000 * age)}));
    }
    // Address and age of the evicted connections, in order.
    std::string leaving(int count)
    {
        std::string all;
        for (const auto& peer : {set.TakeLeaving(now)})
            all += peer == nullptr
                       ? "-"
                       : peer->address + std::to_string((now - peer->since).GetMicroseconds() / 1000);
        return count > 1 ? all + ' ' + leaving(count - 1) : all;
    }

    const btkTimeval now{10, 0};
    netSilentSet<Peer> set{4};
};

} // namespace

TEST_F(NetSilentSet, EvictsFromTheAddressWithMostConnections)
{
    EXPECT_EQ(leaving(1), "-");
    add('a', 900);
    add('b', 800);
    add('c', 700);
    add('b', 600);
    EXPECT_FALSE(set.IsOverfull());
    add('b', 500);
    EXPECT_TRUE(set.IsOverfull());
    EXPECT_EQ(leaving(6), "b800 b600 a900 c700 b500 -"); // among equals, the address with the oldest
}

TEST_F(NetSilentSet, EvictsNoYoungConnectionWhileAnotherAddressHasAnOldOne)
{
    add('a', 150);
    add('b', 99);
    add('b', 98);
    add('b', 97);
    EXPECT_EQ(leaving(4), "a150 b99 b98 b97"); // if all are young, the usual rule holds
}

TEST_F(NetSilentSet, KeepsTheOrderOfArrival)
{
    for (int age = 500; age > 0; age -= 100)
        add('a', age);
    EXPECT_EQ(set.Take([](const Peer& peer) { return peer.since > btkTimeval(9, 650000); })->since,
              now - btkTimeval(0, 300000));
    set.DropUntil(now - btkTimeval(0, 400000));
    EXPECT_EQ(set.GetCount(), 2u);
    EXPECT_EQ(set[0].since, now - btkTimeval(0, 200000));
    set.DropIf([](const Peer&) { return true; });
    EXPECT_TRUE(set.IsEmpty());
}
