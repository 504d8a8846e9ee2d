// The options of `qel tls`.
#include <memory>

#include "commands.h"
#include "tls.h"

namespace {

constexpr int mostDays = 36500;

struct TlsCommand
{
    CLI::App& command;
    TlsChoices& choices;

    void AddFolder(const char* help)
    {
        command.add_option("directory", choices.folder, help)->type_name("DIRECTORY")->required();
    }
    void AddName(const char* help)
    {
        command.add_option("name", choices.name, help)->type_name("NAME")->required();
    }
    void AddAuthority()
    {
        command.add_option("--authority", choices.folder, "Directory of the authority")
            ->type_name("DIRECTORY")
            ->required();
    }
    CLI::Option* AddTargets(const char* help)
    {
        return command.add_option("--to", choices.targets, help)->type_name("DIRECTORY")->expected(1);
    }
    void AddDays(const char* names, int& days, const char* help)
    {
        command.add_option(names, days, help)
            ->type_name("DAYS")
            ->check(CLI::Range(1, mostDays))
            ->capture_default_str();
    }
    void AddListDays(const char* names)
    {
        AddDays(names, choices.listDays, "Days that the revocation list is valid for");
    }
};

TlsCommand add(CLI::App& group, const RunTls& run, const char* name, const char* help)
{
    const auto choices = std::make_shared<TlsChoices>();
    CLI::App& command = AddCommand(group, name, help, nullptr);
    command.callback([choices, &command, run] { run(command, *choices); });
    return {command, *choices};
}

void addIssue(CLI::App& group, const RunTls& run)
{
    TlsCommand issue =
        add(group, run, "issue",
            "Make a key and a certificate for a server or a client, and put all that it needs into "
            "a directory for QELSTD_TLS: key, certificate, authority, revocation list. There it "
            "replaces earlier ones of the same name, so that it also renews");
    issue.AddName("Its name: letters, digits and . _ - + @");
    issue.AddAuthority();
    issue.AddTargets("Directory for the program's files; made if it is missing")
        ->required()
        ->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    CLI::Option* const isServer = issue.command.add_flag(
        "--server", issue.choices.isServerOnly, "It may be a server only (default: server and client)");
    issue.command.add_flag("--client", issue.choices.isClientOnly, "It may be a client only")
        ->excludes(isServer);
    issue.command
        .add_option(
            "--host", issue.choices.hosts,
            "Name or address of the machine by which clients connect to it; may be given several times")
        ->type_name("HOST")
        ->expected(1)
        ->take_all();
    issue.choices.days = usualCertificateDays;
    issue.AddDays("--days", issue.choices.days,
                  "Days that the certificate is valid for, at most as long as the authority's");
    issue.AddListDays("--list-days");
}

} // namespace

void AddTlsOptions(CLI::App& group, const RunTls& run)
{
    TlsCommand init =
        add(group, run, "init",
            "Make an authority: its key, its certificate and an empty revocation list. Whoever can "
            "read the key can make certificates of any name");
    init.AddFolder("Directory for it; made if it is missing");
    init.choices.days = usualAuthorityDays;
    init.AddDays("--days", init.choices.days, "Days that the authority is valid for");
    init.AddListDays("--list-days");

    addIssue(group, run);

    TlsCommand revoke =
        add(group, run, "revoke",
            "Revoke all certificates of a name, renew the authority's revocation list, and print "
            "the number of certificates. Programs refuse them once they have the new list");
    revoke.AddName("Name of the certificates");
    revoke.AddAuthority();
    revoke.AddTargets("Directory of a program that gets the new list; may be given several times")
        ->take_all();
    revoke.AddListDays("--list-days");
    OfferJson(revoke.command, "a number");

    TlsCommand renew =
        add(group, run, "renew-list",
            "Renew the authority's revocation list. Programs refuse all connections when their "
            "list has expired");
    renew.AddAuthority();
    renew.AddTargets("Directory of a program that gets the new list; may be given several times")->take_all();
    renew.AddListDays("--list-days");

    TlsCommand show =
        add(group, run, "show",
            "Print the certificates, keys and lists of a program or an authority. Warns of those "
            "that are valid for less than 14 days; the answer is no when one cannot be used");
    show.AddFolder("Directory of the program or of the authority");
    OfferJson(show.command, "a line for each file: file, kind, state, from, until, days, names");
}
