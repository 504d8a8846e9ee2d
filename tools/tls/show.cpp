#include "show.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include "folder.h"
#include "pki.h"

namespace {

constexpr int fewDays = 14;

// The rows of the table, and whether all of it can be used.
class View
{
public:
    explicit View(const Folder& shown) : folder(shown) {}

    void AddLists()
    {
        lists = ReadLists(folder.Read(listFile), folder.PathOf(listFile));
        for (const RevocationList& list : lists) {
            const int count = sk_X509_REVOKED_num(X509_CRL_get_REVOKED(list.get()));
            add(listFile, "list of " + std::to_string(std::max(count, 0)), {IssuerOf(*list)},
                *X509_CRL_get0_lastUpdate(list.get()), *X509_CRL_get0_nextUpdate(list.get()), false);
        }
        if (lists.empty())
            addMissing(listFile, "list");
    }
    void AddCertificates(const Folder& from, const std::string& file, const char* kind)
    {
        const std::string shown = &from == &folder ? file : std::string(issuedFolder) + '/' + file;
        const std::vector<Certificate> all =
            ReadCertificates(from.Read(file.c_str()), from.PathOf(file.c_str()));
        for (const Certificate& one : all) {
            const bool isAuthority = X509_check_ca(one.get()) != 0;
            std::vector<std::string> names = isAuthority ? std::vector{SubjectOf(*one)} : NamesOf(*one);
            for (const std::string& host : isAuthority ? std::vector<std::string>() : HostsOf(*one))
                names.push_back(host);
            bool isRevoked = false;
            for (const RevocationList& list : lists)
                isRevoked = isRevoked || IsRevokedBy(*list, *one);
            add(shown, kind, names, *X509_get0_notBefore(one.get()), *X509_get0_notAfter(one.get()),
                isRevoked, &from != &folder);
        }
        if (all.empty())
            addMissing(shown, kind);
    }
    void AddKey(const char* file, const char* certificate)
    {
        const std::string text = folder.Read(file);
        if (text.empty())
            return addMissing(file, "key");
        const Key key = ReadKey(text, folder.PathOf(file));
        const std::vector<Certificate> owners =
            ReadCertificates(folder.Read(certificate), folder.PathOf(certificate));
        const bool isMatch = !owners.empty() && X509_check_private_key(owners.front().get(), key.get()) == 1;
        using std::filesystem::perms;
        const bool isPrivate = (std::filesystem::status(folder.PathOf(file)).permissions() &
                                (perms::group_all | perms::others_all)) == perms::none;
        ERR_clear_error();
        addState(file, "key",
                 !isMatch    ? "not of the certificate"
                 : isPrivate ? "valid"
                             : "open to others",
                 isMatch && isPrivate);
    }
    void Print() const
    {
        Show(rows);
        std::cout.flush();
        for (const std::string& warning : warnings)
            std::cerr << "qel tls show: " << Printable(warning) << std::endl;
        if (!isUsable)
            AnswerNo();
    }

private:
    void add(const std::string& file, const std::string& kind, const std::vector<std::string>& names,
             const ASN1_TIME& from, const ASN1_TIME& until, bool isRevoked, bool isHistory = false)
    {
        const int days = DaysUntil(until);
        const bool isEarly = DaysUntil(from) > 0;
        rows.push_back({{"file", file},
                        {"kind", kind},
                        {"state", isRevoked  ? "revoked"
                                  : days < 0 ? "expired"
                                  : isEarly  ? "not valid yet"
                                             : "valid"},
                        {"from", TextOf(from)},
                        {"until", TextOf(until)},
                        {"days", days},
                        {"names", names}});
        if (isHistory)
            return;
        if (!isRevoked && days >= 0 && days <= fewDays)
            warnings.push_back(file + ": " + std::to_string(days) + " days left");
        isUsable = isUsable && !isRevoked && days >= 0 && !isEarly;
    }
    void addState(const std::string& file, const std::string& kind, const char* state, bool isGood)
    {
        rows.push_back({{"file", file}, {"kind", kind}, {"state", state}});
        isUsable = isUsable && isGood;
    }
    void addMissing(const std::string& file, const std::string& kind)
    {
        addState(file, kind, "missing", false);
    }

    const Folder& folder;
    Json rows = Json::array();
    std::vector<RevocationList> lists;
    std::vector<std::string> warnings;
    bool isUsable = true;
};

} // namespace

void ShowFolder(const std::string& path)
{
    const Folder folder(path);
    View view(folder);
    view.AddLists();
    if (folder.Has(authorityFile)) {
        view.AddCertificates(folder, authorityFile, "authority");
        view.AddKey(authorityKeyFile, authorityFile);
        const Folder issued(folder.PathOf(issuedFolder));
        for (const std::string& file : issued.List())
            view.AddCertificates(issued, file, "certificate");
    } else {
        view.AddCertificates(folder, authoritiesFile, "authority");
        view.AddCertificates(folder, certificateFile, "certificate");
        view.AddKey(keyFile, certificateFile);
    }
    view.Print();
}
