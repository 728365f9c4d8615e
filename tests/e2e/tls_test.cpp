// TLS against the real server: the replies of AUTH, PROT, PBSZ and SSCN,
// explicit TLS with a protected download, clear-text bytes after AUTH that
// must not run, a failed handshake, a server with TLS disabled, and sessions
// on the implicit port.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "net/tls.h"
#include "tests/support/ftpctl.h"
#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const char kGreeting[] = "220 Korvane test (Version 0.1.0)\r\n";
const char kContent[] = "protected bytes";

struct Server : KorvServer {
    explicit Server(const std::string& global = "") : KorvServer(basic_config(global)) {
        fs::create_directories(path("pub"));
        std::ofstream(path("pub/f.txt"), std::ios::binary) << kContent;
    }
};

void open(FtpCtl& c, int port) {
    ASSERT_TRUE(c.connect(port));
    ASSERT_EQ(c.reply(), kGreeting);
}

void anon_login(FtpCtl& c) {
    ASSERT_EQ(c.cmd("USER anonymous").compare(0, 4, "331 "), 0);
    std::string r = c.cmd("PASS a@b.c");
    ASSERT_EQ(r.compare(0, 4, "230 "), 0) << r;
}

// RETR f.txt over a passive connection, with TLS on it when `tls`.
void download(FtpCtl& c, bool tls) {
    int port = FtpCtl::reply_port(c.cmd("PASV"));
    ASSERT_GT(port, 0);
    ASSERT_TRUE(c.send_line("RETR f.txt"));
    ChanPtr data = FtpCtl::data_connect(port);
    ASSERT_TRUE(data);
    // The 150 reply comes before the data channel's handshake.
    EXPECT_EQ(c.reply().compare(0, 4, "150 "), 0);
    std::string why;
    if (tls) {
        ASSERT_TRUE(FtpCtl::tls_data(data.get(), why)) << why;
    }
    EXPECT_EQ(tcp_is_in_ssl_mode(data.get()), tls ? 1 : 0);
    EXPECT_EQ(FtpCtl::read_all(data.get()), kContent);
    EXPECT_EQ(c.reply().compare(0, 4, "226 "), 0);
}

TEST(TlsE2E, ProtectionCommandReplies) {
    Server s;
    ASSERT_TRUE(s.start());
    FtpCtl c;
    open(c, s.ftp_port());
    const std::pair<const char*, const char*> steps[] = {
        {"AUTH FOO", "504 Unknown auth method FOO\r\n"},
        {"auth tls-x", "504 Unknown auth method TLS-X\r\n"},
        {"PBSZ 0", "200 Great whatever you say\r\n"},
        {"PBSZ 99999", "200 Great whatever you say\r\n"},
        {"PROT P", "200 Data channel will be encrypted\r\n"},
        {"prot c", "200 Data channel will be clear text\r\n"},
        {"PROT S", "536 Unsupported option\r\n"},
        {"SSCN", "200 SSCN:SERVER METHOD\r\n"},
        {"SSCN on", "200 SSCN:CLIENT METHOD\r\n"},
        {"SSCN", "200 SSCN:CLIENT METHOD\r\n"},  // no argument: a report only
        {"SSCN OFFSIDE", "200 SSCN:SERVER METHOD\r\n"},  // two letters decide
        {"SSCN maybe", "500 Invalid syntax, use either ON or OFF\r\n"},
        {"SSCN", "200 SSCN:SERVER METHOD\r\n"},
    };
    for (const auto& [line, want] : steps) EXPECT_EQ(c.cmd(line), want) << line;
}

// AUTH TLS protects the control channel only until PROT P; AUTH SSL protects
// data at once. Clear-text lines sent behind AUTH are dropped.
TEST(TlsE2E, ExplicitTlsAndProtectedDownloads) {
    Server s;
    ASSERT_TRUE(s.start());
    for (const char* method : {"TLS", "SSL"}) {
        SCOPED_TRACE(method);
        FtpCtl c;
        open(c, s.ftp_port());
        ASSERT_TRUE(c.send_raw(std::string("AUTH ") + method + "\r\nSYST\r\n"));
        ASSERT_EQ(c.reply(), "234 Enabling SSL\r\n");
        std::string why;
        ASSERT_TRUE(c.start_tls(why)) << why;
        EXPECT_EQ(c.cmd("NOOP").compare(0, 4, "200 "), 0);  // not the SYST reply
        anon_login(c);
        const bool data_tls = method[0] == 'S';
        download(c, data_tls);
        EXPECT_EQ(c.cmd("PROT P"), "200 Data channel will be encrypted\r\n");
        download(c, true);
        EXPECT_EQ(c.cmd("PROT C"), "200 Data channel will be clear text\r\n");
        download(c, false);
    }
    EXPECT_TRUE(s.wait_log("Command Channel is encrypted, TLSv1.3:"));
    EXPECT_TRUE(s.wait_log("Opened secure data channel, TLSv1.3:"));
}

TEST(TlsE2E, FailedHandshakeAndDisabledTls) {
    {
        Server s;
        ASSERT_TRUE(s.start());
        FtpCtl c;
        open(c, s.ftp_port());
        ASSERT_EQ(c.cmd("AUTH TLS"), "234 Enabling SSL\r\n");
        ASSERT_TRUE(c.send_raw("GET /"));  // five bytes: as long as a record header
        std::string r = c.reply();
        EXPECT_EQ(r.compare(0, 24, "550 cannot enable SSL (S"), 0) << r;
        EXPECT_EQ(c.cmd("PROT C"), "");  // the session has ended
    }
    Server s("\tglobal_ssl \"Disable\"\n");
    ASSERT_TRUE(s.start());
    FtpCtl c;
    open(c, s.ftp_port());
    EXPECT_EQ(c.cmd("AUTH TLS"), "500 SSL encryption disabled\r\n");
}

// The implicit port: TLS before the greeting, protected data from the start,
// and no second AUTH.
TEST(TlsE2E, ImplicitPort) {
    Server s;
    ASSERT_TRUE(s.start());
    FtpCtl c;
    ASSERT_TRUE(c.connect(s.implicit_port()));
    std::string why;
    ASSERT_TRUE(c.start_tls(why)) << why;
    EXPECT_EQ(c.reply(), kGreeting);
    EXPECT_EQ(c.cmd("AUTH TLS"), "500 Secure mode is already started.\r\n");
    anon_login(c);
    download(c, true);
}

}  // namespace
}  // namespace korv::test
