#include <qel/base/btkmemory.h>

#include <cstring>
#include <new>

void* btkMemMgr::Allocate(std::size_t size)
{
    return ::operator new(size);
}

namespace {

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
