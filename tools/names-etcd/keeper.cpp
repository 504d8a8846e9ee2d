#include <algorithm>
#include <cstdio>
#include <random>

#include <qel/base/btkreplace.h>
#include <qel/base/btktrace.h>

#include "keeper_p.h"

namespace {

const std::string recordPrefix = prefix + "records/";
constexpr int leaseSeconds = 15;
constexpr btkTimeval leaseTime(leaseSeconds, 0);
constexpr btkTimeval renewInterval(5, 0);
constexpr btkTimeval renewPause(0, 300000);
constexpr int pageSize = 1000;

std::string endOf(std::string keys)
{
    ++keys.back(); // "/" is followed by "0"
    return keys;
}

std::string randomKey()
{
    static std::random_device source;
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char digits[9];
        std::snprintf(digits, sizeof digits, "%08x", static_cast<unsigned>(source()));
        text += digits;
    }
    return text;
}

bool isBelow(const std::string& key, const std::string& keys)
{
    return key.compare(0, keys.size(), keys) == 0;
}

} // namespace

Keeper::Keeper(nmsChannel channel, KeeperOptions wanted, EtcdOptions store)
    : server(std::move(channel)), options(std::move(wanted)), etcd(std::move(store)),
      machine(options.host + ':' + std::to_string(options.port)), ownPrefix(recordPrefix + machine + '/'),
      run(nmsRunOfMachine())
{
    run.erase(std::min(run.find('\n'), run.size()));
    if (const btkFd file = btkOpenFile(options.stateFile.c_str(), btkOpenRead)) {
        char text[64] = {};
        btkRead(file.Get(), text, sizeof text - 1);
        lease = std::strtoull(text, nullptr, 10);
    }
}

void Keeper::Run()
{
    connectAt = now();
    while (server.IsOpen()) {
        KeepTime();
        Proceed();
        server.Flush();
        const btkTimeval time = now();
        const btkTimeval next = NextTime();
        const bool isServerReady =
            etcd.Work(next > time ? next - time : btkTimeval(), server.GetHandle(), server.IsBehind());
        if (isServerReady && server.IsOpen())
            server.Receive([this](nmsStoreMessage kind, const nmsPartReader& parts) { Hear(kind, parts); });
    }
}

// ---- the name server

void Keeper::Hear(nmsStoreMessage kind, nmsPartReader parts)
{
    if (kind == nmsStoreMessage::ready) {
        isReady = true;
        if (isLive)
            Adopt();
        return;
    }
    if (kind == nmsStoreMessage::again) {
        Asked wanted = {parts.TakeText(), parts.TakeText()};
        if (parts.IsAtEnd())
            asked.push_back(std::move(wanted));
        return;
    }
    const std::uint64_t id = parts.TakeNumber();
    if (kind == nmsStoreMessage::enter) {
        const std::string start = parts.TakeText();
        const nmsFields record = parts.TakeRecord();
        if (parts.IsAtEnd())
            Enter(id, start, record);
    } else if (kind == nmsStoreMessage::leave) {
        if (Own* const left = Find(id); left != nullptr) {
            left->isWanted = false;
            open.insert(id);
            left->tryAt = {};
        } else {
            Tell(nmsStoreMessage::left, id);
        }
    }
}

void Keeper::Enter(std::uint64_t id, const std::string& start, const nmsFields& record)
{
    const auto [place, isNew] = own.try_emplace(id);
    if (!isNew)
        return;
    std::string encoded;
    nmsPutRecord(encoded, record);
    Own& added = place->second;
    open.insert(id);
    added.key = ownPrefix + randomKey();
    byKey[added.key] = id;
    const bool hasProcess = record.owner != 0;
    // Records of no process outlive the machine's run.
    added.value = Json{{"owner", record.owner},
                       {"start", start},
                       {"boot", hasProcess ? run : ""},
                       {"record", ToBase64(encoded)}}
                      .dump();
    const std::string* const name = record.Find("_ServerName");
    if (name == nullptr || !hasProcess || options.areNamesShared)
        return;
    added.claim = claimPrefix + *name;
    added.claimant = ClaimantOf(record, start, run);
    byClaim[added.claim].insert(id);
}

