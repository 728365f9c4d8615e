// The bundled module omauth, run as the real program: the protocol's replies byte for byte, the
// users file it writes (mode, atomic replacement, refusal to overwrite a file it cannot read),
// passwords set from a pipe, and the module behind the server's own request path.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "net/spawn.h"
#include "server/auth/mex_auths.h"

namespace korv {
namespace {

const std::string kOmauth = KORV_BINARY_DIR "/omauth";

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// omauth on pipes: one request line in, reply lines out.
class Driver {
public:
    explicit Driver(const std::string& file) {
        std::string cmd = kOmauth + " -file " + file + " -path \"/nowhere\"";
        ok_ = osspawn_create(cmd.c_str(), nullptr, 1, &p_) == 1;
    }
    ~Driver() {
        if (ok_ && p_.use_pipes) libspawn_write_stdin(&p_, "exit\n", 5, nullptr);
        if (ok_) libspawn_terminate(&p_, 1, 1, nullptr);
    }
    // Sends `line` and returns the reply lines up to and including the final one.
    std::string ask(const std::string& line) {
        std::string l = line + "\n";
        if (!ok_ || libspawn_write_stdin(&p_, l.data(), static_cast<int>(l.size()), nullptr) < 1) return "(write)";
        std::string out;
        for (;;) {
            size_t nl;
            while ((nl = buf_.find('\n')) != std::string::npos) {
                std::string one = buf_.substr(0, nl + 1);
                buf_.erase(0, nl + 1);
                out += one;
                if (one.rfind("+OK", 0) == 0 || one.rfind("-ERR", 0) == 0) return out;
            }
            char bf[4096];
            int n = libspawn_read_timed_stdout(&p_, bf, sizeof bf, 10.0, nullptr);
            if (n < 1) return out + "(eof)";
            buf_.append(bf, static_cast<size_t>(n));
        }
    }

private:
    osspawn_info p_;
    bool ok_ = false;
    std::string buf_;
};

class OmauthTest : public ::testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        char tmpl[] = "/tmp/omauth_testXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        file_ = dir_ + "/users";
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }
    int passwd(const std::string& user, const std::string& input, const std::string& opts = "") {
        std::string cmd = kOmauth + " -passwd " + file_ + " " + user + opts + " >/dev/null 2>&1";
        FILE* p = popen(cmd.c_str(), "w");
        if (!p) return -1;
        fputs(input.c_str(), p);
        return WEXITSTATUS(pclose(p));
    }
    std::string dir_, file_;
};

TEST_F(OmauthTest, Conversation) {
    Driver d(file_);
    const std::pair<const char*, const char*> steps[] = {
        {"check fred pw", "-ERR fred bad login\n"},
        {"set fred s3cret groups=\"ftp,web\" ftphome=\"/srv/f\"", "+OK fred saved\n"},
        {"check fred s3cret", "+OK fred ok groups=\"ftp,web\" ftphome=\"/srv/f\"\n"},
        {"check fred S3cret", "-ERR fred bad login\n"},
        {"check fred ", "-ERR fred bad login\n"},
        {"check nobody s3cret", "-ERR nobody bad login\n"},
        {"set fred - ftpquota=\"5M\" ftphome=\"\" accountstatus=\"suspended\"", "+OK fred saved\n"},
        {"lookup fred", "+OK fred found groups=\"ftp,web\" ftpquota=\"5M\" accountstatus=\"suspended\"\n"},
        {"check fred s3cret", "+OK fred ok groups=\"ftp,web\" ftpquota=\"5M\" accountstatus=\"suspended\"\n"},
        {"set anne two words ftpfromip=\"127.0.0.*\"", "-ERR anne expected name=\"value\" at \"words ftpfromip=\"127.0.0.*\"\"\n"},
        {"set anne pw ftpfromip=\"127.0.0.*\"", "+OK anne saved\n"},
        {"search *", "+DATA fred groups=\"ftp,web\" ftpquota=\"5M\" accountstatus=\"suspended\"\n"
                     "+DATA anne ftpfromip=\"127.0.0.*\"\n+OK * 2 found\n"},
        {"search a*", "+DATA anne ftpfromip=\"127.0.0.*\"\n+OK a* 1 found\n"},
        {"del fred", "+OK fred deleted\n"},
        {"del fred", "-ERR fred unknown user\n"},
        {"lookup fred", "-ERR fred unknown user\n"},
        {"search *", "+DATA anne ftpfromip=\"127.0.0.*\"\n+OK * 1 found\n"},
    };
    for (auto& [ask, want] : steps) EXPECT_EQ(d.ask(ask), want) << ask;
}

TEST_F(OmauthTest, BadRequests) {
    Driver d(file_);
    const std::pair<const char*, const char*> steps[] = {
        {"bogus x", "-ERR bogus unknown command\n"},
        {"set fred", "-ERR fred bad password\n"},
        {"set fr\"ed pw", "-ERR - bad user name\n"},
        {"set fred pw ftpuid=\"x\"", "-ERR fred bad value of ftpuid\n"},
        {"set fred pw ftpgid=\"-1\"", "-ERR fred bad value of ftpgid\n"},
        {"set fred pw ftpuid=\"4294967295\"", "-ERR fred bad value of ftpuid\n"},
        {"set fred pw ftpid=\"1\"", "-ERR fred unknown field ftpid\n"},
        {"set fred pw groups=\"a", "-ERR fred unterminated value of groups\n"},
        {"set fred pw groups=\"a\"x=\"b\"", "-ERR fred no blank after the value of groups\n"},
        {"lookup", "-ERR - unknown user\n"},
    };
    for (auto& [ask, want] : steps) EXPECT_EQ(d.ask(ask), want) << ask;
    struct stat st;
    EXPECT_NE(stat(file_.c_str(), &st), 0) << "no request above may create the file";
}

