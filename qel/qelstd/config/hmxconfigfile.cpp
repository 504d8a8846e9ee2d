#include "hmxconfigfile.h"

#include <algorithm>
#include <ios>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <qel/base/btkpath.h>
#include <qel/base/lockfilebuf.h>
#include <qel/platform/errortable.h>
#include <qel/xobject.h>

namespace {

constexpr char separator = ':';
constexpr const char* nullText = "nil";
constexpr int newFileMode = 0644;

std::string pressed(std::string_view key)
{
    std::string result(key);
    std::erase_if(result, [](char c) { return c == ' ' || c == '\t'; });
    return result;
}

bool hasLineFeed(std::string_view text)
{
    return text.find('\n') != std::string_view::npos;
}

/// `text`, empty for the pointers that mean no text.
std::string_view viewOf(const char* text)
{
    return qelIsObject(text) ? text : std::string_view();
}

/// Opens `path` and waits for its lock. Null when that fails, with the last error set.
std::unique_ptr<lockFileBuf> openLocked(const char* path, hmxConfigFile::OpenMode mode, btkTimeval limit)
{
    std::string host;
    if (!platDone(btkHostPath(qelIsObject(path) ? path : nullptr, host)))
        return nullptr;
    auto buffer = std::make_unique<lockFileBuf>();
    const auto streamMode =
        mode == hmxConfigFile::ReadOnly ? std::ios_base::in : std::ios_base::in | std::ios_base::out;
    if (!buffer->Open(host.c_str(), static_cast<int>(streamMode), newFileMode, limit))
        return buffer;
    platFailOn(host);
    return nullptr;
}

/// Collects the oddities of lines.
class Oddities
{
public:
    void AddLine(std::string_view line)
    {
        starts.push_back(texts.size());
        texts.append(line).push_back('\0');
    }

    /// About the line that was added last.
    void Add(hmxConfigOddity oddity) { found.push_back({CurrentLine(), oddity, 0}); }
    /// About a line before it.
    void AddOverridden(long long line) { found.push_back({line, hmxOverridden, CurrentLine()}); }

    void Tell(hmxConfigOddityHandler& handler)
    {
        std::stable_sort(found.begin(), found.end(),
                         [](const Found& a, const Found& b) { return a.line < b.line; });
        // A key in several lines: the last one overrides the others.
        std::map<long long, long long> last;
        // NOLINTNEXTLINE(modernize-loop-convert): clang 14 cannot compile the ranges of this C++ library
        for (auto at = found.rbegin(); at != found.rend(); ++at)
            if (at->oddity == hmxOverridden) {
                const auto further = last.find(at->later);
                last[at->line] = at->later = further == last.end() ? at->later : further->second;
            }
        for (const Found& each : found)
            handler.Invoke(each.oddity, each.line,
                           texts.c_str() + starts[static_cast<std::size_t>(each.line - 1)], each.later);
    }

    long long CurrentLine() const { return static_cast<long long>(starts.size()); }

private:
    struct Found
    {
        long long line;
        hmxConfigOddity oddity;
        long long later;
    };

    std::string texts; // of all lines, each ended by a zero byte
    std::vector<std::size_t> starts;
    std::vector<Found> found;
};

} // namespace

/// The entries, as bytes: a file may hold bytes that are not text.
struct hmxConfigFile::Table
{
    struct Entry
    {
        std::optional<std::string> value; // nothing: null
        long long line = 0;               // its position, or the order of adding
        long long offset = -1;            // in the file, if it was read from there
    };

    std::map<std::string, Entry, std::less<>> entries; // by the bytes of the keys
    long long lines = 0;
    long long bytes = 0;          // of the lines that were read
    Oddities* oddities = nullptr; // null: not wanted

