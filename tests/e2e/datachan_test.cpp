// Data channels against the real server: every reply of PORT, EPRT, PASV and
// EPSV, the advertised passive address, and downloads over passive and active
// connections, where a passive connection from another address than the
// control client's is cut off unless the class allows ftp_proxy.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "tests/support/chanpair.h"
#include "tests/support/ftpctl.h"
#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const char kGreeting[] = "220 Korvane test (Version 0.1.0)\r\n";
const char kContent[] = "no line ends, so either type gives the same bytes";

// The fixture's configuration with `global` lines and `class_extra` lines in
// the anonymous class; pub/f.txt is there to download.
struct Server : KorvServer {
    explicit Server(const std::string& global = "", const std::string& class_extra = "")
        : KorvServer(basic_config(global) + class_extra) {
        fs::create_directories(path("pub"));
        std::ofstream(path("pub/f.txt"), std::ios::binary) << kContent;
    }
};

void open(FtpCtl& c, int port, const char* from = "127.0.0.1", const char* to = "127.0.0.1") {
    ASSERT_TRUE(c.connect(port, from, to));
    ASSERT_EQ(c.reply(), kGreeting);
}

void anon_login(FtpCtl& c) {
    ASSERT_EQ(c.cmd("USER anonymous").compare(0, 4, "331 "), 0);
    std::string r = c.cmd("PASS a@b.c");
    ASSERT_EQ(r.compare(0, 4, "230 "), 0) << r;
}

const std::string kWrongHost =
    " use passive mode or enable in class settings\r\n";

TEST(DataChanE2E, PortEprtEpsvReplies) {
    Server s;
    ASSERT_TRUE(s.start());
    // Each row runs on a fresh connection; "~" marks a reply matched as a pattern.
    const std::vector<std::vector<std::pair<std::string, std::string>>> sessions = {
        {{"PORT 127,0,0,1,4,1", "200 PORT command successful.\r\n"},
         {"PORT 127,0,0,1,0,21", "500 Illegal PORT command, must use port>1023.\r\n"},
         {"PORT 10,0,0,5,4,1", "500 Illegal PORT command, wrong host (10.0.0.5) (127.0.0.1)" + kWrongHost},
         {"PORT 127,000,0,1,4,1", "500 Illegal PORT command, wrong host (127.000.0.1) (127.0.0.1)" + kWrongHost},
         {"PORT nonsense", "500 Illegal PORT command, wrong host () (127.0.0.1)" + kWrongHost}},
        {{"EPRT |1|127.0.0.1|5000|", "200 PORT command successful.\r\n"},
         {"EPRT |2|::1|5000|", "522 Network protocol not supported, use (1)\r\n"},
         {"EPRT x", "500 Bad port syntax (x)\r\n"},
         {"EPRT |1|10.0.0.5|5000|", "500 Illegal PORT command, wrong host (10.0.0.5) (127.0.0.1)" + kWrongHost},
         {"EPRT |1|127.0.0.1|80|", "500 Illegal PORT command, must use port>1023.\r\n"}},
        {{"EPSV 2", "522 Network protocol not supported, use (1)\r\n"},
         {"EPSV", "~229 Entering Extended Passive Mode \\(\\|\\|\\|[0-9]+\\|\\)\r\n"},
         {"EPSV 1", "~229 Entering Extended Passive Mode \\(\\|\\|\\|[0-9]+\\|\\)\r\n"},
         {"PASV", "~227 Entering Passive Mode \\(127,0,0,1,[0-9]+,[0-9]+\\)\\.\r\n"}},
        // After EPSV ALL only EPSV prepares a data connection; the verb is quoted as typed.
        {{"EPSV ALL", "~229 Entering Extended Passive Mode \\(\\|\\|\\|[0-9]+\\|\\)\r\n"},
         {"port 127,0,0,1,4,1", "500 Illegal (port) after epsv all command\r\n"},
         {"Pasv", "500 Illegal (Pasv) after epsv all command\r\n"},
         {"EPRT |1|127.0.0.1|5000|", "500 Illegal (EPRT) after epsv all command\r\n"},
         {"EPSV", "~229 Entering Extended Passive Mode \\(\\|\\|\\|[0-9]+\\|\\)\r\n"}},
    };
    for (const auto& session : sessions) {
        FtpCtl c;
        open(c, s.ftp_port());
        anon_login(c);
        for (const auto& [line, want] : session) {
            std::string got = c.cmd(line);
            if (want[0] == '~') {
                EXPECT_TRUE(std::regex_match(got, std::regex(want.substr(1)))) << line << " -> " << got;
            } else {
                EXPECT_EQ(got, want) << line;
            }
        }
    }
}

