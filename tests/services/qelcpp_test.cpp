#include <climits>
#include <map>
#include <numeric>
#include <ranges>

#include <qel/iopipe.h>
#include <qel/qelcpp.h>
#include <qel/qeltable.h>

#include "support/test.h"
#include "support/thrown.h"

// The interface that a C++20 program tries first: each line here compiled against the grain once.

namespace {

using namespace std::literals;

class Person : public virtual xobject
{
    QEL_OBJECT(Person);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);
    QEL_PROPERTY(xrchandle<xintsequence>, Scores);

public:
    enum class Mood : unsigned char { low = 5, high = 0, none = 1 };
    enum Size : int { small = 10, large = 20 };

    static Person* create() { return new (pDefMemMgr) Person; }
    /// Declared by the class: the macro's own is not used.
    void setAge(int years) { _s11n_setAge(std::max(years, 0)); }

    QEL_PROPERTY(Mood, Now);
    QEL_PROPERTY(Size, Shirt);
};
QEL_ENUM_IN(Person, Mood);
QEL_ENUM_IN(Person, Size);
QEL_LABELS_IN(Person, Mood, "test::Mood", low, high);
QEL_LABELS_IN(Person, Size, "test::Size", small, large);

constinit qelClass Person::rtti = {.name = "test::Person",
                                   .counted = true,
                                   .attrs = {QEL_ATTR(Name), QEL_ATTR(Age), QEL_ATTR(Scores),
                                             QEL_ATTR(Now, qelOptional), QEL_ATTR(Shirt, qelOptional)}};

xany read(Person& person, const char* attr)
{
    return xrttistruct::cast(person.getRtti())->findAttr(attr, 1)->getValue(&person);
}

std::string printed(const xany& a)
{
    std::ostringstream out;
    out << a;
    return out.str();
}

} // namespace

// ---- variants

TEST(Variants, TakeEveryNumberThatFits)
{
    EXPECT_TRUE(xany(5L) == 5 && xany(7u) == 7 && xany(short{3}) == 3 && xany(sizeof(int)) == 4 &&
                xany('a') == 97);
    EXPECT_TRUE(xany(1.5f) == 1.5 && xany(2.5L) == 2.5);
    for (const long long outside : {LLONG_MIN, -2147483649LL, static_cast<long long>(xnullint),
                                    static_cast<long long>(xuninitint), 2147483648LL, LLONG_MAX})
        EXPECT_EQ(thrownBy([&] { const xany a(outside); }), "qellib::XNativeException") << outside;
    EXPECT_EQ(thrownBy([] { const xany a(UINT_MAX); }), "qellib::XNativeException");
    EXPECT_EQ(thrownBy([] { const xany a(std::numeric_limits<long double>::max()); }),
              "qellib::XNativeException");
    EXPECT_TRUE(xany(-2147483646L) == -2147483646 &&
                xany(std::numeric_limits<float>::infinity()) == std::numeric_limits<double>::infinity());
}

TEST(Variants, CompareFromBothSides)
{
    const xany five(5), text("x"s), null(nullptr);

    EXPECT_TRUE(five == 5 && 5 == five && 5L == five && five != 6u && 6 != five && five != LLONG_MAX);
    EXPECT_TRUE(text == "x" && "x" == text && "x"s == text && text == "x"sv && xstring("x") == text);
    EXPECT_TRUE("y" != text && text != "y"s && xstring("y") != text && text != xstring("y"));
    EXPECT_TRUE(null == nullptr && nullptr == null && nullptr != five && five != null && 1.5 != five);
}

TEST(Variants, CompareWithAnObjectWithoutTakingAReference)
{
    auto* const fresh = new Person;
    const xrchandle<Person> held = qel::make<Person>();
    const xany person(held);

    EXPECT_TRUE(person == held && person == held.get() && person != fresh);
    EXPECT_EQ(xrcgetcount(fresh), 0);
    const xrchandle<Person> owner(fresh);
    EXPECT_TRUE(xany() == xuninitobj && xany(nullptr) == static_cast<Person*>(nullptr));
}

