#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

/// A map from C strings, kept by pointer, to pointers: a sorted array with binary search. Null keys are never
/// found.
template<class V>
class xrttimap
{
public:
    void set(const char* key, V* data)
    {
        if (key == nullptr)
            return;
        const auto place = lowerBound(key);
        if (place != entries.end() && std::strcmp(place->key, key) == 0)
            *place = {key, data}; // the key too: the old one belongs to what was replaced
        else
            entries.insert(place, {key, data});
    }

    V* get(const char* key)
    {
        if (key == nullptr)
            return nullptr;
        const auto place = lowerBound(key);
        return place != entries.end() && std::strcmp(place->key, key) == 0 ? place->data : nullptr;
    }

    template<class F>
    void forEach(F visit) const
    {
        for (const Entry& entry : entries)
            visit(entry.data);
    }

private:
    struct Entry
    {
        const char* key;
        V* data;
    };

    typename std::vector<Entry>::iterator lowerBound(const char* key)
    {
        return std::lower_bound(entries.begin(), entries.end(), key, [](const Entry& entry, const char* k) {
            return std::strcmp(entry.key, k) < 0;
        });
    }

    std::vector<Entry> entries;
};

struct xrttiuserdata : xrttimap<void>
{
};
