#pragma once

#include <memory>

#include <qel/base/xstreambuf.h>

/// Buffered input from a source that delivers when it likes: a pipe, a socket, a terminal. Reading n bytes
/// waits for n bytes or the end of the input. The buffer grows when a try view needs more than it holds, by
/// what has arrived.
class BASE_API xinputbuf : public xstreambuf
{
public:
    /// What is held and what waits in the source.
    std::size_t CountReadable() override { return Held() + CountPending(); }
    bool IsStarved() const override { return gptr() == starvedStart && egptr() == starvedEnd && Held() > 0; }
    btkHandle GetHandle() const override { return source; }

protected:
    /// Reads from the descriptor `handle`, which is not owned. -1: no input.
    explicit xinputbuf(btkHandle handle) : source(handle) {}

    // ---- the source; these read the descriptor

    /// Waits for bytes and reads up to `size` of them; 0 at the end of the input, -1 when reading failed.
    virtual std::ptrdiff_t ReadSome(char* to, std::size_t size) { return btkRead(source, to, size); }
    /// How many bytes wait in the source; 0 when that is not known.
    virtual std::size_t CountPending() { return btkCountReadable(source); }
    /// Whether ReadSome would answer at once.
    virtual bool IsPending() { return btkIsReadable(source); }

    /// How many bytes are to be read at once into the empty buffer, at most usualSize.
    virtual std::size_t FillSize() { return usualSize; }

    // ---- the buffer

    std::size_t Held() const { return static_cast<std::size_t>(egptr() - gptr()); }
    /// Drops what is held.
    void DropHeld() { setg(nullptr, nullptr, nullptr); }
    /// The memory of the buffer, made on first use.
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
    std::size_t filled = 0;  // bytes that the view which is out has taken from the source
    std::size_t allowed = 0; // and how many it may take
    // The bytes that the last view ran out of, until others are read.
    const char* starvedStart = nullptr;
    const char* starvedEnd = nullptr;
};
