// Handles and variants in a process with one thread, against the types that a program would use instead.

#include <QVariant>
#include <benchmark/benchmark.h>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <qel/qeltable.h>
#include <qel/xany.h>
#include <qel/xobject.h>

#include "curve.h"
#include "least_p.h"

namespace {

class Thing : public virtual xobject
{
    QEL_OBJECT(Thing);
    QEL_COUNTED;
};

constinit qelClass Thing::rtti = {.name = "bench::Thing", .counted = true};

struct Plain
{
    virtual ~Plain() = default;
};

template<class Handle>
void copyAndDrop(benchmark::State& state, const Handle& handle)
{
    for (auto _ : state) {
        Handle copy(handle);
        benchmark::DoNotOptimize(copy);
    }
}

template<class Make>
void makeAndDrop(benchmark::State& state, Make make)
{
    for (auto _ : state) {
        auto handle = make();
        benchmark::DoNotOptimize(handle);
    }
}

// ---- handles

void oneThreadQelstd(benchmark::State& state)
{
    copyAndDrop(state, xrchandle<Thing>(new Thing));
}
void oneThreadRoot(benchmark::State& state)
{
    copyAndDrop(state, xrchandle<xobject>(new Thing));
}
BENCHMARK(oneThreadRoot)->Name("objects/attach and release, one thread/qelstd");
void oneThreadShared(benchmark::State& state)
{
    copyAndDrop(state, std::make_shared<Plain>());
}
BENCHMARK(oneThreadQelstd)->Name("objects/copy and drop a handle, one thread/qelstd");
BENCHMARK(oneThreadShared)->Name("objects/attach and release, one thread/std::shared_ptr");
BENCHMARK(oneThreadShared)->Name("objects/copy and drop a handle, one thread/std::shared_ptr");

void birthQelstd(benchmark::State& state)
{
    makeAndDrop(state, qel::make<Thing>);
}
void birthShared(benchmark::State& state)
{
    makeAndDrop(state, [] { return std::make_shared<Plain>(); });
}
BENCHMARK(birthQelstd)->Name("objects/make and drop, one thread/qelstd");
BENCHMARK(birthShared)->Name("objects/make and drop, one thread/std::make_shared");

void birthLeast(benchmark::State& state)
{
    makeAndDrop(state, [] { return LeastHandle(new LeastObject); });
}
BENCHMARK(birthLeast)->Name("objects/make and drop, one thread/the least");

void byNameQelstd(benchmark::State& state)
{
    qelRegister<Thing>();
    makeAndDrop(state, [] { return xrchandle<xobject>(qelRttiCreate("bench::Thing")); });
}
void byNameQt(benchmark::State& state)
{
    qRegisterMetaType<Plain>("Plain");
    for (auto _ : state) {
        const int type = QMetaType::type("Plain");
        void* const made = QMetaType::create(type);
        benchmark::DoNotOptimize(made);
        QMetaType::destroy(type, made);
    }
}
BENCHMARK(byNameQelstd)->Name("objects/make by the name of the type and drop/qelstd");
BENCHMARK(birthQelstd)->Name("objects/make by the name of the type and drop/by the class");
BENCHMARK(byNameQt)->Name("objects/make by the name of the type and drop/QMetaType");

// ---- variants

using StdVariant =
    std::variant<std::monostate, int, bool, double, std::shared_ptr<std::string>, std::shared_ptr<Plain>>;

template<class Variant>
void copyValue(benchmark::State& state, const Variant& value)
{
    for (auto _ : state) {
        Variant copy(value);
        benchmark::DoNotOptimize(copy);
    }
}

template<class Variant>
void assignValue(benchmark::State& state, const Variant& value, const Variant& other)
{
    Variant target;
    for (auto _ : state) {
        target = value;
        benchmark::DoNotOptimize(target);
        target = other;
        benchmark::DoNotOptimize(target);
    }
}

template<class Variant>
void compareTwo(benchmark::State& state, Variant a, Variant b)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        const bool same = a == b;
        benchmark::DoNotOptimize(same);
    }
}

template<class Variant>
void compareValue(benchmark::State& state, const Variant& value)
{
    compareTwo(state, value, Variant(value));
}

[[gnu::noinline]] bool equalTexts(const std::string& a, const std::string& b)
{
    return a == b;
}

/// The least of a variant whose copies share a text: texts that are not shared are compared by a call.
struct LeastVariant
{
    int tag = 1;
    std::shared_ptr<const std::string> text;

    bool operator==(const LeastVariant& other) const
    {
        return tag == other.tag && (text == other.text || equalTexts(*text, *other.text));
    }
};

/// The least of a variant with an object: the kinds of both are looked at, and the new value is taken before the old one is
/// released, which may hold it.
class LeastObjectVariant
{
public:
    LeastObjectVariant() = default;
    explicit LeastObjectVariant(LeastRoot* made) : tag(Tag::object), held(made) {}
    LeastObjectVariant(const LeastObjectVariant&) = delete;
    ~LeastObjectVariant() { release(tag, held); }
    LeastObjectVariant& operator=(const LeastObjectVariant& other)
    {
        if (other.tag == Tag::object)
            other.held->attachOne();
        const Tag oldTag = tag;
        LeastRoot* const old = held;
        tag = other.tag;
        held = other.held;
        release(oldTag, old);
        return *this;
    }

private:
    enum class Tag : int { null, object };
    static void release(Tag tag, LeastRoot* object)
    {
        if (tag == Tag::object)
            object->releaseOne();
    }

