// Objects to JSON and back, against a library whose users write the conversions of each class by hand.

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include <qel/qeljson.h>
#include <qel/qeltable.h>

#include "curve.h"

namespace {

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

xrchandle<Items> ourItems(std::int64_t n)
{
    xrchandle<Items> made(Items::create());
    for (std::int64_t i = 0; i < n; ++i)
        made->append(new Item(static_cast<int>(i)));
    return made;
}

std::string ourText(std::int64_t n)
{
    std::ostringstream out;
    qel::json::write<Items>(ourItems(n), out);
    return out.str();
}

xrchandle<Items> readOurs(const std::string& text)
{
    return qel::json::read<Items>(text);
}

std::vector<PlainItem> readTheirs(const std::string& text)
{
    return nlohmann::json::parse(text).get<std::vector<PlainItem>>();
}

template<int howMany>
void writeOurs(benchmark::State& state)
{
    const xrchandle<Items> items = ourItems(curveSize<howMany>(state));
    for (auto _ : state) {
        std::ostringstream out;
        qel::json::write<Items>(items, out);
        benchmark::DoNotOptimize(out);
    }
}

template<int howMany>
void writeTheirs(benchmark::State& state)
{
    const auto items = readTheirs(ourText(curveSize<howMany>(state)));
    for (auto _ : state) {
        std::ostringstream out;
        out << nlohmann::json(items).dump();
        benchmark::DoNotOptimize(out);
    }
}

template<int howMany, auto parse>
void read(benchmark::State& state)
{
    const std::string text = ourText(curveSize<howMany>(state));
    for (auto _ : state) {
        auto items = parse(text);
        benchmark::DoNotOptimize(items);
    }
}

constexpr int many = 100000;
BENCHMARK(writeOurs<many>)->Name("json/write 100000 objects/qelstd")->Unit(benchmark::kMillisecond);
BENCHMARK(writeTheirs<many>)->Name("json/write 100000 objects/nlohmann")->Unit(benchmark::kMillisecond);
BENCHMARK(read<many, readOurs>)->Name("json/read 100000 objects/qelstd")->Unit(benchmark::kMillisecond);
BENCHMARK(read<many, readTheirs>)->Name("json/read 100000 objects/nlohmann")->Unit(benchmark::kMillisecond);

[[maybe_unused]] const bool added = [] {
    addCurve("curves/write objects as JSON", "qelstd", writeOurs<0>, 100, 1'000'000);
    addCurve("curves/write objects as JSON", "nlohmann", writeTheirs<0>, 100, 1'000'000);
    addCurve("curves/read objects from JSON", "qelstd", read<0, readOurs>, 100, 1'000'000);
    addCurve("curves/read objects from JSON", "nlohmann", read<0, readTheirs>, 100, 1'000'000);
    const auto ours = [](std::int64_t n) { return readOurs(ourText(n)); };
    const auto theirs = [](std::int64_t n) { return readTheirs(ourText(n)); };
    addMemoryCurve("curves of memory/objects read from JSON", "qelstd", ours, 100, 1'000'000);
    addMemoryCurve("curves of memory/objects read from JSON", "nlohmann", theirs, 100, 1'000'000);
    return true;
}();

} // namespace
