#include "nmsshared.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <qel/base/btktrace.h>

namespace {

constexpr btkTimeval connectInterval(1, 0);
constexpr btkTimeval checkInterval(2, 0);
// Of a record, so that those added to an answer have room.
constexpr std::size_t mostFields = nmsLimits().fields - 3;

// Adds a field to a record in its wire form; unchanged if it has no room for one more.
void addField(std::string& encoded, const char* name, const std::string& value)
{
    const int count = nmsGetInt(encoded.data() + nmsIntSize);
    if (count >= static_cast<int>(nmsLimits().fields))
        return;
    std::string text;
    nmsPutInt(text, count + 1);
    encoded.replace(nmsIntSize, nmsIntSize, text);
    for (const std::string& part : {std::string(name), value})
        nmsPutText(encoded, part.data(), static_cast<unsigned>(part.size() + 1),
                   static_cast<unsigned>(part.size()), nmsLimits().valueSize);
}

nmsTableLimits limitsOf(const nmsSharingOptions& wanted)
{
    // None has a process, and records without one have a quarter of a table.
    nmsTableLimits limits;
    limits.records = 4 * wanted.records;
    limits.bytes = 4 * wanted.bytes;
    limits.recordsOfPeer = wanted.recordsOfMachine;
    return limits;
}

} // namespace

nmsShared::nmsShared(nmsTable& table, const nmsSharingOptions& wanted)
    : own(table), others(limitsOf(wanted)), connect(wanted.connect)
{
    for (const Id id : own.List({}))
        records.try_emplace(id, Own{Own::held});
    own.SetOnRemoval([this](Id id) { HasLeft(id); });
}

// ---- own records

void nmsShared::Enter(Id record)
{
    records.try_emplace(record, Own{Own::entering});
    SendRecord(record);
}

void nmsShared::SendRecord(Id record)
{
    std::string parts;
    nmsPutNumber(parts, record);
    nmsPutText(parts, own.GetStart(record));
    parts += *own.Get(record);
    channel.Send(nmsStoreMessage::enter, parts);
}

void nmsShared::HasLeft(Id record)
{
    const auto known = records.find(record);
    if (known == records.end())
        return;
    if (known->second.state == Own::entering)
        results.emplace_back(record, nmscInternal); // a process that has exited meanwhile
    records.erase(known);
    std::string parts;
    nmsPutNumber(parts, record);
    channel.Send(nmsStoreMessage::leave, parts);
}

std::string nmsShared::NameOf(Id record) const
{
    const nmsFields fields = nmsPartReader(*own.Get(record)).TakeRecord();
    const std::string* const name = fields.Find("_ServerName");
    return name == nullptr ? std::string() : *name;
}

void nmsShared::Displace(Id id, Own& record)
{
    if (record.state != Own::displaced)
        btkLog(btkLevel::warning,
               "name server: displaced: another machine has the name " + NameOf(id) + " now");
    record.state = Own::displaced;
    record.revision = 0;
}

// ---- queries

std::vector<nmsTable::Encoded> nmsShared::Find(const nmsFields& pattern)
{
    std::vector<nmsTable::Encoded> found;
    const auto add = [&](const std::string& encoded, std::uint64_t revision) {
        auto text = std::make_shared<std::string>(encoded);
        if (revision != 0)
            addField(*text, "_Revision", std::to_string(revision));
        if (isStale)
            addField(*text, "_Stale", "1");
        found.push_back(std::move(text));
    };
    for (const Id id : own.List(pattern))
        if (const auto known = records.find(id);
            known != records.end() && known->second.state != Own::displaced)
            add(*own.Get(id), known->second.revision);
    for (nmsTable::Encoded& encoded : others.Find(pattern))
        if (isStale)
            add(*encoded, 0);
        else
            found.push_back(std::move(encoded));
    return found;
}

// ---- the keeper

void nmsShared::Work(bool isReady)
{
    const btkTimeval now = btkTimeval::Now();
    if (!channel.IsOpen() && connectAt <= now)
        Connect();
    if (checkAt <= now) {
        checkAt = now + checkInterval;
        own.RemoveExited();
    }
    if (isReady)
        channel.Receive([this](nmsStoreMessage kind, const nmsPartReader& parts) { Receive(kind, parts); });
    channel.Flush();
    if (!channel.IsOpen())
        SetState(true, "no keeper runs");
}

