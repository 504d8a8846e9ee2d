#include <memory>

#include <qel/base/xstreambuf.h>

#include "iobasestream.h"
#include "qeltable.h"

QEL_LABELS(ioEventType, "iolib::EventType", ioInputPending, ioOutputPending);

constinit qelClass ioEvent::rtti = {
    .name = "iolib::Event",
    .parents = {QEL_PARENT(evtEvent)},
    .attrs = {QEL_ATTR(Stream), QEL_ATTR(Type)},
};

ioEvent::ioEvent(ioStream* owner, ioEventType kind, btkBaseEvent* base)
    : evtEvent(base), stream(owner->link.To(owner)), type(kind)
{
}

ioStream* ioEvent::getStream()
{
    return stream.Get();
}

ioEvent* ioStream::InputEvent()
{
    CheckReadable();
    return CreateEvent(streamBuf->GetInputEvent(), ioInputPending);
}

ioEvent* ioStream::OutputEvent()
{
    CheckWritable();
    return CreateEvent(streamBuf->GetOutputEvent(), ioOutputPending);
}

ioEvent* ioStream::CreateEvent(btkBaseEvent* event, ioEventType type)
{
    if (event == nullptr)
        return nullptr;
    std::unique_ptr<btkBaseEvent> owned(event);
    link.To(this); // created now, so that no later step can fail once the event has an owner
    ioEvent* const made = new (pDefMemMgr) ioEvent(this, type, event);
    owned.release();
    return made;
}
