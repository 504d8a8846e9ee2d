#include "btkcmdline.h"

#include <cstring>
#include <string_view>

namespace {

constexpr const char* blanks = " \t\r\n";

bool isBlank(char c)
{
    return c != '\0' && std::strchr(blanks, c) != nullptr;
}

// Parses a line word by word.
class Splitter
{
public:
    explicit Splitter(const char* line) : next(line) {}

    // Returns whether there is another word, and appends it. Sets `isBroken` when a quote is not closed.
    bool Read(std::string& word)
    {
        SkipBlanks();
        if (*next == '\0' || isBroken)
            return false;
        while (*next != '\0' && !isBlank(*next) && !isBroken)
            ReadPart(word);
        return true;
    }
    // The text between a quote at this position and one that ends the line.
    bool ReadQuotedRest(std::string& text)
    {
        SkipBlanks();
        const std::string_view rest(next);
        if (rest.size() < 2 || rest.front() != '"' || rest.back() != '"')
            return false;
        text = rest.substr(1, rest.size() - 2);
        return true;
    }
    bool IsBroken() const { return isBroken; }

private:
    void SkipBlanks()
    {
        while (isBlank(*next))
            ++next;
    }

    void ReadPart(std::string& word)
    {
        const char c = *next++;
        if (c == '\'')
            ReadLiteral(word);
        else if (c == '"')
            ReadQuoted(word);
        else if (c == '\\' && *next != '\0')
            word += *next++;
        else
            word += c;
    }
    void ReadLiteral(std::string& word)
    {
        const char* const end = std::strchr(next, '\'');
        isBroken = end == nullptr;
        if (!isBroken) {
            word.append(next, end);
            next = end + 1;
        }
    }
    void ReadQuoted(std::string& word)
    {
        while (*next != '"') {
            if (*next == '\\' && next[1] != '\0' && std::strchr("\"\\$`", next[1]) != nullptr)
                ++next;
            if (*next == '\0') {
                isBroken = true;
                return;
            }
            word += *next++;
        }
        ++next;
    }

    const char* next;
    bool isBroken = false;
};

} // namespace

bool btkSplitCommandLine(const char* line, std::vector<std::string>& words)
{
    words.clear();
    Splitter splitter(line);
    for (std::string word; splitter.Read(word); word.clear()) {
        words.push_back(word);
        if (words.size() == 2 && (word == "-c" || word == "/c") && splitter.ReadQuotedRest(word)) {
            words.push_back(word);
            break;
        }
    }
    if (splitter.IsBroken())
        words.clear();
    return !splitter.IsBroken();
}

std::string btkQuoteWord(const std::string& word)
{
    std::string quoted = "'";
    for (const char c : word)
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    return quoted + "'";
}
