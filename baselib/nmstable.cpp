#include "nmstable.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <unistd.h>
#include <unordered_set>

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

// The wire form of a record, counted among `bytes` while anybody has it.
struct Counted
{
    explicit Counted(std::shared_ptr<std::size_t> sum) : bytes(std::move(sum)) {}
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { *bytes -= counted; }

    void Count() { *bytes += counted = text.size(); }

    std::string text;
    std::shared_ptr<std::size_t> bytes;
    std::size_t counted = 0;
};

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
        if (entries.at(id).places.size() == record.fields.size())
            return nmscExists;

    const auto encoded = std::make_shared<Counted>(bytes);
    if (!nmsPutRecord(encoded->text, record) || entries.size() >= limits.records || *bytes > limits.bytes ||
        encoded->text.size() > limits.bytes - *bytes)
        return nmscInternal;
    encoded->Count();
    const std::uint32_t process = record.owner;
    const Id id = nextId++;
    const auto entry =
        entries.emplace_hint(entries.end(), id, Entry{process, Encoded(encoded, &encoded->text), {}});
    try {
        const nmscReturnCode refusal = process == 0 ? nmscDone : Acquire(process);
        if (refusal == nmscDone)
            Index(*entry, record);
        else
            Erase(entry);
        return refusal;
    } catch (...) {
        Erase(entry);
        throw;
    }
}

void nmsTable::Index(std::pair<const Id, Entry>& added, const nmsFields& record)
{
    auto& [id, entry] = added;
    if (entry.owner != 0)
        owners.at(entry.owner).ids.insert(id);
    entry.places.reserve(record.fields.size());
    for (const auto& field : record.fields) {
        entry.places.push_back(&*byField.try_emplace(KeyOf(field)).first);
        std::set<Id>& ids = entry.places.back()->second;
        ids.insert(ids.end(), id);
    }
    std::sort(entry.places.begin(), entry.places.end(), std::less<>());
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
        std::vector<const Place*> wanted;
        for (const auto& field : pattern.fields) {
            const auto place = byField.find(KeyOf(field));
            if (place == byField.end())
                return {};
            wanted.push_back(&*place);
        }
        const auto rarest =
            std::min_element(wanted.begin(), wanted.end(), [](const Place* a, const Place* b) {
                return a->second.size() < b->second.size();
            });
        const std::set<Id>& ids = (*rarest)->second;
        std::sort(wanted.begin(), wanted.end(), std::less<>());
        for (const Id id : ids) {
            const std::vector<Place*>& held = entries.at(id).places;
            if (std::includes(held.begin(), held.end(), wanted.begin(), wanted.end(), std::less<>()))
                found.push_back(id);
        }
    }

    // Processes without a handle are asked for one by one, and only when an answer depends on them.
    if (owners.size() > handles) {
        std::unordered_set<std::uint32_t> asked;
        for (const Id id : found)
            asked.insert(entries.at(id).owner);
        asked.erase(0);
        for (const std::uint32_t owner : asked)
            if (HasEnded(owner))
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
    for (auto owner = owners.find(id); owner != owners.end(); owner = owners.find(id))
        Erase(entries.find(*owner->second.ids.begin()));
}

// Makes sure that a process is known and may have one more record.
nmscReturnCode nmsTable::Acquire(std::uint32_t id)
{
    if (owners.contains(id) && HasEnded(id))
        DropOwner(id); // the id is another process's now
    const auto known = owners.find(id);
    if (known != owners.end())
        return known->second.ids.size() < limits.recordsOfOwner ? nmscDone : nmscInternal;

    std::string start = id > INT_MAX ? std::string() : StartOf(id);
    if (start.empty())
        return nmscNotAllowed;
    Owner& owner = owners.try_emplace(id).first->second;
    owner.start = std::move(start);
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
    return nmscDone;
}

// Needs no memory, and takes out what has been entered in part.
void nmsTable::Erase(std::map<Id, Entry>::iterator entry)
{
    for (Place* const place : entry->second.places) {
        place->second.erase(entry->first);
        if (place->second.empty())
            byField.erase(byField.find(place->first));
    }
    if (const auto owner = owners.find(entry->second.owner); owner != owners.end()) {
        owner->second.ids.erase(entry->first);
        if (owner->second.ids.empty()) {
            if (owner->second.handle) {
                // Closing alone does not end the watch while a child still holds the handle.
                epoll_ctl(watch.Get(), EPOLL_CTL_DEL, owner->second.handle.Get(), nullptr);
                --handles;
            }
            owners.erase(owner);
        }
    }
    entries.erase(entry);
}
