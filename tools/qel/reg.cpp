// qel reg: the registry.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/hmxregistry.h>
#include <qel/netrights.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "commands.h"
#include "files.h"

namespace {

struct RegChoices
{
    bool system = false;
    bool user = false;
    std::string key;
    std::string name;
    std::string value;
    bool all = false; // including everything below
};

constexpr std::string_view rightsKey = "software\\vrx\\"; // compared in lower case; the server's name follows
constexpr const char* rightsValue = "connectionallowed";

hmxRegistryKey& rootOf(const RegChoices& choices)
{
    return (choices.system ? hmxRegistry::System() : hmxRegistry::User()).root;
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

/// The root itself is written as "\", or left out.
bool isRoot(const std::string& key)
{
    return key.empty() || key == "\\";
}

/// Ends the program for arguments that are not valid names of a key or value. `sets`: the value is to be set.
void checkNames(const RegChoices& choices, bool sets)
{
    const hmxRegistryKey& root = rootOf(choices);
    const bool isOfRights = lower(choices.key).starts_with(rightsKey) && lower(choices.name) == rightsValue;
    const std::string server = isOfRights ? choices.key.substr(rightsKey.size()) : std::string();
    if (sets && isOfRights && !IsConnectionRestrictable(server.c_str()))
        Fail(Exit::usage, server,
             "no rights can be set for a server whose name holds one of / . : * ?: it admits everybody");
    if (!root.IsKeyValid(choices.key.c_str()))
        Fail(Exit::usage, choices.key, "a key cannot contain / . : * ? (\\ separates its parts)");
    if (!root.IsNameValid(choices.name.c_str()))
        Fail(Exit::usage, choices.name, "the name of a value cannot contain \\ / . : * ?");
}

/// The key chosen by the options, which must exist.
hmxRegistryKey openedKey(const RegChoices& choices)
{
    hmxRegistryKey key = rootOf(choices);
    if (isRoot(choices.key) || key.Open(key, choices.key.c_str()))
        return key;
    if (GetLastError() == ERROR_FILE_NOT_FOUND)
        Fail(Exit::no, choices.key, "no such key; `qel reg list --all` prints all");
    FailForLastError(choices.key);
}

/// The name of a value in a failure report.
std::string nameOf(const RegChoices& choices)
{
    const std::string name = choices.name.empty() ? "(the value without a name)" : choices.name;
    return isRoot(choices.key) ? name : choices.key + ", " + name;
}

[[noreturn]] void failForValue(const RegChoices& choices)
{
    if (GetLastError() == ERROR_FILE_NOT_FOUND)
        Fail(Exit::no, nameOf(choices), "no such value; `qel reg list` prints all");
    FailForLastError(nameOf(choices));
}

/// The names in a list.
std::vector<std::string> namesIn(const xrchandle<xstringsequence>& list, const std::string& key)
{
    if (!list)
        FailForLastError(key);
    std::vector<std::string> names;
    for (const xstring& name : *list)
        names.emplace_back(name.view());
    return names;
}

// ---- completion

constexpr std::size_t mostOffered = 1000;

void addKeysBelow(const hmxRegistryKey& key, const std::string& path, std::vector<std::string>& paths)
{
    for (const std::string& name : namesIn(key.ListSubkeys(), path)) {
        hmxRegistryKey sub(key);
        if (paths.size() >= mostOffered || !sub.Open(sub, name.c_str()))
            continue;
        paths.push_back(path.empty() ? name : path + '\\' + name);
        addKeysBelow(sub, std::string(paths.back()), paths);
    }
}

hmxRegistryKey rootOf(const Typed& typed)
{
    return (typed.options.contains("--system") ? hmxRegistry::System() : hmxRegistry::User()).root;
}

std::vector<std::string> knownKeys(const Typed& typed)
{
    std::vector<std::string> paths;
    addKeysBelow(rootOf(typed), "", paths);
    return paths;
}

/// The shells remove the backslashes from the typed text.
std::string withoutBackslashes(std::string path)
{
    std::erase(path, '\\');
    return lower(path);
}

std::vector<std::string> knownValues(const Typed& typed)
{
    hmxRegistryKey key = rootOf(typed);
    const std::string wanted = withoutBackslashes(typed.arguments.front());
    if (wanted.empty())
        return namesIn(key.ListValues(), {});
    for (const std::string& path : knownKeys(typed))
        if (withoutBackslashes(path) == wanted && key.Open(key, path.c_str()))
            return namesIn(key.ListValues(), path);
    return {};
}

// ---- the commands

void runGet(const RegChoices& choices)
{
    checkNames(choices, false);
    const xstring value = openedKey(choices).GetValue(choices.name.c_str());
    if (value == nullptr)
        failForValue(choices);
    Show(value.CastToCString(), [](const Json& found) {
        const std::string text = found;
        return (btkIsTerminal(1) ? Printable(text) : text) + '\n';
    });
}

void runSet(const RegChoices& choices)
{
    checkNames(choices, true);
    hmxRegistryKey key = rootOf(choices);
    if ((!isRoot(choices.key) && !key.Create(key, choices.key.c_str())) ||
        !key.SetValue(choices.name.c_str(), choices.value.c_str()))
        Fail(Exit::peer, nameOf(choices), "not set: " + LastErrorText());
}

void deleteKey(hmxRegistryKey& parent, const std::string& name, const std::string& path, bool all)
{
    if (all) {
        hmxRegistryKey key;
        if (!key.Open(parent, name.c_str()))
            FailForLastError(path);
        for (const std::string& sub : namesIn(key.ListSubkeys(), path))
            deleteKey(key, sub, path + '\\' + sub, true);
    }
    if (parent.DeleteSubkey(name.c_str()))
        return;
    const unsigned error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND)
        Fail(Exit::no, path, "no such key; `qel reg list --all` prints all");
    hmxRegistryKey key;
    if (error == ERROR_ACCESS_DENIED && key.Open(parent, name.c_str()) &&
        !namesIn(key.ListSubkeys(), path).empty())
        Fail(Exit::no, path, "has subkeys; --all deletes them too");
    if (error == ERROR_DIR_NOT_EMPTY)
        Fail(Exit::no, path, "its folder holds files or links that are not the registry's");
    SetLastError(error);
    FailForLastError(path);
}

void runDelete(const RegChoices& choices, bool ofValue)
{
    checkNames(choices, false);
    if (ofValue) {
        if (!openedKey(choices).DeleteValue(choices.name.c_str()))
            failForValue(choices);
        return;
    }
    if (isRoot(choices.key))
        Fail(Exit::usage, "key", "the root cannot be deleted");
    std::string path = choices.key;
    if (path.ends_with('\\'))
        path.pop_back();
    RegChoices parent = choices;
    const std::size_t separator = path.rfind('\\');
    parent.key = separator == std::string::npos ? "" : path.substr(0, separator);
    hmxRegistryKey opened = openedKey(parent);
    deleteKey(opened, path.substr(separator + 1), path, choices.all);
}

/// A key's values, and the names of its subkeys, or everything below it.
Json contentsOf(const hmxRegistryKey& key, const std::string& path, bool all)
{
    Json values = Json::object();
    for (const std::string& name : namesIn(key.ListValues(), path)) {
        const xstring value = key.GetValue(name.c_str());
        values[name] = value == nullptr ? Json() : Json(value.CastToCString());
    }
    const std::vector<std::string> names = namesIn(key.ListSubkeys(), path);
    if (!all)
        return {{"values", values}, {"keys", names}};
    Json keys = Json::object();
    for (const std::string& name : names) {
        hmxRegistryKey sub(key);
        if (sub.Open(sub, name.c_str())) // else it has been deleted meanwhile
            keys[name] = contentsOf(sub, path + '\\' + name, true);
    }
    return {{"values", values}, {"keys", keys}};
}

/// A line for each key and value, those of a subkey further right.
std::string contentLines(const Json& contents, std::size_t indent)
{
    const std::string margin(indent, ' ');
    std::string lines;
    for (const auto& [name, value] : contents["values"].items())
        lines += margin + (name.empty() ? "(no name)" : Printable(name)) +
                 (value.is_null() ? " (no text)" : " = " + Printable(value.get<std::string>())) + '\n';
    for (const auto& [name, sub] : contents["keys"].items()) {
        const bool deep = sub.is_object();
        lines += margin + Printable(deep ? name : sub.get<std::string>()) + "\\\n";
        if (deep)
            lines += contentLines(sub, indent + 2);
    }
    return lines;
}

void runList(const RegChoices& choices)
{
    checkNames(choices, false);
    Show(contentsOf(openedKey(choices), choices.key, choices.all),
         [](const Json& contents) { return contentLines(contents, 0); });
}

void addRoots(CLI::App& command, RegChoices& choices)
{
    CLI::Option* const system = command.add_flag("--system", choices.system, "Under the root of the system");
    command.add_flag("--user", choices.user, "Under the root of the user (default)")->excludes(system);
}

CLI::Option& addKey(CLI::App& command, RegChoices& choices)
{
    CLI::Option& key =
        *command.add_option("key", choices.key, "The key, such as 'Software\\VRX'; '\\' is the root")
             ->type_name("KEY");
    Offer(key, &knownKeys);
    return key;
}

CLI::Option& addName(CLI::App& command, RegChoices& choices)
{
    CLI::Option& name = *command.add_option("name", choices.name, "The name of the value; it may be empty")
                             ->type_name("NAME");
    Offer(name, &knownValues);
    return name;
}

} // namespace

