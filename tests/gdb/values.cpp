// A program for the debugger: one value of each type that has a printer, and of each marker.

#include <qel/qelexception.h>
#include <qel/qelown.h>
#include <qel/qeltable.h>
#include <qel/xany.h>
#include <qel/xdictionary.h>
#include <qel/xrtti.h>
#include <qel/xsequence.h>
#include <qel/xstring.h>

namespace people {

/// Classes of an application, with attributes in fields and one that is computed.
class Person : public virtual xobject
{
    QEL_OBJECT(Person);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);

public:
    int getLetters() const { return static_cast<int>(getName().GetLength()); }
};

class Employee : public Person
{
    QEL_OBJECT(Employee);
    QEL_PROPERTY(unsigned char, Paid);
    QEL_PROPERTY(xrchandle<Person>, Chief);
};

constinit qelClass Person::rtti = {
    .name = "people::Person", .counted = true, .attrs = {QEL_ATTR(Name), QEL_ATTR(Age), QEL_ATTR(Letters)}};
constinit qelClass Employee::rtti = {.name = "people::Employee",
                                     .counted = true,
                                     .parents = {QEL_PARENT(Person)},
                                     .attrs = {QEL_ATTR(Paid), QEL_ATTR(Chief)}};

} // namespace people

namespace {

/// A sequence class of an application.
class Ages : public xintsequence
{
public:
    int limit = 120;
};

const char* colours[] = {"red", "green"};

} // namespace

[[gnu::noinline]] void stopHere()
{
    asm volatile("");
}

int main()
{
    const xstring nullText;
    const xstring text("Gr\xc3\xbc\xc3\x9f"
                       "e \"x\"");
    const unsigned short units[] = {'w', 0xef, 0};
    const xstring wideText(units);
    const __xstring_c plainText = text.getxstring_c();

    const xany never;
    const xany nothing(nullptr);
    const xany number(42);
    const xany truth(true);
    const xany real(1.5);
    const xany words("in a variant");
    xrttienum colour("paint::Colour", 2, colours);
    const xany green(1, &colour);

    xrchandle<xintsequence> numbers(xintsequence::create());
    for (const int n : {7, xnullint, xuninitint, -1})
        numbers->append(n);
    const xrchandle<xobject> sameNumbers(numbers);
    const xany object(numbers);
    const xrchandle<xintsequence> nullHandle;
    const xrcunihandle<xobject> uninitHandle(xuninitobj);

    xauto<Ages> ages;
    ages.append(36);
    const xrchandle<Ages> aged = qel::make<Ages>();
    const xrchandle<people::Employee> person = qel::make<people::Employee>();
    person->setName("Ada");
    person->setPaid(static_cast<unsigned char>(1));
    xauto<xboolsequence> truths;
    const unsigned char bytes[] = {1, 0, xnullbool, xuninitbool};
    for (const unsigned char b : bytes)
        truths.append(b);
    xauto<xrealsequence> reals;
    for (const double r : {0.5, xnullreal, xuninitreal})
        reals.append(r);
    xauto<xstringsequence> texts;
    for (const char* t : {"a", "", static_cast<const char*>(nullptr)})
        texts.append(t);
    xauto<xanysequence> mixed;
    mixed.append(1);
    mixed.append("two");
    mixed.append(xany());
    xauto<xstringsequence> noTexts;

    xauto<xintdictionary> counts;
    counts.set("one", 1);
    counts.set("gone", 0);
    counts.set("none", xnullint);
    counts.remove("gone");
    xauto<xbooldictionary> flags;
    flags.set("on", 1);
    xauto<xanydictionary> settings;
    settings.set("name", "Ada");
    xauto<xrealdictionary> noReals;

    stopHere();
    plainText.buffer->Unlock();
}
