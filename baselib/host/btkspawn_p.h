#pragma once

#include <spawn.h>

/// How a program starts: no signal blocked, each handled as by default.
class btkSpawnAttributes
{
public:
    btkSpawnAttributes();
    ~btkSpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    btkSpawnAttributes(const btkSpawnAttributes&) = delete;
    btkSpawnAttributes& operator=(const btkSpawnAttributes&) = delete;

    /// The program leads a process group of its own.
    void LeadGroup();
    const posix_spawnattr_t* Get() const { return &attributes; }

private:
    posix_spawnattr_t attributes;
};
