#include <climits>
#include <malloc.h>

#include <qel/qelrtti.h>
#include <qel/qeltable.h>
#include <qel/xdictionary.h>
#include <qel/xsequence.h>

#include "dictmodel.h"
#include "support/child.h"
#include "support/resident.h"
#include "support/test.h"
#include "support/thrown.h"

namespace {

std::string numbered(const char* before, int number)
{
    std::string digits = std::to_string(number);
    return before + std::string(6 - digits.size(), '0') + digits;
}

// Families of keys. The empty key, short keys and bytes beyond ASCII are among the words.
std::vector<std::string> words(int n)
{
    std::mt19937 random(3);
    std::set<std::string> all = {"", "a", "b", "ab", "abc", "\xff", "\x80\x81\x82\x83", "z\xc3\xa4hl"};
    while (static_cast<int>(all.size()) < n) {
        std::string word;
        for (auto left = 2 + random() % 8; left > 0; --left)
            word += static_cast<char>('a' + random() % 26);
        all.insert(word);
    }
    return {all.begin(), all.end()};
}
std::vector<std::string> numbers(int n)
{
    std::vector<std::string> all;
    for (int i = 0; i < n; ++i)
        all.push_back(numbered("key", i));
    return all;
}
/// All in one probe sequence: the six bytes that the rule uses are the same.
std::vector<std::string> twins(int n)
{
    std::vector<std::string> all;
    for (int i = 0; i < n; ++i)
        all.push_back("ab" + numbered("", i) + "cdefghij");
    return all;
}

/// Many lengths around those at which the storage of a key changes; keys of one differ in one byte.
std::vector<std::string> lengths()
{
    std::vector<std::string> all;
    for (std::size_t length = 1; length <= 80; ++length)
        for (std::size_t odd = 0; odd < length; odd += 1 + length / 8)
            all.push_back(std::string(length, 'x').replace(odd, 1, "y"));
    return all;
}

int slotOf(xintdictionary& d, const char* key)
{
    for (int slot = 0; slot < d.getarraysize(); ++slot) {
        xstring found;
        if (d.getkeybyindex(slot, &found) && found == key)
            return slot;
    }
    return -1;
}

void expectSame(xtbdictionary<int>& d, const DictModel& model, const std::vector<std::string>& names)
{
    ASSERT_EQ(d.getarraysize(), static_cast<int>(model.slots.size()));
    for (int slot = 0; slot < d.getarraysize(); ++slot) {
        const DictModel::Slot& expected = model.slots[static_cast<std::size_t>(slot)];
        xstring key;
        int value = 0;
        ASSERT_EQ(d.getbyindex(slot, &value), expected.key >= 0) << slot;
        ASSERT_EQ(d.getkeybyindex(slot, &key), expected.key >= 0) << slot;
        if (expected.key >= 0) {
            ASSERT_STREQ(key.CastToCString(), names[static_cast<std::size_t>(expected.key)].c_str()) << slot;
            ASSERT_EQ(value, expected.value) << slot;
        }
    }
}

/// Observes copies, and does not change the values.
class Watching : public xtsdictionary<int>
{
public:
    using xtsdictionary<int>::xtsdictionary;
    int copies = 0;

private:
    void OnCopyEntry(void* to, const void* from) override
    {
        ++copies;
        *static_cast<int*>(to) = *static_cast<const int*>(from);
    }
};

/// Observes its tables: with the hooks for creation and destruction, or for destruction alone.
class Ends : public xtsdictionary<int>
{
public:
    using xtsdictionary<int>::xtsdictionary;
    std::vector<unsigned> ended;

private:
    void Destroy(void* block, unsigned nSlots) override
    {
        ended.push_back(nSlots);
        for (unsigned slot = 0; slot < nSlots; ++slot) // the given number of slots
            static_cast<entry*>(block)[slot].value = -1;
        ::operator delete(block);
    }
};
class Tables : public xtsdictionary<int>
{
public:
    using xtsdictionary<int>::xtsdictionary;
    std::vector<unsigned> made, ended;
    ~Tables() override { clearall(); }

private:
    void* OnAllocate(unsigned nSlots) override
    {
        made.push_back(nSlots);
        return std::calloc(nSlots, entrySize);
    }
    void Destroy(void* block, unsigned nSlots) override
    {
        ended.push_back(nSlots);
        std::free(block);
    }
};

/// When the operations that need the slots are used: a dictionary assigns them late.
enum class Slots { throughout, betweenParts };

/// Sets and removes at random, in turns of growing and of shrinking, and compares each slot with the model.
template<class D>
void compareWithModel(const std::vector<std::string>& names, int steps, Slots slots = Slots::throughout,
                      const xdictcontrol& load = {})
{
    std::mt19937 random(static_cast<unsigned>(names.size() + static_cast<unsigned>(steps)));
    DictModel model(names, load);
    D d(&load);
    const auto turn = static_cast<int>(names.size()) * 2;
    const int part = slots == Slots::throughout ? turn / 4 : steps / 3;
    for (int step = 0; step < steps; ++step) {
        const auto index = random() % names.size();
        const int key = static_cast<int>(index);
        const char* const name = names[index].c_str();
        const bool growing = step / turn % 2 == 0;
        const auto action = random() % 8;
        if (action == 0) {
            int value = -1;
            const int slot = model.find(key);
            ASSERT_EQ(d.find(name, &value), slot >= 0) << name;
            ASSERT_EQ(value, slot >= 0 ? model.slots[static_cast<std::size_t>(slot)].value : -1);
        } else if (action == 1 && slots == Slots::throughout && !model.slots.empty()) {
            const auto slot = random() % model.slots.size();
            if (model.slots[slot].key >= 0)
                model.remove(model.slots[slot].key);
            d.removebyindex(static_cast<int>(slot));
        } else if (growing == (action != 7)) {
            model.set(key, step);
            d.set(name, step);
        } else {
            model.remove(key);
            d.remove(name);
        }
        ASSERT_EQ(d.getcount(), static_cast<int>(model.count)) << step;
        ASSERT_EQ(d.getarraysize(), static_cast<int>(model.slots.size())) << step;
        if (step % part == part - 1)
            expectSame(d, model, names);
    }
    expectSame(d, model, names);
}

} // namespace

