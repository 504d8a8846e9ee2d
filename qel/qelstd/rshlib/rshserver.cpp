#include "rshserver.h"

#include <atomic>
#include <stdexcept>

#include <qel/base/btksocket.h>
#include <qel/base/btksystem.h>

#include "fspath.h"
#include "iopipe.h"
#include "netsocketstream.h"
#include "pcprocess.h"
#include "qelexception.h"
#include "qelfatal_p.h"
#include "qeltable.h"
#include "rshrelay_p.h"

constinit qelClass rshServer::rtti = {
    .name = "rshlib::Server",
};

constinit qelClass rshServerEvent::rtti = {
    .name = "rshlib::ServerEvent",
    .parents = {QEL_PARENT(evtEvent)},
    .attrs = {QEL_ATTR(Server)},
};

namespace {

// The time for a client to receive the rest after a stop request, and for a killed command to exit.
constexpr double patienceWithClient = 0.5;
constexpr double patienceWithCommand = 5.0;

std::atomic<btkTimeval> patienceAtEnd = btkTimeval(10, 0);

xstring forShell(const std::string& command)
{
    const xstring shell = pcGetShellCommand();
    const std::string prefix = shell != nullptr ? shell.CastToCString() : "";
    return (prefix + " \"" + command + "\"").c_str();
}

xstring workDirBelow(const char* baseDir, const std::string& wanted)
{
    const xstring workDir = fsPathToNative(wanted.c_str());
    // One that begins with a separator is rooted, though it names no drive.
    const bool isRooted = fsIsPathAbsolute(workDir.CastToCString()) || workDir.CastToCString()[0] == '\\';
    const bool isBelowBase = !isRooted && !wanted.empty() && *baseDir != '\0';
    return isBelowBase ? fsCatPaths(fsPathToNative(baseDir).CastToCString(), workDir.CastToCString())
                       : workDir;
}

void replyFailure(ioStream& connection, int code, const char* text)
{
    rshSucceeds([&] {
        connection.WriteInt(rshReplyFailed);
        connection.WriteInt(code);
        connection.WriteString(text);
        connection.Flush(1);
    });
}

} // namespace

// One command that is being served.
class [[gnu::visibility("hidden")]] rshSession : private rshReceiver
{
public:
    rshSession(netSocketStream & s, evtEvent * stop)
        : rshReceiver(s), connection(&s), lost(new btkSelectEvent(connection.GetHandle(), 3)),
          urgent(s.OutOfBandEvent()), urgentStream(s), stopEvent(stop)
    {
        // Unread input of a command waits there. It costs no speed: 1 GiB each way took 4.1 s, and 5.3 s with the
        // kernel's default size (medians of nine, two busy cores).
        btkSetOwnRoom(connection.GetHandle(), btkUrgentRoom);
    }

    ~rshSession() override
    {
        if (process != nullptr && !hasEnded)
            process->Terminate();
    }

    // Starts the command and replies. False when that failed.
    bool Start(const rshRequest& request, const char* baseDir)
    {
        for (rshOwned<ioPipe>* const pipe : {&inPipe, &outPipe, &errPipe})
            pipe->reset(ioPipe::Create());
        if (inPipe == nullptr || outPipe == nullptr || errPipe == nullptr) {
            replyFailure(urgentStream, 0, Error_GetText(Error_GetLast()).c_str());
            return false;
        }
        try {
            const xstring command =
                request.useShell != 0 ? forShell(std::string(request.command)) : request.command;
            process.reset(pcProcess::Create(
                command.CastToCString(), workDirBelow(baseDir, std::string(request.workDir)).CastToCString(),
                inPipe->getReadEnd(), outPipe->getWriteEnd(), errPipe->getWriteEnd(), 1, 1));
        } catch (xthrowable* thrown) {
            pcXCreate* const failure = pcXCreate::softcast(thrown);
            // the directory is not a valid path
            qelXException* const refused = qelXException::softcast(thrown);
            if (failure == nullptr && refused == nullptr)
                throw;
            const qel::caught freed(thrown);
            if (failure != nullptr)
                replyFailure(urgentStream, failure->getError(), failure->getMsg().CastToCString());
            else
                replyFailure(urgentStream, pcCreateCode::system, refused->getDescription().CastToCString());
            return false;
        }
        exit.reset(process->ExitEvent());
        in = std::make_unique<rshOutlet>(inPipe->getWriteEnd());
        out = std::make_unique<rshInlet>(outPipe->getReadEnd());
        err = std::make_unique<rshInlet>(errPipe->getReadEnd());
        isBroken = !rshSucceeds([this] {
            urgentStream.WriteInt(0);
            urgentStream.Flush(1);
        });
        return true;
    }

