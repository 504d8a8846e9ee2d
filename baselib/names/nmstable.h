#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/base/nmswire.h>

/// The most that a table of records holds.
struct nmsTableLimits
{
    std::size_t records = 10000;
    /// Of one process.
    std::size_t recordsOfOwner = 1000;
    /// Of no process, from the clients of one address. All of these together have a quarter of the table,
    /// records and bytes: nobody but a process that lives can keep others from registering.
    std::size_t recordsOfPeer = 1000;
    /// Bytes of all records together, in their wire form, those included that were removed and are still held
    /// as a part of an answer.
    std::size_t bytes = std::size_t(64) << 20;
    /// Whether several processes may have records with the same "_ServerName".
    bool areNamesShared = false;
};

/// How full a table is.
struct nmsTableUse
{
    std::size_t records = 0;
    std::size_t recordsWithoutOwner = 0;
    std::size_t bytes = 0;
    /// How many records were refused because there was no room for them, and why the last one was; null:
    /// none.
    std::size_t refused = 0;
    const char* lastRefusal = nullptr;
};

/// The records of a name server, found by any of their fields without a walk over all; whatever the records
/// are, what an operation costs grows with the fields of those that have its rarest field. A record of a
/// process goes with its process, at the latest before the next answer that it could be in. An operation that
/// throws for want of memory has changed nothing but for the records of ended processes. Used by one thread.
class BASE_API nmsTable
{
public:
    /// A record in its wire form, shared with the answers that carry it.
    using Encoded = std::shared_ptr<const std::string>;

    explicit nmsTable(const nmsTableLimits& most = {});
    nmsTable(const nmsTable&) = delete;
    nmsTable& operator=(const nmsTable&) = delete;

    /// Adds a record. nmscExists: there is one with just these fields already, or another living process has
    /// one with this "_ServerName"; nmscNotAllowed: it belongs to a process that there is not; nmscInternal:
    /// there is no room for it. `peer`: the address whose records it counts among if it belongs to no
    /// process; empty: this machine.
    nmscReturnCode Add(nmsFields&& record, const std::string& peer = {});
    /// Removes the records that match, and answers how many.
    std::size_t Remove(const nmsFields& pattern);
    /// The records that match, in the order in which they were added.
    std::vector<Encoded> Find(const nmsFields& pattern);

    std::size_t GetSize() const { return entries.size(); }
    nmsTableUse GetUse() const;
    /// How much of `all`, the records or the bytes of a table, those without owner may take.
    static constexpr std::size_t ShareWithoutOwner(std::size_t all) { return all - all / 4 * 3; }
    const nmsTableLimits& GetLimits() const { return limits; }

    /// Changes whenever a record is added or removed, other than by the end of its process.
    std::uint64_t GetVersion() const { return version; }
    /// All records as bytes, for Restore.
    std::string Save() const;
    /// Adds the records of saved bytes in their order, without those whose processes have ended. False when
    /// the bytes are damaged; what stands before the damage is added.
    bool Restore(std::string_view saved);

private:
    using Id = std::uint64_t;
    /// A field and the records that have it, never none.
    using Place = std::pair<const std::string, std::set<Id>>;
    /// An address and its number of records.
    using Peer = std::pair<const std::string, std::size_t>;
    struct Entry
    {
        std::uint32_t owner;
        Peer* peer; // null: it has an owner
        Encoded encoded;
        std::vector<Place*> places; // of its fields, ascending
    };
    /// A process with records. Where the host has no handle left for it, it is known by its id and the time
    /// of its start.
    struct Owner
    {
        btkFd handle;
        std::string start;
        std::set<Id> ids; // of its records
    };

    void DropDead();
    void DropOwner(std::uint32_t id);
    bool HasEnded(std::uint32_t id) const;
    std::vector<Id> Match(const nmsFields& pattern);
    bool IsTaken(const nmsFields& record);
    const char* FindNoRoom(std::uint32_t process, std::size_t size, const std::string& peer) const;
    nmscReturnCode Refuse(const char* why);
    nmscReturnCode Acquire(std::uint32_t id);
    void Index(std::pair<const Id, Entry>& added, const nmsFields& record, const std::string& peer);
    void Erase(std::map<Id, Entry>::iterator entry);

    nmsTableLimits limits;
    std::shared_ptr<std::size_t> bytes = std::make_shared<std::size_t>(0);
    Id nextId = 0;
    std::uint64_t version = 0;
    std::unordered_map<std::string, std::size_t> peers; // of records without owner
    std::size_t withoutOwner = 0;
    std::size_t bytesWithoutOwner = 0;
    std::size_t refused = 0;
    const char* lastRefusal = nullptr;
    std::map<Id, Entry> entries;
    std::unordered_map<std::string, std::set<Id>> byField;
    std::unordered_map<std::uint32_t, Owner> owners;
    btkFd watch; // tells which processes with a handle have ended
    std::size_t handles = 0;
    std::size_t mostHandles;
};
