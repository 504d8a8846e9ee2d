#include "xerrhandler.h"

#include <algorithm>
#include <functional>
#include <vector>

namespace {

constexpr std::size_t capacityStep = 64;

using ListenerSet = std::vector<xerrlistener*>; // in the order of addresses, each once

/// Created with the first listener and never destroyed: listeners may outlive every static.
ListenerSet* theListeners = nullptr;

ListenerSet::iterator placeOf(xerrlistener* l)
{
    return std::lower_bound(theListeners->begin(), theListeners->end(), l, std::less<>());
}

bool isListening(xerrlistener* l)
{
    const auto place = placeOf(l);
    return place != theListeners->end() && *place == l;
}

} // namespace

xerrlistener::~xerrlistener()
{
    xerrhandler::removelistener(this);
}

void xerrhandler::addlistener(xerrlistener* l)
{
    if (l == nullptr)
        return;
    if (theListeners == nullptr)
        theListeners = new ListenerSet;
    if (isListening(l))
        return;
    if (theListeners->size() == theListeners->capacity())
        theListeners->reserve((theListeners->size() / capacityStep + 1) * capacityStep);
    theListeners->insert(placeOf(l), l);
}

void xerrhandler::removelistener(xerrlistener* l)
{
    if (theListeners != nullptr && isListening(l))
        theListeners->erase(placeOf(l));
}

xerhstatus xerrhandler::dispatch(const char* text, xrcunihandle<xthrowable> error,
                                 xrcunihandle<xobject> subject, xrcunihandle<xobject> context)
{
    if (theListeners == nullptr)
        return 0;
    const ListenerSet asked = *theListeners;
    for (xerrlistener* const l : asked) {
        if (!isListening(l)) // removed meanwhile, and perhaps destroyed
            continue;
        if (const xerhstatus status = l->onError(text, error, subject, context); status != 0)
            return status;
    }
    return 0;
}

int xerrhandler::getcapacity()
{
    return theListeners == nullptr ? 0 : static_cast<int>(theListeners->capacity());
}
