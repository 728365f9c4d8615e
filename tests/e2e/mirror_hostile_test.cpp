// Mirror jobs against a scripted hostile remote on loopback (it refuses PORT,
// so every job also falls back to passive mode): names that would leave the
// job's directory, a listing of a million lines, directories without end, a
// file that never ends, a remote that stalls, and one that drops the
// connection mid-file, after which the next run completes the file. Each
// failure is a clear last_error, no half file is left under a final name, and
// nothing outside the local directory is touched.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/mirror/mirror.h"
#include "tests/support/certs.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

std::string unix_line(const std::string& name, long long size, char kind = '-') {
    return std::string(1, kind) + "rw-r--r--   1 ftp      ftp      " + std::to_string(size) + " Jan  5  2021 " + name +
           "\r\n";
}

// What the remote does with a RETR: send `bytes`, then end as `how` says.
struct Retr {
    enum How { Whole, Endless, Stall, Drop } how = Whole;
    std::string bytes;
};

class Hostile {
public:
    std::function<std::string(const std::string&)> listing;  // LIST argument to the data bytes
    std::map<std::string, Retr> files;                       // by RETR argument
    std::mutex mu;                                           // guards files between runs

    Hostile() {
        lfd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(lfd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(lfd_, 8);
        socklen_t n = sizeof a;
        getsockname(lfd_, reinterpret_cast<sockaddr*>(&a), &n);
        port_ = ntohs(a.sin_port);
        th_ = std::thread([this] { serve(); });
    }
    ~Hostile() {
        stop_ = true;
        shutdown(lfd_, SHUT_RDWR);
        th_.join();
        close(lfd_);
    }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }

private:
    static bool say(int fd, const std::string& s) { return send(fd, s.data(), s.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(s.size()); }

    static bool line(int fd, std::string& buf, std::string& out) {
        for (;;) {
            size_t nl = buf.find('\n');
            if (nl != std::string::npos) {
                out = buf.substr(0, nl);
                if (!out.empty() && out.back() == '\r') out.pop_back();
                buf.erase(0, nl + 1);
                return true;
            }
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 20000) != 1) return false;
            char bf[512];
            ssize_t n = recv(fd, bf, sizeof bf, 0);
            if (n <= 0) return false;
            buf.append(bf, static_cast<size_t>(n));
        }
    }

    void serve() {
        while (!stop_) {
            int c = accept(lfd_, nullptr, nullptr);
            if (c < 0) return;
            session(c);
            close(c);
        }
    }

    int accept_data(int pl) {
        pollfd p{pl, POLLIN, 0};
        int d = poll(&p, 1, 20000) == 1 ? accept(pl, nullptr, nullptr) : -1;
        close(pl);
        return d;
    }

    void session(int c) {
        std::string buf, cmd;
        int pl = -1;
        say(c, "220 hostile\r\n");
        while (line(c, buf, cmd)) {
            std::string verb = cmd.substr(0, cmd.find(' '));
            std::string arg = cmd.find(' ') == std::string::npos ? "" : cmd.substr(cmd.find(' ') + 1);
            if (verb == "USER") {
                say(c, "331 go on\r\n");
            } else if (verb == "PASS") {
                say(c, "230 in\r\n");
            } else if (verb == "PORT") {
                say(c, "500 no active mode here\r\n");
            } else if (verb == "PASV") {
                pl = socket(AF_INET, SOCK_STREAM, 0);
                sockaddr_in a{};
                a.sin_family = AF_INET;
                a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                bind(pl, reinterpret_cast<sockaddr*>(&a), sizeof a);
                listen(pl, 1);
                socklen_t n = sizeof a;
                getsockname(pl, reinterpret_cast<sockaddr*>(&a), &n);
                int p = ntohs(a.sin_port);
                say(c, "227 Entering Passive Mode (127,0,0,1," + std::to_string(p / 256) + "," +
                           std::to_string(p % 256) + ")\r\n");
            } else if (verb == "LIST") {
                int d = accept_data(pl);
                say(c, "150 here\r\n");
                say(d, listing(arg));
                close(d);
                say(c, "226 listed\r\n");
            } else if (verb == "RETR") {
                Retr r;
                {
                    std::lock_guard<std::mutex> g(mu);
                    r = files[arg];
                }
                int d = accept_data(pl);
                say(c, "150 here\r\n");
                if (r.how == Retr::Drop) {
                    say(d, r.bytes.substr(0, r.bytes.size() / 2));
                    close(d);
                    return;  // and the control connection with it
                }
                say(d, r.bytes);
                if (r.how == Retr::Endless) {
                    std::string chunk(65536, 'x');
                    while (say(d, chunk)) {
                    }
                }
                if (r.how == Retr::Stall) {
                    // Holds the data connection until the client gives up.
                    if (!line(c, buf, cmd)) return;
                }
                close(d);
                say(c, "226 sent\r\n");
            } else if (verb == "ABOR") {
                say(c, "226 aborted\r\n");
            } else if (verb == "QUIT") {
                say(c, "221 bye\r\n");
                return;
            } else {
                say(c, "200 ok\r\n");
            }
        }
    }

    int lfd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread th_;
};

