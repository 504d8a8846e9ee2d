#include <algorithm>
#include <climits>
#include <cstdint>
#include <span>

#include <qel/qelexception.h>
#include <qel/qelrtti.h>
#include <qel/qeltable.h>
#include <qel/xrttiattrseq.h>
#include <qel/xsequence.h>

#include "support/resident.h"
#include "support/test.h"
#include "support/thrown.h"

namespace {

template<class S>
class Open : public S
{
public:
    using S::capacity;
    using S::data;
    using S::granularity;
    using S::S;
    using S::used;
};

template<class S, class T>
xrchandle<S> sequenceOf(std::initializer_list<T> values)
{
    xrchandle<S> s = S::create();
    for (const T& value : values)
        s->append(value);
    return s;
}

std::vector<int> contentOf(xtbsequence<int>* s)
{
    std::vector<int> values;
    for (int i = 0; i < s->getarraysize(); ++i)
        values.push_back(s->get(i));
    return values;
}

std::string contentOf(xtbsequence<xstring>* s)
{
    std::string joined;
    for (int i = 0; i < s->getarraysize(); ++i) {
        const xstring value = s->get(i);
        joined += value == nullptr ? "-" : value.CastToCString();
    }
    return joined;
}

/// Records the hook calls of an engine that stores plain bytes.
class Recorder : public xtbsequence<int>
{
public:
    explicit Recorder(xseqcontrol control) : xtbsequence<int>(control) {}
    ~Recorder() override { std::free(data); }

    std::vector<std::string> calls;

private:
    void* OnResize(unsigned newCapacity) override
    {
        calls.push_back("resize " + std::to_string(newCapacity));
        return std::realloc(data, newCapacity + 1);
    }
    void OnAllocate(void* at, unsigned bytes) override { record("allocate", at, bytes); }
    void OnDestroy(void* at, unsigned bytes) override { record("destroy", at, bytes); }
    void OnCopy(void* to, const void* from, unsigned bytes) override
    {
        record("copy", to, bytes);
        std::memmove(to, from, bytes);
    }
    void record(const char* what, void* at, unsigned bytes)
    {
        calls.push_back(what + (" " + std::to_string(static_cast<char*>(at) - data)) + "+" +
                        std::to_string(bytes));
    }
};

/// Overrides one hook of a complete hook set.
class CountingCopies : public xstringsequence
{
public:
    int copied = 0;

private:
    void OnCopy(void* to, const void* from, unsigned bytes) override
    {
        copied += static_cast<int>(bytes / sizeof(xstring));
        auto* const target = static_cast<xstring*>(to);
        const auto* const source = static_cast<const xstring*>(from);
        const auto n = bytes / sizeof(xstring);
        for (std::size_t i = 0; i < n; ++i) {
            const std::size_t at = target < source ? i : n - 1 - i;
            target[at] = source[at];
        }
    }
};

using Calls = std::vector<std::string>;

} // namespace

TEST(xsequence, GrowsByWholeBlocksAndKeepsThem)
{
    Open<xintsequence> ints;
    EXPECT_EQ(ints.data, nullptr);
    EXPECT_EQ(ints.capacity, 0u);
    for (int i = 0; i < 65; ++i)
        ints.append(i);
    EXPECT_EQ(ints.used, 260u);
    EXPECT_EQ(ints.capacity, 512u);
    ints.clear();
    EXPECT_EQ(ints.getarraysize(), 0);
    EXPECT_EQ(ints.capacity, 512u);

    Open<xstringsequence> strings;
    Open<xanysequence> variants;
    EXPECT_EQ(strings.granularity, 528u);
    EXPECT_EQ(variants.granularity, 352u);
    for (int i = 0; i < 23; ++i) {
        strings.append("x");
        variants.append(i);
    }
    EXPECT_EQ(strings.capacity, 2u * 528);
    EXPECT_EQ(variants.capacity, 3u * 352);
}

