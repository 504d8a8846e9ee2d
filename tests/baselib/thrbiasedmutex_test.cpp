#include <chrono>
#include <latch>
#include <sched.h>

#include <qel/base/thrbiasedmutex.h>

#include "support/test.h"

namespace {

class Section
{
public:
    Section(thrBiasedMutex& mutex, thrBiasedMutex::Entrant& self)
        : locked(mutex), thread(self), asFavourite(mutex.Lock(self))
    {
    }
    ~Section() { locked.Unlock(thread, asFavourite); }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;

private:
    thrBiasedMutex& locked;
    const thrBiasedMutex::Entrant& thread;
    const bool asFavourite;
};

// On a busy machine a yield takes a time slice, so that the cases below also end by time.
class Patience
{
public:
    bool isOver() const { return std::chrono::steady_clock::now() > end; }

private:
    const std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::now() + std::chrono::seconds(4);
};

// Thread i enters streaks[i] times in a row again and again, `total` times at most.
void enterAtOnce(const std::vector<int>& streaks, int total)
{
    const Patience patience;
    thrBiasedMutex mutex;
    long count = 0;
    bool isInside = false;
    std::atomic<long> entered = 0;
    std::vector<std::thread> threads;
    for (const int streak : streaks)
        threads.emplace_back([&, streak] {
            thrBiasedMutex::Entrant self;
            int i = 0;
            for (; i < total && (i % streak != 0 || !patience.isOver()); ++i) {
                const Section section(mutex, self);
                EXPECT_FALSE(std::exchange(isInside, true));
                ++count;
                isInside = false;
                if (i % streak == 0)
                    std::this_thread::yield();
            }
            entered += i;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, entered);
    EXPECT_GT(count, 0);
}

void enter(thrBiasedMutex& mutex, thrBiasedMutex::Entrant& self, int times)
{
    for (int i = 0; i < times; ++i)
        const Section section(mutex, self);
}

// A thread runs `stop` for a signal halts wherever it is, until it may go on.
std::atomic<bool> isStopped, mayGoOn;
void stop(int)
{
    isStopped = true;
    while (!mayGoOn)
        sched_yield();
    isStopped = false;
}

template<class Holds>
bool holdsSoon(Holds holds, int looks)
{
    for (; looks > 0 && !holds(); --looks)
        std::this_thread::yield();
    return looks > 0;
}

class BiasedMutex : public testing::Test
{
protected:
    void SetUp() override
    {
        thrBiasedMutex mutex;
        thrBiasedMutex::Entrant one;
        enter(mutex, one, 1000);
        if (!mutex.IsFavourite(one))
            GTEST_SKIP() << "the operating system has no barrier for all threads of a process";
    }
};

} // namespace

TEST_F(BiasedMutex, LetsOneThreadInAtATime)
{
    enterAtOnce({1, 1}, 50000);
    enterAtOnce({1000, 1}, 50000);
    enterAtOnce({5000, 700, 3}, 50000);
}

TEST_F(BiasedMutex, FavoursAThreadUntilAnotherOneComes)
{
    thrBiasedMutex mutex;
    thrBiasedMutex::Entrant one, other;
    enter(mutex, one, 60);
    EXPECT_FALSE(mutex.IsFavourite(one));
    enter(mutex, one, 10);
    EXPECT_TRUE(mutex.IsFavourite(one));
    std::thread([&] { enter(mutex, other, 1); }).join();
    EXPECT_FALSE(mutex.IsFavourite(one));
    enter(mutex, one, 100);
    EXPECT_FALSE(mutex.IsFavourite(one)) << "after an eviction it takes longer";
    enter(mutex, one, 500);
    EXPECT_TRUE(mutex.IsFavourite(one));
}

TEST_F(BiasedMutex, EvictedFavouriteIsOutside)
{
    const Patience patience;
    constexpr std::size_t rounds = 500;
    struct Round
    {
        thrBiasedMutex mutex;
        std::atomic<bool> isFavoured = false, isInside = false, hasEvicted = false;
    };
    std::vector<Round> all(rounds);
    thrBiasedMutex::Entrant one, other;
    std::thread favourite([&] {
        for (Round& round : all)
            while (!round.hasEvicted.load(std::memory_order_relaxed)) {
                const Section section(round.mutex, one);
                round.isFavoured.store(round.mutex.IsFavourite(one), std::memory_order_relaxed);
                round.isInside.store(true, std::memory_order_relaxed);
                round.isInside.store(false, std::memory_order_relaxed);
            }
    });
    int broken = 0, whole = 0;
    for (Round& round : all) {
        while (!patience.isOver() && !round.isFavoured.load(std::memory_order_relaxed))
            std::this_thread::yield();
        if (round.isFavoured) {
            const Section section(round.mutex, other);
            bool isInside = false;
            for (int look = 0; look < 20; ++look)
                isInside = isInside || round.isInside.load(std::memory_order_relaxed);
            broken += isInside ? 1 : 0;
            ++whole;
        }
        round.hasEvicted = true;
    }
    favourite.join();
    EXPECT_GT(whole, 0);
    EXPECT_EQ(broken, 0);
}

TEST_F(BiasedMutex, ThreadThatIsStoppedOnItsWayInDisturbsNoLaterFavourite)
{
    const Patience patience;
    struct sigaction handled = {}, before = {};
    handled.sa_handler = &stop;
    sigaction(SIGUSR1, &handled, &before);
    int broken = 0, whole = 0;
    for (int round = 0; round < 300 && (whole == 0 || !patience.isOver()); ++round) {
        thrBiasedMutex mutex;
        std::atomic<bool> isReady = false, isOver = false, isOtherInside = false, wasBroken = false;
        std::thread first([&] {
            thrBiasedMutex::Entrant self;
            enter(mutex, self, 100);
            isReady = true;
            while (!isOver) {
                const Section section(mutex, self);
                if (isOtherInside)
                    wasBroken = true;
            }
        });
        holdsSoon([&] { return isReady.load(); }, 1 << 30);
        mayGoOn = false;
        pthread_kill(first.native_handle(), SIGUSR1);
        holdsSoon([&] { return isStopped.load(); }, 1 << 30);

        // If it is inside, it is waited for.
        std::atomic<bool> isEvicted = false;
        std::thread second([&] {
            thrBiasedMutex::Entrant self;
            enter(mutex, self, 1);
            isEvicted = true;
        });
        if (holdsSoon([&] { return isEvicted.load(); }, 200)) {
            thrBiasedMutex::Entrant third;
            enter(mutex, third, 1000);
            EXPECT_TRUE(mutex.IsFavourite(third));
            const Section section(mutex, third);
            isOtherInside = true;
            mayGoOn = true;
            holdsSoon([&] { return !isStopped; }, 1 << 30);
            holdsSoon([&] { return wasBroken.load(); }, 50);
            isOtherInside = false;
            ++whole;
        }
        isOver = mayGoOn = true;
        first.join();
        second.join();
        broken += wasBroken ? 1 : 0;
    }
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_GT(whole, 0);
    EXPECT_EQ(broken, 0);
}

TEST_F(BiasedMutex, WaitingThreadSleepsUntilTheFavouriteIsOutside)
{
    thrBiasedMutex mutex;
    thrBiasedMutex::Entrant one;
    enter(mutex, one, 100);
    std::latch waits(1);
    bool isOutside = false;
    std::thread other;
    {
        const Section section(mutex, one);
        other = std::thread([&] {
            thrBiasedMutex::Entrant self;
            waits.count_down();
            const Section entered(mutex, self);
            EXPECT_TRUE(isOutside);
        });
        waits.wait();
        // More than it looks before it sleeps, if the machine is not busy.
        const Patience patience;
        for (int i = 0; i < 2000 && !patience.isOver(); ++i)
            std::this_thread::yield();
        isOutside = true;
    }
    other.join();
}
