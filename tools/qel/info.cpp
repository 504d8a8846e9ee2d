// qel info: the version of this program and its library, and their settings.
#include <limits>
#include <nlohmann/json.hpp>
#include <string>

#include <qel/base/nmsclient.h>
#include <qel/base/nmsserver.h>
#include <qel/filelib.h>
#include <qel/hmxregistry.h>
#include <qel/syslib.h>
#include <qel/xstring.h>

#include "commands.h"
#include "program.h"

namespace {

Json textOf(const xstring& text)
{
    return text == nullptr ? Json() : Json(text.CastToCString());
}

Json environment()
{
    Json set = Json::object();
    const auto add = [&set](const std::string& name) {
        if (const xstring value = sysGetEnv(name.c_str()); !(value == nullptr))
            set[name] = textOf(value);
    };
    for (const VariableHelp& variable : environmentHelp)
        add(variable.name);
    for (char drive = 'D'; drive <= 'Z'; ++drive)
        add(std::string("QELSTD_DRIVE_") + drive);
    for (const char* const name : {"XDG_CONFIG_HOME", "HOME", "HOMEDRIVE", "HOMEPATH"})
        add(name);
    return set;
}

Json describeAll()
{
    const nmsServerOptions names;
    Json all;
    all["version"] = QEL_VERSION;
    all["build"] = {{"compiler", __VERSION__},
                    {"type", QEL_BUILD_TYPE},
                    {"bits", std::numeric_limits<std::size_t>::digits}};
    all["machine"] = {{"name", textOf(sysGetCurHostName())},
                      {"platform", textOf(sysGetPlatform())},
                      {"system", textOf(sysGetOSType())},
                      {"user", textOf(sysGetCurUserName())}};
    const xstring drive = sysGetEnv("QELSTD_DRIVE_C");
    all["paths"] = {{"current directory", textOf(fsGetCurDir())},
                    {"drive C", drive == nullptr ? Json("/") : textOf(drive)}};
    all["registry"] = {{"of the system", textOf(hmxRegistry::System().getFolder())},
                       {"of the user", textOf(hmxRegistry::User().getFolder())}};
    all["name server"] = {{"port", nmsFindPort()}, {"answer limit in s", nmsGetAnswerLimit().ToSeconds()}};
    all["limits"] = {{"records of a name server", names.table.records},
                     {"records of a process", names.table.recordsOfOwner},
                     {"waiting clients", names.waiting}};
    all["environment"] = environment();
    return all;
}

// A heading for each member, and a line for each of its members.
std::string linesOf(const Json& everything)
{
    std::string lines;
    for (const auto& [name, value] : everything.items()) {
        lines += Bold(name);
        if (!value.is_object()) {
            lines += ": " + AsText(value);
            continue;
        }
        lines += ":\n";
        for (const auto& [key, one] : value.items())
            lines += "  " + key + ": " + AsText(one);
    }
    return lines;
}

} // namespace

void AddInfoCommand(CLI::App& program)
{
    CLI::App& info =
        AddCommand(program, "info", "Print the version, the limits, and the settings from the environment",
                   [] { Show(describeAll(), &linesOf); });
    info.footer("qel info --json\tFor a bug report.\n");
    OfferJson(
        info,
        "an object: version, and an object for each heading of the text: build, machine, paths, registry, name "
        "server, limits, environment");
}
