#pragma once

// Small classes of every shape that a descriptor can describe, registered in the way of an application.

#include <pthread.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <qel/qelexception.h>
#include <qel/qeltable.h>
#include <qel/xany.h>
#include <qel/xobject.h>

namespace testtypes {

/// Counts the living objects of a class that derives from it.
template<class T>
class Counted
{
public:
    static int alive() { return count; }

protected:
    Counted() { ++count; }
    Counted(const Counted&) { ++count; }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --count; }

private:
    static inline int count = 0;
};

enum Colour { red, green, blue };
QEL_ENUM(Colour);

// ---- structures

/// Simple attributes of every kind.
class Person : public virtual xobject, public Counted<Person>
{
    QEL_OBJECT(Person); // "test::Person", counted
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Age);
    QEL_PROPERTY(double, Height);
    QEL_PROPERTY(unsigned char, Member);
    QEL_PROPERTY(Colour, Favourite);

public:
    Person() = default;
    Person(const char* name, int age) : Name(name), Age(age), Favourite(red) {}
};

/// Two values of any kind: builds trees and cycles.
class Pair : public virtual xobject, public Counted<Pair>
{
    QEL_OBJECT(Pair); // "test::Pair", counted

public:
    explicit Pair(xany l = xany(), xany r = xany()) : left(std::move(l)), right(std::move(r)) {}
    xany getLeft() const { return left; }
    xany getRight() const { return right; }

    xany left;
    xany right;
};

/// A structure whose objects are not counted.
class Loose : public virtual xobject, public Counted<Loose>
{
    QEL_OBJECT(Loose); // "test::Loose"

public:
    xany getValue() const { return value; }

    xany value;
};

// ---- classes that share a base: Duck derives twice from Being

class Being : public virtual xobject
{
    QEL_OBJECT(Being); // "test::Being", counted

public:
    int getId() const { return 1; }
};

class Swimmer : public virtual Being
{
    QEL_OBJECT(Swimmer); // "test::Swimmer", counted

public:
    int getDepth() const { return 2; }
};

class Flyer : public virtual Being
{
    QEL_OBJECT(Flyer); // "test::Flyer", counted

public:
    int getHeight() const { return 3; }
};

class Duck : public virtual Swimmer, public virtual Flyer
{
    QEL_OBJECT(Duck); // "test::Duck", counted

public:
    xstring getCall() const { return "quack"; }
};

// ---- sequence, dictionary, array

/// A sequence of values of any kind.
class List : public virtual xobject, public Counted<List>
{
    QEL_OBJECT(List); // "test::List", counted

public:
    List() = default;
    List(std::initializer_list<xany> values) : elements(values) {}
    int getarraysize() const { return static_cast<int>(elements.size()); }
    xany get(int index) const { return elements.at(static_cast<std::size_t>(index)); }

    std::vector<xany> elements;
};

/// A dictionary whose slots can be empty, or have a key but no value.
class Table : public virtual xobject
{
    QEL_OBJECT(Table); // "test::Table", counted

public:
    struct Slot
    {
        const char* key; ///< null: an empty slot
        xany value;      ///< uninit: none
    };

    Table(std::initializer_list<Slot> list) : slots(list) {}
    int getarraysize() const { return static_cast<int>(slots.size()); }
    unsigned char find(const char* key, xany* out)
    {
        for (const Slot& slot : slots)
            if (slot.key != nullptr && xstring(slot.key) == key) {
                *out = slot.value;
                return 1;
            }
        return 0;
    }
    unsigned char getkeybyindex(int index, xstring* outKey)
    {
        const Slot& slot = slots.at(static_cast<std::size_t>(index));
        if (slot.key == nullptr)
            return 0;
        *outKey = slot.key;
        return 1;
    }
    unsigned char getbyindex(int index, xany* out)
    {
        *out = slots.at(static_cast<std::size_t>(index)).value;
        return !out->isUninit();
    }

    std::vector<Slot> slots;
};

/// An array of 2 x 3 numbers: 11, 12, 13, 21, 22, 23.
class Grid : public virtual xobject
{
    QEL_OBJECT(Grid); // "test::Grid", counted

public:
    int getelement(const int* indices) const { return 10 * (indices[0] + 1) + indices[1] + 1; }
};

// ---- unions

/// Kind 1 has the member Number, kind 2 the member Text; there is no member for other kinds.
class Choice : public virtual xobject
{
    QEL_OBJECT(Choice); // "test::Choice", counted

public:
    explicit Choice(int k = xnullint) : kind(k) {}
    int getKind() const { return kind; }
    int getNumber() const { return 7; }
    xstring getText() const { return "seven"; }

private:
    int kind;
};

/// Red has the member Heat, every other colour the member Rest.
class ColourChoice : public virtual xobject
{
    QEL_OBJECT(ColourChoice); // "test::ColourChoice", counted

public:
    explicit ColourChoice(Colour c) : colour(c) {}
    Colour getColour() const { return colour; }
    double getHeat() const { return 36.6; }
    xany getRest() const { return xany(nullptr); }

private:
    Colour colour;
};

/// Kind 3 has the member More; the other kinds are Choice's.
class WiderChoice : public virtual Choice
{
    QEL_OBJECT(WiderChoice); // "test::WiderChoice", counted

public:
    explicit WiderChoice(int k) : Choice(k) {}
    xstring getMore() const { return "more"; }
};

// ---- descriptors without a table

/// An object of whatever class the given descriptor describes. Not counted.
class Described : public virtual xobject
{
public:
    explicit Described(xrttiobject* t) : type(t) {}

private:
    xrttiobject* giveRtti() override { return type; }

