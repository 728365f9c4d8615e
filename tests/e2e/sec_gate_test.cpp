// The edges of a session against the real server: what passes before a
// login, control lines that are too long or carry stray line ends and control
// bytes, TLS set-ups that fail, the per-user limit and the failure throttle
// under parallel sessions, SITE IDLE bounds, refused data addresses, and
// user names the module's line protocol cannot carry.
#include <arpa/inet.h>
#include <crypt.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "net/tls.h"
#include "tests/support/ftpctl.h"
#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const std::string kOmauth = KORV_BINARY_DIR "/omauth";
const char kGreeting[] = "220 Korvane test (Version 0.1.0)\r\n";
const char kGate[] = "530 User and pass still required\r\n";

// One domain "test" for every address: anonymous users in pub/, module users
// (the bundled module on users in the home) in home/<name>, with `real_lines`
// added to the real users' class, and `global` lines.
std::string config(const std::string& global = "", const std::string& real_lines = "") {
  std::string c = KorvServer::basic_config("\tauthent_process \"" + kOmauth + "\"\n" +
                                           "\tauthent_cmdopts \"-file @HOME@/users\"\n" + global);
  return c.substr(0, c.find("vdomain")) +
         "vdomain address=\"\" name=\"test\"\n"
         "\tclass type=\"anonymous\" users=\"\" name=\"anonymous\" class_name=\"anonymous\"\n"
         "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n"
         "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n" +
         real_lines + "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n";
}

struct Server : KorvServer {
  explicit Server(const std::string& conf = config()) : KorvServer(conf) {
    fs::create_directories(path("pub"));
    fs::create_directories(path("home/bob"));
    std::ofstream(path("users")) << "bob password=\"" << hash_of("Right-1") << "\"\n";
  }
  ~Server() {
    if (running()) {
      EXPECT_TRUE(stop());
    }
  }
  std::string cmds_log() const { return slurp(dir() + "/test/cmds.log"); }
};

void open(FtpClient& c, const Server& s, const std::string& from = "") {
  ASSERT_TRUE(c.connect(s.ftp_port(), "127.0.0.1", 10000, from));
  ASSERT_EQ(c.reply(), kGreeting);
}

void anon_login(FtpClient& c) {
  ASSERT_EQ(c.cmd("USER anonymous").compare(0, 4, "331 "), 0);
  std::string r = c.cmd("PASS a@b.c");
  ASSERT_EQ(r.compare(0, 4, "230 "), 0) << r;
}

// True if some line of `text` starts with `head`.
bool has_line_starting(const std::string& text, const std::string& head) {
  for (size_t at = 0; at < text.size();) {
    if (text.compare(at, head.size(), head) == 0) return true;
    size_t nl = text.find('\n', at);
    if (nl == std::string::npos) break;
    at = nl + 1;
  }
  return false;
}

