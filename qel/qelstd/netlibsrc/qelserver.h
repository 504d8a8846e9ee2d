#pragma once

#include <memory>
#include <type_traits>
#include <utility>

#include <qel/netbaseserver.h>
#include <qel/qelcaught.h>

// The handlers of a server as functions:
//
//     const auto server = qel::own(netServer::Create("echo", 0));
//     server->setOnRequest(qel::onRequest([](netSocketStream& client) { client.WriteInt(client.ReadInt()); }));
//
// Each is called as its handler class describes, and owned by the server. A function without a result means
// netServerContinue.

namespace qel {

/// The server's action for the result of `f(arguments...)`.
template<class F, class... A>
netServerLoopAction serverAction(F& f, A&... arguments)
{
    if constexpr (std::is_void_v<std::invoke_result_t<F&, A&...>>) {
        f(arguments...);
        return netServerContinue;
    } else {
        return f(arguments...);
    }
}

/// Serves a connection in the thread of Run: `f(stream)` or `f(server, stream)`. The stream is freed
/// afterwards, unless `f` returns netSpawnAsyncServer.
template<class F>
std::unique_ptr<netBaseServer_OnRequest_cb, qelDelete> onRequest(F f)
{
    class Handler final : public netBaseServer_OnRequest_cb
    {
    public:
        explicit Handler(F&& taken) : f(std::move(taken)) {}
        netServerLoopAction Invoke(netBaseServer* server, netSocketStream* stream) override
        {
            std::unique_ptr<netSocketStream, qelDelete> owner(stream);
            netServerLoopAction action{};
            if constexpr (std::is_invocable_v<F&, netBaseServer&, netSocketStream&>)
                action = serverAction(f, *server, *stream);
            else
                action = serverAction(f, *stream);
            if (action == netSpawnAsyncServer)
                static_cast<void>(owner.release());
            return action;
        }

    private:
        F f;
    };
    return std::unique_ptr<netBaseServer_OnRequest_cb, qelDelete>(new Handler(std::move(f)));
}

/// Serves a connection in a thread of its own: `f(stream)`, `f(stream, stop)` or `f(server, stream, stop)`;
/// several threads call it at once. The stream is freed afterwards.
template<class F>
std::unique_ptr<netBaseServer_OnAsyncRequest_cb, qelDelete> onAsyncRequest(F f)
{
    class Handler final : public netBaseServer_OnAsyncRequest_cb
    {
    public:
        explicit Handler(F&& taken) : f(std::move(taken)) {}
        netServerLoopAction Invoke(netBaseServer* server, netSocketStream* stream, evtEvent* stop) override
        {
            const std::unique_ptr<netSocketStream, qelDelete> owner(stream);
            if constexpr (std::is_invocable_v<F&, netBaseServer&, netSocketStream&, evtEvent&>)
                return serverAction(f, *server, *stream, *stop);
            else if constexpr (std::is_invocable_v<F&, netSocketStream&, evtEvent&>)
                return serverAction(f, *stream, *stop);
            else
                return serverAction(f, *stream);
        }

    private:
        F f;
    };
    return std::unique_ptr<netBaseServer_OnAsyncRequest_cb, qelDelete>(new Handler(std::move(f)));
}

/// Is called when a time slice has passed without a connection: `f()` or `f(server)`.
template<class F>
std::unique_ptr<netBaseServer_OnIdle_cb, qelDelete> onIdle(F f)
{
    class Handler final : public netBaseServer_OnIdle_cb
    {
    public:
        explicit Handler(F&& taken) : f(std::move(taken)) {}
        netServerLoopAction Invoke(netBaseServer* server) override
        {
            if constexpr (std::is_invocable_v<F&, netBaseServer&>)
                return serverAction(f, *server);
            else
                return serverAction(f);
        }

    private:
        F f;
    };
    return std::unique_ptr<netBaseServer_OnIdle_cb, qelDelete>(new Handler(std::move(f)));
}

/// Decides after a failure of the other handlers in the thread of Run: `f(failure)` or `f(server, failure)`
/// returns whether the server goes on; if not, the failure leaves Run. A failure from outside of the
/// framework comes as a qelXNativeException.
template<class F>
std::unique_ptr<netErrorHandler> onError(F f)
{
    class Handler final : public netErrorHandler
    {
    public:
        explicit Handler(F&& taken) : f(std::move(taken)) {}
        bool goesOn(netBaseServer& server, const caught& failure) override
        {
            if constexpr (std::is_invocable_v<F&, netBaseServer&, const caught&>)
                return f(server, failure);
            else
                return f(failure);
        }

    private:
        F f;
    };
    return std::make_unique<Handler>(std::move(f));
}

} // namespace qel
