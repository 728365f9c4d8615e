// Data channels on loopback with a session record and its control pair:
// address and EPRT parsing, the passive chooser, the 150 reply, TLS on the
// data channel in both SSCN roles, and the failure reasons the transfer
// commands turn into 425 replies. Passive and active downloads, and passive
// connections from other addresses, are tested end to end.
#include "server/ftp/datachan.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <future>
#include <string>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "net/tls.h"
#include "server/session/link.h"
#include "server/settings/ini.h"
#include "tests/support/certs.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

TEST(DataChanDecode, PortAndEprtArguments) {
    const struct {
        const char* arg;
        int ok;
        const char* to;
        unsigned short port;
    } ports[] = {
        {"10,0,0,5,4,1", 1, "10.0.0.5", 1025},
        {"10,0,0,5,0,21", 1, "10.0.0.5", 21},
        {"10,0,0,5,4", 1, "10.0.0.5", 1024},           // no low byte
        {"10,0,0,5,256,1", 1, "10.0.0.5", 1},          // wraps at 16 bits
        {"127,000,0,1,200,0", 1, "127.000.0.1", 51200},  // the text is kept as written
        {"11111111111,2222222222,3,4,5,6", 1, "11111111111.2222222222.3.", 1286},
        {"10,0,0,5", 0, "", 0},
        {"", 0, "", 0},
    };
    for (const auto& c : ports) {
        std::string to;
        unsigned short port = 0;
        EXPECT_EQ(ftp_decode_port(c.arg, to, &port), c.ok) << c.arg;
        EXPECT_EQ(to, c.to) << c.arg;
        EXPECT_EQ(port, c.port) << c.arg;
    }
    const struct {
        const char* arg;
        int ok;
        int proto;
        const char* to;
        unsigned short port;
    } eprts[] = {
        {"|1|127.0.0.1|5000|", 1, 1, "127.0.0.1", 5000},
        {"!2!::1!6000!", 1, 2, "::1", 6000},
        {"|1|h|70000", 1, 1, "h", 4464},
        {"|1|127.0.0.1", 0, 0, "", 0},
        {"x", 0, 0, "", 0},
        {"", 0, 0, "", 0},
    };
    for (const auto& c : eprts) {
        std::string to;
        unsigned short port = 0;
        int proto = 0;
        EXPECT_EQ(ftp_decode_eport(c.arg, to, &port, &proto), c.ok) << c.arg;
        EXPECT_EQ(proto, c.proto) << c.arg;
        EXPECT_EQ(to, c.to) << c.arg;
        EXPECT_EQ(port, c.port) << c.arg;
    }
    EXPECT_EQ(ftp_portstr("192.168.1.20", 5001), "192,168,1,20,19,137");
    EXPECT_EQ(ftp_portstr("123456789012345678901234", 0), "12345678901234567890,0,0");
}