// The advertised address: the class's passive_ipnumber, replaced by
// global_passive_ip for clients that global_passive_match names, else the
// local address of the control connection.
TEST(DataChanE2E, PassiveAddressChoice) {
    Server s;
    std::string conf = KorvServer::basic_config("\tglobal_passive_match \"127.0.0.2\"\n\tglobal_passive_ip \"10.1.2.3\"\n");
    conf = conf.substr(0, conf.find("vdomain")) +
           "vdomain address=\"127.0.0.1\" name=\"test\"\n"
           "\tclass type=\"anonymous\" users=\"\" name=\"anonymous\" class_name=\"anonymous\"\n"
           "\t\tpassive_ipnumber \"10.9.9.9\"\n"
           "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n"
           "vdomain address=\"\" name=\"test\"\n"
           "\tclass type=\"anonymous\" users=\"\" name=\"anonymous\" class_name=\"anonymous\"\n"
           "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n";
    ASSERT_TRUE(s.rewrite_config(conf));
    ASSERT_TRUE(s.start());
    const struct {
        const char* from;
        const char* to;
        const char* want;
    } cases[] = {
        {"127.0.0.1", "127.0.0.1", "10,9,9,9,"},
        {"127.0.0.2", "127.0.0.1", "10,1,2,3,"},
        {"127.0.0.1", "127.0.0.3", "127,0,0,3,"},
    };
    for (const auto& k : cases) {
        FtpCtl c;
        open(c, s.ftp_port(), k.from, k.to);
        anon_login(c);
        std::string r = c.cmd("PASV");
        EXPECT_EQ(r.compare(0, 27 + strlen(k.want), std::string("227 Entering Passive Mode (") + k.want), 0)
            << k.from << " -> " << k.to << ": " << r;
    }
}

// RETR over a passive connection: a connection from 127.0.0.2 is closed at
// once, the client's own is served.
TEST(DataChanE2E, PassiveDownloadOnlyToTheControlClient) {
    Server s;
    ASSERT_TRUE(s.start());
    FtpCtl c;
    open(c, s.ftp_port());
    anon_login(c);
    int port = FtpCtl::reply_port(c.cmd("EPSV"));
    ASSERT_GT(port, 0);
    ASSERT_TRUE(c.send_line("RETR f.txt"));
    ChanPtr thief = FtpCtl::data_connect(port, "127.0.0.2");
    ASSERT_TRUE(thief);
    EXPECT_EQ(FtpCtl::read_all(thief.get()), "");
    ChanPtr data = FtpCtl::data_connect(port);
    ASSERT_TRUE(data);
    std::string r = c.reply();
    EXPECT_TRUE(std::regex_match(r, std::regex("150 Opening ASCII connection for .*f\\.txt\r\n"))) << r;
    EXPECT_EQ(FtpCtl::read_all(data.get()), kContent);
    EXPECT_EQ(c.reply().compare(0, 4, "226 "), 0);
    // The passive port served one transfer.
    EXPECT_EQ(c.cmd("NOOP").compare(0, 4, "200 "), 0);
    EXPECT_FALSE(FtpCtl::data_connect(port));
    EXPECT_TRUE(s.wait_log("Refused passive data connection from 127.0.0.2, the client is 127.0.0.1"));
}

TEST(DataChanE2E, FtpProxyAllowsAnotherHost) {
    Server s("", "\t\tftp_proxy \"true\"\n");
    ASSERT_TRUE(s.start());
    FtpCtl c;
    open(c, s.ftp_port());
    anon_login(c);
    int port = FtpCtl::reply_port(c.cmd("PASV"));
    ASSERT_GT(port, 0);
    ASSERT_TRUE(c.send_line("RETR f.txt"));
    ChanPtr data = FtpCtl::data_connect(port, "127.0.0.2");
    ASSERT_TRUE(data);
    EXPECT_EQ(c.reply().compare(0, 4, "150 "), 0);
    EXPECT_EQ(FtpCtl::read_all(data.get()), kContent);
    EXPECT_EQ(c.reply().compare(0, 4, "226 "), 0);
    // With ftp_proxy, PORT may name another host.
    EXPECT_EQ(c.cmd("PORT 10,0,0,5,4,1"), "200 PORT command successful.\r\n");
}

TEST(DataChanE2E, ActiveDownload) {
    Server s;
    ASSERT_TRUE(s.start());
    FtpCtl c;
    open(c, s.ftp_port());
    anon_login(c);
    unsigned short port = 0;
    ChanPtr listener = listen_loopback(&port);
    ASSERT_TRUE(listener);
    EXPECT_EQ(c.cmd("PORT 127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256)),
              "200 PORT command successful.\r\n");
    ASSERT_TRUE(c.send_line("RETR f.txt"));
    ChanPtr data = tcp_new_owned();
    ASSERT_EQ(tcp_accept_noblock(listener.get(), data.get(), 20000), 1);
    EXPECT_EQ(c.reply().compare(0, 4, "150 "), 0);
    EXPECT_EQ(FtpCtl::read_all(data.get()), kContent);
    EXPECT_EQ(c.reply().compare(0, 4, "226 "), 0);
}

}  // namespace
}  // namespace korv::test
