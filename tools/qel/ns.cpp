// qel ns: the name server, and its clients.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "commands.h"
#include <qel/base/nmsclient.h>
#include <qel/base/nmsserver.h>

namespace {

// ---- serving

struct ServeChoices
{
    std::string interface = "127.0.0.1";
    int port = -1;
    double seconds = 5;
    nmsServerOptions options;
};

void Serve(ServeChoices& choices)
{
    nmsServerOptions& options = choices.options;
    options.interface = choices.interface == "*" ? nullptr : choices.interface.c_str();
    options.port = choices.port >= 0 ? choices.port : nmsFindPort();
    options.requestLimit = btkTimeval(choices.seconds);
    options.version = "qel ns " QEL_VERSION;
    options.untilSignal = true;
    nmsServer server(options);
    if (!server.Listen()) {
        std::cerr << "qel ns: cannot listen on " << choices.interface << ", port " << options.port << ": "
                  << std::strerror(errno) << std::endl;
        throw CommandFailed{};
    }
    // Who started the server with port 0 reads the port from here.
    std::cout << "serving on " << choices.interface << ", port " << server.GetPort() << std::endl;
    server.Run();
}

void AddServe(CLI::App& group)
{
    const auto choices = std::make_shared<ServeChoices>();
    CLI::App& serve = *group.add_subcommand("serve", "Be a name server until SIGTERM or `qel ns shutdown`");
    serve
        .add_option("--interface", choices->interface,
                    "Address or name of the interface to listen on; '*': all of them")
        ->capture_default_str();
    serve.add_option("--port", choices->port, "Port; 0: a free one (default: VRXNMSPORT, or 1239)")
        ->check(CLI::Range(0, 65535));
    serve.add_option("--request-limit", choices->seconds, "Seconds that one client may take for a request")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    serve.add_option("--waiting", choices->options.waiting, "Clients that may be waiting at once")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    serve.add_option("--max-records", choices->options.table.records, "Records held")->capture_default_str();
    serve
        .add_option("--max-records-of-process", choices->options.table.recordsOfOwner,
                    "Records of one process held")
        ->capture_default_str();
    serve.callback([choices] { Serve(*choices); });
}

// ---- asking

struct AskChoices
{
    std::string host; // empty: this machine
    std::vector<std::string> fields;
    int owner = 0;

    nmsOwnedProxy Connect() const
    {
        return nmsOwnedProxy(host.empty() ? nmsServConnectLocal() : nmsServConnectByName(host.c_str()));
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

void Require(capi_nmsError* answered)
{
    const nmsOwnedError error(answered);
    if (error == nullptr)
        return;
    nmsErrPrint(error.get());
    throw CommandFailed{};
}

// As a part of a line that a shell script can take apart: a backslash stands before one and before a blank.
std::string Quoted(const std::string& text)
{
    std::string quoted;
    for (const char c : Printable(text)) {
        if (c == ' ' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted;
}

void PrintMatching(const AskChoices& choices)
{
    const nmsOwnedRecord pattern = choices.MakeRecord();
    capi_nmsRecordArray* found = nullptr;
    int count = 0;
    Require(nmsServQuery(choices.Connect().get(), pattern.get(), &found, &count));
    const nmsOwnedRecords held(found);
    for (int i = 0; i < count; ++i) {
        const nmsFields& record = nmsRecGetFields(nmsRecArrGetByIndex(found, i));
        std::cout << record.owner;
        for (const auto& [name, value] : record.fields)
            std::cout << ' ' << Quoted(name) << '=' << Quoted(value);
        std::cout << '\n';
    }
    std::cout.flush();
}

void Register(const AskChoices& choices)
{
    Require(nmsServRegister(choices.Connect().get(), choices.MakeRecord().get()));
}

void Delete(const AskChoices& choices)
{
    int count = 0;
    Require(nmsServRemove(choices.Connect().get(), choices.MakeRecord().get(), &count));
    std::cout << count << std::endl;
}

void Ping(const AskChoices& choices)
{
    Require(nmsServPing(choices.Connect().get()));
}

void PrintVersion(const AskChoices& choices)
{
    const nmsOwnedRecord answer(nmsRecCreate(0));
    Require(nmsServVersion(choices.Connect().get(), answer.get()));
    const char* const version = nmsRecGetFieldValueByName(answer.get(), "Version");
    std::cout << Printable(version == nullptr ? "" : version) << std::endl;
}

void Shutdown(const AskChoices& choices)
{
    Require(nmsServShutdown(choices.Connect().get()));
}

struct AskCommand
{
    const char* name;
    const char* help;
    enum { NoFields, SomeFields, NeedsFields } fields;
    void (*ask)(const AskChoices& choices);
};

constexpr AskCommand askCommands[] = {
    {"list", "Print all records, a line each: the process, and the fields", AskCommand::NoFields,
     &PrintMatching},
    {"query", "Print the records that have these fields", AskCommand::SomeFields, &PrintMatching},
    {"register", "Register a record with these fields", AskCommand::NeedsFields, &Register},
    {"delete", "Delete the records that have these fields, and print how many", AskCommand::NeedsFields,
     &Delete},
    {"ping", "Succeed when the name server answers", AskCommand::NoFields, &Ping},
    {"version", "Print the name server's version", AskCommand::NoFields, &PrintVersion},
    {"shutdown", "Stop the name server of this machine", AskCommand::NoFields, &Shutdown}};

void AddAsk(CLI::App& group, const AskCommand& command)
{
    const auto choices = std::make_shared<AskChoices>();
    CLI::App& ask = *group.add_subcommand(command.name, command.help);
    ask.add_option("--host", choices->host, "Machine of the name server (default: this one)");
    if (command.fields != AskCommand::NoFields) {
        const auto isField = [](const std::string& text) {
            return text.find('=') == std::string::npos ? "not NAME=VALUE: " + text : std::string();
        };
        CLI::Option& fields = *ask.add_option("field", choices->fields, "NAME=VALUE")->check(isField);
        fields.required(command.fields == AskCommand::NeedsFields);
    }
    if (command.ask == &Register)
        ask.add_option("--process", choices->owner, "Process that the record goes with (default: none)")
            ->check(CLI::Range(2, 0x7FFFFFFF)); // 1 would be this program itself
    ask.callback([choices, ask = command.ask] { ask(*choices); });
}

} // namespace

void AddNameServiceCommands(CLI::App& program)
{
    CLI::App& group = *program.add_subcommand("ns", "The name service");
    group.require_subcommand(1);
    AddServe(group);
    for (const AskCommand& command : askCommands)
        AddAsk(group, command);
}
