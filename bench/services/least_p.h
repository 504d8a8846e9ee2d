#pragma once

/// Only what the release of an object's last reference cannot do without: its class may override whether it may be
/// deleted, what is done before, and the destruction.
class LeastObject
{
public:
    LeastObject() = default;
    LeastObject(const LeastObject&) = delete;
    LeastObject& operator=(const LeastObject&) = delete;
    virtual ~LeastObject() = default;
    virtual bool isDeletable() { return true; }
    virtual void onDelete() {}

    int count = 1;
};
