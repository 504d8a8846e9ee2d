#pragma once

#include <list>
#include <memory>
#include <string>

#include <qel/base/btkfd.h>
#include <qel/base/btktimeval.h>

#include "netthread.h"
#include "qelcaught.h"

class btkStopSign;
class netBaseServer;
class netSocketStream;

/// The thread of one asynchronous request. Its server joins it once it has exited.
class netAsyncRequest : public netBaseThread
{
public:
    /// `stop`: the event by which the server stops all its requests. It outlives them.
    netAsyncRequest(netBaseServer* of, netSocketStream* served, btkHandle stop)
        : netBaseThread(WithoutExitEvent), server(of), stream(served), stopEvent(stop)
    {
    }
    ~netAsyncRequest() override;

    /// Before the event is set: from `end` on its stream does not block.
    void SetEnd(btkTimeval end) noexcept;
    /// Reports the exception of the handler, if it threw one. Called once it has exited.
    void ReportFailure() const;

    // ---- for the loop: its place among all, and the one that has finished before it

    std::list<std::unique_ptr<netAsyncRequest>>::iterator place;
    netAsyncRequest* endedBefore = nullptr;

protected:
    bool OnPreStart() override;
    int OnStart() override;
    void AtFork(bool parentSide) override;

private:
    netBaseServer* server;
    netSocketStream* stream;
    btkHandle stopEvent;
    std::shared_ptr<btkStopSign> stopSign;
    // Of the handler that threw; written by its thread.
    bool hasFailed = false;
    std::string peer;
    qel::caught failure{nullptr};
};
