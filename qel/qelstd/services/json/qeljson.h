#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#include <qel/qelexception.h>
#include <qel/qelrtti.h>
#include <qel/xany.h>
#include <qel/xobject.h>
#include <qel/xstring.h>

/// A text that is not JSON, or not the JSON of the expected type; or a value without a JSON form. The
/// description has all that the attributes say. Counted.
///
///     try {
///         qel::json::read<xintsequence>("[1, \"two\"]");
///     } catch (xthrowable* thrown) {
///         const qel::caught failure(thrown);
///         if (auto* const cause = failure.as<qelXJson>())
///             std::cerr << cause->getPath() << ": expected " << cause->getExpected() << '\n';
///     }
class QEL_API qelXJson : public virtual qelXException
{
    QEL_OBJECT(qelXJson); // "qellib::XJson"
    QEL_REBUILD(qelXJson);
    /// The position in the value: "$" is the whole, "$.people[3].age" an attribute of an element.
    QEL_READONLY(xstring, Path);
    /// The position in the text, both from 1; null while writing.
    QEL_READONLY(int, Line);
    /// In characters.
    QEL_READONLY(int, Column);
    QEL_READONLY(xstring, Expected);
    QEL_READONLY(xstring, Found);

public:
    qelXJson(const char* path, int line, int column, const char* expected, const char* found);
    [[noreturn]] static void Throw(const char* path, int line, int column, const char* expected,
                                   const char* found);
};

/// Values as JSON (RFC 8259) and back, according to their descriptors, in time proportional to the text.
/// docs/json.md describes the form.
///
///     const auto person = xanydictionary::make({{"name", "Ada"}, {"age", 36}});
///     qel::json::write(person, std::cout);
///     const auto back = qel::json::read<xanydictionary>(R"({"name": "Ada"})");
namespace qel::json {

/// Treatment of NaN and the infinities, which JSON does not have: an error, or null.
enum class NonFinite : unsigned char { refuse, null };

/// Options of writing and reading.
struct options
{
    /// Writing: blanks for each level; -1 for all on one line.
    int indent = -1;
    /// Greatest number of objects, collections and arrays inside one another.
    int depth = 1000;
    /// Greatest size of the text in bytes.
    std::uint64_t bytes = std::uint64_t{1} << 30;
    /// Writing: refuses a text with bytes that are not UTF-8, each of which is else written as U+FFFD.
    bool strict = false;
    NonFinite nonFinite = NonFinite::refuse;
    /// Reading: skips attributes that the class does not have, instead of refusing them.
    bool ignoreUnknown = false;
};

/// Writes `value`, and nothing if it throws. An object that was never attached is destroyed with `value`. The
/// objects may not change meanwhile. Needs memory for the whole text. Exceptions of accessors and of the
/// stream pass through.
/// @throws qelXJson
QEL_API void write(xany value, std::ostream& out, const options& how = {});

/// The same for a reader that expects a value of the type `declared`: its name is written only where the
/// value is of another type.
/// @throws qelXJson
QEL_API void writeAs(xrtti* declared, xany value, std::ostream& out, const options& how = {});

/// Returns the value of the type `declared` that the text consists of; never null unless `declared` is "any".
/// New objects are held by the result. Each class needs a `.create` or `.rebuild` row, and exceptions, and
/// objects of classes that are not countable, are not read. Takes a stream in pieces, to its end. A text that
/// is not trusted may name any class that is registered, where the declared type allows it. Exceptions of
/// `_s11n_set` functions and of the stream pass through.
/// @throws qelXJson
QEL_API xany readAs(xrtti* declared, std::string_view text, const options& how = {});
QEL_API xany readAs(xrtti* declared, std::istream& in, const options& how = {});

// ---- typed: T is an exposed class, an enumeration with QEL_ENUM, int, bool, double, xstring or xany

/// How a T is declared, and returned by read<T>: an object by a counting handle.
template<class T>
struct Typed
{
    static_assert(!std::is_same_v<T, T>,
                  "JSON is typed by an exposed class, an enumeration with QEL_ENUM, int, bool, double, "
                  "xstring or xany");
    /// Only for the assertion to be the only error.
    static xrtti* rtti();
    /// As above.
    static T get(const xany& value);
};

/// Writes a value that is declared as a T, for read<T>: write<Person>(person, out).
/// @throws qelXJson
template<class T>
void write(std::type_identity_t<xany> value, std::ostream& out, const options& how = {})
{
    writeAs(Typed<T>::rtti(), static_cast<xany&&>(value), out, how);
}

/// Returns the T that the text or stream consists of; see readAs. Objects that refer to each other in a cycle
/// are read as such: their owner must cut it.
/// @throws qelXJson
template<class T>
auto read(std::string_view text, const options& how = {})
{
    return Typed<T>::get(readAs(Typed<T>::rtti(), text, how));
}
template<class T>
auto read(std::istream& in, const options& how = {})
{
    return Typed<T>::get(readAs(Typed<T>::rtti(), in, how));
}

// ---- implementation

template<class T>
requires std::is_base_of_v<xobject, T>
struct Typed<T>
{
    static xrtti* rtti()
    {
        if constexpr (std::is_same_v<T, xobject>)
            return qelGetRtti_object();
        else
            return T::getClassRtti();
    }
    static xrchandle<T> get(const xany& value) { return T::cast(static_cast<xobject*>(value)); }
};

template<class T>
requires std::is_enum_v<T>
struct Typed<T>
{
    static xrtti* rtti() { return qelEnumRtti(static_cast<T*>(nullptr)); }
    static T get(const xany& value)
    {
        const int label = value;
        return label == xnullint ? qelUnset<T>() : qelEnumFromLabel<T>(label);
    }
};

template<>
struct Typed<int>
{
    static xrtti* rtti() { return qelGetRtti_int(); }
    static int get(const xany& value) { return value; }
};
template<>
struct Typed<bool>
{
    static xrtti* rtti() { return qelGetRtti_bool(); }
    static bool get(const xany& value) { return static_cast<unsigned char>(value) == 1; }
};
template<>
struct Typed<double>
{
    static xrtti* rtti() { return qelGetRtti_real(); }
    static double get(const xany& value) { return value; }
};
template<>
struct Typed<xstring>
{
    static xrtti* rtti() { return qelGetRtti_string(); }
    static xstring get(const xany& value) { return value; }
};
template<>
struct Typed<xany>
{
    static xrtti* rtti() { return qelGetRtti_any(); }
    static xany get(xany&& value) { return static_cast<xany&&>(value); }
};

} // namespace qel::json
