// qel mon: monitor files, in which a program publishes values for others to watch.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <qel/platform/errornumbers.h>
#include <qel/platform/lasterror.h>
#include <qel/xstring.h>

#include "commands.h"
#include "files.h"
#include "monitor.h"

namespace {

struct MonChoices
{
    std::string path;
    std::string title;
    bool replaces = false;
    std::string name;
    std::vector<std::string> names;
    std::string kind;
    std::string value;
    int capacity = 255;
};

/// The whole text as a number; ends the program when it is not a number of that type.
template<class Number>
Number numberOf(const std::string& text, const char* kind)
{
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool isNumber = number == number; // "nan" is none
    if (error != std::errc() || stop != end || !isNumber)
        Fail(Exit::usage, text, std::string("not a value of the type ") + kind);
    return number;
}

unsigned char truthOf(const std::string& text)
{
    const bool isTrue = text == "yes" || text == "true" || text == "1";
    if (!isTrue && text != "no" && text != "false" && text != "0")
        Fail(Exit::usage, text, "neither yes nor no");
    return isTrue;
}

void assign(monParam& parameter, const std::string& value)
{
    if (auto* const truth = monBoolParam::softcast(&parameter))
        truth->setValue(truthOf(value));
    else if (auto* const number = monIntParam::softcast(&parameter))
        number->setValue(numberOf<int>(value, "int"));
    else if (auto* const real = monRealParam::softcast(&parameter))
        real->setValue(numberOf<double>(value, "real"));
    else if (auto* const text = monStringParam::softcast(&parameter)) {
        if (value.size() > static_cast<std::size_t>(text->getSize()))
            Fail(Exit::no, parameter.getName().CastToCString(),
                 "has room for " + std::to_string(text->getSize()) + " bytes");
        text->setValue(value.c_str());
    }
}

/// Runs the work on the file, and reports the file's failures.
template<class Work>
void onFile(const MonChoices& choices, Work work)
try {
    work();
} catch (xthrowable* thrown) {
    throw FailureOf(thrown, Exit::peer, choices.path);
}

void createFile(const MonChoices& choices)
{
    std::error_code ignored;
    if (!choices.replaces && std::filesystem::exists(choices.path, ignored))
        Fail(Exit::no, choices.path, "exists already; --replace makes a new file");
    onFile(choices, [&] {
        const Monitor file(monFile::Create(PathOf(choices.path).c_str(), choices.title.c_str()));
        if (file == nullptr)
            Fail(Exit::peer, choices.path, "cannot be written");
    });
}

monParam* added(monFile& file, const MonChoices& choices)
{
    const char* const name = choices.name.c_str();
    if (choices.kind == "bool")
        return file.Bool(name);
    if (choices.kind == "int")
        return file.Int(name);
    if (choices.kind == "real")
        return file.Real(name);
    return file.String(name, std::max(choices.capacity, static_cast<int>(choices.value.size())));
}

void addValue(const MonChoices& choices)
{
    onFile(choices, [&] {
        const Monitor file = OpenMonitor(choices.path);
        // Checked before the parameter is added permanently.
        if (choices.kind == "int" && !choices.value.empty())
            numberOf<int>(choices.value, "int");
        else if (choices.kind == "real" && !choices.value.empty())
            numberOf<double>(choices.value, "real");
        else if (choices.kind == "bool" && !choices.value.empty())
            truthOf(choices.value);
        monParam* const parameter = added(*file, choices);
        if (parameter == nullptr)
            Fail(Exit::no, choices.name, "exists with another type");
        if (!choices.value.empty())
            assign(*parameter, choices.value);
    });
}

void setParameter(const MonChoices& choices)
{
    onFile(choices, [&] {
        const Monitor file = OpenMonitor(choices.path);
        assign(ParameterOf(*file, choices.path, choices.name), choices.value);
    });
}

void getValues(const MonChoices& choices)
{
    onFile(choices, [&] {
        const Monitor file = OpenMonitor(choices.path);
        if (choices.names.size() == 1) {
            Show(ValueOf(ParameterOf(*file, choices.path, choices.names.front())));
            return;
        }
        Json values = Json::object();
        for (const std::string& name : choices.names)
            values[name] = ValueOf(ParameterOf(*file, choices.path, name));
        Show(values);
    });
}

void listValues(const MonChoices& choices)
{
    onFile(choices, [&] {
        const Monitor file = OpenMonitor(choices.path);
        Json rows = Json::array();
        for (monParam* const parameter : ParametersOf(*file)) {
            Json row;
            row["name"] = parameter->getName().CastToCString();
            row["type"] = KindOf(*parameter);
            row["value"] = ValueOf(*parameter);
            rows.push_back(row);
        }
        Show(rows);
    });
}

void checkFile(const MonChoices& choices)
{
    onFile(choices, [&] {
        const Monitor file = OpenMonitor(choices.path);
        int offset = 0;
        const monFile::State state = file->Check(offset);
        static constexpr const char* states[] = {"whole", "unfinished", "damaged"};
        Show({{"state", states[state]}, {"offset", offset}}, [&](const Json&) {
            const std::string at = " at offset " + std::to_string(offset);
            return state == monFile::whole     ? std::string("whole\n")
                   : state == monFile::damaged ? "damaged" + at + "\n"
                                               : "whole, and an unfinished parameter" + at + "\n";
        });
        if (state == monFile::damaged)
            AnswerNo();
    });
}

void addParameter(CLI::App& command, std::string& name)
{
    Offer(*command.add_option("parameter", name, "Name of the parameter")->type_name("NAME")->required(),
          &KnownParameters);
}

} // namespace

