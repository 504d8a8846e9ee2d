// qel conf: configuration files.
#include <algorithm>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/base/btkfilepart.h>
#include <qel/base/btkfilewatch.h>
#include <qel/filelib.h>
#include <qel/hmxconfigfile.h>
#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>

#include "commands.h"
#include "files.h"
#include "watching.h"

namespace {

struct ConfChoices
{
    std::string file;
    std::vector<std::string> files;
    std::string key;
    std::vector<std::string> keys;
    std::string value;
    std::optional<std::string> fallback;
    bool drop = false;
    std::optional<double> limit; // in seconds; none: without limit
    double interval = 1;         // in seconds
    int changes = 0;             // 0: until a signal
    bool asJson = false;
};

std::string withoutBlanks(const std::string& key)
{
    xstring pressed(key.c_str());
    StrPress(pressed);
    return pressed.CastToCString();
}

/// " by process 4711 (editor)", and so on; nothing when the process is unknown.
std::string holdersOf(const std::string& path)
{
    std::string text;
    const xrchandle<xintsequence> holders = hmxConfigFile::GetHolders(PathOf(path).c_str());
    for (int i = 0; i < holders->getarraysize(); ++i) {
        const std::string process = std::to_string(holders->get(i));
        std::string name;
        std::getline(std::ifstream("/proc/" + process + "/comm"), name);
        text += (text.empty() ? " by process " : ", ") + process;
        if (!name.empty())
            text += " (" + Printable(name) + ')';
    }
    return text;
}

[[noreturn]] void failToOpen(const std::string& path)
{
    if (GetLastError() == ERROR_ACCESS_DENIED && fshIsDirectory(PathOf(path).c_str()) == 1)
        Fail(Exit::no, path, "is a directory");
    if (GetLastError() == ERROR_LOCK_VIOLATION)
        Fail(Exit::peer, path, "is in use" + holdersOf(path));
    FailForLastError(path);
}

/// Calls `open` with the seconds that it may wait for the lock. After one second, reports the holders of the
/// file. False when it cannot be opened.
bool openInTurn(const std::string& path, const ConfChoices& choices, const std::function<bool(double)>& open)
{
    constexpr double patience = 1, longest = 1e9;
    const double limit = choices.limit.value_or(longest);
    if (open(std::min(limit, patience)))
        return true;
    if (GetLastError() != ERROR_LOCK_VIOLATION || limit <= patience)
        return false;
    std::cerr << Printable(path) << " is in use" << holdersOf(path) << "; waiting" << std::endl;
    return open(limit - patience);
}

void openFile(hmxConfigFile& file, const ConfChoices& choices, hmxConfigFile::OpenMode mode)
{
    if (!openInTurn(choices.file, choices,
                    [&](double limit) { return file.Open(PathOf(choices.file).c_str(), mode, limit); }))
        failToOpen(choices.file);
}

bool runCheck(const std::string& path, const ConfChoices& choices, hmxConfigOddityHandler& handler)
{
    return openInTurn(path, choices, [&](double limit) {
        return hmxConfigFile::Check(PathOf(path).c_str(), handler, limit);
    });
}

void closeFile(hmxConfigFile& file, const std::string& path)
{
    if (!file.CloseChecked())
        Fail(Exit::peer, path, "not changed: " + LastErrorText());
}

Json valueOf(const hmxConfigFile& file, const char* key)
{
    const xstring value = file.GetValue(key);
    return value == nullptr ? Json() : Json(value.CastToCString());
}

/// All entries in the order of their lines.
Json entriesOf(const hmxConfigFile& file)
{
    Json entries = Json::object();
    const xrchandle<xstringsequence> keys = file.GetKeys();
    for (int i = 0; i < keys->getarraysize(); ++i) {
        const xstring key = keys->get(i);
        entries[key.CastToCString()] = valueOf(file, key.CastToCString());
    }
    return entries;
}

/// Unchanged for another program; without control characters for a terminal.
std::string exactly(const std::string& text)
{
    return btkIsTerminal(1) ? Printable(text) : text;
}

std::string textOf(const Json& value)
{
    return value.is_null() ? std::string() : exactly(value.get<std::string>());
}

// ---- lines that are not kept

struct Finding
{
    hmxConfigOddity oddity;
    long long line;
    std::string text;
    long long later;

