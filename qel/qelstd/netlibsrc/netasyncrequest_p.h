#pragma once

#include <memory>

#include <qel/base/btktimeval.h>

#include "netthread.h"

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

protected:
    bool OnPreStart() override;
    int OnStart() override;
    void AtFork(bool parentSide) override;

private:
    netBaseServer* server;
    netSocketStream* stream;
    std::shared_ptr<btkStopSign> stopSign;
    bool wasTold = false;
};
