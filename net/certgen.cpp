// Keys and certificates made at run time with the library's own calls: P-256 keys, a serial from
// the random pool, subject and issuer names, authority marks, and PEM files with safe modes.
#include "net/certgen.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "base/fmt.h"

namespace korv {

namespace {

std::string lib_error(const char* what) {
    char bf[512] = "";
    unsigned long e = ERR_get_error();
    if (e) ERR_error_string_n(e, bf, sizeof bf);
    ERR_clear_error();
    return strfmt("%s failed (%s)", what, bf);
}

bool add_ext(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (!ext) return false;
    bool ok = X509_add_ext(cert, ext, -1) == 1;
    X509_EXTENSION_free(ext);
    return ok;
}

// Writes `pem` text through a descriptor opened with `mode`, replacing any old file.
int write_pem(const std::string& path, mode_t mode, int (*writer)(FILE*, const CertKey&), const CertKey& ck,
              std::string& reason) {
    ::unlink(path.c_str());
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        reason = strfmt("cannot create %s", path.c_str());
        return 0;
    }
    FILE* f = ::fdopen(fd, "w");
    if (!f) {
        ::close(fd);
        reason = strfmt("cannot open %s", path.c_str());
        return 0;
    }
    int ok = writer(f, ck);
    if (std::fclose(f) != 0) ok = 0;
    if (!ok) reason = lib_error(path.c_str());
    return ok ? 1 : 0;
}

}  // namespace

void EvpPkeyFree::operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
void X509Free::operator()(X509* c) const { X509_free(c); }

int certgen_make(CertKey& out, const char* common_name, const CertKey* issuer, int is_ca, int days,
                 std::string& reason) {
    ERR_clear_error();
    std::unique_ptr<EVP_PKEY, EvpPkeyFree> key(EVP_EC_gen("P-256"));
    if (!key) {
        reason = lib_error("key generation");
        return 0;
    }
    std::unique_ptr<X509, X509Free> cert(X509_new());
    if (!cert) {
        reason = lib_error("X509_new");
        return 0;
    }
    X509_set_version(cert.get(), 2);
    unsigned char serial[16];
    RAND_bytes(serial, sizeof serial);
    serial[0] &= 0x7f;
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get()));
    BN_free(bn);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 86400L * days);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Korvane"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(common_name), -1, -1,
                               0);
    X509* signer_cert = issuer ? issuer->cert.get() : cert.get();
    EVP_PKEY* signer_key = issuer ? issuer->key.get() : key.get();
    X509_set_issuer_name(cert.get(), X509_get_subject_name(signer_cert));
    bool ok = add_ext(cert.get(), signer_cert, NID_basic_constraints, is_ca ? "critical,CA:TRUE" : "CA:FALSE") &&
              add_ext(cert.get(), signer_cert, NID_subject_key_identifier, "hash") &&
              add_ext(cert.get(), signer_cert, NID_key_usage,
                      is_ca ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature,keyEncipherment");
    if (ok && !is_ca) ok = add_ext(cert.get(), signer_cert, NID_ext_key_usage, "serverAuth,clientAuth");
    if (ok && issuer) ok = add_ext(cert.get(), signer_cert, NID_authority_key_identifier, "keyid:always");
    if (!ok) {
        reason = lib_error("certificate extensions");
        return 0;
    }
    if (X509_sign(cert.get(), signer_key, EVP_sha256()) <= 0) {
        reason = lib_error("X509_sign");
        return 0;
    }
    out.key = std::move(key);
    out.cert = std::move(cert);
    return 1;
}

int certgen_write_cert(const CertKey& ck, const std::string& path, std::string& reason) {
    return write_pem(
        path, 0644, [](FILE* f, const CertKey& c) { return PEM_write_X509(f, c.cert.get()); }, ck, reason);
}

int certgen_write_key(const CertKey& ck, const std::string& path, std::string& reason) {
    return write_pem(
        path, 0600,
        [](FILE* f, const CertKey& c) {
            return PEM_write_PrivateKey(f, c.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        },
        ck, reason);
}

int certgen_self_signed(const char* common_name, int days, const std::string& certpath, const std::string& keypath,
                        std::string& reason) {
    CertKey ck;
    if (!certgen_make(ck, common_name, nullptr, 0, days, reason)) return 0;
    return certgen_write_key(ck, keypath, reason) && certgen_write_cert(ck, certpath, reason) ? 1 : 0;
}

}  // namespace korv
