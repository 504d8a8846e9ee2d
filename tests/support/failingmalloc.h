#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

// Allocations that fail on demand. Include it in the only source of a test program: it replaces the
// allocation functions of the whole process.

namespace failing {

/// Allocations until one fails; negative: none fails. `forEver`: whether all later ones fail, too.
inline long countdown = -1;
inline bool forEver = false;
inline bool reached = false; // since the last Failing began
inline long seen = 0;        // allocations since then, except while it was stopped
/// Allocations that have not been freed.
inline long live = 0;

inline bool fails()
{
    if (countdown < 0)
        return false;
    ++seen;
    if (countdown > 0) {
        --countdown;
        return false;
    }
    if (!forEver)
        countdown = -1;
    reached = true;
    return true;
}

/// Makes the allocation fail that follows `after` others during its lifetime.
class Failing
{
public:
    Failing(long after, bool ever)
    {
        forEver = ever;
        reached = false;
        seen = 0;
        countdown = after;
    }
    ~Failing() { stop(); }
    /// Whether the failing allocation was reached.
    static bool happened() { return reached; }
    static void stop() { countdown = -1; }
};

} // namespace failing

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

// The sanitizers replace malloc: with them only operator new fails, and they do the counting.
namespace failing {
constexpr bool ofMalloc = false;
}

[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (failing::fails())
        throw std::bad_alloc();
    if (void* const p = std::malloc(size))
        return p;
    throw std::bad_alloc();
}

[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return failing::fails() ? nullptr : std::malloc(size);
}

[[gnu::noinline]] void operator delete(void* p) noexcept
{
    std::free(p);
}

[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

#else

namespace failing {
constexpr bool ofMalloc = true;
}

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* p, std::size_t size);
void __libc_free(void* p);

void* malloc(std::size_t size)
{
    if (failing::fails())
        return nullptr;
    ++failing::live;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    if (failing::fails())
        return nullptr;
    ++failing::live;
    return __libc_calloc(count, size);
}

void* realloc(void* p, std::size_t size)
{
    if (failing::fails())
        return nullptr;
    failing::live += p == nullptr;
    return __libc_realloc(p, size);
}

void free(void* p)
{
    failing::live -= p != nullptr;
    __libc_free(p);
}
}

#endif
