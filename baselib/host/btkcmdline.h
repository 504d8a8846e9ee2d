#pragma once

#include <string>
#include <vector>

#include <qel/base/baseexport.h>

/// Splits a command line into the words that a program is started with, as a shell does: blanks, tabs and
/// line feeds part words; `'...'` takes everything as it is; in `"..."` a backslash takes `"`, `\`, `$` and a
/// back quote as they are; elsewhere it takes the next character so. Nothing else has a meaning: no
/// variables, patterns or redirections.
///
/// A line of the form `PROGRAM -c "..."` (or `/c`), whose last character is the closing quote, has three
/// words: all between the outer quotes is the third, unchanged, quotes in it included. So a line for a shell
/// is not taken apart.
///
/// False, with `words` empty, when a quote is not closed. A line of blanks has no words.
BASE_API bool btkSplitCommandLine(const char* line, std::vector<std::string>& words);

/// `word` in a form that btkSplitCommandLine, and a shell, read as this one word.
BASE_API std::string btkQuoteWord(const std::string& word);
