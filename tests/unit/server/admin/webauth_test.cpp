// The admin password: the back-off's arithmetic on a clock the test turns,
// the count of differing guesses and its lock, crypt and salted SHA-1 hashes,
// admin.dat as written (mode, round trip), and logs that never hold a password.
#include "server/admin/webauth.h"

#include <crypt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/emsg.h"
#include "common/mutex.h"
#include "net/digest.h"
#include "server/admin/webio.h"
#include "server/process/control.h"

namespace korv {
namespace {

namespace fs = std::filesystem;

time_t fake_now = 1000000;
time_t fake_clock() { return fake_now; }

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class WebAuth : public ::testing::Test {
protected:
    static void SetUpTestSuite() { mutex_init(); }
    void SetUp() override {
        char tmpl[] = "/tmp/webauth_test_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        korv_set_home(dir_.c_str());
        emsg_open((dir_ + "/korvane.log").c_str());
        emsg_setlvl("debug");
        web_guess_reset();
        fake_now = 1000000;
        web_guess_set_clock(fake_clock);
    }
    void TearDown() override {
        web_guess_set_clock(nullptr);
        web_guess_reset();
        emsg_close();
        korv_set_home("");
        fs::remove_all(dir_);
    }
    void set_password(const std::string& user, const std::string& pass) {
        std::string reason;
        ASSERT_EQ(admin_dat_write(dir_.c_str(), user.c_str(), pass.c_str(), reason), 1) << reason;
    }
    // One request's Authorization line through the head decoder.
    int login(const std::string& user, const std::string& pass) {
        WinkPtr w = wink_new();
        w->client_ip = "192.0.2.7";
        std::string head = "GET / HTTP/1.0\r\nAuthorization: Basic " + base64_encode(user + ":" + pass) + "\r\n\r\n";
        int upto = static_cast<int>(head.size()), nrest = 0;
        web_decode_head(w.get(), head.data(), &upto, &nrest);
        return w->gotwebauth;
    }
    std::string log() {
        emsg_flush();
        return slurp(dir_ + "/korvane.log");
    }
    std::string dir_;
};

TEST_F(WebAuth, BackOffWaitsGrowAfterTwoFreeFailures) {
    // Each failure made once the previous wait is over: the waits it imposes.
    const int want_waits[] = {0, 2, 4, 6, 8, 10};
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(allow_login_attempt_to_take_place(), 1);
        bad_login();
        EXPECT_EQ(secs_before_loging_in_again(), want_waits[i]);
        EXPECT_EQ(allow_login_attempt_to_take_place(), i < 2 ? 1 : 0);  // the first two cost nothing
        fake_now += want_waits[i] + 1;
    }
    // A failure during a wait changes nothing.
    bad_login();
    fake_now += 5;
    bad_login();
    EXPECT_EQ(secs_before_loging_in_again(), 7);
    EXPECT_EQ(allow_login_attempt_to_take_place(), 0);
    fake_now += 7;
    EXPECT_EQ(allow_login_attempt_to_take_place(), 0);  // the wait's last second still waits
    fake_now += 1;
    EXPECT_EQ(allow_login_attempt_to_take_place(), 1);
    EXPECT_EQ(secs_before_loging_in_again(), 0);
}

TEST_F(WebAuth, BackOffDoublesPastTwentyAndForgetsAfterADay) {
    int wait = 0;
    for (int i = 0; i < 24; ++i) {
        fake_now += wait + 1;
        bad_login();
        wait = secs_before_loging_in_again();
    }
    EXPECT_EQ(wait, 256);  // counter 20: 40; then 64, 128, 256
    fake_now += wait + 1;
    // More than a day after a failure, a counter under 20 drops by one.
    web_guess_reset();
    for (int i = 0, w = 0; i < 4; ++i) {
        fake_now += w + 1;
        bad_login();
        w = secs_before_loging_in_again();
    }
    EXPECT_EQ(secs_before_loging_in_again(), 6);
    fake_now += 86401;
    bad_login();
    EXPECT_EQ(secs_before_loging_in_again(), 6);
}

TEST_F(WebAuth, GuessesCountDifferingPasswordsAndLockPastThirty) {
    set_password("admin", "right one");
    for (int i = 0; i < 10; ++i) EXPECT_EQ(login("admin", "same wrong"), 0);
    EXPECT_EQ(web_nguesses(), 1);
    EXPECT_EQ(web_guess_ip(), "192.0.2.7");
    EXPECT_EQ(login("admin", "right one"), 1);
    EXPECT_EQ(web_nguesses(), 0);
    // The wrong user counts too.
    EXPECT_EQ(login("root", "another"), 0);
    EXPECT_EQ(web_nguesses(), 1);
    web_guess_reset();
    for (int i = 0; i < 31; ++i) login("admin", "guess " + std::to_string(i));
    EXPECT_EQ(web_nguesses(), 31);
    EXPECT_EQ(login("admin", "right one"), 0);  // until a restart
    web_guess_reset();
    EXPECT_EQ(login("admin", "right one"), 1);
}

TEST_F(WebAuth, AuthorizationLinesThatAreNotChecked) {
    set_password("admin", "pw");
    const char* const lines[] = {
        "Authorization: Digest username=admin",
        "Authorization: basic YWRtaW46cHc=",  // the word is "Basic", exact case
        "Authorization: Basic !!notbase64!!",
        "Authorization: Basic YWRtaW46cHc=AAAA",
    };
    for (const char* line : lines) {
        SCOPED_TRACE(line);
        WinkPtr w = wink_new();
        web_auth(w.get(), line);
        EXPECT_EQ(w->gotwebauth, 0);
    }
    EXPECT_EQ(web_nguesses(), 0);
    std::string tail = "Authorization: Basic " + base64_encode("admin:pw") + std::string(200, ' ');
    WinkPtr w = wink_new();
    web_auth(w.get(), tail.c_str());
    EXPECT_EQ(w->gotwebauth, 0);
    web_auth(w.get(), ("Authorization: Basic " + base64_encode("admin:pw")).c_str());
    EXPECT_EQ(w->gotwebauth, 1);
    EXPECT_EQ(w->auth_user, "admin");
}

TEST_F(WebAuth, CryptAndSaltedShaHashesAreAccepted) {
    const std::string salt = "s4lt";
    const std::string ssha = "{SSHA}" + base64_encode(sha1_raw("old secret" + salt) + salt);
    std::ofstream(dir_ + "/admin.dat") << "admin:" << ssha << "\n";
    EXPECT_EQ(raw_create_ssha("old secret", ssha.substr(6)), ssha.substr(6));
    login("admin", "a wrong one");
    EXPECT_EQ(web_nguesses(), 1);
    EXPECT_EQ(login("admin", "old secret"), 1);
    EXPECT_EQ(web_nguesses(), 2);  // the salted form does not clear the count
    EXPECT_EQ(login("admin", "old secreT"), 0);
    // A crypt hash of another kind than the one written today works too.
    std::ofstream(dir_ + "/admin.dat") << "admin:" << crypt("old secret", "$5$abcdefgh$") << "\n";
    EXPECT_EQ(login("admin", "old secret"), 1);
    EXPECT_EQ(login("admin", "old secret!"), 0);
    set_password("admin", "new secret");
    EXPECT_EQ(login("admin", "new secret"), 1);
    EXPECT_EQ(web_nguesses(), 0);
}

TEST_F(WebAuth, AdminDatIsWrittenPrivateAndReadBack) {
    std::ofstream(dir_ + "/admin.dat") << "old:line\n";
    fs::permissions(dir_ + "/admin.dat", fs::perms(0644));
    set_password("boss", "pass: with colon");
    struct stat st {};
    ASSERT_EQ(stat((dir_ + "/admin.dat").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::string text = slurp(dir_ + "/admin.dat");
    EXPECT_EQ(text.rfind("boss:$6$", 0), 0u);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    EXPECT_EQ(login("boss", "pass: with colon"), 1);
    EXPECT_EQ(login("admin", "pass: with colon"), 0);
    // Two writes of one password differ by their salt.
    set_password("boss", "pass: with colon");
    EXPECT_NE(slurp(dir_ + "/admin.dat"), text);
    for (const auto& p : fs::directory_iterator(dir_))
        EXPECT_TRUE(p.path().filename() == "admin.dat" || p.path().filename() == "korvane.log") << p.path();
}

TEST_F(WebAuth, AdminDatRefusesWhatItCannotHold) {
    const struct {
        std::string user, pass;
    } bad[] = {
        {"", "pw"}, {"a:b", "pw"}, {"a\nb", "pw"}, {"admin", ""}, {"admin", "a\nb"}, {"admin", std::string(201, 'p')},
        {std::string(201, 'u'), "pw"},
    };
    for (const auto& b : bad) {
        std::string reason;
        EXPECT_EQ(admin_dat_write(dir_.c_str(), b.user.c_str(), b.pass.c_str(), reason), 0) << b.user;
        EXPECT_FALSE(reason.empty());
    }
    EXPECT_FALSE(fs::exists(dir_ + "/admin.dat"));
    std::string reason;
    EXPECT_EQ(admin_dat_write((dir_ + "/missing").c_str(), "admin", "pw", reason), 0);
    EXPECT_NE(reason.find("missing"), std::string::npos);
}

TEST_F(WebAuth, NoLogLineHoldsAPasswordOrAHash) {
    set_password("admin", "Correct-Horse-7");
    std::string hash = slurp(dir_ + "/admin.dat").substr(6);
    hash.pop_back();
    login("admin", "Wrong-Horse-1");
    login("nobody", "Wrong-Horse-2");
    login("admin", "Correct-Horse-7");
    for (int i = 0; i < 12; ++i) login("admin", "Wrong-Horse-x" + std::to_string(i));
    WinkPtr w = wink_new();
    web_auth(w.get(), ("Authorization: Basic " + base64_encode("admin:Wrong-Horse-3") + std::string(200, 'A')).c_str());
    web_decode_content(w.get(), "user=admin&password=Wrong-Horse-4");
    std::string text = log();
    EXPECT_NE(text.find("Wrong admin password (admin) (192.0.2.7)"), std::string::npos) << text;
    EXPECT_NE(text.find("Wrong admin user (nobody) (192.0.2.7)"), std::string::npos) << text;
    EXPECT_EQ(text.find("Horse"), std::string::npos) << text;
    EXPECT_EQ(text.find(hash), std::string::npos);
    EXPECT_EQ(text.find(base64_encode("admin:Wrong")), std::string::npos);
}

TEST_F(WebAuth, MissingAdminDatFailsWithItsMessage) {
    EXPECT_EQ(login("admin", "anything"), 0);
    EXPECT_NE(log().find("Could not read admin.dat No such file or directory, use korvane -password to recreate"),
              std::string::npos);
}

}  // namespace
}  // namespace korv
