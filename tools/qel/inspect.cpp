// qel inspect: what a file is, and what it has.
#include "inspect.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/base/btkfilepart.h>
#include <qel/base/nmstable.h>
#include <qel/hmxconfigfile.h>
#include <qel/hmxregistry.h>
#include <qel/qelown.h>
#include <qel/xiolib.h>

#include "commands.h"
#include "files.h"
#include "monitor.h"

namespace {

// The bytes at its start by which a file is recognised, and the most that is read of one.
constexpr std::size_t headSize = 65536;
constexpr long long greatestRead = 64LL * 1024 * 1024;

struct File
{
    std::string path;
    long long size = 0;
    std::size_t most = 0; // records
    std::string head;     // of a text in whole lines
    bool isText = false;  // the head is UTF-8 without control characters

    bool IsWhole() const { return static_cast<std::size_t>(size) == head.size(); }
    bool IsRead() const { return size <= greatestRead; }
    std::string Name() const { return std::filesystem::path(path).filename().string(); }
};

bool isText(std::string_view bytes)
{
    return bytes.size() ==
               Printable(bytes).size() + static_cast<std::size_t>(std::count_if(
                                             bytes.begin(), bytes.end(),
                                             [](char c) { return c == '\t' || c == '\n' || c == '\r'; })) &&
           Json(std::string(bytes)).dump(-1, ' ', false, Json::error_handler_t::ignore).size() ==
               Json(std::string(bytes)).dump(-1, ' ', false, Json::error_handler_t::replace).size();
}

std::string contentOf(const std::string& path, std::size_t most)
{
    const btkFd file = btkOpenFile(path.c_str(), btkOpenRead);
    if (!file)
        Fail(errno == ENOENT || errno == EACCES ? Exit::no : Exit::peer, path, std::strerror(errno));
    std::string content(most, '\0');
    const std::ptrdiff_t count = btkReadAt(file.Get(), content.data(), most, 0);
    if (count < 0)
        Fail(Exit::peer, path, std::strerror(errno));
    content.resize(static_cast<std::size_t>(count));
    return content;
}

std::string wholeOf(const File& file)
{
    return contentOf(file.path, static_cast<std::size_t>(file.size));
}

void noteDamage(Json& result, long long offset, const char* problem)
{
    result["state"] = "damaged";
    result["offset"] = offset;
    result["problem"] = problem;
}

// Appends the record unless there are enough of them.
void add(Json& result, const File& file, Json record)
{
    if (result["records"].size() < file.most)
        result["records"].push_back(std::move(record));
}

// ---- the kinds: each returns false for a file of another kind

bool inspectNameServerState(const File& file, Json& result)
{
    if (!nmsSavedReader(file.head).IsMarked())
        return false;
    result["kind"] = "state of a name server";
    result["format"] = "XDR";
    result["version"] = 1;
    if (!file.IsRead())
        return true;
    const std::string content = wholeOf(file);
    nmsSavedReader reader(content);
    result["state"] = "whole";
    result["run"] = reader.GetRun();
    std::size_t count = 0;
    for (nmsSavedRecord held; reader.Next(held); ++count) {
        Json record = {{"offset", held.offset}, {"process", held.record.owner}, {"peer", held.peer}};
        Json fields = Json::array();
        for (const auto& [name, value] : held.record.fields)
            fields.push_back(name + '=' + value);
        record["fields"] = std::move(fields);
        add(result, file, std::move(record));
    }
    result["count"] = count;
    if (!reader.IsWhole())
        noteDamage(result, static_cast<long long>(reader.GetOffset()),
                   count < reader.GetCount() ? "a record is not whole" : "bytes follow the last record");
    return true;
}

bool inspectRegistryValue(const File& file, Json& result)
{
    if (!file.path.ends_with(".value"))
        return false;
    result["kind"] = "value of the registry";
    unsigned type = 0;
    xstring name;
    const std::size_t dataAt = hmxRegistry::ParseFile(file.head, type, name);
    if (dataAt == 0) {
        noteDamage(result, 0, "its first line is not a type and a name");
        return true;
    }
    const std::string_view data = std::string_view(file.head).substr(dataAt);
    const bool isZeroEnded = !data.empty() && data.back() == '\0';
    result["state"] = "whole";
    result["name"] = name.CastToCString();
    constexpr unsigned textType = 1;
    result["type"] = type == textType ? Json("text") : Json(type);
    if (type == textType && isZeroEnded && isText(data.substr(0, data.size() - 1)))
        result["value"] = std::string(data.substr(0, data.size() - 1));
    else if (type == textType && file.IsWhole())
        noteDamage(result, static_cast<long long>(dataAt),
                   "its text has no end, or bytes that are none of a text");
    result["data"] = file.size - static_cast<long long>(dataAt);
    return true;
}

bool inspectRegistryName(const File& file, Json& result)
{
    if (file.Name() != ".name" || !file.isText)
        return false;
    result["kind"] = "name of a registry key";
    result["state"] = "whole";
    result["name"] = file.head.substr(0, file.head.find('\n'));
    return true;
}

// The file beside a configuration file that is overwritten in place: docs/config.md.
bool inspectUpdate(const File& file, Json& result)
{
    constexpr std::string_view mark = "qelstd update 1 ";
    if (!file.head.starts_with(mark))
        return false;
    result["kind"] = "update of a configuration file";
    result["version"] = 1;
    const std::size_t lineEnd = file.head.find('\n');
    std::istringstream sizes(file.head.substr(mark.size(), lineEnd - mark.size()));
    long long before = -1, after = -1;
    const std::size_t start = lineEnd + 1;
    if (!(sizes >> before >> after) || start == 0 || before < 0 || after < 0 || before > file.size ||
        after > file.size)
        noteDamage(result, static_cast<long long>(mark.size()), "it has no sizes");
    else {
        const long long end = static_cast<long long>(start) + before + after;
        result["state"] = file.size < end ? "unfinished" : "whole";
        add(result, file, {{"offset", start}, {"content", "old"}, {"size", before}});
        if (static_cast<long long>(start) + before <= file.size)
            add(result, file,
                {{"offset", static_cast<long long>(start) + before}, {"content", "new"}, {"size", after}});
        if (file.size > end)
            noteDamage(result, end, "bytes follow the new content");
    }
    return true;
}

// "2026-11-26T15:40:01.123456Z 4711 net info: ..."
bool isTraceLine(std::string_view line)
{
    constexpr std::string_view form = "dddd-dd-ddTdd:dd:dd.ddddddZ d";
    return line.size() > form.size() && line.find(": ") != std::string_view::npos &&
           std::equal(form.begin(), form.end(), line.begin(),
                      [](char wanted, char c) { return wanted == 'd' ? c >= '0' && c <= '9' : c == wanted; });
}

bool inspectTrace(const File& file, Json& result)
{
    if (!file.isText || !isTraceLine(file.head.substr(0, file.head.find('\n'))))
        return false;
    result["kind"] = "trace";
    result["format"] = "text";
    if (!file.IsRead())
        return true;
    result["state"] = "whole";
    std::istringstream lines(wholeOf(file));
    std::size_t count = 0, offset = 0;
    for (std::string line; std::getline(lines, line); offset += line.size() + 1) {
        if (!isTraceLine(line) && result["state"] == "whole")
            noteDamage(result, static_cast<long long>(offset), "the line is none of a trace");
        if (!isTraceLine(line))
            continue;
        std::istringstream words(line);
        std::string time, thread, area, level, text;
        words >> time >> thread >> area >> level >> std::ws;
        std::getline(words, text);
        level = level.substr(0, level.find(':'));
        ++count;
        add(result, file,
            {{"offset", offset},
             {"time", time},
             {"thread", thread},
             {"area", area},
             {"level", level},
             {"text", text}});
    }
    result["count"] = count;
    return true;
}

bool inspectMonitor(const File& file, Json& result)
{
    Monitor monitor;
    try {
        if (file.size > 0)
            monitor.reset(monFile::Open(PathOf(file.path).c_str()));
    } catch (xthrowable* thrown) { // it ends within the title
        static_cast<void>(FailureOf(thrown));
    }
    if (monitor == nullptr)
        return false;
    const std::string title = monitor->getTitle().CastToCString();
    int offset = 0;
    monFile::State state = monFile::damaged;
    if (file.IsRead())
        state = monitor->Check(offset);
    // Other files that begin with a zero or a negative number have no such title, or are damaged at once.
    std::vector<monParam*> parameters = KnownParametersOf(*monitor);
    if (!isText(title) || (file.IsRead() && state == monFile::damaged && parameters.empty() && title.empty()))
        return false;
    result["kind"] = "monitor file";
    result["format"] = "XDR";
    result["title"] = title;
    if (!file.IsRead())
        return true;
    std::sort(parameters.begin(), parameters.end(),
              [](monParam* a, monParam* b) { return a->getPosition() < b->getPosition(); });
    result["state"] = state == monFile::whole ? "whole" : "unfinished";
    result["count"] = parameters.size();
    for (monParam* const parameter : parameters) {
        if (result["records"].size() == file.most)
            break;
        Json value;
        try {
            value = ValueOf(*parameter);
        } catch (xthrowable* thrown) {
            value = FailureOf(thrown).why;
        }
        add(result, file,
            {{"offset", parameter->getPosition()},
             {"name", parameter->getName().CastToCString()},
             {"type", KindOf(*parameter)},
             {"value", std::move(value)}});
    }
    if (state == monFile::unfinished)
        result["offset"] = offset;
    else if (state == monFile::damaged)
        noteDamage(result, offset, "the bytes are not a parameter");
    return true;
}

class Oddities : public hmxConfigOddityHandler
{
public:
    void Invoke(hmxConfigOddity oddity, long long, const char* text, long long) override
    {
        ++count;
        const bool isRemark = *text == '#' || *text == '\0' || *text == ';';
        remarks += oddity == hmxNoColon && !isRemark;
    }

