// Mirror jobs run against a second Korvane on loopback: a tree of a few
// hundred files copied byte for byte with the remote dates, nothing fetched
// again when nothing changed, one changed file fetched again, remote deletions
// trimmed (only under a path holding "ftp"), patterns, sub-directories kept
// or flattened, a wrong password, explicit TLS with the remote's certificate
// checked against rootCA.pem, and the client's transfer modes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "common/emsg.h"
#include "common/mutex.h"
#include "client/ftplib.h"
#include "server/mirror/mirror.h"
#include "tests/support/chanpair.h"
#include "tests/support/certs.h"
#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

namespace fs = std::filesystem;

const std::string kOmauth = KORV_BINARY_DIR "/omauth";

// The remote: anonymous sessions see pub/; the module user "mirror" (password
// "right") sees the same tree.
struct Remote : KorvServer {
    explicit Remote(const std::string& global = "")
        : KorvServer(config(global)) {
        fs::create_directories(path("pub"));
        std::ofstream(path("users")) << "mirror password=\"" << hash_of("right") << "\"\n";
    }
    static std::string config(const std::string& global) {
        std::string c = KorvServer::basic_config("\tauthent_process \"" + kOmauth + "\"\n" +
                                                 "\tauthent_cmdopts \"-file @HOME@/users\"\n" + global);
        c += "\t\tuser_noimpersonate \"true\"\n"
             "\tclass type=\"real\" users=\"*\" name=\"real\" class_name=\"real\"\n"
             "\t\tdir alias=\"/\" path=\"@HOME@/pub\" read=\"true\"\n"
             "\t\tuser_noimpersonate \"true\"\n";
        return c;
    }
    void put(const std::string& name, const std::string& bytes) {
        fs::create_directories(fs::path(path("pub/" + name)).parent_path());
        std::ofstream(path("pub/" + name), std::ios::binary) << bytes;
    }
};

std::string bytes_of(size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(gen());
    return s;
}

// A job over the engine, run on this thread.
struct Job {
    MirrorPtr m;
    Job(const Remote& r, const std::string& lcl, const std::string& rpath = "/tree") {
        m = mirror_add(1, ("127.0.0.1:" + std::to_string(r.ftp_port())).c_str(), rpath.c_str(), "*", lcl.c_str(),
                       "TRUE", "FALSE", 0, "anonymous", "me@example.org", "FALSE", "FALSE");
    }
    ~Job() { mirror_delete(m->id); }
    int run() { return mirror_check(m); }
    std::string last() { return mirror_find(m->id).last_error; }
};

struct MirrorE2E : ::testing::Test {
    TempDir home{"mirrorhome"};
    void SetUp() override {
        mutex_init();
        emsg_open(home.file("korvane.log").c_str());
        mirror_set_dir(home.path());
    }
    void TearDown() override {
        mirror_free_all();
        mirror_set_dir("");
        emsg_open("");
    }
    std::string log(int id = 1) { return slurp(home.file("mirror_" + std::to_string(id) + ".log")); }
};

// The remote tree: `n` files over three levels, names with blanks, a link.
std::map<std::string, std::string> make_tree(Remote& r, int n) {
    std::map<std::string, std::string> files;
    for (int i = 0; i < n; ++i) {
        std::string dir = i % 3 == 0 ? "" : i % 3 == 1 ? "a/" : "a/b c/";
        std::string name = dir + (i % 7 == 0 ? "file with blank " : "f") + std::to_string(i) + ".dat";
        files[name] = bytes_of(static_cast<size_t>(i * 37 % 5000), static_cast<unsigned>(i));
        r.put("tree/" + name, files[name]);
    }
    fs::create_symlink("f1.dat", r.path("pub/tree/a/link"));
    return files;
}

