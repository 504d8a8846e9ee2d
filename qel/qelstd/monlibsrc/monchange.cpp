#include <utility>

#include <qel/base/btksystem.h>
#include <qel/platform/errortable.h>

#include "monchange_p.h"
#include "monfile_p.h"
#include "monlock_p.h"

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
        : btkBaseEvent(-1, btkReadable, true), changes(std::move(shared))
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

// ---- the changes of a file

evtEvent* monFile::ChangeEvent()
{
    inside->Prepare();
    std::shared_ptr<monChanges> changes = inside->changes.lock();
    if (changes == nullptr) {
        changes = std::make_shared<monChanges>(inside->path);
        if (!changes->Begin(inside->stream->fileBuf->GetHandle())) {
            platFail();
            return nullptr;
        }
    }
    evtEvent* const event = new (pDefMemMgr) monChangeEvent(changes);
    inside->changes = changes;
    if (!std::exchange(inside->isWatched, true))
        inside->WatchNumbers();
    return event;
}

// After the file has been opened anew.
void monFile::Inside::WatchAnew()
{
    if (const auto shared = changes.lock())
        shared->BeginAnew(stream->fileBuf->GetHandle());
    if (isWatched)
        WatchNumbers();
}

void monFile::Inside::WatchNumbers()
{
    for (monParam* each = firstParam; each != nullptr; each = each->next)
        if (!each->isLost && monStringParam::softcast(each) == nullptr)
            WatchNumber(*each);
}

void monFile::Inside::WatchNumber(monParam& parameter)
{
    const int position = static_cast<int>(std::streamoff(parameter.position));
    const int size = monRealParam::softcast(&parameter) != nullptr ? monRealSize : monWordSize;
    if (btkPartWriter::LiesAcross(position, static_cast<std::size_t>(size)))
        monWatchNumber(stream->fileBuf->GetHandle(), position);
}

void monFile::Inside::EndChanges()
{
    if (const auto shared = changes.lock())
        shared->End();
}
