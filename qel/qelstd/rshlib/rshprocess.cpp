#include "rshprocess.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>

#include <qel/base/btkbyteorder.h>
#include <qel/base/btksocket.h>

#include "iopipe.h"
#include "netsocketstream.h"
#include "pcinterrupt.h"
#include "qelfatal_p.h"
#include "qeltable.h"
#include "rshrelay_p.h"

constinit qelClass rshProcess::rtti = {
    .name = "rshlib::Process",
    .attrs = {QEL_ATTR(Stdin, qelOptional), QEL_ATTR(Stdout, qelOptional), QEL_ATTR(Stderr, qelOptional)},
};

constinit qelClass rshEvent::rtti = {
    .name = "rshlib::Event",
    .parents = {QEL_PARENT(evtEvent)},
    .attrs = {QEL_ATTR(Process)},
};

constinit qelClass rshConnection::rtti = {
    .name = "rshlib::Connection",
    .attrs = {QEL_ATTR(User), QEL_ATTR(Host)},
};

namespace {

// Written by the owner to the thread, besides the two tags: abandon the command.
constexpr int giveUp = -1;
// The time that a server may receive nothing when it has to terminate the command or to receive the closing
// tag.
constexpr btkTimeval patienceWithServer(2, 0);

std::atomic<btkTimeval> answerLimit = btkTimeval(10, 0);

void putText(std::string& to, const char* text)
{
    const std::size_t size = qelIsObject(text) ? std::strlen(text) : 0;
    char number[sizeof(int)];
    btkPutNetwork(number, static_cast<int>(size));
    to.append(number, sizeof number).append(qelIsObject(text) ? text : "", size);
}

// Unlike the stream itself, never waits beyond `end`.
void sendRequest(netSocketStream& s, const std::string& request, btkTimeval end)
{
    rshOutlet connection(&s);
    rshQueue& queue = connection.queue;
    for (std::size_t queued = 0; queued < request.size() || queue.GetSize() > 0;) {
        const std::size_t count = std::min(queue.GetRoom(), request.size() - queued);
        std::memcpy(queue.GetTail(), request.data() + queued, count);
        queue.Add(count);
        queued += count;
        if (!connection.Pump())
            ioXStream::Throw(&s, ioStreamState, "");
        const btkTimeval now = btkTimeval::Now();
        if (now >= end)
            s.ThrowTimeout();
        btkEvent::List full;
        connection.AddTo(full);
        if (!full.empty())
            btkEvent::Wait(full, end - now);
    }
}

void readReply(netSocketStream& connection, btkTimeval end)
{
    rshPartReader reader(connection, end);
    int reply = 0;
    int code = 0;
    std::string text;
    const bool isWhole =
        reader.ReadInt(reply) && (reply == 0 || (reader.ReadInt(code) && reader.ReadText(text)));
    if (!isWhole && btkTimeval::Now() >= end)
        connection.ThrowTimeout();
    if (reply == 0)
        return;
    rshXProcess::Throw(rshDaemonError, static_cast<pcCreateError>(code), isWhole ? text.c_str() : nullptr);
}

// The relay of one command.
class Session : private rshReceiver
{
public:
    Session(netSocketStream& s, ioStream* signals, ioStream* in, ioStream* out, ioStream* err)
        : rshReceiver(s), connection(&s), socket(connection.GetHandle()), urgentStream(s), control(*signals),
          signaled(signals->InputEvent()), input(in), output(out), errors(err)
    {
    }

    // Relays until the exchange is complete, the connection is lost or the owner abandons it. Returns the
    // exit code, or xnullint.
    int Serve()
    {
        // Only this lets a server that receives nothing detect that this program was killed or abandons the
        // command.
        btkResetOnClose(socket, true);
        while (!isGivenUp && !isFinished) {
            btkEvent::List events;
            if (!isTerminated && IsInputWanted())
                input.AddTo(events, connection.queue);
            rshReceiver::AddTo(events);
            Wait(events);
            ForwardSignals();
            MoveInput();
            if (!Receive() || !connection.Pump() || IsTerminationStuck())
                break;
            PumpOutputs();
        }
        if (isFinished)
            end = btkTimeval::Now() + patienceWithServer;
        else
            connection.Fail();
        for (PumpOutputs(); !isGivenUp && (IsAnswering() || HasOutput()); PumpOutputs()) {
            btkEvent::List events;
            Wait(events);
            ForwardSignals();
        }
        if (isAnswered && connection.Pump() && connection.queue.GetSize() == 0)
            btkResetOnClose(socket, false);
        return exitCode;
    }

private:
    // Handles `events`, and work that is possible at any time.
    void Wait(btkEvent::List& events)
    {
        events.push_back(signaled.get());
        connection.AddTo(events);
        output.AddTo(events);
        errors.AddTo(events);
        const btkTimeval usual = isInputHeld ? inputPause : btkTimeval(3.0), left = end - btkTimeval::Now();
        btkEvent::Wait(events, left > btkTimeval() ? std::min(usual, left) : usual);
    }

