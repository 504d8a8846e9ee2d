#include "xrtti.h"

#include <cstring>
#include <memory>

#include "qelrtti.h"
#include "qeltable.h"
#include "xrttiancestors_p.h"
#include "xrttimap_p.h"

constinit qelClass xrtti::rtti = {.name = "xrtti"};
constinit qelClass xrttibasic::rtti = {.name = "xrttibasic", .parents = {QEL_PARENT(xrtti)}};
constinit qelClass xrttienum::rtti = {.name = "xrttienum", .parents = {QEL_PARENT(xrtti)}};
constinit qelClass xrttiobject::rtti = {.name = "xrttiobject", .parents = {QEL_PARENT(xrtti)}};
constinit qelClass xrttiattr::rtti = {.name = "xrttiattr"};
constinit qelClass xrttistruct::rtti = {.name = "xrttistruct", .parents = {QEL_PARENT(xrttiobject)}};
constinit qelClass xrttiunion::rtti = {.name = "xrttiunion", .parents = {QEL_PARENT(xrttiobject)}};

namespace {

template<class V>
V at(V* block, int count, int i, V otherwise)
{
    return i >= 0 && i < count ? block[i] : otherwise;
}

unsigned hashOf(const char* text)
{
    unsigned hash = 2166136261u; // FNV-1a, 32 bits
    while (qelIsObject(text) && *text != '\0')
        hash = (hash ^ static_cast<unsigned char>(*text++)) * 16777619u;
    return hash;
}

} // namespace

// ---- xrtti

xrtti::~xrtti()
{
    while (userData != nullptr) {
        const std::unique_ptr<xrttiuserdata> gone(userData);
        userData = gone->next;
    }
}

void xrtti::initialize(const char* typeName)
{
    name = typeName;
    nameHash = hashOf(typeName);
}

xstring xrtti::getName()
{
    return name;
}

unsigned char xrtti::isSameAs(const xrtti* other) const
{
    if (this == other)
        return 1;
    return qelIsObject(other) && nameHash == other->nameHash && name == other->name;
}

unsigned char xrtti::isKindOf(const xrtti* other) const
{
    return qelIsObject(other) && (other->isSameAs(qelGetRtti_any()) || isSameAs(other));
}

static xrttiuserdata* findUserData(xrttiuserdata* const& head, const char* key)
{
    xrttiuserdata* at = __atomic_load_n(&head, __ATOMIC_ACQUIRE);
    while (at != nullptr && at->key != key && std::strcmp(at->key, key) != 0)
        at = at->next;
    return at;
}

void xrtti::addUserData(const char* key, void* data)
{
    if (key == nullptr)
        return;
    const thrLock lock(qelRttiMutex());
    if (xrttiuserdata* const known = findUserData(userData, key))
        known->data.store(data, std::memory_order_release);
    else
        __atomic_store_n(&userData, new xrttiuserdata{key, data, userData}, __ATOMIC_RELEASE);
}

void* xrtti::getUserData(const char* key)
{
    xrttiuserdata* const found = key == nullptr ? nullptr : findUserData(userData, key);
    return found == nullptr ? nullptr : found->data.load(std::memory_order_acquire);
}

// ---- xrttibasic, xrttienum

xrttibasic::xrttibasic(const char* typeName)
{
    initialize(typeName);
}

xrttienum::xrttienum(const char* typeName, int labelCount, const char** labelTexts)
    : nValues(labelCount), labels(labelTexts)
{
    initialize(typeName);
}

int xrttienum::getNValues()
{
    return nValues;
}

xstring xrttienum::mapIntToString(int value)
{
    return xstring(at<const char*>(labels, nValues, value, nullptr));
}

int xrttienum::mapStringToInt(const char* label)
{
    for (int i = 0; qelIsObject(label) && i < nValues; ++i)
        if (labels[i] == label || std::strcmp(labels[i], label) == 0)
            return i;
    return xnullint;
}

int qelLabelCount(xrttienum* type)
{
    return type->getNValues();
}

// ---- xrttiobject

void xrttiobject::initialize(const char* typeName, unsigned char counted, int parentCount,
                             xrttiobject** parentTypes)
{
    xrtti::initialize(typeName);
    isRefCount = counted;
    nParents = parentCount;
    parents = parentTypes;
}

