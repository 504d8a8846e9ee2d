// qel tls: certificates for those who have no authority of their own.
#include "tls.h"

#include <cerrno>
#include <cstring>

#include <qel/base/btkprocess.h>

#include "commands.h"
#include "files.h"

namespace {

// The command as it was typed: its options, and its arguments behind them.
std::vector<std::string> wordsOf(const CLI::App& command)
{
    std::vector<std::string> words = {command.get_name()}, arguments = {"--"};
    for (const CLI::Option* const option : command.get_options())
        for (const std::string& value : option->results())
            if (option->get_positional())
                arguments.push_back(value);
            else
                words.push_back("--" + option->get_lnames().front() +
                                (option->get_type_size_max() == 0 ? "" : "=" + value));
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

// The program that makes certificates is another, in a package with the library that speaks TLS.
void becomeHelper(const CLI::App& command)
{
    const std::string program = FindHelper("qel-tls", "qelstd-tls");
    std::vector<std::string> words = wordsOf(command);
    words.insert(words.begin(), program);
    Process_Become(words);
    Fail(Exit::peer, program, std::strerror(errno));
}

} // namespace

void AddTlsCommands(CLI::App& program)
{
    CLI::App& group =
        AddGroup(program, "tls", "Certificates for encrypted connections",
                 {{"qel tls init ~/authority", "An authority, on a machine that only you use."},
                  {"qel tls issue files --authority ~/authority --to files --host lab2.example",
                   "A certificate for the server \"files\" of that machine."},
                  {"qel tls show files", "Until when its certificate and its revocation list are valid."},
                  {"qel tls revoke files --authority ~/authority --to other",
                   "Its key was lost: nobody accepts it who has the new list."},
                  {"qel tls renew-list --authority ~/authority --to files",
                   "Once a week, and copied to the other machines."}});
    AddTlsOptions(group, [](const CLI::App& command, const TlsChoices&) { becomeHelper(command); });
}
