// TLS on a connected channel: the two server configurations and their settings, one context and
// one TLS object per connection, the handshake under its limit (waiting on the socket with poll),
// client certificates checked against the trusted issuers, the protocol checks, and the names of
// the protocol and cipher in use.
#include "net/tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <strings.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#include "base/fmt.h"
#include "common/emsg.h"
#include "net/entropy.h"

namespace korv {

SSLTCP_SSLConfig my_main_sslconfig;
SSLTCP_SSLConfig my_webmgr_sslconfig;

namespace {

std::atomic<int> g_use_tlsv1{1};
std::atomic<int> g_use_sslv2{1};
std::atomic<int> g_use_sslv3{1};
std::atomic<int> g_handshake_limit_ms{kTlsHandshakeLimitMs};

std::mutex g_root_ca_lock;
std::string g_root_ca_file = "rootCA.pem";

constexpr const char* kDefaultCiphers = "DEFAULT";

// The library's text of its earliest queued error, and an empty queue afterwards.
std::string ssl_err_text() {
    char bf[1000] = "";
    unsigned long e = ERR_get_error();
    if (e) ERR_error_string_n(e, bf, sizeof bf);
    ERR_clear_error();
    return bf;
}

void seed_pointer(const void* p) { entropy_add(&p, sizeof p); }

// "/C=../CN=.." one-line form of a certificate name; false when it cannot be rendered.
bool get_x509_name_tostring(X509_NAME* name, std::string& out) {
    if (!name) return false;
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
    if (!bio) return false;
    if (X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_ONELINE) < 0) return false;
    char* data = nullptr;
    long n = BIO_get_mem_data(bio.get(), &data);
    out.assign(data ? data : "", n > 0 ? static_cast<size_t>(n) : 0);
    return true;
}

// Hands each field of the subject to the configured callback; 0 when one refuses.
int cert_fmt_split(X509_NAME* name, const SSLTCP_SSLConfig* config) {
    int n = X509_NAME_entry_count(name);
    for (int i = 0; i < n; ++i) {
        X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
        int nid = OBJ_obj2nid(X509_NAME_ENTRY_get_object(e));
        const char* id = nid != NID_undef ? OBJ_nid2sn(nid) : "?";
        unsigned char* utf8 = nullptr;
        int len = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(e));
        std::string val = len > 0 ? std::string(reinterpret_cast<char*>(utf8), static_cast<size_t>(len)) : "";
        OPENSSL_free(utf8);
        if (!config->certificate_fn_cb(config->certificate_fn_ptr, nid, id, "", val.c_str())) return 0;
    }
    return 1;
}

// The verification verdict of the peer's chain against the trusted issuers.
int verify_certificate(SSL* ssl, std::string& why) {
    long v = SSL_get_verify_result(ssl);
    if (v == X509_V_OK) return 1;
    why = X509_verify_cert_error_string(v);
    return 0;
}

// Checks the client certificate a server asked for (step after the handshake).
int check_client_certificate(pSSLTcp x, const SSLTCP_SSLConfig* config, std::string& reason) {
    std::unique_ptr<X509, decltype(&X509_free)> peer(SSL_get1_peer_certificate(x->Ssl.get()), &X509_free);
    if (!peer) {
        reason = "Client did not present required SSL Certificate.";
        return 0;
    }
    std::string subject;
    if (!get_x509_name_tostring(X509_get_subject_name(peer.get()), subject)) {
        reason = strfmt("Client Certificate not understood, %s", ssl_err_text().c_str());
        return 0;
    }
    if (config->certificate_fn_cb && !cert_fmt_split(X509_get_subject_name(peer.get()), config)) {
        reason = "Client Certificate Refused.";
        return 0;
    }
    std::string why;
    if (config->requireValidatedPeerClientCertificate && !verify_certificate(x->Ssl.get(), why)) {
        reason = strfmt("Client Certificate Failed Verification: %s", why.c_str());
        return 0;
    }
    return 1;
}

