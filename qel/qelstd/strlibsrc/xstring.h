#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <string_view>
#include <type_traits>

#include <qel/base/btkstrbuf.h>
#include <qel/qelexport.h>
#include <qel/qelxobj_i.h>

namespace std {
class strstream; // <strstream> is deprecated: only its users should get the warning
}

/// Whether S is a class of texts of C, such as std::string or std::string_view.
template<class S, class C>
concept qelTextClassOf = requires(const S& s)
{
    {
        s.data()
        } -> std::convertible_to<const C*>;
    requires std::is_convertible_v<const S&, std::basic_string_view<C>>;
};
template<class S>
concept qelTextClass = qelTextClassOf<S, char> || qelTextClassOf<S, char8_t> || qelTextClassOf<S, char16_t>;

class xstring;

/// Whether T is any kind of text: a string, or what a string is made from.
template<class T>
concept qelText = std::same_as<T, xstring> || qelTextClass<T> ||
    std::is_convertible_v<const T&, const char*> || std::is_convertible_v<const T&, const unsigned short*> ||
    std::is_convertible_v<const T&, const char8_t*> || std::is_convertible_v<const T&, const char16_t*>;

/// A text, or null: no text, which differs from the empty text. Copies share one buffer until one of them is
/// written to. The text is multibyte (`char`: UTF-8) or wide (`unsigned short`: UTF-16); the missing form is
/// produced on demand, and kept. Members that take a text work on the form of their argument.
///
/// The pointers null, `xnullstr` (1) and `xuninitstr` (2) mean no text wherever a text is an argument.
/// Characters of the multibyte form are UTF-8 characters; each byte that is not valid UTF-8 is one character
/// and becomes U+FFFD in the wide form. Characters of the wide form are its 16-bit units. Lengths are bytes
/// or units, indices and positions are characters. A text ends at its first zero.
///
/// A wide text with an unpaired surrogate has no multibyte form, and members that need it throw
/// qelXNativeException, "xstring::GetMBSize: invalid wide string". A text of more than 2 GiB throws
/// std::length_error. A member that throws leaves the string unchanged.
///
/// Copying costs constant time, and so does appending a character on average. An index into the multibyte form
/// costs time proportional to it, since characters are counted; searching and matching cost time proportional to
/// the text.
///
/// One string object is used by one thread at a time; two copies may be used by two threads.
///
///     xstring greeting = "Grüße";
///     const xstring shared = greeting; // shares the text until one of them is written to
///     greeting += " aus Köln";
///     std::cout << greeting.GetWord(2, " ") << ' ' << greeting.GetLength() << '\n'; // Köln 17
///     if (xstring() == nullptr && xstring("") != nullptr)
///         std::cout << "no text is not the empty text\n";
class QEL_API xstring
{
public:
    /// The null string.
    xstring() noexcept = default;
    xstring(std::nullptr_t) noexcept {}

    xstring(const xstring& other) noexcept : buffer(other.buffer), mb(other.mb), wide(other.wide)
    {
        if (buffer != nullptr)
            buffer->Lock();
    }
    xstring(xstring&& other) noexcept : buffer(other.buffer), mb(other.mb), wide(other.wide)
    {
        other.setNull();
    }
    /// Shares the buffer of `other`, which keeps its reference.
    xstring(const __xstring_c& other) noexcept : buffer(other.buffer), mb(other.mb), wide(other.wide)
    {
        if (buffer != nullptr)
            buffer->Lock();
    }

    /// Takes over the reference of `made`, to a new buffer for instance.
    static xstring Adopt(const __xstring_c& made) noexcept
    {
        xstring adopted;
        adopted.take(made.buffer, made.mb, made.wide);
        return adopted;
    }

    /// A copy of `text`.
    xstring(const char* text);
    xstring(const unsigned short* text);

    xstring(const char8_t* text) : xstring(reinterpret_cast<const char*>(text)) {}
    xstring(const char16_t* text);

    /// A copy of `text` up to its first zero. An empty text, and a view without data, give the empty string,
    /// not null.
    xstring(std::string_view text);
    template<qelTextClass S>
    xstring(const S& text) : xstring(FromText(text))
    {
    }

    /// The concatenation of the texts; null when both are.
    xstring(const char* a, const char* b);
    xstring(const unsigned short* a, const unsigned short* b);

    /// The first `n` characters, not bytes, or all if there are fewer; none when `n` is negative. `text` must
    /// end with a zero unless it has `n` characters; use the string_view for a number of bytes.
    xstring(const char* text, int n);
    xstring(const unsigned short* text, int n);

    /// The characters from index `from` up to, not including, index `to`; a negative `to` means to the end. A
    /// negative `from` is 0, one beyond the end gives the empty string.
    xstring(const char* text, int from, int to);
    xstring(const unsigned short* text, int from, int to);

    /// The text written to `stream`, which is zero-terminated, stays usable and is not frozen afterwards.
    xstring(std::strstream& stream);

    ~xstring() { release(); }