TEST_F(MirrorE2E, TreeCopiedUpdatedAndTrimmed) {
    Remote r;
    std::map<std::string, std::string> files = make_tree(r, 300);
    ASSERT_TRUE(r.start());
    const std::string lcl = home.file("ftpcopy");
    Job job(r, lcl);
    ASSERT_EQ(job.run(), 1) << job.last() << log();
    EXPECT_EQ(job.last().rfind("Successful, Downloaded 300 files", 0), 0u) << job.last();
    for (const auto& [name, bytes] : files) {
        ASSERT_EQ(slurp(lcl + "/" + name), bytes) << name;
        struct stat rs{}, ls{};
        ASSERT_EQ(stat(r.path("pub/tree/" + name).c_str(), &rs), 0);
        ASSERT_EQ(stat((lcl + "/" + name).c_str(), &ls), 0);
        // The listing gives the minute: the local date is the remote's, to it.
        EXPECT_LE(std::llabs(static_cast<long long>(ls.st_mtime - rs.st_mtime)), 60) << name;
    }
    EXPECT_FALSE(fs::exists(fs::symlink_status(lcl + "/a/link"))) << "a link is neither fetched nor entered";
    for (const auto& e : fs::recursive_directory_iterator(lcl))
        EXPECT_EQ(e.path().filename().string().rfind(".mirror-", 0), std::string::npos) << e.path();

    // Nothing changed: nothing fetched.
    ASSERT_EQ(job.run(), 1) << job.last();
    EXPECT_EQ(job.last().rfind("Successful, Downloaded 0 files 0 bytes.", 0), 0u) << job.last();

    // Same size, new content and date: fetched again.
    std::string changed = files["a/f1.dat"];
    changed[0] = static_cast<char>(changed[0] ^ 0x55);
    r.put("tree/a/f1.dat", changed);
    struct utimbuf ut{time(nullptr) - 7200, time(nullptr) - 7200};
    utime(r.path("pub/tree/a/f1.dat").c_str(), &ut);
    ASSERT_EQ(job.run(), 1) << job.last();
    EXPECT_EQ(job.last().rfind("Successful, Downloaded 1 files", 0), 0u) << job.last();
    EXPECT_EQ(slurp(lcl + "/a/f1.dat"), changed);

    // Gone remotely: kept without trim, removed with it. Directories stay.
    fs::remove(r.path("pub/tree/a/b c/f2.dat"));
    ASSERT_EQ(job.run(), 1);
    EXPECT_TRUE(fs::exists(lcl + "/a/b c/f2.dat"));
    job.m->trim = 1;
    ASSERT_EQ(job.run(), 1) << job.last();
    EXPECT_FALSE(fs::exists(lcl + "/a/b c/f2.dat"));
    EXPECT_TRUE(fs::exists(lcl + "/a/b c/f5.dat"));
    EXPECT_NE(log().find("remove this file? "), std::string::npos);
}

TEST_F(MirrorE2E, PatternsAndSubdirectories) {
    Remote r;
    r.put("tree/a.txt", "a");
    r.put("tree/b.bin", "b");
    r.put("tree/skip-me.txt", "s");
    r.put("tree/sub/c.txt", "c");  // the directory does not match, and is entered all the same
    r.put("tree/sub/deeper/d.txt", "d");
    ASSERT_TRUE(r.start());
    const std::string flat = home.file("ftp-pattern");
    {
        Job job(r, flat);
        job.m->files = "*.txt,!skip*";
        ASSERT_EQ(job.run(), 1) << job.last();
    }
    EXPECT_EQ(slurp(flat + "/a.txt"), "a");
    EXPECT_FALSE(fs::exists(flat + "/b.bin"));
    EXPECT_FALSE(fs::exists(flat + "/skip-me.txt"));
    EXPECT_EQ(slurp(flat + "/sub/c.txt"), "c");
    EXPECT_EQ(slurp(flat + "/sub/deeper/d.txt"), "d");

    // The whole remote path kept, sub-directories off.
    const std::string full = home.file("ftp-full");
    {
        Job job(r, full);
        job.m->use_full_path = 1;
        job.m->subdir = 0;
        ASSERT_EQ(job.run(), 1) << job.last();
    }
    EXPECT_EQ(slurp(full + "/tree/a.txt"), "a");
    EXPECT_FALSE(fs::exists(full + "/tree/sub"));

    // Trim under a local path without "ftp" removes nothing and says why.
    const std::string plain = home.file("copy");
    fs::create_directories(plain);
    std::ofstream(plain + "/local-only.txt") << "mine";
    {
        Job job(r, plain);
        job.m->trim = 1;
        ASSERT_EQ(job.run(), 1) << job.last();
    }
    EXPECT_EQ(slurp(plain + "/a.txt"), "a");
    EXPECT_TRUE(fs::exists(plain + "/local-only.txt"));
    EXPECT_NE(log().find("Trim will only remove files that contain  'ftp' somewhere in the path"), std::string::npos);
}