TEST(xdictionary, HasNoTableUntilAKeyIsSet)
{
    xintdictionary d;
    int value = 5;
    EXPECT_EQ(d.getarraysize(), 0);
    EXPECT_FALSE(d.find("a", &value));
    d.remove("a");
    d.clearall();
    EXPECT_EQ(d.getarraysize(), 0);
    EXPECT_EQ(value, 5);

    d.set("a", 1);
    EXPECT_EQ(d.getarraysize(), 32);
    EXPECT_TRUE(d.find("a", nullptr));
    EXPECT_TRUE(d.getkeybyindex(slotOf(d, "a"), nullptr));
    EXPECT_TRUE(d.getbyindex(slotOf(d, "a"), nullptr));
    d.clearall();
    EXPECT_EQ(d.getarraysize(), 0);
    EXPECT_FALSE(d.find("a", nullptr));
}

TEST(xdictionary, ShortKeysMatchTheSlotRule)
{
    xintdictionary d;
    for (const char* key : {"", "A", "AB", "ABC", "\xff"})
        d.set(key, 0);
    EXPECT_EQ(slotOf(d, ""), 0);
    EXPECT_EQ(slotOf(d, "A"), 65 * 65 * 65 % 32);
    EXPECT_EQ(slotOf(d, "AB"), 66 * 66 * 65 % 32);
    EXPECT_EQ(slotOf(d, "ABC"), 66 * 67 * 65 % 32);
    EXPECT_EQ(slotOf(d, "\xff"), 31); // -1 * -1 * -1

    // The same start: the step decides. 'a' * 'b' * 'b' is even, as is 'b' * 'b' * 'a' of "bb"...
    xintdictionary same;
    same.set("bb", 0);
    same.set("bxbb", 0); // 'b' * 'b' * 'b' too, step 2 * ('b' ^ 'b' ^ 'x') + 1
    EXPECT_EQ(slotOf(same, "bb"), 98 * 98 * 98 % 32);
    EXPECT_EQ(slotOf(same, "bxbb"), (98 * 98 * 98 + 2 * ('b' ^ 'b' ^ 'x') + 1) % 32);
}

