#pragma once

#include <cstdlib>
#include <memory>

#include <qel/base/xstreambuf.h>

/// A buffer in memory. What was written is readable at once, and reading takes nothing away from GetText.
class BASE_API xstringbuf : public xstreambuf
{
public:
    /// Empty; grows as it is written.
    xstringbuf() = default;
    /// A private copy of `text`; read-only.
    xstringbuf(const char* text, std::size_t size);

    /// All that was written and is not forgotten, without a terminator; valid until the next write. Null when
    /// nothing was.
    const char* GetText() const { return storage == nullptr ? nullptr : storage.get() + forgotten; }
    std::size_t GetSize() const;
    /// Forgets what was read of what was written, and gives back memory of which little is used then.
    void DiscardRead();
    std::size_t CountReadable() override;

protected:
    int_type underflow() override;
    int_type overflow(int_type byte) override;
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

    std::unique_ptr<char, Free> storage; // of the C runtime, which can let a block grow where it is
    std::size_t capacity = 0;
    std::size_t forgotten = 0; // bytes at the start of the storage
    bool readOnly = false;
    xtrystreambuf view{*this};
};