// ---- shared by the commands

Monitor OpenMonitor(const std::string& path)
{
    try {
        if (Monitor file{monFile::Open(PathOf(path).c_str())})
            return file;
    } catch (xthrowable* thrown) {
        throw FailureOf(thrown, Exit::peer, path);
    }
    const unsigned error = GetLastError();
    std::error_code ignored;
    if (!std::filesystem::exists(path, ignored))
        Fail(Exit::no, path, "not there; `qel mon create` makes it");
    if (error == ERROR_ACCESS_DENIED && std::filesystem::is_regular_file(path, ignored))
        Fail(Exit::no, path, "not permitted");
    Fail(Exit::peer, path, "no monitor file");
}

std::vector<monParam*> ParametersOf(monFile& file)
{
    file.getParams();
    return KnownParametersOf(file);
}

std::vector<monParam*> KnownParametersOf(monFile& file)
{
    monParamDict* const all = file.getKnownParams();
    std::vector<monParam*> parameters;
    for (int slot = 0; slot < all->getarraysize(); ++slot) {
        monParam* parameter = nullptr;
        if (all->getbyindex(slot, &parameter))
            parameters.push_back(parameter);
    }
    std::sort(parameters.begin(), parameters.end(), [](monParam* a, monParam* b) {
        return std::strcmp(a->getName().CastToCString(), b->getName().CastToCString()) < 0;
    });
    return parameters;
}

monParam& ParameterOf(monFile& file, const std::string& path, const std::string& name)
{
    monParam* parameter = nullptr;
    if (!file.getParams()->find(name.c_str(), &parameter))
        Fail(Exit::no, path + ", " + name, "no such parameter; `qel mon list` prints all");
    return *parameter;
}

const char* KindOf(monParam& parameter)
{
    return monBoolParam::softcast(&parameter) != nullptr   ? "bool"
           : monIntParam::softcast(&parameter) != nullptr  ? "int"
           : monRealParam::softcast(&parameter) != nullptr ? "real"
                                                           : "string";
}

Json ValueOf(monParam& parameter)
{
    if (auto* const truth = monBoolParam::softcast(&parameter)) {
        const unsigned char value = truth->getValue();
        return value > 1 ? Json() : Json(value == 1);
    }
    if (auto* const number = monIntParam::softcast(&parameter)) {
        const int value = number->getValue();
        return value == xnullint || value == xuninitint ? Json() : Json(value);
    }
    if (auto* const real = monRealParam::softcast(&parameter)) {
        const double value = real->getValue();
        return value == xnullreal || value == xuninitreal ? Json() : Json(value);
    }
    auto* const text = monStringParam::softcast(&parameter);
    const xstring value = text != nullptr ? text->getValue() : xstring(nullptr);
    return value == nullptr ? Json() : Json(value.CastToCString());
}

