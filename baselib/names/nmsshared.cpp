#include "nmsshared.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include <qel/base/btktrace.h>

namespace {

constexpr btkTimeval connectInterval(1, 0);
constexpr btkTimeval checkInterval(2, 0);
constexpr btkTimeval reportInterval(60, 0);
// Those of a keeper are shorter.
constexpr std::size_t longestKey = 512;
constexpr std::size_t mostAsked = 1000;
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

// The records of other machines are limited here, not by their table.
nmsTableLimits withoutLimits()
{
    nmsTableLimits limits;
    limits.records = limits.recordsOfPeer = limits.bytes = std::numeric_limits<std::size_t>::max();
    return limits;
}

void include(std::optional<std::pair<std::string, std::string>>& keys, const std::string& key)
{
    if (!keys)
        keys.emplace(key, key);
    keys->first = std::min(keys->first, key);
    keys->second = std::max(keys->second, key);
}

} // namespace

nmsShared::nmsShared(nmsTable& table, const nmsSharingOptions& wanted)
    : own(table), others(withoutLimits()), options(wanted)
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
        mayFit = true; // responses that hold removed records may have been sent
        ReportLeftOut(now);
    }
    if (isReady)
        channel.Receive([this](nmsStoreMessage kind, const nmsPartReader& parts) { Receive(kind, parts); });
    AskAgain();
    channel.Flush();
    if (!channel.IsOpen())
        SetState(true, "no keeper runs");
}

