#include "nmstable.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

// A field as one text. Neither a name nor a value holds a zero byte.
std::string KeyOf(const std::pair<std::string, std::string>& field)
{
    return field.first + '\0' + field.second;
}

// When a process started, in the host's own units; empty when there is none, or only what its parent has not
// collected yet.
std::string StartOf(std::uint32_t process)
{
    const btkFd file = btkOpenFile(("/proc/" + std::to_string(process) + "/stat").c_str(), btkOpenRead);
    char text[1024];
    const std::ptrdiff_t size = btkRead(file.Get(), text, sizeof text);
    if (size <= 0)
        return {};
    const std::string line(text, static_cast<std::size_t>(size));
    // The program's name stands in parentheses and may hold anything, parentheses too. The state follows,
    // and the time is the 19th field after that.
    std::size_t place = line.rfind(')');
    if (place == std::string::npos || place + 2 >= line.size() || line[place + 2] == 'Z' ||
        line[place + 2] == 'X')
        return {};
    for (int blanks = 0; blanks < 20 && place != std::string::npos; ++blanks)
        place = line.find(' ', place + 1);
    return place == std::string::npos ? std::string()
                                      : line.substr(place + 1, line.find(' ', place + 1) - place - 1);
}

template<class Id>
void EraseId(std::vector<Id>& ascending, Id id)
{
    ascending.erase(std::lower_bound(ascending.begin(), ascending.end(), id));
}

std::size_t HandlesToSpend()
{
    rlimit allowed = {};
    getrlimit(RLIMIT_NOFILE, &allowed);
    return static_cast<std::size_t>(std::min<rlim_t>(allowed.rlim_cur, 1 << 20)) / 2;
}

} // namespace

nmsTable::nmsTable(const nmsTableLimits& most)
    : limits(most), watch(epoll_create1(EPOLL_CLOEXEC)), mostHandles(watch ? HandlesToSpend() : 0)
{
}

nmscReturnCode nmsTable::Add(nmsFields&& record)
{
    DropDead();
    for (const Id id : Match(record))
        if (entries.at(id).record.fields.size() == record.fields.size())
            return nmscExists;

    auto encoded = std::make_shared<std::string>();
    if (!nmsPutRecord(*encoded, record) || entries.size() >= limits.records ||
        encoded->size() > limits.bytes - bytes)
        return nmscInternal;
    const std::uint32_t process = record.owner;
    if (process != 0)
        if (const nmscReturnCode refusal = Acquire(process); refusal != nmscDone)
            return refusal;

    const Id id = nextId++;
    if (process != 0)
        owners.at(process).ids.push_back(id);
    bytes += encoded->size();
    for (const auto& field : record.fields)
        byField[KeyOf(field)].push_back(id);
    entries.emplace_hint(entries.end(), id, Entry{std::move(record), std::move(encoded)});
    return nmscDone;
}

std::size_t nmsTable::Remove(const nmsFields& pattern)
{
    DropDead();
    const std::vector<Id> found = Match(pattern);
    for (const Id id : found)
        Erase(entries.find(id));
    return found.size();
}

std::vector<nmsTable::Encoded> nmsTable::Find(const nmsFields& pattern)
{
    DropDead();
    std::vector<Encoded> found;
    for (const Id id : Match(pattern))
        found.push_back(entries.at(id).encoded);
    return found;
}

// Those that match and whose processes live.
std::vector<nmsTable::Id> nmsTable::Match(const nmsFields& pattern)
{
    std::vector<Id> found;
    if (pattern.fields.empty()) {
        for (const auto& [id, entry] : entries)
            found.push_back(id);
    } else {
        const std::vector<Id>* fewest = nullptr;
        for (const auto& field : pattern.fields) {
            const auto place = byField.find(KeyOf(field));
            if (place == byField.end())
                return {};
            if (fewest == nullptr || place->second.size() < fewest->size())
                fewest = &place->second;
        }
        for (const Id id : *fewest)
            if (pattern.fields.size() == 1 || entries.at(id).record.Matches(pattern))
                found.push_back(id);
    }

    // Processes without a handle are asked for one by one, and only when an answer depends on them.
    if (owners.size() > handles) {
        std::vector<std::uint32_t> ended;
        for (const Id id : found) {
            const std::uint32_t owner = entries.at(id).record.owner;
            if (owner != 0 && std::find(ended.begin(), ended.end(), owner) == ended.end() && HasEnded(owner))
                ended.push_back(owner);
        }
        for (const std::uint32_t owner : ended)
            DropOwner(owner);
        std::erase_if(found, [&](Id id) { return entries.find(id) == entries.end(); });
    }
    return found;
}

// Whether a process known by the time of its start has ended.
bool nmsTable::HasEnded(std::uint32_t id) const
{
    const Owner& owner = owners.at(id);
    return !owner.handle && StartOf(id) != owner.start;
}

void nmsTable::DropDead()
{
    epoll_event ended[64];
    int count = 0;
    while (handles > 0 && (count = epoll_wait(watch.Get(), ended, 64, 0)) > 0)
        for (int i = 0; i < count; ++i)
            DropOwner(ended[i].data.u32);
}

void nmsTable::DropOwner(std::uint32_t id)
{
    const std::vector<Id> ids = owners.at(id).ids;
    for (const Id record : ids)
        Erase(entries.find(record));
}

// Makes sure that a process is known and may have one more record.
nmscReturnCode nmsTable::Acquire(std::uint32_t id)
{
    if (owners.contains(id) && HasEnded(id))
        DropOwner(id); // the id is another process's now
    const auto known = owners.find(id);
    if (known != owners.end())
        return known->second.ids.size() < limits.recordsOfOwner ? nmscDone : nmscInternal;

    Owner owner;
    owner.start = id > INT_MAX ? std::string() : StartOf(id);
    if (owner.start.empty())
        return nmscNotAllowed;
    if (handles < mostHandles) {
        owner.handle.Reset(static_cast<btkHandle>(syscall(SYS_pidfd_open, id, 0)));
        epoll_event asked = {};
        asked.events = EPOLLIN;
        asked.data.u32 = id;
        if (owner.handle && epoll_ctl(watch.Get(), EPOLL_CTL_ADD, owner.handle.Get(), &asked) == 0)
            ++handles;
        else
            owner.handle.Reset();
    }
    owners.emplace(id, std::move(owner));
    return nmscDone;
}

void nmsTable::Erase(std::map<Id, Entry>::iterator entry)
{
    const nmsFields& record = entry->second.record;
    for (const auto& field : record.fields) {
        const auto place = byField.find(KeyOf(field));
        EraseId(place->second, entry->first);
        if (place->second.empty())
            byField.erase(place);
    }
    if (record.owner != 0) {
        const auto owner = owners.find(record.owner);
        EraseId(owner->second.ids, entry->first);
        if (owner->second.ids.empty()) {
            handles -= owner->second.handle ? 1 : 0;
            owners.erase(owner);
        }
    }
    bytes -= entry->second.encoded->size();
    entries.erase(entry);
}