TEST(SecGate, NothingButLoginSetUpBeforeALogin) {
  Server s;
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  const char* const gated[] = {"PASV", "EPSV", "PORT 127,0,0,1,200,10", "EPRT |1|127.0.0.1|51210|",
                               "SITE IDLE 2000000000", "STAT /", "LIST", "NLST", "SIZE f", "MLST f",
                               "MDTM f", "CWD /", "PWD", "RETR f", "STOR f", "DELE f", "MKD d",
                               "TYPE I", "REST 5", "ABOR", "ALLO 5"};
  // Before any USER, and between USER and a failed PASS.
  for (int round = 0; round < 2; round++) {
    for (const char* line : gated) EXPECT_EQ(c.cmd(line), kGate) << line << " round " << round;
    if (round == 0) {
      EXPECT_EQ(c.cmd("USER bob"), "331 Password required for bob.\r\n");
      EXPECT_EQ(c.cmd("PASS wrong").compare(0, 20, "530 Login incorrect "), 0);
    }
  }
  // The verbs a client needs to set up TLS and learn the features pass.
  const std::pair<const char*, const char*> open_verbs[] = {
      {"SYST", "215 UNIX Type: L8\r\n"},
      {"NOOP", "200 NOOP command successful.\r\n"},
      {"PBSZ 0", "200 Great whatever you say\r\n"},
      {"PROT C", "200 Data channel will be clear text\r\n"},
      {"SSCN", "200 SSCN:SERVER METHOD\r\n"},
      {"FEAT", "211-"},
      {"HELP", "214-"},
      {"OPTS MLST type;", "200 "},
  };
  for (const auto& [line, head] : open_verbs) {
    std::string r = c.cmd(line);
    EXPECT_EQ(r.compare(0, strlen(head), head), 0) << line << ": " << r;
  }
  anon_login(c);
  EXPECT_EQ(c.cmd("PWD"), "257 \"/\" is current directory.\r\n");
  EXPECT_EQ(c.cmd("PASV").compare(0, 4, "227 "), 0);
  ASSERT_TRUE(s.stop());
  // Only the PASV after the login opened a listener.
  std::string log = s.log_text();
  size_t first = log.find("do_pasv chose passive port");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(log.find("do_pasv chose passive port", first + 1), std::string::npos);
}

TEST(SecGate, OverlongLinesAreRefusedWhole) {
  Server s;
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  // A megabyte of blanks ending in a verb: no tail of it may run.
  std::string flood(1 << 20, ' ');
  ASSERT_TRUE(c.send_raw(flood));
  ASSERT_TRUE(c.send_raw("SYST\r\n"));
  EXPECT_EQ(c.reply(20000), "500 Line too long\r\n");
  EXPECT_EQ(c.cmd("NOOP"), "200 NOOP command successful.\r\n");
  // The longest line that runs, and one byte more.
  EXPECT_EQ(c.cmd("NOOP" + std::string(995, ' ')), "200 NOOP command successful.\r\n");
  EXPECT_EQ(c.cmd("NOOP" + std::string(996, ' ')), "500 Line too long\r\n");
  // A line too long with a complete line behind it in the same write.
  ASSERT_TRUE(c.send_raw(std::string(5000, ' ') + "SYST\r\nNOOP\r\n"));
  EXPECT_EQ(c.reply(), "500 Line too long\r\n");
  EXPECT_EQ(c.reply(), "200 NOOP command successful.\r\n");
  EXPECT_EQ(c.read_raw(300), "");
}

TEST(SecGate, StrayLineEndsForgeNoReplyAndNoLogLine) {
  Server s;
  ASSERT_TRUE(s.start());
  std::ofstream(s.path("pub/x\r\n226 forged")) << "x";
  FtpClient c;
  open(c, s);
  EXPECT_EQ(c.cmd("NOOP\nFAKE LOG LINE"), "200 NOOP command successful.\r\n");
  ASSERT_TRUE(c.send_raw(std::string("XXXX\r\0\n221 injected line\r\n", 27)));
  EXPECT_EQ(c.reply(), "500 Unknown command (XXXX  221 injected line)\r\n");
  EXPECT_EQ(c.cmd("NOOP\x01\x7f"), "500 Unknown command (NOOP  )\r\n");  // shown as blanks
  anon_login(c);
  ASSERT_TRUE(c.send_line("STAT /"));
  std::string stat = c.reply();
  EXPECT_EQ(stat.compare(0, 4, "213-"), 0) << stat;
  EXPECT_NE(stat.find("x  226 forged"), std::string::npos) << stat;
  EXPECT_FALSE(has_line_starting(stat, "226")) << stat;
  EXPECT_EQ(c.read_raw(300), "");  // nothing after the end of the status
  ASSERT_TRUE(s.stop());
  for (const std::string& log : {s.cmds_log(), s.log_text()}) {
    EXPECT_FALSE(has_line_starting(log, "FAKE LOG LINE")) << log;
    EXPECT_FALSE(has_line_starting(log, "221 injected")) << log;
  }
  EXPECT_NE(s.cmds_log().find("<-- NOOP\\x0aFAKE LOG LINE\n"), std::string::npos);
  EXPECT_NE(s.cmds_log().find("<-- XXXX\\x0d\\x0a221 injected line\n"), std::string::npos);
}

