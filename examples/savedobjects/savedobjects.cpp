// Objects of an application's own classes, written as JSON and read again.

#include <iostream>
#include <sstream>

#include <qel/qelcaught.h>
#include <qel/qeljson.h>
#include <qel/qeltable.h>
#include <qel/xsequence.h>

enum Colour : int { red, green, blue };
QEL_ENUM(Colour);
QEL_LABELS(Colour, "stock::Colour", red, green, blue);

class Item : public virtual xobject
{
    QEL_OBJECT(Item);
    QEL_REBUILD(Item);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Count);
    QEL_PROPERTY(Colour, Paint);
    QEL_PROPERTY(xrchandle<xanysequence>, Parts);

public:
    Item(const char* name, int count, Colour paint) : Name(name), Count(count), Paint(paint) {}
};

constinit qelClass Item::rtti = {
    .name = "stock::Item",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Count, qelOptional), QEL_ATTR(Paint), QEL_ATTR(Parts, qelOptional)},
    .rebuild = &qelRebuildOf<self>,
};

int main()
{
    qelRegister<Item>();

    const xrchandle<Item> bike(new Item("bike", 2, red));
    const xrchandle<xanysequence> parts(xanysequence::create());
    parts->append(xany(new Item("wheel", xnullint, blue)));
    parts->append("bell");
    bike->_s11n_setParts(parts);

    std::stringstream file;
    qel::json::write<Item>(bike, file, {.indent = 2});
    std::cout << file.str() << std::endl;

    const xrchandle<Item> again = qel::json::read<Item>(file);
    std::cout << again->getName() << " has " << again->getParts()->getarraysize() << " parts" << std::endl;

    try {
        qel::json::read<Item>(R"({"Name": "car", "Paint": "pink"})");
    } catch (xthrowable* thrown) {
        const qel::caught failure(thrown);
        std::cout << failure.what() << std::endl;
    }
    return 0;
}
