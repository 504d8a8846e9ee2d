#include <charconv>
#include <cmath>
#include <ostream>
#include <unordered_map>
#include <utility>

#include "qelcaught.h"
#include "qeljson.h"
#include "qeljsonplan_p.h"
#include "qeljsontext_p.h"
#include "qeljsonwriter_p.h"
#include "qelrtti.h"

namespace qel::json {

// ---- the text

namespace {

/// For each byte of a string: 0, written as it is; u, as \u00XX; h, part of a longer character; or the letter
/// after a backslash.
constexpr auto escapes = [] {
    struct Table
    {
        char of[256] = {};
    } table;
    for (int c = 0; c < 0x20; ++c)
        table.of[c] = 'u';
    for (int c = 0x80; c < 0x100; ++c)
        table.of[c] = 'h';
    constexpr std::string_view special = "\b\f\n\r\t\"\\";
    constexpr std::string_view letters = "bfnrt\"\\";
    for (std::size_t i = 0; i < special.size(); ++i)
        table.of[static_cast<unsigned char>(special[i])] = letters[i];
    return table;
}();

constexpr std::string_view replacement = "\xEF\xBF\xBD"; // U+FFFD

/// Returns the number of bytes at the start that are written as they are.
std::size_t sizeOfPlain(std::string_view text)
{
    // In each byte of a word, the highest bit tells of a byte to escape. A borrow makes it true of a byte above such a
    // one only.
    constexpr std::uint64_t each = 0x0101010101010101u;
    std::size_t i = 0;
    for (std::uint64_t word = 0; text.size() - i >= sizeof word; i += sizeof word) {
        std::memcpy(&word, text.data() + i, sizeof word);
        const std::uint64_t quote = word ^ each * '"';
        const std::uint64_t backslash = word ^ each * '\\';
        if ((((word - each * 0x20) | (quote - each) | (backslash - each) | word) & each * 0x80) != 0)
            break;
    }
    while (i < text.size() && escapes.of[static_cast<unsigned char>(text[i])] == 0)
        ++i;
    return i;
}

} // namespace

void Output::addBlock()
{
    if (!blocks.empty()) {
        blocks.back().size = static_cast<std::size_t>(at - blocks.back().text.get());
        before += blocks.back().size;
    }
    if (blocks.empty() || !(discarded || before > limit))
        blocks.push_back({std::make_unique<char[]>(blockSize), 0});
    full = full || before > limit; // from now on the last block is written over and over
    at = blocks.back().text.get();
    end = at + blockSize;
}

void Output::putLong(std::string_view text)
{
    for (; text.size() > blockSize; text.remove_prefix(blockSize))
        put(text.substr(0, blockSize));
    put(text);
}

void Output::put(int number)
{
    constexpr std::size_t most = 12;
    char* const start = room(most);
    at = std::to_chars(start, start + most, number).ptr;
}

void Output::put(double number)
{
    constexpr std::size_t most = 32;
    char* const start = room(most);
    at = std::to_chars(start, start + most - 2, number).ptr;
    if (std::string_view(start, static_cast<std::size_t>(at - start)).find_first_of(".e") ==
        std::string_view::npos)
        put(".0");
}

bool Output::string(std::string_view text, bool strict)
{
    put('"');
    for (;;) {
        const std::size_t plain = sizeOfPlain(text);
        put(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty())
            break;
        const char escape = escapes.of[static_cast<unsigned char>(text[0])];
        std::size_t size = 1;
        if (escape != 'h') {
            put('\\');
            put(escape);
            if (escape == 'u') {
                constexpr std::string_view digits = "0123456789abcdef";
                put("00");
                put(digits[static_cast<unsigned char>(text[0]) >> 4]);
                put(digits[text[0] & 0xF]);
            }
        } else if (const std::size_t found = utf8Size(text.substr(0, 4)); found != 0) {
            size = found;
            put(text.substr(0, size));
        } else if (strict) {
            return false;
        } else {
            put(replacement);
        }
        text.remove_prefix(size);
    }
    put('"');
    return true;
}

void Output::newLine(std::size_t blanks)
{
    put('\n');
    for (; blanks > blockSize; blanks -= blockSize) {
        std::memset(room(blockSize), ' ', blockSize);
        at += blockSize;
    }
    std::memset(room(blanks), ' ', blanks);
    at += blanks;
}

std::uint64_t Output::size() const
{
    return blocks.empty() ? 0 : before + static_cast<std::uint64_t>(at - blocks.back().text.get());
}

void Output::clear()
{
    *this = Output(limit);
}

template<class Use>
void Output::forBlocks(Use use) const
{
    for (const Block& block : blocks) {
        const char* const start = block.text.get();
        use(start, &block == &blocks.back() ? static_cast<std::size_t>(at - start) : block.size);
    }
}

void Output::writeTo(std::ostream& out) const
{
    forBlocks([&](const char* text, std::size_t n) { out.write(text, static_cast<std::streamsize>(n)); });
}

std::string Output::whole() const
{
    std::string text;
    forBlocks([&](const char* part, std::size_t n) { text.append(part, n); });
    return text;
}

namespace {

// ---- the objects met

/// The objects met, of which one bit tells whether they occur more than once. Open addressing with linear probing: one
/// word for each, since every object of a large graph has an entry.
class Objects
{
public:
    /// Returns whether the object is new; else it occurs more than once.
    bool meet(const xobject* object)
    {
        if (count * 2 >= entries.size())
            grow();
        std::uintptr_t& entry = slotOf(addressOf(object));
        const bool isNew = entry == 0;
        if (isNew) {
            entry = addressOf(object);
            ++count;
        } else {
            entry |= shared;
        }
        return isNew;
    }
    /// Of an object that was met.
    bool isShared(const xobject* object) { return (slotOf(addressOf(object)) & shared) != 0; }

private:
    static constexpr std::uintptr_t shared = 1;

