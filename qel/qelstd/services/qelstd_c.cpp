#include "qelstd_c.h"

#include <iostream>
#include <utility>

#include <qel/base/btkstrbuf.h>

#include "qelexception.h"
#include "qelprint.h"
#include "qelstd_c_p.h"
#include "xrtti.h"

namespace {

/// The current exception: the slot owns one reference to it, or all of it when its class is not countable.
xthrowable* current = nullptr;

void dispose(xobject* p)
{
    if (p->isRefCountable())
        xrcrelease(p);
    else
        xdelete(p);
}

/// Empty or replaced before anything is released: a destructor may use the slot too.
void replaceCurrent(xthrowable* next)
{
    xthrowable* const old = std::exchange(current, next);
    if (old != nullptr)
        dispose(old);
}

/// What `operation` answers for the object, which stays meanwhile; null and uninit are answered for.
template<class R, class Operation>
R onObject(xobject* p, R forNull, R forUninit, Operation operation)
{
    if (!qelIsObject(p))
        return p == nullptr ? forNull : forUninit;
    const xrcunihandle<xobject> held(p);
    return qelForC(forUninit, operation);
}

} // namespace

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
        std::cout << (p == nullptr ? "nil" : "uninit"); // a walk says nothing of an uninit value
        return;
    }
    qelForC(0, [p] {
        qelPrint(p, std::cout, 2);
        return 0;
    });
}

// ---- strings

__xstring_c xstrcreate_c(const char* text)
{
    return xstring(text).getxstring_c();
}

const char* xstrgetmb_c(__xstring_c s)
{
    if (s.mb != nullptr)
        return s.mb;
    // The buffer keeps what it produces, so the text outlives the string made here.
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
    if (e == current)
        return;
    if (!qelIsObject(e))
        return xcleanupexc_c();
    xrcattach(e); // before what is current goes: that may be its only owner
    xcleanupexc_c();
    replaceCurrent(e);
}

xthrowable* xgetexc_c()
{
    xrcattach(current);
    return current;
}

unsigned char xisexc_c()
{
    return current != nullptr;
}

xthrowable* xextractexc_c()
{
    return std::exchange(current, nullptr);
}

void xcleanupexc_c()
{
    replaceCurrent(nullptr);
}

__xstring_c xgetexctext_c(xthrowable* e)
{
    if (!qelIsObject(e))
        return xstring().getxstring_c();
    const xrcunihandle<xthrowable> held(e);
    if (const auto* const native = qelXNativeException::softcast(e))
        return native->getStringRep().getxstring_c();
    if (auto* const other = qelXS11nException::softcast(e))
        return other->getMessage().getxstring_c();
    const auto* const framework = qelXException::softcast(e);
    return (framework != nullptr ? framework->getDescription() : xstring()).getxstring_c();
}
