// qel rsh: runs a command on another machine.
#include "rsh.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btkcmdline.h>
#include <qel/base/btkenvironment.h>
#include <qel/base/btkpipe.h>
#include <qel/base/btkprocess.h>
#include <qel/base/btktunnel.h>
#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/nettls.h>
#include <qel/pcinterrupt.h>
#include <qel/qelown.h>
#include <qel/rshprocess.h>

#include "commands.h"

namespace {

struct AskChoices
{
    std::string host;
    std::string name; // empty: the port is known
    int port = usualShellPort;
    double seconds = 10;
    std::string directory;
    bool useShell = false;
    bool hasNoInput = false;
    std::string via; // empty: connects itself
    std::string program = "qel";
    bool isEncrypted = false; // also to this machine
};

// The time for a user to log in; that of --limit begins then.
constexpr btkTimeval loginLimit(120, 0);
// For the program that carried the connection, once it is closed.
constexpr btkTimeval carrierLimit(2, 0);

// The program that carries a connection to the server that it starts at another machine. Its input and output are the
// connection. Interrupts are the command's, so that program ignores them.
class Carrier
{
public:
    explicit Carrier(const AskChoices& choices)
    {
        btkOutputPipe outputOfProgram;
        btkInputPipe inputOfProgram;
        btkOutputPipe toProgram;
        btkInputPipe fromProgram;
        const std::string script = "trap '' INT QUIT; exec " + choices.via + " \"$@\"";
        std::string line = "/bin/sh -ec";
        for (const std::string& word : {script, choices.via, choices.host, choices.program + " rshd --stdio"})
            line += ' ' + btkQuoteWord(word);
        unsigned long id = 0;
        if (!btkAnonymousPipe::Create(toProgram, inputOfProgram) ||
            !btkAnonymousPipe::Create(outputOfProgram, fromProgram) ||
            !Process_Launch(&process, &id, line.c_str(), nullptr, inputOfProgram.Get(), outputOfProgram.Get(),
                            -1, 0))
            Fail(Exit::peer, choices.via, std::strerror(errno));
        input = btkFd(fromProgram.Release());
        output = btkFd(toProgram.Release());
    }
    Carrier(const Carrier&) = delete;
    Carrier& operator=(const Carrier&) = delete;
    ~Carrier()
    {
        if (process == nullptr)
            return;
        if (!WaitForEnd())
            Process_Kill(process);
        Process_Wait(process, &code, true, true);
    }

    // The reason for a failure that the system's error `error` says less about.
    std::string Explain(int error)
    {
        if (error == EPROTO)
            return "something else than a server was written there: does the login print anything?";
        if (error != ECONNRESET || !WaitForEnd() || !Process_Wait(process, &code, false, true))
            return std::strerror(error);
        process = nullptr;
        return "exited with status " + std::to_string(code);
    }

    btkFd input, output;

private:
    bool WaitForEnd() const
    {
        return !Process_CheckRunning(process) || btkIsReadable(Process_GetExitHandle(process), carrierLimit);
    }