    void AddLine(std::string_view line)
    {
        ++lines;
        const long long offset = std::exchange(bytes, bytes + static_cast<long long>(line.size()) + 1);
        if (oddities != nullptr)
            oddities->AddLine(line);
        const std::size_t colon = line.find(separator);
        if (colon == std::string_view::npos)
            return note(hmxNoColon);
        std::string key = pressed(line.substr(0, colon));
        if (key.empty())
            return note(hmxNoKey);
        const std::string_view value = line.substr(colon + 1);
        if (oddities != nullptr)
            noteOddities(key, colon, value);
        // A file written by this class is sorted: each entry comes behind the last one.
        entries.insert_or_assign(
            entries.end(), std::move(key),
            Entry{value.empty() ? std::optional<std::string>() : std::string(value), lines, offset});
    }

    /// Sets or adds an entry that is not a line of the file.
    void Set(std::string key, std::optional<std::string> value)
    {
        const auto [at, added] = entries.try_emplace(std::move(key));
        at->second.value = std::move(value);
        if (added) {
            at->second.line = ++lines;
            forgetIndex();
        }
    }

    /// False when there is none.
    bool Delete(const std::string& key)
    {
        forgetIndex();
        return entries.erase(key) != 0;
    }

    /// Null when there is none.
    const Entry* Find(const std::string& key)
    {
        if (index.empty() && ++finds * 8 > entries.size() + 100) {
            decltype(index) made(entries.size());
            for (const auto& [name, entry] : entries)
                made.emplace(name, &entry);
            index.swap(made);
        }
        if (!index.empty()) {
            const auto found = index.find(key);
            return found == index.end() ? nullptr : found->second;
        }
        const auto found = entries.find(key);
        return found == entries.end() ? nullptr : &found->second;
    }

    void Clear()
    {
        forgetIndex();
        entries.clear();
    }

    /// False when not everything could be read.
    bool Read(lockFileBuf& file)
    {
        std::string rest; // a line that has not ended yet
        std::string block(65536, '\0');
        std::streamsize size;
        while ((size = file.sgetn(block.data(), static_cast<std::streamsize>(block.size()))) > 0) {
            std::string_view unread(block.data(), static_cast<std::size_t>(size));
            for (std::size_t end; (end = unread.find('\n')) != std::string_view::npos;
                 unread.remove_prefix(end + 1)) {
                if (rest.empty()) {
                    AddLine(unread.substr(0, end));
                    continue;
                }
                AddLine(rest.append(unread, 0, end));
                rest.clear();
            }
            rest.append(unread);
        }
        if (!rest.empty()) {
            AddLine(rest);
            note(hmxNoLineEnd);
        }
        return !file.HasFailed();
    }

    std::string Text() const
    {
        std::string text;
        for (const auto& [key, entry] : entries) {
            text.append(key).push_back(separator);
            text.append(entry.value ? std::string_view(*entry.value) : nullText).push_back('\n');
        }
        return text;
    }

private:
    // For those who find often: a large tree costs a cache miss a level. Made after as many finds as pay for it, and
    // forgotten when a key comes or goes.
    std::unordered_map<std::string_view, const Entry*> index;
    std::size_t finds = 0; // since then

    void forgetIndex()
    {
        if (!index.empty())
            decltype(index)().swap(index); // an empty one with many buckets takes time to clear
        finds = 0;
    }

    void note(hmxConfigOddity oddity) const
    {
        if (oddities != nullptr)
            oddities->Add(oddity);
    }

    /// Checks an entry that is not in the table yet; its colon is at byte `colon` of its line.
    void noteOddities(const std::string& key, std::size_t colon, std::string_view value) const
    {
        if (const auto earlier = entries.find(key); earlier != entries.end())
            oddities->AddOverridden(earlier->second.line);
        if (key.size() != colon)
            note(hmxBlanksInKey);
        if (value.empty())
            note(hmxNoValue);
        if (value.ends_with('\r'))
            note(hmxCarriageReturn);
        if (key.find('\0') != std::string::npos || value.find('\0') != std::string_view::npos)
            note(hmxZeroByte);
    }
};

hmxConfigFile::hmxConfigFile() : table(new Table)
{
}

hmxConfigFile::~hmxConfigFile()
{
    Close();
    delete table;
}

