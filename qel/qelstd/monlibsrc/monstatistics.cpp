#include "monstatistics.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

#include <qel/base/btkruntime.h>
#include <qel/base/btksystem.h>

#include "qelcaught.h"
#include "qelown.h"
#include "xmonlib.h"

namespace {

constexpr std::string_view suffix = ".mon";
constexpr std::size_t longestName = 64;

bool isPlain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

std::string fileNameOf(std::string name)
{
    name.resize(std::min(name.size(), longestName));
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !isPlain(c); }, '_');
    return name.empty() || name[0] == '.' ? '_' + name : name;
}

// Whether it is NAME-PROCESS-START.mon.
bool isOfProcess(std::string_view file)
{
    if (!file.ends_with(suffix))
        return false;
    file.remove_suffix(suffix.size());
    for (int number = 0; number < 2; ++number) {
        const std::size_t dash = file.rfind('-');
        if (dash == std::string_view::npos || dash + 1 == file.size() ||
            file.find_first_not_of("0123456789", dash + 1) != std::string_view::npos)
            return false;
        file = file.substr(0, dash);
    }
    return !file.empty();
}

void removeThoseOfTheDead(const std::string& folder)
{
    std::error_code failed;
    for (std::filesystem::directory_iterator at(folder, failed), end; !failed && at != end;
         at.increment(failed))
        if (isOfProcess(at->path().filename().string()))
            btkRemoveUnheld(at->path().string().c_str());
}

long long milliseconds()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

} // namespace

struct monStatistics::Inside
{
    template<class Parameter, class Value>
    struct Entry
    {
        Parameter* parameter = nullptr;
        Value written = {};
    };
    template<class Parameter, class Value>
    using Entries = std::map<std::string, Entry<Parameter, Value>, std::less<>>;

    // Calls `write(entry)` if the value has changed; `add` makes the parameter.
    template<class Parameter, class Value, class Add>
    void Write(Entries<Parameter, Value>& entries, const char* name, const Value& value, Add add)
    try {
        if (hasFailed)
            return;
        Entry<Parameter, Value>& entry = entries[name];
        if (entry.parameter != nullptr && entry.written == value)
            return;
        if (entry.parameter == nullptr)
            entry.parameter = add();
        hasFailed = entry.parameter == nullptr;
        if (hasFailed)
            return;
        if constexpr (requires { value.c_str(); })
            entry.parameter->setValue(value.c_str());
        else
            entry.parameter->setValue(value);
        entry.written = value;
    } catch (xthrowable* thrown) {
        const qel::caught released(thrown);
        hasFailed = true;
    } catch (const std::exception&) {
        hasFailed = true;
    }

    std::string path;
    qel::owned<monFile> file;
    btkFd held;
    int process = btkProcessNumber();
    bool hasFailed = false;
    Entries<monRealParam, double> numbers;
    Entries<monStringParam, std::string> texts;
};

monStatistics::monStatistics(std::unique_ptr<Inside> made) : inside(std::move(made))
{
}

std::unique_ptr<monStatistics> monStatistics::Create(const std::string& name, const std::string& title)
{
    const std::string folder = btkRuntimeFolder();
    if (folder.empty())
        return nullptr;
    removeThoseOfTheDead(folder);
    const std::string begin =
        folder + '/' + fileNameOf(name) + '-' + std::to_string(btkProcessNumber()) + '-';
    auto inside = std::make_unique<Inside>();
    long long start = milliseconds();
    // Another publisher may take the new file for a dead process's before it is held.
    for (int attempt = 0; attempt < 8; ++attempt, ++start) {
        inside->path = begin + std::to_string(start) + std::string(suffix);
        std::error_code failed;
        if (std::filesystem::exists(inside->path, failed))
            continue;
        inside->file.reset(monFile::Create(inside->path.c_str(), title.c_str()));
        if (inside->file == nullptr)
            return nullptr;
        inside->held = btkHoldFile(inside->path.c_str());
        if (inside->held && !inside->file->isReplaced())
            return std::unique_ptr<monStatistics>(new monStatistics(std::move(inside)));
    }
    return nullptr;
}

monStatistics::~monStatistics()
{
    inside->held.Reset();
    if (inside->process == btkProcessNumber())
        btkRemoveUnheld(inside->path.c_str());
}

const std::string& monStatistics::getPath() const
{
    return inside->path;
}

void monStatistics::Set(const char* name, double value)
{
    inside->Write(inside->numbers, name, value, [&] { return inside->file->Real(name); });
}

void monStatistics::Set(const char* name, const std::string& value)
{
    inside->Write(inside->texts, name, value,
                  [&] { return inside->file->String(name, static_cast<int>(value.size())); });
}