    btkProcess* process = nullptr;
    long code = 0;
};

qel::owned<netSocketStream> connect(const AskChoices& choices)
{
    const xrchandle<netAddress> address(choices.name.empty()
                                            ? netAddress::Create(choices.port, choices.host.c_str())
                                            : netAddress::Create(choices.name.c_str(), choices.host.c_str()));
    try {
        qel::owned<netSocketStream> stream(netServer::Connect(address.get(), choices.seconds));
        if (stream != nullptr)
            return stream;
    } catch (xthrowable* thrown) {
        throw FailureOf(thrown, Exit::peer, choices.host);
    }
    Fail(Exit::peer, choices.host + ", port " + std::to_string(address->getPortN()),
         "no response; does `qel rshd` run there? --via ssh needs none");
}

// The command line, quoted so that the server can restore the words; for a shell, as the user wrote it.
std::string lineOf(const std::vector<std::string>& words, bool useShell)
{
    std::string line;
    for (const std::string& word : words)
        line += (line.empty() ? "" : " ") + (useShell ? word : btkQuoteWord(word));
    return line;
}

qel::owned<rshProcess> start(const AskChoices& choices, const std::vector<std::string>& words,
                             netSocketStream& connection)
{
    ioStream* const in = choices.hasNoInput ? nullptr : ioStream::getStdin();
    qel::owned<rshProcess> process;
    try {
        process.reset(rshProcess::Create(&connection, lineOf(words, choices.useShell).c_str(),
                                         choices.directory.c_str(), in, ioStream::getStdout(),
                                         ioStream::getStderr(), choices.useShell ? 1 : 0, 0));
        if (process != nullptr && choices.hasNoInput)
            process->getStdin()->Close();
    } catch (xthrowable* thrown) {
        rshXProcess* const answer = rshXProcess::softcast(thrown);
        const bool isSystemError = answer != nullptr && answer->getCreateError() == pcCreateCode::system;
        CommandFailed failed =
            FailureOf(thrown, Exit::peer, answer != nullptr ? words.front() : choices.host);
        // As a shell: the server passes the system's text only.
        if (isSystemError)
            failed.status = failed.why == std::strerror(ENOENT) ? Exit::notFound : Exit::notRun;
        throw failed;
    }
    if (process == nullptr)
        Fail(Exit::peer, "", "cannot start a thread");
    return process;
}

// Whether the user insists: the third interrupt within two seconds.
class Insistence
{
public:
    bool NoteInterrupt()
    {
        const btkTimeval now = btkTimeval::Now();
        const bool insists = now - last[0] < btkTimeval(2.0);
        last = {last[1], now};
        return insists;
    }

private:
    std::array<btkTimeval, 2> last;
};

// Forwards the user's interrupts until the command has exited, and terminates it when the user insists. False
// when its output has no reader any more; it has then been terminated.
bool attend(rshProcess& process, const std::string& host)
{
    const qel::owned<rshEvent> end(process.ExitEvent());
    const qel::owned<pcInterruptEvent> interrupt(pcInterruptEvent::Create());
    btkEvent outputFailure(new btkSelectEvent(1, 2)); // set when the pipe has no reader
    btkEvent::List events = {end.get(), interrupt.get(), &outputFailure};
    Insistence insistence;
    btkTimeval deadline = btkTimeval::Forever(); // for the server, once the user insists
    bool isTaken = true;
    while (process.IsRunning() != 0) {
        btkEvent::Wait(events, deadline - btkTimeval::Now());
        if (interrupt != nullptr && interrupt->WasSignaled()) {
            pcInterruptEvent::Reset();
            if (!insistence.NoteInterrupt()) {
                process.Interrupt();
            } else if (deadline.IsForever()) {
                process.Terminate();
                deadline = btkTimeval::Now() + btkTimeval(2.0);
            }
        } else if (isTaken && outputFailure.WasSignaled()) {
            isTaken = false;
            events.pop_back();
            process.Terminate();
        }
        // Also while the user goes on insisting.
        if (!end->WasSignaled() && btkTimeval::Now() >= deadline)
            Fail(Exit::peer, host, "the server does not terminate the command");
    }
    return isTaken;
}

void runCommand(const AskChoices& choices, const std::vector<std::string>& words, netSocketStream& connection,
                btkTimeval end)
{
    connection.setUrgentSpacing(0.2);
    rshProcess::setAnswerLimit((end - btkTimeval::Now()).ToSeconds());
    const qel::owned<rshProcess> process = start(choices, words, connection);
    if (!attend(*process, choices.host))
        throw CommandFailed{};
    if (ioStream::getStdout()->getIsBad() != 0 || ioStream::getStderr()->getIsBad() != 0)
        Fail(Exit::peer, "", "not all of the command's output could be written");
    const int code = process->GetExitCode();
    if (code == xnullint)
        Fail(Exit::peer, choices.host, "the connection was lost, or the server terminated the command");
    if (code != 0)
        throw CommandFailed{static_cast<Exit>(code), "", ""};
}

void askShellVia(const AskChoices& choices, const std::vector<std::string>& words)
{
    // It would be an option of the program.
    if (choices.host.empty() || choices.host.front() == '-')
        Fail(Exit::usage, "HOST", choices.host + ": no name of a machine");
    Carrier carrier(choices);
    btkTunnel tunnel;
    std::unique_ptr<btkStreamSocket> socket =
        tunnel.Open(std::move(carrier.input), std::move(carrier.output), loginLimit);
    if (socket == nullptr)
        Fail(Exit::peer, choices.via + ' ' + choices.host, carrier.Explain(errno));
    const qel::owned<netSocketStream> connection(netSocketStream::Create(socket.release()));
    runCommand(choices, words, *connection, btkTimeval::Now() + btkTimeval(choices.seconds));
}

void askShell(const AskChoices& choices, const std::vector<std::string>& words)
{
    if (words.empty())
        Fail(Exit::usage, "COMMAND", "no command to run");
    if (!choices.via.empty())
        return askShellVia(choices, words);
    if (choices.isEncrypted && !netIsTlsConfigured())
        Fail(Exit::usage, "--tls", "no directory of certificates: set QELSTD_TLS");
    if (choices.isEncrypted)
        btkEnvironment::Set("QELSTD_TLS_LOCAL", "1");
    const btkTimeval end = btkTimeval::Now() + btkTimeval(choices.seconds);
    const qel::owned<netSocketStream> connection = connect(choices);
    runCommand(choices, words, *connection, end);
}
} // namespace