    xrttiobject* type;
};

// ---- failures

/// An exception whose class is not counted.
class LooseError : public virtual qelXException, public Counted<LooseError>
{
    QEL_OBJECT(LooseError); // "test::LooseError"
};

/// Every read of it fails: a framework exception, one of a class that is not counted, two foreign ones.
class Faulty : public virtual xobject
{
    QEL_OBJECT(Faulty); // "test::Faulty", counted

public:
    int getOwn() const { qelXNull::Throw(); }
    int getLoose() const { qelThrowNew<LooseError>(); }
    int getForeign() const { throw std::runtime_error("foreign"); }
    int getNumber() const { throw 5; }
    int getGood() const { return 1; }
};

/// Runs the cleanup of the calling thread and terminates it.
inline void cancelThisThread()
{
    pthread_cancel(pthread_self());
    pthread_testcancel();
}

/// The thread that reads it is cancelled.
class Cancelling : public virtual xobject
{
    QEL_OBJECT(Cancelling); // "test::Cancelling", counted

public:
    int getN() const
    {
        cancelThisThread();
        return 1;
    }
};

/// A dictionary, the size, a key or a value of which cannot be read.
class FaultyTable : public virtual xobject
{
    QEL_OBJECT(FaultyTable); // "test::FaultyTable", counted

public:
    explicit FaultyTable(bool sized) : hasSize(sized) {}
    int getarraysize() const
    {
        if (!hasSize)
            throw std::runtime_error("size");
        return 2;
    }
    unsigned char find(const char*, xany*) { return 0; }
    unsigned char getkeybyindex(int index, xstring* outKey)
    {
        *outKey = "half";
        if (index == 0)
            qelXNegativeIndex::Throw(index);
        return 1;
    }
    unsigned char getbyindex(int index, xany* out)
    {
        *out = index;
        if (index == 1)
            qelXNegativeIndex::Throw(index);
        return 1;
    }

private:
    bool hasSize;
};

// ---- tables

QEL_LABELS(Colour, "test::Colour", red, green, blue);

inline constinit qelClass Person::rtti = {.name = "test::Person",
                                          .counted = true,
                                          .attrs = {QEL_ATTR(Name), QEL_ATTR(Age),
                                                    QEL_ATTR(Height, qelOptional),
                                                    QEL_ATTR(Member, qelOptional), QEL_ATTR(Favourite)}};
inline constinit qelClass Pair::rtti = {.name = "test::Pair",
                                        .counted = true,
                                        .attrs = {QEL_ATTR(Left, qelOptional), QEL_ATTR(Right, qelOptional)}};
inline constinit qelClass Loose::rtti = {.name = "test::Loose", .attrs = {QEL_ATTR(Value, qelOptional)}};

inline constinit qelClass Being::rtti = {.name = "test::Being", .counted = true, .attrs = {QEL_ATTR(Id)}};
inline constinit qelClass Swimmer::rtti = {
    .name = "test::Swimmer", .counted = true, .parents = {QEL_PARENT(Being)}, .attrs = {QEL_ATTR(Depth)}};
inline constinit qelClass Flyer::rtti = {
    .name = "test::Flyer", .counted = true, .parents = {QEL_PARENT(Being)}, .attrs = {QEL_ATTR(Height)}};
inline constinit qelClass Duck::rtti = {.name = "test::Duck",
                                        .counted = true,
                                        .parents = {QEL_PARENT(Swimmer), QEL_PARENT(Flyer)},
                                        .attrs = {QEL_ATTR(Call)}};

inline constinit qelClass List::rtti = {
    .name = "test::List", .counted = true, .elements = qelSequenceOf<self, qelOptional>};
inline constinit qelClass Table::rtti = {
    .name = "test::Table", .counted = true, .elements = qelDictionaryOf<self, qelOptional>};
inline constinit qelClass Grid::rtti = {
    .name = "test::Grid", .counted = true, .elements = qelArrayOf<self>, .dims = {2, 3}};

inline constinit qelClass Choice::rtti = {.name = "test::Choice",
                                          .counted = true,
                                          .discriminator = QEL_ATTR(Kind),
                                          .cases = {{1, QEL_ATTR(Number)}, {2, QEL_ATTR(Text)}}};
inline constinit qelClass ColourChoice::rtti = {.name = "test::ColourChoice",
                                                .counted = true,
                                                .discriminator = QEL_ATTR(Colour),
                                                .cases = {{red, QEL_ATTR(Heat)}},
                                                .otherwise = QEL_ATTR(Rest, qelOptional)};
inline constinit qelClass WiderChoice::rtti = {.name = "test::WiderChoice",
                                               .counted = true,
                                               .parents = {QEL_PARENT(Choice)},
                                               .discriminator = QEL_ATTR(Kind),
                                               .cases = {{3, QEL_ATTR(More)}}};

inline constinit qelClass LooseError::rtti = {.name = "test::LooseError",
                                              .parents = {QEL_PARENT(qelXException)}};
inline constinit qelClass Faulty::rtti = {
    .name = "test::Faulty",
    .counted = true,
    .attrs = {QEL_ATTR(Own), QEL_ATTR(Loose), QEL_ATTR(Foreign), QEL_ATTR(Number), QEL_ATTR(Good)}};
inline constinit qelClass Cancelling::rtti = {
    .name = "test::Cancelling", .counted = true, .attrs = {QEL_ATTR(N)}};
inline constinit qelClass FaultyTable::rtti = {
    .name = "test::FaultyTable", .counted = true, .elements = qelDictionaryOf<self, qelOptional>};

} // namespace testtypes