// Loads the certificate, chain and key of the config into the context.
int load_keys(SSL_CTX* ctx, const SSLTCP_SSLConfig* config, std::string& reason) {
    const char* cert = config->cert_pem_certificate.c_str();
    const char* key = config->cert_pem_privkey.c_str();
    if (SSL_CTX_use_certificate_file(ctx, cert, SSL_FILETYPE_PEM) != 1) {
        reason = strfmt("Load Certificate File (%s)(%s)", cert, ssl_err_text().c_str());
        return 0;
    }
    if (config->certificate_only) return 1;
    if (SSL_CTX_use_certificate_chain_file(ctx, cert) != 1) {
        reason = strfmt("Load Certificate chain File (%s)(%s)", cert, ssl_err_text().c_str());
        return 0;
    }
    if (config->key_password_cb) SSL_CTX_set_default_passwd_cb(ctx, config->key_password_cb);
    if (SSL_CTX_use_PrivateKey_file(ctx, key, SSL_FILETYPE_PEM) != 1) {
        // The library compares the key with the certificate while loading it; a key that does
        // not fit is the same fault as the later check finds.
        unsigned long e = ERR_peek_last_error();
        bool mismatch = ERR_GET_LIB(e) == ERR_LIB_X509 &&
                        (ERR_GET_REASON(e) == X509_R_KEY_VALUES_MISMATCH || ERR_GET_REASON(e) == X509_R_KEY_TYPE_MISMATCH);
        if (mismatch)
            reason = strfmt("Private Key and Certificate, invalid combination (%s)", ssl_err_text().c_str());
        else
            reason = strfmt("Load Privatekey File (%s)(%s)", key, ssl_err_text().c_str());
        return 0;
    }
    if (SSL_CTX_check_private_key(ctx) != 1) {
        reason = strfmt("Private Key and Certificate, invalid combination (%s)", ssl_err_text().c_str());
        return 0;
    }
    return 1;
}

void set_ciphers(SSL_CTX* ctx, const SSLTCP_SSLConfig* config) {
    const char* list = kDefaultCiphers;
    if (config->use_alternative_cipherlist) {
        if (config->use_cipher_list.empty()) return;  // the library's own list
        list = config->use_cipher_list.c_str();
    }
    if (SSL_CTX_set_cipher_list(ctx, list) != 1) {
        std::string err = ssl_err_text();
        emsg("TLS cipher list (%s) refused, keeping the default: %s\n", list, err.c_str());
        SSL_CTX_set_cipher_list(ctx, kDefaultCiphers);
        ERR_clear_error();
    }
}

}  // namespace

void reset_SSLTCP_SSLConfig(SSLTCP_SSLConfig* me) { *me = SSLTCP_SSLConfig(); }

SSLTCP_SSLConfig* new_SSLTCP_SSLConfig() { return new SSLTCP_SSLConfig(); }

void free_SSLTCP_SSLConfig(SSLTCP_SSLConfig* f) { delete f; }

void SSLTCP_SSLConfig_SetKey(SSLTCP_SSLConfig* me, const char* pathto, const char* priv, const char* cert) {
    me->use_certificate = 0;
    if (!pathto || !priv || !cert) return;
    std::string p = strfmt("%s/%s", pathto, priv);
    std::string c = strfmt("%s/%s", pathto, cert);
    if (p.size() >= kTlsPathSize || c.size() >= kTlsPathSize) return;
    me->cert_pem_privkey = p;
    me->cert_pem_certificate = c;
    me->use_certificate = 1;
}

void SSLTCP_SSLConfig_ChooseProtocols(SSLTCP_SSLConfig* me, int useTLSV1, int useSSLV2, int useSSLV3) {
    me->allow_TLSv1 = useTLSV1;
    me->allow_SSLv2 = useSSLV2;
    me->allow_SSLv3 = useSSLV3;
    // Kept as it has always stood: a mixed setting whose test fails turns every protocol on.
    if ((useTLSV1 == useSSLV2) != (useSSLV3 != 0)) {
        me->allow_TLSv1 = 1;
        me->allow_SSLv2 = 1;
        me->allow_SSLv3 = 1;
    }
}

void ssltcp_set_handshake_limit_ms(int ms) { g_handshake_limit_ms.store(ms); }

int ssltcp_get_handshake_limit_ms() { return g_handshake_limit_ms.load(); }

void ssltcp_set_root_ca_file(const char* path) {
    std::lock_guard<std::mutex> g(g_root_ca_lock);
    g_root_ca_file = path ? path : "rootCA.pem";
}

