#include "qelrtti.h"

#include <cstdlib>
#include <cxxabi.h>
#include <memory>

#include "qeltable.h"
#include "xrttiattrseq.h"
#include "xrttimap_p.h"

namespace {

xrttimap<xrtti>& registry()
{
    static auto* const map =
        new xrttimap<xrtti>; // never freed: used by registrars and by whatever outlives statics
    return *map;
}

// What the registrars know of the types that they name. Used by registrars before statics are initialized.
constinit const qelNamedTypes* named = nullptr;

const qelNamed* namedAs(xrtti* type)
{
    for (const qelNamedTypes* list = named; list != nullptr && type != nullptr; list = list->next)
        for (std::size_t i = 0; i < list->count; ++i)
            if (list->types[i].rtti() == type)
                return &list->types[i];
    return nullptr;
}

xrttibasic* makeBasic(const char* name)
{
    return new (pDefMemMgr) xrttibasic(name);
}

} // namespace

void qelRttiAddToMap(xrtti* type)
{
    if (!qelIsObject(type))
        return;
    const xstring name = type->getName();
    if (name != nullptr)
        registry().set(name.CastToCString(), type); // the text lives as long as the descriptor's own copy
}

xrtti* qelRttiGetFromMap(const char* name)
{
    return qelIsObject(name) ? registry().get(name) : nullptr;
}

void qelRttiForEach(void (*visit)(xrtti* type, void* context), void* context)
{
    registry().forEach([=](xrtti* type) { visit(type, context); });
}

void qelKeepNames(qelNamedTypes& more)
{
    for (const qelNamedTypes* list = named; list != nullptr; list = list->next)
        if (list == &more)
            return;
    more.next = named;
    named = &more;
}

xstring qelRttiCppName(xrtti* type)
{
    const qelNamed* const known = qelIsObject(type) ? namedAs(type) : nullptr;
    if (known == nullptr)
        return nullptr;
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> readable(
        abi::__cxa_demangle(known->type->name(), nullptr, nullptr, &status), &std::free);
    return readable == nullptr ? known->type->name() : readable.get();
}

xobject* qelRttiCreate(const char* typeName)
{
    const qelNamed* const known = namedAs(qelRttiGetFromMap(typeName));
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

void qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited, xrttiattrseq* out)
{
    for (int i = 0; inherited && i < type->getNParents(); ++i)
        qelRttiCollectAttrs(xrttistruct::cast(type->getParent(i)), inherited, out);
    for (int i = 0; i < type->getNAttrs(); ++i)
        out->append(type->getAttr(i));
}

xrttiattrseq* qelRttiCollectAttrs(xrttistruct* type, unsigned char inherited)
{
    xrttiattrseq* const attrs = xrttiattrseq::create();
    try {
        qelRttiCollectAttrs(type, inherited, attrs);
    } catch (...) {
        xdelete(attrs);
        throw;
    }
    return attrs;
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
