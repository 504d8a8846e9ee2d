#include "hmxconfigfile.h"

#include <algorithm>
#include <cstring>
#include <ios>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <qel/base/lockfilebuf.h>
#include <qel/platform/pathmapping.h>
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

/// `text` with nothing for the pointers that stand for no text.
std::string_view viewOf(const char* text)
{
    return qelIsObject(text) ? text : std::string_view();
}

} // namespace

/// The entries, as bytes: a file may hold what is no text.
struct hmxConfigFile::Table
{
    using Value = std::optional<std::string>; // nothing: null

    std::map<std::string, Value, std::less<>> entries; // by the bytes of the keys

    void AddLine(std::string_view line)
    {
        const std::size_t colon = line.find(separator);
        std::string key = pressed(line.substr(0, std::min(colon, line.size())));
        if (colon == std::string_view::npos || key.empty())
            return;
        line.remove_prefix(colon + 1);
        // A file that this class has written is in order: each entry comes behind the last one.
        entries.insert_or_assign(entries.end(), std::move(key), line.empty() ? Value() : Value(line));
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
        AddLine(rest);
        return !file.HasFailed();
    }

    std::string Text() const
    {
        std::string text;
        for (const auto& [key, value] : entries) {
            text.append(key).push_back(separator);
            text.append(value ? std::string_view(*value) : nullText).push_back('\n');
        }
        return text;
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
    Close();
    fileName = path;
    modified = false;
    mode = openMode;
    std::string host;
    if (!qelIsObject(path) || !platHostPath(path, host))
        return false;
    auto buffer = std::make_unique<lockFileBuf>();
    const auto streamMode = openMode == ReadOnly ? std::ios_base::in : std::ios_base::in | std::ios_base::out;
    if (buffer->Open(host.c_str(), static_cast<int>(streamMode), newFileMode))
        return false;
    auto read = std::make_unique<Table>();
    if (!read->Read(*buffer))
        return false;
    delete table;
    table = read.release();
    lockBuffer = buffer.release();
    return true;
}

void hmxConfigFile::Close()
{
    if (lockBuffer == nullptr)
        return;
    if (modified) {
        try {
            const std::string text = table->Text();
            lockBuffer->Replace(text.data(), text.size());
        } catch (const std::bad_alloc&) {
            // The old content stays.
        }
    }
    table->entries.clear();
    delete lockBuffer;
    lockBuffer = nullptr;
}

xstring hmxConfigFile::GetValue(const char* key) const
{
    const auto found = table->entries.find(pressed(viewOf(key)));
    return found == table->entries.end() || !found->second ? xstring() : found->second->c_str();
}

bool hmxConfigFile::SetValue(const char* key, const char* value)
{
    std::string name = pressed(viewOf(key));
    if (!canChange() || name.empty() || hasLineFeed(name) || hasLineFeed(viewOf(value)))
        return false;
    table->entries.insert_or_assign(std::move(name),
                                    qelIsObject(value) ? Table::Value(value) : Table::Value());
    modified = true;
    return true;
}

bool hmxConfigFile::DeleteValue(const char* key)
{
    if (!canChange() || table->entries.erase(pressed(viewOf(key))) == 0)
        return false;
    modified = true;
    return true;
}
