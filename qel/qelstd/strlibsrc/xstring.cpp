#include "xstring.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <qel/base/btkabort.h>

#include "xstringform_p.h"

namespace {

/// Never freed: static strings may hold it until the process exits.
[[gnu::noinline]] btkStrBuf* emptyBuffer()
{
    static btkStrBuf* const empty = [] {
        char* mb;
        unsigned short* wide;
        return btkStrBuf::AllocMB(1, &mb)->GetWC(&wide);
    }();
    return empty;
}

} // namespace

btkStrBuf* xstringAttachEmptyStrBuf(char** mb, unsigned short** wide)
{
    emptyBuffer()->Lock(mb, wide);
    return emptyBuffer();
}

void xstring::setEmpty()
{
    AssignBuffer(emptyBuffer());
}

// ---- construction

template<typename C>
void xstring::Form<C>::fillTruncated(xstring& null, const C* whole, int from, int to)
{
    if (!qelIsText(whole))
        return;
    from = std::max(from, 0);
    const C* const start = whole + btkStringPrefixLength(whole, static_cast<std::size_t>(from));
    const std::size_t characters = static_cast<std::size_t>(to > from ? to - from : 0);
    fill(null, start, to < 0 ? Strlen(start) : btkStringPrefixLength(start, characters));
}

template<typename C>
void xstring::Form<C>::concatenate(xstring& s, const C* a, const C* b)
{
    if (!qelIsText(a) && !qelIsText(b))
        return;
    const std::size_t aLength = qelLengthOrNone(a);
    const std::size_t bLength = qelLengthOrNone(b);
    if (aLength + bLength == 0) {
        s.setEmpty();
        return;
    }
    C* joined;
    btkStrBuf* const buffer = btkStrBuf::Alloc((aLength + bLength + 1) * sizeof(C), &joined);
    std::copy_n(a, aLength, joined);
    std::copy_n(b, bLength, joined + aLength);
    buffer->Commit<C>(aLength + bLength);
    take(s, buffer, joined);
}

void xstring::CreateFromString(const char* text)
{
    if (qelIsText(text))
        Form<char>::fill(*this, text, Strlen(text));
}

void xstring::CreateFromWString(const unsigned short* text)
{
    if (qelIsText(text))
        Form<unsigned short>::fill(*this, text, Strlen(text));
}

void xstring::CreateFromStringTruncated(const char* text, int from, int to)
{
    Form<char>::fillTruncated(*this, text, from, to);
}

void xstring::CreateFromWStringTruncated(const unsigned short* text, int from, int to)
{
    Form<unsigned short>::fillTruncated(*this, text, from, to);
}

xstring::xstring(const char* text)
{
    CreateFromString(text);
}

xstring::xstring(const unsigned short* text)
{
    CreateFromWString(text);
}

xstring::xstring(std::string_view text)
{
    Form<char>::fill(*this, text.data(), std::min(text.find('\0'), text.size()));
}

xstring::xstring(const char16_t* text)
{
    if (qelIsText(text))
        *this = FromUtf16(text);
}

xstring xstring::FromUtf16(std::u16string_view text)
{
    text = text.substr(0, text.find(u'\0'));
    xstring made;
    if (text.empty()) {
        made.setEmpty();
        return made;
    }
    unsigned short* copy;
    btkStrBuf* const buffer = btkStrBuf::AllocWC((text.size() + 1) * sizeof(char16_t), &copy);
    std::copy(text.begin(), text.end(), copy);
    buffer->CommitWC(text.size());
    Form<unsigned short>::take(made, buffer, copy);
    return made;
}

xstring::xstring(const char* a, const char* b)
{
    Form<char>::concatenate(*this, a, b);
}

xstring::xstring(const unsigned short* a, const unsigned short* b)
{
    Form<unsigned short>::concatenate(*this, a, b);
}

xstring::xstring(const char* text, int n)
{
    CreateFromStringTruncated(text, 0, std::max(n, 0));
}

xstring::xstring(const unsigned short* text, int n)
{
    CreateFromWStringTruncated(text, 0, std::max(n, 0));
}

xstring::xstring(const char* text, int from, int to)
{
    CreateFromStringTruncated(text, from, to);
}

