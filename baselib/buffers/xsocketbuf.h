#pragma once

#include <memory>

#include <qel/base/xinputbuf.h>

class btkStreamSocket;

/// Buffered reading and writing of a connection. Output is sent when the buffer is full, by pubsync, before
/// an urgent value, by a read or a wait for input that would have to sleep, and by the destructor: no request
/// stays unsent while its response is awaited.
class BASE_API xsocketbuf : public xinputbuf
{
public:
    /// The socket is not owned and must outlive the buffer.
    explicit xsocketbuf(btkStreamSocket* connected);
    /// Sends pending output; output that cannot be sent is lost. Call pubsync first to find out.
    ~xsocketbuf() override;

    /// Sends pending output, and then the four bytes at `value` as one urgent value.
    bool SendUrgent(const void* value);
    /// Stores the oldest urgent value that has arrived and returns its size in bytes, 4 when it is complete,
    /// 0 when there is none.
    std::size_t ReceiveUrgent(void* value);
    /// Returns a new event that is on while an urgent value can be received. The caller owns it; it may
    /// outlive the buffer and is on then.
    btkBaseEvent* GetUrgentEvent();

    /// As btkStreamSocket::UseKernelSocket, after sending pending output.
    bool UseKernelSocket();

    bool SetInputLimit(btkTimeval limit) override;
    bool SetOutputLimit(btkTimeval limit) override;

protected:
    std::ptrdiff_t ReadSome(char* to, std::size_t size) override;
    std::size_t CountPending() override;
    bool IsPending() override;
    bool OnTryUnderflow() override;
    btkBaseEvent::State OnAskInput() override;
    bool OnInputPolled(btkReadiness ready) override;

    int_type overflow(int_type byte) override { return PutOne(byte); }
    std::streamsize xsputn(const char* from, std::streamsize count) override;
    int sync() override;
    std::streambuf* OnGetTryOBuf() override;
    btkBaseEvent* OnGetOutputEvent() override;

private:
    static constexpr std::size_t outputSize = 32768;

    std::size_t Pending() const { return static_cast<std::size_t>(pptr() - pbase()); }
    bool SendPending();
    std::ptrdiff_t Receive(char* to, std::size_t size);
    std::size_t Send(const char* from, std::size_t size);
    const std::shared_ptr<btkStreamSocket*>& GetLink();

    btkStreamSocket* socket;
    std::unique_ptr<char[]> output; // allocated on first use
    bool isBroken = false;          // output was lost
    xtryoutputbuf tryArea{*this};
    // Shared with the events; holds null once the buffer is destroyed.
    std::shared_ptr<btkStreamSocket*> link;
};
