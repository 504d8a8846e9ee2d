#pragma once

#include "netthread.h"
#include <qel/base/btkevent.h>

class netBaseServer;
class netSocketStream;

/// The thread of one asynchronous request. Its server collects it once its exit event is on.
class netAsyncRequest : public netThread
{
public:
    netAsyncRequest(netBaseServer* of, netSocketStream* served) : server(of), stream(served) {}
    ~netAsyncRequest() override;

    /// Asks the request to stop, once.
    void TellToStop() noexcept;
    /// Null when there was no memory for it.
    btkEvent* ExitEvent() { return exitEvent; }
    /// Whether the last wait found the exit event on.
    bool WasFoundEnded() { return exitEvent != nullptr ? exitEvent->WasSignaled() : IsExited(); }

protected:
    int OnStart() override;
    void OnPostStart() override;
    void AtFork(bool parentSide) override;

private:
    netBaseServer* server;
    netSocketStream* stream;
    bool wasTold = false;
    btkEvent* exitEvent = nullptr;
};
