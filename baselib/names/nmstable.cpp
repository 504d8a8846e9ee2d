#include "nmstable.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unordered_set>

#include "nmsstore.h"

namespace {

constexpr const char* nameField = "_ServerName";
// Begins the key of a user, and no address.
constexpr char userMark = '@';

// A field as one text. Neither a name nor a value contains a zero byte.
std::string keyOf(const std::pair<std::string, std::string>& field)
{
    return field.first + '\0' + field.second;
}

// The start time of a process, in the kernel's own units; empty when there is no such process, or it is a
// zombie.
std::string startOf(std::uint32_t process)
{
    const btkFd file = btkOpenFile(("/proc/" + std::to_string(process) + "/stat").c_str(), btkOpenRead);
    char text[1024];
    const std::ptrdiff_t size = btkRead(file.Get(), text, sizeof text);
    if (size <= 0)
        return {};
    const std::string line(text, static_cast<std::size_t>(size));
    // The program's name is in parentheses and may contain any character, parentheses included. The state
    // follows, and the start time is the 19th field after that.
    std::size_t place = line.rfind(')');
    if (place == std::string::npos || place + 2 >= line.size() || line[place + 2] == 'Z' ||
        line[place + 2] == 'X')
        return {};
    for (int blanks = 0; blanks < 20 && place != std::string::npos; ++blanks)
        place = line.find(' ', place + 1);
    return place == std::string::npos ? std::string()
                                      : line.substr(place + 1, line.find(' ', place + 1) - place - 1);
}

// The wire form of a record, counted among `bytes` while it is referenced.
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

std::size_t handlesToSpend()
{
    rlimit allowed = {};
    getrlimit(RLIMIT_NOFILE, &allowed);
    return static_cast<std::size_t>(std::min<rlim_t>(allowed.rlim_cur, 1 << 20)) / 2;
}

} // namespace

nmsTable::nmsTable(const nmsTableLimits& most)
    : limits(most), watch(epoll_create1(EPOLL_CLOEXEC)), mostHandles(watch ? handlesToSpend() : 0)
{
}

nmscReturnCode nmsTable::Add(nmsFields&& record, const std::string& peer, const nmsRights& rights,
                             Visibility visibility, Id& added)
{
    DropDead();
    if (IsTaken(record))
        return nmscExists;
    const auto encoded = std::make_shared<Counted>(bytes);
    if (!nmsPutRecord(encoded->text, record))
        return nmscInternal;
    const std::uint32_t process = record.owner;
    if (const char* const full = FindNoRoom(process, encoded->text.size(), peer))
        return Refuse(full);
    encoded->Count();
    const Id id = nextId++;
    const auto entry = entries.emplace_hint(
        entries.end(), id,
        Entry{process, nullptr, Encoded(encoded, &encoded->text), {}, visibility == Hidden});
    try {
        const nmscReturnCode refusal = process == 0 ? nmscDone : Acquire(process, rights);
        if (refusal == nmscDone) {
            Index(*entry, record, peer);
            ++version;
            added = id;
        } else {
            Erase(entry);
        }
        return refusal;
    } catch (...) {
        Erase(entry);
        throw;
    }
}

// Whether there is a record with exactly these fields, or one of another process with this name.
bool nmsTable::IsTaken(const nmsFields& record)
{
    for (const Id id : Match(record))
        if (entries.at(id).places.size() == record.fields.size())
            return true;
    const std::string* const name = record.Find(nameField);
    if (name == nullptr || record.owner == 0 || limits.areNamesShared)
        return false;
    const std::vector<Id> named = Match({0, {{nameField, *name}}});
    return std::any_of(named.begin(), named.end(), [&](Id id) {
        const std::uint32_t owner = entries.at(id).owner;
        return owner != 0 && owner != record.owner;
    });
}