std::string ssltcp_get_root_ca_file() {
    std::lock_guard<std::mutex> g(g_root_ca_lock);
    return g_root_ca_file;
}

int do_ssl_handshake(pSSLTcp x) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::milliseconds(ssltcp_get_handshake_limit_ms());
    for (;;) {
        errno = 0;
        ERR_clear_error();
        int r = SSL_do_handshake(x->Ssl.get());
        if (r == 1) return 1;
        SSLError("SSL_do_handshake", x, r);
        if (!SSLTcp_IsBlocking(x)) return 0;
        short want = x->SSLErrorCode == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
        for (;;) {
            auto now = clock::now();
            long left = now >= deadline ? 0
                                        : static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                                deadline - now).count()) + 1;
            struct pollfd p{x->sk, want, 0};
            int pr = left > 0 ? ::poll(&p, 1, static_cast<int>(left)) : 0;
            if (pr > 0) break;
            if (pr < 0 && errno == EINTR) continue;
            if (pr == 0 && clock::now() < deadline) continue;
            SSLTcp_Record(x, "SSL_do_handshake:timeout", SSLTCP_ERR_HANDSHAKE);
            return 0;
        }
        double t = getdtime();
        entropy_add(&t, sizeof t);
    }
}

int SSLTcp_StartSSL(pSSLTcp x, SSLTCP_SSLConfig* config, int svrmode, std::string& reason) {
    SSLTcp_init();
    SSLTCP_SSLConfig local;
    if (!config) config = &local;
    const bool server = svrmode == -1 ? !config->beSSLClient : svrmode == 1;
    ERR_clear_error();
    SslCtxPtr ctx(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()));
    if (!ctx) {
        reason = "Could not create SSL CTX, out of memory?";
        return 0;
    }
    seed_pointer(ctx.get());
    if (config->use_certificate) {
        if (!load_keys(ctx.get(), config, reason)) return 0;
    } else if (server) {
        reason = "SSL must have valid certificate & Private Key for Server mode.";
        return 0;
    }
    uint64_t opts = SSL_OP_ALL | SSL_OP_ENABLE_KTLS;
    if (!config->allow_TLSv1) opts |= SSL_OP_NO_TLSv1;
    if (!config->allow_SSLv3) opts |= SSL_OP_NO_SSLv3;
    SSL_CTX_set_options(ctx.get(), opts);
    if (!config->allow_TLSv1) SSL_CTX_set_min_proto_version(ctx.get(), TLS1_1_VERSION);
    // No session tickets: every connection has a context of its own, so a ticket
    // could never be redeemed, and a TLS 1.3 ticket is data the client may never
    // read. A client that closes an upload with a ticket unread makes its kernel
    // send a reset and drop the tail of the upload it had not sent yet.
    if (server) SSL_CTX_set_num_tickets(ctx.get(), 0);
    set_ciphers(ctx.get(), config);
    const bool want_client_cert = server && config->requirePeerClientCertificate;
    if (want_client_cert) {
        std::string rootca = ssltcp_get_root_ca_file();
        SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
        if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(rootca.c_str()))
            SSL_CTX_set_client_CA_list(ctx.get(), names);
        SSL_CTX_load_verify_locations(ctx.get(), rootca.c_str(), nullptr);
        ERR_clear_error();
    }
    SslPtr ssl(SSL_new(ctx.get()));
    if (!ssl) {
        reason = "Could not create SSL object, out of memory?";
        return 0;
    }
    seed_pointer(ssl.get());
    if (server)
        SSL_set_accept_state(ssl.get());
    else
        SSL_set_connect_state(ssl.get());
    if (want_client_cert) SSL_set_verify(ssl.get(), SSL_VERIFY_PEER, nullptr);
    // Writes may return after each record, so that a timed write can report a partial count.
    SSL_set_mode(ssl.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_set_fd(ssl.get(), x->sk);
    // The handshake waits on the socket under its own limit, so the socket must not block.
    if (x->sk != -1) SSLTcp_SetBlocking(x, 0);
    x->SslCtx = std::move(ctx);
    x->Ssl = std::move(ssl);
    x->UncleanEnd = false;
    x->FailedRead = false;
    if (!do_ssl_handshake(x)) {
        SSLTcp_GetError(x, reason);
        x->Ssl.reset();
        x->SslCtx.reset();
        return 0;
    }
    if (want_client_cert && !check_client_certificate(x, config, reason)) return 0;
    const char* version = SSL_get_version(x->Ssl.get());
    if (!config->allow_TLSv1 && std::strcmp(version, "TLSv1") == 0) {
        reason = "SSL Correct, but TLSv1 not acceptable.";
        return 0;
    }
    if (std::strcmp(version, "SSLv2") == 0) {
        reason = "SSL Correct, but SSLv2 not acceptable.";
        return 0;
    }
    if (std::strcmp(version, "SSLv3") == 0) {
        reason = "SSL Correct, but SSLv3 not acceptable.";
        return 0;
    }
    return 1;
}

