// Starting TLS on a connected channel: the TLS configurations, the handshake with its limit,
// client certificates, protocol and cipher names, and the entropy feeders.
#pragma once

#include <string>

#include "net/ssltcp.h"
#include "net/tcp.h"

namespace korv {

constexpr int kTlsHandshakeLimitMs = 30000;
constexpr int kTlsPathSize = 1000;

// Called once per field of a client certificate; 0 refuses the certificate.
using CertificateFieldFn = int (*)(void* certificate_fn_ptr, int code, const char* id, const char* pad,
                                   const char* val);
using KeyPasswordFn = int (*)(char* buf, int size, int rwflag, void* userdata);

struct SSLTCP_SSLCONFIG {
    int use_certificate = 0;
    int certificate_only = 0;
    std::string cert_pem_privkey;
    std::string cert_pem_certificate;
    int use_alternative_cipherlist = 0;
    std::string use_cipher_list;
    int beSSLClient = 1;
    int requirePeerClientCertificate = 0;
    int requireValidatedPeerClientCertificate = 0;
    int allow_TLSv1 = 1;
    int allow_SSLv2 = 1;
    int allow_SSLv3 = 1;
    void* certificate_fn_ptr = nullptr;
    CertificateFieldFn certificate_fn_cb = nullptr;
    KeyPasswordFn key_password_cb = nullptr;
};
using SSLTCP_SSLConfig = SSLTCP_SSLCONFIG;

// The server's two configurations: FTP, and the web administration.
extern SSLTCP_SSLConfig my_main_sslconfig;
extern SSLTCP_SSLConfig my_webmgr_sslconfig;
// The FTP configuration, as the control and data channels start TLS with it.
SSLTCP_SSLConfig* korv_main_ssl_get_ftpconn();

void reset_SSLTCP_SSLConfig(SSLTCP_SSLConfig* me);
SSLTCP_SSLConfig* new_SSLTCP_SSLConfig();
void free_SSLTCP_SSLConfig(SSLTCP_SSLConfig* f);
void SSLTCP_SSLConfig_SetKey(SSLTCP_SSLConfig* me, const char* pathto, const char* priv, const char* cert);
void SSLTCP_SSLConfig_ChooseProtocols(SSLTCP_SSLConfig* me, int useTLSV1, int useSSLV2, int useSSLV3);

// Starts TLS on a connected socket. svrmode: -1 takes the config's role, 1 server, 0 client.
// 1 on success; 0 with the reason filled.
int SSLTcp_StartSSL(pSSLTcp x, SSLTCP_SSLConfig* config, int svrmode, std::string& reason);
int do_ssl_handshake(pSSLTcp x);
int new_tcp_ssl_init(Chan* x, SSLTCP_SSLConfig* sslconfig, int svrmode, std::string& reason);
int even_newer_tcp_ssl_init(Chan* x, SSLTCP_SSLConfig* sslconfig, int svrmode, std::string& reason,
                            int print_stuff);
int old_tcp_ssl_init(Chan* x, int isserver, std::string& reason);
int tcp_ssl_init_real(Chan* x, int require_cert, int isServer, void* p, Chan* c, std::string& msg);
int tcp_ssl_init(Chan* x, int isServer, void* p, std::string& reason);

// Module-wide protocol flags of the old entry point.
void tcp_ssl_pre_init_set_protocols(int tlsv1, int sslv2, int sslv3);
void tcp_ssl_set_use_protocols_from_now(int tlsv1, int sslv2, int sslv3);
void tcp_ssl_get_protocols(int* tlsv1, int* sslv2, int* sslv3);

// The handshake limit in milliseconds (30000 unless a test shortens it).
void ssltcp_set_handshake_limit_ms(int ms);
int ssltcp_get_handshake_limit_ms();
// The file of trusted client-certificate issuers ("rootCA.pem", relative to the working directory).
void ssltcp_set_root_ca_file(const char* path);
std::string ssltcp_get_root_ca_file();

int tcp_is_in_ssl_mode(Chan* x);
int tcp_isthis_ssl(Chan* x);
const char* tcp_get_ssl_protocol_name_used(Chan* x);
char* tcp_get_ssl_cipher_name_used(Chan* x, char* bf, int bf_bfsz);
void SSLTcp_GetCipherName(pSSLTcp x, char* bf, int bf_bfsz);
// 1 when the kernel carries the sending side of this connection's TLS.
int tcp_ssl_uses_ktls(Chan* x);

// Entropy for the library's random pool.
void tcp_add_entropy(const unsigned char* buffer, int items);
void Entropy_Gather_shortint(short v);
void Entropy_Gather_int(int v);
void Entropy_Gather_double(double v);
void Entropy_Gather_cstr(const char* s);
// Feeds the ports of `c` and the time since `t_start` (from getdtime), as
// gathered before every TLS start on a control or data connection.
void Entropy_Gather_connection(Chan* c, double t_start);

// Settings that change the two configurations.
void korvane_set_require_client_certificates(int truth);
void korvane_disable_sslv2();
void korvane_disable_sslv3();
void korvane_disable_tls();
void korvane_set_cipher_list(const char* cipher_list);

// The server's certificate callback: logs each field at debug level and never refuses.
int logit_certificate_fn_cb(void* certificate_fn_ptr, int code, const char* id, const char* pad,
                            const char* val);

}  // namespace korv
