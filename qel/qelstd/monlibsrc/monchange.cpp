#include <utility>

#include <qel/base/btksystem.h>

#include "monchange_p.h"

bool monChanges::Begin(btkHandle opened)
{
    file = opened;
    process = btkProcessNumber();
    isGone = false;
    return watch.Begin(opened);
}

void monChanges::BeginAnew(btkHandle opened)
{
    Begin(opened);
    isUnread = true;
}

void monChanges::End()
{
    file = -1;
    watch.End();
    isUnread = true;
}

void monChanges::BeRead()
{
    isGone = false;
    if (!std::exchange(isAsked, false))
        return;
    watch.Forget();
    isUnread = watch.Get() < 0;
}

void monChanges::BeGone()
{
    isGone = true;
    target = Look();
}

monChanges::Target monChanges::Look() const
{
    Target found = {};
    found.isThere = btkGetFileState(path.c_str(), found.state);
    return found;
}

btkHandle monChanges::Ask(btkBaseEvent::State& state)
{
    // A forked child does not consume its parent's notifications.
    if (file >= 0 && process != btkProcessNumber())
        BeginAnew(file);
    isAsked = true;
    if (isGone) {
        const Target now = Look();
        isUnread = isUnread || now.isThere != target.isThere || !now.state.IsSameFile(target.state);
    }
    state = isUnread ? btkBaseEvent::On : isGone ? btkBaseEvent::AskAgain : btkBaseEvent::Ask;
    return watch.Get();
}

namespace {

class ChangeBase : public btkBaseEvent
{
public:
    explicit ChangeBase(std::shared_ptr<monChanges> shared)
        : btkBaseEvent(-1, SelectEvents(0), true), changes(std::move(shared))
    {
    }

protected:
    State OnAsk() override
    {
        State state = Ask;
        GetWatch().handle = changes->Ask(state);
        return state;
    }

private:
    std::shared_ptr<monChanges> changes;
};

} // namespace

monChangeEvent::monChangeEvent(std::shared_ptr<monChanges> changes)
    : evtEvent(new ChangeBase(std::move(changes)))
{
}
