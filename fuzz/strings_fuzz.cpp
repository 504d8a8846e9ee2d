// Strings against the simplest implementation of each operation. The input is split at zeros into a text and
// two arguments; as UTF-16 it is used unchanged, including unpaired surrogates; as operations, it changes strings
// that share their texts, beside models of them.
#include <codecvt>
#include <cstring>
#include <locale>
#include <optional>
#include <string>
#include <vector>

#include <qel/base/btkutf.h>
#include <qel/qelexception.h>
#include <qel/xstring.h>

#include "support/widetext.h"
#include "target.h"

namespace {

/// The characters of a text, each with its bytes.
std::vector<std::string> charactersOf(const std::string& text)
{
    std::vector<std::string> characters;
    for (const char* at = text.c_str(); *at != 0; at += characters.back().size())
        characters.emplace_back(at, btkMBCharSize(at));
    return characters;
}

bool matches(const std::vector<std::string>& text, const std::vector<std::string>& pattern)
{
    std::vector<char> before(text.size() + 1, 0); // at i: the pattern so far is like the first i characters
    before[0] = 1;
    for (const std::string& p : pattern) {
        std::vector<char> now(text.size() + 1, 0);
        now[0] = p == "*" && before[0];
        for (std::size_t i = 1; i <= text.size(); ++i)
            now[i] = p == "*" ? before[i] || now[i - 1] : before[i - 1] && (p == "?" || p == text[i - 1]);
        before = now;
    }
    return before.back() != 0;
}

void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    if (from.empty())
        return;
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
}

void checkNarrow(const std::string& text, const std::string& a, const std::string& b)
{
    const xstring s(text.c_str());
    const auto characters = charactersOf(text);
    require(s == text.c_str());
    require(s.Match(a.c_str()) == matches(characters, charactersOf(a)));
    require(s.BytePos(a.c_str()) == static_cast<int>(static_cast<long>(text.find(a))));

    const int middle = static_cast<int>(characters.size() / 2);
    require(xstring(s.Substring(0, middle).CastToCString(), s.Substring(middle, -1).CastToCString()) == s);
    const int words = s.GetNWords(a.c_str());
    require(words == 0 || s.GetWord(words - 1, a.c_str()) != "");
    require(s.GetWord(words, a.c_str()) == "");

    xstring replaced(s);
    std::string expected(text);
    replaced.Substitute(a.c_str(), b.c_str(), 0, -1);
    if (text.size() < 1000)
        replaceAll(expected, a, b), require(replaced == expected.c_str());

    // The wide form is the same text, once the invalid bytes are U+FFFD.
    const xstring wide(s.CastToCWString());
    const xstring again(wide.CastToCString());
    require(again == wide && xstring(again.CastToCWString()) == wide);
    require(charactersOf(again.CastToCString()).size() == characters.size());
}

void checkWide(std::vector<unsigned short> units)
{
    units.push_back(0);
    xstring s(units.data());
    try {
        const std::size_t size = s.GetMBSize();
        const std::string narrow = s.CastToCString();
        require(size == narrow.size() + (narrow.empty() ? 1 : 2));
        require(xstring(narrow.c_str()) == units.data());
        s += narrow.c_str();
    } catch (xthrowable* e) {
        xrcrelease(e);
        require(s.GetMBSize() == 0 && s == units.data());
    }
}

// ---- changes

/// The model of a string: plain UTF-16, or nothing.
using Model = std::optional<std::u16string>;

std::string narrow(const std::u16string& text)
{
    return std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t>().to_bytes(text);
}

std::u16string textOf(Input& input, unsigned most)
{
    static const char16_t* const pieces[] = {u"a", u"b", u"ab", u"\u00E9", u"\u20AC", u"\xD83D\xDE00"};
    std::u16string text;
    for (unsigned n = input.byte() % (most + 1); n > 0; --n)
        text += pieces[input.byte() % 6];
    return text;
}

void append(Model& model, const std::u16string& text)
{
    if (!text.empty())
        model = model.value_or(u"") + text;
}