    std::size_t count = 0;
    std::size_t remarks = 0; // lines without a colon that are not marked as such
};

// Any text has some lines with a colon: a configuration file has few others, or is named so.
bool inspectConfig(const File& file, Json& result)
{
    if (!file.isText || !file.IsRead() || file.size == 0)
        return false;
    constexpr double patience = 1; // seconds
    hmxConfigFile config;
    Oddities oddities;
    const std::string path = PathOf(file.path);
    if (!hmxConfigFile::Check(path.c_str(), oddities, patience) ||
        !config.Open(path.c_str(), hmxConfigFile::ReadOnly, patience))
        return false;
    const xrchandle<xstringsequence> keys = config.GetKeys();
    const auto count = static_cast<std::size_t>(keys->getarraysize());
    const bool isDeclaration = file.path.ends_with(".meta");
    const bool isNamed = isDeclaration || file.path.ends_with(".conf") || file.path.ends_with(".cfg");
    if (count == 0 || (!isNamed && oddities.remarks >= count))
        return false;
    result["kind"] = isDeclaration ? "declarations of a monitor file" : "configuration file";
    result["format"] = "text";
    result["state"] = "whole";
    if (oddities.count > 0)
        result["oddities"] = oddities.count;
    result["count"] = count;
    for (int i = 0; i < keys->getarraysize() && static_cast<std::size_t>(i) < file.most; ++i) {
        const xstring key = keys->get(i);
        const xstring value = config.GetValue(key);
        if (const long long offset = config.GetOffset(key); offset >= 0) // not of a key with a zero byte
            add(result, file,
                {{"offset", offset},
                 {"key", key.CastToCString()},
                 {"value", value == nullptr ? Json() : Json(value.CastToCString())}});
    }
    return true;
}

bool inspectJson(const File& file, Json& result)
{
    const std::size_t begin = file.head.find_first_not_of(" \t\r\n");
    if (!file.isText || !file.IsRead() || begin == std::string::npos ||
        (file.head[begin] != '{' && file.head[begin] != '['))
        return false;
    // Of nested values nothing is kept.
    const Json value = Json::parse(
        wholeOf(file), [](int depth, Json::parse_event_t, Json&) { return depth < 2; }, false);
    if (value.is_discarded())
        return false;
    result["kind"] = "JSON";
    result["format"] = "text";
    result["state"] = "whole";
    if (value.is_object() && value.contains("$type"))
        result["type"] = value["$type"];
    result["count"] = value.size();
    return true;
}

// Files in PEM form, as `qel tls` writes them.
bool inspectCertificates(const File& file, Json& result)
{
    constexpr std::string_view begin = "-----BEGIN ", end = "-----";
    if (!file.isText || !file.head.starts_with(begin))
        return false;
    result["kind"] = "certificates, keys or lists of them";
    result["format"] = "PEM";
    std::size_t count = 0;
    for (std::size_t at = 0; (at = file.head.find(begin, at)) != std::string::npos; ++count) {
        const std::size_t start = std::exchange(at, at + begin.size());
        const std::string label = file.head.substr(at, file.head.find(end, at) - at);
        add(result, file, {{"offset", start}, {"content", label}});
    }
    result["count"] = count;
    return true;
}

// ---- values of a stream: no form marks them, so that this is a guess

struct Value
{
    long long offset;
    const char* type;
    Json value;
};

bool isLikely(double number)
{
    const double size = std::abs(number);
    return (size > 1e-6 && size < 1e12) || number == xnullreal || number == xuninitreal;
}

bool isLikely(int number)
{
    constexpr int most = 1 << 20;
    return (number < most && number > -most) || number == xnullint || number == xuninitint;
}

Json shown(double number)
{
    return number == xnullreal || number == xuninitreal ? Json() : Json(number);
}

Json shown(int number)
{
    return number == xnullint || number == xuninitint ? Json() : Json(number);
}

// The values in the head of the file; empty when it is not likely that they are values in this form.
std::vector<Value> valuesIn(const File& file, ioSerializer* form)
{
    const qel::owned<ioFileStream> stream(ioFileStream::Open(PathOf(file.path).c_str(), ioReadOnly));
    std::vector<Value> values;
    if (stream == nullptr)
        return values;
    stream->setSerializer(form);
    const auto size = static_cast<int>(file.head.size());
    constexpr int longestCut = 4096; // the last value of the head goes on behind it
    const int end = file.IsWhole() ? size : size - longestCut;
    int at = 0;
    const auto take = [&](const char* type, Json value) {
        values.push_back({at, type, std::move(value)});
        at = stream->TellPos();
    };
    while (at < end) {
        stream->SeekOff(at, ioBegin);
        if (stream->TryReadInt() != ioSuccess)
            return {};
        const int number = stream->ReadInt();
        // The text first: its length is a likely int, too.
        stream->SeekOff(at, ioBegin);
        if (number > 0 && number <= size - at && stream->TryReadString(nullptr) == ioSuccess) {
            const std::string text = stream->ReadString(nullptr).CastToCString();
            if (text.size() == static_cast<std::size_t>(number) && isText(text)) {
                take("string", text);
                continue;
            }
            stream->SeekOff(at, ioBegin);
        }
        if (stream->TryReadReal() == ioSuccess) {
            if (const double real = stream->ReadReal(); isLikely(real)) {
                take("real", shown(real));
                continue;
            }
            stream->SeekOff(at, ioBegin);
        }
        stream->ReadInt();
        if (!isLikely(number))
            return {};
        take("int", shown(number));
    }
    return values;
}

// Numbers and truth values between blanks, commas and line ends.
std::vector<Value> wordsIn(const File& file)
{
    constexpr std::string_view separators = " \t\r\n,;";
    std::vector<Value> values;
    for (std::size_t at = 0; (at = file.head.find_first_not_of(separators, at)) != std::string::npos;) {
        const std::string word = file.head.substr(at, file.head.find_first_of(separators, at) - at);
        const qel::owned<ioStringStream> stream(ioStringStream::Create(word.c_str()));
        stream->setSerializer(ioSerializer::getAscii());
        const auto offset = static_cast<long long>(at);
        const bool isInt =
            word.find_first_of(".eE") == std::string::npos && stream->TryReadInt() == ioSuccess;
        if (isInt)
            values.push_back({offset, "int", shown(stream->ReadInt())});
        else if (stream->TryReadReal() == ioSuccess)
            values.push_back({offset, "real", shown(stream->ReadReal())});
        else if (stream->TryReadBool() == ioSuccess)
            values.push_back({offset, "bool", stream->ReadBool() == 1});
        if (values.empty() || values.back().offset != offset || stream->PeekNBytes() > 0)
            return {};
        at += word.size();
    }
    return values;
}

bool inspectValues(const File& file, Json& result)
{
    struct Form
    {
        const char* name;
        std::vector<Value> values;
    };
    std::vector<Form> forms;
    if (file.isText)
        forms.push_back({"ASCII", wordsIn(file)});
    else
        forms = {{"XDR", valuesIn(file, ioSerializer::getXDR())},
                 {"binary", valuesIn(file, ioSerializer::getBinary())}};
    // Fewer values explain more bytes each.
    const auto best = std::min_element(forms.begin(), forms.end(), [](const Form& a, const Form& b) {
        return !a.values.empty() && (b.values.empty() || a.values.size() < b.values.size());
    });
    if (best->values.empty())
        return false;
    result["kind"] = "values, as far as they are recognized";
    result["format"] = best->name;
    result["count"] = best->values.size();
    if (!file.IsWhole())
        result["examined"] = file.head.size();
    for (Value& value : best->values)
        add(result, file,
            {{"offset", value.offset}, {"type", value.type}, {"value", std::move(value.value)}});
    return true;
}

constexpr std::array kinds = {
    &inspectNameServerState, &inspectUpdate, &inspectRegistryValue, &inspectRegistryName, &inspectTrace,
    &inspectMonitor,         &inspectJson,   &inspectCertificates,  &inspectConfig,       &inspectValues};

// ---- the command

std::string textOf(const Json& result)
{
    Json about = result;
    about.erase("records");
    std::string text = AsText(about);
    Json rows = result.value("records", Json::array());
    constexpr std::size_t widest = 100;
    for (Json& row : rows)
        for (Json& cell : row)
            if (cell.is_string() && WidthOf(cell.get<std::string>()) > widest)
                cell = CutTo(cell.get<std::string>(), widest) + "...";
    return rows.empty() ? text : text + '\n' + AsText(rows);
}

struct InspectChoices
{
    std::string path;
    int most = 100;
};

void inspect(const InspectChoices& choices)
{
    const Json result = Inspect(choices.path, static_cast<std::size_t>(choices.most));
    Show(result, &textOf);
    if (result["kind"] == "unknown" || result.value("state", "") == "damaged")
        AnswerNo();
}

} // namespace

