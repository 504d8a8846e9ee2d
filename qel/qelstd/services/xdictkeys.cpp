#include "xdictkeys_p.h"

#include <cstring>
#include <new>
#include <utility>

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
    std::swap(longCount, other.longCount);
}

char* xdictkeys::adopt(char* text)
{
    const std::size_t length = std::strlen(text);
    if (isLong(length)) {
        ++longCount;
        return text;
    }
    const std::size_t size = cellSize(length);
    char* const cell = at;
    at += size;
    usedBytes += size;
    return static_cast<char*>(std::memcpy(cell, text, size));
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
