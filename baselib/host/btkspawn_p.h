#pragma once

#include <spawn.h>

/// Start attributes of a program: no signal blocked, each handled as by default.
class btkSpawnAttributes
{
public:
    btkSpawnAttributes();
    ~btkSpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    btkSpawnAttributes(const btkSpawnAttributes&) = delete;
    btkSpawnAttributes& operator=(const btkSpawnAttributes&) = delete;

    /// Makes the program lead its own process group.
    void LeadGroup();
    const posix_spawnattr_t* Get() const { return &attributes; }

private:
    posix_spawnattr_t attributes;
};