void nmsShared::Connect()
{
    connectAt = btkTimeval::Now() + connectInterval;
    channel = nmsChannel(options.connect());
    asked = 0;
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
    if (kind == nmsStoreMessage::reload)
        return Reload();
    if (kind == nmsStoreMessage::gone)
        return Drop(foreign.find(parts.TakeText()));
    if (kind == nmsStoreMessage::sent) {
        asked -= std::min<std::size_t>(asked, 1);
        return;
    }
    if (kind == nmsStoreMessage::loaded) {
        for (auto next = foreign.begin(); next != foreign.end();) {
            const auto place = next++;
            if (place->second.load != load)
                Drop(place);
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

// ---- the copy of the other machines' records

void nmsShared::ReceiveOther(nmsPartReader& parts)
{
    const std::string key = parts.TakeText();
    const std::uint64_t revision = parts.TakeNumber();
    const std::string host = parts.TakeText();
    nmsFields record = parts.TakeRecord();
    if (!parts.IsAtEnd() || key.size() > longestKey)
        return;
    Drop(foreign.find(key));
    record.owner = 0;
    if (record.fields.size() > mostFields)
        record.fields.resize(mostFields);
    record.Set("_HostName", host);
    record.Set("_Revision", std::to_string(revision));
    std::string encoded;
    if (!nmsPutRecord(encoded, record))
        return;
    const std::size_t size = encoded.size();
    const auto found = machines.find(host);
    const Use all = {others.GetSize(), others.GetUse().bytes};
    if (!HasRoom(all, found == machines.end() ? Use() : found->second.copied, size))
        return LeaveOut(host, key, size);
    Id id = 0;
    if (others.Add(std::move(record), {}, {}, nmsTable::Shown, id) != nmscDone)
        return;
    const auto machine = machines.try_emplace(host).first;
    ++machine->second.copied.records;
    machine->second.copied.bytes += size;
    foreign.try_emplace(key, Other{machine, size, load, id});
}

bool nmsShared::HasRoom(const Use& all, const Use& ofMachine, std::size_t size) const
{
    return all.records < options.records && ofMachine.records < options.recordsOfMachine &&
           all.bytes + size <= options.bytes && ofMachine.bytes + size <= options.BytesOfMachine();
}

// Lists the key. The list has as much room as the copy, of a machine and of all: of more, only the first and the last
// key are kept.
void nmsShared::LeaveOut(const std::string& host, const std::string& key, std::size_t size)
{
    if (leftOut >= options.records)
        return include(unlisted, key);
    const auto machine = machines.try_emplace(host).first;
    if (machine->second.leftOut.size() >= options.recordsOfMachine)
        return include(machine->second.unlisted, key);
    const auto place = foreign.try_emplace(key, Other{machine, size, load, {}}).first;
    machine->second.leftOut.emplace(size, place->first);
    ++leftOut;
}

void nmsShared::Drop(Others::iterator place)
{
    if (place == foreign.end())
        return;
    const Other other = place->second;
    Machine& machine = other.machine->second;
    if (other.id) {
        others.RemoveOne(*other.id);
        --machine.copied.records;
        machine.copied.bytes -= other.size;
    } else {
        machine.leftOut.erase({other.size, place->first});
        --leftOut;
    }
    foreign.erase(place);
    Tidy(other.machine);
    mayFit = true;
}

void nmsShared::Tidy(Machines::iterator machine)
{
    const Machine& of = machine->second;
    if (of.copied.records == 0 && of.leftOut.empty() && !of.unlisted)
        machines.erase(machine);
}

// All records follow, those that were left out as well.
void nmsShared::Reload()
{
    ++load;
    asked = 0;
    unlisted.reset();
    for (auto next = machines.begin(); next != machines.end();) {
        const auto machine = next++;
        machine->second.unlisted.reset();
        Tidy(machine);
    }
}

// Asks for the records that were left out and have room now, the smallest of each machine first; and for those that are
// not listed, once the list has room for them.
void nmsShared::AskAgain()
{
    if (!mayFit || asked > 0 || !channel.IsOpen())
        return;
    struct Turn
    {
        Use copied;
        decltype(Machine::leftOut)::const_iterator next, end;
    };
    std::vector<Turn> turns;
    AskUnlisted(unlisted, leftOut, options.records);
    for (auto next = machines.begin(); next != machines.end();) {
        const auto place = next++;
        Machine& machine = place->second;
        AskUnlisted(machine.unlisted, machine.leftOut.size(), options.recordsOfMachine);
        if (!machine.leftOut.empty())
            turns.push_back({machine.copied, machine.leftOut.begin(), machine.leftOut.end()});
        Tidy(place);
    }
    Use all = {others.GetSize(), others.GetUse().bytes};
    // By turns, so that one machine does not get all the room.
    while (!turns.empty() && asked < mostAsked) {
        std::vector<Turn> more;
        for (Turn& turn : turns) {
            if (turn.next == turn.end || !HasRoom(all, turn.copied, turn.next->first))
                continue;
            const auto& [size, key] = *turn.next++;
            Ask({std::string(key), std::string(key)});
            for (Use* const use : {&all, &turn.copied}) {
                ++use->records;
                use->bytes += size;
            }
            more.push_back(turn);
        }
        turns = std::move(more);
    }
    mayFit = !turns.empty();
}

void nmsShared::AskUnlisted(std::optional<Keys>& keys, std::size_t listed, std::size_t most)
{
    if (!keys || 2 * listed >= most)
        return;
    Ask(*keys);
    keys.reset();
}

void nmsShared::Ask(const Keys& keys)
{
    std::string parts;
    nmsPutText(parts, keys.first);
    nmsPutText(parts, keys.second);
    channel.Send(nmsStoreMessage::again, parts);
    ++asked;
}

void nmsShared::ReportLeftOut(btkTimeval now)
{
    if (leftOut == 0)
        isLeftOutReported = false;
    if (leftOut == 0 || isLeftOutReported || now < reportAt)
        return;
    isLeftOutReported = true;
    reportAt = now + reportInterval;
    btkLog(btkLevel::warning,
           "name server: no room for " + std::to_string(leftOut) + " records of other machines");
}

// ---- its state

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
    about.Set("RecordsOfOthers", std::to_string(others.GetSize()));
    about.Set("RecordsOfOthersLeftOut", std::to_string(leftOut));
    about.Set("BytesOfOthers", std::to_string(others.GetUse().bytes));
    about.Set("MaxBytesOfOthers", std::to_string(options.bytes));
    about.Set("Displaced", std::to_string(displaced));
    if (displaced > 0)
        about.Set("DisplacedNames", names.substr(0, most));
}
