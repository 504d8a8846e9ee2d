#include "qeljsonreader_p.h"
#include "qeljsontext_p.h"
#include "xdictionary.h"
#include "xsequence.h"

namespace qel::json {

// ---- objects

std::string_view Reader::takeKey()
{
    if (in.next() != '"')
        in.fail("a name");
    return in.string();
}

/// The name that a key stands for.
std::string_view Reader::plainKey(std::string_view key)
{
    if (!key.starts_with('$'))
        return key;
    if (!key.starts_with("$$"))
        in.fail("a name that begins with no $ or two");
    return key.substr(1);
}

/// A positive number.
int Reader::count()
{
    const int first = in.next();
    if (first >= '1' && first <= '9') {
        const Number number = in.number();
        if (number.isWhole && !number.isLong && number.digits <= 0x7FFFFFFF)
            return static_cast<int>(number.digits);
    }
    in.fail("a number from 1");
}

void Reader::readObject(Type& declared)
{
    in.take();
    Opening opening{&declared};
    bool isFirst = true;
    for (;;) {
        if (in.next() == '}') {
            if (!isFirst)
                in.fail("a name");
            in.take();
            return enterObject(opening, true, {});
        }
        const std::string_view key = takeKey();
        if (!key.starts_with('$') || key.starts_with("$$"))
            return enterObject(opening, false, key);
        bool isDone = false;
        readSpecial(opening, key, isDone);
        if (isDone)
            return;
        isFirst = false;
        if (in.takeIf('}'))
            return enterObject(opening, true, {});
        if (!in.takeIf(','))
            in.fail("',' or '}'");
    }
}

void Reader::readSpecial(Opening& opening, std::string_view key, bool& isDone)
{
    const bool isAlone = !opening.isTyped && opening.id == 0;
    if (key == typeKey && !opening.isTyped) {
        colon();
        readType(opening);
    } else if (key == idKey && opening.id == 0) {
        colon();
        opening.id = count();
        if (objects.contains(opening.id))
            in.fail("a new number");
    } else if (key == valueKey) {
        colon();
        readValue(opening);
        isDone = true;
    } else if (key == refKey && isAlone) {
        colon();
        readReference(*opening.type);
        isDone = true;
    } else if (key == uninitKey && isAlone) {
        colon();
        if (in.next() != 't')
            in.fail("true");
        in.word("true");
        if (!in.takeIf('}'))
            in.fail("'}'");
        deliver(xany());
        isDone = true;
    } else {
        in.fail("$type, $id or $value, or $ref or $uninit alone");
    }
}

void Reader::readReference(const Type& declared)
{
    const auto found = objects.find(count());
    if (found == objects.end())
        in.fail("the $id of an object before");
    const xany object = found->second;
    if (!object.softvalidate(declared.rtti, qelOptional))
        in.fail(expectedOf(declared), nameOf(object.getRtti()));
    if (!in.takeIf('}'))
        in.fail("'}'");
    deliver(xany(object));
}

void Reader::readType(Opening& opening)
{
    if (in.next() != '"')
        in.fail("the name of a type");
    std::string name(in.string());
    auto known = typesByName.find(name);
    if (known == typesByName.end()) {
        xrtti* const type = qelRttiGetFromMap(name.c_str());
        if (type == nullptr)
            in.fail("the name of a registered type");
        known = typesByName.emplace(std::move(name), Type(type)).first;
    }
    if (!known->second.rtti->isKindOf(opening.type->rtti))
        in.fail(expectedOf(*opening.type));
    opening.type = &known->second;
    opening.isTyped = true;
}

/// The value of an object that only gives it a type or a number.
void Reader::readValue(Opening& opening)
{
    Type& type = *opening.type;
    const int first = in.next();
    if (first == '[' && (type.kind == Kind::any || type.kind == Kind::object))
        return enterArray(type, true, opening.id);
    if (type.kind == Kind::object || opening.id != 0 || first == '{')
        in.fail("an array");
    xany value = scalar(type, first);
    if (!in.takeIf('}'))
        in.fail("'}'");
    deliver(std::move(value));
}

Frame& Reader::enter(Frame::Part part)
{
    if (path.size() >= static_cast<std::size_t>(how.depth < 0 ? 0 : how.depth))
        in.fail("at most " + std::to_string(how.depth) + " levels", "more");
    return path.emplace_back(part);
}

/// Enters a new object of the plan's class.
Frame& Reader::enterNew(Frame::Part part, Plan& plan, int id)
{
    xany made = create(plan);
    if (id != 0)
        objects.emplace(id, made);
    Frame& frame = enter(part);
    frame.plan = &plan;
    frame.object = made;
    frame.value = std::move(made);
    return frame;
}

xany Reader::create(Plan& plan)
{
    const qelClass* const table = plan.table;
    if (!plan.isReadable) {
        if (plan.type->isKindOf(qelXException::getClassRtti()))
            in.fail("a class that can be read", plan.name + ", an exception");
        if (!plan.type->getIsRefCount())
            in.fail("a class that can be read", plan.name + ", which is not counted");
        if (table == nullptr || (table->create == nullptr && table->rebuild == nullptr))
            in.fail("a class that can be read", plan.name + ", without a .create or .rebuild row");
        plan.isReadable = true;
    }
    if (table->rebuild == nullptr)
        return xany(table->create());
    if (!context.has_value())
        context.emplace();
    xobject* const made = table->rebuild(&*context);
    if (made == nullptr)
        throw std::bad_alloc();
    return xany(made);
}

void Reader::enterObject(Opening& opening, bool isEmpty, std::string_view firstKey)
{
    Type& type = *opening.type;
    const bool isUntyped = type.kind == Kind::any || (type.kind == Kind::object && type.isRoot);
    if (type.kind != Kind::object && !isUntyped)
        in.fail(expectedOf(type), "an object");
    Plan& plan = isUntyped ? plans.of(xanydictionary::getClassRtti()) : plans.of(type);
    if (plan.shape != Shape::record && plan.shape != Shape::dictionary)
        in.fail(expectedOf(type), "an object");
    if (plan.shape == Shape::dictionary && (plan.elements == nullptr || plan.elements->set == nullptr))
        in.fail("a class that can be read", plan.name + ", without set()");
    Frame& frame = enterNew(plan.shape == Shape::record ? Frame::fields : Frame::entries, plan, opening.id);
    frame.firstSeen = seen.size();
    if (plan.shape == Shape::record)
        seen.resize(seen.size() + plan.fields.size());
    if (isEmpty)
        return leave();
    frame.isFirst = false;
    if (plan.shape == Shape::record)
        return readField(frame, plainKey(firstKey));
    frame.key = plainKey(firstKey);
    colon();
    read(plan.element, true);
}

void Reader::enterArray(Type& declared, bool isWrapped, int id)
{
    const bool isUntyped = declared.kind == Kind::any || declared.isRoot;
    Plan& plan = isUntyped ? plans.of(xanysequence::getClassRtti()) : plans.of(declared);
    if (plan.shape != Shape::sequence && plan.shape != Shape::array)
        in.fail(plan.name);
    const bool isGrid = plan.shape == Shape::array;
    if (plan.elements == nullptr ||
        (isGrid ? plan.elements->setelement == nullptr : plan.elements->append == nullptr))
        in.fail("a class that can be read",
                plan.name + (isGrid ? ", without setelement()" : ", without append()"));
    in.take();
    Frame& frame = enterNew(isGrid ? Frame::grid : Frame::elements, plan, id);
    frame.isWrapped = isWrapped;
    frame.indices.assign(isGrid && !plan.extents.empty() ? plan.extents.size() : 1, 0);
}

/// Delivers the object that is complete now.
void Reader::leave()
{
    Frame& frame = path.back();
    if (frame.part == Frame::fields) {
        checkComplete(frame);
        seen.resize(frame.firstSeen);
    }
    if (frame.isWrapped && !in.takeIf('}'))
        in.fail("'}'");
    const bool isSkipped = frame.part == Frame::skippedObject || frame.part == Frame::skippedArray;
    xany value = std::move(frame.value);
    path.pop_back();
    if (!isSkipped)
        deliver(std::move(value));
    else if (!path.empty() && path.back().part == Frame::skippedArray)
        ++path.back().position;
}

void Reader::checkComplete(Frame& frame)
{
    Plan& plan = *frame.plan;
    const auto isMissing = [](const Field& field) { return !field.isOptional && field.rebuild != nullptr; };
    frame.field = nullptr;
    frame.key.clear();
    for (std::size_t i = 0; i < plan.fields.size(); ++i)
        if (seen[frame.firstSeen + i] == 0 && isMissing(plan.fields[i]))
            in.fail("the attribute " + plan.fields[i].name);
    if (frame.member != nullptr && !frame.hasMember && isMissing(*frame.member))
        in.fail("the attribute " + frame.member->name);
}

// ---- progress: each reads the next member or element, or leaves

void Reader::advance(Frame& frame)
{
    switch (frame.part) {
    case Frame::fields:
        return advanceFields(frame);
    case Frame::entries:
        return advanceEntries(frame);
    case Frame::elements:
        return advanceElements(frame);
    case Frame::grid:
        return advanceGrid(frame);
    default:
        return advanceSkipped(frame);
    }
}

bool Reader::another(Frame& frame, char close)
{
    const int c = in.next();
    if (c == static_cast<unsigned char>(close)) {
        in.take();
        return false;
    }
    if (!std::exchange(frame.isFirst, false)) {
        if (c != ',')
            in.fail(close == '}' ? "',' or '}'" : "',' or ']'");
        in.take();
    }
    return true;
}

void Reader::advanceFields(Frame& frame)
{
    frame.key.clear();
    if (another(frame, '}'))
        readField(frame, plainKey(takeKey()));
    else
        leave();
}

void Reader::readField(Frame& frame, std::string_view key)
{
    Plan& plan = *frame.plan;
    Field* field = plan.find(key, frame.next);
    frame.field = field;
    if (field != nullptr) {
        const auto i = static_cast<std::size_t>(field - plan.fields.data());
        frame.next = i + 1;
        unsigned char& wasSeen = seen[frame.firstSeen + i];
        if (wasSeen != 0)
            in.fail("each attribute once");
        wasSeen = 1;
    } else if (frame.member != nullptr && frame.member->name == key) {
        if (std::exchange(frame.hasMember, true))
            in.fail("each attribute once");
        field = frame.member;
    } else {
        if (!how.ignoreUnknown)
            in.fail("an attribute of " + plan.name);
        frame.key = key;
    }
    frame.field = field;
    colon();
    if (field == nullptr || field->rebuild == nullptr)
        skip();
    else
        read(field->type, field->isOptional);
}

void Reader::advanceEntries(Frame& frame)
{
    if (!another(frame, '}'))
        return leave();
    frame.key = plainKey(takeKey());
    const qelShape& shape = *frame.plan->elements;
    if (shape.find != nullptr && shape.find(frame.object, frame.key.c_str(), nullptr))
        in.fail("each name once");
    colon();
    read(frame.plan->element, true);
}

void Reader::advanceElements(Frame& frame)
{
    if (another(frame, ']'))
        read(frame.plan->element, true);
    else
        leave();
}

void Reader::advanceGrid(Frame& frame)
{
    const std::vector<int>& extents = frame.plan->extents;
    const int last = static_cast<int>(extents.size()) - 1;
    for (;;) {
        const auto dimension = static_cast<std::size_t>(frame.dimension);
        int& at = frame.indices[dimension];
        if (last < 0 || at >= extents[dimension]) {
            if (!in.takeIf(']'))
                in.fail("']' after " + std::to_string(at) + " elements");
            if (frame.dimension == 0)
                return leave();
            at = 0;
            --frame.dimension;
            ++frame.indices[dimension - 1];
            continue;
        }
        if (at > 0 && !in.takeIf(','))
            in.fail("',' and " + std::to_string(extents[dimension]) + " elements");
        if (frame.dimension == last)
            return read(frame.plan->element, true);
        if (!in.takeIf('['))
            in.fail("an array");
        ++frame.dimension;
    }
}

/// Passes over a value.
void Reader::skip()
{
    const int first = in.next();
    if (first == '{' || first == '[') {
        in.take();
        enter(first == '{' ? Frame::skippedObject : Frame::skippedArray);
        return;
    }
    if (first == 'n')
        in.word("null");
    else if (first == '-' || (first >= '0' && first <= '9'))
        in.number();
    else
        scalar(anything, first);
    if (path.back().part == Frame::skippedArray)
        ++path.back().position;
}

void Reader::advanceSkipped(Frame& frame)
{
    const bool isArray = frame.part == Frame::skippedArray;
    if (!another(frame, isArray ? ']' : '}'))
        return leave();
    if (!isArray) {
        frame.key = takeKey();
        colon();
    }
    skip();
}

} // namespace qel::json
