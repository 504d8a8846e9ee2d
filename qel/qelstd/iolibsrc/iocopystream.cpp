#include <algorithm>
#include <cstdint>
#include <streambuf>

#include <qel/base/xbufaccess.h>
#include <qel/base/xstreambuf.h>

#include "iobasestream.h"
#include "qelexception.h"

void ioStream::ReadStream(ioStream* src)
{
    CopyStream(this, src);
}

void ioStream::WriteStream(ioStream* dst)
{
    CopyStream(dst, this);
}

void CopyStream(ioStream* to, ioStream* from)
{
    if (!qelIsObject(to) || !qelIsObject(from))
        qelhThrowNotInitialized();
    from->CheckReadable();
    to->CheckWritable();
    if (to->serializer != from->serializer)
        from->Throw(ioIncompatibleFormat);
    from->SetActive();
    to->SetActive();

    std::streambuf& source = *from->direct;
    char block[4096];
    const bool isSame = to == from || btkIsSameFile(to->streamBuf->GetHandle(), from->streamBuf->GetHandle());
    // A stream or file copied into itself would grow forever: it gets the bytes unread at the beginning.
    std::size_t left = isSame ? from->streamBuf->CountReadable() : SIZE_MAX;
    for (bool isPassed = isSame; left > 0;) {
        if (!isPassed && xbufaccess::View(source, 1) == nullptr) {
            from->streamBuf->PassTo(*to->streamBuf);
            isPassed = true;
        }
        if (!isSame && source.sgetc() == EOF)
            break; // without waiting for the limit a second time
        // The buffered bytes of the source are written from their place, unless writing may move them.
        const bool isLent = !isSame && xbufaccess::View(source, 1) != nullptr;
        const char* const part = isLent ? xbufaccess::Next(source) : block;
        const std::streamsize size =
            isLent ? xbufaccess::End(source) - part
                   : source.sgetn(block, static_cast<std::streamsize>(std::min(left, sizeof block)));
        if (size <= 0)
            break;
        const std::streamsize written = to->direct->sputn(part, size);
        if (isLent)
            xbufaccess::Advance(source, part + std::max<std::streamsize>(written, 0));
        if (written < size)
            to->ThrowState(to->WhyFailed(ioStream::stateBad));
        left -= static_cast<std::size_t>(size);
    }
    const int failed = from->WhyFailed(from->streamBuf->HasFailed() ? ioStream::stateBad : 0);
    if (left > 0 && failed != 0)
        from->ThrowState(failed);
}
