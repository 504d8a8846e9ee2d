#pragma once

#include <string>
#include <vector>

#include "folder.h"
#include "pki.h"
#include "tls.h"

/// An authority in a folder of its own. While the object lives, no other process uses the folder. Everything that
/// fails throws CommandFailed.
class Authority
{
public:
    /// Makes one. The folder must have none.
    static void Make(const TlsChoices& choices);
    /// Opens the one in that folder.
    explicit Authority(const std::string& path);

    /// Makes a key and a certificate, and puts them into the target's folder.
    void Issue(const TlsChoices& choices);
    /// Revokes all certificates of that name that have not expired. Returns their number; 0: nothing has changed.
    int Revoke(const std::string& name, int listDays);
    void RenewList(int listDays) { renewList({}, listDays); }
    /// Puts the list into a program's folder.
    void PublishList(const std::string& path) const;

private:
    void renewList(const std::vector<Certificate>& revoked, int days);

    Folder folder;
    btkFd lock;
    Certificate certificate;
    Key key;
    RevocationList list; // null: it is missing
};