    Tag tag = Tag::null;
    LeastRoot* held = nullptr;
};

void assignObjectLeast(benchmark::State& state)
{
    assignValue(state, LeastObjectVariant(new LeastObject), LeastObjectVariant(new LeastObject));
}
BENCHMARK(assignObjectLeast)->Name("variants/assign, object/the least");

/// Equal texts that are not copies of each other.
template<std::size_t length>
void addTexts()
{
    static const std::string text(length, 'x');
    const std::string name = "variants/compare, strings of " + std::to_string(length) + "/";
    const auto add = [&](const char* who, auto make) {
        benchmark::RegisterBenchmark((name + who).c_str(),
                                     [make](benchmark::State& s) { compareTwo(s, make(), make()); });
    };
    add("qelstd", [] { return xany(text.c_str()); });
    add("std::variant", [] { return std::variant<std::monostate, int, double, std::string>(text); });
    add("QVariant", [] { return QVariant(QString::fromStdString(text)); });
    add("the least", [] { return LeastVariant{1, std::make_shared<const std::string>(text)}; });
}

template<class Make>
void addVariants(const char* kind, Make make)
{
    const std::string name = std::string("variants/");
    const std::string what = std::string(", ") + kind + "/";
    const auto add = [&](const char* operation, const char* who, auto run) {
        benchmark::RegisterBenchmark((name + operation + what + who).c_str(), run);
    };
    add("copy", "qelstd", [=](benchmark::State& s) { copyValue<xany>(s, make.qel()); });
    add("copy", "std::variant", [=](benchmark::State& s) { copyValue<StdVariant>(s, make.standard()); });
    add("copy", "QVariant", [=](benchmark::State& s) { copyValue<QVariant>(s, make.qt()); });
    add("assign", "qelstd", [=](benchmark::State& s) { assignValue<xany>(s, make.qel(), make.qel()); });
    add("assign", "std::variant",
        [=](benchmark::State& s) { assignValue<StdVariant>(s, make.standard(), make.standard()); });
    add("assign", "QVariant", [=](benchmark::State& s) { assignValue<QVariant>(s, make.qt(), make.qt()); });
    add("compare", "qelstd", [=](benchmark::State& s) { compareValue<xany>(s, make.qel()); });
    add("compare", "std::variant",
        [=](benchmark::State& s) { compareValue<StdVariant>(s, make.standard()); });
    add("compare", "QVariant", [=](benchmark::State& s) { compareValue<QVariant>(s, make.qt()); });
}

struct Ints
{
    xany qel() const { return 17; }
    StdVariant standard() const { return 17; }
    QVariant qt() const { return 17; }
};
struct Reals
{
    xany qel() const { return 2.5; }
    StdVariant standard() const { return 2.5; }
    QVariant qt() const { return 2.5; }
};
struct Strings
{
    xany qel() const { return "a text of some length"; }
    StdVariant standard() const { return std::make_shared<std::string>("a text of some length"); }
    QVariant qt() const { return QString("a text of some length"); }
};
struct Objects
{
    xany qel() const { return xrchandle<Thing>(new Thing); }
    StdVariant standard() const { return std::make_shared<Plain>(); }
    QVariant qt() const
    {
        static QObject* const object = nullptr;
        return QVariant::fromValue(object);
    }
};

// ---- by size

template<class Make>
auto allOf(std::int64_t n, Make make)
{
    std::vector<decltype(make(n))> all;
    all.reserve(static_cast<std::size_t>(n));
    for (std::int64_t i = 0; i < n; ++i)
        all.push_back(make(i));
    return all;
}

void addCurves(const char* who, auto object, auto variant)
{
    addCurve(
        "curves/make objects and drop them", who,
        [=](benchmark::State& state) {
            for (auto _ : state)
                benchmark::DoNotOptimize(allOf(state.range(0), object));
        },
        100, 1'000'000);
    addCurve(
        "curves/copy variants with strings", who,
        [=](benchmark::State& state) {
            const auto all = allOf(state.range(0), variant);
            for (auto _ : state) {
                auto copy = all;
                benchmark::DoNotOptimize(copy);
            }
        },
        100, 1'000'000);
    addMemoryCurve(
        "curves of memory/objects", who, [=](std::int64_t n) { return allOf(n, object); }, 100, 1'000'000);
    addMemoryCurve(
        "curves of memory/variants with strings", who, [=](std::int64_t n) { return allOf(n, variant); }, 100,
        1'000'000);
}

std::string textOf(std::int64_t i)
{
    return "a text of some length " + std::to_string(i);
}

[[maybe_unused]] const bool added = [] {
    addCurves(
        "qelstd", [](std::int64_t) { return qel::make<Thing>(); },
        [](std::int64_t i) { return xany(textOf(i).c_str()); });
    addCurves(
        "std", [](std::int64_t) { return std::make_shared<Plain>(); },
        [](std::int64_t i) { return StdVariant(std::make_shared<std::string>(textOf(i))); });
    addVariants("int", Ints());
    addVariants("real", Reals());
    addVariants("string", Strings());
    addVariants("object", Objects());
    addTexts<11>();
    addTexts<40>();
    return true;
}();

} // namespace
