#include "qeltable.h"

#include <cstring>
#include <memory>

#include <qel/base/btkmemory.h>

#include "qelexception.h"
#include "xrttiancestors_p.h"

// Descriptors live as long as the process, and so does everything that they point at.

namespace {

constexpr char tableKey[] = "qelstd.table"; // the user data under which a descriptor keeps its table

xrttiattr* buildAttr(const qelAttr& row)
{
    return row.name == nullptr ? nullptr
                               : new (pDefMemMgr) xrttiattr(row.name, row.type(), row.optional, row.read);
}

/// A block of what `make` answers for each row, for good.
template<class Out, class Rows, class Make>
Out* buildArray(const Rows& rows, Make make)
{
    Out* const block = rows.size() == 0 ? nullptr : new Out[rows.size()];
    Out* at = block;
    for (const auto& row : rows)
        *at++ = make(row); // NOLINT(clang-analyzer-core.NullDereference): null only when there is no row
    return block;
}

/// The arrays that the descriptors of classes with parents share.
struct Ancestry
{
    explicit Ancestry(const qelClass& cls)
        : count(static_cast<int>(cls.parents.size())),
          parents(buildArray<xrttiobject*>(cls.parents, [](const qelParent& row) { return row.rtti(); }))
    {
    }

    int count;
    xrttiobject** parents;
};

void publish(qelClass& cls, xrttiobject* type)
{
    qelRttiAddToMap(type);
    qelRttiAddUserData(type, tableKey, &cls);
}

// In each of these the table learns of the descriptor before parents and attributes are asked for theirs: a
// class may refer to itself, or back to itself through others.

void buildStruct(qelClass& cls)
{
    auto* const type = new (pDefMemMgr) xrttistruct;
    cls.built = type;
    const Ancestry ancestry(cls);
    type->initialize(cls.name, cls.counted, ancestry.count, ancestry.parents,
                     static_cast<int>(cls.attrs.size()), buildArray<xrttiattr*>(cls.attrs, buildAttr));
}

void buildUnion(qelClass& cls)
{
    auto* const type = new (pDefMemMgr) xrttiunion;
    cls.built = type;
    const Ancestry ancestry(cls);
    int* const labels = buildArray<int>(cls.cases, [](const qelCase& row) { return row.label; });
    xrttiattr** const members =
        buildArray<xrttiattr*>(cls.cases, [](const qelCase& row) { return buildAttr(row.attr); });
    type->initialize(cls.name, cls.counted, ancestry.count, ancestry.parents, buildAttr(cls.discriminator),
                     static_cast<int>(cls.cases.size()), labels, members, buildAttr(cls.otherwise));
}

void buildSequence(qelClass& cls)
{
    auto* const type = new (pDefMemMgr) xrttisequence;
    cls.built = type;
    const qelShape& shape = *cls.elements;
    type->initialize(cls.name, cls.counted, shape.elemType(), shape.optional, shape.size, shape.elemAt);
}

void buildDictionary(qelClass& cls)
{
    auto* const type = new (pDefMemMgr) xrttidictionary;
    cls.built = type;
    const qelShape& shape = *cls.elements;
    type->initialize(cls.name, cls.counted, shape.elemType(), shape.optional, shape.size, shape.find,
                     shape.keyAt, shape.valueAt);
}

void buildArrayType(qelClass& cls)
{
    auto* const type = new (pDefMemMgr) xrttiarray;
    cls.built = type;
    const qelShape& shape = *cls.elements;
    int* const extents = buildArray<int>(cls.dims, [](int extent) { return extent; });
    type->initialize(cls.name, cls.counted, static_cast<int>(cls.dims.size()), extents, shape.elemType(),
                     shape.optional, shape.elemAtAll);
}

void build(qelClass& cls)
{
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
    publish(cls, cls.built);
}

} // namespace

xrttiobject* qelDescriptorOf(qelClass& cls)
{
    if (cls.built == nullptr)
        build(cls);
    return cls.built;
}

void* qelDowncast(qelClass& cls, void* self, xobject* object, const xrttiobject* wanted)
{
    if (!qelIsObject(wanted))
        return nullptr;
    if (cls.built == wanted)
        return self;
    if (qelDescriptorOf(cls)->xrtti::isSameAs(wanted))
        return self;
    xrttiancestors ancestors([=](const xrttiobject* type) { return type->xrtti::isSameAs(wanted); });
    for (const qelParent& parent : cls.parents)
        // One of several bases is not entered in vain: they may share theirs, and so on.
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
    const char** const labels = new const char*[static_cast<std::size_t>(count)];
    const char* at = list;
    for (int i = 0; i < count; ++i) {
        at += std::strspn(at, " ,");
        // A label may be written with its scope, `Colour::red`; its name is the last part.
        const std::size_t length = std::strcspn(at, ", ");
        char* const label = btkStrDup(at);
        label[length] = '\0';
        const char* const scope = std::strrchr(label, ':');
        labels[i] = scope == nullptr ? label : btkStrDup(scope + 1);
        if (scope != nullptr)
            delete[] label;
        at += length;
    }
    auto* const type = new (pDefMemMgr) xrttienum(name, count, labels);
    qelRttiAddToMap(type);
    return type;
}
