// A server that is found by its name and pushes each line to all who joined, and two clients: chat NAME
#include <algorithm>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <qel/netaddress.h>
#include <qel/netserver.h>
#include <qel/qelcpp.h>
#include <qel/qelloop.h>
#include <qel/qelserver.h>

namespace {

struct Room
{
    std::mutex lock;
    std::vector<xstring> said;
    std::vector<qel::event*> members; // each is set when there are new lines
};

/// Serves a member until the client leaves or the server stops.
void serve(Room& room, netSocketStream& client, evtEvent& stop)
{
    qel::event news;
    const auto leave = [&](qel::event* me) {
        const std::lock_guard guard(room.lock);
        std::erase(room.members, me);
    };
    const std::unique_ptr<qel::event, decltype(leave)> membership(&news, leave);
    std::unique_lock entering(room.lock);
    room.members.push_back(&news);
    std::size_t sent = room.said.size();
    entering.unlock();
    const auto input = qel::own(client.InputEvent());
    for (evtEvent* on = nullptr; on != &stop; on = qel::waitAny({&stop, input.get(), &news})) {
        const ioTryCode state = on == input.get() ? client.TryReadString(nullptr) : ioWouldBlock;
        if (state == ioEndOfFile)
            return;
        const xstring line = state == ioSuccess ? client.ReadString(nullptr) : xstring();
        std::vector<xstring> lines;
        {
            const std::lock_guard guard(room.lock);
            if (!line.isNull()) {
                room.said.push_back(line);
                std::ranges::for_each(room.members, &qel::event::set);
            }
            news.reset();
            lines.assign(room.said.begin() + static_cast<std::ptrdiff_t>(sent), room.said.end());
            sent = room.said.size();
        }
        for (const xstring& next : lines)
            client.WriteString(next);
        client.Flush(true);
    }
}

} // namespace

int main(int, char** argv)
{
    Room room;
    const auto server = qel::own(netServer::Create(argv[1], 0, "127.0.0.1"));
    server->setOnRequest(qel::onRequest([](netSocketStream&) { return netSpawnAsyncServer; }));
    server->setOnAsyncRequest(
        qel::onAsyncRequest([&](auto& client, auto& stop) { serve(room, client, stop); }));
    const std::jthread loop([&] { server->Run(); });

    const xrchandle<netAddress> address(netAddress::Create(argv[1], nullptr));
    const auto ada = qel::own(netServer::Connect(address.get(), 10));
    const auto bob = qel::own(netServer::Connect(address.get(), 10));
    for (netSocketStream* const who : {ada.get(), bob.get()}) {
        who->WriteString(who == ada.get() ? "Ada: hello" : "Bob: hello, Ada");
        who->Flush(true);
        std::cout << "Ada reads " << ada->ReadString(nullptr) << std::endl;
    }
    server->Stop();
}
