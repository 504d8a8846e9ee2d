// Handles in a process with threads, against the types that a program would use instead. A separate program,
// because a process that has created a thread counts as threaded from then on.

#include <atomic>
#include <benchmark/benchmark.h>
#include <glib-object.h>
#include <memory>
#include <thread>

#include <qel/qeltable.h>
#include <qel/xobject.h>

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

/// A second thread that sleeps, so that the process counts as threaded during the object's lifetime.
class SecondThread
{
public:
    SecondThread() : thread([this] { done.wait(false); }) {}
    ~SecondThread()
    {
        done = true;
        done.notify_all();
        thread.join();
    }

private:
    std::atomic<bool> done = false;
    std::thread thread;
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

xrchandle<Thing> newThing()
{
    return qel::make<Thing>();
}

void threadedQelstd(benchmark::State& state)
{
    const SecondThread second;
    copyAndDrop(state, xrchandle<Thing>(new Thing));
}
void threadedShared(benchmark::State& state)
{
    const SecondThread second;
    copyAndDrop(state, std::make_shared<Plain>());
}
BENCHMARK(threadedQelstd)->Name("objects/copy and drop a handle, threads exist/qelstd");
BENCHMARK(threadedShared)->Name("objects/copy and drop a handle, threads exist/std::shared_ptr");

void threadedBirthQelstd(benchmark::State& state)
{
    const SecondThread second;
    makeAndDrop(state, newThing);
}
void threadedBirthShared(benchmark::State& state)
{
    const SecondThread second;
    makeAndDrop(state, [] { return std::make_shared<Plain>(); });
}
BENCHMARK(threadedBirthQelstd)->Name("objects/make and drop, threads exist/qelstd");
BENCHMARK(threadedBirthShared)->Name("objects/make and drop, threads exist/std::make_shared");

void threadedBirthLeast(benchmark::State& state)
{
    const SecondThread second;
    makeAndDrop(state, [] { return LeastHandle(new LeastObject); });
}
BENCHMARK(threadedBirthLeast)->Name("objects/make and drop, threads exist/the least");

const xrchandle<Thing>& sharedThing()
{
    static const xrchandle<Thing> thing(new Thing);
    return thing;
}
const std::shared_ptr<Plain>& sharedPlain()
{
    static const std::shared_ptr<Plain> plain = std::make_shared<Plain>();
    return plain;
}
GObject* sharedGObject()
{
    static auto* const object = static_cast<GObject*>(g_object_new(G_TYPE_OBJECT, nullptr));
    return object;
}

void contendedQelstd(benchmark::State& state)
{
    copyAndDrop(state, sharedThing());
}
void contendedShared(benchmark::State& state)
{
    copyAndDrop(state, sharedPlain());
}
void contendedGObject(benchmark::State& state)
{
    GObject* const object = sharedGObject();
    for (auto _ : state) {
        benchmark::DoNotOptimize(g_object_ref(object));
        g_object_unref(object);
    }
}
void activeBirthQelstd(benchmark::State& state)
{
    makeAndDrop(state, newThing);
}
void activeBirthShared(benchmark::State& state)
{
    makeAndDrop(state, [] { return std::make_shared<Plain>(); });
}
BENCHMARK(activeBirthQelstd)->Name("objects/make and drop, two active threads/qelstd")->Threads(2);
BENCHMARK(activeBirthShared)->Name("objects/make and drop, two active threads/std::make_shared")->Threads(2);
BENCHMARK(contendedQelstd)->Name("objects/two threads, one object/qelstd")->Threads(2);
BENCHMARK(contendedShared)->Name("objects/two threads, one object/std::shared_ptr")->Threads(2);
BENCHMARK(contendedGObject)->Name("objects/two threads, one object/GObject")->Threads(2);

} // namespace
