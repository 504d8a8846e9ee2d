// Objects to JSON and back, against a library whose users write the conversions of each class by hand.

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include <qel/qeljson.h>
#include <qel/qeltable.h>

namespace {

constexpr int howMany = 100000;

enum Colour : int { red, green, blue };
QEL_ENUM(Colour);
QEL_LABELS(Colour, "bench::Colour", red, green, blue);
NLOHMANN_JSON_SERIALIZE_ENUM(Colour, {{red, "red"}, {green, "green"}, {blue, "blue"}})

class Item : public virtual xobject
{
    QEL_OBJECT(Item);
    QEL_REBUILD(Item);
    QEL_PROPERTY(xstring, Name);
    QEL_PROPERTY(int, Number);
    QEL_PROPERTY(double, Price);
    QEL_PROPERTY(bool, Sold);
    QEL_PROPERTY(Colour, Paint);

public:
    explicit Item(int i)
        : Name(xstring::Printf("item %d of the stock", i)), Number(i), Price(i * 0.37), Sold(i % 3 == 0),
          Paint(static_cast<Colour>(i % 3))
    {
    }
};
constinit qelClass Item::rtti = {
    .name = "bench::Item",
    .counted = true,
    .attrs = {QEL_ATTR(Name), QEL_ATTR(Number), QEL_ATTR(Price), QEL_ATTR(Sold), QEL_ATTR(Paint)},
    .rebuild = &qelRebuildOf<self>,
};

class Items : public virtual xobject
{
    QEL_OBJECT(Items);

public:
    static Items* create() { return new (pDefMemMgr) Items; }
    int getarraysize() const { return static_cast<int>(all.size()); }
    xrchandle<Item> get(int i) const { return all[static_cast<std::size_t>(i)]; }
    void append(const xrchandle<Item>& item) { all.push_back(item); }

private:
    std::vector<xrchandle<Item>> all;
};
constinit qelClass Items::rtti = {
    .name = "bench::Items", .counted = true, .elements = qelSequenceOf<self>, .create = &qelCreateOf<self>};

struct PlainItem
{
    std::string name;
    int number;
    double price;
    bool sold;
    Colour paint;
};

void to_json(nlohmann::json& to, const PlainItem& item)
{
    to = {{"Name", item.name},
          {"Number", item.number},
          {"Price", item.price},
          {"Sold", item.sold},
          {"Paint", item.paint}};
}

void from_json(const nlohmann::json& from, PlainItem& item)
{
    from.at("Name").get_to(item.name);
    from.at("Number").get_to(item.number);
    from.at("Price").get_to(item.price);
    from.at("Sold").get_to(item.sold);
    from.at("Paint").get_to(item.paint);
}

const xrchandle<Items>& ourItems()
{
    static const xrchandle<Items> items = [] {
        xrchandle<Items> made(Items::create());
        for (int i = 0; i < howMany; ++i)
            made->append(new Item(i));
        return made;
    }();
    return items;
}

std::string ourText()
{
    std::ostringstream out;
    qel::json::write<Items>(ourItems(), out);
    return out.str();
}

void writeOurs(benchmark::State& state)
{
    const xrchandle<Items>& items = ourItems();
    for (auto _ : state) {
        std::ostringstream out;
        qel::json::write<Items>(items, out);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(writeOurs)->Name("json/write 100000 objects/qelstd")->Unit(benchmark::kMillisecond);

void writeTheirs(benchmark::State& state)
{
    const auto items = nlohmann::json::parse(ourText()).get<std::vector<PlainItem>>();
    for (auto _ : state) {
        std::ostringstream out;
        out << nlohmann::json(items).dump();
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(writeTheirs)->Name("json/write 100000 objects/nlohmann")->Unit(benchmark::kMillisecond);

void readOurs(benchmark::State& state)
{
    const std::string text = ourText();
    for (auto _ : state) {
        auto items = qel::json::read<Items>(text);
        benchmark::DoNotOptimize(items);
    }
}
BENCHMARK(readOurs)->Name("json/read 100000 objects/qelstd")->Unit(benchmark::kMillisecond);

void readTheirs(benchmark::State& state)
{
    const std::string text = ourText();
    for (auto _ : state) {
        auto items = nlohmann::json::parse(text).get<std::vector<PlainItem>>();
        benchmark::DoNotOptimize(items);
    }
}
BENCHMARK(readTheirs)->Name("json/read 100000 objects/nlohmann")->Unit(benchmark::kMillisecond);

} // namespace
