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

    /// A disabled mutex never blocks. Changed only while no thread holds it.
    void Enable(bool enabled) { isEnabled = enabled; }

private:
    std::recursive_mutex mutex;
    bool isEnabled = true;
};

/// Scope guard that holds a mutex.
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

/// The mutex for process-wide state of the libraries that has no other mutex. Never destroyed.
BASE_API thrMutex& thrLibraryMutex();
