#include <algorithm>

#include "keeper_p.h"

namespace {

constexpr btkTimeval tryPause(0, 200000);
constexpr btkTimeval takenPause(5, 0);
constexpr std::size_t mostBusy = 32;
constexpr std::size_t mostReading = 16;

Json wasCreated(const std::string& key, std::uint64_t revision)
{
    return {{"key", ToBase64(key)},
            {"target", "CREATE"},
            {"result", "EQUAL"},
            {"create_revision", std::to_string(revision)}};
}

Json rangeOf(const std::string& key)
{
    return {{"request_range", {{"key", ToBase64(key)}}}};
}

Json holds(const std::string& key, const std::string& value)
{
    return {{"key", ToBase64(key)}, {"target", "VALUE"}, {"result", "EQUAL"}, {"value", ToBase64(value)}};
}

Json deletionOf(const std::string& key)
{
    return {{"request_delete_range", {{"key", ToBase64(key)}}}};
}

bool hasSucceeded(const Json& body)
{
    const Json& flag = MemberOf(body, "succeeded"); // left out when false
    return flag.is_boolean() && flag.get<bool>();
}

// The pair that the i-th range of a failed transaction found; null: none.
const Json& foundBy(const Json& body, std::size_t i)
{
    static const Json none;
    const Json& responses = MemberOf(body, "responses");
    if (!responses.is_array() || i >= responses.size())
        return none;
    const Json& pairs = MemberOf(MemberOf(responses[i], "response_range"), "kvs");
    return pairs.is_array() && !pairs.empty() ? pairs[0] : none;
}

} // namespace

Keeper::Own* Keeper::Find(std::uint64_t id)
{
    const auto found = own.find(id);
    return found == own.end() ? nullptr : &found->second;
}

// Whether such a record of the name server, other than `except`, has the claim and the claimant.
bool Keeper::HasClaimant(const std::string& claim, const std::string& claimant, Which which,
                         const Own* except) const
{
    const auto found = byClaim.find(claim);
    return found != byClaim.end() &&
           std::any_of(found->second.begin(), found->second.end(), [&](std::uint64_t id) {
               const Own& record = own.at(id);
               return &record != except && record.claimant == claimant &&
                      (which == any || record.isWanted == (which == staying));
           });
}

void Keeper::Forget(std::uint64_t id)
{
    const auto place = own.find(id);
    byKey.erase(place->second.key);
    if (const auto found = byClaim.find(place->second.claim); found != byClaim.end()) {
        found->second.erase(id);
        if (found->second.empty())
            byClaim.erase(found);
    }
    own.erase(place);
    open.erase(id);
    Tell(nmsStoreMessage::left, id);
}

// Compares what was loaded with the name server's records: takes over what is the same, and removes the rest.
void Keeper::Adopt()
{
    for (auto& [id, record] : own)
        if (!record.isBusy) {
            record.isHeld = false;
            record.revision = 0;
            open.insert(id);
        }
    std::map<std::string_view, std::uint64_t> byValue;
    for (const auto& [id, record] : own)
        if (!record.isAsked)
            byValue[record.value] = id;
    for (const auto& [key, found] : std::exchange(stored, {})) {
        const auto known = byKey.find(key);
        const auto same = byValue.find(found.value);
        const auto place = known != byKey.end()    ? own.find(known->second)
                           : same != byValue.end() ? own.find(same->second)
                                                   : own.end();
        if (known == byKey.end() && same != byValue.end())
            byValue.erase(same);
        const auto claim = place == own.end() ? claims.end() : claims.find(place->second.claim);
        const bool isWhole =
            place != own.end() && (place->second.claim.empty() ||
                                   (claim != claims.end() && claim->second.value == place->second.claimant));
        if (!isWhole) {
            if (place == own.end() || !place->second.isBusy)
                orphans.push_back(found);
            continue;
        }
        Own& record = place->second;
        if (record.isBusy)
            continue;
        byKey.erase(record.key);
        record.key = key;
        byKey[key] = place->first;
        record.isAsked = true;
        record.revision = found.created;
        if (found.lease == lease && record.isWanted)
            Keep(place->first, record, found.created);
    }
    CheckFresh();
}

void Keeper::Proceed()
{
    tryAt = btkTimeval::Forever();
    const btkTimeval time = now();
    for (auto place = open.begin(); place != open.end();) {
        const std::uint64_t id = *place++;
        Own& record = own.at(id);
        if (record.isBusy)
            continue;
        if (record.isWanted && record.isHeld)
            open.erase(id);
        else if (!record.isWanted && !record.isAsked)
            Forget(id);
        else if (!isLive || !isReady || !hasLease)
            continue;
        else if (record.tryAt > time)
            tryAt = std::min(tryAt, record.tryAt);
        else if (busy < mostBusy)
            Proceed(id, record);
        else
            break; // the next reply goes on here
    }
    while (isLive && !orphans.empty() && busy < mostBusy) {
        DeleteOrphan(orphans.back());
        orphans.pop_back();
    }
    for (auto next = asked.begin(); isLive && reading < mostReading && next != asked.end(); ++next)
        if (!next->isBusy)
            SendAgain(next);
}

void Keeper::Proceed(std::uint64_t id, Own& record)
{
    if (!record.isWanted)
        Delete(id, !record.claim.empty() && !HasClaimant(record.claim, record.claimant, staying, &record));
    else if (!record.claim.empty() && HasClaimant(record.claim, record.claimant, leaving, &record))
        record.tryAt = now() + tryPause; // a deletion of the same claim may be on its way
    else
        Put(id, 0);
}

Json Keeper::PutOf(const std::string& key, const std::string& value) const
{
    return {{"request_put",
             {{"key", ToBase64(key)}, {"value", ToBase64(value)}, {"lease", std::to_string(lease)}}}};
}