TEST(xsequence, CallsItsHooksWhenTheNumberOfBlocksChanges)
{
    Recorder kept({false, 8});
    kept.append(1);
    kept.append(2);
    EXPECT_EQ(kept.calls, (Calls{"resize 8", "copy 0+4", "copy 4+4"}));
    kept.calls.clear();
    kept.insert(1, 9);
    EXPECT_EQ(kept.calls, (Calls{"resize 16", "copy 8+4", "copy 4+4"}));
    kept.calls.clear();
    kept.removerange(0, 2); // the removed slots return to the default state, and the block stays
    EXPECT_EQ(kept.calls, (Calls{"copy 0+4", "destroy 4+8", "allocate 4+8"}));
    EXPECT_EQ(contentOf(&kept), std::vector{2});

    Recorder shrinking({true, 8});
    for (int i = 0; i < 5; ++i)
        shrinking.append(i);
    shrinking.calls.clear();
    shrinking.removerange(0, 3);
    EXPECT_EQ(shrinking.calls, (Calls{"copy 0+8", "resize 8"}));
    shrinking.calls.clear();
    shrinking.clear();
    EXPECT_EQ(shrinking.calls, Calls{"resize 0"});
    shrinking.calls.clear();
    shrinking.clear();
    EXPECT_EQ(shrinking.calls, Calls{});
}

TEST(xsequence, ReportsAllCopiesToAnObservingSubclass)
{
    CountingCopies s;
    for (int i = 0; i < 44; ++i)
        s.append("x");
    EXPECT_EQ(s.copied, 44 + 22); // each append, and the first block into the second
    s.set(7, "y");
    s.insert(0, "z");
    EXPECT_EQ(s.copied, 66 + 1 + 44 + 44 + 1);
    EXPECT_STREQ(s.get(8).CastToCString(), "y");
}

TEST(xsequence, StandardOperationsReachTheOverridesOfASubclass)
{
    class Halves : public xintsequence
    {
    public:
        std::string calls;

    private:
        int getarraysize() override { return (calls += "size "), xintsequence::getarraysize(); }
        int get(int index) override { return (calls += "get "), xintsequence::get(index) / 2; }
        void set(int index, int value) override { (calls += "set "), xintsequence::set(index, 2 * value); }
        void append(int value) override { (calls += "append "), xintsequence::append(2 * value); }
    };
    xauto<Halves> halves;
    xintsequence& ints = halves;
    ints.append(4);
    const int five = 5;
    ints.append(five);
    ints.set(0, 3);
    EXPECT_TRUE(ints.get(0) == 3 && ints[1] == 5);
    EXPECT_EQ(halves.calls, "append append set get get ");
    halves.calls.clear();
    EXPECT_EQ(std::vector<int>(ints.begin(), ints.end()), (std::vector{3, 5}));
    EXPECT_EQ(halves.calls, "size get get ");
}

TEST(xsequence, AssignsRangesOfItsOwnElements)
{
    const auto ints = sequenceOf<xintsequence>({1, 2, 3, 4, 5, 6});
    ints->assign(std::span(ints->elements() + 2, 3));
    EXPECT_EQ(contentOf(ints.get()), (std::vector{3, 4, 5}));
    ints->set(4, 9); // the earlier elements are not kept
    EXPECT_EQ(contentOf(ints.get()), (std::vector{3, 4, 5, 0, 9}));
    ints->assign(*ints);
    ints->assign(std::vector<short>{1, 2});
    EXPECT_EQ(contentOf(ints.get()), (std::vector{1, 2}));
    ints->assign(std::vector<int>());
    EXPECT_TRUE(ints->empty());

    const auto strings = sequenceOf<xstringsequence>({"a", "b", "c"});
    strings->assign(*strings);
    EXPECT_EQ(contentOf(strings.get()), "abc");
    strings->insertseq(1, sequenceOf<xstringsequence>({"x", "y"}).get());
    EXPECT_EQ(contentOf(strings.get()), "axybc");
    strings->assign(std::vector<std::string>{"x", "y"});
    EXPECT_EQ(contentOf(strings.get()), "xy");
}

TEST(xsequence, ElementsThatNothingFillsAreZero)
{
    class Lazy : public xintsequence
    {
        void OnCopy(void*, const void*, unsigned) override {}
    };
    const std::vector<int> ones(70, 1);
    for (int round = 0; round < 3; ++round) { // the later ones get memory that the earlier ones wrote to
        xauto<xintsequence> ints;
        ints.assign(ones);
        ints.set(400, 2);
        EXPECT_TRUE(ints.get(69) == 1 && ints.get(400) == 2);
        EXPECT_EQ(std::count(ints.begin(), ints.end(), 0), 330);
        xauto<Lazy> lazy;
        lazy.assign(ones);
        EXPECT_EQ(std::count(lazy.begin(), lazy.end(), 0), 70);
    }
}