TEST(SecGate, FailedTlsSetUpEndsTheSession) {
  {
    // A handshake that fails: what follows it is never read as commands,
    // even where TLS is required for a login.
    Server s(config("\tglobal_ssl \"Require\"\n"));
    ASSERT_TRUE(s.start());
    FtpClient c;
    open(c, s);
    ASSERT_EQ(c.cmd("AUTH TLS"), "234 Enabling SSL\r\n");
    ASSERT_TRUE(c.send_raw("GET /\r\nUSER anonymous\r\nPASS a@b.c\r\n"));
    std::string r = c.reply();
    EXPECT_EQ(r.compare(0, 23, "550 cannot enable SSL ("), 0) << r;
    EXPECT_TRUE(c.wait_closed());
    ASSERT_TRUE(s.stop());
    EXPECT_EQ(s.log_text().find("logged in"), std::string::npos);
  }
  // A client without the certificate the server requires is told, then cut
  // off: the TLS session it did set up carries no login.
  Server s(config("\tglobal_ssl_require_client_certificate \"true\"\n"));
  ASSERT_TRUE(s.start());
  FtpCtl c;
  ASSERT_TRUE(c.connect(s.ftp_port()));
  ASSERT_EQ(c.reply(), kGreeting);
  ASSERT_EQ(c.cmd("AUTH TLS"), "234 Enabling SSL\r\n");
  std::string why;
  EXPECT_TRUE(c.start_tls(why)) << why;
  {
    std::string r = c.reply();
    EXPECT_EQ(r.compare(0, 23, "550 cannot enable SSL ("), 0) << r;
    c.send_line("USER anonymous");
    c.send_line("PASS a@b.c");
    EXPECT_EQ(c.reply(), "");  // closed, no reply to the login
  }
  ASSERT_TRUE(s.stop());
  EXPECT_EQ(s.log_text().find("logged in"), std::string::npos);
}

TEST(SecGate, PerUserLimitCountsLoginsOnly) {
  Server s(config("", "\t\tlimit_peruser \"2\"\n"));
  ASSERT_TRUE(s.start());
  // Sessions that only named bob hold none of his places.
  std::vector<std::unique_ptr<FtpClient>> named;
  for (int i = 0; i < 3; i++) {
    named.push_back(std::make_unique<FtpClient>());
    open(*named.back(), s);
    ASSERT_EQ(named.back()->cmd("USER bob"), "331 Password required for bob.\r\n");
  }
  FtpClient a, b, c;
  for (FtpClient* x : {&a, &b}) {
    open(*x, s);
    ASSERT_EQ(x->cmd("USER bob"), "331 Password required for bob.\r\n");
    std::string r = x->cmd("PASS Right-1");
    EXPECT_EQ(r.compare(0, 4, "230 "), 0) << r;
  }
  // Two logged in: the third login is over the limit.
  open(c, s);
  ASSERT_EQ(c.cmd("USER bob"), "331 Password required for bob.\r\n");
  EXPECT_EQ(c.cmd("PASS Right-1"), "530 Login denied - already 3/2 users connected sorry, setting LIMIT_PERUSER.\r\n");
}

