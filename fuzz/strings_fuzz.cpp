// Strings against the simplest implementation of each operation. The input is split at zeros into a text and
// two arguments; as UTF-16 it is used unchanged, including unpaired surrogates.
#include <cstring>
#include <string>
#include <vector>

#include <qel/base/btkutf.h>
#include <qel/qelexception.h>
#include <qel/xstring.h>

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
    return 0;
}
