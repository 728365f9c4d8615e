// The FTP session over raw sockets against the real server: greetings and
// admission refusals, argument checks and the login gate, telnet bytes and
// pipelining, the small commands, the command log, and the idle limit of a
// logged-in session.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "base/str.h"
#include "tests/support/korv_server.h"

namespace korv::test {
namespace {

// The fixture's configuration with `extra` global settings and `domains` in
// place of its one domain.
std::string conf(const std::string& extra, const std::string& domains = "") {
  std::string c = KorvServer::basic_config(extra);
  if (!domains.empty()) c = c.substr(0, c.find("vdomain")) + domains;
  return c;
}

std::string greeting(const char* domain) { return std::string("220 Korvane ") + domain + " (Version 0.1.0)\r\n"; }

// The server of one test, stopped (and checked) at the end.
struct Server : KorvServer {
  using KorvServer::KorvServer;
  ~Server() {
    if (running()) {
      EXPECT_TRUE(stop());
    }
  }
};

TEST(Session, DomainByLocalAddressGreetingsAndDeny) {
  Server s(conf("", "vdomain address=\"127.0.0.1\" name=\"One\"\n\tdeny \"127.0.0.2\"\n\tdeny_msg \"Go away\"\n"
                    "vdomain address=\"127.0.0.2\" name=\"Two\"\n\tgreetings \"Hello there\\nSecond line\"\n"));
  ASSERT_TRUE(s.start());
  const struct {
    const char* to;
    std::string reply;
  } cases[] = {
      {"127.0.0.1", greeting("One")},
      {"127.0.0.2", "220-Hello there\r\n220 Second line\r\n"},  // a stored multi-line text
      {"127.0.0.3", "550 There is no place for you to log in. Create domain for IP 127.0.0.3.\r\n"},
  };
  for (const auto& c : cases) {
    FtpClient client;
    ASSERT_TRUE(client.connect(s.ftp_port(), c.to));
    EXPECT_EQ(client.reply(), c.reply) << c.to;
  }
  FromClient denied("127.0.0.2", s.ftp_port());
  EXPECT_EQ(denied.reply(), "550 Go away (127.0.0.2)\r\n");
  EXPECT_EQ(denied.reply(), "");  // and closed
}

TEST(Session, ConnectionLimits) {
  Server s(conf("\tglobal_con_perip \"2\"\n\tglobal_total_users \"4\"\n"));
  ASSERT_TRUE(s.start());
  ASSERT_TRUE(s.wait_log("Channel closed normally"));  // the start-up probe has gone
  // Per address, this session included: a limit of 2 admits two.
  FtpClient a, b, c;
  for (FtpClient* x : {&a, &b}) {
    ASSERT_TRUE(x->connect(s.ftp_port()));
    EXPECT_EQ(x->reply(), greeting("test"));
  }
  ASSERT_TRUE(c.connect(s.ftp_port()));
  EXPECT_EQ(c.reply(), "550 Login failed - Sorry, too many connections from your IP, setting GLOBAL_CON_PERIP, max 2.\r\n");
  EXPECT_TRUE(c.wait_closed());
  // In all, this session included, a limit of 4 admits four.
  FromClient d("127.0.0.2", s.ftp_port());
  EXPECT_EQ(d.reply(), greeting("test"));
  FromClient g("127.0.0.4", s.ftp_port());
  EXPECT_EQ(g.reply(), greeting("test"));
  FromClient e("127.0.0.3", s.ftp_port());
  EXPECT_EQ(e.reply(), "500 too many users (4), try again soon\r\n");
  EXPECT_EQ(e.reply(), "");
  // An ended session makes room again.
  EXPECT_EQ(a.cmd("QUIT"), "221 Closing connection - goodbye!\r\n");
  EXPECT_TRUE(a.wait_closed());
  FromClient f("127.0.0.3", s.ftp_port());
  EXPECT_EQ(f.reply(), greeting("test"));
}

TEST(Session, ArgumentRulesLoginGateAndCommandLog) {
  Server s(conf(""));
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), greeting("test"));
  FromClient other("127.0.0.2", s.ftp_port());
  ASSERT_EQ(other.reply(), greeting("test"));
  const struct {
    const char* send;
    const char* reply;
  } table[] = {
      {"ALLO", "500 Insufficient arguments, got 1 need 2\r\n"},
      {"NOOP 100 R 5", "200 NOOP command successful.\r\n"},  // the rest of the line is one argument
      {"XPWD x", "500 Too many arguments got 2 of 1\r\n"},
      {"PWD x y", "530 User and pass still required\r\n"},
      {"QUIT a b c", "500 Too many arguments got 4 of 3\r\n"},
      {"PBSZ 1 2 3 4 5 6 7 8 9 10 11", "200 Great whatever you say\r\n"},  // words past nine are one
      {"NoOp", "200 NOOP command successful.\r\n"},
      {"XYZZY0123456789012345678901234567890", "500 Unknown command (XYZZY0123456789012345678901234)\r\n"},
      // Before a login only the login, TLS set-up and feature verbs pass the gate.
      {"STRU F", "530 User and pass still required\r\n"},
      {"ACCT x", "530 User and pass still required\r\n"},
      {"USER", "331 Password required for .\r\n"},
      {"USER bob smith", "331 Password required for bob.\r\n"},
      {"CWD /", "530 User and pass still required\r\n"},
      {"SYST", "215 UNIX Type: L8\r\n"},
      {"PASS my secret", "530 Login incorrect bob  \r\n"},  // no such system user
      {"USER ftp", "331 Guest login ok, send your complete e-mail address as password.\r\n"},
  };
  for (const auto& e : table) EXPECT_EQ(c.cmd(e.send), e.reply) << e.send;
  ASSERT_TRUE(s.stop());  // the command log is flushed on the way down
  std::stringstream log;
  log << std::ifstream(str_lower(s.dir()) + "/test/cmds.log").rdbuf();
  // Replies to 127.0.0.1 stay out of the log; passwords never get in.
  EXPECT_NE(log.str().find("127.0.0.1  <-- XPWD x\n"), std::string::npos) << log.str();
  EXPECT_NE(log.str().find("127.0.0.1 bob <-- PASS ******\n"), std::string::npos);
  EXPECT_NE(log.str().find("127.0.0.2  --> " + greeting("test")), std::string::npos);
  for (std::string line; std::getline(log, line);) {
    EXPECT_FALSE(line.find("127.0.0.1 ") != std::string::npos && line.find("-->") != std::string::npos) << line;
  }
  EXPECT_EQ(log.str().find("secret"), std::string::npos);
  EXPECT_EQ(s.log_text().find("secret"), std::string::npos);
}

