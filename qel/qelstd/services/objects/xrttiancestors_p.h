#pragma once

#include <algorithm>
#include <unordered_set>

#include "xrtti.h"

/// Depth-first search: calls `ask` for a type and its ancestors until one call returns more than 0 or
/// non-null. A base that can be reached in several ways, possibly very many, is visited once. After each
/// result of 0 or null, `goesOn()` decides whether the type's own bases are visited.
template<class Ask, class GoesOn = decltype([] { return true; })>
class xrttiancestors
{
public:
    explicit xrttiancestors(Ask a, GoesOn g = {}) : ask(a), goesOn(g) {}

    auto answer(xrttiobject* type) -> decltype(std::declval<Ask>()(type))
    {
        if (auto found = ask(type))
            return found;
        if (!goesOn())
            return {};
        const int count = type->getNParents();
        for (int i = 0; i < count; ++i) {
            xrttiobject* const parent = type->getParent(i);
            if (!isNew(parent))
                continue;
            if (auto found = answer(parent))
                return found;
        }
        return {};
    }

private:
    bool isNew(const xrttiobject* type)
    {
        if (std::find(few, few + used, type) != few + used)
            return false;
        if (used == most)
            return more.insert(type).second;
        few[used++] = type;
        return true;
    }

    static constexpr int most = 16;

    Ask ask;
    GoesOn goesOn;
    int used = 0;
    const xrttiobject* few[most];
    std::unordered_set<const xrttiobject*> more;
};