TEST_F(OmauthTest, RewriteIsWholeAndPrivate) {
    Driver d(file_);
    ASSERT_EQ(d.ask("set fred pw groups=\"a\""), "+OK fred saved\n");
    struct stat before, after;
    ASSERT_EQ(stat(file_.c_str(), &before), 0);
    EXPECT_EQ(before.st_mode & 0777, 0600u);
    ASSERT_EQ(d.ask("set anne clear-text!"), "+OK anne saved\n");
    ASSERT_EQ(stat(file_.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino) << "replaced by rename, not written in place";
    EXPECT_EQ(after.st_mode & 0777, 0600u);
    std::string text = slurp(file_);
    EXPECT_EQ(text.find("clear-text!"), std::string::npos) << "clear password in the file";
    EXPECT_NE(text.find("fred password=\"$"), std::string::npos);
    EXPECT_NE(text.find("anne password=\"$"), std::string::npos);
    // Only the file and its lock are left in the folder.
    EXPECT_EQ(std::system(("test $(ls -A " + dir_ + " | wc -l) -eq 2").c_str()), 0);
}

TEST_F(OmauthTest, UnreadableFileIsNeverOverwritten) {
    const std::string broken = "fred password=\"x\" groups=\"a\"\nanne password=\"y\" shoesize=\"9\"\n";
    std::ofstream(file_) << broken;
    Driver d(file_);
    EXPECT_EQ(d.ask("check fred pw"), "-ERR fred authentication unavailable\n");
    EXPECT_EQ(d.ask("set bob pw"), "-ERR bob authentication unavailable\n");
    EXPECT_EQ(d.ask("del fred"), "-ERR fred authentication unavailable\n");
    EXPECT_EQ(slurp(file_), broken);
}

TEST_F(OmauthTest, PasswordFromAPipeReachesARunningModule) {
    Driver d(file_);
    ASSERT_EQ(d.ask("set fred old groups=\"g\""), "+OK fred saved\n");
    ASSERT_EQ(d.ask("check fred old"), "+OK fred ok groups=\"g\"\n");
    EXPECT_EQ(passwd("fred", "new one\n"), 0);
    EXPECT_EQ(d.ask("check fred old"), "-ERR fred bad login\n");
    EXPECT_EQ(d.ask("check fred new one"), "+OK fred ok groups=\"g\"\n") << "fields kept, blank in password";
    EXPECT_EQ(passwd("demo", "pw\n"), 0);  // a new user
    EXPECT_EQ(d.ask("check demo pw"), "+OK demo ok\n");
    EXPECT_NE(passwd("demo", ""), 0);
    EXPECT_NE(passwd("bad\"name", "pw\n"), 0);
    EXPECT_EQ(d.ask("check demo pw"), "+OK demo ok\n");
}

// The system ids travel with the other fields, from the protocol and from
// -passwd, and a bad id is refused before anything is written.
TEST_F(OmauthTest, SystemIds) {
    Driver d(file_);
    EXPECT_EQ(d.ask("set fred pw ftpuid=\"1001\" groups=\"g\""), "+OK fred saved\n");
    EXPECT_EQ(d.ask("check fred pw"), "+OK fred ok groups=\"g\" ftpuid=\"1001\"\n");
    EXPECT_EQ(passwd("fred", "pw\n", " -gid 50"), 0);
    EXPECT_EQ(d.ask("lookup fred"), "+OK fred found groups=\"g\" ftpuid=\"1001\" ftpgid=\"50\"\n");
    EXPECT_EQ(passwd("ann", "pw\n", " -uid 0 -gid 0"), 0);
    EXPECT_EQ(d.ask("check ann pw"), "+OK ann ok ftpuid=\"0\" ftpgid=\"0\"\n");
    for (const char* bad : {" -uid", " -uid x", " -gid -5", " -home /x"})
        EXPECT_EQ(passwd("bert", "pw\n", bad), 2) << bad;
    EXPECT_EQ(d.ask("lookup bert"), "-ERR bert unknown user\n");
    EXPECT_EQ(d.ask("set fred - ftpuid=\"\""), "+OK fred saved\n");  // an empty value drops the field
    EXPECT_EQ(d.ask("lookup fred"), "+OK fred found groups=\"g\" ftpgid=\"50\"\n");
    std::ofstream(file_) << "eve password=\"x\" ftpuid=\"root\"\n";
    EXPECT_EQ(d.ask("lookup eve").rfind("-ERR", 0), 0u) << "a file with a bad id is not served";
}

int quiet(const char*, ...) { return 1; }

// The module behind the server's request path, as a login and the admin pages use it.
TEST_F(OmauthTest, ServesTheServer) {
    multi_auth_scenario row;
    row.authentication_command = kOmauth + " -file " + file_ + " -path \"" KORV_BINARY_DIR "\"";
    mex_init(quiet, quiet, 1, &row);
    std::string result;
    EXPECT_EQ(mex_set("", "fred", "pw", "groups=\"a b\"", result), 1) << result;
    EXPECT_EQ(mex_check("", "fred", "pw", result), 1);
    EXPECT_EQ(result, "+OK fred ok groups=\"a b\"");
    EXPECT_EQ(mex_check("", "fred", "wrong", result), 0);
    EXPECT_EQ(mex_check("", "fred", nullptr, result), 1);
    EXPECT_EQ(mex_lookup("", "fred", result), 1);
    EXPECT_EQ(mex_del("", "fred", result), 1);
    EXPECT_EQ(mex_check("", "fred", "pw", result), 0);
    EXPECT_EQ(result, "-ERR fred bad login");
    mex_shutdown();
}

}  // namespace
}  // namespace korv
