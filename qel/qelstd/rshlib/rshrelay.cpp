#include <algorithm>
#include <climits>
#include <cstring>

#include <qel/base/btkbyteorder.h>
#include <qel/base/xsocketbuf.h>

#include "rshrelay_p.h"

void rshQueue::Drop(std::size_t count)
{
    begin += count;
    if (begin == end)
        Clear();
}

char* rshQueue::GetTail()
{
    if (begin > 0) {
        std::memmove(bytes.get(), GetHead(), GetSize());
        end -= begin;
        begin = 0;
    }
    return bytes.get() + end;
}

void rshQueue::PutInt(int value)
{
    btkPutNetwork(GetTail(), value);
    Add(sizeof value);
}

// ---- rshOutlet

rshOutlet::rshOutlet(ioStream* stream) : target(stream)
{
    isFailed = target == nullptr || !rshSucceeds([this] { target->Flush(1); }) || target->getIsOpen() == 0 ||
               target->streamBuf == nullptr;
    if (isFailed)
        return;
    // The bytes are written, and their way is watched, by the descriptor itself.
    auto* const connected = dynamic_cast<xsocketbuf*>(target->streamBuf);
    isFailed = connected != nullptr && !connected->UseKernelSocket();
    if (isFailed)
        return;
    const btkHandle written = target->streamBuf->GetHandle();
    if (written >= 0 && !btkHasPositions(written)) {
        handle = written;
        readyEvent = std::make_unique<btkEvent>(new btkSelectEvent(handle, 1));
    }
}

void rshOutlet::AddTo(btkEvent::List& events)
{
    if (!isFailed && readyEvent != nullptr && queue.GetSize() > 0)
        events.push_back(readyEvent.get());
}

void rshOutlet::Fail()
{
    if (!isFailed && target->getIsOpen() != 0)
        target->setIsBad(1);
    isFailed = true;
}

bool rshOutlet::Pump()
{
    if (!isFailed && target->getIsGood() == 0)
        isFailed = true;
    if (!isFailed && queue.GetSize() > 0)
        Write();
    if (isFailed)
        queue.Clear();
    return !isFailed;
}

void rshOutlet::Write()
{
    if (handle < 0) {
        const bool written = rshSucceeds([this] {
            target->WriteBytes(queue.GetHead(), static_cast<unsigned>(queue.GetSize()));
            target->Flush(1);
        });
        if (written)
            queue.Clear();
        else
            Fail();
        return;
    }
    while (queue.GetSize() > 0) {
        const std::ptrdiff_t written = btkTryWrite(handle, queue.GetHead(), queue.GetSize());
        if (written < 0)
            Fail();
        if (written <= 0)
            return;
        queue.Drop(static_cast<std::size_t>(written));
    }
}

// ---- rshInlet

rshInlet::rshInlet(ioStream* stream) : source(stream)
{
    isEnded = !rshSucceeds([this] { input.reset(source->InputEvent()); });
}

void rshInlet::AddTo(btkEvent::List& events, const rshQueue& to)
{
    isAsked = !isEnded && input != nullptr && to.HasRoomForBlock();
    if (isAsked)
        events.push_back(input.get());
}

bool rshInlet::Move(rshTag tag, rshQueue& to, std::size_t most)
{
    const bool isReady = input == nullptr || (isAsked && input->WasSignaled());
    if (isEnded || !to.HasRoomForBlock() || (!isReady && !rest))
        return false;
    std::size_t count = 0;
    char* const block = to.GetTail();
    const bool isSound = rshSucceeds([&] {
        const std::size_t room = std::min(to.GetRoom() - 8 - rshQueue::spare, most);
        count = std::min<std::size_t>(source->PeekNBytes(), room);
        if (rest)
            count = std::min(count, *rest);
        else if (count == 0) // some devices do not report how much there is; at the end this reads nothing
            count = 1;
        if (count > 0)
            count = source->ReadBytes(block + 8, static_cast<unsigned>(count));
    });
    isEnded = !isSound || count == 0;
    if (isEnded)
        return false;
    if (rest)
        *rest -= count;
    btkPutNetwork(block, static_cast<int>(tag));
    btkPutNetwork(block + 4, static_cast<int>(count));
    to.Add(count + 8);
    return true;
}

void rshInlet::TakeOnlyTheRest()
{
    rest = 0;
    rshSucceeds([this] { rest = source->PeekNBytes(); });
}

// ---- rshReceiver

rshReceiver::rshReceiver(ioStream& stream) : connection(stream), input(stream.InputEvent())
{
}

