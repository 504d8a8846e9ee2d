#include <algorithm>
#include <cerrno>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

#include <qel/base/btkretry.h>

#include "btkpoll_p.h"
#include "btksocketahead_p.h"

// The urgent values of a plain connection: the kernel knows one mark at a time, so that the data before it is read ahead.

namespace {

constexpr btkTimeval urgentLimit(0, 200000);

// For changes that no event reports.
template<class Holds>
void waitWhile(Holds holds, btkTimeval end)
{
    for (btkTimeval pause(0, 50); btkTimeval::Now() < end && holds();
         pause = std::min(pause + pause, btkTimeval(0, 2000)))
        btkPoll(nullptr, 0, pause);
}

// Receives without ever waiting.
std::ptrdiff_t receiveNow(btkHandle handle, void* to, std::size_t size)
{
    return btkRetry([&] { return recv(handle, to, size, MSG_DONTWAIT); });
}

} // namespace

// The mark of an urgent value is lost once the next one is set.
void btkStreamSocket::AwaitUrgentTurn() const
{
    const auto isQuiet = [&] { return btkCountReceived(fd.Get()) == receivedThen; };
    if (lastUrgent > btkTimeval())
        waitWhile(isQuiet, lastUrgent + urgentSpacing);
    waitWhile([&] { return btkCountUnsent(fd.Get()) > 0; }, btkTimeval::Now() + urgentLimit);
}

bool btkStreamSocket::IsUrgentPending() const
{
    pollfd asked = {fd.Get(), btkUrgent, 0};
    return btkPoll(&asked, 1, {}) > 0 && (asked.revents & btkUrgent) != 0;
}

bool btkStreamSocket::IsAtMark() const
{
    int is = 0;
    return ioctl(fd.Get(), SIOCATMARK, &is) == 0 && is != 0;
}

btkStreamSocket::Ahead& btkStreamSocket::GetAhead()
{
    if (ahead == nullptr)
        ahead = std::make_unique<Ahead>();
    return *ahead;
}

// Takes the urgent values that have arrived, and the data before them, from the kernel.
void btkStreamSocket::Settle()
{
    while (IsUrgentPending()) {
        GetAhead().isMarkNear = true;
        ReadToMark();
        if (ahead->isMarkNear)
            return;
    }
}

// Reads on until the mark, as far as possible without waiting.
void btkStreamSocket::ReadToMark()
{
    while (ahead->isMarkNear) {
        if (IsAtMark()) {
            char last = 0;
            const std::ptrdiff_t count = receiveNow(fd.Get(), &last, 1);
            ahead->isMarkNear = count < 0 && errno == EAGAIN;
            if (count > 0)
                TakeMark(last);
            return;
        }
        if (!IsUrgentPending()) {
            ahead->isMarkNear = false;
            return;
        }
        if (!MayReadAhead())
            return;
        std::string& bytes = ahead->bytes;
        bytes.erase(0, std::exchange(ahead->taken, 0));
        const std::size_t before = bytes.size();
        const std::size_t piece = std::min<std::size_t>(urgentBudget - before, 65536);
        bytes.resize(before + piece);
        const std::ptrdiff_t count = receiveNow(fd.Get(), bytes.data() + before, piece);
        bytes.resize(before + static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
        if (count <= 0) {
            ahead->isMarkNear = count < 0 && errno == EAGAIN;
            return;
        }
    }
}

// Makes a value of the last three bytes and the one at the mark. If a peer sends fewer urgent bytes, those
// before its mark stay where they are.
void btkStreamSocket::TakeMark(char last)
{
    Ahead::Value value = {{last}, 1};
    if (ahead->Count() >= btkBeforeMark) {
        ahead->TakeBack(value.bytes.data(), btkBeforeMark);
        value.bytes[btkBeforeMark] = last;
        value.count = btkUrgentSize;
    }
    ahead->Push(value);
}
