#include "tlsfolder.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

#include <qel/base/btkenvironment.h>
#include <qel/base/btktrace.h>

namespace {

constexpr std::array fileNames = {"authorities.pem", "certificate.pem", "key.pem", "revoked.pem"};
// A list of revoked certificates may be long.
constexpr std::size_t longestFile = 64 << 20;

// Never asks at the terminal.
int noPassword(char*, int, int, void*)
{
    return -1;
}

TlsOwned<BIO> bioOf(const std::string& text)
{
    return TlsOwned<BIO>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Whether the last object of a file was followed by no other, not by a broken one.
bool isAtEnd()
{
    const bool isIt = ERR_GET_LIB(ERR_peek_last_error()) == ERR_LIB_PEM &&
                      ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    ERR_clear_error();
    return isIt;
}

// Calls `use` for each object that `read` finds in a file. False when there is none, one is broken, or `use` fails.
template<class Read, class Use>
bool forEach(const std::string& text, Read read, Use use)
{
    const TlsOwned<BIO> bio = bioOf(text);
    int count = 0;
    ERR_clear_error();
    for (; bio != nullptr; ++count) {
        const TlsOwned<std::remove_pointer_t<decltype(read(bio.get(), nullptr, noPassword, nullptr))>> one(
            read(bio.get(), nullptr, noPassword, nullptr));
        if (one == nullptr)
            return isAtEnd() && count > 0;
        if (!use(*one))
            return false;
    }
    return false;
}

bool isOfThisUser(const struct stat& status)
{
    return status.st_uid == geteuid() || status.st_uid == 0;
}

// Whether that is the folder of the credentials that a service manager passes to this process, and closed to others.
// There an access list lets the service's user read, which looks like a right of the group.
bool hasCredentials(const std::string& folder)
{
    std::string given;
    struct stat status = {}, found = {};
    return btkEnvironment::GetTrusted("CREDENTIALS_DIRECTORY", given) && stat(given.c_str(), &status) == 0 &&
           stat(folder.c_str(), &found) == 0 && status.st_dev == found.st_dev &&
           status.st_ino == found.st_ino && isOfThisUser(status) &&
           (status.st_mode & (S_IWGRP | S_IRWXO)) == 0;
}

// Whether nobody but this user and the superuser can read a key.
bool isPrivate(const struct stat& status, const std::string& folder)
{
    const mode_t others = status.st_mode & (S_IRWXG | S_IRWXO);
    return isOfThisUser(status) && (others == 0 || (others == S_IRGRP && hasCredentials(folder)));
}

} // namespace

std::string TlsFolder::GetPath(File file) const
{
    return path + '/' + fileNames[file];
}

TlsFolder::Stamps TlsFolder::GetStamps() const
{
    Stamps found = {};
    for (int i = 0; i < fileCount; ++i) {
        struct stat status = {};
        if (stat(GetPath(static_cast<File>(i)).c_str(), &status) != 0)
            continue;
        const auto nanoseconds = [](const timespec& time) {
            return time.tv_sec * 1000000000LL + time.tv_nsec;
        };
        found[static_cast<std::size_t>(i)] = {status.st_dev, status.st_ino, status.st_size,
                                              nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
    }
    return found;
}

bool TlsFolder::ReadFile(File file, std::string& to, std::string& why) const
{
    const std::string name = GetPath(file);
    const auto fail = [&](const std::string& reason) {
        why = name + ": " + reason;
        return false;
    };
    const btkFd opened(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!opened || fstat(opened.Get(), &status) != 0)
        return fail(std::strerror(errno));
    if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > longestFile)
        return fail("it is no file, or too large");
    if (file == key && !isPrivate(status, path))
        return fail("it must have the mode 0600, and belong to this user or to root");
    to.resize(static_cast<std::size_t>(status.st_size));
    const std::ptrdiff_t count = btkReadAt(opened.Get(), to.data(), to.size(), 0);
    if (count < 0)
        return fail(std::strerror(errno));
    to.resize(static_cast<std::size_t>(count));
    return true;
}

std::shared_ptr<SSL_CTX> TlsFolder::Read(std::string& why) const
{
    std::shared_ptr<SSL_CTX> made(SSL_CTX_new(TLS_method()), TlsFree());
    if (made == nullptr || !TlsSession::Prepare(*made)) {
        why = "OpenSSL has no TLS 1.3";
        return nullptr;
    }
    X509_STORE* const store = SSL_CTX_get_cert_store(made.get());
    X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    TlsOwned<EVP_PKEY> privateKey;
    const auto use = [&](File file, auto parse) {
        std::string text;
        if (!ReadFile(file, text, why))
            return false;
        const bool isGood = parse(text);
        if (file == key)
            OPENSSL_cleanse(text.data(), text.size());
        if (!isGood)
            why = GetPath(file) + ": it is not valid";
        return isGood;
    };
    const bool isComplete =
        use(authorities,
            [&](const std::string& text) {
                return forEach(text, &PEM_read_bio_X509,
                               [&](X509& one) { return X509_STORE_add_cert(store, &one) == 1; });
            }) &&
        use(certificate,
            [&](const std::string& text) {
                bool isFirst = true;
                return forEach(text, &PEM_read_bio_X509, [&](X509& one) {
                    return (std::exchange(isFirst, false) ? SSL_CTX_use_certificate(made.get(), &one)
                                                          : SSL_CTX_add1_chain_cert(made.get(), &one)) == 1;
                });
            }) &&
        use(key,
            [&](const std::string& text) {
                const TlsOwned<BIO> bio = bioOf(text);
                privateKey.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr));
                return privateKey != nullptr;
            }) &&
        use(revoked, [&](const std::string& text) {
            return forEach(text, &PEM_read_bio_X509_CRL,
                           [&](X509_CRL& one) { return X509_STORE_add_crl(store, &one) == 1; });
        });
    ERR_clear_error();
    if (!isComplete)
        return nullptr;
    if (SSL_CTX_use_PrivateKey(made.get(), privateKey.get()) != 1) {
        why = GetPath(key) + ": it is not the key of the certificate";
        ERR_clear_error();
        return nullptr;
    }
    return made;
}

