#pragma once

#include <memory>

#include <qel/iobasestream.h>

class btkStopSign;
class btkStreamSocket;
class xsocketbuf;

/// A stream over a connection, in XDR form unless set otherwise, and beside it a channel for urgent integers.
/// Output is buffered: it is sent by Flush, by a read or a wait for input that would have to sleep, by an
/// urgent integer and by Close. Reading n bytes waits for n bytes or the end.
///
/// Both timeouts hold for each blocking operation, Flush and Close too: it fails with the state "timeout
/// expired" when so many seconds have passed without a byte that came, or went. What a peer may make this
/// process hold is limited by setTextLimit and setUrgentBudget.
///
/// An urgent integer stands outside the stream. One at a time is sure: TCP has one urgent mark for each
/// direction, and this end cannot know how far its peer has read. A second integer that arrives before the
/// peer has read past the first one corrupts the ordinary stream: the first is lost as an urgent one, and its
/// four bytes stand among the values. setUrgentSpacing makes that rare, not impossible. Not counted: freed
/// with xdelete.
class QEL_API netSocketStream : public ioStream
{
    QEL_OBJECT(netSocketStream); // "netlib::SocketStream"

public:
    /// A stream over a connected socket, of which it takes ownership.
    static netSocketStream* Create(btkStreamSocket* socket);
    ~netSocketStream() override;

    /// Sends what is buffered, and then `value` as an urgent integer; waits at most 0.2 seconds for the
    /// arrival of what was sent before. Whether it was sent.
    /// @throws ioXStream  the stream is not open
    unsigned char WriteOutOfBand(int value);
    /// Has WriteOutOfBand wait until so many seconds have passed since the last urgent integer, or something
    /// has come from the peer since then. 0, as at first: it does not wait for that. What comes need not be
    /// an answer to the integer, and a peer may take longer: it may still happen that two meet.
    void setUrgentSpacing(double seconds);
    /// The oldest urgent integer that has come; does not wait. Null when there is none.
    /// @throws ioXStream  the stream is not open
    int ReadOutOfBand();
    /// A new event, of type 2, that is signaled while an urgent integer can be read. The caller owns it.
    /// @throws ioXStream  the stream is not open
    ioEvent* OutOfBandEvent();

    /// The peer's address, as numbers, IPv4 dotted; the text that the rights of a server are checked against.
    /// Empty when it is not known.
    /// @throws ioXStream  the stream is not open
    xstring getPeerAddress();
    /// The longest text that is read, in bytes; 64 MiB at first, 65536 at least. A longer one is a conversion
    /// error, which a text with its size before it is as soon as that has come.
    void setTextLimit(unsigned int bytes) { SetTextLimit(bytes); }
    /// How many bytes are held at most because an urgent integer stands behind them; 256 KiB at first. One
    /// further on is found once enough of them have been read.
    void setUrgentBudget(unsigned int bytes);
    /// For those who wait for this stream with a limit of their own: adds "timeout expired" to the state.
    /// @throws ioXStream  always
    [[noreturn]] void ThrowTimeout();

private:
    friend class netAsyncRequest;

    void SetStopSign(std::shared_ptr<const btkStopSign> sign);
    netSocketStream(xsocketbuf* buf, btkStreamSocket* socket);

    void OnClose() override;
    btkHandle GetInheritHandle() override;

    xsocketbuf* socketBuf;
    btkStreamSocket* connection;
};
