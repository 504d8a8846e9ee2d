#include "netserver.h"

#include <iostream>
#include <string>

#include <qel/base/btkcarrier.h>
#include <qel/base/nethandshake.h>

#include "netaddress.h"
#include "netconnect_p.h"
#include "netexception.h"
#include "netrights.h"
#include "netserverloop_p.h"
#include "nettls.h"
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

// As netAsk. A server refuses a certificate in place of its reply.
int ask(btkStreamSocket& socket, netRequestCode code, netAddress* address)
{
    const int answer = netAsk(socket, code);
    btkCarrier* const carrier = answer < 0 ? socket.GetCarrier() : nullptr;
    const std::string why = carrier != nullptr ? carrier->GetFailure({}) : std::string();
    if (!why.empty())
        netXException::Throw(netConnectionRefused, ("No encrypted connection: " + why).c_str(), address);
    return answer;
}

// Warns on the standard error output when a server is open to more peers than its author may expect.
void warnOfOpenDoor(netServer& server)
{
    const xstring name = server.getServerName();
    const char* const why =
        !IsConnectionRestrictable(name) ? "no key of the registry can have such a name"
        : !server.IsLoopbackOnly() && !HasConnectionRights(name) && !netIsTlsRequired(name)
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
    loop->TakeEncrypted();
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
    return netConnectTo(address, nullptr, timeout);
}

netSocketStream* netConnectTo(netAddress* address, const char* name, double timeout)
{
    std::unique_ptr<btkStreamSocket> socket =
        netReach(address, btkTimeval::Now() + btkTimeval(timeout), name);
    if (socket == nullptr)
        return nullptr;
    const int verdict = ask(*socket, netRequestCode::open, address);
    if (verdict < 0)
        return nullptr;
    if (verdict != netAdmitted)
        refuse(address);
    socket->SetDeadline(btkTimeval::Forever());
    return netSocketStream::Create(socket.release());
}

unsigned char netServer::IsAlive(netAddress* address)
{
    const std::unique_ptr<btkStreamSocket> socket = netReach(address, netAnswerEnd());
    if (socket == nullptr)
        return false;
    const int answer = ask(*socket, netRequestCode::ping, address);
    return answer < 0 || answer == netAdmitted;
}

xstring netServer::GetVersion(netAddress* address)
{
    const std::unique_ptr<btkStreamSocket> socket = netReach(address, netAnswerEnd());
    if (socket == nullptr)
        netXException::Throw(netConnectionRefused, "Connection refused", address);
    if (ask(*socket, netRequestCode::version, address) != netAdmitted)
        refuse(address);
    std::string text;
    netReadVersion(*socket, text);
    return text.c_str();
}

void netServer::Shutdown(netAddress* address)
{
    const std::unique_ptr<btkStreamSocket> socket = netReach(address, netAnswerEnd());
    if (socket != nullptr && ask(*socket, netRequestCode::shutdown, address) != netAdmitted)
        refuse(address);
}
