#include "xobject.h"

#include <qel/base/btkabort.h>
#include <qel/base/thrmutex.h>

#include "qelexception.h"
#include "qelrtti.h"

namespace {

thrMutex& countMutex()
{
    static thrMutex* const mutex = new thrMutex; // never destroyed: objects may die after every static
    return *mutex;
}

[[maybe_unused]] const thrMutex& madeAtLoad = countMutex();

/// Holds the process-wide count lock for the life of a block, if the process has threads when it begins.
class CountLock
{
public:
    CountLock() : mutex(thrIsThreaded() ? &countMutex() : nullptr)
    {
        if (mutex != nullptr)
            mutex->Lock();
    }
    ~CountLock()
    {
        if (mutex != nullptr)
            mutex->Unlock();
    }
    CountLock(const CountLock&) = delete;
    CountLock& operator=(const CountLock&) = delete;

private:
    thrMutex* const mutex;
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

// Counts above zero change in one step without the lock: whoever attaches or releases owns a reference, so
// the object stays. The lock is for the first reference, the last one and the fatal reports.

void xobject::xattach()
{
    if (!thrIsThreaded()) {
        if (refcount > 0) {
            ++refcount;
            return;
        }
    } else if (__atomic_load_n(&refcount, __ATOMIC_RELAXED) > 0) {
        __atomic_fetch_add(&refcount, 1, __ATOMIC_RELAXED);
        return;
    }
    attachFirst();
}

void xobject::attachFirst()
{
    std::int32_t count = __atomic_load_n(&refcount, __ATOMIC_RELAXED);
    if (count == -1)
        return;
    const CountLock lock;
    for (;;) {
        if (count == -1)
            return;
        if (count < -1)
            QEL_ABORT("xrcattach: Invalid value of refcount.");
        const std::int32_t next = count > 0 ? count + 1 : isRefCountable() ? 1 : -1;
        if (__atomic_compare_exchange_n(&refcount, &count, next, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            return;
    }
}

void xobject::xrelease()
{
    if (!thrIsThreaded()) {
        if (refcount > 1) {
            --refcount;
            return;
        }
    } else {
        std::int32_t count = __atomic_load_n(&refcount, __ATOMIC_RELAXED);
        while (count > 1)
            if (__atomic_compare_exchange_n(&refcount, &count, count - 1, true, __ATOMIC_ACQ_REL,
                                            __ATOMIC_RELAXED))
                return;
    }
    releaseLast();
}

void xobject::releaseLast()
{
    std::int32_t count = __atomic_load_n(&refcount, __ATOMIC_ACQUIRE);
    if (count == 0 || count == -1)
        return;
    const CountLock lock;
    for (;;) {
        if (count == 0 || count == -1)
            return;
        if (count < -1)
            QEL_ABORT("xrcrelease: Invalid value of refcount.");
        if (count == 1 && isDeletable()) {
            // The count stays 1 until the object is gone: references taken and given back on the way must not
            // delete it a second time.
            onDelete();
            delete this;
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
    if (isDeletable()) {
        onDelete();
        delete this;
    }
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
    return getRtti()->getIsRefCount();
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

void qelThrowTypeMismatch(xrttiobject* expected, xobject* p)
{
    qelXTypeMismatch::Throw(expected->getName().CastToCString(), p);
    QEL_ABORT("Can not be here.");
}