int new_tcp_ssl_init(Chan* x, SSLTCP_SSLConfig* sslconfig, int svrmode, std::string& reason) {
    if (!SSLTcp_StartSSL(x->tcp.get(), sslconfig, svrmode, reason)) return 0;
    char cipher[200];
    reason = strfmt("%s:%s", tcp_get_ssl_protocol_name_used(x), tcp_get_ssl_cipher_name_used(x, cipher, sizeof cipher));
    return 1;
}

int even_newer_tcp_ssl_init(Chan* x, SSLTCP_SSLConfig* sslconfig, int svrmode, std::string& reason,
                            int /*print_stuff*/) {
    return new_tcp_ssl_init(x, sslconfig, svrmode, reason);
}

int old_tcp_ssl_init(Chan* x, int isserver, std::string& reason) {
    SSLTCP_SSLConfig config;
    config.beSSLClient = !isserver;
    SSLTCP_SSLConfig_ChooseProtocols(&config, g_use_tlsv1.load(), g_use_sslv2.load(), g_use_sslv3.load());
    if (!SSLTcp_StartSSL(x->tcp.get(), &config, -1, reason)) return 0;
    reason = tcp_get_ssl_protocol_name_used(x);
    return 1;
}

int tcp_ssl_init_real(Chan* x, int require_cert, int isServer, void* /*p*/, Chan* /*c*/, std::string& msg) {
    SSLTCP_SSLConfig config;
    config.beSSLClient = !isServer;
    config.requirePeerClientCertificate = require_cert;
    return SSLTcp_StartSSL(x->tcp.get(), &config, -1, msg);
}

int tcp_ssl_init(Chan* x, int isServer, void* p, std::string& reason) {
    return tcp_ssl_init_real(x, 0, isServer, p, nullptr, reason);
}

void tcp_ssl_pre_init_set_protocols(int tlsv1, int sslv2, int sslv3) {
    g_use_tlsv1.store(tlsv1);
    g_use_sslv2.store(sslv2);
    g_use_sslv3.store(sslv3);
}

void tcp_ssl_set_use_protocols_from_now(int tlsv1, int sslv2, int sslv3) {
    tcp_ssl_pre_init_set_protocols(tlsv1, sslv2, sslv3);
}

void tcp_ssl_get_protocols(int* tlsv1, int* sslv2, int* sslv3) {
    if (tlsv1) *tlsv1 = g_use_tlsv1.load();
    if (sslv2) *sslv2 = g_use_sslv2.load();
    if (sslv3) *sslv3 = g_use_sslv3.load();
}

int tcp_is_in_ssl_mode(Chan* x) { return x && x->tcp && x->tcp->Ssl ? 1 : 0; }

int tcp_isthis_ssl(Chan* x) { return tcp_is_in_ssl_mode(x); }

const char* tcp_get_ssl_protocol_name_used(Chan* x) {
    if (!tcp_is_in_ssl_mode(x)) return "none";
    return SSL_get_version(x->tcp->Ssl.get());
}

