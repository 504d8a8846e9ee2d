// The C++ interface, by example: what docs/qelcpp.md shows.

#include <algorithm>
#include <chrono>
#include <iostream>
#include <ranges>
#include <string>
#include <vector>

#include <qel/qelcpp.h>
#include <qel/qelstd.h>
#include <qel/qeltable.h>

using namespace std::literals;

// sample class
class Person : public virtual xobject
{
    QEL_OBJECT(Person);
    QEL_PROPERTY(xstring, Name); // getName, setName
    QEL_PROPERTY(int, Age);

public:
    enum class Mood { low, high };
    QEL_PROPERTY(Mood, Now);
};
QEL_ENUM_IN(Person, Mood);
// end

// sample table
QEL_LABELS_IN(Person, Mood, "tour::Mood", low, high);
constinit qelClass Person::rtti = {
    .name = "tour::Person",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Age), QEL_ATTR(Now, qelOptional)},
};
// end

namespace {

// sample ownership
void ownership()
{
    const auto ada = qel::make<Person>(); // an xrchandle<Person>
    ada->setName("Ada"s);
    ada->setNow(Person::Mood::high);

    const auto memory = qel::own(ioStringStream::Create("42")); // streams are not counted
    std::cout << ada->getName() << ' ' << memory->ReadInt() << '\n';
}
// end

// sample failures
void failures()
{
    try {
        xintsequence::make({1, 2, 3})->get(7);
    } catch (xthrowable* thrown) {
        const qel::caught failure(thrown); // owns it, whatever its class
        std::cout << failure.type() << ": " << failure.what() << '\n';
        if (auto* const index = failure.as<qelXInvalidSeqIndex>())
            std::cout << index->getIndex() << " of " << index->getSize() << '\n';
    }
}
// end

// sample strings
void strings()
{
    xstring s = xstring("grün"s) + u"er" + u8" Tee"; // every kind of text
    s += "!"sv;
    std::cout << s << ' ' << s.view().size() << ' ' << (s < "h") << xstring().empty() << '\n';
    const auto words = qel::split("one two  three", " ");
    for (const xstring& word : *words)
        std::cout << '[' << word << ']';
    std::cout << '\n';
}
// end

// sample variants
void variants()
{
    const xany number = 7;
    std::cout << (7 == number) << ' ' << qel::get_if<double>(number).value_or(0) << ' '
              << qel::get_if<std::string>(number).value_or("no text") << '\n';
    const auto mixed = qel::list{1, "two", 3.5};
    for (const xany& a : *mixed)
        std::cout << a << ' '; // or qel::visit, for each type its own
    std::cout << '\n';
}
// end

// sample collections
void collections()
{
    const auto numbers = qel::list{5, 3, 9};
    std::cout << std::ranges::max(*numbers) << ' ' << (*numbers)[1] << '\n';
    std::ranges::sort(qel::span(*numbers)); // in place
    numbers->assign(std::vector{1, 2});     // any range

    const auto ages = qel::dict<xintdictionary>{{"Ada", 36}, {"Bob", 20}};
    for (const auto& [name, age] : *ages)
        std::cout << name << ' ' << age << '\n';
    std::cout << ages->contains("Eve"s) << ages->value_or("Eve", -1) << qel::get(*ages, "Bob").value()
              << '\n';
}
// end

// sample times
void times()
{
    const tmTime start = tmTime::fromIso("2026-01-31T23:30:00Z").value();
    const tmTime end = start + 45min;
    std::cout << end.toIso() << ' ' << end.utc()->month << ' ' << end - start << '\n';
    const auto point = static_cast<std::chrono::system_clock::time_point>(end);
    std::cout << (tmTime(point) == end) << '\n';
}
// end

} // namespace

int main()
{
    qel::reportUncaught();
    ownership();
    failures();
    strings();
    variants();
    collections();
    times();
}
