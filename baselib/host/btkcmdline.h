#pragma once

#include <string>
#include <vector>

#include <qel/base/baseexport.h>

/// Splits a command line into a program's arguments, as a shell does: blanks, tabs and line feeds separate
/// words; `'...'` takes everything literally; in `"..."` a backslash makes `"`, `\`, `$` and a back quote
/// literal; elsewhere it makes the next character literal. Nothing else has a meaning: no variables, patterns
/// or redirections.
///
/// A line of the form `PROGRAM -c "..."` (or `/c`), whose last character is the closing quote, has three
/// words: everything between the outer quotes is the third, unchanged, inner quotes included. So a shell's
/// command line stays in one piece.
///
/// False, with `words` empty, when a quote is not closed. A line of blanks has no words.
BASE_API bool btkSplitCommandLine(const char* line, std::vector<std::string>& words);

/// Returns `word` in a form that btkSplitCommandLine, and a shell, read as this one word.
BASE_API std::string btkQuoteWord(const std::string& word);
