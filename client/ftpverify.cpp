// The check of a remote's certificate after the TLS handshake of the control
// channel: the chain against the system's trust store plus a local file of
// trusted certificates, and the name against the host the link was made to.
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <arpa/inet.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "base/fmt.h"
#include "client/ftplib.h"

namespace korv {

namespace {

struct StoreFree {
    void operator()(X509_STORE* s) const { X509_STORE_free(s); }
};
struct StoreCtxFree {
    void operator()(X509_STORE_CTX* s) const { X509_STORE_CTX_free(s); }
};

std::string fingerprint(X509* cert) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (cert == nullptr || !X509_digest(cert, EVP_sha256(), md, &n)) return "unknown";
    std::string out;
    for (unsigned int i = 0; i < n; ++i) out += strfmt("%s%02X", i ? ":" : "", md[i]);
    return out;
}

bool is_ip(const std::string& host) {
    unsigned char buf[16];
    return inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

}  // namespace

int ftp_check_certificate(Chan* c, const std::string& host, const std::string& ca_file, std::string& reason) {
    SSL* ssl = c != nullptr && c->tcp ? c->tcp->Ssl.get() : nullptr;
    if (ssl == nullptr) {
        reason = "Certificate check: the connection is not secure";
        return 0;
    }
    X509* leaf = SSL_get0_peer_certificate(ssl);
    if (leaf == nullptr) {
        reason = "Certificate check: the remote sent no certificate";
        return 0;
    }
    const std::string fp = fingerprint(leaf);
    std::unique_ptr<X509_STORE, StoreFree> store(X509_STORE_new());
    std::unique_ptr<X509_STORE_CTX, StoreCtxFree> ctx(X509_STORE_CTX_new());
    if (!store || !ctx) {
        reason = "Certificate check: out of memory";
        return 0;
    }
    X509_STORE_set_default_paths(store.get());
    struct stat st{};
    if (!ca_file.empty() && stat(ca_file.c_str(), &st) == 0 && !X509_STORE_load_file(store.get(), ca_file.c_str())) {
        reason = strfmt("Certificate check: cannot read %.300s (SHA-256 %s)", ca_file.c_str(), fp.c_str());
        return 0;
    }
    STACK_OF(X509)* chain = SSL_get_peer_cert_chain(ssl);
    if (!X509_STORE_CTX_init(ctx.get(), store.get(), leaf, chain)) {
        reason = "Certificate check: cannot start";
        return 0;
    }
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx.get());
    X509_VERIFY_PARAM_set_purpose(param, X509_PURPOSE_SSL_SERVER);
    if (is_ip(host))
        X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
    else
        X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size());
    if (X509_verify_cert(ctx.get()) != 1) {
        int err = X509_STORE_CTX_get_error(ctx.get());
        reason = strfmt("Certificate of %.200s not trusted: %s (SHA-256 %s)", host.c_str(),
                        X509_verify_cert_error_string(err), fp.c_str());
        return 0;
    }
    return 1;
}

}  // namespace korv
