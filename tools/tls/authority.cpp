#include "authority.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t longestName = 64;
constexpr std::size_t longestHost = 253;
constexpr const char* lettersAndDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

bool consistsOf(const std::string& text, const char* others, std::size_t longest)
{
    return !text.empty() && text.size() <= longest &&
           text.find_first_not_of(std::string(lettersAndDigits) + others) == std::string::npos;
}

void requireName(const std::string& name)
{
    if (!consistsOf(name, "._-+@", longestName))
        Fail(Exit::usage, name, "a name has 1 to 64 letters, digits and . _ - + @");
}

bool has(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The programs' folder keeps what it has of other authorities.
std::string authoritiesWith(const Folder& target, X509& authority)
{
    std::string all;
    for (const Certificate& one :
         ReadCertificates(target.Read(authoritiesFile), target.PathOf(authoritiesFile)))
        if (X509_cmp(one.get(), &authority) != 0)
            all += PemOf(*one);
    return all + PemOf(authority);
}

std::string listsWith(const Folder& target, X509_CRL& list)
{
    std::string all;
    for (const RevocationList& one : ReadLists(target.Read(listFile), target.PathOf(listFile)))
        if (X509_NAME_cmp(X509_CRL_get_issuer(one.get()), X509_CRL_get_issuer(&list)) != 0)
            all += PemOf(*one);
    return all + PemOf(list);
}

void requireSameName(const Folder& target, const std::string& name)
{
    for (const Certificate& old :
         ReadCertificates(target.Read(certificateFile), target.PathOf(certificateFile)))
        if (const std::vector<std::string> names = NamesOf(*old); !names.empty() && !has(names, name))
            Fail(Exit::no, target.PathOf(certificateFile), "has the name " + names.front());
}

} // namespace

void Authority::Make(const TlsChoices& choices)
{
    const Folder folder = Folder::Make(choices.folder);
    const btkFd lock = folder.Lock();
    if (folder.Has(authorityFile))
        Fail(Exit::no, choices.folder, "has an authority already");
    const Key key = MakeKey();
    const Certificate certificate = MakeAuthority(*key, choices.days);
    static_cast<void>(Folder::Make(folder.PathOf(issuedFolder)));
    folder.Write(authorityKeyFile, PemOf(*key));
    folder.Write(listFile, PemOf(*MakeList(nullptr, {}, choices.listDays, *certificate, *key)));
    folder.Write(authorityFile, PemOf(*certificate));
}

Authority::Authority(const std::string& path) : folder(path)
{
    if (!folder.Has(authorityFile))
        Fail(Exit::no, path, "no authority here; `qel tls init` makes one");
    lock = folder.Lock();
    std::vector<Certificate> certificates =
        ReadCertificates(folder.Read(authorityFile), folder.PathOf(authorityFile));
    if (certificates.empty())
        Fail(Exit::no, folder.PathOf(authorityFile), "no certificate");
    certificate = std::move(certificates.front());
    key = ReadKey(folder.Read(authorityKeyFile), folder.PathOf(authorityKeyFile));
    if (X509_check_private_key(certificate.get(), key.get()) != 1)
        Fail(Exit::no, folder.PathOf(authorityKeyFile), "is not the key of the certificate");
    if (DaysUntil(*X509_get0_notAfter(certificate.get())) < 0)
        Fail(Exit::no, folder.PathOf(authorityFile), "has expired");
    std::vector<RevocationList> lists = ReadLists(folder.Read(listFile), folder.PathOf(listFile));
    if (lists.empty()) // an empty one in its place would forget what has been revoked
        Fail(Exit::no, folder.PathOf(listFile), "no revocation list");
    list = std::move(lists.front());
}

void Authority::Issue(const TlsChoices& choices)
{
    requireName(choices.name);
    for (const std::string& host : choices.hosts)
        if (!consistsOf(host, ".-:", longestHost))
            Fail(Exit::usage, host, "not a name or an address of a machine");
    const Folder target = Folder::Make(choices.targets.front());
    if (target.Has(authorityFile))
        Fail(Exit::usage, target.GetPath(), "is the directory of an authority");
    requireSameName(target, choices.name);
    const std::string authorities = authoritiesWith(target, *certificate);

    const Key made = MakeKey();
    const Certificate issued = MakeCertificate(*made,
                                               {.name = choices.name,
                                                .hosts = choices.hosts,
                                                .isServer = !choices.isClientOnly,
                                                .isClient = !choices.isServerOnly,
                                                .days = choices.days},
                                               *certificate, *key);
    // It is noted before anybody can use it.
    Folder::Make(folder.PathOf(issuedFolder)).Write((SerialOf(*issued) + ".pem").c_str(), PemOf(*issued));
    RenewList(choices.listDays);
    PublishList(target.GetPath());
    target.Write(authoritiesFile, authorities);
    // A program that reads between the two finds that they do not match, and keeps what it has.
    target.Write(keyFile, PemOf(*made));
    target.Write(certificateFile, PemOf(*issued));
}

int Authority::Revoke(const std::string& name, int listDays)
{
    std::vector<Certificate> revoked;
    const Folder issued(folder.PathOf(issuedFolder));
    for (const std::string& file : issued.List())
        if (file.ends_with(".pem"))
            for (Certificate& one : ReadCertificates(issued.Read(file.c_str()), issued.PathOf(file.c_str())))
                if (has(NamesOf(*one), name) && DaysUntil(*X509_get0_notAfter(one.get())) >= 0 &&
                    !IsRevokedBy(*list, *one))
                    revoked.push_back(std::move(one));
    if (!revoked.empty())
        renewList(revoked, listDays);
    return static_cast<int>(revoked.size());
}

void Authority::PublishList(const std::string& path) const
{
    const Folder target(path);
    target.Write(listFile, listsWith(target, *list));
}

void Authority::renewList(const std::vector<Certificate>& revoked, int days)
{
    list = MakeList(list.get(), revoked, days, *certificate, *key);
    folder.Write(listFile, PemOf(*list));
}
