#include "qeltable.h"

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <qel/base/btkabort.h>
#include <qel/base/btkmemory.h>
#include <qel/base/thrmutex.h>

#include "xrttiancestors_p.h"

// Descriptors and everything that they refer to are never freed.

namespace {

constexpr char tableKey[] = "qelstd.table"; // the user data under which a descriptor keeps its table

using OwnedAttr = std::unique_ptr<xrttiattr, qelDelete>;

OwnedAttr buildAttr(const qelAttr& row)
{
    return OwnedAttr(row.name == nullptr ? nullptr
                                         : new (pDefMemMgr)
                                               xrttiattr(row.name, row.type(), row.optional, row.read));
}

/// The results of `make` for each row, until a descriptor takes them over.
template<class Out>
class Block
{
public:
    template<class Rows, class Make>
    Block(const Rows& rows, Make make)
        : all(rows.size() == 0 ? nullptr : new Out[rows.size()]), count(static_cast<int>(rows.size()))
    {
        Out* at = all.get();
        for (const auto& row : rows)
            *at++ = make(row); // NOLINT(clang-analyzer-core.NullDereference): null only when there is no row
    }

    int size() const { return count; }
    Out* get() const { return all.get(); }
    void keep() { static_cast<void>(all.release()); }

private:
    std::unique_ptr<Out[]> all;
    int count;
};

/// The same for attributes.
class AttrBlock
{
public:
    template<class Rows, class Attr>
    AttrBlock(const Rows& rows, Attr attrOf) : block(rows, [](const auto&) { return nullptr; })
    {
        owned.reserve(rows.size());
        for (const auto& row : rows) {
            owned.push_back(buildAttr(attrOf(row)));
            block.get()[owned.size() - 1] = owned.back().get();
        }
    }

    int size() const { return block.size(); }
    xrttiattr** get() const { return block.get(); }
    void keep()
    {
        for (OwnedAttr& attr : owned)
            static_cast<void>(attr.release());
        block.keep();
    }

private:
    std::vector<OwnedAttr> owned;
    Block<xrttiattr*> block;
};

Block<xrttiobject*> parentsOf(const qelClass& cls)
{
    return {cls.parents, [](const qelParent& row) { return row.rtti(); }};
}

// Descriptors are built under this lock. Classes may refer to each other and to themselves, so a descriptor
// is begun before those that it refers to are requested, and the building thread works with unfinished ones.
// They become visible to other threads together, once all are complete.

thrMutex& buildMutex()
{
    // Never destroyed: classes may be used after all statics are destroyed.
    static thrMutex* const mutex = new thrMutex;
    return *mutex;
}

constinit bool isBuilding = false;
constinit qelClass* begunClasses = nullptr; // not published yet, the last begun first

/// Returns the descriptor of a class as its concrete kind.
template<class T>
T* begin(qelClass& cls)
{
    if (cls.begun != nullptr)
        return dynamic_cast<T*>(cls.begun);
    T* const type = new (pDefMemMgr) T;
    cls.begun = type;
    cls.nextBegun = std::exchange(begunClasses, &cls);
    return type;
}

// Each of these takes over its results once the descriptor is initialized, which may fail.

void buildStruct(qelClass& cls)
{
    auto* const type = begin<xrttistruct>(cls);
    Block<xrttiobject*> parents = parentsOf(cls);
    AttrBlock attrs(cls.attrs, [](const qelAttr& row) { return row; });
    type->initialize(cls.name, cls.counted, parents.size(), parents.get(), attrs.size(), attrs.get());
    parents.keep();
    attrs.keep();
}

void buildUnion(qelClass& cls)
{
    auto* const type = begin<xrttiunion>(cls);
    Block<xrttiobject*> parents = parentsOf(cls);
    Block<int> labels(cls.cases, [](const qelCase& row) { return row.label; });
    AttrBlock members(cls.cases, [](const qelCase& row) { return row.attr; });
    OwnedAttr discriminator = buildAttr(cls.discriminator);
    OwnedAttr otherwise = buildAttr(cls.otherwise);
    type->initialize(cls.name, cls.counted, parents.size(), parents.get(), discriminator.get(), labels.size(),
                     labels.get(), members.get(), otherwise.get());
    parents.keep();
    labels.keep();
    members.keep();
    static_cast<void>(discriminator.release());
    static_cast<void>(otherwise.release());
}

void buildSequence(qelClass& cls)
{
    auto* const type = begin<xrttisequence>(cls);
    const qelShape& shape = *cls.elements;
    type->initialize(cls.name, cls.counted, shape.elemType(), shape.optional, shape.size, shape.elemAt);
}

void buildDictionary(qelClass& cls)
{
    auto* const type = begin<xrttidictionary>(cls);
    const qelShape& shape = *cls.elements;
    type->initialize(cls.name, cls.counted, shape.elemType(), shape.optional, shape.size, shape.find,
                     shape.keyAt, shape.valueAt);
}

void buildArrayType(qelClass& cls)
{
    auto* const type = begin<xrttiarray>(cls);
    const qelShape& shape = *cls.elements;
    Block<int> extents(cls.dims, [](int extent) { return extent; });
    type->initialize(cls.name, cls.counted, extents.size(), extents.get(), shape.elemType(), shape.optional,
                     shape.elemAtAll);
    extents.keep();
}

/// Rejects a table with rows that its kind of class does not support: they would be lost.
void check(const qelClass& cls)
{
    const char* fault = nullptr;
    if (cls.elements != nullptr &&
        (cls.parents.size() != 0 || cls.attrs.size() != 0 || cls.discriminator.name != nullptr))
        fault = "a table with .elements has no .parents, .attrs or .discriminator";
    else if (cls.discriminator.name != nullptr && cls.attrs.size() != 0)
        fault = "a table with a .discriminator has no .attrs";
    else if (cls.discriminator.name == nullptr && (cls.cases.size() != 0 || cls.otherwise.name != nullptr))
        fault = "a table with .cases or .otherwise has a .discriminator";
    if (fault != nullptr)
        QEL_ABORT((std::string(cls.name) + ": " + fault).c_str());
}

void describe(qelClass& cls)
{
    check(cls);
    if (cls.elements == nullptr) {
        if (cls.discriminator.name != nullptr)
            buildUnion(cls);
        else
            buildStruct(cls);
    } else {
        switch (cls.elements->kind) {
        case qelShape::sequence:
            buildSequence(cls);
            break;
        case qelShape::dictionary:
            buildDictionary(cls);
            break;
        case qelShape::array:
            buildArrayType(cls);
            break;
        }
    }
}

/// Returns a class that was begun and has no name yet: under construction, or out of memory.
qelClass* unfinished()
{
    qelClass* at = begunClasses;
    while (at != nullptr && at->begun->getName() != nullptr)
        at = at->nextBegun;
    return at;
}

void publishAll()
{
    for (qelClass* at = begunClasses; at != nullptr; at = at->nextBegun) {
        qelRttiAddToMap(at->begun);
        qelRttiAddUserData(at->begun, tableKey, at);
    }
    for (; begunClasses != nullptr; begunClasses = begunClasses->nextBegun)
        __atomic_store_n(&begunClasses->built, begunClasses->begun, __ATOMIC_RELEASE);
}

} // namespace

