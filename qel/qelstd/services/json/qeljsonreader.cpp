#include <charconv>
#include <cmath>
#include <optional>
#include <unordered_map>
#include <utility>

#include "qeljson.h"
#include "qeljsonplan_p.h"
#include "qeljsonsource_p.h"
#include "qeljsontext_p.h"
#include "qels11n.h"
#include "xdictionary.h"
#include "xsequence.h"

namespace qel::json {

namespace {

std::string nameOf(xrtti* type)
{
    const xstring name = type->getName();
    const char* const chars = name.CastToCString();
    return chars != nullptr ? chars : "";
}

/// Returns the name of a value of the type in an error.
std::string expectedOf(const Type& type)
{
    if (type.kind == Kind::any)
        return "a value";
    if (type.kind != Kind::enumeration)
        return nameOf(type.rtti);
    std::string text = nameOf(type.rtti);
    constexpr int shown = 8;
    const int count = type.labels->getNValues();
    for (int i = 0; i < count && i < shown; ++i) {
        const xstring label = type.labels->mapIntToString(i);
        text.append(i == 0 ? ": " : ", ").append(label.CastToCString());
    }
    return text + (count > shown ? ", ..." : "");
}

/// The reserved members at the beginning of an object.
struct Opening
{
    Type* type; ///< the declared one until "$type" names another
    bool isTyped = false;
    int id = 0;
};

/// An object or array that has been entered, and the progress in it.
struct Frame
{
    enum Part : unsigned char { fields, entries, elements, grid, skippedObject, skippedArray };

    explicit Frame(Part p) : part(p) {}

    Part part;
    bool isWrapped = false; // the array is the "$value" of an object
    bool isFirst = true;
    bool needsKey = true; // false: the first key has been taken already
    int position = 0;     // of the element
    int dimension = 0;
    Plan* plan = nullptr;
    xany value;
    xobject* object = nullptr;
    Field* field = nullptr;    // the one being read
    Field* member = nullptr;   // of a union, once the discriminator is known
    bool hasMember = false;    // has been read
    std::size_t next = 0;      // of the plan's fields, most likely
    std::size_t firstSeen = 0; // of the flags of its fields
    std::string key;
    std::vector<int> indices;
};

class Reader final : private Source::Path
{
public:
    Reader(Source& s, const options& o) : in(s), how(o) { in.setPath(*this); }

    xany run(xrtti* declared)
    {
        Type type(declared);
        read(type, type.kind == Kind::any);
        while (!path.empty())
            advance(path.back());
        if (in.next() != Source::none)
            in.fail("the end of the text");
        if (result.isUninit() && type.kind != Kind::any)
            in.fail(expectedOf(type), "$uninit");
        return std::move(result);
    }

private:
    std::string text() const override;

    void read(Type& declared, bool isOptional);
    void deliver(xany&& value);
    void deliverAt(Frame& frame, xany&& value);

    xany scalar(Type& declared, int first);
    xany number(const Type& declared);
    xany real(const Number& number);
    xany label(const Type& declared);

    void readObject(Type& declared);
    void readSpecial(Opening& opening, std::string_view key, bool& isDone);
    void readReference(const Type& declared);
    void readType(Opening& opening);
    void readValue(Opening& opening);
    void enterObject(Opening& opening, bool isEmpty, std::string_view firstKey);
    void enterArray(Type& declared, bool isWrapped, int id);
    Frame& enter(Frame::Part part);
    Frame& enterNew(Frame::Part part, Plan& plan, int id);
    void leave();
    xany create(Plan& plan);

    void advance(Frame& frame);
    void advanceFields(Frame& frame);
    void advanceEntries(Frame& frame);
    void advanceElements(Frame& frame);
    void advanceGrid(Frame& frame);
    void advanceSkipped(Frame& frame);
    void readField(Frame& frame, std::string_view key);
    void checkComplete(Frame& frame);

    /// Takes what follows a member or element: true when another one does.
    bool another(Frame& frame, char close);
    std::string_view takeKey();
    std::string_view plainKey(std::string_view key);
    void colon()
    {
        if (!in.takeIf(':'))
            in.fail("':'");
    }
    void skip();
    int count();

