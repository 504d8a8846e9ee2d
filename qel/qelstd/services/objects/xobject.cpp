#include "xobject.h"

#include <utility>
#include <vector>

#include <qel/base/btkabort.h>
#include <qel/base/thrbiasedmutex.h>

#include "qelrtti.h"

/// Whether this object's class overrides the member of xobject, by its address in the table of virtual functions: few
/// classes override isDeletable and onDelete, and making and dropping an object takes a tenth less time without the calls.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpmf-conversions"
#define OVERRIDES(member) \
    (__extension__(void*)(this->*&xobject::member) != __extension__(void*) & xobject::member)
#else
#define OVERRIDES(member) true
#endif

namespace {

/// Serializes object destruction. Never destroyed: objects may be destroyed after every static.
constinit thrBiasedMutex deathMutex;

/// A thread's state of the destructions that it runs. A destructor that releases its members may start a
/// chain of any length, which must not grow the stack: objects too deep in it wait for the outermost
/// destruction.
struct Dying
{
    static constexpr int deepest = 200;

    int depth;
    bool hasLock;
    thrBiasedMutex::Entrant entrant;
    std::vector<xobject*>* waiting;

    /// False when memory runs out: the object is then destroyed at once, deeper on the stack.
    [[gnu::noinline]] bool postpone(xobject* p) noexcept
    {
        try {
            if (waiting == nullptr)
                waiting = new std::vector<xobject*>;
            waiting->push_back(p);
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    /// Returns the object postponed last, or null.
    [[gnu::noinline]] xobject* next()
    {
        if (waiting == nullptr)
            return nullptr;
        if (waiting->empty()) {
            delete std::exchange(waiting, nullptr);
            return nullptr;
        }
        xobject* const last = waiting->back();
        waiting->pop_back();
        return last;
    }
};
[[gnu::tls_model("initial-exec")]] constinit thread_local Dying dying = {};

/// Scope guard for the destruction lock; does nothing if the thread holds it already or the process has one
/// thread when the block begins.
class DeathLock
{
public:
    DeathLock() : mine(thrIsThreaded() && !dying.hasLock)
    {
        if (mine) {
            asFavourite = deathMutex.Lock(dying.entrant);
            dying.hasLock = true;
        }
    }
    ~DeathLock()
    {
        if (mine) {
            dying.hasLock = false;
            deathMutex.Unlock(dying.entrant, asFavourite);
        }
    }
    DeathLock(const DeathLock&) = delete;
    DeathLock& operator=(const DeathLock&) = delete;

private:
    const bool mine;
    bool asFavourite = false;
};

} // namespace

void* xobject::dyndowncast(const xrttiobject* cls)
{
    return cls != nullptr && qelGetRtti_object()->xrtti::isSameAs(cls) ? this : nullptr;
}

void* xobject::dyndowncast_i(const xrttiobject*)
{
    return nullptr;
}

xrttiobject* xobject::giveRtti()
{
    return qelGetRtti_object();
}

unsigned char xobject::isDeletable()
{
    return 1;
}

void xobject::onDelete()
{
}

// The lock is for the last reference and the fatal reports. Other calls change the count in one step, and a
// process with one thread needs neither.

void xobject::xattach()
{
    if (!thrIsThreaded() && refcount == 0) {
        refcount = isRefCountable() ? 1 : -1;
        return;
    }
    std::int32_t count = __atomic_load_n(&refcount, __ATOMIC_RELAXED);
    while (count != -1) {
        if (count < -1)
            QEL_ABORT("xrcattach: Invalid value of refcount.");
        const std::int32_t next = count > 0 ? count + 1 : isRefCountable() ? 1 : -1;
        if (__atomic_compare_exchange_n(&refcount, &count, next, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            return;
    }
}

inline void xobject::dieNow()
{
    struct Deeper
    {
        Deeper() { ++dying.depth; }
        ~Deeper() { --dying.depth; }
    } const deeper;
    // The count stays 1 until the object is destroyed: references taken and released meanwhile must not
    // delete it a second time.
    if (OVERRIDES(onDelete))
        onDelete();
    delete this;
}

[[gnu::always_inline]] inline void xobject::die()
{
    if (dying.depth > Dying::deepest && dying.postpone(this))
        return;
    dieNow();
    if (dying.depth == 0 && dying.waiting != nullptr)
        while (xobject* const next = dying.next())
            next->dieNow();
}

void xobject::xrelease()
{
    const auto mayDie = [this] { return !OVERRIDES(isDeletable) || isDeletable(); };
    if (!thrIsThreaded() && refcount == 1 && mayDie()) {
        die();
        return;
    }
    std::int32_t count = __atomic_load_n(&refcount, __ATOMIC_ACQUIRE);
    if (count == 0 || count == -1)
        return;
    const DeathLock lock;
    for (;;) {
        if (count == 0 || count == -1)
            return;
        if (count < -1)
            QEL_ABORT("xrcrelease: Invalid value of refcount.");
        if (count == 1 && mayDie()) {
            die();
            return;
        }
        if (__atomic_compare_exchange_n(&refcount, &count, count - 1, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE))
            return;
    }
}

void xobject::xfree()
{
    if (isRefCountable())
        qelhThrowRefCountable(this);
    if (isDeletable())
        dieNow();
}

xstring xobject::getQelTypeName()
{
    return getRtti()->getName();
}

unsigned char xobject::isSameAs(xrttiobject* cls)
{
    return getRtti()->isSameAs(cls);
}

unsigned char xobject::isKindOf(xrttiobject* cls)
{
    return getRtti()->isKindOf(cls);
}

unsigned char xobject::isRefCountable()
{
    return getRtti()->xrttiobject::getIsRefCount();
}

// A fresh object is held by its creator alone, so only code inside the block may change its count.

void qelReadHold::holdFresh(xobject* p)
{
    if (xrcgetcount(p) != 0)
        return;
    fresh = p;
    if (p->isRefCountable())
        xrcattach(p);
}

void qelReadHold::releaseFresh()
{
    std::int32_t count = xrcgetcount(fresh);
    while (count != 0 && !__atomic_compare_exchange_n(&fresh->refcount, &count, count > 0 ? count - 1 : 0,
                                                      false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
    }
}

void xdelete(xobject* p)
{
    if (p == xuninitobj)
        qelhThrowNotInitialized();
    if (qelIsObject(p))
        p->xfree();
}

xthrowable::~xthrowable() = default;

void xthrow(xrcunihandle<xthrowable> h)
{
    if (!h)
        qelhThrowNotInitialized();
    xthrowable* const thrown = h.get();
    xrcattach(thrown);
    throw thrown;
}