// Enters a record, if neither it nor another claim exists: the claim has been created at `claimed`, 0 for none.
void Keeper::Put(std::uint64_t id, Revision claimed)
{
    Own& record = own.at(id);
    // A record under an earlier lease keeps its revision.
    Json txn = {{"compare", Json::array({wasCreated(record.key, record.revision)})},
                {"success", Json::array({PutOf(record.key, record.value)})},
                {"failure", Json::array({rangeOf(record.key)})}};
    if (!record.claim.empty()) {
        txn["compare"].push_back(wasCreated(record.claim, claimed));
        txn["success"].push_back(PutOf(record.claim, record.claimant));
        txn["failure"].push_back(rangeOf(record.claim));
    }
    record.isBusy = true;
    record.isAsked = true;
    ++busy;
    etcd.Post("/v3/kv/txn", txn, [this, id](const EtcdReply& reply) {
        --busy;
        own.at(id).isBusy = false;
        HavePut(id, reply);
        CheckFresh();
    });
}

void Keeper::HavePut(std::uint64_t id, const EtcdReply& reply)
{
    Own& record = own.at(id);
    if (reply.code != EtcdReply::done)
        return Fail(record, reply, id);
    if (hasSucceeded(reply.body))
        return Keep(id, record, record.revision != 0 ? record.revision : revisionOf(reply.body));

    const Json& found = foundBy(reply.body, 0);
    const Json& claim = foundBy(reply.body, 1);
    const Revision created = NumberIn(found, "create_revision");
    const std::string claimant = FromBase64(textIn(claim, "value"));
    // The key is random: an earlier transaction, whose outcome was not known, has entered the record.
    if (created != 0 && NumberIn(found, "lease") == lease &&
        (record.claim.empty() || claimant == record.claimant))
        return Keep(id, record, created);
    record.revision = created;
    const bool isOwnMachine = textIn(Json::parse(claimant, nullptr, false), "machine") == machine;
    if (claim.is_object() && !isOwnMachine) {
        record.tryAt = now() + takenPause;
        record.isTaken = true;
        Tell(nmsStoreMessage::taken, id);
    } else if (claim.is_object() && record.isWanted &&
               (claimant == record.claimant || !HasClaimant(record.claim, claimant, any, &record))) {
        // By another record of the process, or left over by a process that has exited.
        Put(id, NumberIn(claim, "create_revision"));
    } else {
        record.tryAt = now() + tryPause;
    }
}

void Keeper::Keep(std::uint64_t id, Own& record, Revision revision)
{
    record.isHeld = hasLease;
    if (record.isHeld && record.isWanted)
        open.erase(id);
    record.isTaken = false;
    record.revision = revision;
    std::string parts;
    nmsPutNumber(parts, revision);
    Tell(nmsStoreMessage::held, id, parts);
}

void Keeper::Delete(std::uint64_t id, bool withClaim)
{
    Own& record = own.at(id);
    // Its key is random: what exists there is this record. Repeated, the transaction has no effect.
    Json exists = wasCreated(record.key, 0);
    exists["result"] = "GREATER";
    Json txn = {{"compare", Json::array({exists})},
                {"success", Json::array({deletionOf(record.key)})},
                {"failure", Json::array({deletionOf(record.key)})}};
    if (withClaim) {
        txn["compare"].push_back(holds(record.claim, record.claimant));
        txn["success"].push_back(deletionOf(record.claim));
    }
    record.isBusy = true;
    ++busy;
    etcd.Post("/v3/kv/txn", txn, [this, id](const EtcdReply& reply) {
        --busy;
        Own& left = own.at(id);
        left.isBusy = false;
        if (reply.code != EtcdReply::done)
            return Fail(left, reply, id);
        Forget(id);
        CheckFresh();
    });
}

// Removes a record of this machine that the name server does not have, and its claim unless that is used.
void Keeper::DeleteOrphan(const Stored& orphan)
{
    const Json value = Json::parse(orphan.value, nullptr, false);
    const std::string encoded = FromBase64(textIn(value, "record"));
    const nmsFields record = nmsPartReader(encoded).TakeRecord();
    const std::string* const name = record.Find("_ServerName");
    Json txn = {{"compare", Json::array({wasCreated(orphan.key, orphan.created)})},
                {"success", Json::array({deletionOf(orphan.key)})}};
    if (name != nullptr && record.owner != 0) {
        const std::string claimant = ClaimantOf(record, textIn(value, "start"), textIn(value, "boot"));
        const std::string claim = claimPrefix + *name;
        if (!HasClaimant(claim, claimant, any))
            txn["success"].push_back({{"request_txn",
                                       {{"compare", Json::array({holds(claim, claimant)})},
                                        {"success", Json::array({deletionOf(claim)})}}}});
    }
    ++busy;
    etcd.Post("/v3/kv/txn", txn, [this, orphan](const EtcdReply& reply) {
        --busy;
        if (reply.code == EtcdReply::done)
            return;
        orphans.push_back(orphan);
        if (isLive)
            ConnectAgain(reply.why);
    });
}

void Keeper::Fail(Own& record, const EtcdReply& reply, std::uint64_t id)
{
    record.tryAt = now() + tryPause;
    if (reply.code == EtcdReply::leaseNotFound) {
        lease = 0;
        LoseLease("the store has ended the lease");
    } else if (isOutdated(reply)) {
        etcd.SetToken({});
        ConnectAgain(reply.why);
    } else if (reply.code == EtcdReply::full || reply.code == EtcdReply::denied) {
        record.tryAt = now() + fullPause;
        std::string parts;
        nmsPutText(parts, reply.why);
        Tell(nmsStoreMessage::refused, id, parts);
    }
}
