#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "tlssession.h"

class TlsFolder final : public btkTlsFolder
{
public:
    explicit TlsFolder(std::string folder) : path(std::move(folder)) {}

    /// Reads the files for the first time. False, with the reason in `why`, when they cannot be used.
    bool Load(std::string& why);

    std::unique_ptr<btkTlsSession> Accept(std::unique_ptr<btkStreamSocket> socket, std::string& why) override;
    std::unique_ptr<btkTlsSession> Connect(std::unique_ptr<btkStreamSocket> socket, const btkTlsServer& to,
                                           std::string& why) override;

private:
    enum File { authorities, certificate, key, revoked, fileCount };
    /// Of a file; a change of its contents changes it.
    struct Stamp
    {
        std::uint64_t device, node;
        std::int64_t size, modified, changed;
        bool operator==(const Stamp&) const = default;
    };
    using Stamps = std::array<Stamp, fileCount>;

    std::string GetPath(File file) const;
    Stamps GetStamps() const;
    std::shared_ptr<SSL_CTX> Read(std::string& why) const;
    bool ReadFile(File file, std::string& to, std::string& why) const;
    /// The present files, read anew if they have changed.
    std::shared_ptr<SSL_CTX> GetCurrent();
    std::unique_ptr<btkTlsSession> Begin(std::unique_ptr<btkStreamSocket> socket, TlsRole role,
                                         const btkTlsServer& to, std::string& why);

    std::string path;
    std::mutex mutex;
    Stamps stamps = {}; // of the last attempt
    std::shared_ptr<SSL_CTX> context;
};
