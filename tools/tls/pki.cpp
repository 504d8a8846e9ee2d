#include "pki.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

namespace {

constexpr const char* scheme = "qel://";
constexpr int serialBytes = 16;
// Machines whose clocks are late accept what was made just now.
constexpr long clockDifference = 300; // seconds
constexpr long secondsOfDay = 86400;

using Text = std::unique_ptr<BIO, FreedBy<BIO_free_all>>;
using Number = std::unique_ptr<ASN1_INTEGER, FreedBy<ASN1_INTEGER_free>>;
using Time = std::unique_ptr<ASN1_TIME, FreedBy<ASN1_TIME_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, FreedBy<X509_EXTENSION_free>>;
using Names = std::unique_ptr<GENERAL_NAMES, FreedBy<GENERAL_NAMES_free>>;

[[noreturn]] void failOf(const std::string& what)
{
    const unsigned long error = ERR_peek_last_error();
    const char* const reason = error == 0 ? nullptr : ERR_reason_error_string(error);
    ERR_clear_error();
    Fail(Exit::peer, what, reason == nullptr ? "failed" : reason);
}

void require(bool isDone, const char* what)
{
    if (!isDone)
        failOf(what);
}

Time timeIn(long seconds)
{
    Time time(X509_gmtime_adj(nullptr, seconds));
    require(time != nullptr, "time");
    return time;
}

Number newSerial()
{
    std::array<unsigned char, serialBytes> bytes;
    require(RAND_bytes(bytes.data(), serialBytes) == 1, "random numbers");
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7F) | 0x40); // positive, and always of this length
    const std::unique_ptr<BIGNUM, FreedBy<BN_free>> number(BN_bin2bn(bytes.data(), serialBytes, nullptr));
    Number serial(number == nullptr ? nullptr : BN_to_ASN1_INTEGER(number.get(), nullptr));
    require(serial != nullptr, "serial number");
    return serial;
}

Extension makeExtension(X509V3_CTX& context, int kind, const std::string& value)
{
    Extension extension(X509V3_EXT_nconf_nid(nullptr, &context, kind, value.c_str()));
    if (extension == nullptr)
        failOf(value);
    return extension;
}

struct ExtensionText
{
    int kind;
    std::string value;
};

Certificate makeCertificate(EVP_PKEY& key, X509_NAME* subject, const ASN1_TIME& end,
                            const std::vector<ExtensionText>& extensions, X509* authority,
                            EVP_PKEY& authorityKey)
{
    Certificate made(X509_new());
    X509* const it = made.get();
    X509* const issuer = authority == nullptr ? it : authority;
    require(it != nullptr && X509_set_version(it, X509_VERSION_3) == 1 &&
                X509_set_serialNumber(it, newSerial().get()) == 1 &&
                X509_set_subject_name(it, subject) == 1 &&
                X509_set_issuer_name(it, X509_get_subject_name(issuer)) == 1 &&
                X509_set1_notBefore(it, timeIn(-clockDifference).get()) == 1 &&
                X509_set1_notAfter(it, &end) == 1 && X509_set_pubkey(it, &key) == 1,
            "certificate");
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, it, nullptr, nullptr, 0);
    for (const auto& [kind, value] : extensions)
        require(X509_add_ext(it, makeExtension(context, kind, value).get(), -1) == 1, "certificate");
    require(X509_sign(it, &authorityKey, EVP_sha256()) > 0, "certificate");
    return made;
}

template<class Item>
std::string pemOf(Item& item, int (*write)(BIO*, Item*))
{
    const Text text(BIO_new(BIO_s_mem()));
    require(text != nullptr && write(text.get(), &item) == 1, "PEM");
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

// Encrypted PEM is damaged for this program: nobody is there to be asked for the password.
int noPassword(char*, int, int, void*)
{
    return -1;
}

// Calls `read` until there is no further item of its kind in the text.
template<class Owner, class Item>
std::vector<Owner> readAll(const std::string& pem, const std::string& place,
                           Item* (*read)(BIO*, Item**, pem_password_cb*, void*))
{
    const Text text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    require(text != nullptr, "PEM");
    std::vector<Owner> items;
    ERR_clear_error();
    while (Item* const item = read(text.get(), nullptr, &noPassword, nullptr))
        items.emplace_back(item);
    if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE)
        failOf(place);
    ERR_clear_error();
    return items;
}

std::string lineOf(const X509_NAME* name)
{
    const Text text(BIO_new(BIO_s_mem()));
    require(text != nullptr && X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_RFC2253) >= 0, "name");
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

std::string textOf(const ASN1_STRING& text)
{
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(&text)),
            static_cast<std::size_t>(ASN1_STRING_length(&text))};
}

std::string addressOf(const ASN1_OCTET_STRING& address)
{
    const std::string bytes = textOf(address);
    const bool isShort = bytes.size() == 4;
    std::string text;
    char part[8];
    for (std::size_t i = 0; i < bytes.size(); i += isShort ? 1 : 2) {
        const auto byte = [&](std::size_t at) {
            return static_cast<unsigned>(static_cast<unsigned char>(bytes[at]));
        };
        if (isShort)
            std::snprintf(part, sizeof part, "%u", byte(i));
        else
            std::snprintf(part, sizeof part, "%x", byte(i) << 8 | (i + 1 < bytes.size() ? byte(i + 1) : 0));
        text.append(text.empty() ? "" : isShort ? "." : ":").append(part);
    }
    return text;
}

