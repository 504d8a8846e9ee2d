#pragma once

#include <istream>
#include <string>

#include <qel/qeltable.h>
#include <qel/xdictionary.h>
#include <qel/xsequence.h>

// The words of a text, as classes that a program registers with the library.

/// A word and its count.
class Word : public virtual xobject
{
    QEL_OBJECT(Word);
    QEL_PROPERTY(xstring, Text);
    QEL_PROPERTY(int, Count);

public:
    Word(const xstring& text, int count) : Text(text), Count(count) {}
};

/// Statistics of the words of a text.
class Statistics : public virtual xobject
{
    QEL_OBJECT(Statistics);

public:
    int getWords() { return words; }
    int getDistinct() { return distinct; }
    xrchandle<xanysequence> getTop() { return top; }

    /// Counts the words of a text.
    void Count(std::istream& text);
    /// Sorts the counts: the most frequent words first, words of the same count in the order of their bytes.
    void Finish();
    /// Prints a line for the whole and one for each word at the top.
    void PrintLines();

private:
    void Add(const std::string& word);
    void AddRun(const std::string& run);

    xrchandle<xintdictionary> counts = xintdictionary::make();
    xrchandle<xanysequence> top = xanysequence::make();
    int words = 0;
    int distinct = 0;
};