TEST(xsequence, RejectsInvalidIndicesBeforeAnyChange)
{
    const auto s = sequenceOf<xintsequence>({1, 2, 3});
    const auto other = sequenceOf<xintsequence>({9});
    const std::vector<std::string> names = {
        thrownBy([&] { s->get(-1); }),
        thrownBy([&] { s->set(-1, 0); }),
        thrownBy([&] { s->insert(INT_MIN, 0); }),
        thrownBy([&] { s->insertseq(-1, other.get()); }),
        thrownBy([&] { s->removerange(-1, 2); }),
        thrownBy([&] { s->removerange(0, -1); }),
    };
    for (const std::string& name : names)
        EXPECT_EQ(name, "qellib::XNegativeIndex");
    EXPECT_EQ(thrownBy([&] { s->insertseq(0, nullptr); }), "qellib::XNotInitialized");
    EXPECT_EQ(thrownBy([&] { s->get(INT_MAX); }), "qellib::XInvalidSeqIndex");

    EXPECT_TRUE(describeThrown<qelXInvalidSeqIndex>([&] { s->get(3); },
                                                    [&](qelXInvalidSeqIndex* e) {
                                                        return e->getIndex() == 3 &&
                                                               static_cast<xobject*>(e->getQelObject()) ==
                                                                   s.get();
                                                    }));
    EXPECT_EQ(contentOf(s.get()), (std::vector{1, 2, 3}));
    EXPECT_EQ(xrcgetcount(s.get()), 1);
}

TEST(xsequence, ExtendsWhenWrittenPastTheEnd)
{
    xanysequence variants;
    variants.set(2, 7);
    EXPECT_TRUE(variants.get(0).isUninit() && variants.get(1).isUninit());
    auto ints = sequenceOf<xintsequence>({1, 2, 3, 4});
    ints->removerange(INT_MAX, 1);
    ints->set(3, 9); // slots used before are default again
    EXPECT_EQ(contentOf(ints.get()), (std::vector{1, 0, 0, 9}));
}

TEST(xsequence, KeepsExactReferenceCounts)
{
    const xrchandle<xintsequence> object = xintsequence::create();
    const auto count = [&] { return xrcgetcount(object.get()) - 1; };
    {
        xanysequence s;
        for (int i = 0; i < 100; ++i)
            s.append(object.get());
        EXPECT_EQ(count(), 100);
        s.insert(0, object.get());
        s.set(50, 1);
        EXPECT_EQ(count(), 100);
        s.removerange(10, 20);
        EXPECT_EQ(count(), 90);
        s.insertseq(45, &s);
        EXPECT_EQ(count(), 180);
        s.removerange(0, 181);
        EXPECT_EQ(count(), 1);
        s.clear();
        EXPECT_EQ(count(), 0);
        s.set(3, object.get());
        EXPECT_EQ(count(), 1);
    }
    EXPECT_EQ(count(), 0);

    xtcsequence<xany> shrinking({true, 11 * sizeof(xany)});
    for (int i = 0; i < 60; ++i)
        shrinking.append(object.get());
    shrinking.removerange(3, 50);
    EXPECT_EQ(count(), 13);
    shrinking.removerange(0, 5);
    EXPECT_EQ(count(), 8);
    shrinking.set(10, nullptr);
    EXPECT_TRUE(shrinking.get(9).isUninit());
    shrinking.clear();
    EXPECT_EQ(count(), 0);
}

namespace {

/// An object whose destructor reads the sequence that held it.
class Onlooker : public virtual xobject
{
    QEL_OBJECT(Onlooker);

public:
    explicit Onlooker(xanysequence* watched) : sequence(watched) {}
    ~Onlooker() override
    {
        for (int i = 0; i < sequence->getarraysize(); ++i)
            sum += sequence->get(i).getKind() == xanyInt ? 1 : 0;
    }
    static inline int sum = 0;

private:
    xanysequence* sequence;
};

constinit qelClass Onlooker::rtti = {.name = "test::Onlooker", .counted = true};

} // namespace