    bool IsDropped() const { return oddity <= hmxOverridden; }
    bool IsBlank() const { return text.find_first_not_of(" \t\r") == std::string::npos; }
    const char* Fate() const { return IsDropped() ? "dropped" : oddity <= hmxNoLineEnd ? "changed" : "kept"; }
    std::string Why() const
    {
        switch (oddity) {
        case hmxNoColon:
            return IsBlank() ? "it is blank" : "it has no colon";
        case hmxNoKey:
            return "no key before its colon";
        case hmxOverridden:
            return "line " + std::to_string(later) + " has the same key";
        case hmxBlanksInKey:
            return "the blanks in its key are dropped";
        case hmxNoValue:
            return "its value becomes \"nil\"";
        case hmxNoLineEnd:
            return "it gets a line end";
        case hmxCarriageReturn:
            return "its value ends in a carriage return";
        case hmxZeroByte:
            return "its value is read up to a zero byte";
        }
        return {};
    }
};

class Findings : public hmxConfigOddityHandler
{
public:
    void Invoke(hmxConfigOddity oddity, long long line, const char* text, long long later) override
    {
        all.push_back({oddity, line, text, later});
    }

    std::vector<Finding> all;
};

/// Ends the program when writing the file back would drop remarks, which a person may have put there. False
/// when there is no such file.
bool keepsRemarks(const ConfChoices& choices)
{
    const std::string& path = choices.file;
    Findings findings;
    if (!runCheck(path, choices, findings)) {
        if (GetLastError() == ERROR_FILE_NOT_FOUND)
            return false;
        failToOpen(path);
    }
    std::vector<long long> lines;
    for (const Finding& finding : findings.all)
        if (finding.IsDropped() && !finding.IsBlank())
            lines.push_back(finding.line);
    if (choices.drop || lines.empty())
        return true;
    Fail(Exit::no, path,
         (lines.size() == 1 ? "line " + std::to_string(lines.front())
                            : std::to_string(lines.size()) + " lines, from line " +
                                  std::to_string(lines.front()) + " on,") +
             " would be dropped (see qel conf lint); --drop to go on");
}

// ---- the commands

void runGet(const ConfChoices& choices)
{
    hmxConfigFile file;
    openFile(file, choices, hmxConfigFile::ReadOnly);
    Json value = valueOf(file, choices.key.c_str());
    if (value.is_null() && !entriesOf(file).contains(withoutBlanks(choices.key))) {
        if (!choices.fallback)
            Fail(Exit::no, choices.file, "no key \"" + choices.key + "\"; `qel conf list` prints all");
        value = *choices.fallback;
    }
    Show(value, [](const Json& found) { return textOf(found) + '\n'; });
}

void runSet(const ConfChoices& choices)
{
    const std::string key = withoutBlanks(choices.key);
    if (key.empty())
        Fail(Exit::usage, "key", "a key cannot consist of blanks");
    if (key.find(':') != std::string::npos)
        Fail(Exit::usage, choices.key, "the first colon would end the key");
    if (key.find('\n') != std::string::npos || choices.value.find('\n') != std::string::npos)
        Fail(Exit::usage, choices.key, "a line end would begin another entry");
    keepsRemarks(choices);
    hmxConfigFile file;
    openFile(file, choices, hmxConfigFile::ReadWrite);
    file.SetValue(key.c_str(), choices.value.c_str());
    closeFile(file, choices.file);
}

void runDelete(const ConfChoices& choices)
{
    hmxConfigFile file;
    if (!keepsRemarks(choices))
        failToOpen(choices.file);
    openFile(file, choices, hmxConfigFile::ReadWrite);
    const Json entries = entriesOf(file);
    for (const std::string& key : choices.keys)
        if (!entries.contains(withoutBlanks(key)))
            Fail(Exit::no, choices.file, "no key \"" + key + "\"; `qel conf list` prints all");
    for (const std::string& key : choices.keys)
        file.DeleteValue(key.c_str());
    closeFile(file, choices.file);
}

void runList(const ConfChoices& choices)
{
    hmxConfigFile file;
    openFile(file, choices, hmxConfigFile::ReadOnly);
    Show(entriesOf(file), [](const Json& entries) {
        std::string lines;
        for (const auto& [key, value] : entries.items())
            lines.append(exactly(key)).append(1, ':').append(textOf(value)).append(1, '\n');
        return lines;
    });
}

std::string findingLines(const Json& findings)
{
    std::string lines;
    for (const Json& finding : findings) {
        const std::string text = Printable(finding["text"].get<std::string>());
        lines.append(Printable(finding["file"].get<std::string>()))
            .append(1, ':')
            .append(std::to_string(finding["line"].get<long long>()))
            .append(": ")
            .append(finding["fate"])
            .append(", ")
            .append(finding["why"])
            .append(text.empty() ? "" : ": ")
            .append(text)
            .append(1, '\n');
    }
    return lines;
}

void runLint(const ConfChoices& choices)
{
    Json all = Json::array();
    for (const std::string& path : choices.files) {
        Findings findings;
        if (!runCheck(path, choices, findings))
            failToOpen(path);
        for (const Finding& finding : findings.all)
            all.push_back({{"file", path},
                           {"line", finding.line},
                           {"fate", finding.Fate()},
                           {"why", finding.Why()},
                           {"text", finding.text}});
    }
    Show(all, &findingLines);
    if (!all.empty())
        AnswerNo();
}

// ---- watching

/// A file, which other programs change, replace or remove, and its entries.
class FileWatch
{
public:
    FileWatch(const ConfChoices& watched, Watching& printer)
        : choices(watched), output(printer), path(choices.file)
    {
        for (const std::string& key : choices.keys)
            wanted.insert(withoutBlanks(key));
    }