bool hmxConfigFile::Open(const char* path, OpenMode openMode)
{
    return openWithin(path, openMode, btkTimeval::Forever());
}

bool hmxConfigFile::Open(const char* path, OpenMode openMode, double limit)
{
    return openWithin(path, openMode, btkTimeval(limit));
}

bool hmxConfigFile::openWithin(const char* path, OpenMode openMode, btkTimeval limit)
{
    Close();
    fileName = path;
    modified = false;
    mode = openMode;
    auto buffer = openLocked(path, openMode, limit);
    if (buffer == nullptr)
        return false;
    auto read = std::make_unique<Table>();
    if (!read->Read(*buffer)) {
        platFail();
        return false;
    }
    delete table;
    table = read.release();
    lockBuffer = buffer.release();
    return true;
}

void hmxConfigFile::Close()
{
    CloseChecked();
}

bool hmxConfigFile::CloseChecked()
{
    if (lockBuffer == nullptr)
        return true;
    bool kept = true;
    if (modified) {
        try {
            const std::string text = table->Text();
            kept = !lockBuffer->Replace(text.data(), text.size());
            if (!kept)
                platFail();
        } catch (const std::bad_alloc&) {
            kept = false; // the old content stays
            platFailWith(ERROR_NOT_ENOUGH_MEMORY);
        }
    }
    table->Clear();
    delete lockBuffer;
    lockBuffer = nullptr;
    return kept;
}

xstring hmxConfigFile::GetValue(const char* key) const
{
    const Table::Entry* const found = table->Find(pressed(viewOf(key)));
    return found == nullptr || !found->value ? xstring() : found->value->c_str();
}

long long hmxConfigFile::GetOffset(const char* key) const
{
    const Table::Entry* const found = table->Find(pressed(viewOf(key)));
    return found == nullptr ? -1 : found->offset;
}

bool hmxConfigFile::SetValue(const char* key, const char* value)
{
    std::string name = pressed(viewOf(key));
    if (!canChange() || name.empty() || hasLineFeed(name) || hasLineFeed(viewOf(value)))
        return false;
    table->Set(std::move(name), qelIsObject(value) ? std::optional<std::string>(value) : std::nullopt);
    modified = true;
    return true;
}

bool hmxConfigFile::DeleteValue(const char* key)
{
    if (!canChange() || !table->Delete(pressed(viewOf(key))))
        return false;
    modified = true;
    return true;
}

xrchandle<xstringsequence> hmxConfigFile::GetKeys() const
{
    std::vector<std::pair<long long, const std::string*>> inOrder;
    inOrder.reserve(table->entries.size());
    for (const auto& [key, entry] : table->entries)
        inOrder.emplace_back(entry.line, &key);
    std::sort(inOrder.begin(), inOrder.end());
    xrchandle<xstringsequence> keys(xstringsequence::create());
    for (const auto& [line, key] : inOrder)
        keys->append(key->c_str());
    return keys;
}

bool hmxConfigFile::Check(const char* path, hmxConfigOddityHandler& handler)
{
    return checkWithin(path, handler, btkTimeval::Forever());
}

bool hmxConfigFile::Check(const char* path, hmxConfigOddityHandler& handler, double limit)
{
    return checkWithin(path, handler, btkTimeval(limit));
}

bool hmxConfigFile::checkWithin(const char* path, hmxConfigOddityHandler& handler, btkTimeval limit)
{
    Oddities oddities;
    {
        const auto buffer = openLocked(path, ReadOnly, limit);
        if (buffer == nullptr)
            return false;
        Table table;
        table.oddities = &oddities;
        if (!table.Read(*buffer)) {
            platFail();
            return false;
        }
    }
    oddities.Tell(handler);
    return true;
}

xrchandle<xintsequence> hmxConfigFile::GetHolders(const char* path)
{
    xrchandle<xintsequence> holders(xintsequence::create());
    std::string host;
    if (platDone(btkHostPath(qelIsObject(path) ? path : nullptr, host)))
        for (const int process : lockFileBuf::GetHolders(host.c_str()))
            holders->append(process);
    return holders;
}
