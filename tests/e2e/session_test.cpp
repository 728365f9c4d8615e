// The FTP session over raw sockets against the real server: greetings,
// admission refusals, argument checks, the login gate, telnet bytes,
// pipelining, the small commands and the command log. (The idle limit is a
// class setting, so its end-to-end test comes with logins; tests/unit/server/
// ftpio_test.cpp covers the limit itself.)
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "base/str.h"
#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

const char* const kVersion = "0.1.0";

// The global part of a configuration, then `domains` (one domain for every
// address when empty).
std::string conf(const std::string& global_extra = "", const std::string& domains = "") {
  return "global_settings\n"
         "\thome \"@HOME@\"\n"
         "\tlog_level \"debug\"\n"
         "\tglobal_port \"@FTP_PORT@\"\n"
         "\tglobal_implicit_port \"@IMPLICIT_PORT@\"\n"
         "\tglobal_mgr_port \"@MGR_PORT@\"\n"
         "\tglobal_mgr_ssl_port \"@MGR_SSL_PORT@\"\n" +
         global_extra +
         (domains.empty() ? "vdomain address=\"\" name=\"test\"\n\temail \"admin@localhost\"\n" : domains);
}

std::string greeting(const char* domain) {
  return std::string("220 Korvane ") + domain + " (Version " + kVersion + ")\r\n";
}

// The server of one test. Session logs go to a lower-cased copy of the home's
// path (log paths are lower case throughout); that copy goes with the test.
struct Server : KorvServer {
  using KorvServer::KorvServer;
  ~Server() {
    if (running()) {
      EXPECT_TRUE(stop()) << "the server did not stop on SIGTERM";
    }
    std::string twin = str_lower(dir());
    std::error_code ec;
    if (twin != dir() && !::testing::Test::HasFailure()) std::filesystem::remove_all(twin, ec);
  }
};

struct Exchange {
  const char* send;
  const char* reply;
};

