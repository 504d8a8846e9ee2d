#pragma once

#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "support/tempdir.h"

/// The contents of a certificate of a test.
struct CertificateWish
{
    std::string names =
        "URI:qel://tester,DNS:localhost,IP:127.0.0.1"; // as in OpenSSL's configuration; may be empty
    std::string usage = "clientAuth,serverAuth";       // may be empty
    long from = -3600;                                 // seconds from now
    long until = 86400;
    std::string commonName = "localhost";
    bool isAuthority = false;
};

/// A certificate in PEM form, with those between it and an authority, and its key.
struct TestCertificate
{
    std::string chain;
    std::string key;
    long number;
};

/// An authority that signs certificates and lists the revoked ones. Elliptic curve keys, for speed.
class TestAuthority
{
public:
    explicit TestAuthority(const std::string& name = "authority") : key(makeKey())
    {
        CertificateWish wish;
        wish.names.clear();
        wish.usage.clear();
        wish.commonName = name;
        wish.isAuthority = true;
        certificate = sign(wish, *key, nullptr);
    }

    std::string getCertificate() const
    {
        return pem([&](BIO* to) { PEM_write_bio_X509(to, certificate.get()); });
    }
    TestCertificate issue(const CertificateWish& wish = {})
    {
        const Owned<EVP_PKEY> own = makeKey();
        const Owned<X509> made = sign(wish, *own, certificate.get());
        return {pem([&](BIO* to) { PEM_write_bio_X509(to, made.get()); }), pem([&](BIO* to) {
                    PEM_write_bio_PrivateKey(to, own.get(), nullptr, nullptr, 0, nullptr, nullptr);
                }),
                last};
    }
    /// The list of the revoked certificates, which holds for `until` seconds from now.
    std::string list(const std::vector<long>& revoked = {}, long until = 86400) const
    {
        const Owned<X509_CRL> made(X509_CRL_new());
        X509_CRL_set_version(made.get(), 1);
        X509_CRL_set_issuer_name(made.get(), X509_get_subject_name(certificate.get()));
        const Owned<ASN1_TIME> from(X509_gmtime_adj(nullptr, until < 0 ? until - 3600 : -3600));
        const Owned<ASN1_TIME> end(X509_gmtime_adj(nullptr, until));
        X509_CRL_set1_lastUpdate(made.get(), from.get());
        X509_CRL_set1_nextUpdate(made.get(), end.get());
        for (const long number : revoked) {
            X509_REVOKED* const one = X509_REVOKED_new();
            const Owned<ASN1_INTEGER> serial(ASN1_INTEGER_new());
            ASN1_INTEGER_set(serial.get(), number);
            X509_REVOKED_set_serialNumber(one, serial.get());
            X509_REVOKED_set_revocationDate(one, from.get());
            X509_CRL_add0_revoked(made.get(), one);
        }
        X509_CRL_sort(made.get());
        X509_CRL_sign(made.get(), key.get(), EVP_sha256());
        return pem([&](BIO* to) { PEM_write_bio_X509_CRL(to, made.get()); });
    }

    /// Writes a folder of certificates.
    void fill(const TempDir& dir, const std::string& folder, const TestCertificate& own) const
    {
        dir.write(folder + "/authorities.pem", getCertificate());
        dir.write(folder + "/certificate.pem", own.chain);
        dir.write(folder + "/revoked.pem", list());
        dir.write(folder + "/key.pem", own.key);
        chmod(dir.path(folder + "/key.pem"), 0600);
    }

private:
    struct Free
    {
        void operator()(EVP_PKEY* one) const { EVP_PKEY_free(one); }
        void operator()(X509* one) const { X509_free(one); }
        void operator()(X509_CRL* one) const { X509_CRL_free(one); }
        void operator()(ASN1_TIME* one) const { ASN1_STRING_free(one); }
        void operator()(X509_EXTENSION* one) const { X509_EXTENSION_free(one); }
        void operator()(BIO* one) const { BIO_free(one); }
    };
    template<class T>
    using Owned = std::unique_ptr<T, Free>;

    static Owned<EVP_PKEY> makeKey() { return Owned<EVP_PKEY>(EVP_EC_gen("P-256")); }

    template<class Write>
    static std::string pem(Write write)
    {
        const Owned<BIO> to(BIO_new(BIO_s_mem()));
        write(to.get());
        char* bytes = nullptr;
        const long size = BIO_get_mem_data(to.get(), &bytes);
        return {bytes, static_cast<std::size_t>(size)};
    }

    static void extend(X509& made, X509* issuer, int kind, const std::string& value)
    {
        if (value.empty())
            return;
        X509V3_CTX context;
        X509V3_set_ctx(&context, issuer != nullptr ? issuer : &made, &made, nullptr, nullptr, 0);
        const Owned<X509_EXTENSION> one(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
        if (one == nullptr || X509_add_ext(&made, one.get(), -1) != 1)
            throw std::invalid_argument(value);
    }

    // `issuer`: null for the authority's own.
    Owned<X509> sign(const CertificateWish& wish, EVP_PKEY& of, X509* issuer)
    {
        Owned<X509> made(X509_new());
        X509_set_version(made.get(), 2);
        ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++last);
        X509_gmtime_adj(X509_getm_notBefore(made.get()), wish.from);
        X509_gmtime_adj(X509_getm_notAfter(made.get()), wish.until);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(wish.commonName.c_str()), -1, -1,
                                   0);
        X509_set_issuer_name(made.get(), X509_get_subject_name(issuer != nullptr ? issuer : made.get()));
        X509_set_pubkey(made.get(), &of);
        extend(*made, issuer, NID_basic_constraints,
               wish.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
        extend(*made, issuer, NID_key_usage,
               wish.isAuthority ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
        extend(*made, issuer, NID_ext_key_usage, wish.usage);
        extend(*made, issuer, NID_subject_alt_name, wish.names);
        X509_sign(made.get(), key.get(), EVP_sha256());
        return made;
    }

    Owned<EVP_PKEY> key;
    Owned<X509> certificate;
    long last = 0;
};