void AddRemoteShellCommand(CLI::App& program)
{
    const auto choices = std::make_shared<AskChoices>();
    CLI::App& ask =
        AddCommand(program, "rsh",
                   "Run a command at another machine, by the server `qel rshd` there, or one that --via ssh "
                   "starts there for it. Interrupts go to "
                   "the command; the third within two seconds ends it. The exit status is the command's; 127 "
                   "when the server finds no such program, 126 when it cannot run it",
                   nullptr);
    ask.callback([choices, &ask] { askShell(*choices, ask.remaining()); });
    ask.footer(
        "qel rsh --via ssh build7 make -j4\tOver a connection of ssh: no server need run there.\n"
        "qel rsh --via 'ssh -p 2222' mary@build7 sort <names\tWith options for ssh, as another user.\n"
        "qel rsh localhost sort <names\tSort the lines of a file by the server of this machine.\n"
        "qel rsh --shell build7 'cd src && make -j4'\tA line for the shell there.\n"
        "qel rsh --no-input --name shell build7 uptime\tBy the server that is registered there as shell.\n");
    ask.add_option("host", choices->host, "Machine of the server")->type_name("HOST")->required();
    // For the help only: it consumes nothing, so the words behind HOST stay unchanged.
    ask.validate_positionals();
    ask.prefix_command();
    ask.add_option("command", "Program to run there, and its arguments, each of which arrives as it is")
        ->type_name("COMMAND")
        ->expected(0, 1 << 20)
        ->check([](const std::string&) { return std::string("taken as it is"); });
    CLI::Option* const port = ask.add_option("--port", choices->port, "Port of the server")
                                  ->type_name("PORT")
                                  ->check(CLI::Range(1, 65535))
                                  ->capture_default_str();
    CLI::Option* const name =
        ask.add_option("--name", choices->name,
                       "Ask the name server of HOST for the port of the server NAME instead")
            ->type_name("NAME");
    CLI::Option* const via =
        ask.add_option("--via", choices->via,
                       "Do not connect: run the program with HOST and a command line for the machine there, "
                       "`qel rshd --stdio`; ssh, or ssh with options. It asks who the user is, and encrypts")
            ->type_name("PROGRAM")
            ->excludes(port)
            ->excludes(name);
    ask.add_option("--program", choices->program,
                   "With --via: qel there, if the PATH there does not lead to it")
        ->type_name("QEL")
        ->needs(via)
        ->capture_default_str();
    ask.add_flag(
           "--tls", choices->isEncrypted,
           "Connect by TLS only. That is so where QELSTD_TLS names a directory of certificates, except to this "
           "machine; the server's must show NAME, or without --name HOST")
        ->excludes(via);
    OfferSeconds(ask, "--limit", choices->seconds, "Time until the command runs there", CLI::PositiveNumber);
    ask.add_option("--directory", choices->directory,
                   "Where to run it (default: where the server runs commands)")
        ->type_name("DIRECTORY");
    ask.add_flag("--shell", choices->useShell,
                 "COMMAND, its words joined by blanks, is a line for the shell of the server's user ($SHELL, "
                 "else /bin/sh)");
    ask.add_flag("--no-input", choices->hasNoInput, "Leave the standard input to others");
}
