#include "btktls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <mutex>

#include <qel/base/btkcarrier.h>

namespace {

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
    // Another descriptor of the connection, so that the user closes its own before the session has sent the end.
    btkFd connected(fcntl(session->GetSocket().GetHandle(), F_DUPFD_CLOEXEC, 0));
    if (!connected)
        return nullptr;
    const btkStreamSocket& from = session->GetSocket();
    const std::vector<std::string> names = session->GetPeerNames();
    auto made = std::make_unique<btkStreamSocket>();
    auto carrier = std::make_unique<btkCarrier>(std::move(session), names, from);
    made->Encrypt(std::move(connected), from, std::move(carrier));
    return made;
}
