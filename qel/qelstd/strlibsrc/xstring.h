#pragma once

#include <cstddef>
#include <iosfwd>
#include <string_view>

#include <qel/base/btkstrbuf.h>
#include <qel/qelexport.h>
#include <qel/qelxobj_i.h>

namespace std {
class strstream; // <strstream> is deprecated, and only who uses it should hear so
}

/// A text, or null: no text, which is not the empty text. Copies share one buffer until one of them is
/// written to. The text is multibyte (`char`: UTF-8) or wide (`unsigned short`: UTF-16); the missing form is
/// produced when it is asked for, and kept. Members that take a text work on the form of their argument.
///
/// The pointers null, `xnullstr` (1) and `xuninitstr` (2) stand for no text wherever a text is an argument.
/// Characters of the multibyte form are UTF-8 characters, where a byte that is no valid UTF-8 is a character
/// for itself and becomes U+FFFD in the wide form; characters of the wide form are its 16-bit units. Lengths
/// are bytes or units, indices and positions are characters. A text ends at its first zero.
///
/// A wide text with an unpaired surrogate has no multibyte form, and members that need it throw
/// qelXNativeException, "xstring::GetMBSize: invalid wide string". A text of more than 2 GiB throws
/// std::length_error. What throws leaves the string as it was.
///
/// One string object is used by one thread at a time; two copies may be used by two threads.
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

    /// Takes over the reference that `made` owns, to a new buffer for instance.
    static xstring Adopt(const __xstring_c& made) noexcept
    {
        xstring adopted;
        adopted.take(made.buffer, made.mb, made.wide);
        return adopted;
    }

    /// A copy of `text`.
    xstring(const char* text);
    xstring(const unsigned short* text);

    /// A copy of the bytes of `text`, up to its first zero. No bytes, or a view of nothing: the empty string.
    explicit xstring(std::string_view text);

    /// The texts in a row; null when both are.
    xstring(const char* a, const char* b);
    xstring(const unsigned short* a, const unsigned short* b);

    /// The first `n` characters, not bytes, or all when there are not more; none when `n` is negative. `text`
    /// ends with a zero unless it has so many: for bytes and their number there is the string_view.
    xstring(const char* text, int n);
    xstring(const unsigned short* text, int n);

    /// The characters from index `from` to before index `to`, negative `to`: to the end. A negative `from` is
    /// 0, one beyond the end gives the empty string.
    xstring(const char* text, int from, int to);
    xstring(const unsigned short* text, int from, int to);

    /// What has been written to `stream`, which is terminated, stays usable and is not frozen afterwards.
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
    xstring& operator=(const char* text);
    xstring& operator=(const unsigned short* text);
    xstring& operator=(std::strstream& stream);

    /// Appends. No text, the empty text and the zero character change nothing; the null string becomes what
    /// is appended. `text` may be part of this string.
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

    // ---- queries

    /// Bytes that the multibyte form takes with its terminator: 0 for the null string and for a wide text
    /// that has none; one more than needed while the form has not been produced.
    unsigned int GetMBSize() const;
    /// Length of the multibyte form when there is one, else of the wide form; 0 for the null string.
    int GetLength() const;

    /// The text as a number: all of it, with neither blanks behind nor a value out of range; blanks and one
    /// plus sign may stand in front. False, with `out` unchanged, for anything else and for the null string.
    bool ToInt(int* out) const;
    bool ToDouble(double* out) const;

    /// With the letters A to Z, or a to z, mapped; other characters stay as they are, whatever the locale.
    xstring ToUpper() const;
    xstring ToLower() const;

    /// The characters from index `from` to before index `to`, as in the constructor.
    xstring Substring(int from, int to) const;

    /// Words are the runs of characters that are none of `delimiters`. None in the null string.
    int GetNWords(const char* delimiters) const;
    int GetNWords(const unsigned short* delimiters) const;
    /// Word `n`, counted from 0; the empty string when there is none.
    xstring GetWord(int n, const char* delimiters) const;
    xstring GetWord(int n, const unsigned short* delimiters) const;

    /// The index of the character at which the first `sub` begins, as Substring and Substitute take it, or
    /// -1.
    int Pos(const char* sub) const;
    int Pos(const unsigned short* sub) const;
    /// The same in bytes of the multibyte form, for work on CastToCString().
    int BytePos(const char* sub) const;

    /// Whether the whole text is like `pattern`, in which `*` stands for any characters and `?` for one.
    bool Match(const char* pattern) const;
    bool Match(const unsigned short* pattern) const;

    /// Replaces `from` by `to`, beginning at the character with index `start`, at most `count` times; a
    /// negative `count` replaces all. The arguments may be part of this string.
    void Substitute(const char* from, const char* to, int start, int count);
    void Substitute(const unsigned short* from, const unsigned short* to, int start, int count);

    /// The formatted text, as printf makes it. The null string when the format fails; a result of 2056 bytes
    /// and more ends the process with the report "String too long". The wide twin's result is wide, but its
    /// arguments are those of the narrow one (`%s` takes a multibyte text).
    [[gnu::format(printf, 1, 2)]] static xstring Printf(const char* format, ...);
    static xstring Printf(const unsigned short* format, ...);

    /// The text in one form, produced when missing; the null pointer for the null string. Valid while this or
    /// another string shares the buffer and this one is not written to.
    const char* CastToCString() const;
    const unsigned short* CastToCWString() const;

    /// The C form. The caller owns one reference to its buffer.
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

    /// Writes the multibyte form, "nil" for the null string.
    friend QEL_API std::ostream& operator<<(std::ostream& o, const xstring& s);

private:
    /// The operations that both forms have, on form C.
    template<typename C>
    struct Form;
    template<typename Ask>
    auto askText(Ask ask) const;
    template<typename Map>
    xstring mapped(Map map) const;

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
    /// Holds these in place of what it held; takes over the reference.
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

    /// Shares a buffer, which keeps its references; null gives the null string.
    void AssignBuffer(btkStrBuf* shared);
    void CreateFromString(const char* text);
    void CreateFromWString(const unsigned short* text);
    void CreateFromStringTruncated(const char* text, int from, int to);
    void CreateFromWStringTruncated(const unsigned short* text, int from, int to);
    void append(char c);

    // As in __xstring_c. Producing a form is no change of the text.
    mutable btkStrBuf* buffer = nullptr;
    mutable char* mb = reinterpret_cast<char*>(1);
    mutable unsigned short* wide = reinterpret_cast<unsigned short*>(1);
};

static_assert(sizeof(xstring) == sizeof(__xstring_c));

/// The buffer that all empty strings share, with one more reference, and its two texts. Safe to call from any
/// thread, and while other statics are initialized.
QEL_API btkStrBuf* xstringAttachEmptyStrBuf(char** mb, unsigned short** wide);
