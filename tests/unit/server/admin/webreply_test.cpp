// The bytes of every response head over a real socket pair, the 401 body in
// both forms, static files with their 304, and the names web_show_file must
// refuse without sending anything.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "common/mutex.h"
#include "net/tcp.h"
#include "server/admin/webio.h"
#include "server/process/control.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

namespace fs = std::filesystem;

constexpr char kSecurity[] =
    "X-Frame-Options: DENY\r\nContent-Security-Policy: frame-ancestors 'none'\r\nCache-Control: no-store\r\n";

std::string host_name() {
    char h[1000] = {};
    gethostname(h, sizeof h - 1);
    return h;
}

class WebReply : public ::testing::Test {
protected:
    static void SetUpTestSuite() { mutex_init(); }
    void SetUp() override {
        char tmpl[] = "/tmp/webreply_test_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        fs::create_directories(dir_ + "/home/web/img");
        korv_set_home((dir_ + "/home").c_str());
        ASSERT_TRUE(test::make_chan_pair(client_, server_));
        w_->c = server_.get();
    }
    void TearDown() override {
        korv_set_home("");
        fs::remove_all(dir_);
    }
    // Everything the server end wrote, once it is closed.
    std::string sent() {
        tcp_close(server_.get());
        std::string out;
        char bf[4096];
        for (int n; (n = tcp_read_timed(client_.get(), bf, sizeof bf, 5000)) > 0;) out.append(bf, static_cast<size_t>(n));
        return out;
    }
    // The dates vary: each "Date:" and "Last-modified:" value becomes "D".
    static std::string dateless(const std::string& s) {
        return std::regex_replace(s, std::regex("(Date|Last-modified): [^\r]*\r\n"), "$1: D\r\n");
    }
    std::string web() const { return dir_ + "/home/web"; }
    void write(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

    std::string dir_;
    ChanPtr client_, server_;
    WinkPtr w_ = wink_new();
};

TEST_F(WebReply, PageRedirectAndForbiddenHeads) {
    const std::string realm = "WWW-Authenticate: Basic realm=\"korvane." + host_name() + "\"\r\n";
    const std::string common = "Server: KorvManager\r\nMIME-version: 1.0\r\n" + realm;
    const struct {
        const char* name;
        int (*answer)(WINK*);
        std::string want;
    } cases[] = {
        {"page", web_http_header,
         "HTTP/1.0 200 OK\r\n" + common + "Date: D\r\nContent-type: text/html\r\nSet-Cookie: b\r\nX-A: 1  2\r\n" +
             kSecurity + "\r\n"},
        {"redirect", [](WINK* l) { return web_redirect(l, "/cgi/k.cgi?cmd=status\r\nX-Evil: 1"); },
         "HTTP/1.0 302 Object moved\r\n" + common +
             "Location: /cgi/k.cgi?cmd=status  X-Evil: 1\r\nDate: D\r\nContent-type: text/html\r\nSet-Cookie: b\r\n"
             "X-A: 1  2\r\n" + kSecurity + "\r\n"},
        {"forbidden", web_forbidden,
         "HTTP/1.0 403 Forbidden\r\n" + common + "Date: D\r\nContent-type: text/html\r\nSet-Cookie: b\r\nX-A: 1  2\r\n" +
             kSecurity + "\r\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TearDown();
        SetUp();
        web_add_header(w_.get(), "X-A", "1\r\n2");  // a line end in a value cannot start a header
        web_add_header(w_.get(), "Set-Cookie", "a");
        web_add_header(w_.get(), "Set-Cookie", "b");  // replaces
        EXPECT_EQ(c.answer(w_.get()), 1);
        std::string got = dateless(sent());
        ASSERT_GE(got.size(), c.want.size());
        EXPECT_EQ(got.substr(0, c.want.size()), c.want);
        if (std::string(c.name) == "forbidden")
            EXPECT_NE(got.find("<h1>Forbidden</h1>"), std::string::npos);
        else
            EXPECT_EQ(got.size(), c.want.size());
    }
}

TEST_F(WebReply, NeedAuthBuiltInPageAnnouncesThePlainSum) {
    EXPECT_EQ(web_needauth(w_.get(), "korvane"), 1);
    std::string got = dateless(sent());
    size_t end = got.find("\r\n\r\n");
    ASSERT_NE(end, std::string::npos);
    std::string head = got.substr(0, end + 4), body = got.substr(end + 4);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(head, m, std::regex("Content-Length: (\\d+)\r\n")));
    int announced = std::stoi(m[1]);
    EXPECT_EQ(head, "HTTP/1.0 401 Unauthorized\r\nServer: KorvManager\r\nMIME-version: 1.0\r\nContent-type: text/html\r\n"
                    "Content-Length: " + std::to_string(announced) +
                        "\r\nWWW-Authenticate: Basic realm=\"korvane." + host_name() + "\"\r\nDate: D\r\n" + kSecurity +
                        "\r\n");
    // Nine pieces gain a leading blank and the two name pieces " \r\n".
    EXPECT_EQ(static_cast<int>(body.size()), announced + 9 + 2 * 3);
    EXPECT_EQ(body.rfind(" <HTML>\r\n<HEAD></HEAD>\r\n<BODY>\r\n <H3>Welcome to korvane \r\n", 0), 0u);
    EXPECT_NE(body.find("korvane \r\n  Manager CGI"), std::string::npos) << body;
    EXPECT_NE(body.find("<PRE>  korvane \r\n  -password"), std::string::npos);
}

TEST_F(WebReply, NeedAuthSendsTheHomesPageLineByLine) {
    write(dir_ + "/home/needauth.htm", "<p>Log in</p>\nsecond line\r\nlast");
    EXPECT_EQ(web_needauth(w_.get(), "korvane"), 1);
    std::string got = sent();
    EXPECT_NE(got.find("Content-Length: 31\r\n"), std::string::npos);
    EXPECT_EQ(got.substr(got.find("\r\n\r\n") + 4), "<p>Log in</p>\r\nsecond line\r\nlast\r\n");
}

TEST_F(WebReply, StaticFileHeadBodyAndNotModified) {
    write(web() + "/korvane.css", "body { margin: 0 }\n");
    EXPECT_EQ(web_show_file(w_.get(), "korvane.css", web().c_str()), 1);
    EXPECT_EQ(dateless(sent()), "HTTP/1.0 200 OK\r\nServer: KorvManager\r\nMIME-version: 1.0\r\n"
                                "WWW-Authenticate: Basic realm=\"korvane." + host_name() +
                                    "\"\r\nDate: D\r\nLast-modified: D\r\nContent-type: text/css\r\n"
                                    "Content-Length: 19\r\n" + kSecurity + "\r\nbody { margin: 0 }\n");

    TearDown();
    SetUp();
    write(web() + "/a.png", std::string(5000, 'p'));
    web_modified(w_.get(), "Sat, 01 Jan 2000 00:00:00 GMT");  // older than the file: sent whole
    EXPECT_EQ(web_show_file(w_.get(), "a.png", web().c_str()), 1);
    std::string whole = sent();
    EXPECT_NE(whole.find("Content-type: image/PNG\r\nContent-Length: 5000\r\n"), std::string::npos);
    EXPECT_EQ(whole.substr(whole.find("\r\n\r\n") + 4), std::string(5000, 'p'));

    TearDown();
    SetUp();
    write(web() + "/a.png", "p");
    web_modified(w_.get(), "Fri, 01 Jan 2100 00:00:00 GMT");
    EXPECT_EQ(web_show_file(w_.get(), "a.png", web().c_str()), 1);
    EXPECT_EQ(dateless(sent()),
              std::string("HTTP/1.0 304 Not modified\r\nServer: KorvManager\r\nMIME-version: 1.0\r\nDate: D\r\n") + kSecurity +
                  "\r\n");
}

TEST_F(WebReply, MissingFileGetsTheTemplateText) {
    EXPECT_EQ(web_show_file(w_.get(), "nothing.htm", web().c_str()), 1);
    EXPECT_EQ(sent(), "HTTP/1.0 550 Sorry,cannot show template\r\n\r\nCant Show template (" + web() +
                          "/nothing.htm) - No such file or directory\r\n");
}

TEST_F(WebReply, RefusedNamesSendNothing) {
    const char* const refused[] = {
        "../secret.txt", "img/../../secret.txt", "%2e%2e/secret.txt", "%2E%2E%2Fsecret.txt", "..%5csecret.txt",
        "/etc/passwd",   "%2fetc/passwd",        "\\secret.txt",      "img\\ok.gif",         "out.txt",
        "up/secret.txt", "img",              "",                  "img/ok.gif%00.htm",
    };
    for (const char* name : refused) {
        SCOPED_TRACE(name);
        TearDown();
        SetUp();
        write(dir_ + "/secret.txt", "secret");
        fs::create_directories(web() + "/img");
        write(web() + "/img/ok.gif", "gif");
        fs::create_symlink(dir_ + "/secret.txt", web() + "/out.txt");
        fs::create_symlink(dir_, web() + "/up");
        EXPECT_EQ(web_show_file(w_.get(), name, web().c_str()), 0);
        EXPECT_EQ(sent(), "");
    }
    // A link that stays inside, and an escaped name inside, are served.
    for (const char* name : {"in.gif", "img%2fok.gif"}) {
        SCOPED_TRACE(name);
        TearDown();
        SetUp();
        fs::create_directories(web() + "/img");
        write(web() + "/img/ok.gif", "gif");
        fs::create_symlink("img/ok.gif", web() + "/in.gif");
        EXPECT_EQ(web_show_file(w_.get(), name, web().c_str()), 1);
        std::string got = sent();
        EXPECT_EQ(got.substr(got.find("\r\n\r\n") + 4), "gif");
    }
}

TEST_F(WebReply, EscapesAndContentTypes) {
    EXPECT_EQ(web_encode("<a href=\"x\">O'Brien & co</a>"),
              "&lt;a href=&#34;x&#34;&gt;O&#39;Brien &amp; co&lt;/a&gt;");
    EXPECT_EQ(web_encode(std::string(700, '<')).size(), 700u * 4);  // whole, never cut
    EXPECT_EQ(wcode("c:\\ftp\\pub"), "c:/ftp/pub");
    const struct {
        const char* name;
        const char* type;
    } types[] = {
        {"A.JPG", "image/JPEG"}, {"f.html", "text/HTML"}, {"k.css", "text/css"}, {"noext", "application/octet-stream"},
    };
    for (const auto& t : types) EXPECT_STREQ(lib_guess_content(t.name), t.type) << t.name;
}

}  // namespace
}  // namespace korv
