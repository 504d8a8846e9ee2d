#include "iofilestream.h"

#include <climits>
#include <memory>
#include <string>

#include <qel/base/btkpath.h>
#include <qel/base/xfilebuf.h>
#include <qel/platform/errortable.h>

#include "qeltable.h"

QEL_LABELS(ioOpenMode, "iolib::OpenMode", ioReadOnly, ioWriteOnly, ioReadWrite);
QEL_LABELS(ioDirection, "iolib::Direction", ioBegin, ioEnd, ioCur);

constinit qelClass ioFileStream::rtti = {
    .name = "iolib::FileStream",
    .parents = {QEL_PARENT(ioStream)},
    .attrs = {QEL_ATTR(Path)},
};

namespace {

// An int that cannot hold the value is null.
int bounded(long long value)
{
    return value < 0 || value > INT_MAX ? xnullint : static_cast<int>(value);
}

} // namespace

ioFileStream* ioFileStream::Open(const char* path, ioOpenMode mode)
{
    std::string host;
    if (!qelIsObject(path) || !platDone(btkHostPath(path, host)))
        return nullptr;
    const bool writable = mode != ioReadOnly;
    const bool readable = mode != ioWriteOnly;
    std::unique_ptr<xfilebuf> opened(xfilebuf::Open(host.c_str(), writable && readable ? xfilebuf::ReadWrite
                                                                  : writable           ? xfilebuf::Write
                                                                                       : xfilebuf::Read));
    if (opened == nullptr) {
        platFailOn(host);
        return nullptr;
    }
    auto* const stream = new (pDefMemMgr) ioFileStream(opened.get(), path, writable, readable);
    opened.release();
    return stream;
}

ioFileStream* ioFileStream::Create(const char* path, ioOpenMode mode, unsigned char)
{
    return Open(path, mode);
}

ioFileStream::ioFileStream(xfilebuf* opened, const char* name, bool writable, bool readable)
    : ioStream(ioSerializer::getAscii(), opened, writable, readable), fileBuf(opened), path(name)
{
}

ioFileStream::~ioFileStream()
{
    Release();
}

void ioFileStream::OnClose()
{
    inheritHandle.Reset();
    delete fileBuf;
    fileBuf = nullptr;
}

void ioFileStream::SeekOff(int offset, ioDirection dir)
{
    CheckOpen();
    const std::ios_base::seekdir from = dir == ioBegin ? std::ios_base::beg
                                        : dir == ioEnd ? std::ios_base::end
                                                       : std::ios_base::cur;
    if (fileBuf->Seek(offset, from) < 0)
        ThrowState(stateBad);
    ClearEofBit();
}

int ioFileStream::TellPos()
{
    CheckOpen();
    return bounded(fileBuf->Tell());
}

int ioFileStream::TellSize()
{
    CheckOpen();
    return bounded(fileBuf->GetFileSize());
}

void ioFileStream::Truncate(int)
{
    CheckWritable();
    if (fileBuf->pubsync() != 0)
        ThrowState(stateBad);
}

xstring ioFileStream::getPath()
{
    return path;
}

btkHandle ioFileStream::GetInheritHandle()
{
    if (GetSettledHandle() < 0)
        return -1;
    std::string host;
    if (!inheritHandle && btkHostPath(path.CastToCString(), host)) {
        const int access = (getCanRead() ? btkOpenRead : 0) | (getCanWrite() ? btkOpenWrite : 0);
        inheritHandle = btkOpenFile(host.c_str(), access | btkOpenCreate);
    }
    const long long position = fileBuf->Tell();
    return position < 0 || btkSetPosition(inheritHandle.Get(), position) ? inheritHandle.Get() : -1;
}
