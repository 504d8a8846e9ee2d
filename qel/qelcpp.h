#pragma once

// The framework's classes with the language's own types and idioms: thin templates over the public functions,
// in the namespace `qel`. docs/qelcpp.md shows their use. Paths and formatting have headers of their own, qelpath.h and
// qelformat.h, since they include much.

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>

#include <qel/qelcaught.h>
#include <qel/qelexception.h>
#include <qel/qelown.h>
#include <qel/qelrtti.h>
#include <qel/tmtime.h>
#include <qel/xdictionary.h>
#include <qel/xsequence.h>

namespace qel {

// ---- the value of a variant

/// Arguments of qel::visit's function for a variant without a value.
struct null_t
{
};
struct uninit_t
{
};

/// Argument of qel::visit's function for a value of an enumeration: its label's position, and its type.
struct enumeration
{
    /// The position of the label.
    int value;
    /// The descriptor of the enumeration.
    xrttienum* type;

    /// Returns the label; the null string for a value without one.
    xstring label() const { return type->mapIntToString(value); }
};

/// Whether get and get_if return values of T: numbers, bool, texts, enumerations with a descriptor, variants,
/// handles and pointers to classes of the framework.
template<class T>
concept readable = std::is_arithmetic_v<T> || std::is_enum_v<T> || std::same_as<T, xstring> ||
    std::same_as<T, std::string> || std::same_as<T, xany> || requires(T t)
{
    {
        *t
        } -> std::convertible_to<xobject&>;
};

/// Returns the value of `a` as a T, or nothing: when it is null, uninit, of another kind, an object of another
/// class, or a number that does not fit. An int is also read as a floating-point number. A pointer takes no
/// reference.
template<readable T>
std::optional<T> get_if(const xany& a)
{
    if constexpr (std::same_as<T, xany>) {
        return a;
    } else if constexpr (std::same_as<T, bool>) {
        if (a.getKind() == xanyBool)
            return static_cast<unsigned char>(a) != 0;
    } else if constexpr (std::same_as<T, unsigned char>) {
        if (a.getKind() == xanyBool)
            return static_cast<unsigned char>(a);
    } else if constexpr (std::is_floating_point_v<T>) {
        if (a.getKind() == xanyReal || a.getKind() == xanyInt)
            return static_cast<T>(static_cast<double>(a));
    } else if constexpr (std::is_integral_v<T>) {
        if (a.getKind() == xanyInt) {
            const auto value = static_cast<long long>(static_cast<int>(a));
            const auto result = static_cast<T>(value);
            if (static_cast<long long>(result) == value && (result < T{}) == (value < 0))
                return result;
        }
    } else if constexpr (std::same_as<T, xstring>) {
        if (a.getKind() == xanyString)
            return static_cast<xstring>(a);
    } else if constexpr (std::same_as<T, std::string>) {
        if (a.getKind() == xanyString)
            return std::string(static_cast<xstring>(a));
    } else if constexpr (std::is_enum_v<T>) {
        if (a.getKind() == xanyEnum && a.getRtti() == qelEnumRtti(static_cast<T*>(nullptr)))
            return qelEnumFromLabel<T>(static_cast<int>(a));
    } else if (a.getKind() == xanyObject) {
        using Class = std::remove_cvref_t<decltype(*std::declval<T>())>;
        if (Class* const object = Class::softcast(a))
            return T(object);
    }
    return std::nullopt;
}

/// The same, but throws when there is no such value.
/// @throws qelXTypeMismatch  with the name of the type that was expected
template<readable T>
T get(const xany& a)
{
    if (std::optional<T> value = get_if<T>(a))
        return *std::move(value);
    const char* expected = "any";
    xstring name;
    if constexpr (std::same_as<T, bool> || std::same_as<T, unsigned char>) {
        expected = "bool";
    } else if constexpr (std::is_floating_point_v<T>) {
        expected = "real";
    } else if constexpr (std::is_integral_v<T>) {
        expected = "int";
    } else if constexpr (std::same_as<T, xstring> || std::same_as<T, std::string>) {
        expected = "string";
    } else if constexpr (std::is_enum_v<T>) {
        name = qelEnumRtti(static_cast<T*>(nullptr))->getName();
    } else if constexpr (!std::same_as<T, xany>) {
        using Class = std::remove_cvref_t<decltype(*std::declval<T>())>;
        if constexpr (requires { Class::getClassRtti(); })
            name = Class::getClassRtti()->getName();
        else
            expected = "object";
    }
    qelXTypeMismatch::Throw(name.isNull() ? expected : name.CastToCString(), a);
}

/// Calls `f` with the value of `a`, and returns its result: qel::null_t, qel::uninit_t, int, bool, double,
/// xstring, qel::enumeration or xobject*, which takes no reference. A bool's byte is true unless it is 0.
template<class F>
decltype(auto) visit(F&& f, const xany& a)
{
    switch (a.getKind()) {
    case xanyNull:
        return f(null_t());
    case xanyInt:
        return f(static_cast<int>(a));
    case xanyBool:
        return f(static_cast<unsigned char>(a) != 0);
    case xanyReal:
        return f(static_cast<double>(a));
    case xanyString:
        return f(static_cast<xstring>(a));
    case xanyEnum:
        return f(enumeration{static_cast<int>(a), xrttienum::softcast(a.getRtti())});
    case xanyObject:
        return f(static_cast<xobject*>(a));
    default:
        return f(uninit_t());
    }
}

// ---- sequences

/// The elements of a sequence of plain values, in place, without the calls that a class may override. Valid
/// until the sequence grows or shrinks.
template<class T>
std::span<T> span(xtssequence<T>& sequence)
{
    return {sequence.elements(), sequence.size()};
}
template<class T>
std::span<const T> span(const xtssequence<T>& sequence)
{
    return {const_cast<xtssequence<T>&>(sequence).elements(), sequence.size()};
}

/// Returns a container of the elements of a range: `qel::to<std::vector<std::string>>(*words)`.
template<class C, class R>
C to(const R& range)
{
    C container;
    for (auto&& element : range)
        container.insert(container.end(), typename C::value_type(element));
    return container;
}

/// Returns the words of `text`: the runs of characters that are none of `delimiters`, as GetWord counts them.
/// None for null.
inline xrchandle<xstringsequence> split(const xstring& text, const xstring& delimiters)
{
    auto words = make<xstringsequence>();
    const std::string_view all = text.view();
    const std::string_view between = delimiters.view();
    if (std::any_of(between.begin(), between.end(),
                    [](char c) { return static_cast<unsigned char>(c) > 0x7f; })) {
        for (int i = 0, n = text.GetNWords(delimiters.CastToCString()); i < n; ++i)
            words->append(text.GetWord(i, delimiters.CastToCString()));
        return words;
    }
    for (std::size_t at = all.find_first_not_of(between); at != std::string_view::npos;) {
        const std::size_t end = std::min(all.find_first_of(between, at), all.size());
        words->append(xstring(all.substr(at, end - at)));
        at = all.find_first_not_of(between, end);
    }
    return words;
}

/// The standard sequence for elements of the types V: of bools, ints, reals or texts when all are such, else
/// of variants.
template<class... V>
struct sequence_for
{
    /// Whether T is a kind of whole number.
    template<class T>
    static constexpr bool isInt = std::is_integral_v<T> && !std::same_as<T, bool>;
    /// Returns the sequence's type.
    static auto choose()
    {
        if constexpr (sizeof...(V) == 0)               // of which all that follows holds
            return std::type_identity<xanysequence>(); // NOLINT(bugprone-branch-clone)
        else if constexpr ((std::same_as<V, bool> && ...))
            return std::type_identity<xboolsequence>();
        else if constexpr ((isInt<V> && ...))
            return std::type_identity<xintsequence>();
        else if constexpr (((isInt<V> || std::is_floating_point_v<V>)&&...))
            return std::type_identity<xrealsequence>();
        else if constexpr ((qelText<V> && ...))
            return std::type_identity<xstringsequence>();
        else
            return std::type_identity<xanysequence>();
    }
    /// The sequence.
    using type = typename decltype(choose())::type;
};

/// A handle that owns a new sequence: `qel::list{1, 2, 3}` is an xintsequence, `qel::list{"a", 1}` an
/// xanysequence, `qel::list<xrealsequence>{1, 2}` what it says.
/// @throws qelXNativeException  a number does not fit
///
///     const qel::list numbers{1, 2, 3};       // an xintsequence
///     const qel::list mixed{"alpha", 1, 2.5}; // an xanysequence
///     for (const int n : *numbers)
///         std::cout << n << '\n';
template<class S>
class list : public xrchandle<S>
{
public:
    template<class... V>
    explicit list(V&&... values) : xrchandle<S>(make<S>())
    {
        (this->get()->append(element(std::forward<V>(values))), ...);
    }

private:
    template<class V>
    static typename S::value_type element(V&& value)
    {
        using T = typename S::value_type;
        using N = std::remove_cvref_t<V>;
        if constexpr (std::same_as<T, int> && std::is_arithmetic_v<N> && !std::same_as<N, int>)
            return static_cast<int>(xany(value));
        else
            return static_cast<T>(std::forward<V>(value));
    }
};
template<class... V>
list(V&&...) -> list<typename sequence_for<std::decay_t<V>...>::type>;

// ---- dictionaries

/// A handle that owns a new dictionary: `qel::dict<xintdictionary>{{"a", 1}, {"b", 2}}`; without a class an
/// xanydictionary.
///
///     const qel::dict person{{"name", "Ada"}, {"age", 36}};
///     std::cout << qel::get<int>(person->value_or("age", 0)) << '\n';
template<class D = xanydictionary>
class dict : public xrchandle<D>
{
public:
    dict(std::initializer_list<typename D::value_type> entries) : xrchandle<D>(D::make(entries)) {}
};
dict(std::initializer_list<xanydictionary::value_type>)->dict<xanydictionary>;

/// Returns the value of `key`, or nothing when there is none.
template<class D, qelText K>
requires requires
{
    typename D::mapped_type;
}
std::optional<typename D::mapped_type> get(const D& dictionary, const K& key)
{
    typename D::mapped_type value{};
    if (!const_cast<D&>(dictionary).find(qelTextArgument(key), &value))
        return std::nullopt;
    return value;
}

} // namespace qel

// ---- times

template<qelText T>
auto tmTime::fromIso(const T& text)
{
    long seconds;
    return readIso(qelTextArgument(text), &seconds) ? std::optional<tmTime>(tmTime(seconds)) : std::nullopt;
}

inline auto tmTime::utc() const
{
    tmCalendar fields;
    return utcFields(&fields) ? std::optional<tmCalendar>(fields) : std::nullopt;
}
