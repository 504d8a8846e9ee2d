#pragma once

#include <string>
#include <vector>

#include <qel/base/btkfd.h>

// Folders with keys, certificates and lists. Everything that fails throws CommandFailed.

/// The files of a program's folder.
inline constexpr const char* authoritiesFile = "authorities.pem";
inline constexpr const char* certificateFile = "certificate.pem";
inline constexpr const char* keyFile = "key.pem";
/// Of an authority's folder, too.
inline constexpr const char* listFile = "revoked.pem";
/// The other files of an authority's folder, and its folder with the certificates that it has made, each with its
/// serial number as its name.
inline constexpr const char* authorityFile = "authority.pem";
inline constexpr const char* authorityKeyFile = "authority-key.pem";
inline constexpr const char* issuedFolder = "issued";

class Folder
{
public:
    /// Opens an existing folder.
    explicit Folder(std::string path);
    /// Opens it; makes it for this user only if it is missing.
    static Folder Make(const std::string& path);

    const std::string& GetPath() const { return path; }
    std::string PathOf(const char* name) const { return path + '/' + name; }
    bool Has(const char* name) const;
    /// The content of a file; empty when it is missing.
    std::string Read(const char* name) const;
    /// Replaces the file, or creates it, in one step, for its owner only: the user, or, if the superuser writes, the
    /// owner of the folder.
    void Write(const char* name, const std::string& content) const;
    /// Waits until no other process holds it, and holds it until the descriptor is closed.
    btkFd Lock() const;
    /// The names of its files.
    std::vector<std::string> List() const;

private:
    std::string path;
    btkFd handle;
};
