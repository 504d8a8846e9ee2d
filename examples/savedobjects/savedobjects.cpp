// An inventory of an application's own classes, saved as JSON and loaded again: savedobjects FILE

#include <filesystem>
#include <fstream>
#include <iostream>

#include <qel/qelcpp.h>
#include <qel/qeljson.h>
#include <qel/qeltable.h>

enum Colour : int { red, green, blue };
QEL_ENUM(Colour);
QEL_LABELS(Colour, "stock::Colour", red, green, blue);

class Item : public virtual xobject
{
    QEL_OBJECT(Item);
    QEL_COUNTED;
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

void save(const xrchandle<Item>& item, const std::filesystem::path& path)
{
    const std::filesystem::path unfinished = path.string() + ".new";
    std::ofstream file(unfinished);
    qel::json::write<Item>(item, file, {.indent = 2});
    file.close();
    if (file)
        std::filesystem::rename(unfinished, path); // the old file, or the whole new one
}

xrchandle<Item> load(const std::filesystem::path& path)
{
    std::ifstream file(path);
    return qel::json::read<Item>(file);
}

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    qelRegister<Item>();

    const auto bike = qel::make<Item>("bike", 2, red);
    bike->setParts(qel::list{qel::make<Item>("wheel", xnullint, blue), "bell"});
    save(bike, argv[1]);

    const xrchandle<Item> again = load(argv[1]);
    again->setCount(again->getCount() + 1);
    save(again, argv[1]);
    std::cout << std::ifstream(argv[1]).rdbuf() << '\n'
              << again->getName() << " has " << again->getParts()->size() << " parts" << std::endl;

    try {
        qel::json::read<Item>(R"({"Name": "car", "Paint": "pink"})");
    } catch (xthrowable* thrown) {
        std::cout << qel::caught(thrown).what() << std::endl;
    }
}