// The reason why there is no room for one more record of that size; null: there is. Records of a process are
// counted where the process is registered.
const char* nmsTable::FindNoRoom(std::uint32_t process, std::size_t size, const std::string& peer) const
{
    if (entries.size() >= limits.records)
        return "the table has as many records as it may";
    if (*bytes > limits.bytes || size > limits.bytes - *bytes)
        return "the records have as many bytes as they may";
    if (process != 0)
        return nullptr;
    if (withoutOwner >= ShareWithoutOwner(limits.records) ||
        bytesWithoutOwner + size > ShareWithoutOwner(limits.bytes))
        return "the records of no process have their whole share";
    const auto holder = peers.find(peer);
    return holder != peers.end() && holder->second >= limits.recordsOfPeer
               ? "an address has as many records of no process as it may"
               : nullptr;
}

nmscReturnCode nmsTable::Refuse(const char* why)
{
    ++refused;
    lastRefusal = why;
    return nmscInternal;
}

void nmsTable::Index(std::pair<const Id, Entry>& added, const nmsFields& record, const std::string& peer)
{
    auto& [id, entry] = added;
    if (entry.owner != 0) {
        owners.at(entry.owner).ids.insert(id);
    } else {
        entry.peer = &*peers.try_emplace(peer, 0).first;
        ++entry.peer->second;
        ++withoutOwner;
        bytesWithoutOwner += entry.encoded->size();
    }
    entry.places.reserve(record.fields.size());
    for (const auto& field : record.fields) {
        entry.places.push_back(&*byField.try_emplace(keyOf(field)).first);
        std::set<Id>& ids = entry.places.back()->second;
        ids.insert(ids.end(), id);
    }
    std::sort(entry.places.begin(), entry.places.end(), std::less<>());
}

nmsTableUse nmsTable::GetUse() const
{
    return {entries.size(), withoutOwner, owners.size(), *bytes, refused, lastRefusal};
}

std::size_t nmsTable::Remove(const nmsFields& pattern, const nmsRights& rights, std::size_t* kept,
                             std::vector<Id>* removed)
{
    std::vector<Id> found = List(pattern);
    const auto allowed = std::stable_partition(found.begin(), found.end(),
                                               [&](Id id) { return MayRemove(entries.at(id), rights); });
    if (kept != nullptr)
        *kept = static_cast<std::size_t>(found.end() - allowed);
    found.erase(allowed, found.end());
    for (const Id id : found)
        RemoveOne(id);
    const std::size_t count = found.size();
    if (removed != nullptr)
        *removed = std::move(found);
    return count;
}

bool nmsTable::MayRemove(const Entry& entry, const nmsRights& rights) const
{
    if (rights.isAll)
        return true;
    if (entry.owner != 0)
        return rights.user && owners.at(entry.owner).user == rights.user;
    const std::string& holder = entry.peer->first;
    return !holder.starts_with(userMark) || (rights.user && holder == HolderOf(*rights.user));
}

std::string nmsTable::HolderOf(btkUserId user)
{
    return userMark + std::to_string(user);
}

bool nmsTable::RemoveOne(Id record)
{
    const auto entry = entries.find(record);
    if (entry == entries.end())
        return false;
    Drop(entry);
    ++version;
    return true;
}

std::vector<nmsTable::Encoded> nmsTable::Find(const nmsFields& pattern)
{
    std::vector<Encoded> found;
    for (const Id id : List(pattern))
        found.push_back(entries.at(id).encoded);
    return found;
}

std::vector<nmsTable::Id> nmsTable::List(const nmsFields& pattern)
{
    DropDead();
    std::vector<Id> found = Match(pattern);
    std::erase_if(found, [&](Id id) { return entries.at(id).isHidden; });
    return found;
}

std::string nmsTable::GetStart(Id record) const
{
    const std::uint32_t owner = entries.at(record).owner;
    return owner == 0 ? std::string() : owners.at(owner).start;
}

