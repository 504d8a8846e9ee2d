#include "nmsstore.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/socket.h>

#include <qel/base/btkprocess.h>
#include <qel/base/btkretry.h>

#include "btksocketaddress_p.h"

namespace {

constexpr std::size_t greatestMessage = std::size_t(1) << 20;
// So little that what it takes to handle it delays no client.
constexpr std::size_t receiveSize = 16384;

} // namespace

void nmsPutNumber(std::string& to, std::uint64_t value)
{
    nmsPutInt(to, static_cast<int>(value >> 32));
    nmsPutInt(to, static_cast<int>(value & 0xFFFFFFFF));
}

void nmsPutText(std::string& to, std::string_view text)
{
    nmsPutInt(to, static_cast<int>(text.size()));
    to += text;
}

std::string_view nmsPartReader::Take(std::size_t size)
{
    isSound = isSound && size <= rest.size();
    const std::string_view taken = isSound ? rest.substr(0, size) : std::string_view();
    rest.remove_prefix(taken.size());
    return taken;
}

unsigned nmsPartReader::TakeInt()
{
    const std::string_view bytes = Take(nmsIntSize);
    return isSound ? static_cast<unsigned>(nmsGetInt(bytes.data())) : 0;
}

std::uint64_t nmsPartReader::TakeNumber()
{
    const std::uint64_t high = TakeInt();
    return high << 32 | TakeInt();
}

nmsFields nmsPartReader::TakeRecord()
{
    nmsRecordReader reader;
    while (isSound && reader.GetWanted() > 0) {
        const std::string_view piece = Take(reader.GetWanted());
        isSound = isSound && reader.Take(piece.data());
    }
    isSound = isSound && reader.IsWhole();
    return std::move(reader.record);
}

void nmsChannel::Send(nmsStoreMessage kind, std::string_view parts)
{
    if (!IsOpen())
        return;
    nmsPutInt(out, static_cast<int>(parts.size() + 1));
    out += static_cast<char>(kind);
    out += parts;
}

void nmsChannel::Flush()
{
    while (IsOpen() && IsBehind()) {
        const std::ptrdiff_t count = btkRetry([this] {
            return send(socket.Get(), out.data() + sent, out.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        });
        if (count < 0) {
            if (errno != EAGAIN)
                socket.Reset();
            return;
        }
        sent += static_cast<std::size_t>(count);
    }
    out.clear();
    sent = 0;
}

void nmsChannel::Receive(const std::function<void(nmsStoreMessage, nmsPartReader)>& handle)
{
    const std::size_t before = in.size();
    in.resize(before + receiveSize);
    const std::ptrdiff_t count =
        btkRetry([&] { return recv(socket.Get(), in.data() + before, receiveSize, MSG_DONTWAIT); });
    const bool isNothing = count < 0 && errno == EAGAIN;
    in.resize(before + static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
    if (count <= 0 && !isNothing) {
        socket.Reset();
        return;
    }
    std::string_view rest = in;
    while (rest.size() > nmsIntSize) {
        const auto size = static_cast<unsigned>(nmsGetInt(rest.data()));
        if (size == 0 || size > greatestMessage) {
            socket.Reset();
            return;
        }
        if (rest.size() < nmsIntSize + size)
            break;
        const std::string_view message = rest.substr(nmsIntSize, size);
        rest.remove_prefix(nmsIntSize + size);
        handle(static_cast<nmsStoreMessage>(message[0]), nmsPartReader(message.substr(1)));
    }
    in.erase(0, in.size() - rest.size());
}

btkFd nmsStartKeeper(const std::string& command)
{
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return {};
    btkFd own(ends[0]);
    const btkFd other(ends[1]);
    btkProcess* process = nullptr;
    unsigned long id = 0;
    if (!Process_Launch(&process, &id, command.c_str(), nullptr, other.Get(), -1, -1, 0))
        return {};
    Process_Free(process);
    return own;
}

bool nmsIsLoopbackHost(const char* host, btkTimeval limit)
{
    const std::vector<btkSocketAddress> found = btkResolveAsSystem(host, 0, limit);
    return std::any_of(found.begin(), found.end(),
                       [](const btkSocketAddress& address) { return address.IsLoopback(); });
}

btkTimeval nmsTimeOfMachine()
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return {now.tv_sec, now.tv_nsec / 1000};
}

std::string nmsRunOfMachine()
{
    const btkFd file = btkOpenFile("/proc/sys/kernel/random/boot_id", btkOpenRead);
    char text[64];
    const std::ptrdiff_t size = btkRead(file.Get(), text, sizeof text);
    return std::string(text, static_cast<std::size_t>(std::max<std::ptrdiff_t>(size, 0)));
}