TEST(xdictionary, EverySlotMatchesTheSlotRule)
{
    using Plain = xtsdictionary<int>;
    compareWithModel<Plain>(words(3000), 600000);
    compareWithModel<Plain>(words(25), 100000); // no slot is unused after a while
    compareWithModel<Plain>(numbers(3000), 300000);
    compareWithModel<Plain>(twins(500), 50000); // long probe sequences
    compareWithModel<Plain>(twins(2000), 12000, Slots::betweenParts);
    compareWithModel<Plain>(lengths(), 20000, Slots::betweenParts);
    compareWithModel<Watching>(words(300), 50000);
    compareWithModel<Ends>(words(300), 50000);
    compareWithModel<Tables>(words(300), 50000);

    int life = 0;
    for (const xdictcontrol& load :
         std::initializer_list<xdictcontrol>{{70, 90}, {0, 90}, {10, 50}, {90, 95}, {60, 20}, {0, 0}})
        for (int i = 0; i < 16; ++i, ++life) {
            SCOPED_TRACE(life);
            const int steps = 300 + life * 20;
            compareWithModel<Plain>(words(8 + life * 4), steps, Slots::betweenParts, load);
            compareWithModel<Plain>(twins(100), steps, Slots::betweenParts, load);
            compareWithModel<Watching>(words(8 + life * 4), steps, Slots::betweenParts, load);
            compareWithModel<Ends>(twins(100), steps, Slots::betweenParts, load);
        }
}

TEST(xdictionary, ReportsATableThatCannotGrow)
{
    EXPECT_EQ(runInChild([] {
                  const xdictcontrol never = {0, 1000};
                  xtsdictionary<int> d(&never);
                  const auto names = words(33);
                  for (std::size_t i = 0; i < 32; ++i)
                      d.set(names[i].c_str(), 1);
                  if (d.find(names[32].c_str(), nullptr) || d.getarraysize() != 32)
                      return 1;
                  std::freopen("/dev/null", "w", stderr);
                  d.set(names[32].c_str(), 1);
                  return 2;
              }),
              -SIGABRT);
}

TEST(xdictionary, RejectsInvalidSlotsAndKeys)
{
    const xrchandle<xintdictionary> d = xintdictionary::create();
    d->set("a", 1);
    const std::vector<std::string> negative = {
        thrownBy([&] { d->getkeybyindex(-1, nullptr); }), thrownBy([&] { d->getbyindex(INT_MIN, nullptr); }),
        thrownBy([&] { d->setbyindex(-1, 1); }), thrownBy([&] { d->removebyindex(-1); })};
    for (const std::string& name : negative)
        EXPECT_EQ(name, "qellib::XNegativeIndex");
    EXPECT_EQ(thrownBy([&] { d->setbyindex(32, 1); }), "qellib::XInvalidDictIndex");
    EXPECT_EQ(thrownBy([&] { d->removebyindex(INT_MAX); }), "qellib::XInvalidDictIndex");
    EXPECT_FALSE(d->getkeybyindex(32, nullptr));
    EXPECT_FALSE(d->getbyindex(INT_MAX, nullptr));

    const int empty = slotOf(*d, "a") == 0 ? 1 : 0;
    xstring key = "untouched";
    EXPECT_FALSE(d->getkeybyindex(empty, &key));
    EXPECT_TRUE(key == "untouched");
    d->setbyindex(empty, 7);
    d->removebyindex(empty);
    EXPECT_FALSE(d->getbyindex(empty, nullptr));

    for (const char* none : {static_cast<const char*>(nullptr), xnullstr, xuninitstr}) {
        EXPECT_FALSE(d->find(none, nullptr));
        d->remove(none);
        EXPECT_EQ(thrownBy([&] { d->set(none, 1); }), "qellib::XInvalidDictKey");
    }
    int value = 0;
    EXPECT_TRUE(d->find("a", &value));
    EXPECT_EQ(value, 1);
    EXPECT_EQ(xrcgetcount(d.get()), 1);
}

