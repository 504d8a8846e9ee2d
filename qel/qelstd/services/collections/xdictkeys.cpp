#include "xdictkeys_p.h"

#include <new>

#include <qel/base/btkmemory.h>

xdictkeys::~xdictkeys()
{
    while (chunks != nullptr)
        ::operator delete(std::exchange(chunks, chunks->next));
}

void xdictkeys::swap(xdictkeys& other) noexcept
{
    std::swap(at, other.at);
    std::swap(end, other.end);
    std::swap(freed, other.freed);
    std::swap(chunks, other.chunks);
    std::swap(chunkBytes, other.chunkBytes);
    std::swap(usedBytes, other.usedBytes);
    std::swap(lostBytes, other.lostBytes);
}

void xdictkeys::addChunk(std::size_t bytes)
{
    void* const block = pDefMemMgr->Allocate(sizeof(Chunk) + bytes);
    btkExpectUse(block, sizeof(Chunk) + bytes);
    chunks = new (block) Chunk{chunks, nullptr};
    at = static_cast<char*>(block) + sizeof(Chunk);
    end = at + bytes;
    chunkBytes += bytes;
}