xstring::xstring(const unsigned short* text, int from, int to)
{
    CreateFromWStringTruncated(text, from, to);
}

void xstring::AssignBuffer(btkStrBuf* shared)
{
    if (shared == nullptr) {
        release();
        return;
    }
    char* sharedMb;
    unsigned short* sharedWide;
    shared->Lock(&sharedMb, &sharedWide);
    take(shared, sharedMb, sharedWide);
}

// ---- assignment

template<typename C>
void xstring::Form<C>::assign(xstring& s, const C* from)
{
    if (!qelIsText(from)) {
        s.release();
        return;
    }
    const std::size_t size = Strlen(from);
    // If this string's buffer cannot be written to, or the text is part of it, copy first.
    if (size == 0 || s.buffer == nullptr || text(s) == nullptr || contains(s, from)) {
        s = make(from, size);
        return;
    }
    C* written;
    s.buffer = s.buffer->Resize((size + 1) * sizeof(C), &written, false);
    std::copy_n(from, size, written);
    s.buffer->Commit<C>(size);
    setWritten(s, written);
}

xstring& xstring::operator=(const char* text)
{
    Form<char>::assign(*this, text);
    return *this;
}

xstring& xstring::operator=(const unsigned short* text)
{
    Form<unsigned short>::assign(*this, text);
    return *this;
}

// ---- appending

template<typename C>
void xstring::Form<C>::append(xstring& s, const C* more, std::size_t size)
{
    if (size == 0)
        return;
    if (s.buffer == nullptr) {
        fill(s, more, size);
        return;
    }
    if (s.buffer->AppendInPlace(more, size))
        return;
    const C* const old = produce(s);
    const std::size_t oldSize = length(s);
    const bool isOwn = contains(s, more);
    const std::size_t place = isOwn ? static_cast<std::size_t>(more - old) : 0;

    C* written;
    s.buffer = s.buffer->Resize((oldSize + size + 1) * sizeof(C), &written, true);
    std::copy_n(isOwn ? written + place : more, size, written + oldSize);
    s.buffer->Commit<C>(oldSize + size);
    setWritten(s, written);
}

template<typename C>
void xstring::Form<C>::appendText(xstring& s, const C* more)
{
    if (qelIsText(more))
        append(s, more, Strlen(more));
}

void xstring::append(char c)
{
    Form<char>::append(*this, &c, 1);
}

xstring& xstring::operator+=(unsigned short c)
{
    if (c != 0)
        Form<unsigned short>::append(*this, &c, 1);
    return *this;
}

xstring& xstring::operator+=(const char* text)
{
    Form<char>::appendText(*this, text);
    return *this;
}

xstring& xstring::operator+=(const unsigned short* text)
{
    Form<unsigned short>::appendText(*this, text);
    return *this;
}

xstring& xstring::operator+=(const xstring& text)
{
    if (text.buffer == nullptr)
        return *this;
    if (buffer == nullptr)
        return *this = text;
    const xstring held(text); // may be this string
    if (held.mb != nullptr)
        Form<char>::append(*this, held.mb, Form<char>::length(held));
    else
        Form<unsigned short>::append(*this, held.wide, Form<unsigned short>::length(held));
    return *this;
}

// ---- formatting

namespace {

constexpr std::size_t workingArea = 2056; // bytes

/// Formats into `area` of that size. False when the format fails, or is no text.
bool format(char* area, const char* how, std::va_list arguments)
{
    if (!qelIsText(how))
        return false;
    const int length = std::vsnprintf(area, workingArea, how, arguments);
    if (length >= static_cast<int>(workingArea))
        QEL_ABORT("String too long");
    return length >= 0;
}

} // namespace

xstring xstring::Printf(const char* format, ...)
{
    char area[workingArea];
    std::va_list arguments;
    va_start(arguments, format);
    const bool formatted = ::format(area, format, arguments);
    va_end(arguments);
    return formatted ? xstring(area) : xstring();
}

xstring xstring::Printf(const unsigned short* format, ...)
{
    const xstring narrowFormat(format);
    char area[workingArea];
    std::va_list arguments;
    va_start(arguments, format);
    const bool formatted = ::format(area, narrowFormat.CastToCString(), arguments);
    va_end(arguments);
    return formatted ? xstring(xstring(area).CastToCWString()) : xstring();
}
