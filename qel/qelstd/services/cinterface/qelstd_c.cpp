#include "qelstd_c.h"

#include <atomic>
#include <iostream>
#include <mutex>
#include <sstream>
#include <utility>

#include <qel/base/btkstrbuf.h>

#include "qelexception.h"
#include "qeljson.h"
#include "qelprint.h"
#include "qelstd_c_p.h"
#include "xrtti.h"

namespace {

void dispose(xobject* p)
{
    if (p->isRefCountable())
        xrcrelease(p);
    else
        xdelete(p);
}

/// A current exception: the slot owns one reference to it, or the exception itself when its class is not
/// countable. Nothing is released under the lock: a destructor may use the slot too.
class Slot
{
public:
    xthrowable* peek() const { return held.load(std::memory_order_acquire); }

    /// Returns it with a reference for the caller.
    xthrowable* share()
    {
        const std::lock_guard lock(mutex);
        xthrowable* const shared = held.load(std::memory_order_relaxed);
        xrcattach(shared);
        return shared;
    }

    /// Passes the previous exception to the caller.
    xthrowable* exchange(xthrowable* next)
    {
        if (next == nullptr && peek() == nullptr)
            return nullptr;
        const std::lock_guard lock(mutex);
        return held.exchange(next, std::memory_order_acq_rel);
    }

    void clear()
    {
        if (xthrowable* const old = exchange(nullptr))
            dispose(old);
    }

private:
    std::mutex mutex;
    std::atomic<xthrowable*> held = nullptr;
};

constinit Slot processSlot;
constinit thread_local Slot* current = &processSlot; // the slot that the thread uses

struct OwnSlot : Slot
{
    ~OwnSlot()
    {
        // Destructors that run later in the thread's exit may still use one.
        current = &processSlot;
        clear();
    }
};
thread_local OwnSlot ownSlot;

/// The current exception when no memory is left for a new one. Created while the library is loaded.
qelXNativeException* outOfMemory()
{
    static const xrchandle<qelXNativeException>* const made =
        new xrchandle<qelXNativeException>(qelCreateNativeException("Out of memory"));
    return made->get();
}

[[maybe_unused]] const qelXNativeException* const madeAtLoad = outOfMemory();

/// Returns the result of `operation` for the object, which is kept alive meanwhile; handles null and uninit.
template<class R, class Operation>
R onObject(xobject* p, R forNull, R forUninit, Operation operation)
{
    if (!qelIsObject(p))
        return p == nullptr ? forNull : forUninit;
    const xrcunihandle<xobject> held(p);
    return qelForC(forUninit, operation);
}

} // namespace

void qelKeepCurrent(xthrowable* e)
{
    if (current->peek() != e)
        current->clear(); // its destructor may make another exception current, which is replaced
    xthrowable* const old = current->exchange(e);
    if (old == e)
        xrcrelease(e); // the slot had its reference
    else if (old != nullptr)
        dispose(old);
}

void qelKeepOutOfMemory()
{
    xsetexc_c(outOfMemory());
}

// ---- objects

void xrcattach_c(xobject* p)
{
    xrcattach(p);
}

void xrcrelease_c(xobject* p)
{
    xrcunirelease(p);
}

unsigned char xisrcobj_c(xobject* p)
{
    return onObject<unsigned char>(p, 0, 0, [p] { return p->isRefCountable(); });
}

void xdelete_c(xobject* p)
{
    if (qelIsObject(p))
        dispose(p);
}

xrttiobject* xgetrtti_c(xobject* p)
{
    return onObject<xrttiobject*>(p, nullptr, nullptr, [p] { return p->getRtti(); });
}

__xstring_c xgettypename_c(xobject* p)
{
    return onObject<xstring>(p, {}, {}, [p] { return p->getQelTypeName(); }).getxstring_c();
}

unsigned char xisobjsameas_c(xobject* p, xrttiobject* type)
{
    return onObject<unsigned char>(p, 1, 0, [=] { return qelIsObject(type) && p->isSameAs(type); });
}

unsigned char xisobjkindof_c(xobject* p, xrttiobject* type)
{
    return onObject<unsigned char>(p, 1, 0, [=] { return qelIsObject(type) && p->isKindOf(type); });
}

void xprint_c(xobject* p)
{
    if (!qelIsObject(p)) {
        std::cout << (p == nullptr ? "nil" : "uninit"); // a walk reports nothing for an uninit value
        return;
    }
    qelForC(0, [p] {
        qelPrint(p, std::cout, 2);
        return 0;
    });
}

__xstring_c xwritejson_c(xobject* p, int indent)
{
    const auto write = [=] {
        std::ostringstream out;
        qel::json::write(p, out, {.indent = indent});
        return xstring(std::string_view(out.view()));
    };
    return qelForC(xstring(), write).getxstring_c();
}

xobject* xreadjson_c(const char* text)
{
    return qelForC(xuninitobj, [=] {
        const auto read = qel::json::read<xobject>(qelIsObject(text) ? text : "");
        xrcattach(read.get());
        return read.get();
    });
}

// ---- strings

__xstring_c xstrcreate_c(const char* text)
{
    return qelForC<__xstring_c>(xstring().getxstring_c(), [=] { return xstring(text).getxstring_c(); });
}

const char* xstrgetmb_c(__xstring_c s)
{
    if (s.mb != nullptr)
        return s.mb;
    // The buffer caches the produced form, so the text outlives the string created here.
    return qelForC<const char*>(xuninitstr,
                                [&] { return s.buffer == nullptr ? xnullstr : xstring(s).CastToCString(); });
}

void xstrlock_c(__xstring_c s)
{
    if (s.buffer != nullptr)
        s.buffer->Lock();
}

void xstrunlock_c(__xstring_c s)
{
    if (s.buffer != nullptr)
        s.buffer->Unlock();
}

// ---- the current exception

void xsetexc_c(xthrowable* e)
{
    if (!qelIsObject(e))
        return xcleanupexc_c();
    // Before the current exception is released, which may be its only owner.
    xrcattach(e);
    qelKeepCurrent(e);
}

xthrowable* xgetexc_c()
{
    return current->share();
}

unsigned char xisexc_c()
{
    return current->peek() != nullptr;
}

xthrowable* xextractexc_c()
{
    return current->exchange(nullptr);
}

void xcleanupexc_c()
{
    current->clear();
}

void xthreadexc_c(unsigned char own)
{
    if (own) {
        current = &ownSlot;
    } else if (current != &processSlot) {
        current = &processSlot;
        ownSlot.clear();
    }
}

__xstring_c xgetexctext_c(xthrowable* e)
{
    if (!qelIsObject(e))
        return xstring().getxstring_c();
    const xrcunihandle<xthrowable> held(e);
    return qelForC(xstring(), [e] { return qelTextOf(e); }).getxstring_c();
}
