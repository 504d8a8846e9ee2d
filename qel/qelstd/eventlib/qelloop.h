#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/evtevent.h>

// Waiting for several events, an event that the program sets, and a loop over both.

namespace qel {

/// A limit or a period: seconds, INFINITE for no limit, or a std::chrono::duration.
///
///     qel::event done;
///     qel::waitAny({&done}, 0.5);                           // seconds
///     qel::waitAny({&done}, std::chrono::milliseconds(10)); // the same type
class timespan
{
public:
    constexpr timespan(double seconds) : value(seconds) {}
    /// The same with a `std::chrono::duration`.
    template<class Duration>
    requires requires { Duration::period::num; }
    constexpr timespan(Duration d)
        : value(static_cast<double>(d.count()) * Duration::period::num / Duration::period::den)
    {
    }
    /// Returns the seconds.
    constexpr double seconds() const { return value; }

private:
    double value;
};

/// Waits until an event of the list is signaled, and returns the first such in its order; null when `limit`
/// has passed. Null entries are skipped.
QEL_API evtEvent* waitAny(const std::vector<evtEvent*>& events, timespan limit = INFINITE);

/// An event that the program sets and resets, from any thread. It stays set until reset() is called.
///
///     qel::event done;
///     std::thread worker([&] { done.set(); });
///     done.Wait(INFINITE);
///     worker.join();
class QEL_API event : public evtEvent
{
public:
    /// @throws qelXNativeException  no descriptor is left
    explicit event(bool isSet = false);
    ~event() override;

    /// Safe in a signal handler, too.
    void set() noexcept { Event_Set(handle.Get()); }
    void reset() noexcept { Event_Reset(handle.Get()); }

private:
    explicit event(btkFd created);

    btkFd handle;
};

/// Calls functions when events are signaled or times have come, in the thread that calls run().
///
///     qel::loop loop;
///     const auto input = qel::own(stream.InputEvent());
///     loop.on(*input, [&] { std::cout << stream.ReadInt() << '\n'; });
///     loop.every(60, [] { std::clog << "a minute\n"; });
///     loop.after(3600, [&] { loop.stop(); });
///     loop.run();
///
/// Everything but stop() is called by that thread; the functions may call it, too. A round costs time
/// proportional to the number of entries.
class QEL_API loop
{
public:
    /// Names an entry, to remove it.
    using id = int;

    /// @throws qelXNativeException  no descriptor is left
    loop();
    ~loop();
    loop(const loop&) = delete;
    loop& operator=(const loop&) = delete;

    /// Calls `f()`, or `f(event)`, in each round in which `e` is signaled: `f` makes that end, for instance
    /// by reading what has arrived. The event must live until the entry is removed or the loop is freed.
    template<class F>
    id on(evtEvent& e, F f)
    {
        return add(&e, 0, false, std::make_unique<FunctionOf<F>>(std::move(f)));
    }
    /// Calls `f()` once, after `delay`.
    template<class F>
    id after(timespan delay, F f)
    {
        return add(nullptr, delay.seconds(), false, std::make_unique<FunctionOf<F>>(std::move(f)));
    }
    /// Calls `f()` after each `period`, which is more than 0; calls that are late by a period or more are left
    /// out.
    template<class F>
    id every(timespan period, F f)
    {
        return add(nullptr, period.seconds(), true, std::make_unique<FunctionOf<F>>(std::move(f)));
    }
    /// Removes an entry, whose function is then not called again; unknown ones are ignored.
    void off(id entry);

    /// Calls the functions until stop() is called; may then be called again. An exception of a function
    /// leaves it and changes nothing else.
    void run();
    /// Ends run() after the function that it is calling. A run() that begins later returns at once, once.
    /// Safe to call from any thread and in a signal handler.
    void stop() noexcept;

private:
    struct Function
    {
        virtual ~Function() = default;
        virtual void call(evtEvent* signaled) = 0;
    };
    template<class F>
    struct FunctionOf final : Function
    {
        explicit FunctionOf(F&& taken) : f(std::move(taken)) {}
        void call(evtEvent* signaled) override
        {
            if constexpr (std::is_invocable_v<F&, evtEvent&>)
                f(*signaled);
            else
                f();
        }
        F f;
    };
    struct Entry;
    struct Parts;

    id add(evtEvent* e, double seconds, bool isRepeated, std::unique_ptr<Function> function);

    std::unique_ptr<Parts> parts;
};

} // namespace qel