    // Relays until the client has confirmed the end, or the connection is lost.
    void Serve()
    {
        while (!isFinished && !isBroken && !IsOutOfPatience()) {
            Wait();
            Stop();
            TakeUrgent();
            if (IsClientLost() || !Receive())
                break;
            MoveOutputs();
            TakeExitCode();
            CheckEnd();
            PumpInput();
            isBroken = !connection.Pump();
            NoteProgress();
        }
        if (!hasEnded) {
            process->Terminate();
            if (exit->evtEvent::Wait(patienceWithCommand) != 0)
                exitCode = process->GetExitCode();
        }
        process->Close();
    }

    // The user of the client, while it is connected.
    long GetUser() const
    {
        return urgentStream.getPeerUser();
    }
    int GetExitCode() const
    {
        return exitCode;
    }

private:
    void Wait()
    {
        btkEvent::List events;
        const bool isDraining = hasEnded && !IsDrained() && connection.queue.HasRoomForBlock();
        out->AddTo(events, connection.queue);
        err->AddTo(events, connection.queue);
        rshReceiver::AddTo(events);
        // Unread data hides the end of the connection.
        if (IsBlocked())
            events.push_back(&lost);
        connection.AddTo(events);
        if (in != nullptr)
            in->AddTo(events);
        events.push_back(urgent.get());
        if (!hasEnded)
            events.push_back(exit.get());
        if (stopEvent != nullptr && !isStopping)
            events.push_back(stopEvent);
        const btkTimeval limit = std::min(GetEnd() - btkTimeval::Now(), btkTimeval(1000.0));
        btkEvent::Wait(events, isDraining ? btkTimeval() : limit);
    }

    void Stop()
    {
        if (isStopping || stopEvent == nullptr || !stopEvent->WasSignaled())
            return;
        isStopping = true;
        end = btkTimeval::Now() + btkTimeval(patienceWithClient);
        process->Terminate();
    }
    // An unresponsive client must not keep its place.
    btkTimeval GetEnd() const
    {
        const btkTimeval stuck = hasEnded ? lastProgress + patienceAtEnd.load() : btkTimeval::Forever();
        return isStopping ? std::min(end, stuck) : stuck;
    }
    bool IsOutOfPatience() const
    {
        return btkTimeval::Now() >= GetEnd();
    }

    void NoteProgress()
    {
        const std::size_t toGo = connection.queue.GetSize() + btkCountUnsent(connection.GetHandle());
        if (!hasEnded || toGo != lastToGo || CountTaken() != lastTaken)
            lastProgress = btkTimeval::Now();
        lastToGo = toGo;
        lastTaken = CountTaken();
    }

    bool IsClientLost()
    {
        return IsBlocked() && lost.WasSignaled();
    }

    void TakeUrgent()
    {
        if (urgent->WasSignaled())
            rshSucceeds([this] { Command(urgentStream.ReadOutOfBand()); });
    }

    void Command(int tag)
    {
        if (tag == rshTagTerminate)
            process->Terminate();
        else if (tag == rshTagInterrupt)
            process->Interrupt();
    }

    // The outputs then hold all that the command has written.
    void TakeExitCode()
    {
        if (hasEnded || !exit->WasSignaled())
            return;
        exitCode = process->GetExitCode();
        connection.queue.PutInt(rshTagExit);
        connection.queue.PutInt(exitCode);
        hasEnded = true;
        out->TakeOnlyTheRest();
        err->TakeOnlyTheRest();
        // Input that is no longer read; the client's closing tag comes behind it.
        in->Fail();
    }

    void MoveOutputs()
    {
        while (out->Move(rshTagOut, connection.queue) && hasEnded && connection.Pump()) {
        }
        while (err->Move(rshTagErr, connection.queue) && hasEnded && connection.Pump()) {
        }
    }
    void CheckEnd()
    {
        if (hasEnded && IsDrained() && !isEndSent) {
            connection.queue.PutInt(rshTagEnd);
            isEndSent = true;
        }
    }
    bool IsDrained() const
    {
        return out->IsEnded() && err->IsEnded();
    }