TEST(Variants, AreWritten)
{
    EXPECT_EQ(printed(5) + printed(true) + printed(2.5) + printed("t") + printed(nullptr) + printed(xany()),
              "5true2.5tniluninit");
    EXPECT_EQ(printed(xany(1, qelGetRtti_Person_Mood())), "high");
    EXPECT_EQ(printed(qel::list{1}), "<intseq>");
}

TEST(Variants, GiveTheirValueOrNothing)
{
    const auto list = qel::list{1, 2};
    const xany object(list), real(2.5), whole(7), none(nullptr);

    EXPECT_EQ(qel::get_if<int>(whole), 7);
    EXPECT_EQ(qel::get_if<double>(whole), 7.0);
    EXPECT_EQ(qel::get_if<signed char>(xany(300)), std::nullopt);
    EXPECT_EQ(qel::get_if<unsigned>(xany(-1)), std::nullopt);
    EXPECT_EQ(qel::get_if<int>(real), std::nullopt);
    EXPECT_EQ(qel::get_if<bool>(xany(true)), true);
    EXPECT_EQ(qel::get_if<std::string>(xany("a")), "a");
    EXPECT_EQ(qel::get_if<Person::Mood>(xany(0, qelGetRtti_Person_Mood())), Person::Mood::low);
    EXPECT_EQ(qel::get_if<Person::Size>(xany(0, qelGetRtti_Person_Mood())), std::nullopt);
    EXPECT_TRUE(qel::get<xrchandle<xintsequence>>(object) == list &&
                qel::get<xobject*>(object) == list.get());
    EXPECT_FALSE(qel::get_if<xrchandle<xanysequence>>(object) || qel::get_if<xstring>(none) ||
                 qel::get_if<int>(xany()));

    EXPECT_EQ(describeThrown<qelXTypeMismatch>(
                  [&] { static_cast<void>(qel::get<xanysequence*>(object)); },
                  [](qelXTypeMismatch* thrown) { return std::string(qelTextOf(thrown)); }),
              "Object type mismatch (expected anyseq, found intseq)");
    EXPECT_EQ(thrownBy([&] { static_cast<void>(qel::get<int>(none)); }), "qellib::XTypeMismatch");
}

TEST(Variants, AreVisitedByType)
{
    struct Name
    {
        std::string operator()(qel::null_t) const { return "null"; }
        std::string operator()(qel::uninit_t) const { return "uninit"; }
        std::string operator()(int) const { return "int"; }
        std::string operator()(bool) const { return "bool"; }
        std::string operator()(double) const { return "real"; }
        std::string operator()(const xstring&) const { return "string"; }
        std::string operator()(qel::enumeration e) const { return std::string(e.label()); }
        std::string operator()(xobject* o) const { return std::string(o->getQelTypeName()); }
    };
    std::string all;
    for (const xany& a : {xany(nullptr), xany(), xany(1), xany(true), xany(1.0), xany("s"),
                          xany(1, qelGetRtti_Person_Size()), xany(qel::list{1})})
        all += qel::visit(Name(), a) + ' ';
    EXPECT_EQ(all, "null uninit int bool real string large intseq ");
}

// ---- sequences