// A control connection from a chosen loopback source address (the raw client
// always comes from 127.0.0.1): exact bytes out, one complete reply in.
class FromClient {
 public:
  FromClient(const char* src, int port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, src, &a.sin_addr);
    sockaddr_in b{};
    b.sin_family = AF_INET;
    b.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.1", &b.sin_addr);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::connect(fd_, reinterpret_cast<sockaddr*>(&b), sizeof b) != 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~FromClient() {
    if (fd_ >= 0) close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  // A complete reply ("ddd text" ends it), or what came before a close or the bound.
  std::string reply(int timeout_ms = 10000) {
    std::string out;
    pollfd p{fd_, POLLIN, 0};
    while (poll(&p, 1, timeout_ms) == 1) {
      char c;
      if (read(fd_, &c, 1) != 1) break;
      out += c;
      size_t start = out.rfind('\n', out.size() - 2);
      start = start == std::string::npos ? 0 : start + 1;
      if (c == '\n' && out.size() - start >= 5 && out[start + 3] == ' ') break;
    }
    return out;
  }
  std::string cmd(const std::string& line) {
    std::string bytes = line + "\r\n";
    if (write(fd_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) return "";
    return reply();
  }

 private:
  int fd_ = -1;
};

// Sends each line on one connection and checks each reply's exact bytes.
void run_table(FtpClient& c, const std::vector<Exchange>& table) {
  for (const auto& e : table) EXPECT_EQ(c.cmd(e.send), e.reply) << e.send;
}

TEST(Session, GreetingFromTheDomainOrItsGreetingsText) {
  {
    Server s(conf());
    ASSERT_TRUE(s.start());
    FtpClient c;
    ASSERT_TRUE(c.connect(s.ftp_port()));
    EXPECT_EQ(c.reply(), greeting("test"));
  }
  // A stored multi-line text: each line a 220 line, the last one closing.
  Server s(conf("", "vdomain address=\"\" name=\"test\"\n\tgreetings \"Hello there\\nSecond line\"\n"));
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  EXPECT_EQ(c.reply(), "220-Hello there\r\n220 Second line\r\n");
}

TEST(Session, TwoDomainsChosenByLocalAddress) {
  Server s(conf("", "vdomain address=\"127.0.0.1\" name=\"One\"\n"
                        "vdomain address=\"127.0.0.2\" name=\"Two\"\n"));
  ASSERT_TRUE(s.start());
  for (const char* addr : {"127.0.0.2", "127.0.0.1"}) {
    FtpClient c;
    ASSERT_TRUE(c.connect(s.ftp_port(), addr)) << addr;
    EXPECT_EQ(c.reply(), greeting(std::string(addr) == "127.0.0.1" ? "One" : "Two"));
  }
  // An address no domain serves is told so.
  Server only(conf("", "vdomain address=\"127.0.0.1\" name=\"One\"\n"));
  ASSERT_TRUE(only.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(only.ftp_port(), "127.0.0.3"));
  EXPECT_EQ(c.reply(), "550 There is no place for you to log in. Create domain for IP 127.0.0.3.\r\n");
  EXPECT_TRUE(c.wait_closed());
}

TEST(Session, AdmissionRefusals) {
  {
    // The deny list of the domain, matched against the client's address.
    Server s(conf("", "vdomain address=\"\" name=\"test\"\n\tdeny \"127.0.0.2\"\n\tdeny_msg \"Go away\"\n"));
    ASSERT_TRUE(s.start());
    FromClient denied("127.0.0.2", s.ftp_port());
    ASSERT_TRUE(denied.ok());
    EXPECT_EQ(denied.reply(), "550 Go away (127.0.0.2)\r\n");
    EXPECT_EQ(denied.reply(), "");  // and closed
    FtpClient ok;
    ASSERT_TRUE(ok.connect(s.ftp_port(), "127.0.0.1"));
    EXPECT_EQ(ok.reply(), greeting("test"));
  }
  {
    // global_con_perip counts this connection too: a limit of 2 admits two.
    Server s(conf("\tglobal_con_perip \"2\"\n"));
    ASSERT_TRUE(s.start());
    FtpClient a, b, c;
    ASSERT_TRUE(a.connect(s.ftp_port()));
    EXPECT_EQ(a.reply(), greeting("test"));
    ASSERT_TRUE(b.connect(s.ftp_port()));
    EXPECT_EQ(b.reply(), greeting("test"));
    ASSERT_TRUE(c.connect(s.ftp_port()));
    EXPECT_EQ(c.reply(),
              "550 Login failed - Sorry, too many connections from your IP, setting GLOBAL_CON_PERIP, max 2.\r\n");
    EXPECT_TRUE(c.wait_closed());
    FromClient other("127.0.0.2", s.ftp_port());  // another address is not counted
    EXPECT_EQ(other.reply(), greeting("test"));
  }
  // global_total_users: the sessions in progress, this one included, must stay
  // below the limit; a session that ends makes room again.
  Server s(conf("\tglobal_total_users \"2\"\n"));
  ASSERT_TRUE(s.start());
  FtpClient a, b, c;
  ASSERT_TRUE(a.connect(s.ftp_port()));
  EXPECT_EQ(a.reply(), greeting("test"));
  ASSERT_TRUE(b.connect(s.ftp_port()));
  EXPECT_EQ(b.reply(), "500 too many users (2), try again soon\r\n");
  EXPECT_TRUE(b.wait_closed());
  EXPECT_EQ(a.cmd("QUIT"), "221 Closing connection - goodbye!\r\n");
  EXPECT_TRUE(a.wait_closed());
  ASSERT_TRUE(c.connect(s.ftp_port()));
  EXPECT_EQ(c.reply(), greeting("test"));
  EXPECT_TRUE(s.wait_log("disallowing connecion because upper limit reached."));
}

TEST(Session, ArgumentRulesAndTheLoginGate) {
  Server s(conf());
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), greeting("test"));
  run_table(c, {
                   {"ALLO", "500 Insufficient arguments, got 1 need 2\r\n"},
                   {"ALLO 100 R 5", "202 ALLO command ignored.\r\n"},  // the rest of the line is one argument
                   {"XPWD x", "500 Too many arguments got 2 of 1\r\n"},
                   {"PWD x y", "502 PWD command not implemented\r\n"},
                   {"QUIT a b c", "500 Too many arguments got 4 of 3\r\n"},
                   {"ABOR 1 2 3 4 5 6 7 8 9 10 11", "225 ABOR command successful.\r\n"},  // words past nine are one
                   {"NoOp", "200 NOOP command successful.\r\n"},
                   {"XYZZY0123456789012345678901234567890", "500 Unknown command (XYZZY0123456789012345678901234)\r\n"},
                   {"STRU F", "200 STRU f ok.\r\n"},
                   {"STRU R", "504 Unimplemented STRU type\r\n"},
                   {"ACCT x", "502 ACCT command not implemented.\r\n"},
                   {"MODE S", "502 MODE command not implemented\r\n"},
                   // Until USER every verb passes the gate; after it only a few do.
                   {"USER", "331 Password required for .\r\n"},
                   {"USER bob smith", "331 Password required for bob.\r\n"},
                   {"NOOP", "530 User and pass still required\r\n"},
                   {"STAT", "530 User and pass still required\r\n"},
                   {"SYST", "215 UNIX Type: L8\r\n"},
                   {"PASS my pass word", "502 PASS command not implemented\r\n"},
                   {"USER ftp", "331 Guest login ok, send your complete e-mail address as password.\r\n"},
               });
  EXPECT_EQ(c.cmd("QUIT"), "221 Closing connection - goodbye!\r\n");
  EXPECT_TRUE(c.wait_closed());
}

