#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qel/qelbdict.h>

/// A literal model of the published rule of dictionary slots, for comparison with the dictionaries. Keys are
/// numbers; the model looks up their texts.
class DictModel
{
public:
    static constexpr int unused = -1, removed = -2;

    struct Slot
    {
        int key = unused;
        int value = 0;
    };

    explicit DictModel(const std::vector<std::string>& names, xdictcontrol control = {}) : loads(control)
    {
        for (const std::string& name : names)
            homes.push_back(homeOf(name));
    }

    std::vector<Slot> slots;
    unsigned count = 0;

    int find(int key) const
    {
        for (std::uint32_t i = 0; i < slots.size(); ++i) {
            const std::uint32_t at = probe(key, i);
            if (slots[at].key == unused)
                return -1;
            if (slots[at].key == key)
                return static_cast<int>(at);
        }
        return -1;
    }
    void set(int key, int value)
    {
        const int at = find(key);
        if (at >= 0) {
            slots[static_cast<std::size_t>(at)].value = value;
        } else {
            adjust();
            add(key, value);
        }
    }
    void remove(int key)
    {
        const int at = find(key);
        if (at < 0)
            return;
        slots[static_cast<std::size_t>(at)] = {removed, 0};
        --count;
        adjust();
    }

private:
    struct Home
    {
        std::uint32_t start, step;
    };

    static Home homeOf(const std::string& text)
    {
        const std::size_t n = text.size();
        const auto k = [&](std::size_t i) { return std::uint32_t(static_cast<signed char>(text[i])); };
        if (n == 0)
            return {0, 1};
        return {k(n / 2) * k(n - 1) * k(0), 2 * (n < 3 ? k(0) : k(n / 2 + 1) ^ k(n - 2) ^ k(1)) + 1};
    }
    std::uint32_t probe(int key, std::uint32_t i) const
    {
        const Home& home = homes[static_cast<std::size_t>(key)];
        return (home.step * i + home.start) % static_cast<std::uint32_t>(slots.size());
    }
    void add(int key, int value)
    {
        for (std::uint32_t i = 0; i < slots.size(); ++i) {
            Slot& slot = slots[probe(key, i)];
            if (slot.key < 0) {
                slot = {key, value};
                ++count;
                return;
            }
        }
    }
    void adjust()
    {
        std::size_t size = slots.size();
        if (size == 0)
            size = 32;
        else if (count * 100 / size > loads.maxLoad)
            size *= 2;
        else if (size <= 32 || count * 100 / (size / 2) >= loads.minLoad)
            return;
        else
            size /= 2;
        const std::vector<Slot> old = std::move(slots);
        slots.assign(size, {});
        count = 0;
        for (const Slot& slot : old)
            if (slot.key >= 0)
                add(slot.key, slot.value);
    }

    const xdictcontrol loads;
    std::vector<Home> homes;
};
