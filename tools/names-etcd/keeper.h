#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <qel/base/nmsstore.h>

#include "etcd.h"

struct KeeperOptions
{
    std::string host;      // of this machine, for the others
    int port = 0;          // of the name server
    std::string stateFile; // keeps the lease; empty: none
    bool areNamesShared = false;
};

/// Keeps the records of one name server in etcd, all under one lease, and sends back those of the others.
///
/// A record is at RECORDS/HOST:PORT/RANDOM. An exclusive name is also a claim at CLAIMS/NAME, which is created
/// together with the first record of that name and removed with the last. Every change is a transaction on what
/// the keeper knows, so that it may be repeated when its outcome is not known.
class Keeper
{
public:
    Keeper(nmsChannel server, KeeperOptions wanted, EtcdOptions store);
    /// Runs until the name server closes the connection.
    void Run();

private:
    using Revision = std::uint64_t;
    struct Own
    {
        std::string key;
        std::string value;
        std::string claim; // key of its exclusive name; empty: none
        std::string claimant;
        bool isWanted = true;
        bool isAsked = false; // a transaction has been sent, ever
        bool isBusy = false;  // one is on its way
        bool isHeld = false;
        bool isTaken = false;
        Revision revision = 0; // at which the key was created, if it is known to exist
        btkTimeval tryAt = {};
    };
    struct Stored
    {
        std::string key;
        std::string value;
        Revision created = 0;
        std::uint64_t lease = 0;
    };
    // Records of other machines that the name server asks for.
    struct Asked
    {
        std::string first, last; // keys
        bool isBusy = false;     // a request is on its way
    };

    // ---- the name server
    void Hear(nmsStoreMessage kind, nmsPartReader parts);
    void Enter(std::uint64_t id, const std::string& start, const nmsFields& record);
    void Tell(nmsStoreMessage kind, std::uint64_t id, const std::string& more = {});
    void TellOther(const Stored& record);
    void TellState(bool stale, const std::string& why);

    // ---- the lease, and the copy
    btkTimeval NextTime() const;
    void KeepTime();
    void Post(const char* path, const Json& body, Etcd::Done done);
    void Connect();
    void ConnectAgain(const std::string& why, btkTimeval pause = btkTimeval(0.3));
    void Disconnect();
    void TakeLease();
    void HaveLease(std::uint64_t id, btkTimeval sent);
    void Renew();
    void LoseLease(const std::string& why);
    using Page = std::function<void(std::vector<Stored>& found, Revision revision, bool isLast)>;
    void Read(const std::string& from, const std::string& end, Revision revision, const Page& page);
    void Load();
    void Loaded(Revision revision);
    void SendAgain(std::list<Asked>::iterator wanted);
    void Follow();
    void HearWatch(const EtcdMessage& message);
    void HearEvent(const Json& event);
    void CheckFresh();

    // ---- own records
    void Adopt();
    void Proceed();
    void Proceed(std::uint64_t id, Own& own);
    void Put(std::uint64_t id, Revision claimed);
    void HavePut(std::uint64_t id, const EtcdReply& reply);
    void Keep(std::uint64_t id, Own& own, Revision revision);
    void Delete(std::uint64_t id, bool withClaim);
    void DeleteOrphan(const Stored& orphan);
    void Fail(Own& own, const EtcdReply& reply, std::uint64_t id);
    enum Which : unsigned char { staying, leaving, any };
    bool HasClaimant(const std::string& claim, const std::string& claimant, Which which,
                     const Own* except = nullptr) const;
    std::string ClaimantOf(const nmsFields& record, const std::string& start, const std::string& boot) const;
    void Forget(std::uint64_t id);
    Json PutOf(const std::string& key, const std::string& value) const;
    Own* Find(std::uint64_t id);

    nmsChannel server;
    KeeperOptions options;
    Etcd etcd;
    std::string machine; // HOST:PORT
    std::string ownPrefix;
    std::string run;

    std::map<std::uint64_t, Own> own;
    std::set<std::uint64_t> open; // at least those that are not wanted and held
    std::map<std::string, std::uint64_t> byKey;
    std::map<std::string, std::set<std::uint64_t>> byClaim;
    std::size_t busy = 0;
    bool isReady = false; // the records of the name server's beginning are known

    std::uint64_t lease = 0;
    bool hasLease = false; // it is certainly alive until:
    btkTimeval leaseEnd;
    btkTimeval renewAt = btkTimeval::Forever();
    btkTimeval connectAt = btkTimeval::Forever();
    btkTimeval tryAt = btkTimeval::Forever();
    unsigned attempt = 0; // numbers the calls of Connect, so that the replies to earlier ones are known
    bool isLive = false;  // loaded, and watching
    Revision seen = 0;    // of the store, up to which the copy is complete; 0: it must be loaded
    std::list<Asked> asked;
    std::size_t reading = 0;             // of those that were asked for
    std::set<std::string> goneMeanwhile; // keys
    bool isStale = true;
    std::string told;
    std::string trouble;                  // with the last renewal
    std::map<std::string, Stored> stored; // this machine's records as loaded, until they are adopted
    std::map<std::string, Stored> claims; // as loaded, those of this machine
    std::vector<Stored> orphans;          // this machine's records that the name server does not have
};