TEST(xdictionary, KeepsExactReferenceCounts)
{
    const xrchandle<xintsequence> object = xintsequence::create();
    const auto count = [&] { return xrcgetcount(object.get()) - 1; };
    const auto names = words(300);
    {
        xanydictionary d;
        for (const std::string& name : names)
            d.set(name.c_str(), object.get());
        EXPECT_EQ(count(), 300);
        d.set(names[7].c_str(), 1);
        d.remove(names[8].c_str());
        EXPECT_EQ(count(), 298);
        {
            xany value;
            EXPECT_TRUE(d.find(names[9].c_str(), &value));
            EXPECT_EQ(count(), 299);
        }
        for (std::size_t i = 0; i < 290; ++i)
            d.remove(names[i].c_str());
        EXPECT_EQ(d.getarraysize(), 32);
        EXPECT_EQ(count(), 10);
        d.clearall();
        EXPECT_EQ(count(), 0);
        d.set("again", object.get());
    }
    EXPECT_EQ(count(), 0);
}

TEST(xdictionary, KeepsTextsWhenResized)
{
    const auto names = numbers(2000);
    const auto keeps = [&](auto&& d, auto value) { // the second is not trivially relocatable
        for (const std::string& name : names)
            d.set(name.c_str(), name.c_str());
        for (std::size_t i = 0; i < names.size(); i += 2)
            d.remove(names[i].c_str());
        for (std::size_t i = 0; i < names.size(); ++i) {
            value = "";
            ASSERT_EQ(d.find(names[i].c_str(), &value), i % 2 == 1);
            ASSERT_TRUE(value == (i % 2 == 1 ? names[i].c_str() : ""));
        }
    };
    keeps(xstringdictionary(), xstring());
    keeps(xtcdictionary<std::string>(), std::string());
}

TEST(xdictionary, MemoryIsBoundedWhileKeysAreAddedAndRemoved)
{
    if (!freedMemoryIsGone)
        GTEST_SKIP() << "a sanitizer keeps what is freed";
    xintdictionary d;
    const auto key = [](int i) {
        return std::to_string(i) + std::string(static_cast<std::size_t>(i % 50), '-');
    };
    for (int i = 0; i < 1000; ++i)
        d.set(key(i).c_str(), i);

    const ResidentGrowth growth;
    for (int i = 1000; i < 100000; ++i) {
        d.set(key(i).c_str(), i);
        d.remove(key(i - 1000).c_str());
    }
    EXPECT_LT(growth.peak(), 2000); // all keys would take 4000

    // The keys of a peak leave little memory behind.
    const long before = residentKiB();
    const auto longKey = [](int i) { return std::to_string(i) + std::string(55, '-'); };
    for (int i = 0; i < 100000; ++i)
        d.set(longKey(i).c_str(), i);
    for (int i = 0; i < 100000; ++i)
        d.remove(longKey(i).c_str());
    EXPECT_LT(residentKiB() - before, 10000); // the keys took 6300, and the index has kept 4100
}

namespace {

/// An object whose destructor uses the dictionary that held it.
class Meddler : public virtual xobject
{
    QEL_OBJECT(Meddler);

public:
    explicit Meddler(xanydictionary* used) : dictionary(used) {}
    ~Meddler() override
    {
        for (int i = 0; i < 40; ++i)
            dictionary->set(numbered("m", i).c_str(), i);
    }

private:
    xanydictionary* dictionary;
};

constinit qelClass Meddler::rtti = {.name = "test::Meddler", .counted = true};

} // namespace

TEST(xdictionary, CanBeUsedByTheDestructorOfAValue)
{
    const auto holdsAll = [](xanydictionary& d) {
        xany value;
        for (int i = 0; i < 40; ++i)
            if (!d.find(numbered("m", i).c_str(), &value) || !(value == i))
                return false;
        return true;
    };
    xanydictionary d;
    d.set("x", xany(new Meddler(&d)));
    d.remove("x");
    EXPECT_TRUE(holdsAll(d));
    d.clearall();
    d.set("x", xany(new Meddler(&d)));
    d.clearall();
    EXPECT_TRUE(holdsAll(d));
    d.clearall();
    d.set("x", xany(new Meddler(&d)));
    d.set("x", 1);
    EXPECT_TRUE(holdsAll(d));

    xanydictionary ends;
    ends.set("x", xany(new Meddler(&ends)));
}

