#pragma once

#include <cstdint>
#include <cstring>

#include <qel/base/btkstring.h>

#include "xstring.h"
#include "xstringerror_p.h"

/// Whether `text` is none of the pointers that mean no text.
template<typename C>
bool qelIsText(const C* text)
{
    return reinterpret_cast<std::uintptr_t>(text) > 2;
}

template<typename C>
std::size_t qelLengthOrNone(const C* text)
{
    return qelIsText(text) ? Strlen(text) : 0;
}

/// The code of xstring shared by both widths: C is `char` for the multibyte form, `unsigned short` for the
/// wide one. The strings must not be null unless stated.
template<typename C>
struct xstring::Form
{
    static constexpr bool isWide = sizeof(C) > 1;

    /// The text in this form, or null while it has not been produced.
    static C*& text(const xstring& s)
    {
        if constexpr (isWide)
            return s.wide;
        else
            return s.mb;
    }

    /// Sets the position of the text written in this form; the other form becomes stale.
    static void setWritten(xstring& s, C* written) noexcept
    {
        if constexpr (isWide)
            s.mb = nullptr, s.wide = written;
        else
            s.mb = written, s.wide = nullptr;
    }

    /// Replaces the contents by a buffer whose only text is `written`; takes over the reference.
    static void take(xstring& s, btkStrBuf* buffer, C* written) noexcept
    {
        if constexpr (isWide)
            s.take(buffer, nullptr, written);
        else
            s.take(buffer, written, nullptr);
    }

    /// Makes a null string a copy of the text, which contains no zero.
    static void fill(xstring& null, const C* from, std::size_t length)
    {
        if (length == 0) {
            null.setEmpty();
            return;
        }
        null.buffer = btkStrBuf::Create(from, length);
        setWritten(null, null.buffer->Created<C>());
    }

    static xstring make(const C* from, std::size_t length)
    {
        xstring made;
        fill(made, from, length);
        return made;
    }

    /// The text in this form, or null when there is none.
    static C* tryProduce(const xstring& s)
    {
        C*& known = text(s);
        if (known == nullptr)
            if (btkStrBuf* const held = s.buffer->Get(&known))
                s.buffer = held;
        return known;
    }

    static C* produce(const xstring& s)
    {
        C* const produced = tryProduce(s);
        if (produced == nullptr)
            qelThrowInvalidWide();
        return produced;
    }

    /// The length of this form, which has been produced.
    static std::size_t length(const xstring& s) { return s.buffer->GetLength<C>(); }

    /// Whether `place` lies in this form's text.
    static bool contains(const xstring& s, const C* place)
    {
        const auto at = reinterpret_cast<std::uintptr_t>(place);
        const C* const begin = text(s);
        return begin != nullptr && at >= reinterpret_cast<std::uintptr_t>(begin) &&
               at <= reinterpret_cast<std::uintptr_t>(begin + length(s));
    }

    // The members of xstring that have two widths.
    static void fillTruncated(xstring& null, const C* whole, int from, int to);
    static xstring part(const xstring& s, int from, int to);
    static void concatenate(xstring& s, const C* a, const C* b);
    static void assign(xstring& s, const C* from);
    static void append(xstring& s, const C* more, std::size_t size);
    static void appendText(xstring& s, const C* more);
    static int getNWords(const xstring& s, const C* delimiters);
    static xstring getWord(const xstring& s, int n, const C* delimiters);
    static int pos(const xstring& s, const C* sub);
    static bool match(const xstring& s, const C* pattern);
    static bool equals(const xstring& s, const C* t, std::size_t size);
    static bool equalsText(const xstring& s, const C* t);
    static void substitute(xstring& s, const C* from, const C* to, int start, int count);
};
