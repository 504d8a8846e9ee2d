#include "statistics.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

constinit qelClass Word::rtti = {
    .name = "wordcount::Word",
    .counted = true,
    .attrs = {QEL_ATTR(Text), QEL_ATTR(Count)},
};

constinit qelClass Statistics::rtti = {
    .name = "wordcount::Statistics",
    .counted = true,
    .attrs = {QEL_ATTR(Words), QEL_ATTR(Distinct), QEL_ATTR(Top)},
};

namespace {

constexpr int topCount = 20;

bool isWordByte(unsigned char c)
{
    return c >= 0x80 || c == '\'' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

} // namespace

void Statistics::Add(const std::string& word)
{
    int count = 0;
    counts->find(word.c_str(), &count);
    counts->set(word.c_str(), count + 1);
    ++words;
}

/// Adds a run of word bytes, without the apostrophes around it.
void Statistics::AddRun(const std::string& run)
{
    const std::size_t begin = run.find_first_not_of('\'');
    if (begin != std::string::npos)
        Add(run.substr(begin, run.find_last_not_of('\'') + 1 - begin));
}

void Statistics::Count(std::istream& text)
{
    std::string run;
    for (int c = text.get(); c != std::char_traits<char>::eof(); c = text.get()) {
        if (isWordByte(static_cast<unsigned char>(c))) {
            run += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        } else if (!run.empty()) {
            AddRun(run);
            run.clear();
        }
    }
    AddRun(run);
}

void Statistics::Finish()
{
    std::vector<std::pair<int, xstring>> sorted;
    for (int slot = 0; slot < counts->getarraysize(); ++slot) {
        xstring key;
        int count = 0;
        if (counts->getkeybyindex(slot, &key) && counts->getbyindex(slot, &count))
            sorted.emplace_back(-count, key);
    }
    const auto shown = std::min(sorted.size(), std::size_t{topCount});
    std::partial_sort(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(shown), sorted.end(),
                      [](const auto& a, const auto& b) {
                          return a.first != b.first
                                     ? a.first < b.first
                                     : std::strcmp(a.second.CastToCString(), b.second.CastToCString()) < 0;
                      });
    distinct = static_cast<int>(sorted.size());
    for (std::size_t i = 0; i < shown; ++i)
        top->append(qel::make<Word>(sorted[i].second, -sorted[i].first));
}

void Statistics::PrintLines()
{
    std::printf("words %d distinct %d\n", words, distinct);
    for (int i = 0; i < top->getarraysize(); ++i) {
        const Word* const word = Word::cast(top->get(i));
        std::printf("%8d %s\n", word->getCount(), word->getText().CastToCString());
    }
}