struct HostileE2E : ::testing::Test {
    TempDir home{"mirrorhostile"};
    Hostile remote;
    std::string lcl;
    MirrorPtr m;
    void SetUp() override {
        mutex_init();
        emsg_open(home.file("korvane.log").c_str());
        mirror_set_dir(home.path());
        lcl = home.file("ftp/copy");
        m = mirror_add(1, remote.host().c_str(), "/", "*", lcl.c_str(), "TRUE", "FALSE", 0, "u", "p", "FALSE",
                       "FALSE");
    }
    void TearDown() override {
        mirror_free_all();
        mirror_set_dir("");
        mirror_set_timeout_ms(120000);
        emsg_open("");
    }
    std::string last() { return mirror_find(m->id).last_error; }
    // Every file below the home, as names relative to it.
    std::set<std::string> tree() {
        std::set<std::string> out;
        for (const auto& e : fs::recursive_directory_iterator(home.path()))
            if (!e.is_directory()) out.insert(fs::relative(e.path(), home.path()).string());
        return out;
    }
    void serve(const std::string& name, Retr r) {
        std::lock_guard<std::mutex> g(remote.mu);
        remote.files[name] = std::move(r);
    }
};

TEST_F(HostileE2E, NamesThatWouldLeaveTheDirectory) {
    remote.listing = [](const std::string& dir) {
        if (dir != "/") return unix_line("deep.txt", 4);
        return unix_line("good.txt", 4) + unix_line("../../escape.txt", 4) + unix_line("a/b.txt", 4) +
               unix_line("a\\b.txt", 4) + unix_line("..", 4, 'd') + unix_line(".", 4, 'd') +
               unix_line(std::string("nul\0name", 8), 4) + unix_line(std::string(10000, 'n'), 4) +
               unix_line(std::string(256, 'm'), 4) + unix_line("link -> /etc", 4, 'l') +
               unix_line("dev null", 0, 'c');
    };
    serve("/good.txt", {Retr::Whole, "good"});
    for (const char* evil : {"/../../escape.txt", "/a/b.txt", "/a\\b.txt", "/nul", "/link"})
        serve(evil, {Retr::Whole, "evil"});
    ASSERT_EQ(mirror_check(m), 1) << last();
    EXPECT_EQ(slurp(lcl + "/good.txt"), "good");
    std::set<std::string> files = tree();
    files.erase("korvane.log");
    files.erase("mirror_1.log");
    EXPECT_EQ(files, std::set<std::string>{"ftp/copy/good.txt"});
    const std::string log = slurp(home.file("mirror_1.log"));
    EXPECT_NE(log.find("Skipped a remote name that cannot be a local name (../../escape.txt)"), std::string::npos);
    EXPECT_NE(log.find("Skipped a listing line holding a NUL"), std::string::npos);
}

TEST_F(HostileE2E, ListingOfAMillionLines) {
    remote.listing = [](const std::string&) {
        std::string s;
        s.reserve(2000000);
        for (int i = 0; i < 1000000; ++i) s += "x\n";
        return s;
    };
    EXPECT_EQ(mirror_check(m), 0);
    EXPECT_EQ(last(), "Listing too long, over 200000 lines");
}

TEST_F(HostileE2E, DirectoriesWithoutEnd) {
    remote.listing = [](const std::string&) { return unix_line("again", 4096, 'd'); };
    EXPECT_EQ(mirror_check(m), 0);
    EXPECT_EQ(last().rfind("Directories nest deeper than 40 levels", 0), 0u) << last();
}

TEST_F(HostileE2E, FileThatNeverEndsAndRemoteThatStalls) {
    remote.listing = [](const std::string&) { return unix_line("endless.bin", 100) + unix_line("z-stall.bin", 100); };
    serve("/endless.bin", {Retr::Endless, ""});
    serve("/z-stall.bin", {Retr::Stall, "ten bytes!"});
    EXPECT_EQ(mirror_check(m), 0);
    EXPECT_EQ(last(), "Error getting file /endless.bin -> " + lcl +
                          "/endless.bin (Remote sent more than 1048676 bytes, transfer stopped)");

    serve("/endless.bin", {Retr::Whole, std::string(100, 'e')});
    mirror_set_timeout_ms(1000);
    EXPECT_EQ(mirror_check(m), 0);
    EXPECT_EQ(last().rfind("Error getting file /z-stall.bin -> " + lcl + "/z-stall.bin (Connection Lost, 10 bytes read.", 0),
              0u) << last();
    std::set<std::string> files = tree();
    files.erase("korvane.log");
    files.erase("mirror_1.log");
    EXPECT_EQ(files, std::set<std::string>{"ftp/copy/endless.bin"}) << "no half file stays";
}

TEST_F(HostileE2E, DroppedMidFileCompletesNextRun) {
    const std::string big(100000, 'b');
    remote.listing = [&](const std::string&) { return unix_line("big.bin", static_cast<long long>(big.size())); };
    serve("/big.bin", {Retr::Drop, big});
    EXPECT_EQ(mirror_check(m), 0);
    EXPECT_EQ(last(), "Error getting file /big.bin -> " + lcl + "/big.bin (Connection problem closed)");
    EXPECT_FALSE(fs::exists(lcl + "/big.bin"));
    for (const auto& e : fs::directory_iterator(lcl)) ADD_FAILURE() << "left behind: " << e.path();

    serve("/big.bin", {Retr::Whole, big});
    ASSERT_EQ(mirror_check(m), 1) << last();
    EXPECT_EQ(slurp(lcl + "/big.bin"), big);
}

}  // namespace
}  // namespace korv::test
