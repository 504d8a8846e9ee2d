#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>

#include <qel/base/btksocket.h>
#include <qel/base/netsilentset.h>
#include <qel/base/thrcancellation.h>
#include <qel/qelexception.h>

#include "netasyncrequest_p.h"
#include "netbaseserver.h"
#include "qelcaught_p.h"

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
    /// Closes the port and the waiting connections.
    void StopListening();
    /// Signals all asynchronous requests to stop, and waits until they have finished.
    void StopRequests();
    /// An asynchronous request has finished; called in its thread.
    void NoteEnd()
    {
        ++endedBodies;
    }

    /// A connection whose first byte has not arrived.
    struct Silent
    {
        std::unique_ptr<btkStreamSocket> socket;
        std::string address;
        btkTimeval since;
        std::unique_ptr<btkEvent> input;
    };
    netSilentSet<Silent> silent{256};

private:
    std::unique_ptr<btkStreamSocket> TakeConnection(btkTimeval now);
    std::unique_ptr<btkStreamSocket> TakeSpoken();
    void AddSilent(std::unique_ptr<btkStreamSocket> socket, btkTimeval now);
    void DropTooMany(btkTimeval now);
    void SpawnAsyncRequest(netSocketStream * stream);
    bool StartAsyncRequest(netSocketStream * stream);

    netBaseServer& server;

    std::unique_ptr<btkAcceptSocket> listening;
    std::unique_ptr<btkEvent> connectionWaits; // on while `listening` has a connection
    btkTimeval restEnd;                        // until then `listening` is not polled

    btkFd stopAsked; // an event
    std::unique_ptr<btkEvent> stopWaits;
    std::atomic<bool> isStopAsked = false;
    std::shared_ptr<btkStopSign> stopSign; // of the streams that the loop's thread serves

    std::list<std::unique_ptr<netAsyncRequest>> requests;
    std::atomic<int> endedBodies = 0; // of `requests`; written by their threads
};

// ---- reports

/// Writes a line on the standard error output about a request of `peer`.
void netReport(netBaseServer& server, const std::string& peer, const std::string& text);

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