// A session record whose control channel's client end is `peer_`; settings
// from a configuration with `extra` lines in its one class.
class DataChan : public ::testing::Test {
  protected:
    void SetUp() override {
        mutex_init();
        emsg_open(dir_.file("korvane.log").c_str());
        ASSERT_TRUE(test::make_test_pki(dir_.path(), pki_));
        SSLTCP_SSLConfig_SetKey(korv_main_ssl_get_ftpconn(), "/", pki_.server_key.c_str(),
                                pki_.server_cert.c_str());
        ASSERT_TRUE(test::make_chan_pair(peer_, l_.c));
        l_.ipnum = l_.to = "127.0.0.1";  // 127.0.0.1 keeps replies out of the command log
        l_.myip = "127.0.0.1";
        datachan_set_last_used(0);
    }
    void TearDown() override {
        ftp_end_datachan(&l_);
        ini_free(&l_);
        ini_free_all();
        reset_SSLTCP_SSLConfig(korv_main_ssl_get_ftpconn());
        emsg_open("");
    }
    void settings(const std::string& extra) {
        ini_free(&l_);
        ini_free_all();
        std::ofstream(dir_.file("k.ini")) << "vdomain address=\"\" name=\"d\"\nclass type=real\n" << extra;
        ASSERT_EQ(ini_read("korvane", dir_.file("k.ini").c_str()), 1);
        ASSERT_EQ(ini_setdomain(&l_, ""), 1);
        std::string reason;
        ASSERT_EQ(ini_setclass(&l_, "bob", reason), 1) << reason;
    }
    std::string reply() {
        char line[1100];
        int n = tcp_readline(peer_.get(), line, sizeof line);
        return n > 0 ? std::string(line) : std::string();
    }
    // PASV through its handler; the port of the 227 reply, or 0.
    int pasv() {
        char verb[] = "PASV";
        char empty[] = "";
        char* p[] = {verb, empty, empty};
        cmd_pasv(&l_, p, 1, "PASV");
        std::string r = reply();
        int h[6] = {};
        if (sscanf(r.c_str(), "227 Entering Passive Mode (%d,%d,%d,%d,%d,%d).", &h[0], &h[1], &h[2], &h[3], &h[4],
                   &h[5]) != 6) {
            ADD_FAILURE() << r;
            return 0;
        }
        return h[4] * 256 + h[5];
    }
    // A connection to 127.0.0.1:port from the loopback address `from`.
    static ChanPtr connect_from(const char* from, int port) {
        ChanPtr c = tcp_new_owned();
        EXPECT_EQ(tcp_bind(c.get(), from, 0, 0, 0), 1) << tcp_error(c.get());
        EXPECT_EQ(tcp_open(c.get(), "127.0.0.1", static_cast<unsigned short>(port)), 1) << tcp_error(c.get());
        return c;
    }
    // Bytes through the open data channel, and the peer's end seen after ftp_end_datachan.
    void check_bytes_flow(Chan* data) {
        ASSERT_TRUE(l_.cdata);
        ASSERT_EQ(tcp_write_timed(l_.cdata.get(), "abc\r\n", 5, 5000), 5);
        char line[100];
        ASSERT_EQ(tcp_readline(data, line, sizeof line), 5);
        EXPECT_STREQ(line, "abc");
        ftp_end_datachan(&l_);
        EXPECT_FALSE(l_.cdata);
        EXPECT_FALSE(l_.listen);
        EXPECT_EQ(l_.ispassive, 0);
        EXPECT_EQ(tcp_read_timed(data, line, sizeof line, 5000), 0);
    }

    test::TempDir dir_{"korv-datachan"};
    test::TestPki pki_;
    ChanPtr peer_;
    Link l_;
};

// Three free consecutive ports above the kernel's ephemeral range, so that no
// connection of a test running alongside can take one between check and use.
static unsigned short free_port_triple() {
    for (int b = 61000 + getpid() % 3000; b + 2 < 65535; b += 3) {
        bool ok = true;
        for (int i = 0; i < 3 && ok; i++) {
            ChanPtr c = tcp_new_owned();
            ok = tcp_listen(c.get(), "127.0.0.1", static_cast<unsigned short>(b + i), 0) == 1;
        }
        if (ok) return static_cast<unsigned short>(b);
    }
    return 0;
}

TEST_F(DataChan, PassiveChooserTurnsRoundTheRange) {
    unsigned short base = free_port_triple();
    ASSERT_NE(base, 0);
    settings(strfmt("\tpassive_port \"%d\"\n\tpassive_port_max \"%d\"\n", base, base + 2));
    // It begins one past the start, wraps after the top, and steps over a busy port.
    EXPECT_EQ(pasv(), base + 1);
    EXPECT_EQ(pasv(), base + 2);
    EXPECT_EQ(pasv(), base);
    ChanPtr busy = tcp_new_owned();
    ASSERT_EQ(tcp_listen(busy.get(), "127.0.0.1", static_cast<unsigned short>(base + 1), 0), 1);
    EXPECT_EQ(pasv(), base + 2);
    // A second PASV let the first listener go.
    ChanPtr probe = tcp_new_owned();
    EXPECT_EQ(tcp_open(probe.get(), "127.0.0.1", base), 0);

    settings(strfmt("\tpassive_port \"%d\"\n\tpassive_port_max \"%d\"\n", base + 1, base + 1));
    unsigned short got = 0;
    EXPECT_EQ(cmd_do_pasv(&l_, &got), 0);
    EXPECT_EQ(reply(), strfmt("500 could not listen on specified port(s) %d-%d", base + 1, base + 1));
    EXPECT_FALSE(l_.listen);

    settings("");  // no range: the system picks
    EXPECT_EQ(cmd_do_pasv(&l_, &got), 1);
    EXPECT_GT(got, 0);
    EXPECT_EQ(datachan_last_used(), got);
}

