#pragma once

#include <list>
#include <memory>
#include <string>

#include <qel/base/btktimeval.h>

#include "netthread.h"
#include "qelcaught.h"

class btkStopSign;
class netBaseServer;
class netSocketStream;

/// The thread of one asynchronous request. Its server joins it once it has exited.
class netAsyncRequest : public netThread
{
public:
    netAsyncRequest(netBaseServer* of, netSocketStream* served)
        : netThread(WithoutExitEvent), server(of), stream(served)
    {
    }
    ~netAsyncRequest() override;

    /// Signals the handler to stop, once. Its stream blocks no longer than `grace` from now on.
    void TellToStop(btkTimeval grace) noexcept;
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
    std::shared_ptr<btkStopSign> stopSign;
    bool wasTold = false;
    // Of the handler that threw; written by its thread.
    bool hasFailed = false;
    std::string peer;
    qel::caught failure{nullptr};
};