TEST(Sequences, AreRandomAccessRanges)
{
    static_assert(std::ranges::random_access_range<const xstringsequence> &&
                  std::ranges::sized_range<const xanysequence> && std::ranges::common_range<xrealsequence>);
    const auto numbers = qel::list{5, 3, 9, 3, 1};
    const xintsequence& n = *numbers;

    EXPECT_EQ(std::accumulate(n.begin(), n.end(), 0), 21);
    EXPECT_EQ(std::ranges::count(n, 3), 2);
    EXPECT_EQ(std::ranges::find(n, 9) - n.begin(), 2);
    EXPECT_EQ(*std::ranges::max_element(n), 9);
    EXPECT_EQ(std::ranges::min(n), 1);
    EXPECT_TRUE(std::ranges::any_of(n, [](int i) { return i > 8; }) &&
                std::ranges::is_sorted(n | std::views::drop(4)));
    EXPECT_TRUE(std::ranges::equal(n | std::views::reverse | std::views::take(2), std::vector{1, 3}));
    EXPECT_TRUE(std::ranges::equal(n | std::views::filter([](int i) { return i > 4; }), std::vector{5, 9}));
    EXPECT_EQ(std::vector<int>(n.begin(), n.end()), (std::vector{5, 3, 9, 3, 1}));
    EXPECT_EQ(qel::to<std::multiset<int>>(n), (std::multiset{1, 3, 3, 5, 9}));
    EXPECT_TRUE(n[1] == 3 && n[std::size_t{2}] == 9 && n.size() == 5 && !n.empty() && n.begin()[4] == 1);

    std::ranges::sort(qel::span(*numbers));
    EXPECT_TRUE(std::ranges::binary_search(n, 9) && *std::ranges::lower_bound(n, 4) == 5);
    int sum = 0;
    for (const int i : *numbers)
        sum += i;
    EXPECT_EQ(sum, 21);
}

TEST(Sequences, OfTextsAndVariantsAreRangesToo)
{
    const auto words = qel::split("the quick  brown fox", " ");
    EXPECT_EQ(words->size(), 4u);
    EXPECT_EQ(std::ranges::max(*words, {}, &xstring::GetLength), "quick");
    std::string joined;
    for (const xstring& word : *words)
        joined += std::string(word) + '|';
    EXPECT_EQ(joined, "the|quick|brown|fox|");
    EXPECT_EQ(words->begin()->GetLength(), 3);
    EXPECT_EQ(qel::to<std::vector<std::string>>(*words).back(), "fox");
    EXPECT_TRUE(qel::split("aéb", "é")->size() == 2 && qel::split(nullptr, " ")->empty() &&
                qel::split("  ", " ")->empty() && qel::split("a b", nullptr)->size() == 1);

    const auto mixed = qel::list{1, "two", 3.0, qel::list{4}};
    static_assert(std::is_same_v<decltype(mixed), const qel::list<xanysequence>>);
    EXPECT_EQ(std::ranges::count_if(*mixed, [](const xany& a) { return a == "two" || 3.0 == a; }), 2);
}

TEST(Sequences, AreMadeAndReplaced)
{
    const auto texts = xstringsequence::make({"a", "b"});
    texts->assign(std::vector{"x"s, "y"s, "z"s});
    texts->assign(*texts | std::views::drop(1));
    EXPECT_TRUE(std::ranges::equal(*texts, std::vector{"y"s, "z"s}));
    texts->assign(*texts);
    EXPECT_EQ(texts->size(), 2u);

    const xrchandle<xintsequence> ints = qel::list{1L, 2L};
    EXPECT_TRUE(ints->get(1) == 2 && qel::list { true } -> get(0) == 1 && (*qel::list{1, 2.5})[0] == 1.0);
    EXPECT_EQ(thrownBy([] { qel::list{1L << 40}; }), "qellib::XNativeException");
    EXPECT_EQ(thrownBy([&] { static_cast<void>((*ints)[1L << 32]); }), "qellib::XInvalidSeqIndex");
    EXPECT_EQ(thrownBy([&] { static_cast<void>((*ints)[-1]); }), "qellib::XNegativeIndex");
    EXPECT_EQ(describeThrown([&] { ints->get(7); },
                             [](xthrowable* thrown) { return std::string(qelTextOf(thrown)); }),
              "Sequence index is out of range (index 7, size 2)");
}

// ---- dictionaries

