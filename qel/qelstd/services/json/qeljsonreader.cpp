#include <charconv>
#include <cmath>
#include <optional>
#include <unordered_map>
#include <utility>

#include "qeljsonreader_p.h"
#include "qeljsontext_p.h"

namespace qel::json {

namespace {

/// Whether the integer that `text` denotes, without a fraction or with one of zeros, is exactly `value`; true
/// for any other text.
bool isExact(std::string_view text, double value)
{
    if (text.front() == '-')
        text.remove_prefix(1);
    const std::size_t point = text.find('.');
    if (text.find_first_of("eE") != std::string_view::npos ||
        (point != std::string_view::npos && text.find_first_not_of('0', point + 1) != std::string_view::npos))
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
    if (leading == std::string_view::npos)
        return true;
    const std::size_t whole = point == std::string_view::npos ? mantissa.size() : point;
    auto magnitude = static_cast<long long>(whole) - static_cast<long long>(leading);
    if (exponentAt != std::string_view::npos) {
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

} // namespace

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