Names alternativeNames(X509& certificate)
{
    return Names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)));
}

// The number of a list is the last one's and 1.
Number numberAfter(X509_CRL* last)
{
    Number number(last == nullptr ? nullptr
                                  : static_cast<ASN1_INTEGER*>(
                                        X509_CRL_get_ext_d2i(last, NID_crl_number, nullptr, nullptr)));
    std::int64_t value = 0;
    if (number == nullptr)
        number.reset(ASN1_INTEGER_new());
    else
        require(ASN1_INTEGER_get_int64(&value, number.get()) == 1, "number of the list");
    require(number != nullptr && ASN1_INTEGER_set_int64(number.get(), value + 1) == 1, "number of the list");
    return number;
}

void copyEntries(X509_CRL& list, X509_CRL* last)
{
    STACK_OF(X509_REVOKED)* const entries = last == nullptr ? nullptr : X509_CRL_get_REVOKED(last);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i)
        require(X509_CRL_add0_revoked(&list, X509_REVOKED_dup(sk_X509_REVOKED_value(entries, i))) == 1,
                "list");
}

void addEntry(X509_CRL& list, const X509& certificate)
{
    std::unique_ptr<X509_REVOKED, FreedBy<X509_REVOKED_free>> entry(X509_REVOKED_new());
    const Number serial(ASN1_INTEGER_dup(X509_get0_serialNumber(&certificate)));
    require(entry != nullptr && X509_REVOKED_set_serialNumber(entry.get(), serial.get()) == 1 &&
                X509_REVOKED_set_revocationDate(entry.get(), timeIn(0).get()) == 1 &&
                X509_CRL_add0_revoked(&list, entry.get()) == 1,
            "list");
    static_cast<void>(entry.release());
}

} // namespace

Key MakeKey()
{
    Key key(EVP_EC_gen("P-256"));
    require(key != nullptr, "key");
    return key;
}

Certificate MakeAuthority(EVP_PKEY& key, int days)
{
    // The number tells it from other authorities.
    std::array<unsigned char, 4> number;
    require(RAND_bytes(number.data(), number.size()) == 1, "random numbers");
    char text[32];
    std::snprintf(text, sizeof text, "qel authority %02x%02x%02x%02x", number[0], number[1], number[2],
                  number[3]);
    const std::unique_ptr<X509_NAME, FreedBy<X509_NAME_free>> subject(X509_NAME_new());
    require(subject != nullptr &&
                X509_NAME_add_entry_by_txt(subject.get(), "CN", MBSTRING_UTF8,
                                           reinterpret_cast<const unsigned char*>(text), -1, -1, 0) == 1,
            "name");
    return makeCertificate(key, subject.get(), *timeIn(days * secondsOfDay),
                           {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                            {NID_key_usage, "critical,keyCertSign,cRLSign"},
                            {NID_subject_key_identifier, "hash"}},
                           nullptr, key);
}

Certificate MakeCertificate(EVP_PKEY& key, const CertificateContent& content, X509& authority,
                            EVP_PKEY& authorityKey)
{
    std::string names = "critical,URI:" + (scheme + content.name);
    for (const std::string& host : content.hosts) {
        const std::unique_ptr<ASN1_OCTET_STRING, FreedBy<ASN1_OCTET_STRING_free>> address(
            a2i_IPADDRESS(host.c_str()));
        names.append(address != nullptr ? ",IP:" : ",DNS:").append(host);
    }
    ERR_clear_error();
    const Time wanted = timeIn(content.days * secondsOfDay);
    const ASN1_TIME* const last = X509_get0_notAfter(&authority);
    const ASN1_TIME& end = ASN1_TIME_compare(wanted.get(), last) < 0 ? *wanted : *last;
    const char* const uses = !content.isClient   ? "serverAuth"
                             : !content.isServer ? "clientAuth"
                                                 : "serverAuth,clientAuth";
    // Without a subject, so that nobody takes a part of it for the name.
    const std::unique_ptr<X509_NAME, FreedBy<X509_NAME_free>> subject(X509_NAME_new());
    return makeCertificate(key, subject.get(), end,
                           {{NID_basic_constraints, "critical,CA:FALSE"},
                            {NID_key_usage, "critical,digitalSignature"},
                            {NID_ext_key_usage, uses},
                            {NID_subject_key_identifier, "hash"},
                            {NID_authority_key_identifier, "keyid:always"},
                            {NID_subject_alt_name, names}},
                           &authority, authorityKey);
}