    /// Reads the file if it may have changed, and prints what has. Returns the number of changes.
    int Take()
    {
        constexpr double patience = 0.5; // for a writer's lock, after which it is looked at again later
        Begin();
        hmxConfigFile file;
        if (file.Open(PathOf(path).c_str(), hmxConfigFile::ReadOnly, patience)) {
            if (!problem.empty())
                Report("reachable", "! " + path + ": there again");
            problem.clear();
            Json entries = entriesOf(file);
            file.Close(); // a reader of the output may be slow, and others want to write
            return Compare(std::move(entries));
        }
        const bool isInUse = GetLastError() == ERROR_LOCK_VIOLATION;
        if (const std::string why = LastErrorText(); !isInUse && why != problem) {
            problem = why;
            Report("unreachable", "! " + path + ": " + problem);
        }
        state = {};
        return 0;
    }

    /// Waits until the file has changed, or the path leads to another one. False: the command returns.
    bool Wait()
    {
        constexpr double pause = 0.02; // a program that writes in steps makes several changes
        for (;;) {
            if (!output.Wait(choices.interval, changed.Get()))
                return false;
            const bool isChanged = changed.Get() >= 0 && btkIsReadable(changed.Get());
            btkFileState now;
            if (isChanged || !btkGetFileState(path.c_str(), now) || !now.IsSameFile(state) ||
                changed.Get() < 0)
                return output.Wait(pause);
        }
    }

private:
    /// Watches the file from before it is read.
    void Begin()
    {
        btkFileState now;
        changed.End();
        if (!btkGetFileState(path.c_str(), now) || !now.isPlain)
            return;
        const btkFd opened = btkOpenFile(path.c_str(), btkOpenRead);
        if (opened && btkGetFileState(opened.Get(), state))
            changed.Begin(opened.Get());
    }

    int Compare(Json entries)
    {
        int count = 0;
        const auto report = [&](const char* event, char mark, const std::string& key, const Json& value,
                                const Json& before) {
            if (!wanted.empty() && !wanted.contains(key))
                return;
            ++count;
            if (choices.asJson) {
                Json line = {{"time", TimeOfDay()}, {"event", event}, {"key", key}, {"value", value}};
                if (mark == '*')
                    line["before"] = before;
                Print(line);
            } else {
                output.Print(std::string(1, mark) + ' ' + exactly(key) + ':' + textOf(value));
            }
        };
        for (const auto& [key, value] : known.items())
            if (!entries.contains(key))
                report("removed", '-', key, value, {});
        for (const auto& [key, value] : entries.items()) {
            const auto before = known.find(key);
            if (before == known.end())
                report(isFirst ? "present" : "added", isFirst ? '=' : '+', key, value, {});
            else if (*before != value)
                report("changed", '*', key, value, *before);
        }
        known = std::move(entries);
        return std::exchange(isFirst, false) ? 0 : count;
    }

    void Report(const char* event, const std::string& text)
    {
        if (choices.asJson)
            Print({{"time", TimeOfDay()}, {"event", event}, {"file", path}, {"problem", problem}});
        else
            output.Print(Printable(text));
    }

    void Print(const Json& line) { output.Print(line.dump(-1, ' ', false, Json::error_handler_t::replace)); }