void substitute(Input& input, xstring& s, Model& model)
{
    const std::u16string from = textOf(input, 2), to = textOf(input, 3);
    const int count = static_cast<int>(input.byte() % 4) - 1;
    input.choose([&] { s.Substitute(narrow(from).c_str(), narrow(to).c_str(), 0, count); },
                 [&] { s.Substitute(WideText(from), WideText(to), 0, count); });
    std::size_t at = 0;
    for (int n = 0;
         model && !from.empty() && n != count && (at = model->find(from, at)) != std::u16string::npos; ++n) {
        model->replace(at, from.size(), to);
        at += to.size();
    }
}

/// The characters of the multibyte form, each of which is one unit or a pair, from one position to another.
void cut(Input& input, xstring& s, Model& model)
{
    const int from = static_cast<int>(input.byte() % 5), to = static_cast<int>(input.byte() % 30) - 1;
    if (!model)
        return;
    s.CastToCString();
    s = s.Substring(from, to);
    std::u16string kept;
    int index = 0;
    for (std::size_t i = 0, units = 0; i < model->size(); i += units, ++index) {
        units = ((*model)[i] & 0xFC00) == 0xD800 ? 2 : 1;
        if (index >= from && (to < 0 || index < to))
            kept += model->substr(i, units);
    }
    model = kept;
}

void change(Input& input, xstring& s, Model& model, const xstring& other, const Model& otherModel)
{
    if (model && model->size() > 10000) // by repeated substitutions
        s = nullptr, model.reset();
    const std::u16string text = textOf(input, 12);
    const std::string mb = narrow(text);
    input.choose([&] { s = mb.c_str(), model = text; }, [&] { s = WideText(text), model = text; },
                 [&] { s = other, model = otherModel; }, [&] { s += mb.c_str(), append(model, text); },
                 [&] { s += WideText(text), append(model, text); }, [&] { s += 'c', append(model, u"c"); },
                 [&] { s += static_cast<unsigned short>(u'\u00E9'), append(model, u"\u00E9"); },
                 [&] { substitute(input, s, model); }, [&] { s.CastToCString(); },
                 [&] { s.CastToCWString(); }, [&] { cut(input, s, model); },
                 [&] {
                     if (input.byte() % 4 == 0)
                         s = nullptr, model.reset();
                 });
}

/// Compares, with or without producing a form.
void compare(Input& input, const xstring& s, const Model& model)
{
    require((s == nullptr) == !model);
    if (!model)
        return;
    const std::string mb = narrow(*model);
    input.choose(
        [&] { require(s == mb.c_str() && s.GetMBSize() == mb.size() + 1); },
        [&] { require(s == WideText(*model)); }, [&] { require(s == xstring(mb.c_str())); },
        [&] { require(s.Pos(WideText(u"ab")) == static_cast<int>(static_cast<long>(model->find(u"ab")))); });
}

void checkChanges(Input input)
{
    constexpr unsigned count = 4;
    xstring strings[count];
    Model models[count];
    while (!input.ended()) {
        const unsigned changed = input.byte() % count, other = input.byte() % count;
        change(input, strings[changed], models[changed], strings[other], models[other]);
        // A change of one does not affect another, whatever they share.
        for (unsigned i = 0; i < count; ++i)
            compare(input, strings[i], models[i]);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string parts[3];
    std::size_t at = 0;
    for (std::string& part : parts) {
        part.assign(reinterpret_cast<const char*>(data) + at,
                    strnlen(reinterpret_cast<const char*>(data) + at, size - at));
        at += part.size() + (at + part.size() < size ? 1 : 0);
    }
    if (parts[1].size() * parts[0].size() < 100000)
        checkNarrow(parts[0], parts[1], parts[2]);

    std::vector<unsigned short> units(size / 2);
    if (!units.empty())
        std::memcpy(units.data(), data, units.size() * 2);
    checkWide(units);
    checkChanges(Input(data, size));
    return 0;
}
