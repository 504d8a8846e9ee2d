#include "qelrtti.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <memory>
#include <vector>

#include "qeltable.h"
#include "xrttimap_p.h"

namespace {

// Used by registrars before statics are initialized, and after they are destroyed.
constinit xrttimap registry;

/// Returns the facts of a qelRegister about `type`, which is or was registered as `entry`.
const qelNamed* namedAs(const xrttientry* entry, const xrtti* type)
{
    const auto* fact = entry == nullptr ? nullptr : entry->facts.load(std::memory_order_acquire);
    while (fact != nullptr && fact->named.rtti() != type)
        fact = fact->next;
    return fact == nullptr ? nullptr : &fact->named;
}

/// Returns the name of a type as C++ code writes it.
xstring readable(const std::type_info& type)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return name == nullptr ? type.name() : name.get();
}

xrttibasic* makeBasic(const char* name)
{
    return new (pDefMemMgr) xrttibasic(name);
}

} // namespace

// Held for additions only, and never while calling other code, which may hold the guard of a static.
thrMutex& qelRttiMutex()
{
    static thrMutex* const mutex = new thrMutex;
    return *mutex;
}

void qelRttiAddToMap(xrtti* type)
{
    if (!qelIsObject(type))
        return;
    const xstring name = type->getName();
    if (name == nullptr)
        return;
    const thrLock lock(qelRttiMutex());
    registry.findOrAdd(name.CastToCString()).type.store(type, std::memory_order_release);
}

xrtti* qelRttiGetFromMap(const char* name)
{
    const xrttientry* const entry = qelIsObject(name) ? registry.find(name) : nullptr;
    return entry == nullptr ? nullptr : entry->type.load(std::memory_order_acquire);
}

void qelRttiForEach(void (*visit)(xrtti* type, void* context), void* context)
{
    std::vector<const xrttientry*> entries;
    registry.forEach([&](const xrttientry& entry) { entries.push_back(&entry); });
    std::sort(entries.begin(), entries.end(), [](const xrttientry* a, const xrttientry* b) {
        return std::strcmp(a->name.get(), b->name.get()) < 0;
    });
    for (const xrttientry* const entry : entries)
        if (xrtti* const type = entry->type.load(std::memory_order_acquire))
            visit(type, context);
}

void qelKeepNamed(const qelNamed& type)
{
    const xstring name = type.rtti()->getName();
    const xrttientry::Fact* other = nullptr;
    {
        const thrLock lock(qelRttiMutex());
        xrttientry& entry = registry.findOrAdd(name.CastToCString());
        xrttientry::Fact* const facts = entry.facts;
        for (const xrttientry::Fact* fact = facts; fact != nullptr; fact = fact->next) {
            if (&fact->named == &type)
                return;
            if (*fact->named.type != *type.type)
                other = fact;
        }
        entry.facts.store(new xrttientry::Fact{type, facts}, std::memory_order_release);
    }
    if (other != nullptr)
        std::fprintf(stderr, "qelRegister: %s and %s are both named \"%s\": casts cannot tell them apart\n",
                     readable(*other->named.type).CastToCString(), readable(*type.type).CastToCString(),
                     name.CastToCString());
}

xstring qelRttiCppName(xrtti* type)
{
    if (!qelIsObject(type))
        return nullptr;
    const xstring name = type->getName();
    const qelNamed* const known =
        name == nullptr ? nullptr : namedAs(registry.find(name.CastToCString()), type);
    return known == nullptr ? nullptr : readable(*known->type);
}

xobject* qelRttiCreate(const char* typeName)
{
    const xrttientry* const entry = qelIsObject(typeName) ? registry.find(typeName) : nullptr;
    const qelNamed* const known =
        entry == nullptr ? nullptr : namedAs(entry, entry->type.load(std::memory_order_acquire));
    return known == nullptr || known->make == nullptr ? nullptr : known->make();
}

void qelRttiAddUserData(xrtti* type, const char* key, void* data)
{
    type->addUserData(key, data);
    const xstring name = type->getName();
    if (name == nullptr || name == "")
        return;
    xrtti* const registered = qelRttiGetFromMap(name.CastToCString());
    if (registered == nullptr)
        qelRttiAddToMap(type);
    else if (registered != type)
        registered->addUserData(key, data);
}

void* qelRttiGetUserData(xrtti* type, const char* key)
{
    if (void* const data = type->getUserData(key))
        return data;
    const xstring name = type->getName();
    return name == nullptr || name == "" ? nullptr : qelRttiGetUserData(name.CastToCString(), key);
}

void* qelRttiGetUserData(const char* typeName, const char* key)
{
    xrtti* const type = qelRttiGetFromMap(typeName);
    return type == nullptr ? nullptr : type->getUserData(key);
}

// ---- the built-in types

xrttibasic* qelGetRtti_bool()
{
    static xrttibasic* const type = makeBasic("bool");
    return type;
}

xrttibasic* qelGetRtti_int()
{
    static xrttibasic* const type = makeBasic("int");
    return type;
}

xrttibasic* qelGetRtti_real()
{
    static xrttibasic* const type = makeBasic("real");
    return type;
}

xrttibasic* qelGetRtti_string()
{
    static xrttibasic* const type = makeBasic("string");
    return type;
}

xrttibasic* qelGetRtti_any()
{
    static xrttibasic* const type = makeBasic("any");
    return type;
}

xrttiobject* qelGetRtti_object()
{
    static xrttiobject* const type = [] {
        auto* const made = new (pDefMemMgr) xrttiobject;
        made->initialize("object", 1, 0, nullptr);
        return made;
    }();
    return type;
}
