#include "watching.h"

#include <cerrno>
#include <cmath>
#include <cstring>

#include <qel/base/btksystem.h>

#include "output.h"

namespace {

constexpr btkHandle standardOutput = 1;

/// Signaled once the reader of the standard output has closed it.
class ClosedOutput : public btkBaseEvent
{
public:
    ClosedOutput() : btkBaseEvent(standardOutput, btkNotReady) {} // faults are found without being awaited
};

} // namespace

double TimeOfDay()
{
    return std::round(btkTimeval::GetTimeOfDay().ToSeconds() * 1000) / 1000;
}

Watching::Watching()
    : signals(btkAwaitTermination()), stopped(new btkSelectEvent(signals.Get(), 0)), closed(new ClosedOutput)
{
}

void Watching::Print(const std::string& lines)
{
    const std::string whole = lines.empty() || lines.back() == '\n' ? lines : lines + '\n';
    if (isOver || btkWrite(standardOutput, whole.data(), whole.size()) == whole.size())
        return;
    if (errno != EPIPE)
        Fail(Exit::peer, "standard output", std::strerror(errno));
    isOver = true;
}

bool Watching::Wait(double seconds, btkHandle news)
{
    btkEvent arrived(new btkSelectEvent(news, 0));
    if (!isOver)
        btkEvent::Wait({&stopped, &closed, &arrived}, btkTimeval(seconds));
    return !isOver && !stopped.WasSignaled() && !closed.WasSignaled();
}
