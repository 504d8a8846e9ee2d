#include "netthread.h"

#include <qel/base/thrthread.h>

#include "iopipe.h"
#include "qelfatal_p.h"

netBaseThread::~netBaseThread()
{
    Close();
}

bool netBaseThread::Start()
{
    if (started || !OnPreStart())
        return false;
    void* const launched = hasExitEvent ? StrictThread_Launch(&Starter, this, &Forker)
                                        : StrictThread_LaunchWithoutEvent(&Starter, this);
    if (launched == StrictThread_Refused)
        return false;
    handle = launched;
    started = true;
    collected = false;
    OnPostStart();
    return true;
}

void netBaseThread::Close()
{
    if (!started)
        return;
    OnClose();
    started = false;
}

btkBaseEvent* netBaseThread::GetExitEvent()
{
    return started && !collected ? static_cast<btkBaseEvent*>(new btkPROCESSEvent(handle))
                                 : new btkAlwaysEvent;
}

bool netBaseThread::IsExited()
{
    return !started || collected || !StrictThread_CheckRunning(handle);
}

int netBaseThread::WaitExitCode()
{
    if (started && !collected) {
        StrictThread_Wait(handle, &exitCode);
        StrictThread_Free(handle);
        collected = true;
    }
    return exitCode;
}

void netBaseThread::AtFork(bool /*parentSide*/)
{
}

void netBaseThread::OnClose()
{
    if (!collected)
        StrictThread_Free(handle);
    handle = nullptr;
}

btkHandle netBaseThread::GetExitHandle() const
{
    return started && !collected ? StrictThread_GetExitHandle(handle) : -1;
}

int netBaseThread::Starter(void* self)
{
    return static_cast<netBaseThread*>(self)->OnStart();
}

void netBaseThread::Forker(void* self, bool parentSide)
{
    static_cast<netBaseThread*>(self)->AtFork(parentSide);
}

// ---- netThread

netThread::~netThread()
{
    Close();
    DeletePipe(); // of a launch that was refused
}

ioStream* netThread::ControlStream()
{
    return controlPipe != nullptr ? controlPipe->getWriteEnd() : nullptr;
}

ioStream* netThread::SignalStream()
{
    return controlPipe != nullptr ? controlPipe->getReadEnd() : nullptr;
}

btkHandle netThread::GetSignalHandle()
{
    ioStream* const end = SignalStream();
    return end != nullptr ? end->GetInheritHandle() : -1;
}

int netThread::GetExitCode()
{
    if (!IsCollected() && !IsExitSignaled())
        netNoExitCode.Report();
    return WaitExitCode();
}

bool netThread::OnPreStart()
{
    DeletePipe();
    try {
        controlPipe = ioPipe::Create();
    } catch (const std::bad_alloc&) { // no pipe then, as when the operating system has none left
    }
    return controlPipe != nullptr;
}

void netThread::OnPostStart()
{
    netBaseThread::OnPostStart();
}

void netThread::AtFork(bool parentSide)
{
    netBaseThread::AtFork(parentSide);
    if (ioStream* const otherEnd = parentSide ? SignalStream() : ControlStream())
        otherEnd->Close();
}

void netThread::OnClose()
{
    DeletePipe();
    netBaseThread::OnClose();
}

void netThread::DeletePipe()
{
    xdelete(controlPipe);
    controlPipe = nullptr;
}