TEST(Dictionaries, AreRangesOfEntries)
{
    static_assert(std::ranges::forward_range<const xstringdictionary> &&
                  std::ranges::sized_range<const xanydictionary>);
    const auto ages = qel::dict<xintdictionary>{{"Ada", 36}, {"Bob", 20}, {"Eve", 28}};

    std::string all;
    for (const auto& [name, age] : *ages)
        all += std::string(name) + std::to_string(age);
    EXPECT_EQ(all, "Ada36Bob20Eve28");
    EXPECT_EQ(std::ranges::size(*ages), 3u);
    EXPECT_EQ(std::ranges::max(*ages, {}, &xdictitem<int>::value).key, "Ada");
    EXPECT_EQ(std::ranges::count_if(*ages, [](const auto& entry) { return entry.value > 25; }), 2);
    EXPECT_EQ(std::ranges::find(*ages, "Bob", &xdictitem<int>::key)->value, 20);
    std::map<std::string, int> sorted;
    for (auto&& [name, age] : *ages)
        sorted.emplace(name, age);
    EXPECT_EQ(sorted.size(), 3u);

    ages->remove("Bob"s);
    ages->set("Zoë"sv, 5);
    int sum = 0;
    for (const int age : *ages | std::views::transform([](const auto& entry) { return entry.value; }))
        sum += age;
    EXPECT_EQ(sum, 69);
    ages->clearall();
    EXPECT_TRUE(ages->empty() && ages->begin() == ages->end());
}

TEST(Dictionaries, TakeKeysOfEveryKindOfText)
{
    const auto d = qel::dict{{"a", 1}, {"b", "x"}};
    static_assert(std::is_same_v<decltype(d), const qel::dict<xanydictionary>>);

    EXPECT_TRUE(d->contains("a"s) && d->contains(xstring("b")) && !d->contains(u"c") &&
                !d->contains(nullptr));
    EXPECT_EQ(qel::get(*d, "b"sv), xany("x"));
    EXPECT_EQ(qel::get(*d, "c"), std::nullopt);
    EXPECT_EQ(d->value_or("c", 9), 9);
    EXPECT_EQ(d->value_or("a"s, 9), 1);
    EXPECT_EQ(thrownBy([&] { d->set(xstring(), 1); }), "qellib::XInvalidDictKey");
}

// ---- class macros, limits

TEST(Properties, AreSetByName)
{
    const auto person = qel::make<Person>();

    person->setName("Ada"s);
    person->setAge(-5);
    person->setScores(qel::list{1, 2});
    person->setScores(nullptr);
    EXPECT_TRUE(person->getName() == "Ada" && person->getScores() == nullptr);
    EXPECT_EQ(person->getAge(), 0); // by the class's own setAge
}

TEST(Enumerations, InAClassAreMappedByLabel)
{
    const auto person = qel::make<Person>();
    EXPECT_TRUE(read(*person, "Now").isNull() && read(*person, "Shirt").isNull());

    person->setNow(Person::Mood::high);
    person->setShirt(Person::large);
    EXPECT_TRUE(printed(read(*person, "Now")) == "high" && printed(read(*person, "Shirt")) == "large");
    person->setNow(Person::Mood::none); // has no label
    EXPECT_TRUE(read(*person, "Now").isNull());
    EXPECT_EQ(qelEnumFromLabel<Person::Size>(1), Person::large);
}

TEST(Limits, AreDurationsToo)
{
    static_assert(qelSeconds(1500ms) == 1.5 && qelSeconds(2h) == 7200.0);

    const auto pipe = qel::own(ioPipe::Create());
    ioStream* const in = pipe->getReadEnd();
    in->setITimeout(1ms);
    const auto readable = qel::own(in->InputEvent());
    EXPECT_FALSE(readable->Wait(1ms));
    EXPECT_EQ(thrownBy([&] { in->ReadInt(); }), "iolib::XStream");
}