    // Whether the server's machine has room for a block of input and, behind it, for an urgent value and messages
    // without a block: an urgent value is found only once all bytes before it have arrived. No event signals that
    // there is room again.
    bool IsInputWanted()
    {
        const std::size_t room = btkCountPeerRoom(socket), waiting = connection.queue.GetSize();
        inputRoom = room > waiting ? room - waiting : 0;
        isInputHeld = !input.IsEnded() && inputRoom == 0;
        inputPause = isInputHeld ? std::min(inputPause + inputPause, longestPause) : shortestPause;
        return !isInputHeld;
    }

    void ForwardSignals()
    {
        rshSucceeds([this] {
            while (control.TryReadInt() == ioSuccess) {
                const int tag = control.ReadInt();
                if (tag == giveUp)
                    isGivenUp = true;
                else if (!isFinished && !connection.IsFailed())
                    Forward(tag);
            }
        });
    }

    void Forward(int tag)
    {
        const bool isTerminate = tag == rshTagTerminate;
        if (isTerminate && isTerminated)
            return;
        // Interrupts to a server that receives nothing are limited; room is reserved for each of the messages
        // that are sent once.
        if (!SendUrgent(tag) && connection.queue.GetRoom() >= (isTerminate ? 4u : 16u))
            connection.queue.PutInt(tag);
        if (isTerminate) {
            isTerminated = isTerminating = true; // further input is useless then
            end = btkTimeval::Now() + patienceWithServer;
        }
    }

    // Whether the server receives nothing, so that it cannot be sent the request to terminate the command. It
    // also terminates the command when the connection is closed.
    bool IsTerminationStuck()
    {
        isTerminating = isTerminating && (connection.queue.GetSize() > 0 || btkCountUnsent(socket) > 0 ||
                                          btkCountPeerRoom(socket) == 0);
        return isTerminating && btkTimeval::Now() >= end;
    }

    // While the server may be waiting for the command to read its input, it sees only urgent values. These
    // must be sent between whole messages and without waiting.
    bool SendUrgent(int tag)
    {
        bool isBroken = false;
        return hasSentInput && connection.Pump() && connection.queue.GetSize() == 0 &&
               btkCountWritable(socket, isBroken) > 0 && urgentStream.WriteOutOfBand(tag) != 0;
    }

    void MoveInput()
    {
        if (isTerminated || isInputHeld)
            return;
        if (input.Move(rshTagIn, connection.queue, inputRoom))
            hasSentInput = true;
        else if (input.IsEnded() && !isEndSent) {
            connection.queue.PutInt(rshTagInEnd);
            isEndSent = true;
        }
    }

    bool HasOutput() const { return output.queue.GetSize() > 0 || errors.queue.GetSize() > 0; }
    void PumpOutputs()
    {
        output.Pump();
        errors.Pump();
    }

    // Whether the closing tag, or data before it, is still to be sent, and the server may receive it.
    bool IsAnswering()
    {
        if (isFinished && !isAnswered) {
            connection.queue.PutInt(rshTagEnd);
            isAnswered = true;
        }
        return isFinished && connection.Pump() && connection.queue.GetSize() > 0 && btkTimeval::Now() < end;
    }

    rshOutlet* OutletOf(int tag) override
    {
        return tag == rshTagOut ? &output : tag == rshTagErr ? &errors : nullptr;
    }
    bool OnMessage(int tag, int value) override
    {
        if (tag == rshTagExit)
            exitCode = value;
        isFinished = tag == rshTagEnd;
        return !isFinished;
    }

    rshOutlet connection;
    const btkHandle socket;
    netSocketStream& urgentStream;
    ioStream& control;
    rshOwned<ioEvent> signaled;
    rshInlet input;
    rshOutlet output;
    rshOutlet errors;
    int exitCode = xnullint;
    static constexpr btkTimeval shortestPause{0, 200}, longestPause{0, 50000};
    bool isInputHeld = false;
    std::size_t inputRoom = 0;
    btkTimeval inputPause = shortestPause;
    bool hasSentInput = false;
    bool isEndSent = false;
    bool isFinished = false;
    bool isAnswered = false;
    bool isTerminated = false;
    bool isTerminating = false; // and the server may not know it yet
    btkTimeval end;             // the deadline for a server that receives nothing
    bool isGivenUp = false;
};

} // namespace