// Logins sent together cannot all pass the limit between each other's check
// and completion. A quota count rebuilt over many files at each login holds
// them in that gap long enough for the race to show.
TEST(SecGate, ParallelLoginsMeetThePerUserLimit) {
  Server s(config("", "\t\tlimit_peruser \"1\"\n\t\tquota_default \"1000000000\"\n"));
  for (int i = 0; i < 4000; i++) std::ofstream(s.path("home/bob/f" + std::to_string(i))) << "x";
  ASSERT_TRUE(s.start());
  constexpr int kSessions = 12;
  std::vector<std::unique_ptr<FtpClient>> cs;
  for (int i = 0; i < kSessions; i++) {
    cs.push_back(std::make_unique<FtpClient>());
    open(*cs.back(), s);
    ASSERT_EQ(cs.back()->cmd("USER bob"), "331 Password required for bob.\r\n");
  }
  for (auto& c : cs) ASSERT_TRUE(c->send_line("PASS Right-1"));
  int in = 0;
  for (auto& c : cs) {
    std::string r = c->reply(30000);
    if (r.compare(0, 4, "230 ") == 0 || r.compare(0, 4, "230-") == 0) in++;
  }
  EXPECT_LE(in, 1);
}

TEST(SecGate, ParallelFailuresMeetTheThrottle) {
  Server s;
  ASSERT_TRUE(s.start());
  constexpr int kSessions = 24;
  std::vector<std::unique_ptr<FtpClient>> cs;
  for (int i = 0; i < kSessions; i++) {
    cs.push_back(std::make_unique<FtpClient>());
    open(*cs.back(), s, "127.0.0.7");
    ASSERT_EQ(cs.back()->cmd("USER bob"), "331 Password required for bob.\r\n");
  }
  for (auto& c : cs) ASSERT_TRUE(c->send_line("PASS wrong"));
  int checked = 0, throttled = 0;
  for (auto& c : cs) {
    std::string r = c->reply(30000);
    if (r == "530 Login incorrect - too many attempts try later (127.0.0.7)\r\n") {
      throttled++;
    } else {
      EXPECT_EQ(r.compare(0, 24, "530 Login incorrect bob "), 0) << r;
      checked++;
    }
  }
  EXPECT_EQ(checked, 9);
  EXPECT_EQ(throttled, kSessions - 9);
}