    xstring& operator=(const xstring& other) noexcept
    {
        if (other.buffer != nullptr)
            other.buffer->Lock();
        return take(other.buffer, other.mb, other.wide);
    }
    xstring& operator=(xstring&& other) noexcept
    {
        xstring taken(static_cast<xstring&&>(other));
        taken.swap(*this);
        return *this;
    }
    xstring& operator=(const __xstring_c& other) noexcept
    {
        if (other.buffer != nullptr)
            other.buffer->Lock();
        return take(other.buffer, other.mb, other.wide);
    }
    xstring& operator=(std::nullptr_t) noexcept
    {
        release();
        return *this;
    }
    /// `s = {}` makes `s` null.
    struct Nothing;
    xstring& operator=(std::initializer_list<Nothing>) noexcept
    {
        release();
        return *this;
    }
    xstring& operator=(const char* text);
    xstring& operator=(const unsigned short* text);
    xstring& operator=(std::strstream& stream);

    /// Appends. No text, the empty text and the zero character change nothing; the null string becomes the
    /// appended text. `text` may be part of this string.
    xstring& operator+=(char c)
    {
        if (c == 0)
            return *this;
        if (buffer == nullptr || !buffer->AppendInPlace(c))
            append(c);
        return *this;
    }
    xstring& operator+=(unsigned short c);
    xstring& operator+=(const char* text);
    xstring& operator+=(const unsigned short* text);
    xstring& operator+=(const xstring& text);
    template<qelText T>
    requires(!std::is_convertible_v<const T&, const char*> &&
             !std::is_convertible_v<const T&, const unsigned short*> && !std::same_as<T, xstring>) xstring&
    operator+=(const T& text)
    {
        return *this += xstring(text);
    }

    // ---- queries

    bool isNull() const noexcept { return buffer == nullptr; }
    /// Whether there is no character: true for null, too.
    bool empty() const noexcept { return buffer == nullptr || (mb != nullptr ? *mb == 0 : *wide == 0); }
    /// The multibyte form; the empty view for null. Valid as long as CastToCString().
    std::string_view view() const;
    /// std::string(s): a copy of view().
    template<class S>
    requires std::same_as<S, std::string>
    explicit operator S() const { return S(view()); }

    /// Size in bytes of the multibyte form with its terminator: 0 for the null string and for a wide text
    /// without multibyte form; one more than needed while the form has not been produced.
    unsigned int GetMBSize() const;
    /// Length of the multibyte form if it has been produced, else of the wide form; 0 for the null string.
    int GetLength() const;

    /// Converts the whole text to a number. Leading blanks and one plus sign are accepted, trailing blanks
    /// and a value out of range are not. False, with `out` unchanged, for anything else and for the null
    /// string.
    bool ToInt(int* out) const;
    bool ToDouble(double* out) const;

    /// A copy in upper, or lower, case. Only ASCII letters are mapped, whatever the locale.
    xstring ToUpper() const;
    xstring ToLower() const;

    /// The characters from index `from` up to index `to`, as in the constructor.
    xstring Substring(int from, int to) const;

    /// The number of words: runs of characters that are none of `delimiters`. 0 for the null string.
    int GetNWords(const char* delimiters) const;
    int GetNWords(const unsigned short* delimiters) const;
    /// Word `n`, counted from 0; the empty string when there are fewer words.
    xstring GetWord(int n, const char* delimiters) const;
    xstring GetWord(int n, const unsigned short* delimiters) const;

    /// The character index of the first `sub`, usable with Substring and Substitute, or -1.
    int Pos(const char* sub) const;
    int Pos(const unsigned short* sub) const;
    /// The same as a byte offset in the multibyte form, for use with CastToCString().
    int BytePos(const char* sub) const;

    /// Whether the whole text matches `pattern`, in which `*` matches any characters and `?` one.
    bool Match(const char* pattern) const;
    bool Match(const unsigned short* pattern) const;

    /// Replaces `from` by `to`, beginning at the character with index `start`, at most `count` times; a
    /// negative `count` replaces all. The arguments may be part of this string.
    void Substitute(const char* from, const char* to, int start, int count);
    void Substitute(const unsigned short* from, const unsigned short* to, int start, int count);

    /// The text formatted as by printf. The null string when the format fails; a result of 2056 bytes or more
    /// ends the process with the report "String too long". The wide overload's result is wide, but its
    /// arguments are those of the narrow one (`%s` takes a multibyte text).
    [[gnu::format(printf, 1, 2)]] static xstring Printf(const char* format, ...);
    static xstring Printf(const unsigned short* format, ...);

    /// The text in one form, produced on demand; the null pointer for the null string. Valid while this or
    /// another string shares the buffer and this one is not written to.
    const char* CastToCString() const;
    const unsigned short* CastToCWString() const;

    /// The C structure. The caller owns one reference to its buffer.
    __xstring_c getxstring_c() const
    {
        if (buffer != nullptr)
            buffer->Lock();
        return {buffer, mb, wide};
    }

