#include "pcprocess.h"

#include <memory>
#include <string>

#include <qel/base/btkpath.h>
#include <qel/base/btkprocess.h>
#include <qel/base/btksystem.h>
#include <qel/base/ctenv.h>
#include <qel/base/thrthread.h>

#include "iobasestream.h"
#include "qeltable.h"

QEL_LABELS(pcProcessStatus, "proclib::ProcessStatus", pcUninit, pcRunning, pcExited);

constinit qelClass pcProcess::rtti = {
    .name = "proclib::Process",
    .attrs = {QEL_ATTR(Id)},
};

constinit qelClass pcEvent::rtti = {
    .name = "proclib::Event",
    .parents = {QEL_PARENT(evtEvent)},
    .attrs = {QEL_ATTR(Process)},
};

namespace {

[[noreturn]] void throwSystemError()
{
    pcXCreate::Throw(pcCreateCode::system, Error_GetLast());
}

// Frees a process that no object owns.
struct Free
{
    void operator()(btkProcess* process) const { Process_Free(process); }
};
using OwnedProcess = std::unique_ptr<btkProcess, Free>;

pcProcessStatus statusOf(const btkProcess* process)
{
    return Process_CheckRunning(process) ? pcRunning : pcExited;
}

// Negative numbers are not ids, and must not be converted to one.
bool openById(btkProcess** process, int id)
{
    return Process_Open(process, id > 0 ? static_cast<unsigned long>(id) : 0);
}

} // namespace

pcProcess::pcProcess(btkProcess* process, unsigned long number, bool waitable)
    : handle(process), id(number), canWait(waitable)
{
}

btkHandle pcProcess::GetHandle(ioStream* stream, pcCreateError code)
{
    if (!qelIsObject(stream))
        return -1;
    const btkHandle inherited = stream->GetInheritHandle();
    if (inherited < 0)
        pcXCreate::Throw(code);
    return inherited;
}

pcProcess* pcProcess::Create(const char* command, const char* workDir, ioStream* in, ioStream* out,
                             ioStream* err, unsigned char ownGroup, unsigned char detached)
{
    const btkHandle inHandle = GetHandle(in, pcCreateCode::badIn);
    const btkHandle outHandle = GetHandle(out, pcCreateCode::badOut);
    const btkHandle errHandle = GetHandle(err, pcCreateCode::badErr);
    // A directory of an unmapped drive is passed on unchanged, so that the operating system reports the
    // error.
    std::string directory;
    if (qelIsObject(workDir) && *workDir != '\0' && !btkHostPath(workDir, directory))
        directory = workDir;

    ioStream::SettleStandardStreams();
    btkProcess* handle;
    unsigned long id;
    const unsigned flags = (ownGroup ? btkLaunchGroup : 0u) | (detached ? btkLaunchDetached : 0u);
    if (!Process_Launch(&handle, &id, qelIsObject(command) ? command : "", directory.c_str(), inHandle,
                        outHandle, errHandle, flags))
        throwSystemError();
    OwnedProcess owned(handle);
    auto* const process = new (pDefMemMgr) pcProcess(handle, id, true);
    owned.release();
    for (ioStream* const stream : {in, out, err})
        if (qelIsObject(stream))
            stream->Close();
    return process;
}

pcProcess* pcProcess::Open(int id)
{
    btkProcess* handle;
    if (!openById(&handle, id))
        throwSystemError();
    OwnedProcess owned(handle);
    auto* const process =
        new (pDefMemMgr) pcProcess(handle, static_cast<unsigned long>(id), Process_CanWait(handle));
    owned.release();
    return process;
}

pcProcess::~pcProcess()
{
    Close();
}

void pcProcess::Close()
{
    if (closed)
        return;
    GetExitCode();
    if (!closed)
        Process_Free(handle);
    closed = true;
}

void pcProcess::Interrupt()
{
    if (!closed)
        Process_Interrupt(handle);
}

void pcProcess::Terminate()
{
    if (closed || terminated)
        return;
    Process_Kill(handle);
    terminated = true;
}

int pcProcess::GetExitCode()
{
    long code;
    if (canWait && !closed && Process_Wait(handle, &code, false, true)) {
        exitCode = static_cast<int>(code);
        closed = true;
    }
    return exitCode;
}

unsigned char pcProcess::IsRunning()
{
    return !closed && Process_CheckRunning(handle);
}

pcProcessStatus pcProcess::GetStatus()
{
    return closed ? pcUninit : statusOf(handle);
}

pcEvent* pcProcess::ExitEvent()
{
    if (closed || !canWait)
        return nullptr;
    return new (pDefMemMgr) pcEvent(this, Process_GetExitHandle(handle));
}

int pcProcess::getId()
{
    return static_cast<int>(id);
}

pcEvent::pcEvent(pcProcess* owner, btkHandle exit) : evtEvent(new btkPROCESSEvent(exit)), process(owner)
{
}

pcProcessStatus pcGetProcessStatus(int id)
{
    btkProcess* handle;
    if (!openById(&handle, id))
        return pcUninit;
    return statusOf(OwnedProcess(handle).get());
}

xstring pcGetShellCommand()
{
    static constexpr struct
    {
        const char* variable;
        const char* option;
    } shells[] = {{"SHELL", " -c"}, {"COMSPEC", " /c"}};
    for (const auto& [variable, option] : shells)
        if (std::string value; Getenv(variable, value))
            return xstring(value.c_str(), option);
    return nullptr;
}
