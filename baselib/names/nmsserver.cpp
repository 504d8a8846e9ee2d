#include "nmsserver.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/socket.h>

#include <qel/base/btkevent.h>
#include <qel/base/btkreplace.h>
#include <qel/base/btkretry.h>
#include <qel/base/btksystem.h>
#include <qel/base/btktrace.h>

#include "btkpoll_p.h"

namespace {

constexpr btkTimeval pauseWithoutRoom(0, 50000);
constexpr btkTimeval endingLimit(0, 500000);
// For the store's part of a request. Clients wait 5 seconds and more.
constexpr btkTimeval storeLimit(3, 500000);
// Poll entries other than those of the clients.
constexpr std::size_t fixedPlaces = 5;
constexpr std::size_t receiveSize = 16384;
constexpr std::size_t sendSize = 65536;
// Before the other clients' turn.
constexpr int sendsInTurn = 4;
constexpr btkTimeval saveDelay(0, 500000);
constexpr btkTimeval reportInterval(60, 0);
constexpr btkTimeval publishInterval(0, 100000);

// The key by which records are counted together: a user of this machine, one address, for IPv6 one network, of
// which every machine has more addresses than there is room; empty: this machine.
std::string holderOf(const btkStreamSocket& client, const nmsRights& rights)
{
    if (client.IsPeerOnTheSameMachine())
        return rights.user ? nmsTable::HolderOf(*rights.user) : std::string();
    std::string address = client.GetPeerAddrStr();
    in6_addr bytes = {};
    if (inet_pton(AF_INET6, address.c_str(), &bytes) == 1)
        address.assign(reinterpret_cast<const char*>(bytes.s6_addr), 8);
    return address;
}

// The folder of a file, and the rest of its path.
btkFd openFolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return btkFd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// Takes the scope off a query. True when it is for the records of all machines.
bool takeScope(nmsFields& pattern)
{
    return std::erase_if(pattern.fields, [](const auto& field) {
               return field.first == nmsScopeField && field.second == nmsScopeAll;
           }) > 0;
}

const char* nameOf(const std::string& path)
{
    // Without a slash: npos + 1 is 0.
    return path.c_str() + path.rfind('/') + 1;
}

} // namespace

struct nmsServer::Client
{
    enum State { Asking, Waiting, Answering, Leaving, Gone };

    btkStreamSocket socket;
    std::string address;
    State state = Asking;
    // The result of the last poll.
    short ready = 0;
    btkTimeval since = btkTimeval::Now();

    // Received and not consumed.
    std::string in;
    std::size_t used = 0;
    bool hasFrame = false;
    // Sends something other than a request.
    bool isForeign = false;
    nmsRequestCode code = nmsRequestCode::ping;
    nmsRecordReader reader;

    // While it is waiting for the store: for what, until when, and the result so far.
    std::set<nmsTable::Id> awaited;
    btkTimeval answerBy;
    int status = nmscDone;

    // To be sent next, before `records`.
    std::string out;
    std::size_t sent = 0;
    std::vector<nmsTable::Encoded> records;
    std::size_t nextRecord = 0;

    std::size_t Held() const { return in.size() - used; }
    bool TakesRecord() const
    {
        return code == nmsRequestCode::enter || code == nmsRequestCode::remove ||
               code == nmsRequestCode::query;
    }
};

nmsServer::nmsServer(nmsServerOptions wanted)
    : options(std::move(wanted)), table(options.table), stop(Event_Create(false)), clients(options.waiting),
      asked(std::make_unique<pollfd[]>(fixedPlaces + clients.GetPlaces() + 1))
{
}

nmsServer::~nmsServer()
{
    Event_Free(stop);
}

bool nmsServer::Listen(btkAcceptSocket passed)
{
    if (options.untilSignal) {
        signals = btkAwaitTermination();
        if (!signals)
            return false;
    }
    if (stop < 0)
        return false;
    if (passed.IsOpen())
        door = std::move(passed);
    else if (!door.Listen(options.port, options.listenOn))
        return false;
    areUsersKnown = btkReportsPeerUsers(door.GetHandle());
    if (!areUsersKnown)
        btkLog(btkLevel::warning,
               "name server: the operating system does not report the users of connections: every user of "
               "this machine may register, remove and shut down");
    if (!options.stateFile.empty())
        LoadState();
    if (options.sharing.connect)
        shared = std::make_unique<nmsShared>(table, options.sharing);
    return true;
}

