// qel ns: the clients of the name server.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <qel/base/nmsclient.h>
#include <qel/netexception.h>
#include <qel/qelcaught.h>
#include <qel/qelfind.h>

#include "commands.h"
#include "daemon.h"
#include "watching.h"

namespace {

// ---- queries

struct AskChoices
{
    std::string host; // empty: this machine
    std::vector<std::string> fields;
    int owner = 0;
    double seconds = 10;

    nmsOwnedProxy Connect() const
    {
        nmsOwnedProxy proxy(host.empty() ? nmsServConnectLocal() : nmsServConnectByName(host.c_str()));
        nmsServSetDeadline(proxy.get(), btkTimeval::Now() + btkTimeval(seconds));
        return proxy;
    }
    /// Its name in failure reports.
    std::string Server() const
    {
        return "name server on " + (host.empty() ? "this machine" : host) + ", port " +
               std::to_string(nmsFindPort());
    }
    std::string Fields() const
    {
        std::string all;
        for (const std::string& field : fields)
            all += (all.empty() ? "" : " ") + field;
        return all;
    }
    nmsOwnedRecord MakeRecord() const
    {
        nmsOwnedRecord record(nmsRecCreate(owner));
        for (const std::string& field : fields) {
            const std::size_t equals = field.find('=');
            nmsRecAdd(record.get(), field.substr(0, equals).c_str(), field.substr(equals + 1).c_str());
        }
        return record;
    }
};

void addHost(CLI::App& command, AskChoices& choices)
{
    command.add_option("--host", choices.host, "Machine of the name server (default: this one)")
        ->type_name("HOST");
}

void require(const AskChoices& choices, capi_nmsError* answered)
{
    const nmsOwnedError error(answered);
    if (error == nullptr)
        return;
    const int code = nmsErrGetCode(error.get());
    if (code == nmscNoConnection)
        Fail(Exit::peer, choices.Server(), "no response; does `qel ns serve` run there?");
    // The line begins with the origin of the failure: "ERROR  : NameServer on client request: ".
    std::string why = nmsErrGetText(error.get());
    why.erase(0, why.find(": ", why.find(": ") + 2) + 2);
    const bool isAnswer = code == nmscExists || code == nmscNotFound || code == nmscNotAllowed;
    Fail(isAnswer ? Exit::no : Exit::peer, choices.Fields(), why);
}

// Escaped for lines that a shell script splits: a backslash precedes each backslash and blank.
std::string inQuotes(const std::string& text)
{
    std::string quoted;
    for (const char c : Printable(text)) {
        if (c == ' ' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted;
}

// The process and the fields.
std::string lineOf(const Json& record)
{
    std::string line = std::to_string(record["process"].get<int>());
    for (const auto& [name, value] : record["fields"].items())
        line += ' ' + inQuotes(name) + '=' + inQuotes(value);
    return line;
}

std::string recordLines(const Json& records)
{
    std::string lines;
    for (const Json& record : records)
        lines += lineOf(record) + '\n';
    return lines;
}

Json matching(const AskChoices& choices)
{
    const nmsOwnedRecord pattern = choices.MakeRecord();
    capi_nmsRecordArray* found = nullptr;
    int count = 0;
    require(choices, nmsServQuery(choices.Connect().get(), pattern.get(), &found, &count));
    const nmsOwnedRecords held(found);
    Json records = Json::array();
    for (int i = 0; i < count; ++i) {
        const nmsFields& record = nmsRecGetFields(nmsRecArrGetByIndex(found, i));
        Json fields = Json::object();
        for (const auto& [name, value] : record.fields)
            fields[name] = value;
        records.push_back({{"process", record.owner}, {"fields", fields}});
    }
    return records;
}

void listRecords(const AskChoices& choices)
{
    Show(matching(choices), &recordLines);
}

void queryRecords(const AskChoices& choices)
{
    const Json records = matching(choices);
    Show(records, &recordLines);
    if (records.empty())
        AnswerNo();
}

void registerRecord(const AskChoices& choices)
{
    require(choices, nmsServRegister(choices.Connect().get(), choices.MakeRecord().get()));
}

void deleteRecord(const AskChoices& choices)
{
    int count = 0;
    require(choices, nmsServRemove(choices.Connect().get(), choices.MakeRecord().get(), &count));
    Show(count);
}

void pingServer(const AskChoices& choices)
{
    require(choices, nmsServPing(choices.Connect().get()));
}

void printVersion(const AskChoices& choices)
{
    const nmsOwnedRecord answer(nmsRecCreate(0));
    require(choices, nmsServVersion(choices.Connect().get(), answer.get()));
    const char* const version = nmsRecGetFieldValueByName(answer.get(), "Version");
    Show(version == nullptr ? "" : version);
}

// The fill level of the name server, from its version record. The answer is no when it has refused a record
// because it was full.
void printStatus(const AskChoices& choices)
{
    const nmsOwnedRecord answer(nmsRecCreate(0));
    require(choices, nmsServVersion(choices.Connect().get(), answer.get()));
    Json status = Json::object();
    for (const auto& [name, value] : nmsRecGetFields(answer.get()).fields) {
        const bool isNumber = value.size() < 16 && value.find_first_not_of("0123456789") == std::string::npos;
        if (isNumber && !value.empty())
            status[name] = std::stoll(value);
        else
            status[name] = value;
    }
    Show(status);
    if (status.value("Refused", 0LL) > 0)
        AnswerNo();
}

void shutDownServer(const AskChoices& choices)
{
    require(choices, nmsServShutdown(choices.Connect().get()));
}

// ---- finding a server

void findServer(const AskChoices& choices, const std::string& name)
{
    try {
        const xrchandle<netAddress> found(
            netFind(name.c_str(), choices.host.empty() ? nullptr : choices.host.c_str(), choices.seconds));
        Show({{"host", found->getHostName().CastToCString()}, {"port", found->getPortN()}},
             [](const Json& address) {
                 return address["host"].get<std::string>() + ' ' + address["port"].dump() + '\n';
             });
        return;
    } catch (xthrowable* thrown) {
        const qel::caught failure(thrown);
        auto* const known = failure.as<netXException>();
        if (known == nullptr || known->getError() != netServerNotFound)
            Fail(Exit::peer, choices.Server(),
                 (known == nullptr ? failure.what() : known->getMsg()).CastToCString());
    }
    Fail(Exit::no, name, "no server of that name; `qel ns list` prints all");
}

void addFind(CLI::App& group)
{
    const auto choices = std::make_shared<AskChoices>();
    const auto name = std::make_shared<std::string>();
    CLI::App& find = AddCommand(group, "find", "Print the host and the port of a server",
                                [choices, name] { findServer(*choices, *name); });
    find.add_option("server", *name, "Name of the server")->type_name("SERVER")->required();
    addHost(find, *choices);
    OfferSeconds(find, "--limit", choices->seconds, "Time for the whole request");
    OfferJson(find, "an object: host, port");
}

// ---- waiting for a server

struct WaitChoices
{
    AskChoices query;
    std::string name;
    double seconds = 30;
};

void waitForName(WaitChoices& choices)
{
    choices.query.fields = {"_ServerName=" + choices.name};
    const btkTimeval end = btkTimeval::Now() + btkTimeval(choices.seconds);
    // A running name server has the time to respond at least once.
    choices.query.seconds = std::max(choices.seconds, 0.1);
    for (;;) {
        try {
            if (!matching(choices.query).empty())
                return;
            if (btkTimeval::Now() >= end)
                Fail(Exit::no, choices.name, "no server of that name");
        } catch (const CommandFailed& failed) {
            // A name server that does not run yet may still start.
            if (btkTimeval::Now() >= end || failed.status != Exit::peer)
                throw;
        }
        const btkTimeval pause = std::min(btkTimeval(0.05), end - btkTimeval::Now());
        std::this_thread::sleep_for(std::chrono::duration<double>(pause.ToSeconds()));
        choices.query.seconds = std::max((end - btkTimeval::Now()).ToSeconds(), 0.1);
    }
}

void addWait(CLI::App& group)
{
    const auto choices = std::make_shared<WaitChoices>();
    CLI::App& wait = AddCommand(group, "wait", "Wait until a server of that name is registered",
                                [choices] { waitForName(*choices); });
    wait.add_option("server", choices->name, "Name of the server")->type_name("SERVER")->required();
    OfferSeconds(wait, "--timeout,--limit", choices->seconds,
                 "Time after which the answer is no, or without a name server a failure");
    addHost(wait, choices->query);
}

// ---- watching

struct WatchChoices
{
    AskChoices query;
    double interval = 1;
    int count = 0; // 0: until a signal
    bool isStrict = false;
    bool asJson = false;
};

// Prints the difference between each answer and the one before.
class NameWatch
{
public:
    NameWatch(const WatchChoices& watched, Watching& printer) : choices(watched), output(printer) {}

    void Take()
    {
        try {
            const Json records = matching(choices.query);
            if (!problem.empty())
                Report("reachable", "! " + choices.query.Server() + ": reachable again");
            problem.clear();
            Compare(records);
        } catch (const CommandFailed& failed) {
            if (choices.isStrict || failed.status != Exit::peer)
                throw;
            if (const std::string why = failed.what + ": " + failed.why; why != problem) {
                problem = why;
                Report("unreachable", "! " + Printable(why));
            }
        }
    }

private:
    void Compare(const Json& records)
    {
        std::vector<std::string> keys; // in the order of registration
        std::unordered_map<std::string, const Json*> now;
        for (const Json& record : records)
            if (const auto [place, isNew] = now.emplace(record.dump(-1, ' ', false, replacing), &record);
                isNew)
                keys.push_back(place->first);
        for (const std::string& key : order)
            if (!now.contains(key))
                Report("removed", '-', known[key]);
        for (const std::string& key : keys)
            if (!known.contains(key))
                Report(isFirst ? "present" : "registered", isFirst ? '=' : '+', *now[key]);
        known.clear();
        for (const auto& [key, record] : now)
            known.emplace(key, *record);
        order = std::move(keys);
        isFirst = false;
    }

    // "+ NAME HOST:PORT PROCESS FIELD=VALUE ..."
    void Report(const char* event, char mark, const Json& record)
    {
        Json line = {{"time", TimeOfDay()}, {"event", event}, {"process", record["process"]}};
        Json others = record["fields"];
        const auto take = [&](const char* field) {
            std::string value = others.value(field, std::string());
            others.erase(field);
            return value;
        };
        const std::string name = take("_ServerName"), stated = take("_HostName"), port = take("_PortNumber");
        const std::string host = stated.empty() ? ThisHost() : stated;
        const bool isNumeric = host.find(':') != std::string::npos; // of version 6
        const std::string place = port.empty() ? "-" : (isNumeric ? '[' + host + ']' : host) + ':' + port;
        if (choices.asJson) {
            line["name"] = name.empty() ? Json() : Json(name);
            line["host"] = host;
            line["port"] = port.empty() ? Json() : Json(port);
            line["fields"] = record["fields"];
            output.Print(line.dump(-1, ' ', false, replacing));
        } else {
            output.Print(std::string(1, mark) + ' ' + (name.empty() ? "-" : inQuotes(name)) + ' ' +
                         inQuotes(place) + ' ' +
                         lineOf({{"process", record["process"]}, {"fields", others}}));
        }
    }

    void Report(const char* event, const std::string& text)
    {
        if (choices.asJson)
            output.Print(Json({{"time", TimeOfDay()}, {"event", event}, {"server", choices.query.Server()}})
                             .dump(-1, ' ', false, replacing));
        else
            output.Print(text);
    }

    std::string ThisHost() const { return choices.query.host.empty() ? "localhost" : choices.query.host; }

    static constexpr auto replacing = Json::error_handler_t::replace;
    const WatchChoices& choices;
    Watching& output;
    std::unordered_map<std::string, Json> known;
    std::vector<std::string> order;
    std::string problem;
    bool isFirst = true;
};

void watchNames(const WatchChoices& choices)
{
    Watching output;
    NameWatch watch(choices, output);
    for (int taken = 1;; ++taken) {
        watch.Take();
        if (taken == choices.count || !output.Wait(choices.interval))
            return;
    }
}

// ---- completion

std::vector<nmsFields> recordsWithin(double seconds)
{
    const nmsOwnedProxy proxy = [&] {
        AskChoices local;
        local.seconds = seconds;
        return local.Connect();
    }();
    const nmsOwnedRecord all(nmsRecCreate(0));
    capi_nmsRecordArray* found = nullptr;
    int count = 0;
    const nmsOwnedError error(nmsServQuery(proxy.get(), all.get(), &found, &count));
    const nmsOwnedRecords held(found);
    std::vector<nmsFields> records;
    for (int i = 0; error == nullptr && i < count; ++i)
        records.push_back(nmsRecGetFields(nmsRecArrGetByIndex(found, i)));
    return records;
}

std::vector<std::string> knownFields(const Typed&)
{
    std::vector<std::string> fields;
    for (const nmsFields& record : recordsWithin(completionLimit))
        for (const auto& [name, value] : record.fields)
            fields.push_back(name + '=' + value);
    return fields;
}

// ---- the commands

struct AskCommand
{
    const char* name;
    const char* help;
    void (*ask)(const AskChoices& choices);
    enum { NoFields, SomeFields, NeedsFields } fields = NoFields;
    const char* form = nullptr; // of its answer as JSON; null: yes or no
};

constexpr const char* recordForm = "a line for each record: process (0: none), fields";

constexpr AskCommand askCommands[] = {
    {"list", "Print all records, a line each: the process (0: none), and the fields", &listRecords,
     AskCommand::NoFields, recordForm},
    {"query", "Print the records that have these fields; the answer is no when there is none", &queryRecords,
     AskCommand::SomeFields, recordForm},
    {"register", "Register a record with these fields", &registerRecord, AskCommand::NeedsFields},
    {"delete", "Delete the records that have these fields, and print how many", &deleteRecord,
     AskCommand::NeedsFields, "a number"},
    {"ping", "Succeed when the name server responds", &pingServer},
    {"version", "Print the name server's version", &printVersion, AskCommand::NoFields, "a text"},
    {"status",
     "Print how full the name server is; the answer is no when it has refused records for want of room since "
     "its start",
     &printStatus, AskCommand::NoFields,
     "an object: Version, Records, MaxRecords, RecordsOfNoProcess, MaxRecordsOfNoProcess, Bytes, MaxBytes, Refused, "
     "LastRefusal, and with a store RecordsOfOthers, BytesOfOthers, MaxBytesOfOthers, RecordsOfOthersLeftOut, StoreStale"},
    {"shutdown", "Stop the name server of this machine", &shutDownServer}};

void addFields(CLI::App& command, AskChoices& choices, bool isRequired)
{
    const auto isField = [](const std::string& text) {
        return text.find('=') == std::string::npos ? "not NAME=VALUE: " + text : std::string();
    };
    CLI::Option& field = *command.add_option("field", choices.fields, "A field, such as _ServerName=NAME");
    field.type_name("NAME=VALUE")->check(isField)->required(isRequired);
    Offer(field, &knownFields);
}

void addAsk(CLI::App& group, const AskCommand& command)
{
    const auto choices = std::make_shared<AskChoices>();
    CLI::App& ask =
        AddCommand(group, command.name, command.help, [choices, run = command.ask] { run(*choices); });
    addHost(ask, *choices);
    OfferSeconds(ask, "--limit", choices->seconds, "Time for the whole request");
    if (command.fields != AskCommand::NoFields)
        addFields(ask, *choices, command.fields == AskCommand::NeedsFields);
    if (command.ask == &registerRecord)
        ask.add_option("--process", choices->owner, "Process that owns the record (default: none)")
            ->type_name("PROCESS")
            ->check(CLI::Range(2, 0x7FFFFFFF)); // 1 would be this program itself
    if (command.form != nullptr)
        OfferJson(ask, command.form);
}

void addWatch(CLI::App& group)
{
    const auto choices = std::make_shared<WatchChoices>();
    choices->query.seconds = 2; // a signal waits for the end of a request
    CLI::App& watch = AddCommand(
        group, "watch",
        "Print the records that are present at the start (=), registered (+) and removed (-): the server's name, its "
        "HOST:PORT, its process and the other fields. The name service reports no changes, so the records are "
        "queried at an interval; ! begins a line when the name server becomes unreachable or reachable again",
        [choices] { watchNames(*choices); });
    addFields(watch, choices->query, false);
    addHost(watch, choices->query);
    OfferSeconds(watch, "--limit", choices->query.seconds, "Time for each request");
    OfferInterval(watch, choices->interval, "Time between requests");
    OfferCount(watch, choices->count, "Requests to be made (default: until Ctrl-C)");
    watch.add_flag("--strict", choices->isStrict, "Fail when the name server cannot be reached");
    watch.add_flag(
        "--json", choices->asJson,
        "Print JSON, a line for each change: time, event (present, registered, removed, unreachable, "
        "reachable), process, name, host, port, fields; server for the last two events");
}

} // namespace

std::vector<std::string> ServerNames(double seconds)
{
    std::vector<std::string> names;
    for (const nmsFields& record : recordsWithin(seconds))
        if (const std::string* const name = record.Find("_ServerName"))
            names.push_back(*name);
    return names;
}

void AddNameServiceCommands(CLI::App& program)
{
    CLI::App& group = AddGroup(
        program, "ns", "The name server, which knows where servers are, and its clients",
        {{"qel ns serve --interface '*'", "Run the name server of all machines on the network."},
         {"qel ns list", "All records: the process and its fields."},
         {"qel ns find files", "Where the server \"files\" is: its host and port."},
         {"qel ns query --json _ServerName=files", "All fields of that server, for a program."},
         {"qel ns register _ServerName=files _PortNumber=4000",
          "Register a server that cannot do so itself."},
         {"qel ns wait files --timeout 10", "Continue once the server \"files\" is registered."},
         {"qel ns watch", "Servers as they come and go, until Ctrl-C."},
         {"qel ns watch --json _Scope=all", "The same for all machines that share names, for a program."}});
    AddNameServer(group);
    for (const AskCommand& command : askCommands)
        addAsk(group, command);
    addFind(group);
    addWait(group);
    addWatch(group);
}
