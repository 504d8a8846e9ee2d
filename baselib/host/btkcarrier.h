#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <qel/base/btkevent.h>
#include <qel/base/btkframes.h>
#include <qel/base/btkpeeruser.h>
#include <qel/base/btktunnel.h>

class btkStreamSocket;

/// Lies between the btkStreamSocket of an encrypted connection and the channel to the peer, and passes data and urgent
/// values on as the frames of btkframes.h, in the thread of the caller. No call waits; those that transfer fail with
/// EAGAIN when they would have to, and the caller then polls for GetAwaited(). A connection is lost when there is no
/// memory for what arrives. Used by one thread at a time.
class BASE_API btkCarrier
{
public:
    /// `names`: see peerNames. `connection`: the one to the peer, which the channel uses.
    btkCarrier(std::unique_ptr<btkChannel> channel, std::vector<std::string> names,
               const btkStreamSocket& connection);
    /// Sends the end and closes the channel. What has not arrived is sent by a thread, as btkTunnel::LeaveRest.
    ~btkCarrier();
    btkCarrier(const btkCarrier&) = delete;
    btkCarrier& operator=(const btkCarrier&) = delete;

    /// Reads at most `size` bytes of data; 0 at the end. -1: see errno; ECONNRESET when the connection is lost.
    std::ptrdiff_t Read(char* to, std::size_t size);
    /// Takes at most `size` bytes of data, as far as the peer grants it and the last ones were sent. -1: see errno;
    /// EPIPE when no more can be sent.
    std::ptrdiff_t Write(const char* from, std::size_t size);
    /// Takes an urgent value of four bytes. -1: see errno.
    std::ptrdiff_t WriteUrgent(const char* value);
    /// Sends what was taken: 0 once all is sent. -1: see errno.
    std::ptrdiff_t Flush();
    std::size_t CountUnsent() const { return link.CountWaiting(); }
    /// Sends the end of the data, if not now then with the next calls.
    void WriteEnd();
    /// The oldest urgent value that has arrived, which is taken.
    std::optional<btkUrgentValue> TakeUrgent();

    /// Takes what has arrived from the channel, which is at most what the peer was granted, and sends what waits.
    void Receive();
    /// The number of bytes that Read returns without the channel.
    std::size_t CountHeld() const { return link.reader.GetData().size(); }
    /// Whether Read would return at once, as far as it is known without a call of the operating system.
    bool HoldsReadable();
    bool HasUrgent() const { return link.reader.HasUrgent(); }
    /// The number of bytes that Write would take if the channel has room.
    std::size_t GetCredit() const { return isEndPut || link.isDeaf ? 0 : link.reader.GetCredit(); }
    /// Whether nothing more will arrive; IsLost: and not because the peer has ended its data.
    bool IsInputOver() const { return isInputOver; }
    bool IsLost() const { return isInputOver && !link.reader.IsEnded(); }
    /// Whether nothing more can be written.
    bool IsOutputOver() const { return isEndPut || link.isDeaf || IsLost(); }
    /// The readiness of the connection that lets any of these calls continue.
    btkReadiness GetAwaited() const;

    /// Hands the connection over to a btkTunnel, whose user's socket takes the place of the descriptor `connection`;
    /// only the destructor, GetFailure and the attributes may be used then. False, and nothing has happened, when the
    /// connection is lost, or there are no descriptors or threads left.
    bool MoveToTunnel(btkHandle connection);

    /// Why the connection was lost, in words; empty when that is not known. Waits at most `limit` for the loss.
    std::string GetFailure(btkTimeval limit);

    /// The names that the peer's certificate proves: NAME for each `qel://NAME`. They consist of visible ASCII
    /// characters.
    std::vector<std::string> peerNames;

private:
    friend class btkStreamSocket;

    std::size_t Get(char* to, std::size_t size);
    void End();
    bool Parse(char* room, std::size_t size);
    void Lose();
    void Grant();

    btkFrameLink link;
    bool isInputOver = false;
    bool isEndPut = false;
    // Null: this thread moves the data.
    std::unique_ptr<btkTunnel> tunnel;
    // The peer, while the descriptor does not lead to it.
    bool isPeerOnTheSameMachine;
    std::optional<btkUserId> peerUser;
};