    static std::uintptr_t addressOf(const xobject* object)
    {
        return reinterpret_cast<std::uintptr_t>(object);
    }
    std::uintptr_t& slotOf(std::uintptr_t address)
    {
        const std::size_t mask = entries.size() - 1;
        std::size_t slot = ((address >> 4) * 0x9E3779B97F4A7C15u >> 24) & mask;
        while (entries[slot] != 0 && (entries[slot] & ~shared) != address)
            slot = (slot + 1) & mask;
        return entries[slot];
    }
    void grow()
    {
        const std::vector<std::uintptr_t> old =
            std::exchange(entries, std::vector<std::uintptr_t>(entries.empty() ? 64 : entries.size() * 2));
        for (const std::uintptr_t entry : old)
            if (entry != 0)
                slotOf(entry & ~shared) = entry;
    }

    std::vector<std::uintptr_t> entries;
    std::size_t count = 0;
};

// ---- writing

struct Frame
{
    Frame(xany&& v, xobject* o, Plan& p) : value(std::move(v)), object(o), plan(&p) {}

    xany value; // keeps the object alive
    xobject* object;
    Plan* plan;
    int position = 0;
    int count = 0;
    bool isFirst = true;
    bool isWrapped = false;         // the array is the "$value" of an object
    Field* member = nullptr;        // of a union, due next
    const Field* current = nullptr; // for the path of an error
    std::string key;
    std::vector<int> indices; // of an array, one for each dimension
    int dimension = 0;
};

class Writer
{
public:
    Writer(const options& o) : how(o), text(o.bytes) {}

    void run(xrtti* declared, const xany& value, std::ostream& out)
    {
        Type type(declared);
        writeAll(type, value);
        if (foundSharing) {
            isNumbering = true;
            text.clear();
            writeAll(type, value);
        }
        text.writeTo(out);
    }

private:
    void writeAll(Type& type, const xany& value)
    {
        put(value, type);
        while (!path.empty() && !text.isFull())
            if (!advance(path.back()))
                leave();
        if (text.isFull())
            fail("a text of at most " + std::to_string(how.bytes) + " bytes", "more");
    }

