#include "netserver.h"

#include <iostream>
#include <string>

#include <qel/base/nethandshake.h>

#include "netaddress.h"
#include "netconnect_p.h"
#include "netexception.h"
#include "netrights.h"
#include "netserverloop_p.h"
#include "qeltable.h"

constinit qelClass netServer::rtti = {
    .name = "netlib::Server",
    .parents = {QEL_PARENT(netBaseServer)},
    .attrs = {QEL_ATTR(Version)},
};

namespace {

constexpr btkTimeval patienceAtFirst(5, 0);
// The first byte is there when the handshake begins, so the rest of it is short.
constexpr btkTimeval handshakeLimit(1, 0);

[[noreturn]] void refuse(netAddress* address)
{
    netXException::Throw(netConnectionRefused, "Connection refused due to lack of rights", address);
}

// A connected socket whose calls also return by `end`; null when the port has no listener.
std::unique_ptr<btkStreamSocket> reach(netAddress* address, btkTimeval end)
{
    std::unique_ptr<btkStreamSocket> socket = netConnect(address, end);
    if (socket != nullptr)
        socket->SetDeadline(end.IsForever() ? netAnswerEnd() : end);
    return socket;
}

// Warns on the standard error output when a server is open to more peers than its author may expect.
void warnOfOpenDoor(netServer& server)
{
    const xstring name = server.getServerName();
    const char* const why = !IsConnectionRestrictable(name) ? "no key of the registry can have such a name"
                            : !server.IsLoopbackOnly() && !HasConnectionRights(name)
                                ? "the registry has no rights for it"
                                : nullptr;
    if (why != nullptr)
        std::cerr << "netServer: every machine may connect to \"" + std::string(name.CastToCString()) +
                         "\": " + why + '\n'
                  << std::flush;
}

void unlimit(btkStreamSocket& socket)
{
    socket.SetRecvLimit(btkTimeval::Forever());
    socket.SetSendLimit(btkTimeval::Forever());
}

} // namespace

// ---- the server's side

netServer::netServer(btkAcceptSocket* socket, xstring name)
    : netBaseServer(socket, name), version("QEL netServer Version 0.99")
{
    SetSilentPatience(patienceAtFirst);
}

netServer::~netServer()
{
    EndService();
}

netServer* netServer::Create(const char* name, int port)
{
    return Create(name, port, nullptr);
}

netServer* netServer::Create(const char* name, int port, const char* listenOn)
{
    netServer* const server = CreateAs<netServer>(name, port, listenOn);
    if (server != nullptr && !(server->getServerName() == nullptr))
        warnOfOpenDoor(*server);
    return server;
}

void netServer::setSilentPatience(double seconds)
{
    if (seconds > 0)
        SetSilentPatience(btkTimeval(seconds));
}

netServerLoopAction netServer::PreprocessRequest(btkStreamSocket* socket)
{
    socket->SetRecvLimit(handshakeLimit);
    socket->SetSendLimit(handshakeLimit);
    unsigned char code = 0;
    if (socket->Recv(&code, 1) != 1)
        return netServerContinue;
    const auto request = static_cast<netRequestCode>(code);
    NoteRequest(request);
    if (request == netRequestCode::ping) {
        socket->Send(&netAdmitted, 1);
        return netServerContinue;
    }
    if (request != netRequestCode::open && request != netRequestCode::version &&
        request != netRequestCode::shutdown)
        return netServerContinue;
    if (!MayCome(socket)) {
        loop->Note(netCount::refusedByRights);
        socket->Send(&netRefused, 1);
        return netServerContinue;
    }

    std::string answer(1, static_cast<char>(netAdmitted));
    if (request == netRequestCode::version) {
        const auto size = static_cast<unsigned char>(version.GetMBSize());
        answer += static_cast<char>(size);
        answer.append(version.CastToCString(), size);
    }
    if (socket->Send(answer.data(), answer.size()) != answer.size() || request == netRequestCode::version)
        return netServerContinue;
    if (request == netRequestCode::shutdown)
        return netServerTerminate;
    unlimit(*socket);
    return netServerNoDecision;
}

void netServer::NoteRequest(netRequestCode code)
{
    switch (code) {
    case netRequestCode::open: // noted when it is served
        break;
    case netRequestCode::ping:
        loop->Note(netCount::ping);
        break;
    case netRequestCode::version:
        loop->Note(netCount::version);
        break;
    case netRequestCode::shutdown:
        loop->Note(netCount::shutdown);
        break;
    default:
        loop->Note(netCount::unknownCode);
    }
}

bool netServer::MayCome(btkStreamSocket* socket)
{
    return socket->IsPeerOnTheSameMachine() || IsConnectionAllowed(socket, getServerName());
}

// ---- the client's side

void netServer::setAnswerLimit(double seconds)
{
    nmsSetAnswerLimit(btkTimeval(seconds));
}

netSocketStream* netServer::Connect(netAddress* address, double timeout)
{
    std::unique_ptr<btkStreamSocket> socket = reach(address, btkTimeval::Now() + btkTimeval(timeout));
    if (socket == nullptr)
        return nullptr;
    const int verdict = netAsk(*socket, netRequestCode::open);
    if (verdict < 0)
        return nullptr;
    if (verdict != netAdmitted)
        refuse(address);
    socket->SetDeadline(btkTimeval::Forever());
    return netSocketStream::Create(socket.release());
}

unsigned char netServer::IsAlive(netAddress* address)
{
    const std::unique_ptr<btkStreamSocket> socket = reach(address, netAnswerEnd());
    if (socket == nullptr)
        return false;
    const int answer = netAsk(*socket, netRequestCode::ping);
    return answer < 0 || answer == netAdmitted;
}

xstring netServer::GetVersion(netAddress* address)
{
    const std::unique_ptr<btkStreamSocket> socket = reach(address, netAnswerEnd());
    if (socket == nullptr)
        netXException::Throw(netConnectionRefused, "Connection refused", address);
    if (netAsk(*socket, netRequestCode::version) != netAdmitted)
        refuse(address);
    std::string text;
    netReadVersion(*socket, text);
    return text.c_str();
}

void netServer::Shutdown(netAddress* address)
{
    const std::unique_ptr<btkStreamSocket> socket = reach(address, netAnswerEnd());
    if (socket != nullptr && netAsk(*socket, netRequestCode::shutdown) != netAdmitted)
        refuse(address);
}