// A process's claim to an exclusive name.
std::string Keeper::ClaimantOf(const nmsFields& record, const std::string& start,
                               const std::string& boot) const
{
    return Json{{"machine", machine},
                {"owner", record.owner},
                {"start", start},
                {"boot", boot},
                {"name", ToBase64(*record.Find("_ServerName"))}}
        .dump();
}

void Keeper::Tell(nmsStoreMessage kind, std::uint64_t id, const std::string& more)
{
    std::string parts;
    nmsPutNumber(parts, id);
    server.Send(kind, parts + more);
}

void Keeper::TellOther(const Stored& record)
{
    // The key, RECORDS/HOST:PORT/RANDOM, is what a role in etcd lets a machine write.
    const std::size_t slash = record.key.rfind('/');
    const std::size_t colon = record.key.rfind(':', slash);
    const Json value = Json::parse(record.value, nullptr, false);
    const std::string encoded = FromBase64(textIn(value, "record"));
    nmsPartReader reader(encoded);
    reader.TakeRecord();
    if (!reader.IsAtEnd() || colon == std::string::npos || colon <= recordPrefix.size())
        return; // of another program
    std::string parts;
    nmsPutText(parts, record.key);
    nmsPutNumber(parts, record.created);
    nmsPutText(parts, record.key.substr(recordPrefix.size(), colon - recordPrefix.size()));
    server.Send(nmsStoreMessage::other, parts + encoded);
}

void Keeper::TellState(bool stale, const std::string& why)
{
    if (stale == isStale && why == told)
        return;
    isStale = stale;
    told = why;
    std::string parts;
    nmsPutNumber(parts, stale ? 1 : 0);
    nmsPutText(parts, why);
    server.Send(nmsStoreMessage::state, parts);
}

// ---- the lease, and the copy

btkTimeval Keeper::NextTime() const
{
    const btkTimeval end = hasLease ? leaseEnd : btkTimeval::Forever();
    return std::min({renewAt, connectAt, tryAt, end});
}

void Keeper::KeepTime()
{
    const btkTimeval time = now();
    if (hasLease && leaseEnd <= time)
        LoseLease("the lease could not be renewed: " + trouble);
    if (renewAt <= time)
        Renew();
    if (connectAt <= time)
        Connect();
}

// Posts a request of the present attempt to connect; replies to those of earlier ones are ignored.
void Keeper::Post(const char* path, const Json& body, Etcd::Done done)
{
    etcd.Post(path, body, [this, done = std::move(done), of = attempt](const EtcdReply& reply) {
        if (of != attempt)
            return;
        if (reply.code == EtcdReply::done)
            return done(reply);
        if (isOutdated(reply))
            etcd.SetToken({});
        ConnectAgain(reply.why);
    });
}

void Keeper::Connect()
{
    connectAt = btkTimeval::Forever();
    Disconnect();
    const EtcdOptions& store = etcd.GetOptions();
    if (store.user.empty() || etcd.HasToken())
        return TakeLease();
    Post("/v3/auth/authenticate", {{"name", store.user}, {"password", store.password}},
         [this](const EtcdReply& reply) {
             etcd.SetToken(textIn(reply.body, "token"));
             TakeLease();
         });
}

void Keeper::ConnectAgain(const std::string& why, btkTimeval pause)
{
    Disconnect();
    connectAt = now() + pause;
    if (isStale)
        TellState(true, why);
}

void Keeper::Disconnect()
{
    ++attempt;
    isLive = false;
    etcd.StopWatch();
    for (Asked& wanted : asked)
        wanted.isBusy = false;
    reading = 0;
    goneMeanwhile.clear();
}

