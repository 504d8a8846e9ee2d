#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <iterator>
#include <string>

#include <qel/base/btksystem.h>

#include "monstatistics.h"
#include "netbaseserver.h"
#include "netstatistics_p.h"

namespace {

constexpr btkTimeval interval(0, 100000);

constexpr const char* names[] = {
    "connections",    "requests.served",  "requests.ping", "requests.version", "requests.shutdown",
    "requests.other", "refused.rights",   "refused.limit", "refused.thread",   "refused.tls",
    "silent.expired", "silent.displaced", "failures",      "async.started",    "async.ended",
};
static_assert(std::size(names) == static_cast<std::size_t>(netCount::end));

} // namespace

netStatistics::netStatistics(std::unique_ptr<monStatistics> made) : file(std::move(made))
{
}

netStatistics::~netStatistics() = default;

std::unique_ptr<netStatistics> netStatistics::Create(netBaseServer& server, const char* given)
{
    const xstring registered = server.getServerName();
    const std::string port = std::to_string(server.getPortN());
    const std::string name = qelIsObject(given)      ? given
                             : registered == nullptr ? "port" + port
                                                     : registered.CastToCString();
    std::unique_ptr<monStatistics> made = monStatistics::Create(name, name);
    if (made == nullptr)
        return nullptr;
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    made->Set("kind", std::string(server.getQelTypeName().CastToCString()));
    made->Set("port", server.getPortN());
    made->Set("process", btkProcessNumber());
    made->Set("started", std::floor(now.count()));
    return std::unique_ptr<netStatistics>(new netStatistics(std::move(made)));
}

void netStatistics::NoteService(btkTimeval begin)
{
    const double passed = std::max((btkTimeval::Now() - begin).ToSeconds() * 1e6, 0.0);
    const auto time = static_cast<std::uint64_t>(passed);
    const std::size_t place = std::min(static_cast<std::size_t>(std::bit_width(time)), services.size() - 1);
    services[place].fetch_add(1, std::memory_order_relaxed);
    serviceTime.fetch_add(time, std::memory_order_relaxed);
    isChanged.store(true, std::memory_order_relaxed);
}

btkTimeval netStatistics::GetDue() const
{
    const bool mayChange =
        isChanged.load(std::memory_order_relaxed) || Of(netCount::asyncStarted) != Of(netCount::asyncEnded);
    return mayChange ? next : btkTimeval::Forever();
}

void netStatistics::PublishIfDue(btkTimeval now, std::size_t silent)
{
    if (now < GetDue())
        return;
    next = now + interval;
    if (isChanged.exchange(false, std::memory_order_relaxed) || Bytes() != bytesWritten)
        Publish(silent);
}

void netStatistics::Publish(std::size_t silent)
{
    for (std::size_t i = 0; i < std::size(names); ++i)
        file->Set(names[i], static_cast<double>(counts[i].load(std::memory_order_relaxed)));
    const std::uint64_t ended = Of(netCount::asyncEnded); // first: it is never more than were started
    file->Set("async.running", static_cast<double>(Of(netCount::asyncStarted) - ended));
    bytesWritten = Bytes();
    file->Set("bytes.received", static_cast<double>(traffic->received));
    file->Set("bytes.sent", static_cast<double>(traffic->sent));
    file->Set("silent.waiting", static_cast<double>(silent));
    file->Set("latency.us.sum", static_cast<double>(serviceTime.load(std::memory_order_relaxed)));
    for (std::size_t i = 0; i < services.size(); ++i) {
        const std::uint64_t count = services[i].load(std::memory_order_relaxed);
        const bool isLast = i + 1 == services.size();
        if (count > 0)
            file->Set(("latency.us." + (isLast ? "more" : std::to_string(1ULL << i))).c_str(),
                      static_cast<double>(count));
    }
}