void AddRegistryCommands(CLI::App& program)
{
    CLI::App& group = AddGroup(
        program, "reg",
        "The registry: keys that hold named values, below a root of the system and one of the user",
        {{"qel reg list --all", "Everything below the user's root, as a tree."},
         {"qel reg get 'Software\\VRX\\files' ConnectionAllowed",
          "The addresses that may connect to the server \"files\"."},
         {"qel reg set --system 'Software\\VRX\\files' ConnectionAllowed '10.1.* 10.2.0.5'",
          "Only these machines may connect."},
         {"qel reg delete --system 'Software\\VRX\\files' ConnectionAllowed", "Every machine may connect."},
         {"qel reg delete --all 'Software\\Old'", "Remove a key with everything below it."}});
    const auto choices = std::make_shared<RegChoices>();

    CLI::App& get = AddCommand(group, "get", "Print a value; the answer is no when there is none",
                               [choices] { runGet(*choices); });
    addRoots(get, *choices);
    addKey(get, *choices).required();
    addName(get, *choices).required();
    OfferJson(get, "a text");

    CLI::App& set = AddCommand(group, "set", "Change or add a value; a missing key is created",
                               [choices] { runSet(*choices); });
    addRoots(set, *choices);
    addKey(set, *choices).required();
    addName(set, *choices).required();
    set.add_option("value", choices->value, "The value, a text")->type_name("VALUE")->required();

    CLI::App& remove = AddCommand(group, "delete", "Remove a value, or a key with its values", nullptr);
    addRoots(remove, *choices);
    addKey(remove, *choices).required();
    CLI::Option* const name = &addName(remove, *choices);
    name->description("The name of the value to remove (default: the key is removed)");
    remove.add_flag("--all", choices->all, "Remove everything below the key, too")->excludes(name);
    remove.callback([choices, name] { runDelete(*choices, name->count() > 0); });

    CLI::App& list =
        AddCommand(group, "list", "Print the values of a key, and its subkeys (with \\ at the end)",
                   [choices] { runList(*choices); });
    addRoots(list, *choices);
    addKey(list, *choices);
    list.add_flag("--all", choices->all, "Print everything below the key, as a tree");
    OfferJson(
        list,
        "an object: values, an object with a member for each value (null: no text); keys, a list of the names, or "
        "with --all an object with such an object for each key");
}