// The matching records whose processes are alive.
std::vector<nmsTable::Id> nmsTable::Match(const nmsFields& pattern)
{
    std::vector<Id> found;
    if (pattern.fields.empty()) {
        for (const auto& [id, entry] : entries)
            found.push_back(id);
    } else {
        std::vector<const Place*> wanted;
        for (const auto& field : pattern.fields) {
            const auto place = byField.find(keyOf(field));
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

    // Processes without a handle are checked one by one, and only when a response depends on them.
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

// Whether a process identified by its start time has exited.
bool nmsTable::HasEnded(std::uint32_t id) const
{
    const Owner& owner = owners.at(id);
    return !owner.handle && startOf(id) != owner.start;
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
        Drop(entries.find(*owner->second.ids.begin()));
}

void nmsTable::RemoveExited()
{
    DropDead();
    if (owners.size() == handles)
        return;
    std::vector<std::uint32_t> asked;
    for (const auto& [id, owner] : owners)
        asked.push_back(id);
    for (const std::uint32_t owner : asked)
        if (HasEnded(owner))
            DropOwner(owner);
}

// Removes a record that was entered.
void nmsTable::Drop(std::map<Id, Entry>::iterator entry)
{
    if (onRemoval)
        onRemoval(entry->first);
    Erase(entry);
}

// Ensures that a process is registered and may have one more record.
nmscReturnCode nmsTable::Acquire(std::uint32_t id, const nmsRights& rights)
{
    if (owners.contains(id) && HasEnded(id))
        // The id is another process's now.
        DropOwner(id);
    const auto known = owners.find(id);
    std::string start = id > INT_MAX || known != owners.end() ? std::string() : startOf(id);
    const std::optional<btkUserId> user = btkGetUserOfProcess(id);
    if (!rights.isAll && (!user || user != rights.user))
        return nmscNotAllowed;
    if (known != owners.end()) {
        known->second.user = user;
        return known->second.ids.size() < limits.recordsOfOwner
                   ? nmscDone
                   : Refuse("a process has as many records as it may");
    }

    // Looked up again: `user` is that of the same process.
    if (start.empty() || startOf(id) != start)
        return nmscNotAllowed;
    Owner& owner = owners.try_emplace(id).first->second;
    owner.start = std::move(start);
    owner.user = user;
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

// Allocates no memory, and removes a partly entered record.
void nmsTable::Erase(std::map<Id, Entry>::iterator entry)
{
    for (Place* const place : entry->second.places) {
        place->second.erase(entry->first);
        if (place->second.empty())
            byField.erase(byField.find(place->first));
    }
    if (Peer* const peer = entry->second.peer; peer != nullptr) {
        --withoutOwner;
        bytesWithoutOwner -= entry->second.encoded->size();
        if (--peer->second == 0)
            peers.erase(peers.find(peer->first));
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

// ---- the state file: the mark, the id of the machine's run, the number of records, and for each the start
// of
// its process, the address it counts for, and its wire form

namespace {

constexpr std::string_view savedMark = "qel name server 1\n";

} // namespace

std::string nmsTable::Save() const
{
    std::string saved(savedMark);
    nmsPutText(saved, nmsRunOfMachine());
    nmsPutInt(saved, static_cast<int>(std::count_if(entries.begin(), entries.end(),
                                                    [](const auto& held) { return !held.second.isHidden; })));
    for (const auto& [id, entry] : entries) {
        if (entry.isHidden)
            continue;
        nmsPutText(saved, entry.owner == 0 ? std::string() : owners.at(entry.owner).start);
        nmsPutText(saved, entry.peer == nullptr ? std::string() : entry.peer->first);
        saved += *entry.encoded;
    }
    return saved;
}

bool nmsTable::Restore(std::string_view saved)
{
    nmsSavedReader reader(saved);
    const bool isSameRun = reader.GetRun() == nmsRunOfMachine();
    for (nmsSavedRecord held; reader.Next(held);)
        if (held.record.owner == 0 || (isSameRun && startOf(held.record.owner) == held.start))
            Add(std::move(held.record), held.peer);
    return reader.IsWhole();
}

nmsSavedReader::nmsSavedReader(std::string_view saved) : size(saved.size()), reader(saved)
{
    isMarked = reader.Take(savedMark.size()) == savedMark;
    run = reader.TakeText();
    count = reader.TakeInt();
    if (isMarked)
        offset = reader.IsSound() ? size - reader.GetLeft() : savedMark.size();
}

bool nmsSavedReader::Next(nmsSavedRecord& next)
{
    if (!isMarked || !reader.IsSound() || taken == count)
        return false;
    next.offset = offset;
    next.start = reader.TakeText();
    next.peer = reader.TakeText();
    next.record = reader.TakeRecord();
    if (!reader.IsSound())
        return false;
    ++taken;
    offset = size - reader.GetLeft();
    return true;
}