TEST(xsequence, CanBeReadByTheDestructorOfAnElement)
{
    xanysequence s;
    for (int i = 0; i < 20; ++i)
        s.append(i);
    s.set(3, xany(new Onlooker(&s)));
    s.removerange(2, 8);
    EXPECT_EQ(s.getarraysize(), 14);
    s.append(xany(new Onlooker(&s)));
    s.clear();
    s.append(xany(new Onlooker(&s)));
    s.set(0, 5);
    EXPECT_GT(Onlooker::sum, 0);
}

namespace {

class Meddler : public virtual xobject
{
    QEL_OBJECT(Meddler);

public:
    explicit Meddler(std::function<void()> when) : whenItDies(std::move(when)) {}
    ~Meddler() override { whenItDies(); }

private:
    std::function<void()> whenItDies;
};

constinit qelClass Meddler::rtti = {.name = "test::Meddler", .counted = true};

std::vector<int> numbersIn(xanysequence* s)
{
    std::vector<int> values;
    for (int i = 0; i < s->getarraysize(); ++i)
        values.push_back(s->get(i).getKind() == xanyInt ? static_cast<int>(s->get(i)) : -1);
    return values;
}

} // namespace

TEST(xsequence, CanBeChangedByTheDestructorOfAnElement)
{
    using Change = std::function<void(xanysequence*)>;
    const std::vector<Change> operations = {
        [](xanysequence* s) { s->removerange(2, 8); },
        [](xanysequence* s) { s->removerange(3, 4); },
        [](xanysequence* s) { s->removerange(0, INT_MAX); },
        [](xanysequence* s) { s->clear(); },
        [](xanysequence* s) { s->set(3, 5); },
    };
    const std::vector<Change> meddlings = {
        [](xanysequence* s) {
            for (int i = 0; i < 100; ++i)
                s->append(i);
        },
        [](xanysequence* s) { s->clear(); },
        [](xanysequence* s) { s->removerange(0, 3); },
        [](xanysequence* s) { s->insert(0, 7); },
        [](xanysequence* s) { s->insertseq(1, s); },
        [](xanysequence* s) { s->set(300, 1); },
    };
    // Each operation is complete before the element is destroyed.
    for (const int size : {4, 5, 20})
        for (std::size_t op = 0; op < operations.size(); ++op)
            for (std::size_t meddling = 0; meddling < meddlings.size(); ++meddling) {
                xanysequence s, expected;
                for (int i = 0; i < size; ++i) {
                    expected.append(i);
                    s.append(i == 3 ? xany(new Meddler([&] { meddlings[meddling](&s); })) : xany(i));
                }
                operations[op](&expected);
                meddlings[meddling](&expected);
                operations[op](&s);
                EXPECT_EQ(numbersIn(&s), numbersIn(&expected)) << size << " " << op << " " << meddling;
            }

    for (const Change& meddle : meddlings) {
        xanysequence s;
        for (int i = 0; i < 20; ++i)
            s.append(xany(new Meddler([&] { meddle(&s); })));
    }
}

TEST(xsequence, IsUnchangedWhenItCannotGrow)
{
    xauto<Open<xintsequence>> ints; // the exceptions hold it
    ints.append(7);
    const auto refuses = [](int index, auto operation) {
        return describeThrown<qelXInvalidSeqIndex>(
            operation, [=](qelXInvalidSeqIndex* e) { return e->getIndex() == index; });
    };
    EXPECT_TRUE(refuses(INT_MAX, [&] { ints.set(INT_MAX, 1); }));
    EXPECT_TRUE(refuses(1 << 29, [&] { ints.insert(1 << 29, 1); }));
    EXPECT_TRUE(refuses(1 << 29, [&] { ints.insertseq(1 << 29, &ints); }));
    EXPECT_THROW(ints.BaseInsert(0, SIZE_MAX, &ints), std::length_error);
    EXPECT_THROW(ints.BaseCopy(SIZE_MAX - 1, 4, &ints), std::length_error);
    xauto<xanysequence> variants;
    EXPECT_TRUE(refuses(INT_MAX, [&] { variants.set(INT_MAX, 1); }));
    xauto<xboolsequence> bytes;
    EXPECT_TRUE(refuses(INT_MAX, [&] { bytes.set(INT_MAX, 1); })); // 2^31 could not be counted

    EXPECT_EQ(contentOf(&ints), std::vector{7});
    EXPECT_EQ(ints.capacity, 256u);
    EXPECT_EQ(variants.getarraysize(), 0);
}

