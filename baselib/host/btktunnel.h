#pragma once

#include <memory>

#include <qel/base/btkfd.h>
#include <qel/base/btksocket.h>

/// A connection over two streams of bytes that are no connection: the input and the output of a program such as ssh, which
/// carries them to another machine. Each end has a tunnel; the frames between the two are those of btkframes.h, behind a
/// line that both send first. The users of both ends have a connected socket each, with urgent values, its end, and its
/// reset: data flows only as fast as it is read at the other end, which holds at most 256 KiB for a slow reader, and
/// urgent values overtake it.
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

    /// Opens the tunnel over two descriptors, which it owns (`input` and `output` may have the same file behind them), and
    /// waits at most `limit` for the other end. Returns the socket of this end's user; null when it fails, with the reason
    /// in errno: ETIMEDOUT, ECONNRESET (the input has ended), EPROTO (something else than a tunnel has sent bytes). Once for
    /// each object.
    std::unique_ptr<btkStreamSocket> Open(btkFd input, btkFd output, btkTimeval limit);
    /// Sends the rest of what the user has sent before it closed its socket, and closes the tunnel when that is done or
    /// `limit` has passed.
    void Finish(btkTimeval limit);

private:
    struct Loop;
    std::unique_ptr<Loop> loop;
    void* thread = nullptr;
};
