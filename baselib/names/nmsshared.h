#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <qel/base/nmsstore.h>
#include <qel/base/nmstable.h>

/// How a name server shares its records with those of other machines.
struct nmsSharingOptions
{
    /// Connects to a keeper; see nmsStartKeeper. Unset: the server shares nothing.
    std::function<btkFd()> connect = {};
    /// Limits of the copy of the other machines' records: of all, of those of one machine, and of the bytes of all
    /// in their wire form.
    std::size_t records = 100000;
    std::size_t recordsOfMachine = 10000;
    std::size_t bytes = std::size_t(64) << 20;

    /// One machine has the same part of the bytes as of the records.
    std::size_t BytesOfMachine() const
    {
        return recordsOfMachine >= records ? bytes : bytes / records * recordsOfMachine;
    }
};

/// The records that a name server shares: its own ones as its keeper knows them, and a copy of those of the
/// other machines. What has no room in the copy is left out until it has. Reports changes on the standard error output.
/// Used by one thread, and never waits.
class BASE_API nmsShared
{
public:
    using Id = nmsTable::Id;
    /// The outcome of Enter or Leave: an nmscReturnCode.
    using Result = std::pair<Id, nmscReturnCode>;

    /// `own`, which outlives this object, loses records that the store refuses.
    nmsShared(nmsTable& own, const nmsSharingOptions& wanted);
    nmsShared(const nmsShared&) = delete;
    nmsShared& operator=(const nmsShared&) = delete;
    ~nmsShared() { own.SetOnRemoval({}); }

    /// Enters a hidden record of the own table. It is shown once the store holds it, and removed otherwise.
    void Enter(Id record);
    /// Takes the results since the last call. A record that is removed from the own table, in whatever way,
    /// has the result nmscDone once the store no longer holds it.
    std::vector<Result> TakeResults() { return std::exchange(results, {}); }

    /// Returns the matching records of all machines, the own ones first.
    std::vector<nmsTable::Encoded> Find(const nmsFields& pattern);

    /// For poll: the connection, and whether it must also be writable.
    btkHandle GetHandle() const { return channel.GetHandle(); }
    bool IsBehind() const { return channel.IsBehind(); }
    /// Receives and sends what is possible now, and connects to a keeper when there is none. Call it when the
    /// handle is ready, after other calls, and at NextWork.
    void Work(bool isReady);
    btkTimeval NextWork() const { return channel.IsOpen() ? checkAt : connectAt; }

    /// Adds the fields about it to the version record.
    void Describe(nmsFields& about) const;

private:
    struct Own
    {
        enum State { entering, held, displaced } state;
        std::uint64_t revision = 0; // 0: not known
    };
    struct Use
    {
        std::size_t records = 0;
        std::size_t bytes = 0;
    };
    /// The first and the last of some keys.
    using Keys = std::pair<std::string, std::string>;
    struct Machine
    {
        Use copied;
        std::set<std::pair<std::size_t, std::string_view>> leftOut; // sizes and keys
        std::optional<Keys> unlisted; // left out as well; others may lie between
    };
    using Machines = std::map<std::string, Machine>;
    /// A record of another machine.
    struct Other
    {
        Machines::iterator machine;
        std::size_t size;
        unsigned load;
        std::optional<Id> id; // in `others`; none: it is left out
    };
    using Others = std::map<std::string, Other>;

    void Connect();
    void SendRecord(Id record);
    void HasLeft(Id record);
    void Receive(nmsStoreMessage kind, nmsPartReader parts);
    void ReceiveOther(nmsPartReader& parts);
    bool HasRoom(const Use& all, const Use& ofMachine, std::size_t size) const;
    void LeaveOut(const std::string& host, const std::string& key, std::size_t size);
    void Drop(Others::iterator place);
    void Tidy(Machines::iterator machine);
    void Reload();
    void AskAgain();
    void AskUnlisted(std::optional<Keys>& keys, std::size_t listed, std::size_t most);
    void Ask(const Keys& keys);
    void ReportLeftOut(btkTimeval now);
    void Displace(Id id, Own& record);
    void SetState(bool stale, std::string why);
    std::string NameOf(Id record) const;

    nmsTable& own;
    nmsTable others;
    nmsSharingOptions options;
    nmsChannel channel;
    btkTimeval connectAt;
    btkTimeval checkAt; // for processes that have exited
    bool isStale = true;
    std::string reason;
    std::unordered_map<Id, Own> records;
    Others foreign;               // by their keys
    Machines machines;            // of `foreign`, by their hosts
    std::size_t leftOut = 0;      // of `foreign`
    std::optional<Keys> unlisted; // left out, but not in `foreign`, which has no room for them
    bool mayFit = false;          // one that was left out
    std::size_t asked = 0;        // times, for records that were left out; the keeper has not sent them all
    bool isLeftOutReported = false;
    btkTimeval reportAt; // not before
    unsigned load = 0;
    std::vector<Result> results;
};