// After an interruption by an exception, the next call resumes the work.
xrttiobject* qelBuildDescriptor(qelClass& cls)
{
    const thrLock lock(buildMutex());
    if (cls.built != nullptr)
        return cls.built; // by another thread meanwhile
    if (cls.begun == nullptr && isBuilding)
        describe(cls);
    if (isBuilding)
        return cls.begun;

    struct Building
    {
        Building() { isBuilding = true; }
        ~Building() { isBuilding = false; }
    } const building;
    if (cls.begun == nullptr)
        describe(cls);
    while (qelClass* const left = unfinished())
        describe(*left);
    publishAll();
    return cls.begun;
}

void* qelDowncast(qelClass& cls, void* self, xobject* object, const xrttiobject* wanted)
{
    if (!qelIsObject(wanted))
        return nullptr;
    if (__atomic_load_n(&cls.built, __ATOMIC_ACQUIRE) == wanted)
        return self;
    if (qelDescriptorOf(cls)->xrtti::isSameAs(wanted))
        return self;
    xrttiancestors ancestors([=](const xrttiobject* type) { return type->xrtti::isSameAs(wanted); });
    for (const qelParent& parent : cls.parents)
        // With several bases, search before descending: they may share bases of their own, and so on.
        if (cls.parents.size() == 1 || ancestors.answer(parent.rtti()))
            if (void* const found = parent.downcast(self, wanted))
                return found;
    return object->xobject::dyndowncast(wanted);
}

const qelClass* qelClassOf(xrttiobject* type)
{
    return static_cast<const qelClass*>(qelRttiGetUserData(type, tableKey));
}

void qelThrowNotLive()
{
    qelhThrowNotInitialized();
}

xrttienum* qelBuildEnum(const char* name, int count, const char* list)
{
    const auto size = static_cast<std::size_t>(count);
    std::unique_ptr<const char*[]> labels(new const char*[size]);
    std::vector<std::unique_ptr<char[]>> texts;
    texts.reserve(size);
    const char* at = list;
    for (std::size_t i = 0; i < size; ++i) {
        at += std::strspn(at, " ,");
        // A label may be written with its scope, `Colour::red`; its name is the last part.
        const std::size_t length = std::strcspn(at, ", ");
        std::unique_ptr<char[]> label(btkStrDup(at));
        label[length] = '\0';
        if (const char* const scope = std::strrchr(label.get(), ':'))
            label.reset(btkStrDup(scope + 1));
        labels[i] = label.get();
        texts.push_back(std::move(label));
        at += length;
    }
    std::unique_ptr<xrttienum, qelDelete> type(new (pDefMemMgr) xrttienum(name, count, labels.get()));
    qelRttiAddToMap(type.get());
    for (auto& text : texts)
        static_cast<void>(text.release());
    static_cast<void>(labels.release());
    return type.release();
}

void qelAbortCounted(xrtti* type)
{
    QEL_ABORT((std::string(type->getName().CastToCString()) +
               ": QEL_COUNTED or QEL_NOT_COUNTED contradicts the table's `.counted`")
                  .c_str());
}