TEST_F(DataChan, FailureReasons) {
    settings("");
    std::string reason;
    l_.ispassive = 1;  // passive without a listener
    EXPECT_EQ(ftp_open_datachan(&l_, reason, "z"), 0);
    EXPECT_EQ(reason, "No passive link to accept.");

    l_.ispassive = 0;
    unsigned short closed = 0;
    test::listen_loopback(&closed);  // the port is free again once this goes
    l_.port = closed;
    EXPECT_EQ(ftp_open_datachan(&l_, reason, "z"), 0);
    EXPECT_EQ(reason.rfind("Cannot connect to dest socket 127.0.0.1:" + std::to_string(closed) + " ", 0), 0u)
        << reason;
    EXPECT_LE(reason.size(), 100u);
    EXPECT_FALSE(l_.cdata);

    l_.myip = "10.255.255.1";  // not an address of this host
    EXPECT_EQ(ftp_open_datachan(&l_, reason, "z"), 0);
    EXPECT_EQ(reason.rfind("Cannot Bind 10.255.255.1:0 ", 0), 0u) << reason;
}

// Protected data channels: the 150 reply goes out in the clear before the
// handshake, and SSCN decides which side plays the TLS server.
TEST_F(DataChan, TlsInTheRoleSscnChose) {
    settings("");
    for (int server_role : {1, 0}) {
        SCOPED_TRACE(server_role);
        l_.ssl_data = 1;
        l_.SSCNisServer = server_role;
        int port = pasv();
        std::string reason;
        auto opened = std::async(std::launch::async, [&] { return ftp_open_datachan(&l_, reason, "s"); });
        ChanPtr data = connect_from("127.0.0.1", port);
        EXPECT_EQ(reply(), "150 Opening ASCII connection for s");
        SSLTCP_SSLConfig client;
        client.use_certificate = 1;
        client.cert_pem_certificate = pki_.client_cert;
        client.cert_pem_privkey = pki_.client_key;
        std::string why;
        ASSERT_EQ(SSLTcp_StartSSL(data->tcp.get(), &client, server_role ? 0 : 1, why), 1) << why;
        ASSERT_EQ(opened.get(), 1) << reason;
        EXPECT_EQ(tcp_is_in_ssl_mode(l_.cdata.get()), 1);
        check_bytes_flow(data.get());
    }
}

TEST_F(DataChan, TlsRefusedLeavesTheChannelToTheCaller) {
    settings("");
    l_.ssl_data = 1;
    int port = pasv();
    std::string reason;
    auto opened = std::async(std::launch::async, [&] { return ftp_open_datachan(&l_, reason, "s"); });
    ChanPtr data = connect_from("127.0.0.1", port);
    EXPECT_EQ(reply(), "150 Opening ASCII connection for s");
    ASSERT_EQ(tcp_write(data.get(), "not a handshake\r\n", 17), 17);
    EXPECT_EQ(opened.get(), 0);
    EXPECT_EQ(reason.rfind("Cant start SSL (", 0), 0u) << reason;
    EXPECT_EQ(reason.substr(reason.size() - 3), ")\r\n");
    EXPECT_TRUE(l_.cdata);
}

}  // namespace
}  // namespace korv
