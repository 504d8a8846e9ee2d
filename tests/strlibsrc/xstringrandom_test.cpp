#include <codecvt>
#include <gtest/gtest.h>
#include <locale>
#include <optional>
#include <random>
#include <string>

#include <qel/xstring.h>

#include "support/widetext.h"

namespace {

/// The reference model of a string: plain UTF-16, or nothing. The standard library converts.
struct Model
{
    std::optional<std::u16string> text;

    static std::string narrow(const std::u16string& text)
    {
        return std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t>().to_bytes(text);
    }
    std::u16string orEmpty() const { return text.value_or(u""); }
};

class RandomStrings : public testing::Test
{
protected:
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); }

    std::u16string randomText(int most)
    {
        static const char16_t* const pieces[] = {u"a", u"b", u"ab", u"\u00E9", u"\u20AC", u"\xD83D\xDE00"};
        std::u16string text;
        for (int n = below(most + 1); n > 0; --n)
            text += pieces[below(6)];
        return text;
    }

    /// Applies one operation to a string and its model.
    void step(xstring& s, Model& model, const xstring& other, const Model& otherModel)
    {
        const std::u16string text = randomText(12);
        const std::string mb = Model::narrow(text);
        switch (below(12)) {
        case 0:
            s = mb.c_str();
            model.text = text;
            break;
        case 1:
            s = WideText(text);
            model.text = text;
            break;
        case 2:
            s = other;
            model = otherModel;
            break;
        case 3:
            s += mb.c_str();
            append(model, text);
            break;
        case 4:
            s += WideText(text);
            append(model, text);
            break;
        case 5:
            s += 'c';
            append(model, u"c");
            break;
        case 6:
            s += static_cast<unsigned short>(u'\u00E9');
            append(model, u"\u00E9");
            break;
        case 7:
            substitute(s, model, randomText(2), randomText(3));
            break;
        case 8:
            s.CastToCString();
            break;
        case 9:
            s.CastToCWString();
            break;
        case 10:
            cut(s, model);
            break;
        case 11:
            if (below(4) == 0) {
                s = nullptr;
                model.text.reset();
            }
            break;
        }
    }

    static void append(Model& model, const std::u16string& text)
    {
        if (!text.empty())
            model.text = model.orEmpty() + text;
    }

    void substitute(xstring& s, Model& model, const std::u16string& from, const std::u16string& to)
    {
        const int count = below(4) - 1;
        if (below(2) == 0)
            s.Substitute(Model::narrow(from).c_str(), Model::narrow(to).c_str(), 0, count);
        else
            s.Substitute(WideText(from), WideText(to), 0, count);
        if (!model.text || from.empty())
            return;
        std::size_t at = 0;
        for (int n = 0; n != count && (at = model.text->find(from, at)) != std::u16string::npos; ++n) {
            model.text->replace(at, from.size(), to);
            at += to.size();
        }
    }

    void cut(xstring& s, Model& model)
    {
        if (!model.text)
            return;
        // Characters of the multibyte form, which are one unit or a pair.
        s.CastToCString();
        const int from = below(5);
        const int to = below(30) - 1;
        s = s.Substring(from, to);
        std::u16string kept;
        int index = 0;
        for (std::size_t i = 0; i < model.text->size(); ++index) {
            const std::size_t units = ((*model.text)[i] & 0xFC00) == 0xD800 ? 2 : 1;
            if (index >= from && (to < 0 || index < to))
                kept += model.text->substr(i, units);
            i += units;
        }
        model.text = kept;
    }

    /// Compares, at random with or without producing a form.
    void check(const xstring& s, const Model& model)
    {
        ASSERT_EQ(s == nullptr, !model.text);
        if (!model.text)
            return;
        const std::string mb = Model::narrow(*model.text);
        switch (below(4)) {
        case 0:
            ASSERT_EQ(s, mb.c_str());
            ASSERT_EQ(s.GetMBSize(), mb.size() + 1);
            break;
        case 1:
            ASSERT_EQ(s, WideText(*model.text));
            break;
        case 2:
            ASSERT_EQ(s, xstring(mb.c_str()));
            break;
        default:
            ASSERT_EQ(s.Pos(WideText(u"ab")), static_cast<int>(static_cast<long>(model.text->find(u"ab"))));
            break;
        }
    }

    std::mt19937 random{20240229};
};

} // namespace

TEST_F(RandomStrings, MatchReferenceModel)
{
    constexpr int strings = 4;
    xstring s[strings];
    Model model[strings];
    for (int i = 0; i < 30000; ++i) {
        const int changed = below(strings);
        const int other = below(strings);
        step(s[changed], model[changed], s[other], model[other]);
        // A change of one must not affect another, whatever they share.
        for (int k = 0; k < strings; ++k)
            check(s[k], model[k]);
        ASSERT_FALSE(HasFatalFailure()) << "step " << i;
    }
}