    void swap(xstring& other) noexcept
    {
        const __xstring_c mine = {buffer, mb, wide};
        buffer = other.buffer, mb = other.mb, wide = other.wide;
        other.buffer = mine.buffer, other.mb = mine.mb, other.wide = mine.wide;
    }

    /// Whether both are null, or both are texts and equal.
    friend QEL_API bool operator==(const xstring& s, const xstring& t);
    friend QEL_API bool operator==(const xstring& s, const char* t);
    friend QEL_API bool operator==(const xstring& s, const unsigned short* t);
    friend bool operator==(const xstring& s, std::nullptr_t) noexcept { return s.buffer == nullptr; }

    /// The order of the bytes of the multibyte forms; null comes before every text.
    static std::strong_ordering Compare(const xstring& s, const xstring& t);
    template<qelText T>
    friend std::strong_ordering operator<=>(const xstring& s, const T& t)
    {
        return Compare(s, t);
    }

    /// A new string. A null side counts as empty; the result is null when both are.
    template<std::same_as<xstring> S, qelText T>
    friend xstring operator+(S s, const T& t)
    {
        s += t;
        return s;
    }
    template<qelText T, std::same_as<xstring> S>
    requires(!std::same_as<T, xstring>) friend xstring operator+(const T& t, const S& s)
    {
        xstring joined(t);
        joined += s;
        return joined;
    }
    template<std::same_as<xstring> S>
    friend xstring operator+(S s, char c)
    {
        s += c;
        return s;
    }
    template<std::same_as<xstring> S>
    friend xstring operator+(char c, const S& s)
    {
        xstring joined;
        joined += c;
        joined += s;
        return joined;
    }

    /// Writes the multibyte form, "nil" for the null string.
    friend QEL_API std::ostream& operator<<(std::ostream& o, const xstring& s);

private:
    /// The operations common to both forms, on form C.
    template<typename C>
    struct Form;
    template<typename Ask>
    auto askText(Ask ask) const;
    template<typename Map>
    xstring mapped(Map map) const;

    template<class S>
    static xstring FromText(const S& text)
    {
        if constexpr (qelTextClassOf<S, char>) {
            return xstring(std::string_view(text));
        } else if constexpr (qelTextClassOf<S, char8_t>) {
            const std::u8string_view view(text);
            return xstring(std::string_view(reinterpret_cast<const char*>(view.data()), view.size()));
        } else {
            return FromUtf16(text);
        }
    }
    static xstring FromUtf16(std::u16string_view text);

    void setNull() noexcept
    {
        buffer = nullptr;
        mb = reinterpret_cast<char*>(1);
        wide = reinterpret_cast<unsigned short*>(1);
    }
    void release() noexcept
    {
        if (buffer != nullptr)
            buffer->Unlock();
        setNull();
    }
    /// Replaces the contents of this string; takes over the reference.
    xstring& take(btkStrBuf* newBuffer, char* newMb, unsigned short* newWide) noexcept
    {
        if (buffer != nullptr)
            buffer->Unlock();
        buffer = newBuffer;
        mb = newMb;
        wide = newWide;
        return *this;
    }

    void setEmpty();

    /// Shares a buffer and adds a reference to it; null gives the null string.
    void AssignBuffer(btkStrBuf* shared);
    void CreateFromString(const char* text);
    void CreateFromWString(const unsigned short* text);
    void CreateFromStringTruncated(const char* text, int from, int to);
    void CreateFromWStringTruncated(const unsigned short* text, int from, int to);
    void append(char c);

    // As in __xstring_c. Producing a form does not change the text.
    mutable btkStrBuf* buffer = nullptr;
    mutable char* mb = reinterpret_cast<char*>(1);
    mutable unsigned short* wide = reinterpret_cast<unsigned short*>(1);
};

static_assert(sizeof(xstring) == sizeof(__xstring_c));

/// Any kind of text as an argument of a function that takes a `const char*`, for the duration of a call.
class qelTextArgument
{
public:
    template<qelText T>
    qelTextArgument(const T& text)
    {
        if constexpr (std::is_convertible_v<const T&, const char*>)
            characters = text;
        else
            held = text, characters = held.CastToCString();
    }
    qelTextArgument(const qelTextArgument&) = delete;
    qelTextArgument& operator=(const qelTextArgument&) = delete;
    operator const char*() const { return characters; }

private:
    xstring held;
    const char* characters = nullptr;
};

/// Any kind of text but those that are a `const char*` already.
template<class T>
concept qelTextObject = qelText<T> && !std::is_convertible_v<const T&, const char*>;

/// Equal strings have equal hashes, whatever their forms.
template<>
struct QEL_API std::hash<xstring>
{
    std::size_t operator()(const xstring& s) const;
};

/// The buffer that all empty strings share, with an additional reference, and its two texts. Safe to call
/// from any thread, and during static initialization.
QEL_API btkStrBuf* xstringAttachEmptyStrBuf(char** mb, unsigned short** wide);
