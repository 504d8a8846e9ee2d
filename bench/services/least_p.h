#pragma once

/// Only what the release of an object's last reference cannot do without: its class may override the release, whether
/// the object may be deleted, what is done before, and the destruction; the root of the classes is a virtual base; and
/// a chain of objects that release each other must not grow the stack, so that its length is counted.
class LeastRoot
{
public:
    LeastRoot() = default;
    LeastRoot(const LeastRoot&) = delete;
    LeastRoot& operator=(const LeastRoot&) = delete;
    virtual ~LeastRoot() = default;
    virtual bool isDeletable() { return true; }
    virtual void onDelete() {}
    virtual void release()
    {
        if (count == 1 && isDeletable()) {
            ++depth;
            onDelete();
            delete this;
            --depth;
        }
    }

    int count = 1;
    static inline constinit thread_local int depth = 0;
};

class LeastObject : public virtual LeastRoot
{
};