    Source& in;
    const options& how;
    Type anything{qelGetRtti_any()};
    xany result;
    std::vector<Frame> path;
    std::vector<unsigned char> seen; // a flag for each field of the records on the path
    Plans plans;
    std::unordered_map<int, xany> objects; // by "$id"
    std::unordered_map<std::string, Type> typesByName;
    std::optional<qelS11nContext> context;
};

std::string Reader::text() const
{
    std::string where = "$";
    for (const Frame& frame : path) {
        switch (frame.part) {
        case Frame::fields:
            if (!frame.key.empty())
                appendMember(where, frame.key);
            else if (frame.field != nullptr)
                appendMember(where, frame.field->name);
            break;
        case Frame::entries:
        case Frame::skippedObject:
            if (!frame.isFirst)
                appendMember(where, frame.key);
            break;
        case Frame::elements:
        case Frame::skippedArray:
            appendIndex(where, frame.position);
            break;
        case Frame::grid:
            for (int i = 0; i <= frame.dimension; ++i)
                appendIndex(where, frame.indices[static_cast<std::size_t>(i)]);
            break;
        }
    }
    return where;
}

// ---- values

/// Reads a value: delivers it, or enters an object or array that will be delivered when it is complete.
void Reader::read(Type& declared, bool isOptional)
{
    const int first = in.next();
    if (first == '{')
        return readObject(declared);
    if (first == '[') {
        if (declared.kind != Kind::any && declared.kind != Kind::object)
            in.fail(expectedOf(declared));
        return enterArray(declared, false, 0);
    }
    if (first == 'n') {
        if (!isOptional)
            in.fail(expectedOf(declared));
        in.word("null");
        return deliver(xany(nullptr));
    }
    deliver(scalar(declared, first));
}

xany Reader::scalar(Type& declared, int first)
{
    const Kind kind = declared.kind;
    if (first == '"') {
        if (kind == Kind::string || kind == Kind::any)
            return xany(xstring(in.string()));
        if (kind == Kind::enumeration)
            return label(declared);
    } else if (first == '-' || (first >= '0' && first <= '9')) {
        if (kind == Kind::integer || kind == Kind::real || kind == Kind::any)
            return number(declared);
    } else if (first == 't' || first == 'f') {
        if (kind == Kind::boolean || kind == Kind::any) {
            in.word(first == 't' ? "true" : "false");
            return xany(static_cast<unsigned char>(first == 't'));
        }
    }
    in.fail(expectedOf(declared));
}

xany Reader::label(const Type& declared)
{
    const std::string text(in.string());
    const int value = declared.labels->mapStringToInt(text.c_str());
    if (value == xnullint)
        in.fail(expectedOf(declared));
    return xany(value, declared.labels);
}

xany Reader::number(const Type& declared)
{
    const Number number = in.number();
    const bool isZero = number.digits == 0 && !number.isLong;
    if (number.isWhole && declared.kind != Kind::real &&
        (!isZero || !number.isNegative() || declared.kind == Kind::integer)) {
        constexpr std::uint64_t most = 0x7FFFFFFF;
        if (!number.isLong && number.digits <= most + (number.isNegative() ? 1 : 0)) {
            const auto magnitude = static_cast<std::int64_t>(number.digits);
            const int value = static_cast<int>(number.isNegative() ? -magnitude : magnitude);
            if (value == xnullint || value == xuninitint)
                in.fail("an int that is not reserved");
            return xany(value);
        }
    }
    if (declared.kind != Kind::integer)
        return real(number);
    const xany whole = number.isWhole ? xany() : real(number);
    if (whole.getKind() == xanyReal) {
        const double value = whole;
        if (value > xuninitint && value <= 0x7FFFFFFF && std::trunc(value) == value)
            return xany(static_cast<int>(value));
    }
    in.fail("int");
}

/// Whether the integer that `text` denotes, without a fraction or with one of zeros, is exactly `value`; true
/// for any other text.
bool isExact(std::string_view text, double value)
{
    if (text.front() == '-')
        text.remove_prefix(1);
    const std::size_t point = text.find('.');
    if (text.find_first_of("eE") != text.npos ||
        (point != text.npos && text.find_first_not_of('0', point + 1) != text.npos))
        return true;
    text = text.substr(0, point);
    char digits[320];
    const char* const end =
        std::to_chars(digits, digits + sizeof digits, std::fabs(value), std::chars_format::fixed, 0).ptr;
    return text == std::string_view(digits, static_cast<std::size_t>(end - digits));
}

/// Whether a number without a double is too small for one, thus 0, and not too large.
bool isTiny(std::string_view text)
{
    const std::size_t exponentAt = text.find_first_of("eE");
    const std::string_view mantissa = text.substr(0, exponentAt);
    const std::size_t point = mantissa.find('.');
    const std::size_t leading = mantissa.find_first_of("123456789");
    if (leading == mantissa.npos)
        return true;
    const std::size_t whole = point == mantissa.npos ? mantissa.size() : point;
    auto magnitude = static_cast<long long>(whole) - static_cast<long long>(leading);
    if (exponentAt != text.npos) {
        std::string_view exponent = text.substr(exponentAt + 1);
        if (exponent.front() == '+')
            exponent.remove_prefix(1);
        long long value = 0;
        const auto [ptr, error] = std::from_chars(exponent.data(), exponent.data() + exponent.size(), value);
        if (error == std::errc::result_out_of_range)
            return exponent.front() == '-';
        magnitude += value;
    }
    return magnitude < 0;
}

xany Reader::real(const Number& number)
{
    constexpr std::uint64_t exact = std::uint64_t{1} << 53;
    double value = 0;
    if (number.isWhole && !number.isLong && number.digits <= exact) {
        value = static_cast<double>(number.digits);
        if (number.isNegative())
            value = -value;
    } else {
        const char* const begin = number.text.data();
        const auto [ptr, error] = std::from_chars(begin, begin + number.text.size(), value);
        if (error == std::errc::result_out_of_range) {
            if (!isTiny(number.text))
                in.fail("a number that fits");
            value = number.isNegative() ? -0.0 : 0.0;
        } else if (!isExact(number.text, value)) {
            in.fail("a number of at most 53 bits");
        }
    }
    if (value == xnullreal || value == xuninitreal)
        in.fail("a real that is not reserved");
    return xany(value);
}

void Reader::deliver(xany&& value)
{
    if (path.empty())
        result = std::move(value);
    else
        deliverAt(path.back(), std::move(value));
}

void Reader::deliverAt(Frame& frame, xany&& value)
{
    xobject* const object = value.getKind() == xanyObject ? static_cast<xobject*>(value) : nullptr;
    const int before = object != nullptr ? xrcgetcount(object) : 0;
    switch (frame.part) {
    case Frame::fields:
        if (value.isUninit()) {
            if (!frame.field->isOptional)
                in.fail(expectedOf(frame.field->type), "$uninit");
            return;
        }
        frame.field->rebuild(frame.object, value);
        if (frame.plan->discriminator != Plan::noField &&
            frame.field == &frame.plan->fields[frame.plan->discriminator])
            frame.member = frame.plan->memberOf(frame.plan->selection->mapLabelToAttr(value, 1));
        break;
    case Frame::entries:
        frame.plan->elements->set(frame.object, frame.key.c_str(), value);
        break;
    case Frame::elements:
        frame.plan->elements->append(frame.object, value);
        ++frame.position;
        break;
    case Frame::grid:
        frame.plan->elements->setelement(frame.object, frame.indices.data(), value);
        ++frame.indices[static_cast<std::size_t>(frame.dimension)];
        break;
    default:
        return;
    }
    // Nobody else would keep it alive.
    if (object != nullptr && xrcgetcount(object) <= before)
        in.fail("an object that " + frame.plan->name + " keeps", "one to which it takes no reference");
}

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

} // namespace

xany readAs(xrtti* declared, std::string_view text, const options& how)
{
    Source source(text, how);
    return Reader(source, how).run(declared);
}

xany readAs(xrtti* declared, std::istream& in, const options& how)
{
    Source source(in, how);
    return Reader(source, how).run(declared);
}

} // namespace qel::json