TEST_F(MirrorE2E, WrongPasswordAndNoServer) {
    Remote r;
    r.put("tree/a.txt", "a");
    ASSERT_TRUE(r.start());
    const std::string lcl = home.file("ftp-login");
    Job job(r, lcl);
    job.m->user = "mirror";
    job.m->pass = "wrong";
    EXPECT_EQ(job.run(), 0);
    EXPECT_EQ(job.last().rfind("Bad response (530", 0), 0u) << job.last();
    EXPECT_NE(log().find("Couldn't logon, "), std::string::npos);
    EXPECT_EQ(log().find("wrong"), std::string::npos) << "the password stays out of the log";
    EXPECT_FALSE(fs::exists(lcl + "/a.txt"));

    job.m->pass = "right";
    ASSERT_EQ(job.run(), 1) << job.last();
    EXPECT_EQ(slurp(lcl + "/a.txt"), "a");

    job.m->remote_host = "127.0.0.1:1";
    EXPECT_EQ(job.run(), 0);
    EXPECT_EQ(job.last().rfind("tcp_open(127.0.0.1:1) failed", 0), 0u) << job.last();
}

TEST_F(MirrorE2E, ExplicitTlsChecksTheCertificate) {
    Remote r;
    TestPki pki;
    fs::create_directories(home.file("pki"));
    ASSERT_TRUE(make_test_pki(home.file("pki"), pki));
    fs::copy_file(pki.server_cert, r.path("korvane_cert.pem"));
    fs::copy_file(pki.server_key, r.path("korvane_priv.pem"));
    r.put("tree/secret.txt", "over TLS");
    ASSERT_TRUE(r.start());
    const std::string lcl = home.file("ftp-tls");
    Job job(r, lcl);
    job.m->mirror_ssl = 1;
    job.m->remote_host = "localhost:" + std::to_string(r.ftp_port());

    // No rootCA.pem: the test authority is unknown.
    EXPECT_EQ(job.run(), 0);
    EXPECT_NE(job.last().find("not trusted"), std::string::npos) << job.last();
    EXPECT_NE(job.last().find("SHA-256 "), std::string::npos) << job.last();
    EXPECT_FALSE(fs::exists(lcl + "/secret.txt"));

    fs::copy_file(pki.ca_cert, home.file("rootCA.pem"));
    ASSERT_EQ(job.run(), 1) << job.last() << log();
    EXPECT_EQ(slurp(lcl + "/secret.txt"), "over TLS");
    EXPECT_NE(log().find("Connected with secure protocol ("), std::string::npos);

    // The certificate names localhost, not the address.
    job.m->remote_host = "127.0.0.1:" + std::to_string(r.ftp_port());
    EXPECT_EQ(job.run(), 0);
    EXPECT_NE(job.last().find("address mismatch"), std::string::npos) << job.last();
}