void Keeper::TakeLease()
{
    const btkTimeval sent = now();
    if (lease != 0) {
        Post("/v3/lease/keepalive", {{"ID", std::to_string(lease)}}, [this, sent](const EtcdReply& reply) {
            // A lease that has ended has no time to live.
            if (NumberIn(MemberOf(reply.body, "result"), "TTL") > 0)
                return HaveLease(lease, sent);
            lease = 0;
            if (hasLease)
                LoseLease("the store has ended the lease");
            else
                TakeLease();
        });
        return;
    }
    Post("/v3/lease/grant", {{"TTL", std::to_string(leaseSeconds)}},
         [this, sent](const EtcdReply& reply) { HaveLease(NumberIn(reply.body, "ID"), sent); });
}

void Keeper::HaveLease(std::uint64_t id, btkTimeval sent)
{
    if (id == 0)
        return ConnectAgain("no lease in the reply");
    const bool isNew = id != lease;
    const bool wasLost = isNew || !hasLease;
    lease = id;
    hasLease = true;
    leaseEnd = sent + leaseTime;
    renewAt = sent + renewInterval;
    const std::string text = std::to_string(lease) + '\n';
    btkReplacement file;
    if (isNew && !options.stateFile.empty() &&
        !(file.CreateBeside(options.stateFile.c_str()) && file.Write(text.data(), text.size()) &&
          file.TakePlace(btkReplacement::Unsynced)))
        btkLog(btkLevel::warning, "qel-names-etcd: cannot write " + options.stateFile);
    if (wasLost || !isReady || seen == 0)
        return Load();
    // The connection was lost, and nothing else.
    Follow();
    CheckFresh();
}

void Keeper::Renew()
{
    const btkTimeval sent = now();
    renewAt = sent + renewInterval;
    etcd.Post("/v3/lease/keepalive", {{"ID", std::to_string(lease)}},
              [this, sent, of = lease](const EtcdReply& reply) {
                  if (of != lease || !hasLease)
                      return;
                  if (isOutdated(reply)) {
                      etcd.SetToken({});
                      return ConnectAgain(reply.why);
                  }
                  trouble = reply.why;
                  if (reply.code != EtcdReply::done)
                      renewAt = std::min(renewAt, now() + renewPause);
                  else if (NumberIn(MemberOf(reply.body, "result"), "TTL") > 0)
                      leaseEnd = std::max(leaseEnd, sent + leaseTime);
                  else
                      LoseLease("the store has ended the lease");
              });
}

// Tries to renew it again all the same: the store may have given it more time.
void Keeper::LoseLease(const std::string& why)
{
    hasLease = false;
    renewAt = btkTimeval::Forever();
    TellState(true, why);
    for (auto& [id, record] : own) {
        record.isHeld = false;
        open.insert(id);
    }
    ConnectAgain(why);
}

// Reads all keys from `from` to before `end`, a page at a time, at one revision, 0 for the present one.
void Keeper::Read(const std::string& from, const std::string& end, Revision revision, const Page& page)
{
    const Json request = {{"key", ToBase64(from)},
                          {"range_end", ToBase64(end)},
                          {"limit", std::to_string(pageSize)},
                          {"revision", std::to_string(revision)}};
    Post("/v3/kv/range", request, [this, end, revision, page](const EtcdReply& reply) {
        std::vector<Stored> found;
        for (const Json& pair : MemberOf(reply.body, "kvs"))
            found.push_back({FromBase64(textIn(pair, "key")), FromBase64(textIn(pair, "value")),
                             NumberIn(pair, "create_revision"), NumberIn(pair, "lease")});
        const Revision at = revision != 0 ? revision : revisionOf(reply.body);
        const bool hasMore = MemberOf(reply.body, "more").is_boolean() && !found.empty();
        const std::string next = hasMore ? found.back().key + '\0' : std::string();
        page(found, at, !hasMore);
        if (hasMore)
            Read(next, end, at, page);
    });
}

