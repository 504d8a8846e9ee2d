#pragma once

#include <cstddef>

#include <qel/base/baseexport.h>

/// Allocates memory for framework objects. The memory is freed with ordinary deletion, so an implementation
/// uses the global allocation functions.
class BASE_API btkMemMgr
{
public:
    /// Returns at least `size` bytes, aligned for any type.
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

/// Returns a copy of `text`, exactly as large as the text with its terminator. The caller frees it with
/// `delete[]`.
/// @throws std::bad_alloc  no memory
BASE_API char* btkStrDup(const char* text);

/// Reallocates `block`, which is null or a block of the C runtime as the result is, to `size` bytes, not 0,
/// and preserves its first `kept` bytes. Null: no memory, and `block` is unchanged.
BASE_API void* btkResizeBlock(void* block, std::size_t kept, std::size_t size);

/// Advises the operating system that the `size` bytes at `block` will be written soon. Blocks of some
/// megabytes then use huge pages, which are much faster to fault in and to address. Affects speed only.
BASE_API void btkExpectUse(void* block, std::size_t size);
