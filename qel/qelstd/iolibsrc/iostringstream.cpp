#include "iostringstream.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>

#include <qel/base/xstringbuf.h>

#include "iotext_p.h"
#include "qeltable.h"

constinit qelClass ioStringStream::rtti = {
    .name = "iolib::StringStream",
    .parents = {QEL_PARENT(ioStream)},
    .attrs = {QEL_ATTR(Str)},
};

ioStringStream* ioStringStream::Create(const char* text)
{
    const bool writable = !qelIsObject(text);
    auto memory =
        writable ? std::make_unique<xstringbuf>() : std::make_unique<xstringbuf>(text, std::strlen(text));
    auto* const stream = new (pDefMemMgr) ioStringStream(memory.get(), writable);
    memory.release();
    return stream;
}

ioStringStream::ioStringStream(xstringbuf* memory, bool writable)
    : ioStream(ioSerializer::getAscii(), memory, writable, true), stringBuf(memory)
{
}

ioStringStream::~ioStringStream()
{
    Release();
}

void ioStringStream::OnClose()
{
    delete stringBuf;
    stringBuf = nullptr;
}

xstring ioStringStream::getStr()
{
    CheckWritable();
    return ioMakeString(stringBuf->GetText(), stringBuf->GetSize());
}

const char* ioStringStream::getBytes(unsigned int* size)
{
    CheckWritable();
    const std::size_t count = stringBuf->GetSize();
    *size = static_cast<unsigned int>(std::min<std::size_t>(count, UINT_MAX));
    return count == 0 ? nullptr : stringBuf->GetText();
}

void ioStringStream::DiscardRead()
{
    CheckWritable();
    stringBuf->DiscardRead();
}