TEST(xdictionary, ReportsAllCopiesToAnObservingSubclass)
{
    Watching d;
    const auto names = words(31);
    for (const std::string& name : names)
        d.set(name.c_str(), 1);
    EXPECT_EQ(d.copies, 31 + 30); // all sets, and 30 entries into the larger table
    EXPECT_TRUE(d.find(names[3].c_str(), nullptr));
    EXPECT_EQ(d.copies, 61);

    // A subclass that observes its tables gets each call in time.
    Tables t;
    for (const std::string& name : names)
        t.set(name.c_str(), 1);
    for (int i = 0; i < 9; ++i)
        t.remove(names[static_cast<std::size_t>(i)].c_str());
    EXPECT_EQ(t.made, (std::vector<unsigned>{32, 64, 32}));
    EXPECT_EQ(t.ended, (std::vector<unsigned>{32, 64}));

    Ends e;
    for (const std::string& name : names)
        e.set(name.c_str(), 1);
    e.clearall();
    e.set("one", 1);
    e.clearall();
    EXPECT_EQ(e.ended, (std::vector<unsigned>{32, 64, 32}));
}

TEST(xdictionary, SupportsConcurrentReaders)
{
    // The first reader assigns all slots.
    const auto names = words(500);
    xintdictionary d;
    for (int round = 0; round < 30; ++round) {
        for (std::size_t i = 0; i < names.size(); ++i)
            static_cast<int>(i) % 30 == round ? d.remove(names[i].c_str())
                                              : d.set(names[i].c_str(), static_cast<int>(i));
        std::atomic<int> ready = 0, faults = 0;
        std::vector<std::thread> readers;
        for (int reader = 0; reader < 3; ++reader)
            readers.emplace_back([&, reader] {
                ++ready;
                while (ready != 3)
                    std::this_thread::yield();
                int walked = 0, value = 0;
                const auto findAll = [&] {
                    for (std::size_t i = 0; i < names.size(); ++i)
                        faults += d.find(names[i].c_str(), &value) == (static_cast<int>(i) % 30 == round);
                };
                if (reader == 0)
                    findAll();
                for (int slot = 0; slot < d.getarraysize(); ++slot) {
                    xstring key;
                    walked += d.getkeybyindex(slot, &key);
                    faults += d.getbyindex(slot, &value) &&
                              names[static_cast<std::size_t>(value)] != key.CastToCString();
                }
                faults += walked != d.getcount();
            });
        for (std::thread& reader : readers)
            reader.join();
        ASSERT_EQ(faults, 0) << round;
    }
}

TEST(xdictionary, SmallDictionariesTakeLittleMemory)
{
    if (!freedMemoryIsGone)
        GTEST_SKIP() << "a sanitizer has a heap of its own";
    const auto heapOf = [](auto make, int entries) {
        const auto inUse = [] { return mallinfo2().uordblks; };
        std::vector<decltype(make())> all;
        all.reserve(1000); // makes freed blocks that the C library keeps negligible
        const std::size_t before = inUse();
        while (all.size() < 1000) {
            all.push_back(make());
            for (int i = 0; i < entries; ++i)
                all.back()->set(numbered("key", i).c_str(), i);
        }
        return (inUse() - before) / 1000;
    };
    const auto ints = [] { return xrchandle<xintdictionary>(xintdictionary::create()); };
    const auto variants = [] { return xrchandle<xanydictionary>(xanydictionary::create()); };
    EXPECT_LE(heapOf(ints, 1), 352u);
    EXPECT_LE(heapOf(ints, 5), 600u);
    EXPECT_LE(heapOf(variants, 5), 800u);
}

TEST(xdictionary, IsRegisteredInTheTypeSystem)
{
    const xrchandle<xstringdictionary> d = xstringdictionary::create();
    d->set("k", "v");
    auto* const type = xrttidictionary::cast(d->getRtti());
    EXPECT_EQ(type->getSize(d.get()), 32);
    xany value;
    EXPECT_TRUE(type->findElemValue(d.get(), "k", &value));
    EXPECT_TRUE(value == "v");
    EXPECT_FALSE(type->findElemValue(d.get(), "v", &value));
    int found = 0;
    for (int slot = 0; slot < 32; ++slot) {
        xstring key;
        found += type->getElemValueByIdx(d.get(), slot, &value);
        const bool occupied = type->getElemKeyByIdx(d.get(), slot, &key);
        EXPECT_EQ(occupied, key == "k");
    }
    EXPECT_EQ(found, 1);
    EXPECT_EQ(static_cast<void*>(static_cast<xobject*>(d.get())), static_cast<void*>(d.get()));
}