rshProcess* rshProcess::Create(netSocketStream* s, const char* command, const char* workDir, ioStream* in,
                               ioStream* out, ioStream* err, unsigned char useShell, unsigned char)
{
    const btkTimeval end = btkTimeval::Now() + answerLimit.load();
    std::string request;
    putText(request, command);
    putText(request, workDir);
    request.append({0, 0, 0, useShell == 1 ? '\1' : '\0'});
    sendRequest(*s, request, end);
    readReply(*s, end);

    rshOwned<ioPipe> pipes[3];
    ioStream* const given[] = {in, out, err};
    for (int i = 0; i < 3; ++i) {
        if (qelIsObject(given[i]))
            continue;
        pipes[i].reset(ioPipe::Create());
        if (pipes[i] == nullptr) {
            for (rshOwned<ioPipe>& pipe : pipes)
                pipe.reset();
            rshNoPipe.Report();
        }
    }
    ioStream* const source = pipes[0] != nullptr ? pipes[0]->getReadEnd() : in;
    ioStream* const target = pipes[1] != nullptr ? pipes[1]->getWriteEnd() : out;
    ioStream* const errorTarget = pipes[2] != nullptr ? pipes[2]->getWriteEnd() : err;
    rshOwned<rshProcess> process(new (pDefMemMgr) rshProcess(
        s, pipes[0].release(), pipes[1].release(), pipes[2].release(), source, target, errorTarget));
    return process->Start() ? process.release() : nullptr;
}

void rshProcess::setAnswerLimit(double seconds)
{
    answerLimit = btkTimeval(seconds);
}

rshProcess::rshProcess(netSocketStream* s, ioPipe* inPipe, ioPipe* outPipe, ioPipe* errPipe, ioStream* in,
                       ioStream* out, ioStream* err)
    : connection(s), stdinPipe(inPipe), stdoutPipe(outPipe), stderrPipe(errPipe), input(in), output(out),
      errors(err)
{
}

rshProcess::~rshProcess()
{
    if (!IsExited()) {
        Signal(giveUp);
        WaitExitCode();
    }
    Close();
    for (ioPipe* const pipe : {stdinPipe, stdoutPipe, stderrPipe}) // of a thread that was not started
        xdelete(pipe);
}

int rshProcess::OnStart()
{
    int code = xnullint;
    try {
        const rshOwned<pcInterruptEvent> interrupt(pcInterruptEvent::Create());
        code = Session(*connection, SignalStream(), input, output, errors).Serve();
    } catch (xthrowable* thrown) {
        const qel::caught freed(thrown);
    } catch (const std::exception&) { // out of memory: as when the connection is lost
    }
    CloseThreadsEnds();
    return code;
}

void rshProcess::CloseThreadsEnds()
{
    if (stdinPipe != nullptr)
        stdinPipe->getReadEnd()->Close();
    for (ioPipe* const pipe : {stdoutPipe, stderrPipe})
        if (pipe != nullptr)
            pipe->getWriteEnd()->Close();
}

void rshProcess::CloseOwnersEnds()
{
    if (stdinPipe != nullptr)
        stdinPipe->getWriteEnd()->Close();
    for (ioPipe* const pipe : {stdoutPipe, stderrPipe})
        if (pipe != nullptr)
            pipe->getReadEnd()->Close();
}

void rshProcess::AtFork(bool parentSide)
{
    netThread::AtFork(parentSide);
    if (parentSide)
        CloseThreadsEnds();
    else
        CloseOwnersEnds();
}

void rshProcess::OnClose()
{
    for (ioPipe** const pipe : {&stdinPipe, &stdoutPipe, &stderrPipe}) {
        xdelete(*pipe);
        *pipe = nullptr;
    }
    netThread::OnClose();
}

ioStream* rshProcess::getStdin()
{
    return stdinPipe != nullptr ? stdinPipe->getWriteEnd() : nullptr;
}

ioStream* rshProcess::getStdout()
{
    return stdoutPipe != nullptr ? stdoutPipe->getReadEnd() : nullptr;
}

ioStream* rshProcess::getStderr()
{
    return stderrPipe != nullptr ? stderrPipe->getReadEnd() : nullptr;
}

void rshProcess::CheckStarted()
{
    if (ControlStream() == nullptr)
        rshProcessNotStarted.Report();
}

void rshProcess::Signal(int tag)
{
    CheckStarted();
    ControlStream()->WriteInt(tag);
    ControlStream()->Flush(1);
}

void rshProcess::Terminate()
{
    Signal(rshTagTerminate);
}

void rshProcess::Interrupt()
{
    Signal(rshTagInterrupt);
}

int rshProcess::GetExitCode()
{
    CheckStarted();
    return IsExited() ? netThread::GetExitCode() : xnullint;
}

unsigned char rshProcess::IsRunning()
{
    CheckStarted();
    return !IsExited();
}

rshEvent* rshProcess::ExitEvent()
{
    CheckStarted();
    return new (pDefMemMgr) rshEvent(this, GetExitEvent());
}

// ---- rshConnection

rshConnection::rshConnection(netSocketStream* s, const char* user, const char* host)
    : stream(s), User(user), Host(host)
{
}

rshConnection::~rshConnection()
{
    xdelete(stream);
}

rshConnection* rshConnection::Create(const char*, const char*)
{
    rshNoConnection.Report();
}

rshProcess* rshConnection::CreateProcessA(const char* command, const char* workDir, ioStream* in,
                                          ioStream* out, ioStream* err, unsigned char useShell)
{
    return rshProcess::Create(stream, command, workDir, in, out, err, useShell, 0);
}
