// Making keys and X.509 certificates at run time: the self-signed certificate of a first start,
// and small certificate authorities for tests and benchmarks.
#pragma once

#include <memory>
#include <string>

typedef struct evp_pkey_st EVP_PKEY;
typedef struct x509_st X509;

namespace korv {

struct EvpPkeyFree {
    void operator()(EVP_PKEY* k) const;
};
struct X509Free {
    void operator()(X509* c) const;
};

// A key and the certificate made for it.
struct CertKey {
    std::unique_ptr<EVP_PKEY, EvpPkeyFree> key;
    std::unique_ptr<X509, X509Free> cert;
};

// Makes a fresh P-256 key and a certificate for `common_name`, valid `days` days, signed by
// `issuer` (self-signed when null). `is_ca` marks it as an authority. 1, or 0 with a reason.
int certgen_make(CertKey& out, const char* common_name, const CertKey* issuer, int is_ca, int days,
                 std::string& reason);
// Writes the certificate (PEM) with mode 0644 and the key (PEM, unencrypted) with mode 0600.
int certgen_write_cert(const CertKey& ck, const std::string& path, std::string& reason);
int certgen_write_key(const CertKey& ck, const std::string& path, std::string& reason);
// A self-signed server certificate and its key in two files. 1, or 0 with a reason.
int certgen_self_signed(const char* common_name, int days, const std::string& certpath,
                        const std::string& keypath, std::string& reason);

}  // namespace korv
