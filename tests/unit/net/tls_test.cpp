// TLS on loopback channels with key material made at run time: handshakes in both roles, data
// through TLS, load failures, the handshake limit, required client certificates, cipher words.
#include "net/tls.h"

#include <gtest/gtest.h>

#include <array>
#include <future>
#include <regex>
#include <string>
#include <thread>

#include "tests/support/certs.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

class TlsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(test::make_test_pki(dir_.path(), pki_));
        ssltcp_set_root_ca_file(pki_.ca_cert.c_str());
        server_.beSSLClient = 0;
        server_.use_certificate = 1;
        server_.cert_pem_certificate = pki_.server_cert;
        server_.cert_pem_privkey = pki_.server_key;
    }
    void TearDown() override {
        ssltcp_set_root_ca_file(nullptr);
        ssltcp_set_handshake_limit_ms(kTlsHandshakeLimitMs);
    }

    // Starts the server side in a thread and the client side here; returns both results.
    std::pair<int, int> handshake(SSLTCP_SSLConfig* client_cfg, std::string& server_reason,
                                  std::string& client_reason) {
        EXPECT_TRUE(test::make_chan_pair(cl_, sv_));
        auto server = std::async(std::launch::async, [&] {
            int r = SSLTcp_StartSSL(sv_->tcp.get(), &server_, 1, server_reason);
            // A refused client must see the connection end rather than wait for data.
            if (!r) tcp_close(sv_.get());
            return r;
        });
        int c = SSLTcp_StartSSL(cl_->tcp.get(), client_cfg, 0, client_reason);
        return {server.get(), c};
    }

    test::TempDir dir_{"korv-tls"};
    test::TestPki pki_;
    SSLTCP_SSLConfig server_;
    ChanPtr cl_, sv_;
};

TEST_F(TlsTest, HandshakeBothRolesAndDataBothWays) {
    std::string sr, cr;
    auto [s, c] = handshake(nullptr, sr, cr);
    ASSERT_EQ(s, 1) << sr;
    ASSERT_EQ(c, 1) << cr;
    EXPECT_EQ(tcp_is_in_ssl_mode(cl_.get()), 1);
    EXPECT_STREQ(tcp_get_ssl_protocol_name_used(sv_.get()), "TLSv1.3");
    char cipher[64];
    std::string name = tcp_get_ssl_cipher_name_used(sv_.get(), cipher, sizeof cipher);
    EXPECT_TRUE(std::regex_match(name, std::regex("[A-Z0-9]+"))) << name;

    ASSERT_EQ(tcp_printf(cl_.get(), "USER %s\r\n", "anonymous"), 16);
    char line[100];
    EXPECT_EQ(tcp_readline(sv_.get(), line, sizeof line), 16);
    EXPECT_STREQ(line, "USER anonymous");

    // Several MiB one way with partial timed writes and reads of odd sizes.
    std::string big;
    for (int i = 0; i < (3 << 20) + 17; ++i) big.push_back(static_cast<char>(i * 7 + i / 1000));
    std::string got;
    std::thread reader([&] {
        char bf[7001];
        while (got.size() < big.size()) {
            int n = tcp_read_timed(cl_.get(), bf, sizeof bf, 5000);
            if (n <= 0) break;
            got.append(bf, static_cast<size_t>(n));
        }
    });
    size_t sent = 0;
    while (sent < big.size()) {
        int n = tcp_write_timed(sv_.get(), big.data() + sent, static_cast<int>(std::min<size_t>(big.size() - sent, 1 << 20)), 5000);
        ASSERT_GT(n, 0) << tcp_error(sv_.get());
        sent += static_cast<size_t>(n);
    }
    reader.join();
    EXPECT_TRUE(got == big);

    // Bytes already decrypted count as readable even when the socket has nothing more.
    ASSERT_EQ(tcp_write_timed(cl_.get(), "0123456789", 10, 1000), 10);
    char one;
    ASSERT_EQ(tcp_read_timed(sv_.get(), &one, 1, 5000), 1);
    EXPECT_EQ(tcp_need_read_attention(sv_.get(), 0), 1);
    char rest[20];
    // A read that waits first must not wait on the socket for them.
    EXPECT_EQ(tcp_read_next(sv_.get(), rest, sizeof rest, 1000), 9);

    // A close from the peer reads as 0 through TLS.
    tcp_close(cl_.get());
    EXPECT_EQ(tcp_read_timed(sv_.get(), rest, sizeof rest, 5000), 0);
}