bool TlsFolder::Load(std::string& why)
{
    const std::lock_guard<std::mutex> lock(mutex);
    stamps = GetStamps();
    context = Read(why);
    return context != nullptr;
}

std::shared_ptr<SSL_CTX> TlsFolder::GetCurrent()
{
    const std::lock_guard<std::mutex> lock(mutex);
    const Stamps now = GetStamps();
    if (now == stamps)
        return context;
    stamps = now;
    std::string why;
    if (std::shared_ptr<SSL_CTX> made = Read(why)) {
        context = std::move(made);
        btkLog(btkLevel::info, "TLS: the certificates in " + path + " were read anew");
    } else {
        btkLog(btkLevel::error, "TLS: " + why + "; the certificates of before stay in use");
    }
    return context;
}

std::unique_ptr<btkTlsSession> TlsFolder::Begin(std::unique_ptr<btkStreamSocket> socket, TlsRole role,
                                                const btkTlsServer& to, std::string& why)
{
    const std::shared_ptr<SSL_CTX> current = GetCurrent();
    std::unique_ptr<btkTlsSession> made = TlsSession::Create(*current, std::move(socket), role, to);
    if (made == nullptr)
        why = "no memory is left";
    return made;
}

std::unique_ptr<btkTlsSession> TlsFolder::Accept(std::unique_ptr<btkStreamSocket> socket, std::string& why)
{
    return Begin(std::move(socket), TlsRole::server, {}, why);
}

std::unique_ptr<btkTlsSession> TlsFolder::Connect(std::unique_ptr<btkStreamSocket> socket,
                                                  const btkTlsServer& to, std::string& why)
{
    return Begin(std::move(socket), TlsRole::client, to, why);
}

/// Returns a new folder; null, with the reason in `why`, when it cannot be used.
extern "C" BASE_API btkTlsFolder* qel_tls_open_2(const char* path, std::string& why);

extern "C" btkTlsFolder* qel_tls_open_2(const char* path, std::string& why)
try {
    // Threads of this process may still use OpenSSL while the process exits.
    OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr);
    auto made = std::make_unique<TlsFolder>(path);
    return made->Load(why) ? made.release() : nullptr;
} catch (const std::bad_alloc&) {
    return nullptr;
}
