#pragma once

#include <cstddef>

#include <qel/base/baseexport.h>

/// Gives out memory for framework objects. What it gives is freed with ordinary deletion, so an
/// implementation takes its memory from the global allocation functions.
class BASE_API btkMemMgr
{
public:
    /// At least `size` bytes, aligned for any type.
    /// @throws std::bad_alloc  no memory
    virtual void* Allocate(std::size_t size);

protected:
    ~btkMemMgr() = default;
};

/// The default memory manager. Never null, usable during static initialization.
extern BASE_API btkMemMgr* const pDefMemMgr;

/// Places an object in memory of `manager`: `new (pDefMemMgr) T(...)`. The object is freed with ordinary
/// `delete`.
[[nodiscard]] inline void* operator new(std::size_t size, btkMemMgr* manager)
{
    return manager == pDefMemMgr ? ::operator new(size) : manager->Allocate(size);
}

/// Called when the constructor of an object placed with the operator above throws.
inline void operator delete(void* memory, btkMemMgr*) noexcept
{
    ::operator delete(memory);
}

/// A copy of `text`, of the size of the text with its terminator. The caller frees it with `delete[]`.
/// @throws std::bad_alloc  no memory
BASE_API char* btkStrDup(const char* text);

/// A block of `size` bytes, not 0, in the place of `block`, which is null or a block of the C runtime as the
/// result is: its first `kept` bytes go along. Null: no memory, and `block` is as it was.
BASE_API void* btkResizeBlock(void* block, std::size_t kept, std::size_t size);

/// Tells the host that the `size` bytes at `block` will be written soon. Blocks of some megabytes then come
/// in large pages, which take far less time to get and to find again. Nothing but speed depends on it.
BASE_API void btkExpectUse(void* block, std::size_t size);