std::vector<std::string> KnownParameters(const Typed& typed)
{
    std::vector<std::string> names;
    if (typed.arguments.empty())
        return names;
    try {
        const Monitor file(monFile::Open(PathOf(typed.arguments.front()).c_str()));
        if (file != nullptr)
            for (monParam* const parameter : ParametersOf(*file))
                names.emplace_back(parameter->getName().CastToCString());
    } catch (xthrowable* thrown) { // there is nothing to offer then
        static_cast<void>(FailureOf(thrown));
    }
    return names;
}

void AddMonitorFile(CLI::App& command, std::string& path)
{
    command.add_option("file", path, "The monitor file")->type_name("FILE")->required();
}

// ---- the group

void AddMonitorCommands(CLI::App& program)
{
    CLI::App& group = AddGroup(
        program, "mon", "Monitor files, in which a program keeps values for others to watch",
        {{"qel mon watch /tmp/host.mon", "All values, as they change, until Ctrl-C."},
         {"qel mon watch --csv --count 60 /tmp/host.mon load.1 >load.csv", "One of them for a minute."},
         {"qel mon plot --svg load.svg /tmp/host.mon load.1 load.5", "Two of them as a picture."},
         {"qel mon serve", "This machine's servers in a browser, at http://127.0.0.1:1242/."},
         {"qel mon export --once", "The figures of this machine's servers, as Prometheus reads them."},
         {"qel mon export --listen 127.0.0.1:1241 /tmp/host.mon", "Serve values to Prometheus."},
         {"qel mon get /tmp/host.mon load.1", "A value, for a script."},
         {"qel mon create --title 'Night run' run.mon", "A file of one's own,"},
         {"qel mon add run.mon done int 0", "a value in it,"},
         {"qel mon set run.mon done 17", "and what it is now."}});
    const auto choices = std::make_shared<MonChoices>();

    CLI::App& create = AddCommand(group, "create", "Make a monitor file without parameters",
                                  [choices] { createFile(*choices); });
    AddMonitorFile(create, choices->path);
    create.add_option("--title", choices->title, "What is to be watched")->type_name("TITLE");
    create.add_flag("--replace", choices->replaces, "Make it anew when it is there");

    CLI::App& add = AddCommand(group, "add", "Add a parameter; one that is there stays, and gets the value",
                               [choices] { addValue(*choices); });
    AddMonitorFile(add, choices->path);
    add.add_option("parameter", choices->name, "Name of the parameter")->type_name("NAME")->required();
    Offer(*add.add_option("type", choices->kind, "bool, int, real or string")
               ->type_name("TYPE")
               ->check(CLI::IsMember({"bool", "int", "real", "string"}).description(""))
               ->required(),
          [](const Typed&) {
              return std::vector<std::string>{"bool", "int", "real", "string"};
          });
    add.add_option("value", choices->value, "Its value (default: no, 0 or the empty text)")
        ->type_name("VALUE");
    add.add_option("--capacity", choices->capacity, "Room for a text; that of the value at least")
        ->type_name("BYTES")
        ->check(CLI::Range(0, std::numeric_limits<int>::max()).description(""))
        ->capture_default_str();

    CLI::App& set =
        AddCommand(group, "set", "Give a parameter a value", [choices] { setParameter(*choices); });
    AddMonitorFile(set, choices->path);
    addParameter(set, choices->name);
    set.add_option("value", choices->value, "A number, a text, yes or no")->type_name("VALUE")->required();

    CLI::App& get =
        AddCommand(group, "get", "Print the values of parameters", [choices] { getValues(*choices); });
    AddMonitorFile(get, choices->path);
    Offer(*get.add_option("parameter", choices->names, "Names of the parameters")
               ->type_name("NAME")
               ->required(),
          &KnownParameters);
    OfferJson(get, "the value, or for several names an object with a member for each");

    CLI::App& list = AddCommand(group, "list", "Print all parameters with their types and values",
                                [choices] { listValues(*choices); });
    AddMonitorFile(list, choices->path);
    OfferJson(list, "a line for each parameter: name, type, value");

    CLI::App& check =
        AddCommand(group, "check",
                   "Say whether the file is whole, and else where the damage begins; the answer is no then",
                   [choices] { checkFile(*choices); });
    AddMonitorFile(check, choices->path);
    OfferJson(check, "an object: state (whole, unfinished or damaged), offset of its end or damage");

    AddWatchCommands(group);
    AddWebCommands(group);
}
