// qel-tls COMMAND...: makes and shows certificates. `qel tls` becomes this program.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "authority.h"
#include "show.h"

namespace {

void init(const TlsChoices& choices)
{
    Authority::Make(choices);
}

void issue(const TlsChoices& choices)
{
    Authority(choices.folder).Issue(choices);
}

void revoke(const TlsChoices& choices)
{
    Authority authority(choices.folder);
    const int count = authority.Revoke(choices.name, choices.listDays);
    if (count == 0)
        Fail(Exit::no, choices.name, "no certificate of that name is valid");
    for (const std::string& target : choices.targets)
        authority.PublishList(target);
    Show(count);
}

void renewList(const TlsChoices& choices)
{
    Authority authority(choices.folder);
    authority.RenewList(choices.listDays);
    for (const std::string& target : choices.targets)
        authority.PublishList(target);
}

void show(const TlsChoices& choices)
{
    ShowFolder(choices.folder);
}

const std::map<std::string, void (*)(const TlsChoices&)> actions = {
    {"init", &init}, {"issue", &issue}, {"revoke", &revoke}, {"renew-list", &renewList}, {"show", &show}};

} // namespace

int main(int count, char** words)
{
    CLI::App program("Makes and shows certificates; `qel tls` starts it.", "qel-tls");
    program.require_subcommand(1);
    std::string name = "qel tls";
    try {
        AddTlsOptions(program, [&](const CLI::App& command, const TlsChoices& choices) {
            name += ' ' + command.get_name();
            actions.at(command.get_name())(choices);
        });
        program.parse(count, words);
        return 0;
    } catch (const CLI::ParseError& problem) {
        return program.exit(problem);
    } catch (const CommandFailed& failed) {
        if (!failed.why.empty())
            std::cerr << name << ": " << (failed.what.empty() ? "" : Printable(failed.what) + ": ")
                      << Printable(failed.why) << std::endl;
        return static_cast<int>(failed.status);
    } catch (const std::exception& failure) {
        std::cerr << name << ": " << Printable(failure.what()) << std::endl;
        return static_cast<int>(Exit::peer);
    }
}