    void PumpInput()
    {
        in->Pump();
        if (isInputEnded && in->queue.GetSize() == 0) {
            inPipe->getWriteEnd()->Close();
            in->Fail();
        }
    }

    rshOutlet* OutletOf(int tag) override
    {
        return tag == rshTagIn ? in.get() : nullptr;
    }
    bool OnMessage(int tag, int) override
    {
        if (tag == rshTagInEnd)
            isInputEnded = true;
        else if (tag == rshTagEnd)
            isFinished = true;
        else
            Command(tag);
        return !isFinished;
    }

    rshOutlet connection;
    btkEvent lost;
    rshOwned<ioEvent> urgent;
    netSocketStream& urgentStream;
    evtEvent* stopEvent;
    rshOwned<ioPipe> inPipe, outPipe, errPipe;
    rshOwned<pcProcess> process;
    rshOwned<pcEvent> exit;
    std::unique_ptr<rshOutlet> in;
    std::unique_ptr<rshInlet> out, err;
    btkTimeval end; // the deadline, while stopping
    btkTimeval lastProgress = btkTimeval::Now();
    std::size_t lastToGo = 0;
    unsigned lastTaken = 0;
    int exitCode = xnullint;
    bool isStopping = false;
    bool isInputEnded = false;
    bool hasEnded = false; // the command
    bool isEndSent = false;
    bool isFinished = false;
    bool isBroken = false;
};

bool rshRequest::Read(netSocketStream* s, double limit, std::initializer_list<btkEvent*> stops)
{
    std::string line;
    std::string place;
    bool isRead = false;
    if (!rshSucceeds([&] {
            rshPartReader reader(*s, btkTimeval::Now() + btkTimeval(limit), stops);
            isRead = reader.ReadText(line) && reader.ReadText(place) && reader.ReadInt(useShell);
        }))
        return false;
    command = line;
    workDir = place;
    return isRead;
}

unsigned char rshRequest::Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent) const
{
    rshOutcome unused;
    return Execute(s, baseDir, stopEvent, unused);
}

unsigned char rshRequest::Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent,
                                  rshOutcome& outcome) const
{
    rshSession session(*s, stopEvent);
    outcome.user = session.GetUser();
    outcome.isStarted = session.Start(*this, qelIsObject(baseDir) ? baseDir : "");
    if (!outcome.isStarted)
        return 0;
    session.Serve();
    outcome.exitCode = session.GetExitCode();
    return 1;
}

void rshRequest::Refuse(netSocketStream* s, const char* why)
{
    replyFailure(*s, 0, why);
}

unsigned char rshServer::Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent)
{
    rshRequest request;
    return request.Read(s, INFINITE, {stopEvent}) ? request.Execute(s, baseDir, stopEvent) : 0;
}

void rshServer::setPatience(double seconds)
{
    patienceAtEnd = btkTimeval(seconds);
}

rshServer::rshServer(netSocketStream* s, const char* baseDir) : connection(s), baseDirectory(baseDir)
{
}

rshServer* rshServer::Create(netSocketStream* s, const char* baseDir, unsigned char)
{
    rshOwned<rshServer> server(new (pDefMemMgr) rshServer(s, baseDir));
    return server->Start() ? server.release() : nullptr;
}

rshServer::~rshServer()
{
    if (!IsExited()) {
        Terminate();
        WaitExitCode();
    }
    Close();
}

int rshServer::OnStart()
{
    const rshOwned<ioEvent> stop(SignalStream()->InputEvent());
    try {
        Execute(connection, baseDirectory.CastToCString(), stop.get());
    } catch (xthrowable* thrown) {
        const qel::caught freed(thrown);
    } catch (const std::exception&) { // out of memory: the command's owner has terminated it
    }
    return 0;
}

void rshServer::CheckStarted()
{
    if (ControlStream() == nullptr)
        rshServerNotStarted.Report();
}

void rshServer::Terminate()
{
    CheckStarted();
    if (isTold)
        return;
    ControlStream()->WriteByte(0);
    ControlStream()->Flush(1);
    isTold = true;
}

rshServerEvent* rshServer::ExitEvent()
{
    CheckStarted();
    return new (pDefMemMgr) rshServerEvent(this, GetExitEvent());
}
