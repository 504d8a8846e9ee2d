#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <qel/base/btktimeval.h>

/// Connected peers whose request is not complete yet, the oldest first, limited to a number of places. One
/// peer too many evicts another: the oldest of the address with the most places, but none younger than 100 ms
/// while another address has an older one. So a peer that connects repeatedly takes places of its own address
/// only, and every peer has time for a first byte.
///
/// `Peer` has the members `std::string address` and `btkTimeval since`, the time of its arrival. Used by one
/// thread at a time.
template<class Peer>
class netSilentSet
{
public:
    using Peers = std::vector<std::unique_ptr<Peer>>;

    /// Allocates memory for all `most` places, at least 1, and one more peer.
    explicit netSilentSet(std::size_t most) { SetPlaces(most); }

    void SetPlaces(std::size_t most)
    {
        places = std::max<std::size_t>(most, 1);
        peers.reserve(places + 1);
        byAddress.reserve(places + 1);
    }
    std::size_t GetPlaces() const { return places; }

    bool IsEmpty() const { return peers.empty(); }
    std::size_t GetCount() const { return peers.size(); }
    bool IsOverfull() const { return peers.size() > places; }
    Peer& operator[](std::size_t i) const { return *peers[i]; }
    typename Peers::const_iterator begin() const { return peers.begin(); }
    typename Peers::const_iterator end() const { return peers.end(); }

    /// May exceed the places by one, so that a peer whose request arrives at once evicts no other: see
    /// IsOverfull.
    void Add(std::unique_ptr<Peer> peer) { peers.push_back(std::move(peer)); }
    /// Removes and returns the oldest peer for which `is(peer)` holds; null if there is none.
    template<class Is>
    std::unique_ptr<Peer> Take(Is is)
    {
        const auto found =
            std::find_if(peers.begin(), peers.end(), [&](const auto& peer) { return is(*peer); });
        return found == peers.end() ? nullptr : TakeAt(found);
    }
    /// Removes and returns the peer to evict; null if there is none.
    std::unique_ptr<Peer> TakeLeaving(btkTimeval now);
    /// Drops all peers for which `is(peer)` holds.
    template<class Is>
    void DropIf(Is is)
    {
        std::erase_if(peers, [&](const auto& peer) { return is(*peer); });
    }
    /// Drops the peers that arrived at `latest` or before.
    void DropUntil(btkTimeval latest)
    {
        const auto isLater = [&](const auto& peer) { return latest < peer->since; };
        peers.erase(peers.begin(), std::find_if(peers.begin(), peers.end(), isLater));
    }
    void Clear() { peers.clear(); }

private:
    std::unique_ptr<Peer> TakeAt(typename Peers::iterator place)
    {
        std::unique_ptr<Peer> taken = std::move(*place);
        peers.erase(place);
        return taken;
    }

    std::size_t places = 0;
    Peers peers;
    std::vector<std::size_t> byAddress; // indices of `peers`; memory for TakeLeaving
};

template<class Peer>
std::unique_ptr<Peer> netSilentSet<Peer>::TakeLeaving(btkTimeval now)
{
    constexpr btkTimeval youth(0, 100000);
    if (peers.empty())
        return nullptr;
    byAddress.clear();
    for (std::size_t i = 0; i < peers.size(); ++i)
        byAddress.push_back(i);
    std::sort(byAddress.begin(), byAddress.end(), [this](std::size_t one, std::size_t other) {
        const int order = peers[one]->address.compare(peers[other]->address);
        return order != 0 ? order < 0 : one < other;
    });

    std::size_t leaving = 0;
    std::size_t most = 0;
    for (auto first = byAddress.begin(); first != byAddress.end();) {
        const auto last = std::find_if(first, byAddress.end(), [&](std::size_t i) {
            return peers[i]->address != peers[*first]->address;
        });
        const auto held = static_cast<std::size_t>(last - first);
        if (held > most || (held == most && *first < leaving)) {
            most = held;
            leaving = *first;
        }
        first = last;
    }
    const auto isYoung = [&](std::size_t i) { return now < peers[i]->since + youth; };
    if (isYoung(leaving) && !isYoung(0))
        leaving = 0;
    return TakeAt(peers.begin() + static_cast<std::ptrdiff_t>(leaving));
}