TEST(Session, TelnetBytesPipeliningAndLineEnds) {
  Server s(conf());
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), greeting("test"));
  EXPECT_EQ(c.cmd("\xFF\xF4\xFF\xF2" "ABOR"), "225 ABOR command successful.\r\n");
  EXPECT_TRUE(s.wait_log("skipped interrupt data"));
  // Lines sent together are answered together, in order.
  ASSERT_TRUE(c.send_raw("NOOP\r\nSYST\r\nALLO\r\nNOOP\r\n"));
  EXPECT_EQ(c.reply(), "200 NOOP command successful.\r\n");
  EXPECT_EQ(c.reply(), "215 UNIX Type: L8\r\n");
  EXPECT_EQ(c.reply(), "500 Insufficient arguments, got 1 need 2\r\n");
  EXPECT_EQ(c.reply(), "200 NOOP command successful.\r\n");
  // A bare line feed does not end a line; the CR LF that follows does.
  ASSERT_TRUE(c.send_raw("NOOP\n"));
  EXPECT_EQ(c.read_raw(300), "");
  ASSERT_TRUE(c.send_raw("X\r\n"));
  EXPECT_EQ(c.reply(), "200 NOOP command successful.\r\n");
  // Client text quoted in a reply cannot start a reply line of its own.
  EXPECT_EQ(c.cmd("BAD\n226 forged"), "500 Unknown command (BAD 226 forged)\r\n");
  // A blank line gets no reply at all.
  ASSERT_TRUE(c.send_raw("\r\nNOOP\r\n"));
  EXPECT_EQ(c.reply(), "200 NOOP command successful.\r\n");
}

