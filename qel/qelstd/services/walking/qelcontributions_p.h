#pragma once

#include <unordered_set>
#include <vector>

#include "xrtti.h"

/// Returns the classes whose attributes and elements make up an object of the class `type`: its bases, each
/// once and the most basic one first, and the class itself.
inline std::vector<xrttiobject*> qelContributions(xrttiobject* type)
{
    struct Step
    {
        xrttiobject* type;
        int nextParent;
    };
    std::vector<xrttiobject*> contributions;
    std::vector<Step> open{{type, 0}};
    std::unordered_set<xrttiobject*> seen;
    while (!open.empty()) {
        Step& step = open.back();
        if (step.nextParent < step.type->getNParents()) {
            xrttiobject* const parent = step.type->getParent(step.nextParent++);
            if (parent != nullptr && seen.insert(parent).second)
                open.push_back({parent, 0});
        } else {
            contributions.push_back(step.type);
            open.pop_back();
        }
    }
    return contributions;
}
