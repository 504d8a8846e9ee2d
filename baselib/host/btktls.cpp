#include "btktls.h"

#include <dlfcn.h>
#include <map>
#include <mutex>

#include <qel/base/btktunnel.h>

namespace {

class TunnelCarrier final : public btkCarrier
{
public:
    explicit TunnelCarrier(const btkStreamSocket& connection) : btkCarrier(connection) {}
    ~TunnelCarrier() override { tunnel.Leave(); }
    std::string GetFailure(btkTimeval limit) override { return tunnel.GetFailure(limit); }

    btkTunnel tunnel;
};

// The library lies beside this one: nothing else decides which one is loaded.
std::string libraryPath()
{
    Dl_info own = {};
    if (dladdr(reinterpret_cast<const void*>(&libraryPath), &own) == 0 || own.dli_fname == nullptr)
        return {};
    const std::string path = own.dli_fname;
    return path.substr(0, path.rfind('/') + 1) + "libqelstd-tls.so.0";
}

btkTlsEntry load(std::string& why)
{
    // Never unloaded: OpenSSL frees what it has for a thread when the thread exits.
    void* const library = dlopen(libraryPath().c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    void* const entry = library != nullptr ? dlsym(library, btkTlsEntryName) : nullptr;
    const char* const failure = entry == nullptr ? dlerror() : nullptr;
    if (entry == nullptr)
        why = failure != nullptr ? failure : "libqelstd-tls cannot be used";
    return reinterpret_cast<btkTlsEntry>(entry);
}

} // namespace

btkTlsSession::~btkTlsSession() = default;
btkTlsFolder::~btkTlsFolder() = default;

std::shared_ptr<btkTlsFolder> btkTlsFolder::Open(const std::string& path, std::string& why)
{
    struct Opened
    {
        std::mutex mutex;
        std::map<std::string, std::shared_ptr<btkTlsFolder>> folders;
        btkTlsEntry entry = nullptr;
    };
    static Opened* const opened = new Opened; // for threads that outlive every static
    const std::lock_guard<std::mutex> lock(opened->mutex);
    const auto known = opened->folders.find(path);
    if (known != opened->folders.end())
        return known->second;
    if (opened->entry == nullptr)
        opened->entry = load(why);
    if (opened->entry == nullptr)
        return nullptr;
    std::shared_ptr<btkTlsFolder> made(opened->entry(path.c_str(), why));
    if (made != nullptr)
        opened->folders.emplace(path, made);
    return made;
}

std::unique_ptr<btkStreamSocket> btkCarry(std::unique_ptr<btkTlsSession> session)
{
    auto carrier = std::make_unique<TunnelCarrier>(session->GetSocket());
    carrier->peerNames = session->GetPeerNames();
    std::unique_ptr<btkStreamSocket> near = carrier->tunnel.Open(std::move(session));
    if (near != nullptr)
        near->SetCarrier(std::move(carrier));
    return near;
}