// Loads all keys.
void Keeper::Load()
{
    stored.clear();
    claims.clear();
    orphans.clear();
    asked.clear();
    seen = 0;
    server.Send(nmsStoreMessage::reload);
    Read(prefix, endOf(prefix), 0, [this](std::vector<Stored>& found, Revision revision, bool isLast) {
        for (Stored& one : found)
            if (isBelow(one.key, claimPrefix))
                claims[one.key] = std::move(one);
            else if (isBelow(one.key, ownPrefix))
                stored[one.key] = std::move(one);
            else if (isBelow(one.key, recordPrefix))
                TellOther(one);
        if (isLast)
            Loaded(revision);
    });
}

void Keeper::Loaded(Revision revision)
{
    server.Send(nmsStoreMessage::loaded);
    seen = revision;
    Follow();
    if (isReady)
        Adopt();
    CheckFresh();
}

// The watch may be ahead of what is read: a record that it has reported as removed since is not sent.
void Keeper::SendAgain(std::list<Asked>::iterator wanted)
{
    wanted->isBusy = true;
    ++reading;
    Read(wanted->first, wanted->last + '\0', 0,
         [this, wanted](const std::vector<Stored>& found, Revision, bool isLast) {
             for (const Stored& one : found)
                 if (isBelow(one.key, recordPrefix) && !isBelow(one.key, ownPrefix) &&
                     !goneMeanwhile.contains(one.key))
                     TellOther(one);
             if (!isLast)
                 return;
             asked.erase(wanted);
             if (--reading == 0)
                 goneMeanwhile.clear();
             server.Send(nmsStoreMessage::sent);
         });
}

// Watches what happens after what has been seen.
void Keeper::Follow()
{
    isLive = true;
    const Json request = {{"create_request",
                           {{"key", ToBase64(prefix)},
                            {"range_end", ToBase64(endOf(prefix))},
                            {"start_revision", std::to_string(seen + 1)}}}};
    etcd.Watch(request, [this](const EtcdMessage& message) { HearWatch(message); });
}

void Keeper::HearWatch(const EtcdMessage& message)
{
    if (message.isEnd) {
        if (NumberIn(message.result, "compact_revision") != 0)
            seen = 0;
        return ConnectAgain(message.why);
    }
    const Json& events = MemberOf(message.result, "events");
    if (!events.is_array())
        return;
    for (const Json& event : events) {
        HearEvent(event);
        seen = std::max(seen, NumberIn(MemberOf(event, "kv"), "mod_revision"));
    }
}

void Keeper::HearEvent(const Json& event)
{
    const Json& pair = MemberOf(event, "kv");
    const Stored changed = {FromBase64(textIn(pair, "key")), FromBase64(textIn(pair, "value")),
                            NumberIn(pair, "create_revision"), NumberIn(pair, "lease")};
    const bool isGone = textIn(event, "type") == "DELETE";
    if (isBelow(changed.key, claimPrefix)) {
        const auto waiting = byClaim.find(changed.key);
        if (isGone && waiting != byClaim.end())
            for (const std::uint64_t id : waiting->second)
                own.at(id).tryAt = {};
    } else if (isBelow(changed.key, ownPrefix)) {
        const auto known = byKey.find(changed.key);
        if (known == byKey.end()) {
            if (!isGone && isReady)
                orphans.push_back(changed);
        } else if (Own& record = own.at(known->second); isGone && !record.isBusy && record.isHeld) {
            // By hand, or by another machine of the same name.
            record.isHeld = false;
            record.revision = 0;
            record.tryAt = now() + fullPause;
            open.insert(known->second);
        }
    } else if (isGone) {
        if (reading > 0)
            goneMeanwhile.insert(changed.key);
        std::string parts;
        nmsPutText(parts, changed.key);
        server.Send(nmsStoreMessage::gone, parts);
    } else {
        TellOther(changed);
    }
}

// Fresh: the copy is live, and each own record is entered or displaced.
void Keeper::CheckFresh()
{
    if (!isStale || !isLive || !isReady || !hasLease)
        return;
    const bool isSettled = std::all_of(open.begin(), open.end(), [this](std::uint64_t id) {
        const Own& record = own.at(id);
        return record.isHeld || record.isTaken || !record.isWanted;
    });
    if (isSettled)
        TellState(false, "connected to " + etcd.GetEndpoint());
}