// The client alone: block and stream mode, ASCII, active and passive, the
// working directory, a missing file, and the block framing both ways.
TEST_F(MirrorE2E, ClientModes) {
    Remote r;
    const std::string bin = bytes_of(200000, 3);
    r.put("c/data.bin", bin);
    r.put("c/text.txt", "one\r\ntwo\r\n");
    ASSERT_TRUE(r.start());
    const std::string host = "127.0.0.1:" + std::to_string(r.ftp_port());
    const struct {
        int isblock, passive, ascii;
        const char* file;
        std::string want;
    } cases[] = {
        {0, 0, 0, "/c/data.bin", bin},
        {1, 0, 0, "/c/data.bin", bin},
        {0, 1, 0, "/c/data.bin", bin},
        {1, 1, 0, "/c/data.bin", bin},
        {0, 1, 1, "/c/text.txt", "one\ntwo\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "block " << c.isblock << " passive " << c.passive << " ascii " << c.ascii);
        ftplink* raw = nullptr;
        std::string reason;
        int ok = ftp_link_build(&raw, host.c_str(), "anonymous", "me@example.org", reason);
        std::unique_ptr<ftplink, FtpLinkFree> l(raw);
        ASSERT_EQ(ok, 1) << reason;
        l->isblock = c.isblock;
        l->passive = c.passive;
        l->xisascii = c.ascii;
        const std::string out = home.file("client.out");
        ASSERT_EQ(ftp_get_link(l.get(), c.file, out.c_str(), 0, reason), 1) << reason;
        EXPECT_EQ(slurp(out), c.want);
        std::string pwd;
        EXPECT_EQ(ftp_getpwd(l.get(), pwd, reason), 1) << reason;
        EXPECT_EQ(pwd, "/");
        EXPECT_EQ(ftp_get_link(l.get(), "/c/missing", out.c_str(), 0, reason), 0);
        EXPECT_NE(reason.find("550"), std::string::npos) << reason;
    }

    // Resumed from an offset: the rest is appended.
    ftplink* raw = nullptr;
    std::string reason;
    ASSERT_EQ(ftp_link_build(&raw, host.c_str(), "anonymous", "me@example.org", reason), 1) << reason;
    std::unique_ptr<ftplink, FtpLinkFree> l(raw);
    const std::string out = home.file("resume.out");
    std::ofstream(out, std::ios::binary) << bin.substr(0, 1000);
    ASSERT_EQ(ftp_get_link(l.get(), "/c/data.bin", out.c_str(), 1000, reason), 1) << reason;
    EXPECT_EQ(slurp(out), bin);
}

TEST(MirrorBlocks, WriteAndReadBack) {
    ChanPtr a, b;
    ASSERT_TRUE(make_chan_pair(a, b));
    const std::string one(65535, 'x');
    ASSERT_EQ(ftp_write_block(a.get(), one.data(), static_cast<int>(one.size()), 0), 1);
    ASSERT_EQ(ftp_write_block(a.get(), "tail", 4, 1), 1);
    EXPECT_EQ(ftp_write_block(a.get(), one.data(), 70000, 0), 0) << "a block holds at most 65535 bytes";
    std::string bf(kFtpBlockBuffer, '\0');
    int more = -1;
    std::string reason;
    ASSERT_EQ(ftp_read_block(b.get(), bf.data(), kFtpBlockBuffer, &more, reason), 65535) << reason;
    EXPECT_EQ(more, 1);
    EXPECT_EQ(bf.substr(0, 65535), one);
    ASSERT_EQ(ftp_read_block(b.get(), bf.data(), kFtpBlockBuffer, &more, reason), 4) << reason;
    EXPECT_EQ(more, 0);
    EXPECT_EQ(bf.substr(0, 4), "tail");
    // A block larger than the reader's buffer, then a header cut by the close.
    ASSERT_EQ(ftp_write_block(a.get(), one.data(), 100, 0), 1);
    EXPECT_EQ(ftp_read_block(b.get(), bf.data(), 50, &more, reason), -1);
    EXPECT_EQ(reason, "Buffer not big enough 50/100 wanted");
    const char two[2] = {0, 0};
    tcp_write(a.get(), two, 2);
    a.reset();
    char scratch[200];
    tcp_read_timed(b.get(), scratch, 100, 1000);  // the 100 bytes of the refused block
    EXPECT_EQ(ftp_read_block(b.get(), bf.data(), kFtpBlockBuffer, &more, reason), -1);
    EXPECT_EQ(reason, "Part of header receieved 2/3 bytes");
}

}  // namespace
}  // namespace korv::test
