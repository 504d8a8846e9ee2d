#include "rshserver.h"

#include <stdexcept>

#include "fspath.h"
#include "iopipe.h"
#include "netsocketstream.h"
#include "pcprocess.h"
#include "qelexception.h"
#include "qeltable.h"
#include "rshrelay_p.h"
#include <qel/base/btkabort.h>
#include <qel/base/btksystem.h>

constinit qelClass rshServer::rtti = {
    .name = "rshlib::Server",
};

constinit qelClass rshServerEvent::rtti = {
    .name = "rshlib::ServerEvent",
    .parents = {QEL_PARENT(evtEvent)},
    .attrs = {QEL_ATTR(Server)},
};

namespace {

// How long a client may take for the rest once the server was told to stop, and a command to die once it was
// killed.
constexpr double patienceWithClient = 0.5;
constexpr double patienceWithCommand = 5.0;

struct Request
{
    std::string command;
    std::string workDir;
    int useShell = 0;
};

bool ReadRequest(ioStream& connection, evtEvent* stop, Request& request)
{
    rshPartReader reader(connection, stop);
    return reader.ReadText(request.command) && reader.ReadText(request.workDir) &&
           reader.ReadInt(request.useShell);
}

xstring CommandOf(const Request& request)
{
    if (request.useShell == 0)
        return request.command.c_str();
    const xstring shell = pcGetShellCommand();
    const std::string prefix = shell != nullptr ? shell.CastToCString() : "";
    return (prefix + " \"" + request.command + "\"").c_str();
}

xstring WorkDirOf(const Request& request, const char* baseDir)
{
    const xstring workDir = fsPathToNative(request.workDir.c_str());
    // One that begins with a separator is rooted, though it names no drive.
    const bool isRooted = fsIsPathAbsolute(workDir.CastToCString()) || workDir.CastToCString()[0] == '\\';
    const bool isBelowBase = !isRooted && !request.workDir.empty() && *baseDir != '\0';
    return isBelowBase ? fsCatPaths(fsPathToNative(baseDir).CastToCString(), workDir.CastToCString())
                       : workDir;
}

void ReplyFailure(ioStream& connection, int code, const char* text)
{
    rshSucceeds([&] {
        connection.WriteInt(rshReplyFailed);
        connection.WriteInt(code);
        connection.WriteString(text);
        connection.Flush(1);
    });
}

// One command that is being served.
class Session : private rshReceiver
{
public:
    Session(netSocketStream& s, evtEvent* stop)
        : rshReceiver(s), connection(&s), lost(new btkSelectEvent(connection.GetHandle(), 3)),
          urgent(s.OutOfBandEvent()), urgentStream(s), stopEvent(stop)
    {
    }

    ~Session() override
    {
        if (process != nullptr && !hasEnded)
            process->Terminate();
    }

    // Starts the command and replies. False when that failed.
    bool Start(const Request& request, const char* baseDir)
    {
        for (rshOwned<ioPipe>* const pipe : {&inPipe, &outPipe, &errPipe})
            pipe->reset(ioPipe::Create());
        if (inPipe == nullptr || outPipe == nullptr || errPipe == nullptr) {
            ReplyFailure(urgentStream, 0, Error_GetText(Error_GetLast()).c_str());
            return false;
        }
        try {
            process.reset(pcProcess::Create(CommandOf(request).CastToCString(),
                                            WorkDirOf(request, baseDir).CastToCString(), inPipe->getReadEnd(),
                                            outPipe->getWriteEnd(), errPipe->getWriteEnd(), 1, 1));
        } catch (xthrowable* thrown) {
            pcXCreate* const failure = pcXCreate::softcast(thrown);
            qelXException* const refused = qelXException::softcast(thrown); // the directory is no path
            if (failure == nullptr && refused == nullptr)
                throw;
            const qelCaught freed(thrown);
            if (failure != nullptr)
                ReplyFailure(urgentStream, failure->getError(), failure->getMsg().CastToCString());
            else
                ReplyFailure(urgentStream, pcCreateCode::system, refused->getDescription().CastToCString());
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

    // Relays until the client has answered the end, or the connection is lost.
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
        }
        if (!hasEnded) {
            process->Terminate();
            exit->evtEvent::Wait(patienceWithCommand);
        }
        process->Close();
    }

private:
    void Wait()
    {
        btkEvent::List events;
        const bool isDraining = hasEnded && !IsDrained() && connection.queue.HasRoomForBlock();
        out->AddTo(events, connection.queue);
        err->AddTo(events, connection.queue);
        rshReceiver::AddTo(events);
        // What is not read does not tell that nothing follows.
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
        const btkTimeval limit = isStopping ? end - btkTimeval::Now() : btkTimeval(1000.0);
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
    bool IsOutOfPatience() const { return isStopping && btkTimeval::Now() >= end; }

    bool IsClientLost() { return IsBlocked() && lost.WasSignaled(); }

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

    // What the outputs hold then is all that the command has written.
    void TakeExitCode()
    {
        if (hasEnded || !exit->WasSignaled())
            return;
        connection.queue.PutInt(rshTagExit);
        connection.queue.PutInt(process->GetExitCode());
        hasEnded = true;
        out->TakeOnlyTheRest();
        err->TakeOnlyTheRest();
        // Nobody reads it any more; the client's closing tag comes behind it.
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
    bool IsDrained() const { return out->IsEnded() && err->IsEnded(); }

    void PumpInput()
    {
        in->Pump();
        if (isInputEnded && in->queue.GetSize() == 0) {
            inPipe->getWriteEnd()->Close();
            in->Fail();
        }
    }

    rshOutlet* OutletOf(int tag) override { return tag == rshTagIn ? in.get() : nullptr; }
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
    btkTimeval end; // when patience ends, while stopping
    bool isStopping = false;
    bool isInputEnded = false;
    bool hasEnded = false; // the command
    bool isEndSent = false;
    bool isFinished = false;
    bool isBroken = false;
};

} // namespace

unsigned char rshServer::Execute(netSocketStream* s, const char* baseDir, evtEvent* stopEvent)
{
    Request request;
    bool isRead = false;
    if (!rshSucceeds([&] { isRead = ReadRequest(*s, stopEvent, request); }) || !isRead)
        return 0;
    Session session(*s, stopEvent);
    if (!session.Start(request, qelIsObject(baseDir) ? baseDir : ""))
        return 0;
    session.Serve();
    return 1;
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
        const qelCaught freed(thrown);
    } catch (const std::exception&) { // no memory: the command has been ended by what held it
    }
    return 0;
}

void rshServer::CheckStarted()
{
    if (ControlStream() == nullptr)
        _Abort("rshServer: the thread is not started", "qel/qelstd/netlibsrc/rshlib", 846);
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
