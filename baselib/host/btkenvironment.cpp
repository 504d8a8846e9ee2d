#include "btkenvironment.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <list>
#include <mutex>
#include <new>
#include <set>
#include <shared_mutex>
#include <sys/auxv.h>
#include <unistd.h>

namespace {

struct State
{
    std::shared_mutex guard;
    std::atomic<std::uint64_t> changes = 0;
    // Each "NAME=value" that Set has put into a table.
    std::set<std::string> texts;
    // The last one is in force unless other code replaced it.
    std::list<std::vector<char*>> tables;
};

State& state()
{
    // Never freed: read while the process exits.
    static State* const only = new State;
    return *only;
}

std::size_t countEntries()
{
    std::size_t count = 0;
    while (environ != nullptr && environ[count] != nullptr)
        ++count;
    return count;
}

// An entry is read once: unsetenv in another thread moves the later ones down.
const char* textAt(char** entry)
{
    return std::atomic_ref(*entry).load(std::memory_order_acquire);
}

struct Found
{
    char** entry = nullptr;
    const char* text = nullptr;
};

/// Returns the table entry of the variable `name` and its text, or nulls.
Found find(std::string_view name)
{
    for (char** entry = environ; entry != nullptr; ++entry) {
        const char* const text = textAt(entry);
        if (text == nullptr)
            break;
        if (std::strncmp(text, name.data(), name.size()) == 0 && text[name.size()] == '=')
            return {entry, text};
    }
    return {};
}

/// Returns an entry for one more variable at the end of the table. The next entry is null already, so that
/// readers without the lock always find an end.
char** newPlace(State& all)
{
    const std::size_t count = countEntries();
    if (all.tables.empty() || environ != all.tables.back().data() || count + 2 > all.tables.back().size()) {
        std::vector<char*> larger(2 * count + 16);
        std::copy_n(environ, count, larger.begin());
        all.tables.push_back(std::move(larger));
        std::atomic_ref(environ).store(all.tables.back().data(), std::memory_order_release);
    }
    return environ + count;
}

} // namespace

bool btkEnvironment::Get(const char* name, std::string& value)
{
    if (name == nullptr)
        return false;
    const std::string_view wanted = name;
    const std::shared_lock lock(state().guard);
    const char* const text = find(wanted).text;
    if (text != nullptr)
        value = text + wanted.size() + 1;
    return text != nullptr;
}

bool btkEnvironment::GetTrusted(const char* name, std::string& value)
{
    return getauxval(AT_SECURE) == 0 && Get(name, value);
}

bool btkEnvironment::Set(const char* name, const char* value)
{
    if (name == nullptr || value == nullptr || *name == '\0' || std::strchr(name, '=') != nullptr)
        return false;
    try {
        State& all = state();
        const std::lock_guard lock(all.guard);
        const std::string& text = *all.texts.insert(std::string(name) + '=' + value).first;
        char** entry = find(name).entry;
        if (entry == nullptr)
            entry = newPlace(all);
        std::atomic_ref(*entry).store(const_cast<char*>(text.c_str()), std::memory_order_release);
        all.changes.fetch_add(1, std::memory_order_release);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

std::vector<std::string> btkEnvironment::WithPrefix(std::string_view prefix)
{
    std::vector<std::string> found;
    const std::shared_lock lock(state().guard);
    for (char** entry = environ; entry != nullptr; ++entry) {
        const char* const text = textAt(entry);
        if (text == nullptr)
            break;
        if (std::string_view(text).starts_with(prefix))
            found.emplace_back(text);
    }
    return found;
}

std::vector<char*> btkEnvironment::ForProgram()
{
    const std::shared_lock lock(state().guard);
    std::vector<char*> table(environ, environ + countEntries());
    table.push_back(nullptr);
    return table;
}

std::uint64_t btkEnvironment::Changes()
{
    return state().changes.load(std::memory_order_acquire);
}
