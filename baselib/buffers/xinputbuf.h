#pragma once

#include <memory>

#include <qel/base/xstreambuf.h>

/// Buffered input from a source that delivers at its own pace: a pipe, a socket, a terminal. Reading n bytes
/// waits for n bytes or the end of the input. When a try view needs more than the buffer holds, the buffer
/// grows by the data that has arrived.
class BASE_API xinputbuf : public xstreambuf
{
public:
    /// Counts the buffered bytes and those waiting in the source.
    std::size_t CountReadable() override { return Held() + CountPending(); }
    bool IsStarved() const override { return gptr() == starvedStart && egptr() == starvedEnd && Held() > 0; }
    btkHandle GetHandle() const override { return source; }

protected:
    /// Reads from the descriptor `handle`, which is not owned. -1: no input.
    explicit xinputbuf(btkHandle handle) : source(handle) {}

    // ---- the source; the defaults read the descriptor

    /// Waits for bytes and reads up to `size` of them; 0 at the end of the input, -1 when reading failed.
    virtual std::ptrdiff_t ReadSome(char* to, std::size_t size) { return btkRead(source, to, size); }
    /// Returns the number of bytes waiting in the source; 0 when it is not known.
    virtual std::size_t CountPending() { return btkCountReadable(source); }
    /// Whether ReadSome would return at once.
    virtual bool IsPending() { return btkIsReadable(source); }

    /// Returns the number of bytes to read at once into the empty buffer, at most usualSize.
    virtual std::size_t FillSize() { return usualSize; }

    // ---- the buffer

    std::size_t Held() const { return static_cast<std::size_t>(egptr() - gptr()); }
    /// Drops the buffered bytes.
    void DropHeld() { setg(nullptr, nullptr, nullptr); }
    /// Returns the memory of the buffer, allocated on first use.
    char* GetStorage();
    static constexpr std::size_t usualSize = 65536;

    int_type underflow() override;
    std::streamsize xsgetn(char* to, std::streamsize count) override;
    std::streamsize showmanyc() override;
    std::streambuf* OnGetTryIBuf() override;
    void OnFreeTryIBuf() override;
    btkBaseEvent* OnGetInputEvent() override { return MakeInputEvent(source); }
    btkBaseEvent::State OnAskInput() override;
    bool OnTryUnderflow() override;

private:
    std::size_t ReadInto(char* to, std::size_t size);
    void MakeRoom(std::size_t count);

    btkHandle source;
    std::unique_ptr<char[]> storage;
    std::size_t capacity = 0;
    xtrystreambuf view{*this};
    std::size_t filled = 0;  // bytes that the active view has taken from the source
    std::size_t allowed = 0; // limit of `filled`
    // The bytes that were not enough for the last view, until others are read.
    const char* starvedStart = nullptr;
    const char* starvedEnd = nullptr;
};
