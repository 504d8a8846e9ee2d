#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <qel/base/btksocket.h>
#include <qel/base/btktimeval.h>

class monStatistics;
class netBaseServer;

/// The counts of a server since its statistics began.
enum class netCount {
    connections,
    served,
    ping,
    version,
    shutdown,
    unknownCode,
    refusedByRights,
    refusedByLimit,
    refusedByThread,
    refusedByTls,
    silentExpired,
    silentDisplaced,
    failures,
    asyncStarted,
    asyncEnded,
    end
};

/// The counts of one server, and their publication in a monitor file. Note and NoteService are safe to call
/// from any thread, the others from that of the loop.
class netStatistics
{
public:
    /// `name`: null for the server's own. Null when there is no place for the file.
    static std::unique_ptr<netStatistics> Create(netBaseServer& server, const char* name);
    ~netStatistics();

    void Note(netCount what, std::uint64_t times = 1)
    {
        counts[static_cast<std::size_t>(what)].fetch_add(times, std::memory_order_relaxed);
        isChanged.store(true, std::memory_order_relaxed);
    }
    /// A request was served from `begin` until now.
    void NoteService(btkTimeval begin);

    /// When Publish is due; Forever while nothing has changed and nothing runs.
    btkTimeval GetDue() const;
    /// Writes the changed values if that is due at `now`. `silent`: the connections without a first byte.
    void PublishIfDue(btkTimeval now, std::size_t silent);
    void Publish(std::size_t silent);

    const monStatistics& getFile() const { return *file; }

    /// Of the connections that are served.
    const std::shared_ptr<btkTraffic> traffic = std::make_shared<btkTraffic>();

private:
    explicit netStatistics(std::unique_ptr<monStatistics> made);

    std::uint64_t Bytes() const { return traffic->received + traffic->sent; }
    std::uint64_t Of(netCount what) const
    {
        return counts[static_cast<std::size_t>(what)].load(std::memory_order_relaxed);
    }

    std::array<std::atomic<std::uint64_t>, static_cast<std::size_t>(netCount::end)> counts = {};
    // The services that took less than 2^i microseconds, and not less than half of it; the last: any longer.
    std::array<std::atomic<std::uint64_t>, 27> services = {};
    std::atomic<std::uint64_t> serviceTime = 0; // microseconds
    std::uint64_t bytesWritten = 0;             // to the file
    std::atomic<bool> isChanged = true;
    btkTimeval next;
    std::unique_ptr<monStatistics> file;
};
