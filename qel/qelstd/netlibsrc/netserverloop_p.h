#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <qel/base/btksocket.h>
#include <qel/base/btktls.h>
#include <qel/base/netsilentset.h>
#include <qel/base/thrcancellation.h>
#include <qel/qelexception.h>

#include "netasyncrequest_p.h"
#include "netbaseserver.h"
#include "netstatistics_p.h"
#include "qelcaught.h"

/// The loop of a server: its port, the waiting connections, and the asynchronous requests.
class [[gnu::visibility("hidden")]] netBaseServer::Loop
{
public:
    Loop(netBaseServer & of, std::unique_ptr<btkAcceptSocket> socket);
    ~Loop();

    const btkAcceptSocket& GetSocket() const
    {
        return *listening;
    }
    /// Whether construction got all the descriptors it needs.
    bool IsWhole() const
    {
        return static_cast<bool>(stopAsked);
    }
    void Stop();
    /// Whether Stop was called since the last call of TakeStop.
    bool TakeStop();
    /// The next connection to be served; null when `timeout` seconds have passed or it is time to stop.
    /// `isByteWanted`: waits for its first byte, too.
    std::unique_ptr<btkStreamSocket> WaitForRequest(double timeout, bool isByteWanted);
    netServerLoopAction Serve(std::unique_ptr<btkStreamSocket> socket);
    /// Joins the asynchronous requests that have finished.
    netServerLoopAction CheckAsyncRequests();
    /// Calls `handler()`; an exception is reported and passes through, unless the error handler decides
    /// otherwise.
    template<class Handler>
    netServerLoopAction Guarded(const std::string& peer, Handler handler);
    std::unique_ptr<qel::netErrorHandler> onError;
    // Those that the server owns, until its end.
    std::vector<std::unique_ptr<xobject, qelDelete>> handlers;

    /// Closes the port and the waiting connections.
    void StopListening();
    /// Signals all asynchronous requests to stop, and waits until they have finished.
    void StopRequests();
    /// An asynchronous request that began at `begin` has finished; called in its thread.
    void NoteEnd(netAsyncRequest & request, btkTimeval begin)
    {
        Note(netCount::asyncEnded);
        if (statistics != nullptr)
            statistics->NoteService(begin);
        ++endedBodies;
        AddEnded(request);
    }

    void Note(netCount what, std::size_t times = 1)
    {
        if (statistics != nullptr && times > 0)
            statistics->Note(what, times);
    }
    /// Begins the statistics, once, if they are wanted: by a call, or by the environment. `name`: null for the
    /// server's.
    void BeginStatistics(const char* name = nullptr);
    bool isStatisticsTried = false;
    std::optional<bool> wantsStatistics; // none: the environment decides
    std::unique_ptr<netStatistics> statistics;

    /// From now on clients may begin encrypted connections, if they are configured when Run is called.
    void TakeEncrypted()
    {
        takesEncrypted = true;
    }
    void FindTlsFolder();

    /// A connection whose first byte has not arrived; that of an encrypted one comes after the handshake.
    struct Silent
    {
        std::unique_ptr<btkStreamSocket> socket;
        std::unique_ptr<btkTlsSession> session; // owns the socket until the handshake is done
        bool isRefused = false;
        std::string address;
        btkTimeval since;
        std::unique_ptr<btkEvent> input;
    };
    netSilentSet<Silent> silent{256};

private:
    std::unique_ptr<btkStreamSocket> TakeConnection(btkTimeval now);
    std::unique_ptr<btkStreamSocket> TakeSpoken();
    void AddSilent(std::unique_ptr<btkStreamSocket> socket, btkTimeval now);
    bool BeginsEncrypted(const Silent& one) const;
    bool ContinueHandshake(Silent & one);
    bool BeginSession(Silent & one);
    void Refuse(const std::string& peer, const std::string& why);
    void DropTooMany(btkTimeval now);
    void SpawnAsyncRequest(netSocketStream * stream);
    bool StartAsyncRequest(netSocketStream * stream);
    void AddEnded(netAsyncRequest & request);

    netBaseServer& server;

    std::unique_ptr<btkAcceptSocket> listening;
    std::unique_ptr<btkEvent> connectionWaits; // on while `listening` has a connection
    btkTimeval restEnd;                        // until then `listening` is not polled

    bool takesEncrypted = false;
    bool isTlsFound = false;
    std::string tlsFolder; // empty: it cannot be found out
    btkTimeval nextTlsReport;

    btkFd stopAsked; // an event
    std::unique_ptr<btkEvent> stopWaits;
    std::atomic<bool> isStopAsked = false;
    std::shared_ptr<btkStopSign> stopSign; // of the streams that the loop's thread serves

    std::list<std::unique_ptr<netAsyncRequest>> requests;
    std::atomic<int> endedBodies = 0; // of `requests`; written by their threads
    // The last of them, which knows the one before: open requests cost the others nothing.
    std::atomic<netAsyncRequest*> lastEnded = nullptr;
};

// ---- reports

/// Writes a line on the standard error output about a request of `peer`.
void netReport(netBaseServer& server, const std::string& peer, const std::string& text);

/// Passes a failure of an asynchronous request to the error listeners; writes the line if none handles it.
void netReportFailure(netBaseServer& server, const std::string& peer, const qel::caught& failure);

/// A failure from outside of the framework as one of it; none when memory runs out.
qel::caught netForeignFailure(const char* text) noexcept;

/// Calls `handler()`; reports its exception and rethrows it.
template<class Handler>
netServerLoopAction netReported(netBaseServer& server, const std::string& peer, Handler handler)
try {
    return handler();
} catch (xthrowable* failure) {
    netReport(server, peer, qelIsObject(failure) ? qelTextOf(failure).CastToCString() : "no exception");
    throw;
} catch (const std::exception& failure) {
    netReport(server, peer, failure.what());
    throw;
} catch (...) {
    thrPassCancellation();
    netReport(server, peer, "unknown exception");
    throw;
}

template<class Handler>
netServerLoopAction netBaseServer::Loop::Guarded(const std::string& peer, Handler handler)
{
    const auto counted = [&] {
        try {
            return handler();
        } catch (...) {
            thrPassCancellation();
            Note(netCount::failures);
            throw;
        }
    };
    if (onError == nullptr)
        return netReported(server, peer, counted);
    try {
        return counted();
    } catch (xthrowable* thrown) {
        qel::caught failure(thrown);
        if (!onError->goesOn(server, failure))
            failure.rethrow();
    } catch (const std::exception& failure) {
        if (!onError->goesOn(server, netForeignFailure(failure.what())))
            throw;
    } catch (...) {
        thrPassCancellation();
        if (!onError->goesOn(server, netForeignFailure("unknown exception")))
            throw;
    }
    return netServerContinue;
}
