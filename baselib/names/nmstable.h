#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <qel/base/btkfd.h>
#include <qel/base/btkpeeruser.h>
#include <qel/base/nmsstore.h>
#include <qel/base/nmswire.h>

/// Limits of a table of records.
struct nmsTableLimits
{
    std::size_t records = 10000;
    /// Of one process.
    std::size_t recordsOfOwner = 1000;
    /// Of no process, from the clients of one address. All of these together are limited to a quarter of the
    /// table, records and bytes: only a living process can keep others from registering.
    std::size_t recordsOfPeer = 1000;
    /// Bytes of all records together, in their wire form, including removed ones still held as part of a
    /// response.
    std::size_t bytes = std::size_t(64) << 20;
    /// Whether several processes may have records with the same "_ServerName".
    bool areNamesShared = false;
};

/// The fill level of a table.
struct nmsTableUse
{
    std::size_t records = 0;
    std::size_t recordsWithoutOwner = 0;
    std::size_t owners = 0; // processes
    std::size_t bytes = 0;
    /// The number of records refused for lack of room, and the reason for the last refusal; null: none.
    std::size_t refused = 0;
    const char* lastRefusal = nullptr;
};

/// The rights of a client to the records of this machine's users.
struct nmsRights
{
    /// Everything.
    bool isAll = true;
    /// Else: register records of this user's processes, and remove those and the user's records of no process.
    /// Empty: neither.
    std::optional<btkUserId> user = {};
};

/// A saved record: its place in the saved bytes, and what Restore decides by.
struct nmsSavedRecord
{
    std::size_t offset = 0;
    /// When its process started; empty without one.
    std::string start;
    /// The address that it counts for; empty when that does not matter.
    std::string peer;
    nmsFields record;
};

/// Reads the bytes of nmsTable::Save, record by record. The bytes must outlive it.
class BASE_API nmsSavedReader
{
public:
    explicit nmsSavedReader(std::string_view saved);

    /// Whether the bytes are those of a table. Else there is nothing to read.
    bool IsMarked() const { return isMarked; }
    /// The run of the machine in which they were saved.
    const std::string& GetRun() const { return run; }
    /// The number of records that were saved.
    unsigned GetCount() const { return count; }
    /// False behind the last record, and at damage.
    bool Next(nmsSavedRecord& next);
    /// Whether everything was read and nothing was damaged.
    bool IsWhole() const { return isMarked && taken == count && reader.IsAtEnd(); }
    /// The end of what was read, in bytes.
    std::size_t GetOffset() const { return offset; }

private:
    std::size_t size;
    nmsPartReader reader;
    bool isMarked = false;
    std::string run;
    unsigned count = 0;
    unsigned taken = 0;
    std::size_t offset = 0;
};

/// The records of a name server, indexed by every field; for any records, the cost of an operation grows with
/// the fields of those that have its rarest field. A process's records are removed after it exits, at the
/// latest before the next response that could contain them. An operation that throws for lack of memory has
/// changed nothing except records of exited processes. Used by one thread.
class BASE_API nmsTable
{
public:
    /// A record in its wire form, shared with the responses that carry it.
    using Encoded = std::shared_ptr<const std::string>;
    /// The number of a record, which no other one had or will have.
    using Id = std::uint64_t;
    /// A hidden record is found and saved only once it is shown; it takes its room and its name at once.
    enum Visibility : bool { Shown, Hidden };

    explicit nmsTable(const nmsTableLimits& most = {});
    nmsTable(const nmsTable&) = delete;
    nmsTable& operator=(const nmsTable&) = delete;

    /// Adds a record. nmscExists: a record with exactly these fields exists already, or another living
    /// process has one with this "_ServerName"; nmscNotAllowed: it belongs to a process that does not exist or
    /// is another user's; nmscInternal: there is no room for it. `peer`: the address, or HolderOf a user, whose
    /// records it counts among if it belongs to no process; empty: this machine.
    nmscReturnCode Add(nmsFields&& record, const std::string& peer = {}, const nmsRights& rights = {})
    {
        Id added = 0;
        return Add(std::move(record), peer, rights, Shown, added);
    }
    /// The same; `added` gets the record's number.
    nmscReturnCode Add(nmsFields&& record, const std::string& peer, const nmsRights& rights,
                       Visibility visibility, Id& added);
    void Show(Id record) { entries.at(record).isHidden = false; }
    /// False when there is no such record.
    bool RemoveOne(Id record);
    /// Removes the matching records, and returns their number; `removed` gets theirs. Those that the rights do not
    /// allow remain, and are counted in `kept`. Records of no process from other machines may be removed by
    /// everybody.
    std::size_t Remove(const nmsFields& pattern, const nmsRights& rights = {}, std::size_t* kept = nullptr,
                       std::vector<Id>* removed = nullptr);
    /// Returns the key by which the records of no process of a user of this machine are counted.
    static std::string HolderOf(btkUserId user);
    /// Returns the matching records, in the order in which they were added.
    std::vector<Encoded> Find(const nmsFields& pattern);
    /// Returns their numbers, ascending.
    std::vector<Id> List(const nmsFields& pattern);
    /// One of an existing record.
    const Encoded& Get(Id record) const { return entries.at(record).encoded; }
    /// The start time of the record's process, in units of the operating system; empty: it has none.
    std::string GetStart(Id record) const;

    /// Sets a function to call with the number of each record that is removed, while it still exists. It does
    /// not throw, and does not use the table.
    void SetOnRemoval(std::function<void(Id record)> called) { onRemoval = std::move(called); }
    /// Removes the records of all processes that have exited; without a call, they are removed when an
    /// operation depends on them. The handle is readable when that may be so; processes without a handle of
    /// their own are found by the call alone.
    void RemoveExited();
    btkHandle GetExitHandle() const { return watch.Get(); }

    std::size_t GetSize() const { return entries.size(); }
    nmsTableUse GetUse() const;
    /// Returns the share of `all`, the records or the bytes of a table, available to records without owner.
    static constexpr std::size_t ShareWithoutOwner(std::size_t all) { return all - all / 4 * 3; }
    const nmsTableLimits& GetLimits() const { return limits; }

    /// Changes whenever a record is added or removed, other than by the exit of its process.
    std::uint64_t GetVersion() const { return version; }
    /// Returns all records as bytes, for Restore.
    std::string Save() const;
    /// Adds the records of saved bytes in their order, except those whose processes have exited. False when
    /// the bytes are damaged; the records before the damage are added.
    bool Restore(std::string_view saved);

private:
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
        bool isHidden;
    };
    /// A process with records. If no descriptor is left for it, it is identified by its id and start time.
    struct Owner
    {
        btkFd handle;
        std::string start;
        std::optional<btkUserId> user; // when it last registered
        std::set<Id> ids;              // of its records
    };

    void DropDead();
    void DropOwner(std::uint32_t id);
    void Drop(std::map<Id, Entry>::iterator entry);
    bool HasEnded(std::uint32_t id) const;
    std::vector<Id> Match(const nmsFields& pattern);
    bool IsTaken(const nmsFields& record);
    const char* FindNoRoom(std::uint32_t process, std::size_t size, const std::string& peer) const;
    nmscReturnCode Refuse(const char* why);
    nmscReturnCode Acquire(std::uint32_t id, const nmsRights& rights);
    bool MayRemove(const Entry& entry, const nmsRights& rights) const;
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
    btkFd watch; // reports which processes with a handle have exited
    std::size_t handles = 0;
    std::size_t mostHandles;
    std::function<void(Id)> onRemoval;
};