void rshReceiver::AddTo(btkEvent::List& events)
{
    if (!IsBlocked() && !isDone)
        events.push_back(input.get());
}

bool rshReceiver::IsBlocked() const
{
    return blockLeft > 0 && !outlet->IsFailed() && outlet->queue.GetRoom() == 0;
}

bool rshReceiver::Receive()
{
    // A peer that never stops sending must not block the other directions.
    for (int steps = 0; steps < 64 && !isDone; ++steps) {
        Step step = Failed;
        if (!rshSucceeds([&] { step = blockLeft > 0 ? ReadBlock() : ReadNumber(); }))
            return false;
        if (step != Went)
            return step == Waits;
        ++taken;
    }
    return true;
}

rshReceiver::Step rshReceiver::ReadBlock()
{
    if (outlet->IsFailed())
        outlet->queue.Clear();
    const std::size_t room =
        std::min<std::size_t>(outlet->queue.GetRoom(), static_cast<std::size_t>(blockLeft));
    if (room == 0)
        return Waits;
    if (const ioTryCode code = connection.TryReadByte(); code != ioSuccess)
        return code == ioWouldBlock ? Waits : Failed;
    const auto count = static_cast<unsigned>(std::min<std::size_t>(connection.PeekNBytes(), room));
    const unsigned got = count > 0 ? connection.ReadBytes(outlet->queue.GetTail(), count) : 0;
    if (got == 0)
        return Failed;
    outlet->queue.Add(got);
    blockLeft -= static_cast<int>(got);
    return Went;
}

rshReceiver::Step rshReceiver::ReadNumber()
{
    const ioTryCode code = connection.TryReadInt();
    if (code != ioSuccess)
        return code == ioWouldBlock ? Waits : Failed;
    return Take(connection.ReadInt());
}

rshReceiver::Step rshReceiver::Take(int number)
{
    if (awaiting == rshTagNone) {
        outlet = OutletOf(number);
        if (outlet != nullptr || number == rshTagExit)
            awaiting = number;
        else
            isDone = !OnMessage(number, 0);
        return Went;
    }
    if (outlet != nullptr && number < 0)
        return Failed;
    if (outlet != nullptr)
        blockLeft = number;
    else
        isDone = !OnMessage(awaiting, number);
    awaiting = rshTagNone;
    return Went;
}

// ---- rshPartReader

rshPartReader::rshPartReader(ioStream& connection, btkTimeval latest, std::initializer_list<btkEvent*> stops)
    : stream(connection), input(connection.InputEvent()), stopEvents(stops), end(latest)
{
    std::erase(stopEvents, nullptr);
}

bool rshPartReader::WaitForInput()
{
    btkEvent::List events = stopEvents;
    events.push_back(input.get());
    return Wait(events, end - btkTimeval::Now());
}

bool rshPartReader::RestAfter(unsigned received)
{
    constexpr unsigned few = 64;
    constexpr btkTimeval first(0, 1000);
    constexpr btkTimeval longest(0, 128000);
    pause = received >= few ? btkTimeval() : std::min(pause + pause + first, longest);
    return pause == btkTimeval() || Wait(stopEvents, std::min(pause, end - btkTimeval::Now()));
}

bool rshPartReader::Wait(const btkEvent::List& events, btkTimeval limit)
{
    btkEvent::Wait(events, limit);
    return btkTimeval::Now() < end && std::none_of(stopEvents.begin(), stopEvents.end(),
                                                   [](btkEvent* stop) { return stop->WasSignaled(); });
}

bool rshPartReader::ReadInt(int& value)
{
    while (stream.TryReadInt() == ioWouldBlock)
        if (!WaitForInput())
            return false;
    value = stream.ReadInt();
    return true;
}

bool rshPartReader::ReadText(std::string& text)
{
    int left = 0;
    text.clear();
    if (!ReadInt(left) || left < 0 || left > greatestText)
        return false;
    char part[4096];
    while (left > 0) {
        if (btkTimeval::Now() >= end) // also when there is always a byte
            return false;
        while (stream.TryReadByte() == ioWouldBlock)
            if (!WaitForInput())
                return false;
        const unsigned there = std::max(stream.PeekNBytes(), 1u); // at the end, the read reports it
        const unsigned got = stream.ReadBytes(part, std::min({there, static_cast<unsigned>(left), 4096u}));
        text.append(part, got);
        left -= static_cast<int>(got);
        if (left > 0 && !RestAfter(got))
            return false;
    }
    return true;
}