TEST(Session, TelnetBytesPipeliningAndLineEnds) {
  Server s(conf(""));
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), greeting("test"));
  EXPECT_EQ(c.cmd("\xFF\xF4\xFF\xF2" "NOOP"), "200 NOOP command successful.\r\n");
  EXPECT_TRUE(s.wait_log("skipped interrupt data"));
  // Lines sent together are answered together, in order; a blank one gets nothing.
  ASSERT_TRUE(c.send_raw("NOOP\r\nSYST\r\n\r\nALLO\r\n"));
  EXPECT_EQ(c.reply(), "200 NOOP command successful.\r\n");
  EXPECT_EQ(c.reply(), "215 UNIX Type: L8\r\n");
  EXPECT_EQ(c.reply(), "500 Insufficient arguments, got 1 need 2\r\n");
  // A bare line feed does not end a line; the CR LF that follows does.
  ASSERT_TRUE(c.send_raw("NOOP\n"));
  EXPECT_EQ(c.read_raw(300), "");
  ASSERT_TRUE(c.send_raw("X\r\n"));
  EXPECT_EQ(c.reply(), "200 NOOP command successful.\r\n");
  // Client text quoted in a reply cannot start a reply line of its own.
  EXPECT_EQ(c.cmd("BAD\n226 forged"), "500 Unknown command (BAD 226 forged)\r\n");
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
  ASSERT_EQ(c.cmd("USER ftp").substr(0, 4), "331 ");
  ASSERT_EQ(c.cmd("PASS a@b.c").substr(0, 4), "230 ");
  std::string stat = c.cmd("STAT");
  EXPECT_TRUE(std::regex_match(stat, std::regex("211-test FTP server status:\r\n"
                                                "     Version Korvane 0\\.1\\.0 \\w{3} [ \\d]\\d \\d{4}\r\n"
                                                "     Connected to 127\\.0\\.0\\.1 \\(127\\.0\\.0\\.1\\)\r\n"
                                                "     Logged in as anonymous\r\n"
                                                "     TYPE: ASCII, FORM: Nonprint; STRUcture: File; "
                                                "transfer MODE: Stream\r\n"
                                                "     No data connection\r\n"
                                                "211 End of status\r\n")))
      << stat;
  EXPECT_EQ(c.cmd("SYST"), "215 UNIX Type: L8\r\n");
  EXPECT_EQ(c.cmd("OPTS"), "500 OPTS sub command expected\r\n");
  EXPECT_EQ(c.cmd("OPTS utf8 on"), "200 fake utf8 enabled\r\n");
  EXPECT_EQ(c.cmd("OPTS foo"), "500 OPTS FOO command not implemented - let us know if you need this\r\n");
}

// The class's limit_time governs a logged-in session: past it the client is
// told and the connection ends. (One minute is the smallest limit a class can
// set, so this test waits that long.)
TEST(Session, IdleLimitOfTheClassEndsTheSession) {
  Server s(KorvServer::basic_config() + "\t\tlimit_time \"1\"\n");
  ASSERT_TRUE(s.start());
  FtpClient c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), greeting("test"));
  ASSERT_EQ(c.cmd("USER ftp"), "331 Guest login ok, send your complete e-mail address as password.\r\n");
  ASSERT_EQ(c.cmd("PASS me@example.org"), "230 Anonymous access granted, restrictions apply.anonymous\r\n");
  EXPECT_EQ(c.reply(75000), "421 Timeout (1 minutes): closing control connection.\r\n");
  EXPECT_TRUE(c.wait_closed());
}

}  // namespace
}  // namespace korv::test
