#pragma once

#include <qel/iobasestream.h>
#include <qel/qelduration.h>

class btkStreamSocket;
class xsocketbuf;

/// A stream over a connection, in XDR form unless set otherwise, with a separate channel for urgent integers.
/// Output is buffered: it is sent by Flush, by a read or a wait for input that would have to sleep, by an
/// urgent integer and by Close. Reading n bytes waits for n bytes or the end.
///
/// Both timeouts apply to each blocking operation, including Flush and Close: it fails with the state
/// "timeout expired" when that many seconds have passed without a byte received or sent. setTextLimit and
/// setUrgentBudget limit the memory that a peer can make this process use.
///
/// An urgent integer is not part of the stream. Only one at a time is delivered reliably: TCP has one urgent
/// mark for each direction, and this end cannot know how far its peer has read. A second integer that arrives
/// before the peer has read past the first one corrupts the ordinary stream: the first is lost as an urgent
/// integer, and its four bytes appear among the stream's values. setUrgentSpacing makes that rare, not
/// impossible. Not counted: freed with xdelete.
///
///     const auto words = qel::connect("words", 5s);
///     words->setITimeout(2s);
///     words->WriteString("hello");
///     std::cout << words->ReadString("\n") << '\n'; // sends what is buffered before it waits
class QEL_API netSocketStream : public ioStream
{
    QEL_OBJECT(netSocketStream); // "netlib::SocketStream"

public:
    /// A new stream over a connected socket, of which it takes ownership. The caller owns the stream.
    static netSocketStream* Create(btkStreamSocket* socket);
    ~netSocketStream() override;

    /// Sends the buffered data, and then `value` as an urgent integer; waits at most 0.2 seconds for earlier
    /// data to arrive. Returns whether it was sent.
    /// @throws ioXStream  the stream is not open
    unsigned char WriteOutOfBand(int value);
    /// Makes WriteOutOfBand wait until `seconds` have passed since the last urgent integer, or the peer has
    /// sent something since then. 0, the initial value: no such wait. Data from the peer need not be a reply
    /// to the integer, and a peer may take longer, so two urgent integers can still collide.
    void setUrgentSpacing(double seconds);
    template<qelDuration D>
    void setUrgentSpacing(const D& limit)
    {
        return setUrgentSpacing(qelSeconds(limit));
    }
    /// The oldest urgent integer that has arrived; does not wait. Null when there is none.
    /// @throws ioXStream  the stream is not open
    int ReadOutOfBand();
    /// A new event, of type 2, that is signaled while an urgent integer can be read. The caller owns it.
    /// @throws ioXStream  the stream is not open
    ioEvent* OutOfBandEvent();

    /// The peer's address, as numbers, IPv4 dotted; the text that the server's rights are matched against.
    /// Empty when it is not known.
    /// @throws ioXStream  the stream is not open
    xstring getPeerAddress();
    /// Whether the connection is encrypted, and both ends have shown certificates; see nettls.h.
    /// @throws ioXStream  the stream is not open
    unsigned char isEncrypted();
    /// The names that the peer's certificate proves, separated by blanks: NAME for each URI `qel://NAME`. Empty for a
    /// connection that is not encrypted, and for a certificate with none.
    /// @throws ioXStream  the stream is not open
    xstring getPeerCertificate();
    /// The number of the peer's user, as btkGetPeerUser knows it; -1 when it is not known, or on another machine.
    /// @throws ioXStream  the stream is not open
    long getPeerUser();
    /// The longest text that is read, in bytes; initially 64 MiB, at least 65536. A longer one is a
    /// conversion error; a length-prefixed text fails as soon as its length has arrived.
    void setTextLimit(unsigned int bytes) { SetTextLimit(bytes); }
    /// The most bytes buffered in order to reach an urgent integer behind them; initially 256 KiB. An integer
    /// further on is found once enough of them have been read.
    void setUrgentBudget(unsigned int bytes);
    /// For callers that wait for this stream with their own limit: adds "timeout expired" to the state.
    /// @throws ioXStream  always
    [[noreturn]] void ThrowTimeout();

private:
    friend class netAsyncRequest;

    netSocketStream(xsocketbuf* buf, btkStreamSocket* socket);

    void OnClose() override;
    btkHandle GetInheritHandle() override;

    xsocketbuf* socketBuf;
    btkStreamSocket* connection;
};