TEST_F(TlsTest, NewInitReportsProtocolAndCipher) {
    EXPECT_TRUE(test::make_chan_pair(cl_, sv_));
    auto server = std::async(std::launch::async, [&] {
        std::string r;
        int ok = new_tcp_ssl_init(sv_.get(), &server_, -1, r);
        return std::make_pair(ok, r);
    });
    std::string cr;
    ASSERT_EQ(tcp_ssl_init(cl_.get(), 0, nullptr, cr), 1) << cr;
    auto [ok, reason] = server.get();
    ASSERT_EQ(ok, 1) << reason;
    EXPECT_TRUE(std::regex_match(reason, std::regex("TLSv1\\.[23]:[A-Z0-9]+"))) << reason;
}

TEST_F(TlsTest, KeyMaterialFailuresNameTheFile) {
    struct Case {
        const char* name;
        int use_certificate;
        std::string cert, key;
        std::string want_prefix;
    };
    const std::string missing = dir_.file("missing.pem");
    const Case cases[] = {
        {"key does not fit", 1, pki_.server_cert, pki_.mismatched_key,
         "Private Key and Certificate, invalid combination ("},
        {"missing certificate", 1, missing, pki_.server_key, "Load Certificate File (" + missing + ")("},
        {"missing key", 1, pki_.server_cert, missing, "Load Privatekey File (" + missing + ")("},
        {"server without certificate", 0, "", "", "SSL must have valid certificate & Private Key for Server mode."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ChanPtr a, b;
        ASSERT_TRUE(test::make_chan_pair(a, b));
        SSLTCP_SSLConfig cfg = server_;
        cfg.use_certificate = c.use_certificate;
        cfg.cert_pem_certificate = c.cert;
        cfg.cert_pem_privkey = c.key;
        std::string reason;
        EXPECT_EQ(SSLTcp_StartSSL(b->tcp.get(), &cfg, 1, reason), 0);
        EXPECT_EQ(reason.rfind(c.want_prefix, 0), 0u) << reason;
        EXPECT_EQ(tcp_is_in_ssl_mode(b.get()), 0);
    }
}

TEST_F(TlsTest, SilentClientHitsHandshakeLimit) {
    ssltcp_set_handshake_limit_ms(100);
    ASSERT_TRUE(test::make_chan_pair(cl_, sv_));
    std::string reason;
    EXPECT_EQ(SSLTcp_StartSSL(sv_->tcp.get(), &server_, 1, reason), 0);
    EXPECT_TRUE(std::regex_match(
        reason, std::regex("SSLTCP:\\d{3,}:SSL_do_handshake:timeout tcp:-1001:SSL Handshake did not complete\\..*")))
        << reason;
    EXPECT_EQ(tcp_is_in_ssl_mode(sv_.get()), 0);
}

TEST_F(TlsTest, RequiredClientCertificates) {
    struct Case {
        const char* name;
        std::string cert, key;  // empty: the client shows no certificate
        int want_server;
        std::string want_reason;  // a regular expression
    };
    const Case cases[] = {
        {"signed by the trusted authority", pki_.client_cert, pki_.client_key, 1, ""},
        {"no certificate", "", "", 0, "Client did not present required SSL Certificate\\."},
        {"signed by a stranger", pki_.stranger_cert, pki_.stranger_key, 0,
         "SSLTCP:\\d{3,}:SSL_do_handshake tcp:-1000:SSL failure\\. \\(SSL_ERROR_SSL\\):.*certificate verify failed.*"},
    };
    server_.requirePeerClientCertificate = 1;
    server_.requireValidatedPeerClientCertificate = 1;
    int fields_seen = 0;
    server_.certificate_fn_ptr = &fields_seen;
    server_.certificate_fn_cb = [](void* p, int, const char*, const char*, const char*) {
        ++*static_cast<int*>(p);
        return 1;
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        SSLTCP_SSLConfig client;
        client.beSSLClient = 1;
        if (!c.cert.empty()) {
            client.use_certificate = 1;
            client.cert_pem_certificate = c.cert;
            client.cert_pem_privkey = c.key;
        }
        std::string sr, cr;
        auto [s, cl] = handshake(&client, sr, cr);
        EXPECT_EQ(s, c.want_server) << sr;
        if (c.want_server) {
            EXPECT_EQ(cl, 1) << cr;
            EXPECT_GT(fields_seen, 0);
        } else {
            EXPECT_TRUE(std::regex_match(sr, std::regex(c.want_reason))) << sr;
            // Whatever the client's handshake said, the connection is over for it.
            char bf[8];
            EXPECT_LE(tcp_read_timed(cl_.get(), bf, sizeof bf, 5000), 0);
        }
    }
}

TEST_F(TlsTest, RefusedCipherStringKeepsTheDefault) {
    server_.use_alternative_cipherlist = 1;
    server_.use_cipher_list = "NO-SUCH-CIPHER";
    std::string sr, cr;
    auto [s, c] = handshake(nullptr, sr, cr);
    EXPECT_EQ(s, 1) << sr;
    EXPECT_EQ(c, 1) << cr;
}

TEST(TlsConfig, CipherWordsAndProtocolChoices) {
    struct Word {
        const char* word;
        int alternative;
        const char* list;
    };
    const Word words[] = {{"", 1, "DEFAULT"},          {"nist_approved", 1, "AES:3DES"}, {"Aes", 1, "AES"},
                          {"NIST_LEGACY", 1, "AES:3DES:DES"}, {"unrestricted", 1, "DEFAULT"}, {"rc4", 0, nullptr}};
    for (const Word& w : words) {
        SCOPED_TRACE(w.word);
        korvane_set_cipher_list(w.word);
        for (const SSLTCP_SSLConfig* c : {&my_main_sslconfig, &my_webmgr_sslconfig}) {
            EXPECT_EQ(c->use_alternative_cipherlist, w.alternative);
            if (w.list) {
                EXPECT_EQ(c->use_cipher_list, w.list);
            }
        }
    }
    korvane_set_cipher_list(nullptr);

    // Mixed settings whose test fails turn every protocol on; the others stay as given.
    struct Choice {
        int in[3];
        int out[3];
    };
    const Choice choices[] = {{{0, 0, 0}, {1, 1, 1}}, {{1, 1, 0}, {1, 1, 1}}, {{0, 1, 1}, {1, 1, 1}},
                              {{1, 0, 1}, {1, 1, 1}}, {{1, 0, 0}, {1, 0, 0}}, {{0, 1, 0}, {0, 1, 0}},
                              {{0, 0, 1}, {0, 0, 1}}, {{1, 1, 1}, {1, 1, 1}}};
    for (const Choice& ch : choices) {
        SSLTCP_SSLConfig cfg;
        SSLTCP_SSLConfig_ChooseProtocols(&cfg, ch.in[0], ch.in[1], ch.in[2]);
        EXPECT_EQ((std::array<int, 3>{cfg.allow_TLSv1, cfg.allow_SSLv2, cfg.allow_SSLv3}),
                  (std::array<int, 3>{ch.out[0], ch.out[1], ch.out[2]}))
            << ch.in[0] << ch.in[1] << ch.in[2];
    }

    SSLTCP_SSLConfig keyed;
    SSLTCP_SSLConfig_SetKey(&keyed, "/etc/k", "korvane_priv.pem", "korvane_cert.pem");
    EXPECT_EQ(keyed.use_certificate, 1);
    EXPECT_EQ(keyed.cert_pem_privkey, "/etc/k/korvane_priv.pem");
    SSLTcp_init();
    SSLTCP plain;
    char bf[16];
    SSLTcp_GetCipherName(&plain, bf, sizeof bf);
    EXPECT_STREQ(bf, "none");
}

}  // namespace
}  // namespace korv
