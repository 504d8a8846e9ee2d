#include <new>

#include <qel/base/btkmemory.h>

#include "xdictkeys_p.h"

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
    std::swap(chunkUnits, other.chunkUnits);
    std::swap(usedUnits, other.usedUnits);
    std::swap(lostUnits, other.lostUnits);
}

void xdictkeys::addChunk(std::size_t units)
{
    // In a large arena each short text lies within one cache line.
    const std::size_t head = units < 16 ? sizeof(Chunk) : unit;
    const std::size_t bytes = head + units * unit;
    char* const block = static_cast<char*>(pDefMemMgr->Allocate(bytes));
    btkExpectUse(block, bytes);
    chunks = new (block) Chunk{chunks};
    at = block + head;
    end = block + bytes;
    chunkUnits += static_cast<std::uint32_t>(units);
}
