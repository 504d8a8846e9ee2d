#pragma once

#include <memory>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <string>
#include <vector>

#include "output.h"

// Keys, certificates and revocation lists, as OpenSSL has them. Everything that fails throws CommandFailed.

template<auto free>
struct FreedBy
{
    void operator()(auto* freed) const { free(freed); }
};
using Key = std::unique_ptr<EVP_PKEY, FreedBy<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, FreedBy<X509_free>>;
using RevocationList = std::unique_ptr<X509_CRL, FreedBy<X509_CRL_free>>;

/// The contents of a certificate beside its key and authority.
struct CertificateContent
{
    std::string name;
    std::vector<std::string> hosts; // names and addresses of machines
    bool isServer = true;
    bool isClient = true;
    int days = 0;
};

/// A new key, on the curve P-256.
Key MakeKey();
/// An authority's certificate, signed by itself.
Certificate MakeAuthority(EVP_PKEY& key, int days);
/// A certificate for `key` with a new serial number, valid no longer than the authority's.
Certificate MakeCertificate(EVP_PKEY& key, const CertificateContent& content, X509& authority,
                            EVP_PKEY& authorityKey);
/// A list that revokes what `last`, which may be null, does, and `certificates`.
RevocationList MakeList(X509_CRL* last, const std::vector<Certificate>& certificates, int days,
                        X509& authority, EVP_PKEY& authorityKey);

std::string PemOf(EVP_PKEY& key);
std::string PemOf(X509& certificate);
std::string PemOf(X509_CRL& list);
/// The items of that kind in a text; others in it are skipped. `place` is named when the text is damaged.
Key ReadKey(const std::string& pem, const std::string& place);
std::vector<Certificate> ReadCertificates(const std::string& pem, const std::string& place);
std::vector<RevocationList> ReadLists(const std::string& pem, const std::string& place);

/// The subject of an authority, in one line.
std::string SubjectOf(const X509& certificate);
std::string IssuerOf(const X509_CRL& list);
/// The serial number, in hexadecimal.
std::string SerialOf(const X509& certificate);
/// The names that count: those of URIs qel://NAME.
std::vector<std::string> NamesOf(X509& certificate);
/// The names and addresses of machines.
std::vector<std::string> HostsOf(X509& certificate);
bool IsRevokedBy(X509_CRL& list, X509& certificate);

/// In UTC: 2026-11-26T19:00:00Z.
std::string TextOf(const ASN1_TIME& time);
/// The days from now, of which a begun one counts; negative for a time in the past.
int DaysUntil(const ASN1_TIME& time);
