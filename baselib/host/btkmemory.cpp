#include "btkmemory.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>

void* btkMemMgr::Allocate(std::size_t size)
{
    return ::operator new(size);
}

namespace {

constexpr std::size_t largePage = std::size_t{2} << 20;
constexpr std::size_t smallPage = 4096;

class DefaultManager final : public btkMemMgr
{
};

constinit DefaultManager defaultManager;

} // namespace

constinit btkMemMgr* const pDefMemMgr = &defaultManager;

char* btkStrDup(const char* text)
{
    const std::size_t size = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(new char[size], text, size));
}

void* btkResizeBlock(void* block, std::size_t kept, std::size_t size)
{
    // Above PTRDIFF_MAX realloc fails.
    if (size < largePage || size > PTRDIFF_MAX)
        return std::realloc(block, size);
    // realloc moves large blocks without their huge pages.
    void* const resized = std::aligned_alloc(largePage, (size + largePage - 1) & ~(largePage - 1));
    if (resized == nullptr)
        return nullptr;
    btkExpectUse(resized, size);
    if (kept != 0)
        std::memcpy(resized, block, kept);
    std::free(block);
    return resized;
}

void btkExpectUse(void* block, std::size_t size)
{
    if (size < largePage)
        return;
    const auto at = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t first = (at + smallPage - 1) & ~(smallPage - 1);
    const std::uintptr_t end = (at + size) & ~(smallPage - 1);
    const int before = errno;
    madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
    // A system without huge pages refuses.
    errno = before;
}
