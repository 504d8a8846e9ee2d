#include <algorithm>
#include <functional>

#include <qel/base/btkutf.h>

#include "xstringform_p.h"

// Queries of an xstring, and Substitute. A query whose argument does not determine the form uses the
// multibyte form if it has been produced, else the wide one.

/// Calls `ask` with the text in the form that has been produced; the string must not be null.
template<typename Ask>
auto xstring::askText(Ask ask) const
{
    return mb != nullptr ? ask(mb) : ask(Form<unsigned short>::produce(*this));
}

const char* xstring::CastToCString() const
{
    return buffer == nullptr ? nullptr : Form<char>::produce(*this);
}

const unsigned short* xstring::CastToCWString() const
{
    return buffer == nullptr ? nullptr : Form<unsigned short>::produce(*this);
}

std::string_view xstring::view() const
{
    if (buffer == nullptr)
        return {};
    const char* const text = Form<char>::produce(*this);
    return {text, Form<char>::length(*this)};
}

// ---- sizes and numbers

unsigned int xstring::GetMBSize() const
{
    if (buffer == nullptr)
        return 0;
    if (mb != nullptr)
        return static_cast<unsigned int>(buffer->GetMBLength() + 1);
    const unsigned short* const text = Form<unsigned short>::produce(*this);
    const std::size_t length = btkWCToMBLength(text, buffer->GetWCLength());
    return length == btkNoLength ? 0 : static_cast<unsigned int>(length + 2);
}

int xstring::GetLength() const
{
    if (buffer == nullptr)
        return 0;
    return askText([this]<typename C>(const C*) { return static_cast<int>(Form<C>::length(*this)); });
}

bool xstring::ToInt(int* out) const
{
    return buffer != nullptr && askText([out](const auto* text) { return btkStringToInt(text, out); });
}

bool xstring::ToDouble(double* out) const
{
    return buffer != nullptr && askText([out](const auto* text) { return btkStringToDouble(text, out); });
}

// ---- parts and variations

/// A copy with `map` applied to its text.
template<typename Map>
xstring xstring::mapped(Map map) const
{
    if (empty())
        return *this;
    return askText([&]<typename C>(const C* text) {
        xstring copy = Form<C>::make(text, Form<C>::length(*this));
        map(Form<C>::text(copy));
        return copy;
    });
}

xstring xstring::ToUpper() const
{
    return mapped([](auto* text) { btkStringToUpper(text); });
}

xstring xstring::ToLower() const
{
    return mapped([](auto* text) { btkStringToLower(text); });
}

/// Of a text in this form, which is present.
template<typename C>
xstring xstring::Form<C>::part(const xstring& s, int from, int to)
{
    const std::size_t size = length(s);
    const std::size_t begin = static_cast<std::size_t>(std::max(from, 0));
    const std::size_t end = to < 0 ? size : static_cast<std::size_t>(to);
    if constexpr (isWide) {
        const std::size_t start = std::min(begin, size);
        return make(text(s) + start, std::clamp(end, start, size) - start);
    } else {
        const std::string_view found = btkMBPart({text(s), size}, begin, end);
        return make(found.data(), found.size());
    }
}

xstring xstring::Substring(int from, int to) const
{
    if (empty())
        return *this;
    return askText([=, this]<typename C>(const C*) { return Form<C>::part(*this, from, to); });
}

/// The text of an argument for which no text means the empty text.
template<typename C>
static const C* textOrEmpty(const C* text)
{
    static constexpr C empty = 0;
    return qelIsText(text) ? text : &empty;
}

template<typename C>
int xstring::Form<C>::getNWords(const xstring& s, const C* delimiters)
{
    return s.buffer == nullptr ? 0 : btkStringGetNWords(produce(s), textOrEmpty(delimiters));
}

template<typename C>
xstring xstring::Form<C>::getWord(const xstring& s, int n, const C* delimiters)
{
    int start = 0;
    int end = 0;
    const C* const text = s.buffer == nullptr ? textOrEmpty<C>(nullptr) : produce(s);
    btkStringGetWord(text, n, textOrEmpty(delimiters), &start, &end);
    return make(text + start, static_cast<std::size_t>(end - start));
}

int xstring::GetNWords(const char* delimiters) const
{
    return Form<char>::getNWords(*this, delimiters);
}

int xstring::GetNWords(const unsigned short* delimiters) const
{
    return Form<unsigned short>::getNWords(*this, delimiters);
}

xstring xstring::GetWord(int n, const char* delimiters) const
{
    return Form<char>::getWord(*this, n, delimiters);
}

xstring xstring::GetWord(int n, const unsigned short* delimiters) const
{
    return Form<unsigned short>::getWord(*this, n, delimiters);
}

// ---- searching

