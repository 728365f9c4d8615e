// korvane -password end to end: the real binary with the password piped to
// its standard input writes admin.dat into the configuration's home, private,
// as a SHA-512 crypt hash that the admin login accepts.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "server/admin/webio.h"
#include "server/process/control.h"
#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

struct Ran {
    int status = -1;
    std::string out, err;
};

std::string drain(int fd) {
    std::string s;
    char bf[4096];
    for (ssize_t n; (n = read(fd, bf, sizeof bf)) > 0;) s.append(bf, static_cast<size_t>(n));
    close(fd);
    return s;
}

// Runs the binary with `args`, `input` on its standard input (a pipe, not a
// terminal), and waits for it.
Ran run(const std::vector<std::string>& args, const std::string& input) {
    int in[2], out[2], err[2];
    if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return {};
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
        std::string bin = KorvServer::default_binary();
        std::vector<char*> argv{bin.data()};
        std::vector<std::string> copy = args;
        for (auto& a : copy) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (write(in[1], input.data(), input.size()) < 0) ADD_FAILURE() << "stdin write";
    close(in[1]);
    Ran r;
    r.out = drain(out[0]);
    r.err = drain(err[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

class Password : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/password_e2e_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        std::ofstream(dir_ + "/korvane.ini") << "global_settings\n\thome \"" << dir_ << "\"\n";
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string dir_;
};

TEST_F(Password, PipedPasswordWritesAPrivateSha512Hash) {
    Ran r = run({"-password", "-config", dir_ + "/korvane.ini"}, "Tr1cky pass: word\nignored second line\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("admin password of admin set in " + dir_ + "/admin.dat\n"), std::string::npos) << r.out;
    struct stat st {};
    ASSERT_EQ(stat((dir_ + "/admin.dat").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::string text = slurp(dir_ + "/admin.dat");
    EXPECT_EQ(text.rfind("admin:$6$", 0), 0u) << text;
    EXPECT_EQ(r.out.find("Tr1cky"), std::string::npos);

    // The login of the admin pages takes it.
    mutex_init();
    korv_set_home(dir_.c_str());
    WinkPtr w = wink_new();
    EXPECT_EQ(web_check_pass(w.get(), "admin", "Tr1cky pass: word"), 1);
    EXPECT_EQ(web_check_pass(w.get(), "admin", "ignored second line"), 0);
    web_guess_reset();
    korv_set_home("");
}

TEST_F(Password, UserNameAndFailures) {
    Ran r = run({"-user", "boss", "-password", "-config", dir_ + "/korvane.ini"}, "pw\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(slurp(dir_ + "/admin.dat").rfind("boss:$6$", 0), 0u);

    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string input, err;
    } fails[] = {
        {"no password", {"-password", "-config", dir_ + "/korvane.ini"}, "", "no password given"},
        {"empty password", {"-password", "-config", dir_ + "/korvane.ini"}, "\n", "the password must hold"},
        {"bad user", {"-user", "a:b", "-password", "-config", dir_ + "/korvane.ini"}, "pw\n", "the user name must hold"},
        {"no config", {"-password", "-config", dir_ + "/missing.ini"}, "pw\n", "cannot read configuration"},
    };
    for (const auto& f : fails) {
        SCOPED_TRACE(f.name);
        Ran bad = run(f.args, f.input);
        EXPECT_EQ(bad.status, 1);
        EXPECT_NE(bad.err.find(f.err), std::string::npos) << bad.err;
    }
    EXPECT_EQ(slurp(dir_ + "/admin.dat").rfind("boss:$6$", 0), 0u);  // untouched by the failures

    std::ofstream(dir_ + "/nohome.ini") << "global_settings\n\tlog_level \"debug\"\n";
    Ran nohome = run({"-password", "-config", dir_ + "/nohome.ini"}, "pw\n");
    EXPECT_EQ(nohome.status, 1);
    EXPECT_NE(nohome.err.find("\"home\" is not set"), std::string::npos) << nohome.err;
}

}  // namespace
}  // namespace korv::test