void nmsShared::Connect()
{
    connectAt = btkTimeval::Now() + connectInterval;
    channel = nmsChannel(connect());
    if (!channel.IsOpen()) {
        SetState(true, std::string("no keeper: ") + std::strerror(errno));
        return;
    }
    std::vector<Id> all;
    for (const auto& [id, record] : records)
        all.push_back(id);
    std::sort(all.begin(), all.end());
    for (const Id id : all)
        SendRecord(id);
    channel.Send(nmsStoreMessage::ready);
}

void nmsShared::Receive(nmsStoreMessage kind, nmsPartReader parts)
{
    if (kind == nmsStoreMessage::other)
        return ReceiveOther(parts);
    if (kind == nmsStoreMessage::state) {
        const bool stale = parts.TakeNumber() != 0;
        return SetState(stale, parts.TakeText());
    }
    if (kind == nmsStoreMessage::reload) {
        ++load;
        return;
    }
    if (kind == nmsStoreMessage::gone)
        return Drop(copied.find(parts.TakeText()));
    if (kind == nmsStoreMessage::loaded) {
        for (auto place = copied.begin(); place != copied.end();) {
            const auto known = place++;
            if (known->second.load != load)
                Drop(known);
        }
        return;
    }

    const Id id = parts.TakeNumber();
    if (kind == nmsStoreMessage::left) {
        results.emplace_back(id, nmscDone);
        return;
    }
    const auto known = records.find(id);
    if (known == records.end())
        return;
    Own& record = known->second;
    const bool isNew = record.state == Own::entering;
    if (kind == nmsStoreMessage::held) {
        if (isNew) {
            own.Show(id);
            results.emplace_back(id, nmscDone);
        } else if (record.state == Own::displaced) {
            btkLog(btkLevel::info, "name server: no longer displaced: " + NameOf(id));
        }
        record = {Own::held, parts.TakeNumber()};
    } else if (isNew && (kind == nmsStoreMessage::taken || kind == nmsStoreMessage::refused)) {
        results.emplace_back(id, kind == nmsStoreMessage::taken ? nmscExists : nmscInternal);
        record.state = Own::displaced; // it has its result
        own.RemoveOne(id);
        if (kind == nmsStoreMessage::refused)
            btkLog(btkLevel::warning, "name server: the store refuses a record: " + parts.TakeText());
    } else if (kind == nmsStoreMessage::taken) {
        Displace(id, record);
    }
}

void nmsShared::ReceiveOther(nmsPartReader& parts)
{
    const std::string key = parts.TakeText();
    const std::uint64_t revision = parts.TakeNumber();
    const std::string host = parts.TakeText();
    nmsFields record = parts.TakeRecord();
    if (!parts.IsAtEnd())
        return;
    Drop(copied.find(key));
    record.owner = 0;
    if (record.fields.size() > mostFields)
        record.fields.resize(mostFields);
    record.Set("_HostName", host);
    record.Set("_Revision", std::to_string(revision));
    Id id = 0;
    const nmscReturnCode code = others.Add(std::move(record), host, {}, nmsTable::Shown, id);
    if (code == nmscDone)
        copied[key] = {id, load};
}

void nmsShared::Drop(std::map<std::string, Other>::iterator place)
{
    if (place == copied.end())
        return;
    others.RemoveOne(place->second.id);
    copied.erase(place);
}

void nmsShared::SetState(bool stale, std::string why)
{
    // Reasons that follow the first are in the version record.
    if (stale != isStale || reason.empty())
        btkLog(stale ? btkLevel::warning : btkLevel::info,
               (stale ? "name server: the other machines' records may be out of date: "
                      : "name server: sharing its records: ") +
                   why);
    isStale = stale;
    reason = std::move(why);
}

void nmsShared::Describe(nmsFields& about) const
{
    std::string names;
    std::size_t displaced = 0;
    for (const auto& [id, record] : records)
        if (record.state == Own::displaced) {
            ++displaced;
            names += (names.empty() ? "" : " ") + NameOf(id);
        }
    const std::size_t most = nmsLimits().valueSize - 1;
    about.Set("Store", reason.empty() ? "not connected yet" : reason.substr(0, most));
    about.Set("StoreStale", isStale ? "1" : "0");
    about.Set("RecordsOfOthers", std::to_string(copied.size()));
    about.Set("RecordsOfOthersRefused", std::to_string(others.GetUse().refused));
    about.Set("Displaced", std::to_string(displaced));
    if (displaced > 0)
        about.Set("DisplacedNames", names.substr(0, most));
}