template<typename C>
int xstring::Form<C>::pos(const xstring& s, const C* sub)
{
    if (s.buffer == nullptr || !qelIsText(sub))
        return -1;
    const C* const text = produce(s);
    return btkStringFindSubstring(text, sub, length(s));
}

template<typename C>
bool xstring::Form<C>::match(const xstring& s, const C* pattern)
{
    return s.buffer != nullptr && qelIsText(pattern) && btkStringMatch(produce(s), pattern);
}

int xstring::Pos(const char* sub) const
{
    const int at = BytePos(sub);
    return at <= 0 ? at : static_cast<int>(btkMBCharCount(mb, static_cast<std::size_t>(at)));
}

int xstring::BytePos(const char* sub) const
{
    return Form<char>::pos(*this, sub);
}

int xstring::Pos(const unsigned short* sub) const
{
    return Form<unsigned short>::pos(*this, sub);
}

bool xstring::Match(const char* pattern) const
{
    return Form<char>::match(*this, pattern);
}

bool xstring::Match(const unsigned short* pattern) const
{
    return Form<unsigned short>::match(*this, pattern);
}

template<typename C>
void xstring::Form<C>::substitute(xstring& s, const C* from, const C* to, int start, int count)
{
    if (s.buffer == nullptr || from == to || count == 0 || !qelIsText(from))
        return;
    to = textOrEmpty(to);
    C* text = produce(s);
    const std::size_t fromLength = Strlen(from);
    const std::size_t toLength = Strlen(to);
    if (fromLength == toLength && std::equal(from, from + fromLength, to))
        return;
    int first;
    const int n = btkStringFind(text, from, start, count, &first);
    if (n == 0)
        return;

    const std::size_t oldLength = length(s);
    const std::size_t times = static_cast<std::size_t>(n);
    const std::size_t newLength = oldLength - fromLength * times + toLength * times;
    C* written;
    if (newLength > oldLength || contains(s, from) || contains(s, to)) {
        btkStrBuf* const buffer = btkStrBuf::Alloc((newLength + 1) * sizeof(C), &written);
        std::copy_n(text, first, written);
        btkStringSubstitute(written + first, text + first, from, to, n);
        buffer->template Commit<C>(newLength);
        take(s, buffer, written);
    } else {
        s.buffer = s.buffer->Resize((oldLength + 1) * sizeof(C), &written, true);
        btkStringSubstitute(written + first, written + first, from, to, n);
        s.buffer->template Commit<C>(newLength);
        setWritten(s, written);
    }
}

void xstring::Substitute(const char* from, const char* to, int start, int count)
{
    Form<char>::substitute(*this, from, to, start, count);
}

void xstring::Substitute(const unsigned short* from, const unsigned short* to, int start, int count)
{
    Form<unsigned short>::substitute(*this, from, to, start, count);
}

// ---- comparison

/// Whether the text in this form, which is produced if missing, equals the one given.
template<typename C>
bool xstring::Form<C>::equals(const xstring& s, const C* t, std::size_t size)
{
    const C* const mine = tryProduce(s); // a wide text without multibyte form equals no multibyte text
    return mine != nullptr && size == length(s) && std::memcmp(mine, t, size * sizeof(C)) == 0;
}

template<typename C>
bool xstring::Form<C>::equalsText(const xstring& s, const C* t)
{
    if (s.buffer == nullptr || !qelIsText(t))
        return s.buffer == nullptr && !qelIsText(t);
    return equals(s, t, Strlen(t));
}

bool operator==(const xstring& s, const char* t)
{
    return xstring::Form<char>::equalsText(s, t);
}

bool operator==(const xstring& s, const unsigned short* t)
{
    return xstring::Form<unsigned short>::equalsText(s, t);
}

bool operator==(const xstring& s, const xstring& t)
{
    if (s.buffer == t.buffer)
        return true;
    if (s.buffer == nullptr || t.buffer == nullptr)
        return false;
    const auto equal = [&]<typename C>(const C* text) {
        return text != nullptr && xstring::Form<C>::equals(s, text, xstring::Form<C>::length(t));
    };
    if (s.mb == nullptr && t.mb == nullptr)
        return equal(xstring::Form<unsigned short>::produce(t));
    return equal(xstring::Form<char>::tryProduce(t));
}

std::strong_ordering xstring::Compare(const xstring& s, const xstring& t)
{
    if (s.isNull() || t.isNull())
        return t.isNull() <=> s.isNull();
    return s.view() <=> t.view();
}

std::size_t std::hash<xstring>::operator()(const xstring& s) const
{
    // A text without multibyte form equals only texts without one, whose sizes are 0, too.
    return s.GetMBSize() == 0 ? 0 : std::hash<std::string_view>()(s.view());
}
