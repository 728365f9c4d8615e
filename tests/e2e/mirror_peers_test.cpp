// Mirror jobs against two other FTP servers from Debian's packages (fetched
// and unpacked, never installed): their listing formats and dates, active
// data connections, a tree of a couple of hundred files copied byte for byte,
// one changed file fetched again and a remote deletion trimmed. Skipped with
// the reason when the packages cannot be had.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/mirror/mirror.h"
#include "tests/support/certs.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

int free_port() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t n = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &n);
    close(s);
    return ntohs(a.sin_port);
}

// One peer server for the length of a test.
struct Peer {
    pid_t pid = -1;
    int port = 0;
    std::string skip;  // why the peer is not there
    Peer(const std::string& name, const std::string& tree, const std::string& run) {
        port = free_port();
        fs::create_directories(run);
        const std::string cmd = std::string(KORV_SOURCE_DIR) + "/tests/e2e/mirror_peers.sh " + KORV_SOURCE_DIR + " " +
                                KORV_BINARY_DIR + " " + name + " " + std::to_string(port) + " " + tree + " " + run +
                                " 2>" + run + "/start.err";
        FILE* p = popen(cmd.c_str(), "r");
        char bf[64] = {};
        if (p != nullptr && fgets(bf, sizeof bf, p) != nullptr) pid = static_cast<pid_t>(atoi(bf));
        int st = p != nullptr ? pclose(p) : -1;
        if (pid <= 0) skip = WIFEXITED(st) && WEXITSTATUS(st) == 77 ? slurp(run + "/start.err") : "";
        if (pid <= 0 && skip.empty()) ADD_FAILURE() << name << " did not start: " << slurp(run + "/start.err");
    }
    ~Peer() {
        if (pid > 0) kill(pid, SIGTERM);
    }
};

struct PeerMirror : ::testing::TestWithParam<const char*> {
    TempDir home{"mirrorpeers"};
    void SetUp() override {
        mutex_init();
        emsg_open(home.file("korvane.log").c_str());
        mirror_set_dir(home.path());
        chmod(home.path().c_str(), 0755);  // the peers read the tree as an unprivileged account
    }
    void TearDown() override {
        mirror_free_all();
        mirror_set_dir("");
        emsg_open("");
    }
};

void put(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    chmod(path.c_str(), 0644);
    chmod(fs::path(path).parent_path().c_str(), 0755);
}

TEST_P(PeerMirror, TreeCopiedUpdatedAndTrimmed) {
    const std::string name = GetParam();
    const std::string tree = home.file("tree");
    std::map<std::string, std::string> files;
    std::mt19937 gen(7);
    for (int i = 0; i < 200; ++i) {
        std::string rel = std::string(i % 2 ? "" : "deep/er/") + (i % 9 == 0 ? "with blank " : "f") +
                          std::to_string(i) + ".bin";
        std::string bytes(static_cast<size_t>(i * 53 % 7000), '\0');
        for (char& c : bytes) c = static_cast<char>(gen());
        files[rel] = bytes;
        put(tree + "/" + rel, bytes);
    }
    Peer peer(name, tree, home.file("run"));
    if (!peer.skip.empty()) GTEST_SKIP() << name << ": " << peer.skip;
    ASSERT_GT(peer.pid, 0);
    const bool anonymous = name == "vsftpd";
    const std::string lcl = home.file("ftp-" + name);
    MirrorPtr m = mirror_add(1, ("127.0.0.1:" + std::to_string(peer.port)).c_str(), anonymous ? "/" : "/", "*",
                             lcl.c_str(), "TRUE", "TRUE", 0, anonymous ? "anonymous" : "mirror",
                             anonymous ? "me@example.org" : "mirror-pw", "FALSE", "FALSE");
    auto last = [&] { return mirror_find(m->id).last_error; };

    ASSERT_EQ(mirror_check(m), 1) << last() << slurp(home.file("mirror_1.log"));
    EXPECT_EQ(last().rfind("Successful, Downloaded 200 files", 0), 0u) << last();
    for (const auto& [rel, bytes] : files) {
        ASSERT_EQ(slurp(lcl + "/" + rel), bytes) << rel;
        struct stat rs{}, ls{};
        stat((tree + "/" + rel).c_str(), &rs);
        stat((lcl + "/" + rel).c_str(), &ls);
        EXPECT_LE(std::llabs(static_cast<long long>(ls.st_mtime - rs.st_mtime)), 60) << rel;
    }
    ASSERT_EQ(mirror_check(m), 1) << last();
    EXPECT_EQ(last().rfind("Successful, Downloaded 0 files", 0), 0u) << last();

    std::string changed = files["f1.bin"];
    changed[0] = static_cast<char>(changed[0] ^ 1);
    put(tree + "/f1.bin", changed);
    struct utimbuf ut{time(nullptr) - 3600, time(nullptr) - 3600};
    utime((tree + "/f1.bin").c_str(), &ut);
    fs::remove(tree + "/deep/er/f2.bin");
    ASSERT_EQ(mirror_check(m), 1) << last();
    EXPECT_EQ(last().rfind("Successful, Downloaded 1 files", 0), 0u) << last();
    EXPECT_EQ(slurp(lcl + "/f1.bin"), changed);
    EXPECT_FALSE(fs::exists(lcl + "/deep/er/f2.bin"));
    mirror_delete(m->id);
}

INSTANTIATE_TEST_SUITE_P(Debian, PeerMirror, ::testing::Values("vsftpd", "pure-ftpd"),
                         [](const auto& info) { return std::string(info.param[0] == 'v' ? "vsftpd" : "pureftpd"); });

}  // namespace
}  // namespace korv::test