Json Inspect(const std::string& path, std::size_t most)
{
    btkFileState state;
    if (!btkGetFileState(path.c_str(), state))
        Fail(errno == ENOENT || errno == EACCES ? Exit::no : Exit::peer, path, std::strerror(errno));
    if (!state.isPlain)
        Fail(Exit::no, path, "is a directory, pipe or device, not a file with content");
    File file{path, state.size, most, contentOf(path, headSize)};
    const std::size_t lines = file.IsWhole() ? file.head.size() : file.head.rfind('\n') + 1;
    file.isText = isText(std::string_view(file.head).substr(0, lines == 0 ? file.head.size() : lines));
    if (file.isText && lines > 0)
        file.head.resize(lines);
    Json result = {{"file", path}, {"kind", "unknown"}};
    if (file.size > 0) {
        std::string problem;
        for (const auto recognise : kinds)
            try {
                if (recognise(file, result))
                    break;
            } catch (xthrowable* thrown) { // it has changed meanwhile
                problem = FailureOf(thrown).why;
            }
        if (result["kind"] == "unknown" && !problem.empty())
            result["problem"] = problem;
    } else {
        result["kind"] = "empty";
    }
    result["size"] = file.size;
    if (!file.IsRead() && !result.contains("state"))
        result["problem"] = "too large to be read";
    return result;
}

void AddInspectCommand(CLI::App& program)
{
    const auto choices = std::make_shared<InspectChoices>();
    CLI::App& command = AddCommand(
        program, "inspect",
        "Tell what a file is, and print its records: a monitor file, a configuration file, a value of the "
        "registry, the state of a name server, a trace, JSON, certificates, or the values of a stream. The answer is no "
        "when it is damaged, "
        "of which the offset is printed, and when it is none of these",
        [choices] { inspect(*choices); });
    command.footer(
        "qel inspect /tmp/host.mon\tIts title, and where its values are.\n"
        "qel inspect --json /run/qel-ns/nameserver-1239\tThe records that a name server keeps, for a "
        "program.\n");
    command.add_option("file", choices->path, "The file")->type_name("FILE")->required();
    command.add_option("--records", choices->most, "Records to print at most")
        ->type_name("COUNT")
        ->check(CLI::Range(0, 1000000).description(""))
        ->capture_default_str();
    OfferJson(
        command,
        "an object: file, kind, size, and as far as the kind has them: format, version, state (whole, unfinished or "
        "damaged), offset and problem of the damage, count, records, title, run, name, type, value, data, oddities, "
        "examined");
}
