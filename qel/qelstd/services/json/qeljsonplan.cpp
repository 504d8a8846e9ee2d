#include <algorithm>

#include "qelcontributions_p.h"
#include "qeljson.h"
#include "qeljsonplan_p.h"
#include "qeljsonwriter_p.h"
#include "qelrtti.h"
#include "xdictionary.h"
#include "xsequence.h"

namespace qel::json {

namespace {

std::string textOf(const xstring& text)
{
    const char* const chars = text.CastToCString();
    return chars != nullptr ? chars : "";
}

Kind kindOf(xrtti* type)
{
    if (type->isSameAs(qelGetRtti_int())) // NOLINT(clang-analyzer-core.CallAndMessage): it is never null
        return Kind::integer;
    if (type->isSameAs(qelGetRtti_bool()))
        return Kind::boolean;
    if (type->isSameAs(qelGetRtti_real()))
        return Kind::real;
    if (type->isSameAs(qelGetRtti_string()))
        return Kind::string;
    return Kind::any;
}

std::string headOf(const std::string& name)
{
    Output text(options{}.bytes);
    text.string(name.starts_with('$') ? "$" + name : name, false);
    text.put(':');
    return text.whole();
}

} // namespace

Type::Type(xrtti* declared) : rtti(declared != nullptr ? declared : qelGetRtti_any())
{
    if (xrttiobject* const asClass = xrttiobject::softcast(rtti)) {
        kind = Kind::object;
        cls = asClass;
        isRoot = asClass->xrtti::isSameAs(qelGetRtti_object());
    } else if (xrttienum* const asEnum = xrttienum::softcast(rtti)) {
        kind = Kind::enumeration;
        labels = asEnum;
    } else {
        kind = kindOf(rtti);
    }
}

Field::Field(xrttiobject* in, xrttiattr* a, const qelAttr* row)
    : owner(in), attr(a), rebuild(row != nullptr ? row->rebuild : nullptr), type(a->getType()),
      isOptional(a->getIsOptional() != 0), name(textOf(a->getName())), head(headOf(name))
{
}

Plan::Plan(xrttiobject* t)
    : type(t), name(textOf(t->getName())), isUntyped(t->xrtti::isSameAs(xanysequence::getClassRtti()) ||
                                                     t->xrtti::isSameAs(xanydictionary::getClassRtti())),
      element(qelGetRtti_any()), table(qelClassOf(t))
{
    for (xrttiobject* const part : qelContributions(type)) {
        if (xrttistruct* const structure = xrttistruct::softcast(part))
            addAttrs(structure);
        else if (xrttiunion* const choice = xrttiunion::softcast(part))
            addUnion(choice);
        else
            addElements(part);
    }
    if (selection != nullptr) {
        discriminator = fields.size();
        xrttiattr* const attr = selection->getDiscr();
        const qelClass* const rows = qelClassOf(selection);
        fields.emplace_back(selection, attr, rows != nullptr ? &rows->discriminator : nullptr);
    }
    if (shape != Shape::record && !fields.empty())
        shape = Shape::mixed;
}

/// An attribute declared anew takes the place of the base's.
void Plan::addAttrs(xrttistruct* from)
{
    const qelClass* const rows = qelClassOf(from);
    for (int i = 0; i < from->getNAttrs(); ++i) {
        Field field(from, from->getAttr(i), rows != nullptr ? rows->attrs.begin() + i : nullptr);
        const auto same = std::find_if(fields.begin(), fields.end(),
                                       [&](const Field& earlier) { return earlier.name == field.name; });
        if (same == fields.end())
            fields.push_back(std::move(field));
        else if (from->isKindOf(same->owner))
            *same = std::move(field);
    }
}

/// The discriminator of the most derived union counts; it also selects members of its bases.
void Plan::addUnion(xrttiunion* from)
{
    if (from->getDiscr() == nullptr)
        return;
    selection = from;
    const qelClass* const rows = qelClassOf(from);
    for (int i = 0; i < from->getNLabels(); ++i)
        if (xrttiattr* const attr = from->getAttr(i))
            members.emplace_back(from, attr, rows != nullptr ? &rows->cases.begin()[i].attr : nullptr);
    if (xrttiattr* const attr = from->getDefaultAttr())
        members.emplace_back(from, attr, rows != nullptr ? &rows->otherwise : nullptr);
}

void Plan::addElements(xrttiobject* from)
{
    const Shape before = shape;
    if (xrttiarray* const asArray = xrttiarray::softcast(from)) {
        shape = Shape::array;
        array = asArray;
        element = Type(array->getElemType());
        for (int i = 0; i < array->getNDimentions(); ++i)
            extents.push_back(array->getDimention(i));
    } else if (xrttisequence* const asSequence = xrttisequence::softcast(from)) {
        shape = Shape::sequence;
        sequence = asSequence;
        element = Type(sequence->getElemType());
    } else if (xrttidictionary* const asDictionary = xrttidictionary::softcast(from)) {
        shape = Shape::dictionary;
        dictionary = asDictionary;
        element = Type(dictionary->getElemType());
    } else {
        return;
    }
    if (before != Shape::record)
        shape = Shape::mixed;
    if (const qelClass* const rows = qelClassOf(from))
        elements = rows->elements;
}

Field* Plan::find(std::string_view fieldName, std::size_t expected)
{
    const std::size_t count = fields.size();
    for (std::size_t i = 0, at = expected; i < count; ++i, ++at) {
        if (at >= count)
            at -= count;
        if (fields[at].name == fieldName)
            return &fields[at];
    }
    return nullptr;
}

Field* Plan::memberOf(const xrttiattr* attr)
{
    const auto found = std::find_if(members.begin(), members.end(),
                                    [=](const Field& member) { return member.attr == attr; });
    return found != members.end() ? &*found : nullptr;
}

} // namespace qel::json
