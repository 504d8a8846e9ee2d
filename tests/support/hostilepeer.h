#pragma once

#include <atomic>
#include <list>
#include <string>
#include <thread>

#include <qel/base/btksocket.h>

#include "support/environment.h"

/// A server on the loopback that sends each client the bytes `atOnce`, and after that either nothing or, when
/// it `drips`, a zero byte about every 20 ms. It reads nothing and closes nothing. During its lifetime it is
/// the name server of the clients of this process and its children.
class HostilePeer
{
public:
    enum Manner { Silent, Drips };

    explicit HostilePeer(std::string atOnce = {}, Manner manner = Silent)
        : listens(door.Listen(0, "127.0.0.1")), setting("VRXNMSPORT", std::to_string(port()).c_str()),
          loop([this, atOnce = std::move(atOnce), manner] { serve(atOnce, manner); })
    {
    }
    HostilePeer(const HostilePeer&) = delete;
    HostilePeer& operator=(const HostilePeer&) = delete;
    ~HostilePeer()
    {
        ends = true;
        loop.join();
    }

    int port() const { return door.GetPortN(); }

private:
    void serve(const std::string& atOnce, Manner manner)
    {
        std::list<btkStreamSocket> clients;
        while (listens && !ends) {
            door.Wait(btkTimeval(0, 20000), 1);
            if (manner == Drips)
                for (btkStreamSocket& client : clients) {
                    client.SetSendLimit({});
                    client.Send("", 1);
                }
            btkStreamSocket& accepted = clients.emplace_back();
            if (door.Accept(&accepted))
                accepted.Send(atOnce.data(), atOnce.size());
            else
                clients.pop_back();
        }
    }

    btkAcceptSocket door;
    bool listens;
    EnvSetting setting;
    std::atomic<bool> ends = false;
    std::thread loop;
};
