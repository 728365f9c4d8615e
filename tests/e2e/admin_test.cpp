// The web administration end to end, over raw sockets on the plain and the
// TLS admin ports: response heads, the three gates (address, guess back-off,
// password) and the guess lock, static files and names that try to leave the
// web directory, cross-site POSTs, stopping and starting the FTP ports, users
// made and removed through the authentication module, and bad input that must
// leave FTP sessions of the same server working.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <thread>

#include "net/tls.h"
#include "server/admin/webio.h"
#include "tests/support/ftpctl.h"
#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string kOmauth = KORV_BINARY_DIR "/omauth";
const char* const kPass = "Secret-42";

std::string base64(const std::string& in) {
    static const char* const k = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        unsigned v = (unsigned char)in[i] << 16 | (unsigned char)in[i + 1] << 8 | (unsigned char)in[i + 2];
        for (int s : {18, 12, 6, 0}) out += k[(v >> s) & 63];
    }
    if (i < in.size()) {
        unsigned v = (unsigned char)in[i] << 16 | (i + 1 < in.size() ? (unsigned char)in[i + 1] << 8 : 0);
        out += k[(v >> 18) & 63];
        out += k[(v >> 12) & 63];
        out += i + 1 < in.size() ? k[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string auth(const std::string& pass = kPass) { return "Authorization: Basic " + base64("admin:" + pass) + "\r\n"; }

// A server whose home holds the web pages and an admin.dat for admin/kPass.
struct AdminServer : KorvServer {
    explicit AdminServer(const std::string& config) : KorvServer(config) {
        fs::create_symlink(KORV_SOURCE_DIR "/web", path("web"));
        std::string why;
        EXPECT_EQ(admin_dat_write(dir().c_str(), "admin", kPass, why), 1) << why;
    }

    // One whole exchange: `raw` goes out, everything until the close comes back.
    std::string http(const std::string& raw, bool tls = false, const char* from = "127.0.0.1") const {
        FtpCtl c;
        if (!c.connect(tls ? mgr_ssl_port() : mgr_port(), from)) return "(no connection)";
        std::string why;
        if (tls && !c.start_tls(why)) return "(no TLS: " + why + ")";
        if (!c.send_raw(raw)) return "(send failed)";
        return FtpCtl::read_all(c.chan());
    }
    std::string get(const std::string& target, const std::string& headers = auth(), bool tls = false,
                    const char* from = "127.0.0.1") const {
        return http("GET " + target + " HTTP/1.0\r\n" + headers + "\r\n", tls, from);
    }
    // A form posted from this server's own page, unless `origin` says otherwise.
    std::string post(const std::string& form, std::string origin = "") const {
        std::string host = "127.0.0.1:" + std::to_string(mgr_port());
        if (origin.empty()) origin = "http://" + host;
        return http("POST /cgi/korvanemgr.cgi HTTP/1.0\r\nHost: " + host + "\r\nOrigin: " + origin + "\r\n" + auth() +
                    "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                    std::to_string(form.size()) + "\r\n\r\n" + form);
    }

    // True once an FTP connection is greeted (`open`) or refused (not `open`), within 10 s.
    bool ftp_becomes(bool open) const {
        auto end = Clock::now() + std::chrono::seconds(10);
        while (Clock::now() < end) {
            FtpClient c;
            bool greeted = c.connect(ftp_port(), "127.0.0.1", 1000) && c.reply(2000).compare(0, 4, "220 ") == 0;
            if (greeted == open) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
};

std::string head_of(const std::string& r) { return r.substr(0, r.find("\r\n\r\n") + 4); }
std::string body_of(const std::string& r) {
    size_t at = r.find("\r\n\r\n");
    return at == std::string::npos ? "" : r.substr(at + 4);
}
bool has(const std::string& hay, const std::string& needle) { return hay.find(needle) != std::string::npos; }

TEST(Admin, PagesHeadsFilesAndControl) {
    AdminServer s(KorvServer::basic_config());
    ASSERT_TRUE(s.start());

    std::string r = s.get("/", "");
    EXPECT_EQ(r.compare(0, 46, "HTTP/1.0 401 Unauthorized\r\nServer: KorvManager"), 0) << r;
    EXPECT_TRUE(has(r, "WWW-Authenticate: Basic realm=\"korvane.")) << r;

    // The exact head of a page; only the date and the host name vary.
    r = s.get("/");
    std::string head = std::regex_replace(head_of(r), std::regex("realm=\"korvane\\.[^\"]*\""), "realm=\"korvane.H\"");
    head = std::regex_replace(head, std::regex("Date: [^\r]*"), "Date: D");
    EXPECT_EQ(head,
              "HTTP/1.0 200 OK\r\nServer: KorvManager\r\nMIME-version: 1.0\r\n"
              "WWW-Authenticate: Basic realm=\"korvane.H\"\r\nDate: D\r\nContent-type: text/html\r\n"
              "X-Frame-Options: DENY\r\nContent-Security-Policy: frame-ancestors 'none'\r\nCache-Control: no-store\r\n\r\n");
    EXPECT_TRUE(has(r, "<title>Korvane - Domains</title>")) << r;
    EXPECT_TRUE(has(r, "cmd=domain&domainid=0\">test</A>")) << r;
    EXPECT_TRUE(has(r, "?cmd=status\"")) << r;

    const struct {
        const char* cmd;
        const char* marker;
    } pages[] = {
        {"status", "nav_glow\" href=\"/cgi/korvanemgr.cgi?cmd=status\""},
        {"status", "<th>Address</th>"},
        {"log", "<title>Korvane - Log</title>"},
        {"log&logfile=main&lines=5", "Main log"},
        {"graph", "<title>Korvane - Graph</title>"},
        {"onoff", "The FTP ports are open."},
        {"user_admin", "<title>Korvane - Users</title>"},
        {"global", "<title>Korvane - Global settings</title>"},
        {"dump", "global_settings"},
        {"mirrors", "<title>Korvane - Mirrors</title>"},
        {"report_file", "<title>Korvane - Reports</title>"},
        {"no_such_page", "<title>Korvane - Domains</title>"},
        // Without -debug a diagnostic command is an ordinary page.
        {"crash_now", "<title>Korvane - Domains</title>"},
        {"lockup_now", "<title>Korvane - Domains</title>"},
    };
    for (const auto& p : pages) {
        r = s.get(std::string("/cgi/korvanemgr.cgi?cmd=") + p.cmd);
        EXPECT_EQ(r.compare(0, 17, "HTTP/1.0 200 OK\r\n"), 0) << p.cmd << "\n" << r;
        EXPECT_TRUE(has(r, p.marker)) << p.cmd << "\n" << r;
        EXPECT_TRUE(has(r, "</html>")) << p.cmd << " ends whole\n" << r;
    }
    // Text from the request comes back as text, never as markup.
    for (const char* target : {"/?domain_name_prefix=%3Cscript%3Ealert(1)%3C/script%3E",
                               "/cgi/korvanemgr.cgi?cmd=user_admin&user=%3Cscript%3Ealert(1)%3C/script%3E",
                               "/cgi/korvanemgr.cgi?cmd=log&lines=%3Cscript%3E"}) {
        r = s.get(target);
        EXPECT_FALSE(has(r, "<script>")) << target << "\n" << r;
    }
    r = s.get("/help/index.htm");
    EXPECT_TRUE(has(r, "<title>Korvane - Manual</title>")) << r;
    EXPECT_TRUE(has(r, "id=\"set-global_port\"")) << r;

    // Static files, and names that try to leave the directory.
    const std::string css = slurp(KORV_SOURCE_DIR "/web/korvane.css");
    r = s.get("/web/korvane.css");
    EXPECT_TRUE(has(head_of(r), "Content-Length: " + std::to_string(css.size()) + "\r\n")) << head_of(r);
    EXPECT_EQ(body_of(r), css);
    for (const char* bad : {"/web/../korvane.ini", "/web/%2e%2e/korvane.ini", "/web//etc/passwd",
                            "/web/..%2fkorvane.ini", "/web/%2E%2E%2Fkorvane.ini"}) {
        r = s.get(bad);
        EXPECT_FALSE(has(r, "global_settings")) << bad << "\n" << r;
        EXPECT_FALSE(has(r, "root:")) << bad << "\n" << r;
        EXPECT_FALSE(has(r, "200 OK")) << bad << "\n" << r;
    }
    r = s.get("/web/");
    EXPECT_EQ(r.rfind("HTTP/1.0 302 Object moved\r\n", 0), 0u) << r;
    EXPECT_TRUE(has(head_of(r), "Location: /cgi/korvanemgr.cgi\r\n")) << r;

    // The TLS port serves the same pages.
    r = s.get("/cgi/korvanemgr.cgi?cmd=status", auth(), true);
    EXPECT_EQ(r.compare(0, 17, "HTTP/1.0 200 OK\r\n"), 0) << r;
    EXPECT_TRUE(has(r, "<title>Korvane - Status</title>")) << r;

    // Another site's page cannot stop the FTP ports.
    r = s.post("cmd_stop=1", "http://evil.example:80");
    EXPECT_EQ(r.compare(0, 24, "HTTP/1.0 403 Forbidden\r\n"), 0) << r;
    EXPECT_TRUE(s.ftp_becomes(true));

    r = s.post("cmd_stop=1");
    EXPECT_TRUE(has(r, "Stopping FTP Port Now.")) << r;
    EXPECT_TRUE(s.ftp_becomes(false)) << "the FTP port still greets after cmd_stop";
    r = s.get("/cgi/korvanemgr.cgi?cmd=onoff");
    EXPECT_TRUE(has(r, "FTP Ports Disabled!")) << r;
    EXPECT_TRUE(has(r, "The FTP ports are stopped")) << r;
    r = s.post("cmd_start=1");
    EXPECT_TRUE(has(r, "Starting FTP Port Now.")) << r;
    EXPECT_TRUE(s.ftp_becomes(true)) << "no greeting after cmd_start";
}

TEST(Admin, AddressGateLetsOnlyListedClientsAndLocalhost) {
    AdminServer s(KorvServer::basic_config("\tglobal_adminip \"10.*,!10.0.0.1\"\n"));
    ASSERT_TRUE(s.start());
    for (const std::string& headers : {auth(), std::string()}) {
        std::string r = s.get("/", headers, false, "127.0.0.2");
        EXPECT_EQ(r.compare(0, 14, "HTTP/1.0 200\r\n"), 0) << r;
        EXPECT_TRUE(has(body_of(r), "Sorry you are not connecting from a valid ip address (127.0.0.2)<br>\n")) << r;
        EXPECT_FALSE(has(r, "Korvane - Domains")) << r;
    }
    std::string r = s.get("/", auth(), false, "127.0.0.1");
    EXPECT_TRUE(has(r, "<title>Korvane - Domains</title>")) << r;
}

// The fault-provoking commands act under -debug only (without it they are an
// ordinary page, see above); the harmless allocator check shows that they run.
TEST(Admin, DiagnosticCommandsActUnderDebug) {
    AdminServer s(KorvServer::basic_config());
    ASSERT_TRUE(s.start({"-debug"}));
    std::string r = s.get("/cgi/korvanemgr.cgi?cmd=dmalloc");
    EXPECT_TRUE(has(r, "Diagnostic command dmalloc run.")) << r;
    EXPECT_TRUE(s.wait_log("Web diagnostic command dmalloc"));
}

// The back-off and the guess lock are process-wide: a server of their own.
TEST(Admin, BackoffAfterThirdFailureThenLockAfterThirtyOneGuesses) {
    AdminServer s(KorvServer::basic_config());
    ASSERT_TRUE(s.start());
    const std::string page = "HTTP/1.0 200 OK\r\n", need = "HTTP/1.0 401 Unauthorized\r\n";
    EXPECT_EQ(s.get("/", auth("wrong-1")).compare(0, need.size(), need), 0);
    EXPECT_EQ(s.get("/", auth("wrong-2")).compare(0, need.size(), need), 0);
    EXPECT_EQ(s.get("/").compare(0, page.size(), page), 0) << "two failures cost nothing";
    EXPECT_EQ(s.get("/", auth("wrong-3")).compare(0, need.size(), need), 0);

    // The third failure imposes a wait, which the right password meets too.
    std::string r = s.get("/");
    EXPECT_EQ(r.compare(0, need.size(), need), 0) << r;
    EXPECT_TRUE(has(body_of(r), "<html><HEAD><TITLE>401 Authorization failed, wait 0 min ")) << r;
    EXPECT_TRUE(has(r, "Something has been sending incorrect passwords while attempting<br>\n")) << r;
    EXPECT_FALSE(has(r, "Korvane - Domains")) << r;

    // Thirty-one differing wrong passwords lock everybody out, for good.
    for (int i = 0; i < 31; ++i) s.get("/", auth("guess-" + std::to_string(i)));
    // The wait counts whole seconds: it is over within a second after its 4.
    std::this_thread::sleep_for(std::chrono::seconds(4));
    for (int i = 0; i < 15 && has(r = s.get("/"), "wait 0 min 0 sec"); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(r.compare(0, need.size(), need), 0) << r;
    EXPECT_FALSE(has(r, "wait 0 min")) << "the wait is over; the lock is what refuses\n" << r;
    EXPECT_FALSE(has(r, "Korvane - Domains")) << r;
}

TEST(Admin, ModuleUsersMadeAndRemovedFromTheUsersPage) {
    std::string c = KorvServer::basic_config("\tauthent_process \"" + kOmauth + "\"\n" +
                                             "\tauthent_cmdopts \"-file @HOME@/users\"\n");
    c = c.substr(0, c.find("vdomain")) +
        "vdomain address=\"\" name=\"test\"\n"
        "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
        "\t\tdir alias=\"/\" path=\"@HOME@/home/$username\" read=\"true\" write=\"true\"\n";
    AdminServer s(c);
    fs::create_directories(s.path("home/alice"));
    { std::ofstream(s.path("users")); }
    fs::permissions(s.path("users"), fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_TRUE(s.start());
    auto login = [&](const std::string& user, const std::string& pass) {
        FtpClient f;
        if (!f.connect(s.ftp_port()) || f.reply().compare(0, 4, "220 ") != 0) return std::string("no greeting");
        f.cmd("USER " + user);
        return f.cmd("PASS " + pass);
    };

    std::string r = s.post("domainid=0&user=alice&password=pw-alice&ftpquota=&cmd_user_create=1");
    EXPECT_TRUE(has(r, "Created alice.")) << r;
    EXPECT_EQ(login("alice", "pw-alice").compare(0, 4, "230 "), 0);
    r = s.post("domainid=0&user=alice&cmd_user_create=1&password=again");
    EXPECT_TRUE(has(r, "exists already")) << r;

    // Values the module's lines cannot carry are refused, and nothing changes.
    const std::string before = slurp(s.path("users"));
    const struct {
        const char* form;
        const char* says;
    } refused[] = {
        {"user=alice&ftphome=%2Fa%22b&cmd_user_save=1", "holds a double quote, a line end or a NUL"},
        {"user=alice&groups=a%0Db&cmd_user_save=1", "holds a double quote, a line end or a NUL"},
        {"user=alice&password=a%0Ab&cmd_user_save=1", "holds a double quote, a line end or a NUL"},
        {"user=bob%22x&password=pw&cmd_user_create=1", "A user name may not hold"},
        {"user=bob&cmd_user_create=1", "A new user needs a password."},
        {"user=carol&password=pw&cmd_user_save=1", "No such user"},
    };
    for (const auto& k : refused) {
        r = s.post(std::string("domainid=0&") + k.form);
        EXPECT_TRUE(has(r, k.says)) << k.form << "\n" << r;
    }
    EXPECT_EQ(slurp(s.path("users")), before);

    r = s.post("domainid=0&user=alice&password=&ftphome=%2Fsrv%2Falice&cmd_user_save=1");
    EXPECT_TRUE(has(r, "Saved alice.")) << r;
    r = s.post("domainid=0&user=alice&cmd_user_lookup=1");
    EXPECT_TRUE(has(r, "Found alice.")) << r;
    EXPECT_TRUE(has(r, "value=\"/srv/alice\"")) << r;
    r = s.post("domainid=0&wild=al*&cmd_user_wild_search=1");
    EXPECT_TRUE(has(r, "<tr><td>alice</td><td>/srv/alice</td>")) << r;
    EXPECT_EQ(login("alice", "pw-alice").compare(0, 4, "230 "), 0) << "an empty password keeps the old one";

    r = s.post("domainid=0&user=alice&cmd_user_delete=1");
    EXPECT_TRUE(has(r, "Deleted alice.")) << r;
    EXPECT_EQ(login("alice", "pw-alice").compare(0, 4, "530 "), 0);
    EXPECT_FALSE(has(slurp(s.path("users")), "alice"));
}

// A NUL in a form value must be refused like a quote or a line end: a value
// cut at its NUL would be written as something the administrator never typed.
TEST(Admin, FormValueWithNulIsRefused) {
    std::string c = KorvServer::basic_config("\tauthent_process \"" + kOmauth + "\"\n" +
                                             "\tauthent_cmdopts \"-file @HOME@/users\"\n");
    AdminServer s(c);
    { std::ofstream(s.path("users")); }
    ASSERT_TRUE(s.start());
    std::string r = s.post("domainid=0&user=dave&password=a%00b&cmd_user_create=1");
    EXPECT_TRUE(has(r, "holds a double quote, a line end or a NUL")) << r;
    EXPECT_FALSE(has(slurp(s.path("users")), "dave")) << "a password cut at its NUL was stored";
}

TEST(Admin, BadInputIsClosedWhileFtpGoesOn) {
    AdminServer s(KorvServer::basic_config());
    ASSERT_TRUE(s.start());
    FtpClient ftp;
    ASSERT_TRUE(ftp.connect(s.ftp_port()));
    ASSERT_EQ(ftp.reply().compare(0, 4, "220 "), 0);
    ASSERT_EQ(ftp.cmd("USER anonymous").compare(0, 4, "331 "), 0);
    ASSERT_EQ(ftp.cmd("PASS me@example.org").compare(0, 4, "230 "), 0);
    auto ftp_alive = [&](const char* after) { EXPECT_EQ(ftp.cmd("NOOP").compare(0, 4, "200 "), 0) << after; };

    // A head larger than the input buffer is closed unanswered.
    {
        FtpClient c;
        ASSERT_TRUE(c.connect(s.mgr_port()));
        c.send_raw("GET /?x=" + std::string(40000, 'a'));
        EXPECT_TRUE(c.wait_closed(10000));
        ftp_alive("oversized head");
    }
    // A body shorter than announced ends with the client's half close.
    {
        FtpClient c;
        ASSERT_TRUE(c.connect(s.mgr_port()));
        c.send_raw("POST / HTTP/1.0\r\n" + auth() + "Content-Length: 500\r\n\r\ncmd_status=1");
        ::shutdown(c.fd(), SHUT_WR);
        std::string r = c.read_raw(10000);
        EXPECT_TRUE(r.empty() || r.compare(0, 9, "HTTP/1.0 ") == 0) << r;
        ftp_alive("short body");
    }
    // One byte at a time: the admin thread waits, FTP does not.
    {
        FtpClient c;
        ASSERT_TRUE(c.connect(s.mgr_port()));
        const std::string slow = "GET /?cmd=status HTTP/1.0\r\n";
        for (char ch : slow) {
            c.send_raw(std::string(1, ch));
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            if (ch == '\n') ftp_alive("slow client");
        }
        FtpClient other;
        ASSERT_TRUE(other.connect(s.ftp_port()));
        EXPECT_EQ(other.reply().compare(0, 4, "220 "), 0) << "a new FTP client is greeted beside the slow one";
    }
    // Half a request, then the client goes.
    {
        FtpClient c;
        ASSERT_TRUE(c.connect(s.mgr_port()));
        c.send_raw("GET /?cmd=status HTTP/1.0\r\nHost: 127.0.0.1");
        c.close();
        ftp_alive("half request");
    }
    // Random bytes get no page.
    std::mt19937 gen(7);
    for (int round = 0; round < 3; ++round) {
        std::string junk(3000, '\0');
        for (char& ch : junk) ch = static_cast<char>(gen());
        junk += "\r\n\r\n";
        std::string r = s.http(junk);
        EXPECT_FALSE(has(r, "200 OK")) << r;
        ftp_alive("random bytes");
    }
    // And the administration still answers.
    EXPECT_TRUE(has(s.get("/cgi/korvanemgr.cgi?cmd=status"), "<title>Korvane - Status</title>"));
}

}  // namespace
}  // namespace korv::test
