#pragma once

#include <mutex>

#include <qel/base/thrthreading.h>

/// A recursive mutex: its owner may lock it again, and unlocks it as often.
class BASE_API thrMutex
{
public:
    thrMutex() = default;
    thrMutex(const thrMutex&) = delete;
    thrMutex& operator=(const thrMutex&) = delete;

    /// Waits until the calling thread owns the mutex. Does nothing while the mutex is disabled.
    void Lock();
    void Unlock();

    /// A disabled mutex lets everybody through. Changed only while no thread holds it.
    void Enable(bool enabled) { isEnabled = enabled; }

private:
    std::recursive_mutex mutex;
    bool isEnabled = true;
};

/// Holds a mutex for the life of a block.
class thrLock
{
public:
    explicit thrLock(thrMutex& held) : mutex(held) { mutex.Lock(); }
    ~thrLock() { mutex.Unlock(); }
    thrLock(const thrLock&) = delete;
    thrLock& operator=(const thrLock&) = delete;

private:
    thrMutex& mutex;
};

/// The mutex for process-wide state of the libraries that has none of its own. Lives as long as the process.
BASE_API thrMutex& thrLibraryMutex();