    bool put(xany value, Type& declared);
    void putText(const xstring& content);
    void putWide(const xstring& content);
    void putReal(double number);
    void putEnum(const xany& value, Type& declared);
    bool putObject(xany&& value, Type& declared);
    void open(Frame& frame, bool isTyped, int id);
    void leave();

    bool advance(Frame& frame);
    bool advanceRecord(Frame& frame);
    bool advanceSequence(Frame& frame);
    bool advanceDictionary(Frame& frame);
    bool advanceArray(Frame& frame);
    bool putField(Frame& frame, Field& field, xany&& value);

    void separate(Frame& frame);
    void newLine(std::size_t level)
    {
        if (how.indent >= 0)
            text.newLine(level * static_cast<std::size_t>(how.indent));
    }
    void colon() { text.put(how.indent >= 0 ? std::string_view(": ") : std::string_view(":")); }
    void head(const Field& field)
    {
        text.put(field.head);
        if (how.indent >= 0)
            text.put(' ');
    }
    void name(std::string_view reserved)
    {
        text.put('"');
        text.put(reserved);
        text.put('"');
        colon();
    }

    std::size_t level() const { return levels; }
    [[noreturn]] void fail(const std::string& expected, const std::string& found) const;

    const options& how;
    Output text;
    std::size_t levels = 0;
    std::vector<Frame> path;
    Plans plans;
    Objects objects;
    std::unordered_map<const xobject*, int> ids; // of shared objects, in the order of their first places
    std::vector<xany>
        kept; // objects made by accessors: another must not be given the address of one met before
    bool foundSharing = false; // while writing the first time
    bool isNumbering = false;  // the second time
};

void Writer::fail(const std::string& expected, const std::string& found) const
{
    std::string where = "$";
    for (const Frame& frame : path) {
        switch (frame.plan->shape) {
        case Shape::sequence:
            appendIndex(where, frame.position);
            break;
        case Shape::array:
            for (const int index : frame.indices)
                appendIndex(where, index);
            break;
        case Shape::dictionary:
            appendMember(where, frame.key);
            break;
        default:
            if (frame.current != nullptr)
                appendMember(where, frame.current->name);
        }
    }
    qelXJson::Throw(where.c_str(), xnullint, xnullint, expected.c_str(), found.c_str());
}

// Each `put` and `advance` returns whether it entered an object, which is then the last of the path: frames
// may have been moved, and the one below is advanced again after the object has been left.

bool Writer::put(xany value, Type& declared)
{
    switch (value.getKind()) {
    case xanyNull:
        text.put("null");
        return false;
    case xanyInt:
        text.put(static_cast<int>(value));
        return false;
    case xanyBool:
        text.put(static_cast<unsigned char>(value) != 0 ? std::string_view("true")
                                                        : std::string_view("false"));
        return false;
    case xanyReal:
        putReal(value);
        return false;
    case xanyString:
        putText(value);
        return false;
    case xanyEnum:
        putEnum(value, declared);
        return false;
    case xanyObject:
        return putObject(std::move(value), declared);
    default:
        text.put('{');
        name(uninitKey);
        text.put("true}");
        return false;
    }
}

void Writer::putReal(double number)
{
    if (std::isfinite(number)) {
        text.put(number);
        return;
    }
    if (how.nonFinite == NonFinite::refuse)
        fail("a finite number", std::isnan(number) ? "NaN" : number < 0 ? "-infinity" : "infinity");
    text.put("null");
}

void Writer::putText(const xstring& content)
{
    const char* chars = nullptr;
    try {
        chars = content.CastToCString();
    } catch (xthrowable* failure) {
        const qel::caught owner(failure);
        return putWide(content);
    }
    if (!text.string(chars, how.strict))
        fail("a text in UTF-8", "other bytes");
}

/// A wide text with an unpaired surrogate.
void Writer::putWide(const xstring& content)
{
    if (how.strict)
        fail("a text in UTF-16", "an unpaired surrogate");
    std::string converted;
    for (const unsigned short* unit = content.CastToCWString(); *unit != 0; ++unit) {
        if (isHighSurrogate(*unit) && isLowSurrogate(unit[1])) {
            appendUtf8(converted, joinSurrogates(*unit, unit[1]));
            ++unit;
        } else {
            const bool isHalf = isHighSurrogate(*unit) || isLowSurrogate(*unit);
            appendUtf8(converted, isHalf ? 0xFFFD : *unit);
        }
    }
    text.string(converted, false);
}

void Writer::putEnum(const xany& value, Type& declared)
{
    xrttienum* const type = xrttienum::softcast(value.getRtti());
    const int number = value;
    const xstring label = type != nullptr ? type->mapIntToString(number) : xstring();
    if (label == nullptr)
        fail("a value with a label", std::to_string(number));
    const bool isTyped = declared.kind != Kind::enumeration || !type->isSameAs(declared.rtti);
    if (!isTyped)
        return putText(label);
    text.put('{');
    name(typeKey);
    putText(type->getName());
    text.put(how.indent >= 0 ? std::string_view(", ") : std::string_view(","));
    name(valueKey);
    putText(label);
    text.put('}');
}

bool Writer::putObject(xany&& value, Type& declared)
{
    xobject* const object = value;
    if (!qelIsObject(object))
        return put(xany(object), declared); // a marker that C code has stored in place of an object
    if (xrcgetcount(object) == 1)
        kept.push_back(value);
    int id = 0;
    if (isNumbering && objects.isShared(object)) {
        int& known = ids[object];
        if (known != 0) {
            text.put('{');
            name(refKey);
            text.put(known);
            text.put('}');
            return false;
        }
        id = known = static_cast<int>(ids.size());
    } else if (!isNumbering && !objects.meet(object)) {
        if (!foundSharing)
            text.discard();
        foundSharing = true;
        return false;
    }
    if (path.size() >= static_cast<std::size_t>(how.depth < 0 ? 0 : how.depth))
        fail("at most " + std::to_string(how.depth) + " levels", "more");
    xrttiobject* const type = object->getRtti();
    Plan& plan = plans.of(type);
    if (plan.shape == Shape::mixed)
        fail("an object with attributes or elements", plan.name + ", which has both");
    const bool isUntyped =
        plan.isUntyped && (declared.kind == Kind::any || (declared.kind == Kind::object && declared.isRoot));
    const bool isTyped = !isUntyped && (declared.kind != Kind::object ||
                                        (declared.cls != type && !declared.cls->xrtti::isSameAs(type)));
    path.emplace_back(std::move(value), object, plan);
    open(path.back(), isTyped, id);
    return true;
}

/// Writes what stands before the first member or element.
void Writer::open(Frame& frame, bool isTyped, int id)
{
    Plan& plan = *frame.plan;
    const bool isArray = plan.shape == Shape::sequence || plan.shape == Shape::array;
    frame.isWrapped = isArray && (isTyped || id != 0);
    if (!isArray || frame.isWrapped) {
        text.put('{');
        ++levels;
    }
    if (isTyped) {
        separate(frame);
        name(typeKey);
        text.string(plan.name, false);
    }
    if (id != 0) {
        separate(frame);
        name(idKey);
        text.put(id);
    }
    if (isArray) {
        if (frame.isWrapped) {
            separate(frame);
            name(valueKey);
        }
        text.put('[');
        ++levels;
        frame.isFirst = true;
    }
    switch (plan.shape) {
    case Shape::record:
        frame.count = static_cast<int>(plan.fields.size());
        break;
    case Shape::sequence:
        frame.count = plan.sequence->getSize(frame.object);
        break;
    case Shape::dictionary:
        frame.count = plan.dictionary->getSize(frame.object);
        break;
    default:
        frame.indices.assign(plan.extents.empty() ? 1 : plan.extents.size(), 0);
    }
    frame.position = -1;
}

void Writer::leave()
{
    const Frame& frame = path.back();
    const bool isArray = frame.plan->shape == Shape::sequence || frame.plan->shape == Shape::array;
    --levels;
    if (!frame.isFirst)
        newLine(level());
    text.put(isArray ? ']' : '}');
    if (frame.isWrapped) {
        --levels;
        newLine(level());
        text.put('}');
    }
    path.pop_back();
}

void Writer::separate(Frame& frame)
{
    if (!frame.isFirst)
        text.put(',');
    frame.isFirst = false;
    newLine(level());
}

bool Writer::advance(Frame& frame)
{
    switch (frame.plan->shape) {
    case Shape::sequence:
        return advanceSequence(frame);
    case Shape::dictionary:
        return advanceDictionary(frame);
    case Shape::array:
        return advanceArray(frame);
    default:
        return advanceRecord(frame);
    }
}

bool Writer::advanceRecord(Frame& frame)
{
    Plan& plan = *frame.plan;
    for (;;) {
        if (frame.member != nullptr) {
            Field& member = *std::exchange(frame.member, nullptr);
            if (putField(frame, member, member.attr->getValue(frame.object)))
                return true;
        }
        if (++frame.position >= frame.count)
            return false;
        const auto i = static_cast<std::size_t>(frame.position);
        Field& field = plan.fields[i];
        frame.current = &field;
        xany value = field.attr->getValue(frame.object);
        if (i == plan.discriminator)
            frame.member = plan.memberOf(plan.selection->mapLabelToAttr(value, 1));
        if (putField(frame, field, std::move(value)))
            return true;
    }
}

bool Writer::putField(Frame& frame, Field& field, xany&& value)
{
    if (value.isUninit())
        return false;
    frame.current = &field;
    separate(frame);
    head(field);
    return put(std::move(value), field.type);
}

bool Writer::advanceSequence(Frame& frame)
{
    while (++frame.position < frame.count) {
        separate(frame);
        if (put(frame.plan->sequence->getElemValue(frame.object, frame.position), frame.plan->element))
            return true;
        if (text.isFull())
            return false;
    }
    return false;
}

bool Writer::advanceDictionary(Frame& frame)
{
    while (++frame.position < frame.count) {
        xrttidictionary* const type = frame.plan->dictionary;
        xstring key;
        if (!type->getElemKeyByIdx(frame.object, frame.position, &key))
            continue;
        const char* const chars = key.CastToCString();
        frame.key = chars == nullptr ? "" : chars;
        xany value;
        if (!type->getElemValueByIdx(frame.object, frame.position, &value))
            value = xany();
        separate(frame);
        if (!text.string(frame.key.starts_with('$') ? '$' + frame.key : frame.key, how.strict))
            fail("a key in UTF-8", "other bytes");
        colon();
        if (put(std::move(value), frame.plan->element))
            return true;
        if (text.isFull())
            return false;
    }
    return false;
}

bool Writer::advanceArray(Frame& frame)
{
    Plan& plan = *frame.plan;
    const std::vector<int>& extents = plan.extents;
    const int last = static_cast<int>(extents.size()) - 1;
    if (last < 0)
        return false;
    // Not at the first element: the one at the indices has been written.
    if (frame.position < 0)
        frame.position = 0;
    else
        ++frame.indices[static_cast<std::size_t>(frame.dimension)];
    for (;;) {
        const auto dimension = static_cast<std::size_t>(frame.dimension);
        int& at = frame.indices[dimension];
        if (at >= extents[dimension]) {
            if (frame.dimension == 0)
                return false;
            at = 0;
            --levels;
            if (!frame.isFirst)
                newLine(level());
            text.put(']');
            frame.isFirst = false;
            --frame.dimension;
            ++frame.indices[dimension - 1];
            continue;
        }
        separate(frame);
        if (frame.dimension < last) {
            text.put('[');
            ++levels;
            frame.isFirst = true;
            ++frame.dimension;
            continue;
        }
        if (text.isFull())
            return false;
        std::vector<int> indices = frame.indices;
        if (put(plan.array->getElemValue(frame.object, indices.data()), plan.element))
            return true;
        ++at;
    }
}

} // namespace

void write(xany value, std::ostream& out, const options& how)
{
    writeAs(qelGetRtti_any(), std::move(value), out, how);
}

void writeAs(xrtti* declared, xany value, std::ostream& out, const options& how)
{
    Writer(how).run(declared, value, out);
}

} // namespace qel::json
