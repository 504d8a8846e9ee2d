#include <iostream>
#include <list>
#include <utility>

#include <qel/base/thrcancellation.h>

#include "netasyncrequest_p.h"
#include "netserverloop_p.h"

// ---- their management by the loop

void netBaseServer::Loop::StopRequests()
{
    const btkTimeval grace =
        server.gracePeriod == INFINITE ? btkTimeval::Forever() : btkTimeval(server.gracePeriod);
    for (const auto& request : requests)
        request->TellToStop(grace);
    for (const auto& request : requests) {
        request->WaitExitCode();
        try {
            request->ReportFailure();
        } catch (...) { // a listener's own failure: the server ends in any case
            thrPassCancellation();
        }
    }
    requests.clear();
}

void netBaseServer::Loop::SpawnAsyncRequest(netSocketStream* stream)
{
    if (StartAsyncRequest(stream))
        return;
    std::cout << "netBaseServer::SpawnAsyncRequest: create thread failed" << std::endl;
    xdelete(stream);
}

bool netBaseServer::Loop::StartAsyncRequest(netSocketStream* stream)
try {
    // Finished requests do not count, even if they have not been joined yet.
    const int running = static_cast<int>(requests.size()) - endedBodies;
    if (server.asyncLimit > 0 && running >= server.asyncLimit) {
        Note(netCount::refusedByLimit);
        return false;
    }
    std::list<std::unique_ptr<netAsyncRequest>> one; // the steps after the start must not fail
    one.push_back(std::make_unique<netAsyncRequest>(&server, stream));
    one.back()->place = one.begin();
    Note(netCount::asyncStarted);
    if (!one.back()->Start()) {
        Note(netCount::asyncEnded);
        Note(netCount::refusedByThread);
        return false;
    }
    requests.splice(requests.end(), one);
    return true;
} catch (const std::bad_alloc&) {
    Note(netCount::refusedByThread);
    return false;
}

void netBaseServer::Loop::AddEnded(netAsyncRequest& request)
{
    request.endedBefore = lastEnded.load(std::memory_order_relaxed);
    while (!lastEnded.compare_exchange_weak(request.endedBefore, &request, std::memory_order_release)) {
    }
}

netServerLoopAction netBaseServer::Loop::CheckAsyncRequests()
{
    netServerLoopAction result = netServerContinue;
    if (lastEnded.load(std::memory_order_relaxed) == nullptr)
        return result;
    std::list<std::unique_ptr<netAsyncRequest>> exited;
    for (netAsyncRequest* each = lastEnded.exchange(nullptr, std::memory_order_acquire); each != nullptr;) {
        netAsyncRequest& request = *std::exchange(each, each->endedBefore);
        if (!request.IsExited()) {
            AddEnded(request);
            continue;
        }
        exited.splice(exited.begin(), requests, request.place);
        --endedBodies;
        if (request.GetExitCode() == netServerTerminate)
            result = netServerTerminate;
    }
    for (const auto& request : exited)
        request->ReportFailure();
    return result;
}

// ---- one

netAsyncRequest::~netAsyncRequest()
{
    if (stopSign != nullptr)
        stopSign->Leave();
    Close();
}

bool netAsyncRequest::OnPreStart()
{
    if (!netThread::OnPreStart())
        return false;
    wasTold = false;
    stopSign = std::make_shared<btkStopSign>(GetSignalHandle());
    stream->CheckOpen();
    stream->connection->SetStopSign(stopSign);
    return true;
}

void netAsyncRequest::TellToStop(btkTimeval grace) noexcept
{
    if (wasTold)
        return;
    wasTold = true;
    stopSign->SetEnd(btkTimeval::Now() + grace);
    try {
        const char byte = 0;
        ControlStream()->WriteBytes(&byte, 1);
        ControlStream()->Flush(true);
    } catch (xthrowable* e) { // the body has returned or returns by itself
        const qel::caught caught(e);
    } catch (const std::bad_alloc&) { // memory ran out for the report
    }
}

int netAsyncRequest::OnStart()
{
    // Also when the thread is cancelled.
    struct EndNote
    {
        netBaseServer::Loop& loop;
        netAsyncRequest& request;
        btkTimeval begin;
        ~EndNote() { loop.NoteEnd(request, begin); }
    };
    const EndNote note{*server->loop, *this, btkTimeval::Now()};

    std::unique_ptr<netSocketStream, qelDelete> unserved(stream);
    try {
        const std::unique_ptr<evtEvent, qelDelete> stop(SignalStream()->InputEvent());
        peer = stream->getPeerAddress().CastToCString();
        if (server->onAsyncRequest != nullptr)
            unserved.release();
        return server->OnAsyncRequest(stream, stop.get());
    } catch (xthrowable* thrown) {
        failure = qel::caught(thrown);
    } catch (const std::exception& thrown) {
        failure = netForeignFailure(thrown.what());
    } catch (...) {
        thrPassCancellation();
        failure = netForeignFailure("unknown exception");
    }
    hasFailed = true;
    server->loop->Note(netCount::failures);
    return netServerContinue;
}

void netAsyncRequest::ReportFailure() const
{
    if (hasFailed)
        netReportFailure(*server, peer, failure);
}

void netAsyncRequest::AtFork(bool parentSide)
{
    netThread::AtFork(parentSide);
    if (parentSide)
        xdelete(stream);
}
