#pragma once

#include <cstdlib>
#include <memory>

#include <qel/base/xstreambuf.h>

/// A buffer in memory. Written bytes are readable at once, and reading does not remove them from GetText.
class BASE_API xstringbuf : public xstreambuf
{
public:
    /// Empty; grows when written to.
    xstringbuf() = default;
    /// A private, read-only copy of `text`.
    xstringbuf(const char* text, std::size_t size);

    /// Returns everything written and not discarded, without a terminator; valid until the next write. Null
    /// when nothing was written.
    const char* GetText() const { return storage == nullptr ? nullptr : storage.get() + forgotten; }
    std::size_t GetSize() const;
    /// Discards bytes that were written and read, and releases memory of which little is used then.
    void DiscardRead();
    std::size_t CountReadable() override;

protected:
    int_type underflow() override;
    int_type overflow(int_type byte) override { return PutOne(byte); }
    std::streamsize xsputn(const char* from, std::streamsize count) override;
    std::streamsize showmanyc() override;
    std::streambuf* OnGetTryIBuf() override;
    void OnFreeTryIBuf() override { view.FreeBuf(); }
    btkBaseEvent* OnGetInputEvent() override { return new btkAlwaysEvent; }

private:
    void Reallocate(std::size_t size);
    void Grow(std::size_t count);
    void Place(std::size_t read, std::size_t size);
    bool ShowWritten();

    struct Free
    {
        void operator()(char* memory) const { std::free(memory); }
    };

    // Memory of the C runtime, which can extend a block in place.
    std::unique_ptr<char, Free> storage;
    std::size_t capacity = 0;
    std::size_t forgotten = 0; // bytes at the start of the storage
    bool readOnly = false;
    xtrystreambuf view{*this};
};