TEST(xsequence, BehavesLikeAVector)
{
    std::mt19937 random(7);
    const auto below = [&](std::size_t n) { return static_cast<int>(random() % n); };
    const auto at = [](auto& v, int i) { return v.begin() + i; };
    for (const bool shrink : {false, true}) {
        xtcsequence<xstring> strings({shrink, 22 * sizeof(xstring)});
        xtssequence<int> ints({shrink, 256});
        std::vector<int> model;
        const auto text = [](int i) { return i == 0 ? xstring() : xstring(std::to_string(i).c_str()); };
        for (int step = 0; step < 20000; ++step) {
            const int value = below(1000) + 1;
            const auto size = static_cast<int>(model.size());
            const int from = below(model.size() + 3), to = below(model.size() + 3);
            switch (below(size > 400 ? 9u : 8u)) {
            case 0:
            case 1:
            case 2:
                model.push_back(value);
                strings.append(text(value));
                ints += value;
                break;
            case 3:
                if (from >= size)
                    model.resize(static_cast<std::size_t>(from));
                model.insert(at(model, from), value);
                strings.insert(from, text(value));
                ints.insert(from, value);
                break;
            case 4:
                if (from >= size)
                    model.resize(static_cast<std::size_t>(from) + 1);
                model[static_cast<std::size_t>(from)] = value;
                strings.set(from, text(value));
                ints.set(from, value);
                break;
            case 5:
            case 6: {
                const int near = std::min(from + below(4), to);
                const int low = std::min({from, near, size}), high = std::min(std::max(from, near), size);
                model.erase(at(model, low), at(model, high));
                strings.removerange(from, near);
                ints.removerange(near, from);
                break;
            }
            case 7:
                if (size < 100) {
                    const std::vector<int> content = model;
                    if (from >= size)
                        model.resize(static_cast<std::size_t>(from));
                    model.insert(at(model, from), content.begin(), content.end());
                    strings.insertseq(from, &strings);
                    ints.insertseq(from, &ints);
                }
                break;
            default:
                model.clear();
                strings.clear();
                ints.clear();
            }
            ASSERT_EQ(strings.getarraysize(), static_cast<int>(model.size())) << step;
            if (step % 64 == 0) {
                ASSERT_EQ(contentOf(&ints), model) << step;
                for (int i = 0; i < strings.getarraysize(); ++i)
                    ASSERT_TRUE(strings.get(i) == text(model[static_cast<std::size_t>(i)]))
                        << step << " " << i;
            }
        }
    }
}

TEST(xsequence, TakesLittleMoreMemoryThanItsElements)
{
    if (!freedMemoryIsGone)
        GTEST_SKIP() << "a sanitizer has a heap of its own";
    std::vector<xrchandle<xintsequence>> all(50);
    const long resident = residentKiB();
    const long addresses = residentKiB("VmSize:");
    for (auto& s : all) {
        s = xintsequence::create();
        for (int i = 0; i < 270000; ++i) // 1055 KiB
            s->append(i);
    }
    EXPECT_LE(residentKiB() - resident, 50 * 1200);
    EXPECT_LE(residentKiB("VmSize:") - addresses, 50 * 2250);
}

TEST(xsequence, IsRegisteredInTheTypeSystem)
{
    const auto ints = sequenceOf<xintsequence>({4, 5});
    auto* const type = xrttisequence::cast(ints->getRtti());
    EXPECT_EQ(type->getSize(ints.get()), 2);
    EXPECT_TRUE(type->getElemValue(ints.get(), 1) == 5);
    EXPECT_EQ(xanysequence::softcast(ints.get()), nullptr);

    // C callers use the address of a sequence as that of its object.
    EXPECT_EQ(static_cast<void*>(static_cast<xobject*>(ints.get())), static_cast<void*>(ints.get()));
    EXPECT_EQ(xrttiattrseq::getClassRtti()->getIsRefCount(), 0);
}