RevocationList MakeList(X509_CRL* last, const std::vector<Certificate>& certificates, int days,
                        X509& authority, EVP_PKEY& authorityKey)
{
    RevocationList made(X509_CRL_new());
    X509_CRL* const it = made.get();
    require(it != nullptr && X509_CRL_set_version(it, X509_CRL_VERSION_2) == 1 &&
                X509_CRL_set_issuer_name(it, X509_get_subject_name(&authority)) == 1 &&
                X509_CRL_set1_lastUpdate(it, timeIn(-clockDifference).get()) == 1 &&
                X509_CRL_set1_nextUpdate(it, timeIn(days * secondsOfDay).get()) == 1,
            "list");
    copyEntries(*it, last);
    for (const Certificate& certificate : certificates)
        addEntry(*it, *certificate);
    X509V3_CTX context;
    X509V3_set_ctx(&context, &authority, nullptr, nullptr, it, 0);
    require(X509_CRL_add_ext(it, makeExtension(context, NID_authority_key_identifier, "keyid:always").get(),
                             -1) == 1 &&
                X509_CRL_add1_ext_i2d(it, NID_crl_number, numberAfter(last).get(), 0, 0) == 1 &&
                X509_CRL_sort(it) == 1 && X509_CRL_sign(it, &authorityKey, EVP_sha256()) > 0,
            "list");
    return made;
}

std::string PemOf(EVP_PKEY& key)
{
    return pemOf<EVP_PKEY>(key, [](BIO* to, EVP_PKEY* written) {
        return PEM_write_bio_PKCS8PrivateKey(to, written, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string PemOf(X509& certificate)
{
    return pemOf<X509>(certificate, [](BIO* to, X509* written) { return PEM_write_bio_X509(to, written); });
}

std::string PemOf(X509_CRL& list)
{
    return pemOf<X509_CRL>(list,
                           [](BIO* to, X509_CRL* written) { return PEM_write_bio_X509_CRL(to, written); });
}

Key ReadKey(const std::string& pem, const std::string& place)
{
    const Text text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    require(text != nullptr, "PEM");
    Key key(PEM_read_bio_PrivateKey(text.get(), nullptr, &noPassword, nullptr));
    if (key == nullptr)
        failOf(place);
    return key;
}

std::vector<Certificate> ReadCertificates(const std::string& pem, const std::string& place)
{
    return readAll<Certificate>(pem, place, &PEM_read_bio_X509);
}

std::vector<RevocationList> ReadLists(const std::string& pem, const std::string& place)
{
    return readAll<RevocationList>(pem, place, &PEM_read_bio_X509_CRL);
}

std::string SubjectOf(const X509& certificate)
{
    return lineOf(X509_get_subject_name(&certificate));
}

std::string IssuerOf(const X509_CRL& list)
{
    return lineOf(X509_CRL_get_issuer(&list));
}

std::string SerialOf(const X509& certificate)
{
    const std::unique_ptr<BIGNUM, FreedBy<BN_free>> number(
        ASN1_INTEGER_to_BN(X509_get0_serialNumber(&certificate), nullptr));
    const std::unique_ptr<char, decltype([](char* text) { OPENSSL_free(text); })> digits(
        number == nullptr ? nullptr : BN_bn2hex(number.get()));
    require(digits != nullptr, "serial number");
    return digits.get();
}

std::vector<std::string> NamesOf(X509& certificate)
{
    std::vector<std::string> names;
    const Names all = alternativeNames(certificate);
    for (int i = 0; i < sk_GENERAL_NAME_num(all.get()); ++i) {
        const GENERAL_NAME& one = *sk_GENERAL_NAME_value(all.get(), i);
        if (one.type != GEN_URI)
            continue;
        const std::string uri = textOf(*one.d.uniformResourceIdentifier);
        if (uri.starts_with(scheme))
            names.push_back(uri.substr(std::char_traits<char>::length(scheme)));
    }
    return names;
}

std::vector<std::string> HostsOf(X509& certificate)
{
    std::vector<std::string> hosts;
    const Names all = alternativeNames(certificate);
    for (int i = 0; i < sk_GENERAL_NAME_num(all.get()); ++i) {
        const GENERAL_NAME& one = *sk_GENERAL_NAME_value(all.get(), i);
        if (one.type == GEN_DNS)
            hosts.push_back(textOf(*one.d.dNSName));
        else if (one.type == GEN_IPADD)
            hosts.push_back(addressOf(*one.d.iPAddress));
    }
    return hosts;
}

bool IsRevokedBy(X509_CRL& list, X509& certificate)
{
    X509_REVOKED* entry = nullptr;
    return X509_NAME_cmp(X509_CRL_get_issuer(&list), X509_get_issuer_name(&certificate)) == 0 &&
           X509_CRL_get0_by_cert(&list, &entry, &certificate) == 1;
}

std::string TextOf(const ASN1_TIME& time)
{
    std::tm parts = {};
    require(ASN1_TIME_to_tm(&time, &parts) == 1, "time");
    char text[32];
    const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return {text, size};
}

int DaysUntil(const ASN1_TIME& time)
{
    int days = 0, seconds = 0;
    require(ASN1_TIME_diff(&days, &seconds, nullptr, &time) == 1, "time");
    return seconds < 0 ? days - 1 : seconds > 0 ? days + 1 : days;
}