TEST(Session, HelpFeatStatSystOpts) {
  Server s(conf("\tglobal_utf8 \"true\"\n"));
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), greeting("test"));
  EXPECT_EQ(c.cmd("HELP"),
            "214-The following commands are recognized (* =>'s unimplemented).\r\n"
            "   USER    PORT    STOR    MSAM*   RNTO    NLST    MKD     CDUP\r\n"
            "   PASS    PASV    APPE    MRSQ*   ABOR    SITE    XMKD    XCUP\r\n"
            "   ACCT*   TYPE    MLFL*   MRCP*   DELE    SYST    RMD     STOU\r\n"
            "   SMNT*   STRU    MAIL*   ALLO    CWD     STAT    XRMD    SIZE\r\n"
            "   REIN*   MODE    MSND*   REST    XCWD    HELP    PWD     MDTM\r\n"
            "   QUIT    RETR    MSOM*   RNFR    LIST    NOOP    XPWD\r\n"
            "214 Direct comments to admin@localhost\r\n");
  EXPECT_EQ(c.cmd("FEAT"),
            "211-Extensions supported:\r\n MDTM\r\n"
            " MLST type*,size*,modify*,create,unique*,perm,unix.mode,unix.owner,unix.group\r\n"
            " PASV\r\n REST STREAM\r\n SSCN\r\n SIZE\r\n TVFS\r\n EPRT\r\n EPSV\r\n AUTH TLS\r\n PBSZ\r\n"
            " PROT\r\n MFMT\r\n UTF8\r\n211 End.\r\n");
  std::string stat = c.cmd("STAT");
  EXPECT_TRUE(std::regex_match(stat, std::regex("211-test FTP server status:\r\n"
                                                "     Version Korvane 0\\.1\\.0 \\w{3} [ \\d]\\d \\d{4}\r\n"
                                                "     Connected to 127\\.0\\.0\\.1 \\(127\\.0\\.0\\.1\\)\r\n"
                                                "     Logged in as \r\n"
                                                "     TYPE: ASCII, FORM: Nonprint; STRUcture: File; "
                                                "transfer MODE: Stream\r\n"
                                                "     No data connection\r\n"
                                                "211 End of status\r\n")))
      << stat;
  run_table(c, {
                   {"SYST", "215 UNIX Type: L8\r\n"},
                   {"OPTS", "500 OPTS sub command expected\r\n"},
                   {"OPTS utf8 on", "200 fake utf8 enabled\r\n"},
                   {"OPTS foo", "500 OPTS FOO command not implemented - let us know if you need this\r\n"},
               });
  // Without global_utf8 the UTF8 option is unknown and FEAT does not offer it.
  Server plain(conf("\tglobal_style \"windows\"\n"));
  ASSERT_TRUE(plain.start());
  FtpClient d;
  ASSERT_TRUE(d.connect(plain.ftp_port()));
  ASSERT_EQ(d.reply(), greeting("test"));
  EXPECT_EQ(d.cmd("OPTS UTF8 ON"), "500 OPTS UTF8 command not implemented - let us know if you need this\r\n");
  EXPECT_EQ(d.cmd("FEAT").find("UTF8"), std::string::npos);
  EXPECT_EQ(d.cmd("SYST"), "215 Windows_NT version 4.0\r\n");
}

TEST(Session, CommandLogKeepsLocalRepliesOutAndHidesPasswords) {
  {
    Server s(conf("", "vdomain address=\"\" name=\"Test\"\n"));
    ASSERT_TRUE(s.start());
    FtpClient local;
    ASSERT_TRUE(local.connect(s.ftp_port(), "127.0.0.1"));
    ASSERT_EQ(local.reply(), greeting("Test"));
    FromClient other("127.0.0.2", s.ftp_port());
    ASSERT_EQ(other.reply(), greeting("Test"));
    EXPECT_EQ(local.cmd("SYST"), "215 UNIX Type: L8\r\n");
    EXPECT_EQ(other.cmd("NOOP"), "200 NOOP command successful.\r\n");
    EXPECT_EQ(other.cmd("PASS secret99"), "502 PASS command not implemented\r\n");
    ASSERT_TRUE(s.stop());  // the log is flushed on the way down
    // Log paths are lower case throughout, the home directory included.
    std::ifstream in(str_lower(s.dir()) + "/test/cmds.log");
    std::stringstream ss;
    ss << in.rdbuf();
    std::string log = ss.str();
    EXPECT_NE(log.find("127.0.0.1  <-- SYST\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("127.0.0.1  --> 215"), std::string::npos) << log;
    EXPECT_NE(log.find("127.0.0.2  <-- NOOP\n"), std::string::npos) << log;
    EXPECT_NE(log.find("127.0.0.2  --> 200 NOOP command successful.\r\n"), std::string::npos) << log;
    EXPECT_NE(log.find("127.0.0.2  <-- PASS ******\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("secret99"), std::string::npos) << log;
    EXPECT_EQ(s.log_text().find("secret99"), std::string::npos);
  }
}

}  // namespace
}  // namespace korv::test