    const ConfChoices& choices;
    Watching& output;
    const std::string& path;
    std::set<std::string> wanted;
    btkFileWatch changed;
    btkFileState state; // of the file that is watched
    Json known = Json::object();
    std::string problem;
    bool isFirst = true;
};

void runWatch(const ConfChoices& choices)
{
    Watching output;
    FileWatch watch(choices, output);
    for (int count = watch.Take(); choices.changes == 0 || count < choices.changes; count += watch.Take())
        if (!watch.Wait())
            return;
}

/// The keys of the file named earlier on the command line.
std::vector<std::string> knownKeys(const Typed& typed)
{
    hmxConfigFile file;
    std::vector<std::string> known;
    if (typed.arguments.empty() || !file.Open(typed.arguments.front().c_str(), hmxConfigFile::ReadOnly, 0))
        return known;
    const Json entries = entriesOf(file);
    for (const auto& [key, value] : entries.items())
        known.push_back(key);
    return known;
}

void addFile(CLI::App& command, std::string& file)
{
    command.add_option("file", file, "The configuration file")->type_name("FILE")->required();
}

void addLimit(CLI::App& command, std::optional<double>& limit)
{
    command.add_option("--limit", limit, "Time to wait for others who have the file open (no limit)")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);
}

void addDrop(CLI::App& command, bool& drop)
{
    command.add_flag("--drop", drop, "Go on when that drops lines that are no entries");
}

} // namespace

void AddConfigCommands(CLI::App& program)
{
    CLI::App& group = AddGroup(program, "conf", "Configuration files: lines of the form KEY:VALUE",
                               {{"qel conf list app.conf", "All entries, in the order of their lines."},
                                {"qel conf get app.conf port --default 4711",
                                 "The value of the key \"port\", or 4711 when there is none."},
                                {"qel conf set app.conf port 4712", "Change or add an entry."},
                                {"qel conf delete app.conf port host", "Remove two entries."},
                                {"qel conf lint *.conf", "The lines that are lost when a program writes."},
                                {"qel conf watch app.conf port", "The port, now and whenever it changes."}});
    const auto choices = std::make_shared<ConfChoices>();

    CLI::App& get = AddCommand(group, "get", "Print the value of a key; the answer is no when it has none",
                               [choices] { runGet(*choices); });
    addFile(get, choices->file);
    addLimit(get, choices->limit);
    Offer(*get.add_option("key", choices->key, "The key; blanks in it do not count")
               ->type_name("KEY")
               ->required(),
          &knownKeys);
    get.add_option("--default", choices->fallback, "What to print when there is no such key")
        ->type_name("VALUE");
    OfferJson(get, "a text, or null for a key without a value");

    CLI::App& set = AddCommand(group, "set", "Change a value or add an entry; a missing file is created",
                               [choices] { runSet(*choices); });
    addFile(set, choices->file);
    addLimit(set, choices->limit);
    Offer(*set.add_option("key", choices->key, "The key; blanks in it are left out")
               ->type_name("KEY")
               ->required(),
          &knownKeys);
    set.add_option("value", choices->value, "The value, of one line")->type_name("VALUE")->required();
    addDrop(set, choices->drop);

    CLI::App& remove = AddCommand(group, "delete", "Remove entries; nothing is changed when one is missing",
                                  [choices] { runDelete(*choices); });
    addFile(remove, choices->file);
    addLimit(remove, choices->limit);
    Offer(*remove.add_option("key", choices->keys, "The keys; blanks in them do not count")
               ->type_name("KEY")
               ->required(),
          &knownKeys);
    addDrop(remove, choices->drop);

    CLI::App& list = AddCommand(group, "list", "Print all entries, as KEY:VALUE, in the order of their lines",
                                [choices] { runList(*choices); });
    addFile(list, choices->file);
    addLimit(list, choices->limit);
    OfferJson(list, "an object with a member for each key: its value, or null");

    CLI::App& lint =
        AddCommand(group, "lint", "Name the lines that a program drops or changes when it writes the file",
                   [choices] { runLint(*choices); });
    lint.add_option("file", choices->files, "The configuration files")->type_name("FILE")->required();
    addLimit(lint, choices->limit);
    OfferJson(lint, "a line for each finding: file, line, fate (dropped, changed or kept), why, text");

    CLI::App& watch = AddCommand(
        group, "watch",
        "Print the entries that change while other programs write or replace the file: + added, - removed, * "
        "changed and = for those there at the start, then KEY:VALUE; ! and a text when the file cannot be read, and "
        "when it can again",
        [choices] { runWatch(*choices); });
    addFile(watch, choices->file);
    Offer(*watch.add_option("key", choices->keys, "The keys; blanks in them do not count (default: all)")
               ->type_name("KEY"),
          &knownKeys);
    OfferInterval(watch, choices->interval,
                  "Time after which a file that was replaced, or is missing, is looked for");
    OfferCount(watch, choices->changes, "Exit after so many changes (default: at Ctrl-C)");
    watch.add_flag(
        "--json", choices->asJson,
        "Print JSON, a line for each change: time, event (present, added, changed, removed, unreachable, "
        "reachable), key, value, before; file and problem for the last two events");
}
