// Renders arbitrary template text through the page engine to a loopback
// connection that a second thread drains. Input: one flag byte (odd: the text
// is written to the page file fuzz.htm and shown with web_showfile, which
// reads it in pieces; even: it goes to web_show_line whole), then the text.
// Variables hold markup, a generator and a list mapping are on, and the
// directory has a page that includes itself. Nothing may touch memory it does
// not own, and a text without a "<" must render without one: values are escaped.
#include <stdlib.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "common/emsg.h"
#include "net/tcp.h"
#include "server/admin/webtpl.h"

namespace {

using namespace korv;

void check(bool ok, const char* what) {
    if (!ok) fprintf(stderr, "webtpl_fuzz: %s\n", what), abort();
}

// Bytes read by the drain thread for the current input, up to the NUL the
// renderer sends after it (rendered text never holds a NUL).
std::mutex mx;
std::condition_variable cv;
bool seen_end = false;
bool seen_lt = false;

void drain(Chan* client) {
    char bf[65536];
    for (;;) {
        int n = tcp_read(client, bf, sizeof bf);
        check(n > 0, "the connection ended");
        std::lock_guard<std::mutex> g(mx);
        for (int i = 0; i < n; i++) {
            if (bf[i] == '<') seen_lt = true;
            if (bf[i] == 0) {
                seen_end = true;
                cv.notify_all();
            }
        }
    }
}

void gen(WINK* l) { tcp_write(l->c, "[generated]", 11); }

int list_depth = 0;

// Three items per body; bodies collected inside bodies could otherwise
// multiply without end.
int items(WINK* l, const std::string& unit, const WEB_CB_MAPPINGS* m, const char* filename) {
    if (list_depth >= 3) return 1;
    ++list_depth;
    int ok = 1;
    for (const char* item : {"one", "<two>", "&three;"}) {
        web_var_add(l, "item", item);
        if (!web_show_line(l, unit, m, filename)) ok = 0;
    }
    --list_depth;
    return ok;
}

const WEB_CB_MAPPINGS kMappings[] = {
    {"fuzz.htm", "", items},
    {"fuzz.htm", "_x", items},
    {"inc.htm", "", items},
    {nullptr, nullptr, nullptr},
};

struct Setup {
    std::string dir;
    ChanPtr server, client;
    std::thread drainer;
};

Setup* setup() {
    static Setup* s = [] {
        auto* s = new Setup;
        char tmpl[] = "/tmp/webtpl_fuzz.XXXXXX";
        check(mkdtemp(tmpl) != nullptr, "mkdtemp");
        s->dir = tmpl;
        web_set_dir(s->dir);
        auto put = [&](const char* name, const char* text) {
            FILE* f = fopen((s->dir + "/" + name).c_str(), "w");
            check(f != nullptr, "page file");
            fputs(text, f);
            fclose(f);
        };
        put("inc.htm", "[inc ||a||]||ifdef||flag|| yes ||else|| no ||endif||\n||begin_list|| ||item|| ||end_list||\n");
        put("self.htm", "[self]||include||self.htm||\n");
        web_callback_add("gen", gen);

        ChanPtr l = tcp_new_owned();
        check(tcp_listen(l.get(), "127.0.0.1", 0, 1), "listen");
        int port = 0;
        tcp_getport(l.get(), &port);
        s->client = tcp_new_owned();
        s->server = tcp_new_owned();
        check(tcp_open(s->client.get(), "127.0.0.1", static_cast<unsigned short>(port)), "open");
        check(tcp_accept_noblock(l.get(), s->server.get(), 5000), "accept");
        s->drainer = std::thread(drain, s->client.get());
        s->drainer.detach();
        return s;
    }();
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Setup* s = setup();
    if (size < 1 || size > 8192) return 0;
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    // A page that includes itself twice doubles per level: the depth bound
    // keeps that finite, not fast.
    bool mentions_self = text.find("fuzz.htm") != std::string::npos;
    bool as_file = (data[0] & 1) && !mentions_self;
    for (char& ch : text)
        if (ch == 0) ch = ' ';

    WINK w;
    w.c = s->server.get();
    web_var_add(&w, "a", "<a href=\"x\">'&'</a>");
    web_var_add(&w, "b", "");
    web_var_add(&w, "flag", "TRUE");
    web_var_add(&w, "windows", "unix");
    {
        std::lock_guard<std::mutex> g(mx);
        seen_end = seen_lt = false;
    }
    int r;
    if (as_file) {
        FILE* f = fopen((s->dir + "/fuzz.htm").c_str(), "w");
        check(f != nullptr, "fuzz.htm");
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
        r = web_showfile(&w, "fuzz.htm", kMappings);
    } else {
        r = web_show_line(&w, text, kMappings, "fuzz.htm");
    }
    check(r == 0 || r == 1, "result");
    check(w.nif >= 0, "negative nesting");
    check(tcp_write(w.c, "", 1) == 1, "write");

    std::unique_lock<std::mutex> g(mx);
    cv.wait(g, [] { return seen_end; });
    // fuzz.htm holds an earlier input, which may have any '<'.
    if (text.find('<') == std::string::npos && !mentions_self) check(!seen_lt, "a value was not escaped");
    return 0;
}