TEST(SecGate, SiteIdleBoundsAndRefusedDataAddresses) {
  Server s;
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  anon_login(c);
  const char kBad[] = "501 Idle time must be between 30 and 7200 seconds\r\n";
  const std::pair<const char*, std::string> idle[] = {
      {"SITE IDLE 2000000000", kBad},
      {"SITE IDLE 29", kBad},
      {"SITE IDLE -60", kBad},
      {"SITE IDLE 7201", kBad},
      {"SITE IDLE abc", kBad},
      {"SITE IDLE 600x", kBad},
      {"SITE IDLE 30", "200 Idle set to 30 seconds, 1 minutes\r\n"},
      {"SITE IDLE 7200", "200 Idle set to 7200 seconds, 120 minutes\r\n"},
      {"SITE IDLE 99999999999999999999", kBad},
      {"SITE IDLE", "200 Idle set to 0 seconds, 120 minutes\r\n"},
  };
  for (const auto& [line, want] : idle) EXPECT_EQ(c.cmd(line), want) << line;

  // A port of our own, announced, then refused addresses that must not replace it.
  int lf = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(lf, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(lf, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(listen(lf, 4), 0);
  socklen_t len = sizeof a;
  ASSERT_EQ(getsockname(lf, reinterpret_cast<sockaddr*>(&a), &len), 0);
  int port = ntohs(a.sin_port);
  EXPECT_EQ(c.cmd("PORT 127,0,0,1," + std::to_string(port / 256) + "," + std::to_string(port % 256)),
            "200 PORT command successful.\r\n");
  EXPECT_EQ(c.cmd("PORT 127,0,0,2,3,231"),
            "500 Illegal PORT command, wrong host (127.0.0.2) (127.0.0.1) use passive mode or enable in class "
            "settings\r\n");
  EXPECT_EQ(c.cmd("PORT 127,0,0,1,3,231"), "500 Illegal PORT command, must use port>1023.\r\n");
  EXPECT_EQ(c.cmd("EPRT |2|127.0.0.1|999|"), "522 Network protocol not supported, use (1)\r\n");
  EXPECT_EQ(c.cmd("EPRT |1|127.0.0.1|999|"), "500 Illegal PORT command, must use port>1023.\r\n");
  ASSERT_TRUE(c.send_line("LIST"));
  pollfd p{lf, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 10000), 1) << "the listing went elsewhere: " << c.reply(1000);
  int d = accept(lf, nullptr, nullptr);
  ASSERT_GE(d, 0);
  char buf[4096];
  while (read(d, buf, sizeof buf) > 0) {
  }
  close(d);
  close(lf);
  EXPECT_EQ(c.reply().compare(0, 4, "150 "), 0);
  EXPECT_EQ(c.reply().compare(0, 4, "226 "), 0);
}

TEST(SecGate, NamesTheModuleCannotCarry) {
  Server s;
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  const std::pair<std::string, std::string> names[] = {
      {"#x", "#x"},
      {"a\x01" "b", "a b"},
      {"a\x7f" "b", "a b"},
      {std::string(257, 'a'), std::string(100, 'a')},
  };
  for (const auto& [name, shown] : names) {
    ASSERT_EQ(c.cmd("USER " + name).compare(0, 4, "331 "), 0) << name;
    EXPECT_EQ(c.cmd("PASS x"), "530 Login incorrect " + shown + " Invalid user name \r\n") << name;
  }
  // The module was neither asked nor restarted: bob logs in at once.
  FtpClient b;
  open(b, s);
  ASSERT_EQ(b.cmd("USER bob"), "331 Password required for bob.\r\n");
  EXPECT_EQ(b.cmd("PASS Right-1").compare(0, 4, "230 "), 0);
  ASSERT_TRUE(s.stop());
  std::string log = s.log_text();
  EXPECT_EQ(log.find("Wrong user returned"), std::string::npos);
  EXPECT_EQ(log.find("restarting authentication"), std::string::npos);
  EXPECT_EQ(log.find("Bad response"), std::string::npos);
}

// Directories the server makes for its logs can be read by the tools that
// read the logs: 0755, less what the process's umask takes away.
TEST(SecGate, LogDirectoriesAreMade0755) {
  mode_t mask = umask(0);
  umask(mask);
  Server s(config("\tlog_home \"@HOME@/lh\"\n"));
  ASSERT_TRUE(s.start());
  FtpClient c;
  open(c, s);
  anon_login(c);
  ASSERT_TRUE(s.stop());
  const fs::perms want = static_cast<fs::perms>(0755 & ~mask);
  for (const char* dir : {"lh", "lh/test"}) {
    ASSERT_TRUE(fs::is_directory(s.path(dir))) << dir;
    EXPECT_EQ(fs::status(s.path(dir)).permissions() & fs::perms::all, want) << dir;
  }
}

// Started as a daemon, the server's pid file names the process that stays,
// not the parent that leaves at once.
TEST(SecGate, PidFileNamesTheDaemon) {
  Server s;
  ASSERT_TRUE(s.rewrite_config(config()));
  KorvServer::Run r = s.run_bare({"-config", s.config_path()});
  ASSERT_TRUE(WIFEXITED(r.status)) << r.err;
  auto alive = [](pid_t pid) { return pid > 0 && ::kill(pid, 0) == 0; };
  pid_t daemon = -1;
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < until && !alive(daemon)) {
    daemon = static_cast<pid_t>(atoi(slurp(s.path("korvane.pid")).c_str()));
    if (!alive(daemon)) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const bool known = alive(daemon);
  EXPECT_TRUE(known) << "pid file holds " << daemon;
  // Ended through its own stop request, so that no daemon outlives the test.
  s.run_bare({"-config", s.config_path(), "-stop"});
  if (!known) {
    std::this_thread::sleep_for(std::chrono::seconds(5));  // no pid to watch: time for the request
    return;
  }
  until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (alive(daemon) && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (alive(daemon)) ::kill(daemon, SIGKILL);
}

}  // namespace
}  // namespace korv::test
