#include "hub/certificate.h"

#include <ifaddrs.h>
#include <netdb.h>

#include <ctime>
#include <memory>
#include <optional>
#include <utility>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include "base/names.h"
#include "hub/files.h"
#include "hub/log.h"
#include "hub/names.h"

namespace ZARO::RelayHub {

namespace {

// Clients accept the certificate as it is and check the names only, so it may last ten years.
constexpr long kDay = 86400; // seconds
constexpr long kLifetime = 3650 * kDay;
constexpr long kRenewal = 90 * kDay;

struct Free {
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using Certificate = std::unique_ptr<X509, Free>;
using Key = std::unique_ptr<EVP_PKEY, Free>;
using Bio = std::unique_ptr<BIO, Free>;
using Extension = std::unique_ptr<X509_EXTENSION, Free>;

bool AddExtension(X509* certificate, int kind, const std::string& value) {
    const Extension extension(X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str()));
    return extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool SetSubject(X509* certificate) {
    X509_NAME* subject = X509_get_subject_name(certificate);
    const auto* text = reinterpret_cast<const unsigned char*>("zarorelay-hub");
    return X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, text, -1, -1, 0) == 1 &&
           X509_set_issuer_name(certificate, subject) == 1;
}

Certificate MakeCertificate(EVP_PKEY* key, const std::set<std::string>& names) {
    std::string all;
    for (const std::string& name : names) {
        all += (all.empty() ? "" : ",") + std::string(IsAddress(name) ? "IP:" : "DNS:") + name;
    }
    std::uint64_t serial = 0;
    Certificate certificate(X509_new());
    X509* x = certificate.get();
    // It is valid since yesterday, for clients whose clock is slow.
    const bool good =
        x != nullptr && RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1 &&
        X509_set_version(x, X509_VERSION_3) == 1 &&
        ASN1_INTEGER_set_uint64(X509_get_serialNumber(x), serial >> 1) == 1 &&
        X509_gmtime_adj(X509_getm_notBefore(x), -kDay) != nullptr &&
        X509_gmtime_adj(X509_getm_notAfter(x), kLifetime) != nullptr &&
        X509_set_pubkey(x, key) == 1 && SetSubject(x) &&
        AddExtension(x, NID_basic_constraints, "critical,CA:TRUE") &&
        AddExtension(x, NID_ext_key_usage, "serverAuth") &&
        AddExtension(x, NID_subject_alt_name, all) && X509_sign(x, key, EVP_sha256()) > 0;
    return good ? std::move(certificate) : nullptr;
}

/// A key and its certificate as PEM. The key is the one in `former`, if there is one, so that
/// clients that pinned it are not locked out. "" when OpenSSL fails.
std::string MakePem(const std::set<std::string>& names, const std::string& former) {
    const Bio old(BIO_new_mem_buf(former.data(), static_cast<int>(former.size())));
    Key key(old == nullptr ? nullptr
                           : PEM_read_bio_PrivateKey(old.get(), nullptr, nullptr, nullptr));
    if (key == nullptr) {
        key.reset(EVP_EC_gen("P-256"));
    }
    const Certificate certificate = key == nullptr ? nullptr : MakeCertificate(key.get(), names);
    const Bio bio(BIO_new(BIO_s_mem()));
    ERR_clear_error();
    if (certificate == nullptr || bio == nullptr ||
        PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
            1 ||
        PEM_write_bio_X509(bio.get(), certificate.get()) != 1) {
        return "";
    }
    char* text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return std::string(text, static_cast<std::size_t>(size));
}

bool HasName(X509* certificate, const std::string& name) {
    return IsAddress(name)
               ? X509_check_ip_asc(certificate, name.c_str(), 0) == 1
               : X509_check_host(certificate, name.data(), name.size(), 0, nullptr) == 1;
}

bool IsUsable(X509* certificate, const std::set<std::string>& names) {
    for (const std::string& name : names) {
        if (!HasName(certificate, name)) {
            return false;
        }
    }
    time_t then = time(nullptr) + kRenewal;
    return X509_cmp_time(X509_get0_notAfter(certificate), &then) > 0;
}

/// Puts key and certificate of `pem` into `context`. False when they are damaged, or when the
/// certificate lacks one of `names` or ends too soon.
bool UsePem(const std::string& pem, const std::set<std::string>& names, SSL_CTX* context) {
    const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    if (bio == nullptr) {
        return false;
    }
    const Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
    const Certificate certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    const bool good =
        key != nullptr && certificate != nullptr && IsUsable(certificate.get(), names) &&
        SSL_CTX_use_certificate(context, certificate.get()) == 1 &&
        SSL_CTX_use_PrivateKey(context, key.get()) == 1 && SSL_CTX_check_private_key(context) == 1;
    ERR_clear_error();
    return good;
}

void AddInterfaceAddresses(std::set<std::string>& names) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return; // the other names are still right
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        const int family = entry->ifa_addr == nullptr ? AF_UNSPEC : entry->ifa_addr->sa_family;
        const socklen_t size = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        char text[NI_MAXHOST];
        if ((family == AF_INET || family == AF_INET6) &&
            getnameinfo(entry->ifa_addr, size, text, sizeof text, nullptr, 0, NI_NUMERICHOST) ==
                0) {
            const std::string address = text;
            if (address.find('%') == std::string::npos) { // no URL has a link-local one
                names.insert(address);
            }
        }
    }
}

/// A context without key and certificate. Null with the reason in `error`.
SslContext MakeContext(std::string& error) {
    SslContext context(SSL_CTX_new(TLS_server_method()));
    if (context == nullptr) {
        error = "can't set TLS up";
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    // The client chooses from this list. A large finite field would cost 0.15 s of CPU per
    // handshake.
    if (SSL_CTX_set1_groups_list(context.get(), "X25519:P-256") != 1) {
        error = "can't restrict the key exchanges of TLS";
        return nullptr;
    }
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE |
                                        SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                        SSL_MODE_RELEASE_BUFFERS);
    return context;
}

} // namespace

std::set<std::string> ServedNames(const std::set<std::string>& more) {
    std::set<std::string> names = {"localhost", "127.0.0.1", "::1"};
    char host[256] = "";
    if (gethostname(host, sizeof host - 1) == 0 && IsHostName(host)) {
        names.insert(host);
    }
    for (const std::string& name : more) {
        if (!name.empty() && name != "0.0.0.0" && name != "::") {
            names.insert(name);
        }
    }
    return names;
}

SslContext MakeTls(const std::string& file, const std::set<std::string>& names,
                   std::string& error) {
    const UniqueFd alone = WaitForFolder(file); // processes that start together use one certificate
    SslContext context = MakeContext(error);
    std::optional<std::string> kept;
    if (context == nullptr || !ReadSmallFile(file, kept, error)) {
        return nullptr;
    }
    std::string pem = kept.value_or("");
    if (UsePem(pem, names, context.get())) {
        return context;
    }
    std::set<std::string> all = names;
    AddInterfaceAddresses(all);
    pem = MakePem(all, pem);
    if (pem.empty() || !WritePrivateFile(file, pem, error)) {
        error = error.empty() ? "can't make a certificate" : error;
        return nullptr;
    }
    Log(Level::Info, "hub", "new certificate for %zu names", all.size());
    if (!UsePem(pem, names, context.get())) {
        error = "the new certificate does not hold";
        return nullptr;
    }
    return context;
}

} // namespace ZARO::RelayHub