void nmsServer::Stop()
{
    Event_Set(stop);
}

void nmsServer::Run()
{
    isStopping = false;
    PublishIfDue();
    btkTimeval end = btkTimeval::Forever();
    while (!isStopping || (!clients.IsEmpty() && btkTimeval::Now() < end)) {
        const btkTimeval next = std::min(NextLimit(), NextSharedWork());
        if (Sleep(isStopping ? std::min(next, end) : next))
            isStopping = true;
        for (const auto& client : clients)
            if (client->ready != 0)
                Serve(*client);
        DropLate();
        if (!isStopping)
            AcceptClients();
        if (shared != nullptr)
            FinishShared();
        ReportRefusals();
        PublishIfDue();
        if (saveAt <= btkTimeval::Now())
            SaveState();
        if (isStopping && end.IsForever()) {
            end = btkTimeval::Now() + endingLimit;
            door.Close();
        }
        if (isStopping)
            clients.DropIf([](const Client& client) {
                return client.state != Client::Answering && client.state != Client::Waiting;
            });
    }
    clients.Clear();
    if (table.GetVersion() != savedVersion)
        SaveState();
    door.Close();
    Event_Reset(stop);
}

// Waits until there is something to do, at most until `limit`. True when it is time to stop.
bool nmsServer::Sleep(btkTimeval limit)
{
    const btkTimeval now = btkTimeval::Now();
    const bool isDoorOpen = doorClosedUntil <= now;
    if (!isDoorOpen)
        limit = std::min(limit, doorClosedUntil);

    asked[0] = {isStopping ? -1 : stop, POLLIN, 0};
    asked[1] = {isStopping ? -1 : signals.Get(), POLLIN, 0};
    asked[2] = {isDoorOpen ? door.GetHandle() : -1, POLLIN, 0};
    asked[3] = {-1, POLLIN, 0};
    asked[4] = {shared != nullptr ? table.GetExitHandle() : -1, POLLIN, 0};
    if (shared != nullptr)
        asked[3] = {shared->GetHandle(), static_cast<short>(shared->IsBehind() ? POLLIN | POLLOUT : POLLIN),
                    0};
    pollfd* place = &asked[fixedPlaces];
    for (const auto& client : clients)
        *place++ = {client->socket.GetHandle(),
                    static_cast<short>(client->state == Client::Answering ? POLLOUT
                                       : client->state == Client::Waiting ? 0
                                                                          : POLLIN),
                    0};
    const auto count = static_cast<std::size_t>(place - asked.get());
    if (btkPoll(asked.get(), count, limit.IsForever() ? limit : limit - now) < 0)
        return true;
    place = &asked[fixedPlaces];
    for (const auto& client : clients)
        client->ready = place++->revents;
    return asked[0].revents != 0 || asked[1].revents != 0;
}

// The time at which the first client, or the closed door, needs attention.
btkTimeval nmsServer::NextLimit() const
{
    const btkTimeval work = options.publish && isCountChanged ? std::min(saveAt, publishAt) : saveAt;
    return clients.IsEmpty() ? work : std::min(work, clients[0].since + options.requestLimit);
}

btkTimeval nmsServer::NextSharedWork() const
{
    if (shared == nullptr)
        return btkTimeval::Forever();
    btkTimeval next = shared->NextWork();
    for (const auto& client : clients)
        if (client->state == Client::Waiting)
            next = std::min(next, client->answerBy);
    return next;
}

void nmsServer::DropLate()
{
    const btkTimeval now = btkTimeval::Now();
    const std::size_t before = clients.GetCount();
    clients.DropUntil(now - options.requestLimit);
    const std::size_t late = before - clients.GetCount();
    counts.expired += late;
    isCountChanged |= late > 0;
    clients.DropIf([](const Client& client) { return client.state == Client::Gone; });
}

