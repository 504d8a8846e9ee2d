#pragma once

#include <memory>
#include <string>

#include <qel/base/btkfd.h>
#include <qel/base/btksocket.h>

struct btkFrameLink;

/// A connection that the kernel's sockets do not carry: over the input and the output of a program such as ssh, or an
/// encrypted one for a user that needs a socket of the kernel. Each end has a tunnel; the frames between the two are
/// those of btkframes.h. The user of each end has a connected socket, with urgent values, an end and a reset. Data
/// flows only as fast as it is read at the other end, which holds at most 256 KiB for a slow reader; urgent values
/// overtake it.
///
/// A separate thread moves the data. Used by one thread.
class BASE_API btkTunnel
{
public:
    btkTunnel();
    /// As Finish, for at most two seconds.
    ~btkTunnel();
    btkTunnel(const btkTunnel&) = delete;
    btkTunnel& operator=(const btkTunnel&) = delete;

    /// Opens the tunnel over two descriptors, which it owns (`input` and `output` may have the same file behind them),
    /// sends a line that tells a tunnel, and waits at most `limit` for that of the other end. Returns the socket of
    /// this end's user; null when it fails, with the reason in errno: ETIMEDOUT, ECONNRESET (the input has ended),
    /// EPROTO (something else than a tunnel has sent bytes). One of the two Open, once for each object.
    std::unique_ptr<btkStreamSocket> Open(btkFd input, btkFd output, btkTimeval limit);
    /// Continues a connection that has begun. Does not wait. Null, and the link stays as it was, when there are no
    /// descriptors or threads left.
    std::unique_ptr<btkStreamSocket> Open(btkFrameLink& link);
    /// Sends the rest of a connection whose user has left, as Leave; its end is among the link's frames. Drops what
    /// arrives. The link stays as it was when there are no descriptors or threads left.
    void LeaveRest(btkFrameLink& link);

    /// Sends the rest of what the user has sent before it closed its socket, and closes the tunnel when that is done or
    /// `limit` has passed.
    void Finish(btkTimeval limit);
    /// The same without waiting: the tunnel's thread does it alone, and gives up when it could send nothing for a
    /// minute. The exit of the program waits for all such tunnels together, for at most two seconds.
    void Leave();
    /// Why the connection was lost, in words; empty as long as it is not, or when the channel knows no more. Waits at
    /// most `limit` until it is lost.
    std::string GetFailure(btkTimeval limit);

private:
    struct Loop;
    bool Start(std::shared_ptr<Loop> made, btkFrameLink& link);

    std::shared_ptr<Loop> loop;
    void* thread = nullptr;
};