void SSLTcp_GetCipherName(pSSLTcp x, char* bf, int bf_bfsz) {
    if (!bf || bf_bfsz < 1) return;
    auto put = [&](const char* s) {
        std::strncpy(bf, s, static_cast<size_t>(bf_bfsz - 1));
        bf[bf_bfsz - 1] = 0;
    };
    if (!x->Ssl) return put("none");
    const SSL_CIPHER* c = SSL_get_current_cipher(x->Ssl.get());
    char desc[256];
    const char* enc = c && SSL_CIPHER_description(c, desc, sizeof desc) ? std::strstr(desc, "Enc=") : nullptr;
    if (!enc) return put("unknown");
    enc += 4;
    int n = 0;
    while (n < bf_bfsz - 2 && ((enc[n] >= 'A' && enc[n] <= 'Z') || (enc[n] >= '0' && enc[n] <= '9'))) {
        bf[n] = enc[n];
        ++n;
    }
    bf[n] = 0;
}

char* tcp_get_ssl_cipher_name_used(Chan* x, char* bf, int bf_bfsz) {
    SSLTcp_GetCipherName(x->tcp.get(), bf, bf_bfsz);
    return bf;
}

int tcp_ssl_uses_ktls(Chan* x) {
    if (!tcp_is_in_ssl_mode(x)) return 0;
    return BIO_get_ktls_send(SSL_get_wbio(x->tcp->Ssl.get())) ? 1 : 0;
}

void tcp_add_entropy(const unsigned char* buffer, int items) {
    if (buffer && items > 0) entropy_add(buffer, static_cast<size_t>(items));
}

void Entropy_Gather_shortint(short v) { tcp_add_entropy(reinterpret_cast<const unsigned char*>(&v), sizeof v); }

void Entropy_Gather_int(int v) { tcp_add_entropy(reinterpret_cast<const unsigned char*>(&v), sizeof v); }

void Entropy_Gather_double(double v) { tcp_add_entropy(reinterpret_cast<const unsigned char*>(&v), sizeof v); }

void Entropy_Gather_cstr(const char* s) {
    if (s) tcp_add_entropy(reinterpret_cast<const unsigned char*>(s), static_cast<int>(std::strlen(s)));
}

void Entropy_Gather_connection(Chan* c, double t_start) {
    int lcl = 0;
    int rmt = 0;
    if (c != nullptr) tcp_getports(c, &lcl, &rmt);
    const double t_now = getdtime();
    Entropy_Gather_shortint(static_cast<short>(lcl));
    Entropy_Gather_shortint(static_cast<short>(rmt));
    Entropy_Gather_double(t_start);
    Entropy_Gather_double(t_now);
    Entropy_Gather_int(static_cast<int>((t_now - t_start) * 1000));
}

SSLTCP_SSLConfig* korv_main_ssl_get_ftpconn() { return &my_main_sslconfig; }

void korvane_set_require_client_certificates(int truth) { my_main_sslconfig.requirePeerClientCertificate = truth; }

void korvane_disable_sslv2() {
    my_main_sslconfig.allow_SSLv2 = 0;
    my_webmgr_sslconfig.allow_SSLv2 = 0;
}

void korvane_disable_sslv3() { my_main_sslconfig.allow_SSLv3 = 0; }

void korvane_disable_tls() { my_main_sslconfig.allow_TLSv1 = 0; }

void korvane_set_cipher_list(const char* cipher_list) {
    struct Word {
        const char* word;
        const char* ciphers;
    };
    static constexpr Word kWords[] = {
        {"NIST_APPROVED", "AES:3DES"}, {"AES", "AES"},   {"3DES", "3DES"},
        {"DES", "DES"},                {"NIST_LEGACY", "AES:3DES:DES"}, {"UNRESTRICTED", "DEFAULT"},
    };
    const char* chosen = nullptr;
    if (!cipher_list || !*cipher_list) {
        chosen = kDefaultCiphers;
    } else {
        for (const Word& w : kWords)
            if (strcasecmp(cipher_list, w.word) == 0) chosen = w.ciphers;
    }
    for (SSLTCP_SSLConfig* c : {&my_main_sslconfig, &my_webmgr_sslconfig}) {
        if (chosen) {
            c->use_alternative_cipherlist = 1;
            c->use_cipher_list = chosen;
        } else {
            c->use_alternative_cipherlist = 0;
        }
    }
}

int logit_certificate_fn_cb(void* /*certificate_fn_ptr*/, int /*code*/, const char* id, const char* pad,
                            const char* val) {
    dmsg("User Certificate: %s%s: %s\n", pad ? pad : "", id ? id : "", val ? val : "");
    return 1;
}

}  // namespace korv
