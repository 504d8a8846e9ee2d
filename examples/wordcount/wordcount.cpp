// Counts the words of files: wordcount [-p] FILE...
//
// The words go into a dictionary of the library, the most frequent ones into a sequence, and all of it into a
// class of the program's own, which -p prints through the traversal engine. Without -p the lines are those of
// wordcount_c, which does the same through the C interface.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <qel/qelprint.h>
#include <qel/qeltable.h>
#include <qel/xdictionary.h>
#include <qel/xsequence.h>

namespace {

constexpr int topCount = 20;

/// One word and how often it was met.
class Word : public virtual xobject
{
    QEL_OBJECT(Word);
    QEL_PROPERTY(xstring, Text);
    QEL_PROPERTY(int, Count);

public:
    Word(const xstring& text, int count) : Text(text), Count(count) {}
};

/// What is known of the words of a text.
class Statistics : public virtual xobject
{
    QEL_OBJECT(Statistics);

public:
    int getWords() { return words; }
    int getDistinct() { return distinct; }
    xrchandle<xanysequence> getTop() { return top; }

    void Add(const std::string& word)
    {
        int count = 0;
        counts->find(word.c_str(), &count);
        counts->set(word.c_str(), count + 1);
        ++words;
    }

    /// Sorts the counts: the most frequent words first, words of the same count in the order of their bytes.
    void Finish()
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
                              return a.first != b.first ? a.first < b.first
                                                        : std::strcmp(a.second.CastToCString(),
                                                                      b.second.CastToCString()) < 0;
                          });
        distinct = static_cast<int>(sorted.size());
        for (std::size_t i = 0; i < shown; ++i)
            top->append(xany(new Word(sorted[i].second, -sorted[i].first)));
    }

private:
    xrchandle<xintdictionary> counts = xintdictionary::create();
    xrchandle<xanysequence> top = xanysequence::create();
    int words = 0;
    int distinct = 0;
};

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

bool isWordByte(unsigned char c)
{
    return c >= 0x80 || c == '\'' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

/// Adds a run of word bytes, without the apostrophes around it.
void addWord(Statistics& statistics, const std::string& run)
{
    const std::size_t begin = run.find_first_not_of('\'');
    if (begin != std::string::npos)
        statistics.Add(run.substr(begin, run.find_last_not_of('\'') + 1 - begin));
}

void count(Statistics& statistics, std::istream& text)
{
    std::string run;
    for (int c = text.get(); c != std::char_traits<char>::eof(); c = text.get()) {
        if (isWordByte(static_cast<unsigned char>(c))) {
            run += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        } else if (!run.empty()) {
            addWord(statistics, run);
            run.clear();
        }
    }
    addWord(statistics, run);
}

void printLines(Statistics& statistics)
{
    std::printf("words %d distinct %d\n", statistics.getWords(), statistics.getDistinct());
    const xrchandle<xanysequence> top = statistics.getTop();
    for (int i = 0; i < top->getarraysize(); ++i) {
        const Word* const word = Word::cast(top->get(i));
        std::printf("%8d %s\n", word->getCount(), word->getText().CastToCString());
    }
}

} // namespace

int main(int argc, char** argv)
{
    const bool print = argc > 1 && std::strcmp(argv[1], "-p") == 0;
    const int firstFile = print ? 2 : 1;
    if (argc <= firstFile) {
        std::cerr << "usage: wordcount [-p] FILE...\n";
        return 2;
    }
    qelRegister<Word, Statistics>();

    const xrchandle<Statistics> statistics(new Statistics);
    for (int i = firstFile; i < argc; ++i) {
        errno = 0;
        std::ifstream file(argv[i], std::ios::binary);
        if (file)
            count(*statistics, file);
        if (!file.is_open() || file.bad()) {
            std::cerr << "wordcount: cannot read " << argv[i] << ": " << std::strerror(errno) << '\n';
            return 1;
        }
    }
    statistics->Finish();
    if (print) {
        qelPrint(statistics, std::cout, 2);
        std::cout << std::endl;
    } else {
        printLines(*statistics);
    }
}
