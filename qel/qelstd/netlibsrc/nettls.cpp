#include "nettls.h"

#include <string>

#include <qel/base/btkenvironment.h>
#include <qel/base/btktls.h>

#include "hmxregistry.h"
#include "netaddress.h"
#include "netconnect_p.h"
#include "netexception.h"
#include "netsetting_p.h"

namespace {

constexpr const char* folderVariable = "QELSTD_TLS";
constexpr const char* localVariable = "QELSTD_TLS_LOCAL";
constexpr const char* folderValue = "Folder";
constexpr const char* requiredValue = "TLSRequired";

// A registry without a place has no values.
netRightsState readFrom(hmxRegistry& registry, const char* path, const char* name, xstring& value)
{
    if (registry.getFolder() == nullptr)
        return netRightsAbsent;
    return netReadSetting(registry, path, name, value);
}

netRightsState readFolder(xstring& folder)
{
    std::string variable;
    if (btkEnvironment::GetTrusted(folderVariable, variable) && !variable.empty()) {
        folder = variable.c_str();
        return netRightsGiven;
    }
    const netRightsState system = readFrom(hmxRegistry::System(), netTlsPath, folderValue, folder);
    return system != netRightsAbsent ? system
                                     : readFrom(hmxRegistry::User(), netTlsPath, folderValue, folder);
}

bool isRequiredBy(hmxRegistry& registry, const char* path)
{
    xstring value;
    const netRightsState state = readFrom(registry, path, requiredValue, value);
    return state == netRightsUnknown || (state == netRightsGiven && value == "1");
}

bool isLocalAsked()
{
    std::string value;
    return btkEnvironment::GetTrusted(localVariable, value) && value == "1";
}

[[noreturn]] void refuse(netAddress* address, const std::string& why)
{
    netXException::Throw(netConnectionRefused, ("No encrypted connection: " + why).c_str(), address);
}

btkTlsServer expectedOf(netAddress& address, const char* name)
{
    const xstring server = address.getServerName();
    const xstring host = address.getHostName();
    btkTlsServer expected;
    if (name != nullptr)
        expected.name = name;
    else if (!server.isNull())
        expected.name = server.CastToCString();
    if (expected.name.empty())
        expected.host = host.isNull() || host == "" ? "localhost" : host.CastToCString();
    return expected;
}

} // namespace

xstring netGetTlsFolder()
{
    xstring folder;
    if (readFolder(folder) == netRightsUnknown)
        netXException::Throw(netConnectionRefused,
                             "No encrypted connection: the registry's key Software\\VRX\\TLS cannot be read");
    return folder;
}

bool netIsTlsConfigured()
{
    xstring folder;
    return readFolder(folder) != netRightsAbsent;
}

bool netIsTlsRequired(xstring serverName)
{
    const xstring path(netRightsPath, serverName.CastToCString());
    return isRequiredBy(hmxRegistry::System(), path.CastToCString()) ||
           isRequiredBy(hmxRegistry::User(), path.CastToCString());
}

namespace {

// Encrypts a connection if netIsTlsConfigured and the server is on another machine, or QELSTD_TLS_LOCAL is 1; else
// returns the same socket. Null when the server does not respond.
std::unique_ptr<btkStreamSocket> encrypt(std::unique_ptr<btkStreamSocket> socket, netAddress* address,
                                         const char* name, btkTimeval end)
{
    if (socket->IsPeerOnTheSameMachine() && !isLocalAsked())
        return socket;
    const xstring path = netGetTlsFolder();
    if (path.isNull())
        return socket;
    std::string why;
    const std::shared_ptr<btkTlsFolder> folder = btkTlsFolder::Open(path.CastToCString(), why);
    std::unique_ptr<btkTlsSession> session =
        folder == nullptr ? nullptr : folder->Connect(std::move(socket), expectedOf(*address, name), why);
    if (session == nullptr)
        refuse(address, why);
    for (;;) {
        const btkTlsSession::Step step = session->Handshake();
        if (step == btkTlsSession::Step::done)
            break;
        if (step == btkTlsSession::Step::failed)
            refuse(address, session->GetFailure());
        const btkTimeval left = end.IsForever() ? end : end - btkTimeval::Now();
        if (session->GetSocket().btkSocket::Wait(left, step == btkTlsSession::Step::readable ? 1 : 2) <= 0)
            return nullptr;
    }
    std::unique_ptr<btkStreamSocket> encrypted = btkCarry(std::move(session));
    if (encrypted == nullptr)
        refuse(address, "no descriptors are left");
    return encrypted;
}

} // namespace

std::unique_ptr<btkStreamSocket> netReach(netAddress* address, btkTimeval end, const char* name)
{
    std::unique_ptr<btkStreamSocket> socket = netConnect(address, end);
    const btkTimeval answerEnd = end.IsForever() ? netAnswerEnd() : end;
    if (socket != nullptr)
        socket = encrypt(std::move(socket), address, name, answerEnd);
    if (socket != nullptr)
        socket->SetDeadline(answerEnd);
    return socket;
}

btkStreamSocket* netConnectSocket(netAddress* address, double timeout)
{
    return netReach(address, btkTimeval::Now() + btkTimeval(timeout)).release();
}