unsigned char xrttiobject::getIsRefCount()
{
    return isRefCount;
}

int xrttiobject::getNParents()
{
    return nParents;
}

xrttiobject* xrttiobject::getParent(int i)
{
    return at<xrttiobject*>(parents, nParents, i, nullptr);
}

unsigned char xrttiobject::isKindOf(const xrtti* other) const
{
    if (!qelIsObject(other))
        return 0;
    if (other->isSameAs(qelGetRtti_any()) || other->isSameAs(qelGetRtti_object()))
        return 1;
    xrttiancestors ancestors([=](const xrttiobject* type) { return type->isSameAs(other); });
    return ancestors.answer(const_cast<xrttiobject*>(this));
}

// ---- xrttiattr, xrttistruct

xrttiattr::xrttiattr(const char* attrName, xrtti* attrType, unsigned char optional, xrttigetter read)
    : name(attrName), type(attrType), isOptional(optional), getter(read)
{
}

xstring xrttiattr::getName()
{
    return name;
}

xrtti* xrttiattr::getType()
{
    return type;
}

unsigned char xrttiattr::getIsOptional()
{
    return isOptional;
}

xany xrttiattr::getValue(xobject* owner)
{
    return getter(owner);
}

void xrttistruct::initialize(const char* typeName, unsigned char counted, int parentCount,
                             xrttiobject** parentTypes, int attrCount, xrttiattr** ownAttrs)
{
    xrttiobject::initialize(typeName, counted, parentCount, parentTypes);
    nAttrs = attrCount;
    attrs = ownAttrs;
}

int xrttistruct::getNAttrs()
{
    return nAttrs;
}

xrttiattr* xrttistruct::getAttr(int i)
{
    return at<xrttiattr*>(attrs, nAttrs, i, nullptr);
}

xrttiattr* xrttistruct::findAttr(const char* attrName, unsigned char inherited)
{
    if (inherited) {
        xrttiancestors ancestors(
            [=](xrttiobject* type) { return xrttistruct::cast(type)->findAttr(attrName, 0); });
        return ancestors.answer(this);
    }
    for (int i = 0; i < nAttrs; ++i)
        if (attrs[i]->getName() == attrName)
            return attrs[i];
    return nullptr;
}

// ---- xrttiunion

void xrttiunion::initialize(const char* typeName, unsigned char counted, int parentCount,
                            xrttiobject** parentTypes, xrttiattr* discriminator, int labelCount,
                            int* labelValues, xrttiattr** members, xrttiattr* defaultMember)
{
    xrttiobject::initialize(typeName, counted, parentCount, parentTypes);
    discr = discriminator;
    nLabels = labelCount;
    labels = labelValues;
    attrs = members;
    defaultAttr = defaultMember;
}

xrttiattr* xrttiunion::getDiscr()
{
    return discr;
}

int xrttiunion::getNLabels()
{
    return nLabels;
}

int xrttiunion::getLabel(int i)
{
    return at(labels, nLabels, i, xnullint);
}

xrttiattr* xrttiunion::getAttr(int i)
{
    return at<xrttiattr*>(attrs, nLabels, i, nullptr);
}

xrttiattr* xrttiunion::getDefaultAttr()
{
    return defaultAttr;
}

xrttiattr* xrttiunion::mapLabelToAttr(xany label, unsigned char inherited)
{
    switch (label.getKind()) {
    case xanyNull:
    case xanyUninit:
    case xanyInt:
    case xanyEnum:
        return mapLabelToAttr(static_cast<int>(label), inherited);
    default:
        return nullptr;
    }
}

xrttiattr* xrttiunion::mapLabelToAttr(int label, unsigned char inherited)
{
    xrttiattr* member = nullptr;
    if (!inherited) {
        hasLabel(label, &member);
    } else {
        bool listed = false;
        xrttiancestors ancestors(
            [&](xrttiobject* type) {
                listed = xrttiunion::cast(type)->hasLabel(label, &member);
                return member;
            },
            [&] { return !listed; });
        ancestors.answer(this);
    }
    return member;
}

bool xrttiunion::hasLabel(int label, xrttiattr** member)
{
    for (int i = 0; i < nLabels; ++i) {
        if (labels[i] == label) {
            *member = attrs[i];
            return true;
        }
    }
    *member = defaultAttr;
    return defaultAttr != nullptr;
}