void nmsServer::AcceptClients()
{
    for (std::size_t accepted = 0; accepted < clients.GetPlaces(); ++accepted) {
        const btkTimeval now = btkTimeval::Now();
        if (doorClosedUntil > now)
            return;
        std::unique_ptr<Client> client(new (std::nothrow) Client);
        if (client == nullptr || !door.Accept(&client->socket)) {
            if (client == nullptr || (errno != EAGAIN && errno != ECONNABORTED))
                doorClosedUntil = now + pauseWithoutRoom;
            return;
        }
        ++counts.connections;
        isCountChanged = true;
        // Most requests have arrived already, and their clients are closed before the next sleep.
        Serve(*client);
        if (client->state == Client::Gone)
            continue;
        client->address = client->socket.GetPeerAddrStr();
        clients.Add(std::move(client));
        if (clients.IsOverfull() && clients.TakeLeaving(now) != nullptr)
            ++counts.displaced;
    }
}

void nmsServer::Serve(Client& client)
{
    try {
        if (client.state == Client::Asking)
            Receive(client);
        if (client.state == Client::Answering)
            Send(client);
        char rest[receiveSize];
        // Closing the connection over unread input would lose a response that the client has not read.
        if (client.state == Client::Leaving) {
            const std::ptrdiff_t count = client.socket.TryRecv(rest, sizeof rest);
            if (count == 0 || (count < 0 && errno != EAGAIN))
                client.state = Client::Gone;
        }
    } catch (const std::bad_alloc&) {
        client.state = Client::Gone;
    }
    const bool isBroken = (client.ready & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    if (isBroken && client.state != Client::Asking)
        client.state = Client::Gone;
    if (client.state == Client::Gone)
        client.socket.Close();
}

void nmsServer::Receive(Client& client)
{
    if (client.used > 0) {
        client.in.erase(0, client.used);
        client.used = 0;
    }
    const std::size_t before = client.in.size();
    client.in.resize(before + receiveSize);
    const std::ptrdiff_t count = client.socket.TryRecv(client.in.data() + before, receiveSize);
    const bool isNothing = count < 0 && errno == EAGAIN;
    client.in.resize(before + static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
    if (count <= 0 && !isNothing)
        client.state = Client::Gone;
    else if (count > 0 && Parse(client))
        Answer(client);
}

// True when the request is complete, or can never be.
bool nmsServer::Parse(Client& client)
{
    if (!client.hasFrame) {
        if (client.Held() < nmsFrameSize)
            return false;
        client.hasFrame = true;
        client.isForeign = nmsGetInt(client.in.data()) != nmsFrameNumber;
        client.code = static_cast<nmsRequestCode>(client.in[nmsIntSize]);
        client.used = nmsFrameSize;
    }
    if (client.isForeign || !client.TakesRecord())
        return true;
    std::size_t wanted = 0;
    while ((wanted = client.reader.GetWanted()) > 0) {
        if (client.Held() < wanted)
            return false;
        client.reader.Take(client.in.data() + client.used);
        client.used += wanted;
    }
    return true;
}

nmsRights nmsServer::RightsOf(const btkStreamSocket& client) const
{
    if (!client.IsPeerOnTheSameMachine())
        return {.isAll = false};
    if (!areUsersKnown)
        return {};
    const std::optional<btkUserId> user = btkGetPeerUser(client.GetHandle());
    return {user == btkSuperuser || user == btkGetOwnUser(), user};
}

void nmsServer::Answer(Client& client)
{
    const auto isLocal = [&] { return client.socket.IsPeerOnTheSameMachine(); };
    nmsFields& record = client.reader.record;
    const bool isWhole = client.reader.IsWhole();
    int status = nmscDone;
    std::string rest;
    if (client.isForeign) {
        status = nmscNotRecognized;
    } else
        switch (client.code) {
        case nmsRequestCode::ping:
            break;
        case nmsRequestCode::enter:
            status = !isWhole                          ? nmscInternal
                     : record.owner != 0 && !isLocal() ? nmscNotAllowed
                                                       : Enter(client);
            break;
        case nmsRequestCode::remove: {
            std::size_t kept = 0;
            const std::size_t count = isWhole ? Remove(client, kept) : 0;
            status = !isWhole    ? nmscInternal
                     : count > 0 ? nmscDone
                     : kept > 0  ? nmscNotAllowed
                                 : nmscNotFound;
            nmsPutInt(rest, static_cast<int>(count));
            break;
        }
        case nmsRequestCode::query:
            if (!isWhole) {
                status = nmscInternal;
                break;
            }
            client.records =
                takeScope(record) && shared != nullptr ? shared->Find(record) : table.Find(record);
            nmsPutInt(rest, static_cast<int>(client.records.size()));
            break;
        case nmsRequestCode::shutdown:
            if (RightsOf(client.socket).isAll)
                isStopping = true;
            else
                status = nmscNotAllowed;
            break;
        case nmsRequestCode::version:
            nmsPutRecord(rest, Describe());
            break;
        default:
            status = nmscNotRecognized;
        }
    if (stateFolder && table.GetVersion() != savedVersion && saveAt.IsForever())
        saveAt = btkTimeval::Now() + saveDelay;
    client.out = rest;
    if (client.awaited.empty())
        return Finish(client, status);
    client.state = Client::Waiting;
    client.answerBy =
        std::min(btkTimeval::Now() + storeLimit, client.since + options.requestLimit - pauseWithoutRoom);
}

void nmsServer::Finish(Client& client, int status)
{
    Count(client, status);
    if (btkTraces(btkTraceArea::names, btkLevel::info))
        btkTrace(btkTraceArea::names, btkLevel::info, "request %u of %s: status %d, %zu records",
                 static_cast<unsigned>(client.code), client.socket.GetPeerAddrStr().c_str(), status,
                 client.records.size());
    client.out.insert(0, 1, static_cast<char>(status));
    client.state = Client::Answering;
}

int nmsServer::Enter(Client& client)
{
    const nmsRights rights = RightsOf(client.socket);
    nmsTable::Id added = 0;
    const int status = table.Add(std::move(client.reader.record), holderOf(client.socket, rights), rights,
                                 shared != nullptr ? nmsTable::Hidden : nmsTable::Shown, added);
    if (shared != nullptr && status == nmscDone) {
        shared->Enter(added);
        client.awaited.insert(added);
    }
    return status;
}

std::size_t nmsServer::Remove(Client& client, std::size_t& kept)
{
    std::vector<nmsTable::Id> removed;
    const std::size_t count = table.Remove(client.reader.record, RightsOf(client.socket), &kept, &removed);
    if (shared != nullptr)
        client.awaited.insert(removed.begin(), removed.end());
    return count;
}

// Lets the shared records proceed, and answers the clients whose requests the store has carried out, or has not
// in time.
void nmsServer::FinishShared()
{
    shared->Work(asked[3].revents != 0);
    asked[3].revents = 0;
    std::vector<nmsShared::Result> results = shared->TakeResults();
    const btkTimeval now = btkTimeval::Now();
    for (const auto& client : clients) {
        if (client->state != Client::Waiting)
            continue;
        for (const auto& [id, status] : results)
            if (client->awaited.erase(id) > 0 && status != nmscDone)
                client->status = status;
        if (!client->awaited.empty() && now < client->answerBy)
            continue;
        if (!client->awaited.empty()) {
            client->status = nmscInternal;
            // A record that was not entered in time is withdrawn.
            for (const nmsTable::Id id : client->awaited)
                table.RemoveOne(id);
        }
        Finish(*client, client->status);
        Serve(*client);
    }
    if (table.GetVersion() != savedVersion && stateFolder && saveAt.IsForever())
        saveAt = now + saveDelay;
    clients.DropIf([](const Client& client) { return client.state == Client::Gone; });
}

void nmsServer::Send(Client& client)
{
    for (int sends = 0;; ++sends) {
        // Encodes only as much as is sent at once; the records themselves are shared.
        if (client.sent == client.out.size()) {
            client.out.clear();
            client.sent = 0;
        }
        while (client.out.size() < sendSize && client.nextRecord < client.records.size())
            client.out += *client.records[client.nextRecord++];
        if (client.out.empty())
            break;
        if (sends == sendsInTurn)
            return;
        const std::ptrdiff_t count = btkRetry([&client] {
            return send(client.socket.GetHandle(), client.out.data() + client.sent,
                        client.out.size() - client.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        });
        if (count < 0) {
            if (errno != EAGAIN)
                client.state = Client::Gone;
            return;
        }
        client.sent += static_cast<std::size_t>(count);
    }
    const bool isAllRead = client.Held() == 0 && client.socket.CountReadable() == 0;
    client.state = isAllRead ? Client::Gone : Client::Leaving;
    if (!isAllRead)
        client.socket.ShutdownOutput();
}

void nmsServer::Count(const Client& client, int status)
{
    if (status == nmscNotRecognized)
        ++counts.others;
    else
        ++counts.requests[static_cast<std::size_t>(client.code)];
    if (status == nmscNotAllowed || status == nmscInternal)
        ++counts.refused;
    isCountChanged = true;
}

void nmsServer::PublishIfDue()
{
    if (!options.publish || !isCountChanged)
        return;
    const btkTimeval now = btkTimeval::Now();
    if (now < publishAt)
        return;
    publishAt = now + publishInterval;
    isCountChanged = false;
    options.publish(counts, table.GetUse());
}

// The fields of the version record.
nmsFields nmsServer::Describe() const
{
    const nmsTableUse use = table.GetUse();
    const nmsTableLimits& most = table.GetLimits();
    nmsFields about;
    about.Set("Version", options.version);
    about.Set("Records", std::to_string(use.records));
    about.Set("MaxRecords", std::to_string(most.records));
    about.Set("RecordsOfNoProcess", std::to_string(use.recordsWithoutOwner));
    about.Set("MaxRecordsOfNoProcess", std::to_string(nmsTable::ShareWithoutOwner(most.records)));
    about.Set("Bytes", std::to_string(use.bytes));
    about.Set("MaxBytes", std::to_string(most.bytes));
    about.Set("Refused", std::to_string(use.refused));
    if (use.lastRefusal != nullptr)
        about.Set("LastRefusal", use.lastRefusal);
    if (shared != nullptr)
        shared->Describe(about);
    return about;
}

void nmsServer::ReportRefusals()
{
    const nmsTableUse use = table.GetUse();
    const btkTimeval now = btkTimeval::Now();
    if (use.refused == reportedRefusals || now < nextReport)
        return;
    btkLog(btkLevel::warning, "name server: full: " + std::string(use.lastRefusal) + "; " +
                                  std::to_string(use.refused) + " refused since the start");
    reportedRefusals = use.refused;
    nextReport = now + reportInterval;
}

// ---- the state file

void nmsServer::LoadState()
{
    stateFolder = openFolderOf(options.stateFile);
    if (!stateFolder) {
        std::fprintf(stderr, "name server: cannot keep the records in %s: %s\n", options.stateFile.c_str(),
                     std::strerror(errno));
        return;
    }
    const btkFd file = btkOpenFile(options.stateFile.c_str(), btkOpenRead);
    std::string saved;
    // A file larger than a table within the limits is not a state file.
    for (const std::size_t most = 2 * options.table.bytes + receiveSize; file && saved.size() < most;) {
        const std::size_t before = saved.size();
        saved.resize(before + sendSize);
        const std::ptrdiff_t count = btkRead(file.Get(), saved.data() + before, sendSize);
        saved.resize(before + static_cast<std::size_t>(std::max<std::ptrdiff_t>(count, 0)));
        if (count <= 0)
            break;
    }
    if (file && !table.Restore(saved))
        std::fprintf(stderr, "name server: %s is damaged: restored %zu records\n", options.stateFile.c_str(),
                     table.GetSize());
    savedVersion = table.GetVersion();
}

void nmsServer::SaveState()
{
    saveAt = btkTimeval::Forever();
    if (!stateFolder)
        return;
    savedVersion = table.GetVersion();
    try {
        const std::string saved = table.Save();
        btkReplacement file;
        // It need not outlive the machine's run.
        if (file.Create(stateFolder.Get()) && file.Write(saved.data(), saved.size()) &&
            file.TakePlace(nameOf(options.stateFile), btkReplacement::Unsynced))
            return;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    if (!isStateReported)
        std::fprintf(stderr, "name server: cannot write %s: %s\n", options.stateFile.c_str(),
                     std::strerror(errno));
    isStateReported = true;
}
