#pragma once

#include <atomic>
#include <cstring>
#include <memory>

#include <qel/base/btkmemory.h>
#include <qel/base/thrmutex.h>

struct qelNamed;
class xrtti;

// Lock-free reads during insertion: nodes are complete before they are linked, and are never removed. A
// writer holds the registry's lock.

thrMutex& qelRttiMutex();

/// One piece of user data of a descriptor. Keys are kept by pointer.
struct xrttiuserdata
{
    const char* const key;
    std::atomic<void*> data;
    xrttiuserdata* const next;
};

/// A name under which a descriptor is registered.
struct xrttientry
{
    /// The facts of a qelRegister about a type of that name. More than one exists only by mistake.
    struct Fact
    {
        const qelNamed& named;
        Fact* const next;
    };

    const std::unique_ptr<const char[]> name;
    std::atomic<xrtti*> type = nullptr;
    std::atomic<Fact*> facts = nullptr;
    xrttientry* const next;
};

/// The registry: a hash table with a fixed number of lists (separate chaining).
class xrttimap
{
public:
    xrttientry* find(const char* name) const
    {
        xrttientry* at = list(name).load(std::memory_order_acquire);
        while (at != nullptr && std::strcmp(at->name.get(), name) != 0)
            at = at->next;
        return at;
    }

    xrttientry& findOrAdd(const char* name)
    {
        if (xrttientry* const known = find(name))
            return *known;
        std::unique_ptr<const char[]> copy(btkStrDup(name));
        std::atomic<xrttientry*>& head = list(name);
        auto* const entry = new xrttientry{.name = std::move(copy), .next = head};
        head.store(entry, std::memory_order_release);
        return *entry;
    }

    template<class F>
    void forEach(F visit) const
    {
        for (const std::atomic<xrttientry*>& head : heads)
            for (xrttientry* at = head.load(std::memory_order_acquire); at != nullptr; at = at->next)
                visit(*at);
    }

private:
    static constexpr unsigned size = 1024;

    std::atomic<xrttientry*>& list(const char* name) const
    {
        unsigned hash = 2166136261u; // FNV-1a, 32 bits
        while (*name != '\0')
            hash = (hash ^ static_cast<unsigned char>(*name++)) * 16777619u;
        return heads[(hash ^ (hash >> 16)) % size];
    }

    mutable std::atomic<xrttientry*> heads[size] = {};
};
