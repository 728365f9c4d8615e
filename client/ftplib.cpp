// The FTP client's connection, login, replies, data connections, listing,
// retrieval and abort. Every failure leaves a one-line reason; nothing throws.
#include "client/ftplib.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/fmt.h"
#include "net/tls.h"

namespace korv {

namespace {

std::atomic<int> ispret{0};
std::atomic<int> use_host{0};
std::atomic<int> isabort{0};
std::atomic<int> g_isblock{0};
std::atomic<FtpDebugFn> debug_printf{nullptr};

constexpr int kReplyLinesMax = 10000;  // lines of one reply before the remote counts as hostile
constexpr int kAbortReplyMs = 10000;   // the wait for each reply after ABOR
constexpr int kSliceMs = 100;          // data reads poll hurry_exit this often

void dbg(const char* format, ...) __attribute__((format(printf, 1, 2)));
void dbg(const char* format, ...) {
    FtpDebugFn fn = debug_printf.load();
    if (fn == nullptr) return;
    va_list ap;
    va_start(ap, format);
    std::string s = vstrfmt(format, ap);
    va_end(ap);
    fn("%s", s.c_str());
}

std::string chan_error(Chan* c) { return c != nullptr ? tcp_error(c) : std::string("no channel"); }

// The control host without its port.
std::string bare_host(const std::string& host) {
    size_t colon = host.find(':');
    return colon == std::string::npos ? host : host.substr(0, colon);
}

// One reply line; waits at most `wait_ms` for its first byte. 1, or 0 with
// the failure in `err`.
int read_reply_line(Chan* c, std::string& line, int wait_ms, std::string& err) {
    if (c == nullptr || !tcp_isopen(c)) {
        err = "channel closed";
        return 0;
    }
    if (c->bfbytes <= 0 && !tcp_need_read_attention(c, wait_ms)) {
        err = "timed out";
        return 0;
    }
    char bf[kFtpReplyLineMax + 2];
    int n = tcp_readline(c, bf, kFtpReplyLineMax);
    if (n <= 0) {
        err = n == 0 ? std::string("closed") : chan_error(c);
        return 0;
    }
    line = bf;
    return 1;
}

int response_wait(Chan* c, int expected, int maxval, int allines, int* ismultiline, std::string& reason,
                  std::string& status, int wait_ms) {
    for (int round = 0; round < kReplyLinesMax; ++round) {
        std::string line;
        if (!status.empty()) {
            line.swap(status);
        } else {
            std::string err;
            if (!read_reply_line(c, line, wait_ms, err)) {
                reason = strfmt("Connection problem %s", err.c_str());
                return 0;
            }
        }
        reason = line;
        dbg("read %d> %s\n", static_cast<int>(line.size()), line.c_str());
        if (line.empty() || line[0] == ' ' || line[0] == '\t') continue;
        if (!isdigit(static_cast<unsigned char>(line[0]))) {
            reason = strfmt("Did not receive digit response (%s)", line.c_str());
            return 0;
        }
        if (line.size() > 3 && line[3] == '-') {
            if (ismultiline != nullptr) *ismultiline = 1;
            if (!allines) continue;
        }
        int code = atoi(line.c_str());
        if (code < 200) continue;  // preliminary
        if (code != expected) dbg("Expected %d, got %.500s\n", expected, line.c_str());
        if (code <= maxval) return 1;
        reason = strfmt("Bad response (%.500s) %d %d", line.c_str(), expected, maxval);
        return 0;
    }
    reason = "Reply has too many lines";
    return 0;
}

int send_line(ftplink* l, const std::string& s) {
    if (!l->cmd) return -1;
    // The password never reaches a log.
    if (s.compare(0, 5, "PASS ") == 0)
        dbg("send> PASS ****\n");
    else
        dbg("send> %s", s.c_str());
    int n = tcp_write(l->cmd.get(), s.data(), static_cast<int>(s.size()));
    return n == static_cast<int>(s.size()) ? n : -1;
}

int start_tls_on(Chan* c, std::string& reason) {
    std::string why;
    if (!even_newer_tcp_ssl_init(c, nullptr, 0, why, 0)) {
        reason = why;
        return 0;
    }
    return 1;
}

int setup_port_port(ftplink* l, const char* ip, int port, std::string& reason) {
    l->listen = tcp_new_owned();
    if (!tcp_listen(l->listen.get(), ip, static_cast<unsigned short>(port), 1)) {
        dbg("Could not listen on port (%d) %s, trying any port\n", port, chan_error(l->listen.get()).c_str());
        l->listen = tcp_new_owned();
        if (!tcp_listen(l->listen.get(), ip, 0, 1)) {
            reason = strfmt("Could not listen: %s", chan_error(l->listen.get()).c_str());
            l->listen.reset();
            return 0;
        }
    }
    return 1;
}

// "h1,h2,h3,h4,p1,p2" of a PORT command. (The server's own PORT tools live in
// its FTP layer; this client keeps its copy to itself.)
std::string port_text(const char* ip, int port) {
    std::string s = strfmt("%.20s,%d,%d", ip, port / 256, port % 256);
    for (char& c : s)
        if (c == '.') c = ',';
    return s;
}

int send_port_cmd(ftplink* l, std::string& reason) {
    char ip[64] = {};
    unsigned short port = 0;
    if (!tcp_getipandports(l->listen.get(), ip, &port, nullptr, nullptr)) {
        reason = strfmt("can't get tcp info: %s", chan_error(l->listen.get()).c_str());
        return 0;
    }
    if (send_line(l, strfmt("PORT %.500s\r\n", port_text(ip, port).c_str())) < 0) {
        reason = "cannot write to command channel";
        return 0;
    }
    return ftp_result(l, 200, 299, reason);
}

int send_pasv_cmd(ftplink* l, const std::string& pret, std::string& reason) {
    if (ispret.load()) {
        std::string ignored;
        if (send_line(l, strfmt("PRET %s", pret.c_str())) < 0) {
            reason = "cannot write to command channel";
            return 0;
        }
        ftp_result(l, 200, 299, ignored);
    }
    if (send_line(l, "PASV\r\n") < 0) {
        reason = "cannot write to command channel";
        return 0;
    }
    if (!ftp_result(l, 227, 299, reason)) return 0;
    std::string reply = reason;
    if (!ftp_decode_pasv(l, reply.c_str())) {
        reason = strfmt("Decode failed (%.200s)", reply.c_str());
        return 0;
    }
    return 1;
}

// While the data connection is awaited, a reply on the control channel is
// read once: a refusal ends the wait, anything else is kept in `status`.
int peek_control(ftplink* l, std::string& status, bool& seen, std::string& reason) {
    if (seen || !l->cmd || (l->cmd->bfbytes <= 0 && !tcp_need_read_attention(l->cmd.get(), 0))) return 1;
    seen = true;
    std::string line, err;
    if (!read_reply_line(l->cmd.get(), line, 0, err)) {
        reason = strfmt("Connection problem %s", err.c_str());
        return 0;
    }
    if (atoi(line.c_str()) > 400) {
        reason = strfmt("Bad response so aborting listen %s", line.c_str());
        return 0;
    }
    status = line;
    return 1;
}

// True when the data connection's wait ended on a refusal read from the
// control channel: that reply is already in the reason.
bool refused_on_control(const std::string& reason) {
    return reason.rfind("Bad response so aborting listen ", 0) == 0;
}

int data_tls(ftplink* l, std::string& reason, const char* okfmt) {
    if (!l->isssl) return 1;
    std::string why;
    if (!start_tls_on(l->data.get(), why)) {
        reason = strfmt("Data connection dropped, No SSL, reason %s", why.c_str());
        return 0;
    }
    dbg(okfmt, tcp_get_ssl_protocol_name_used(l->data.get()));
    return 1;
}

int open_port_port(ftplink* l, std::string& reason, std::string& status) {
    bool seen = false;
    for (int round = 0;; ++round) {
        if (tcp_need_read_attention(l->listen.get(), 1000)) break;
        if (!peek_control(l, status, seen, reason)) return 0;
        if (round >= kFtpListenRounds - 1) {
            reason = "Did not get listen event within timeout 60 secs";
            return 0;
        }
    }
    l->data = tcp_new_owned();
    if (!tcp_accept(l->listen.get(), l->data.get())) {
        reason = strfmt("accept failed %s", chan_error(l->listen.get()).c_str());
        return 0;
    }
    tcp_set_blocking(l->data.get(), 0);
    return data_tls(l, reason, "SSL started on data connection. (%s)\n");
}

int open_pasv_port(ftplink* l, std::string& reason, std::string& status) {
    if (!l->data) l->data = tcp_new_owned();
    if (!tcp_open_timed(l->data.get(), l->passive_host.c_str(), l->passive_port, nullptr, kFtpPasvOpenMs)) {
        dbg("Couldn't open data connection, %s\n", chan_error(l->data.get()).c_str());
        std::string h = bare_host(l->host);
        dbg("Retry connect to incoming ip address (%s)\n", h.c_str());
        l->data = tcp_new_owned();
        if (!tcp_open_timed(l->data.get(), h.c_str(), l->passive_port, nullptr, kFtpPasvOpenMs)) {
            reason = strfmt("Couldn't open data connection, %s", chan_error(l->data.get()).c_str());
            return 0;
        }
    }
    bool seen = false;
    if (!tcp_can_write(l->data.get(), kFtpPasvWritableMs)) {
        reason = "Data connection did not open within 30 secs";
        return 0;
    }
    if (!peek_control(l, status, seen, reason)) return 0;
    tcp_set_blocking(l->data.get(), 0);
    if (!data_tls(l, reason, "SSL started on data connection.(%s)\n")) return 0;
    if (!l->isssl) dbg("Opened %s %d (passive mode data channel)\n", l->passive_host.c_str(), l->passive_port);
    return 1;
}

// Waits in slices until the data channel has something to read, watching
// hurry_exit and the control channel: a refusal there (a 550 for a file gone
// since the listing) ends the wait at once instead of at the time limit.
// 1 ready, 0 with the reason.
int wait_data(ftplink* l, Chan* c, long long sofar, std::string& reason) {
    int waited = 0;
    for (;;) {
        if (l->hurry_exit.exchange(0)) {
            reason = "Connection Aborting";
            return 0;
        }
        if (c->tcp->Ssl || tcp_need_read_attention(c, kSliceMs)) return 1;
        if (l->held_reply.empty() && l->cmd &&
            (l->cmd->bfbytes > 0 || tcp_need_read_attention(l->cmd.get(), 0))) {
            std::string line, err;
            if (read_reply_line(l->cmd.get(), line, 0, err)) {
                const int code = atoi(line.c_str());
                if (code >= 400) {
                    reason = strfmt("Bad response (%.500s) while waiting for data", line.c_str());
                    return 0;
                }
                if (code >= 200) l->held_reply = line;
            }
        }
        waited += kSliceMs;
        if (waited >= l->tout) {
            dbg("Connection severed %lld bytes read, err = timeout\n", sofar);
            reason = strfmt("Connection Lost, %lld bytes read. err = %s.", sofar, "no data within the time limit");
            return 0;
        }
    }
}

// A timed read of the data channel in slices, so that hurry_exit is seen:
// bytes, 0 at the end, -1 with the reason.
int data_read(ftplink* l, Chan* c, char* bf, int len, long long sofar, std::string& reason) {
    int waited = 0;
    for (;;) {
        // What is there is taken at once; only an empty channel is waited on.
        int n = tcp_read_timed(c, bf, len, 0);
        if (n >= 0) return n;
        if (ssltcp_is_blocking_code(c->tcp->ErrorCode)) {
            if (!wait_data(l, c, sofar, reason)) return -1;
            n = tcp_read_timed(c, bf, len, kSliceMs);
            if (n >= 0) return n;
        }
        const int code = c->tcp->ErrorCode;
        waited += kSliceMs;
        if (!ssltcp_is_blocking_code(code) || waited >= l->tout) {
            std::string err = chan_error(c);
            dbg("Connection severed %lld bytes read, err = %s\n", sofar, err.c_str());
            reason = strfmt("Connection Lost, %lld bytes read. err = %s.", sofar, err.c_str());
            return -1;
        }
    }
}

void done_failed(ftplink* l, const std::string& reason) {
    if (l->fn != nullptr) l->fn(strfmt("done_failed - %s", reason.c_str()).c_str(), 0, l->fntag);
}

}  // namespace

void ftp_set_pret(int on) { ispret.store(on); }
void ftplib_use_host(int on) { use_host.store(on); }
void ftp_setabort(int on) { isabort.store(on); }
void ftp_setblock(int on) { g_isblock.store(on); }
void ftp_setdebug(FtpDebugFn fn) { debug_printf.store(fn); }

int ftp_new(ftplink** ff) {
    if (*ff != nullptr) {
        dbg("ftp_new failed not null\n");
        abort();
    }
    *ff = new ftplink();
    (*ff)->isblock = g_isblock.load();
    return 1;
}

void ftp_free(ftplink** ff) {
    if (ff == nullptr || *ff == nullptr) return;
    delete *ff;
    *ff = nullptr;
}

void ftp_link_set(ftplink* l, const char* host, const char* user, const char* pass) {
    l->host = host != nullptr ? host : "";
    l->user = user != nullptr ? user : "";
    l->pass = pass != nullptr ? pass : "";
}
void ftp_link_setascii(ftplink* l, int t) { l->xisascii = t; }
void ftp_set_timeout(ftplink* l, int msec) { l->tout = msec; }
void ftp_set_callback(ftplink* l, int cbtag, FtpProgressFn fn) {
    l->fntag = cbtag;
    l->fn = fn;
}

int ftp_open_link(ftplink* l, std::string& reason) {
    if (l->host.empty()) {
        reason = "tcp_open: host name to connect to blank";
        return 0;
    }
    std::string h = l->host;
    int port = kFtpDefaultPort;
    if (size_t colon = h.find(':'); colon != std::string::npos) {
        port = atoi(h.c_str() + colon + 1);
        h.resize(colon);
        if (port <= 0 || port > 65535) port = kFtpDefaultPort;
    }
    l->cmd = tcp_new_owned();
    if (!tcp_open(l->cmd.get(), h.c_str(), static_cast<unsigned short>(port))) {
        reason = strfmt("tcp_open(%.500s:%d) failed %.500s", h.c_str(), port, chan_error(l->cmd.get()).c_str());
        l->cmd.reset();
        return 0;
    }
    tcp_set_nodelay(l->cmd.get(), 1);
    return 1;
}

int ftp_login_link(ftplink* l, std::string& reason) {
    return ftp_login(l->cmd.get(), l->isssl, l->host.c_str(), l->user.c_str(), l->pass.c_str(), reason, l);
}

int ftp_link_build(ftplink** l, const char* host, const char* user, const char* pass, std::string& reason) {
    ftp_new(l);
    ftp_link_set(*l, host, user, pass);
    return ftp_open_link(*l, reason) && ftp_login_link(*l, reason);
}

int ftp_login(Chan* c, int start_ssl, const char* to, const char* user, const char* pass, std::string& reason,
              ftplink* link) {
    dbg("Open connection to (%.500s)\n", to);
    std::string status;
    auto say = [&](const std::string& s) {
        if (s.compare(0, 5, "PASS ") == 0)
            dbg("send> PASS ****\n");
        else
            dbg("send> %s", s.c_str());
        if (tcp_write(c, s.data(), static_cast<int>(s.size())) == static_cast<int>(s.size())) return 1;
        reason = "cannot write to command channel";
        return 0;
    };
    if (!ftp_response2(c, 220, 299, 0, nullptr, reason, status)) return 0;
    if (start_ssl) {
        if (!say("AUTH TLS\r\n") || !ftp_response2(c, 234, 299, 0, nullptr, reason, status)) return 0;
        if (!start_tls_on(c, reason)) return 0;
        if (link != nullptr && !ftp_check_certificate(c, bare_host(to), link->ca_file, reason)) return 0;
        if (!say("PBSZ 0\r\n") || !ftp_response2(c, 200, 299, 0, nullptr, reason, status)) return 0;
        if (!say("PROT P\r\n") || !ftp_response2(c, 200, 299, 0, nullptr, reason, status)) return 0;
    }
    if (!say(strfmt("USER %.100s\r\n", user)) || !ftp_response2(c, 331, 399, 0, nullptr, reason, status)) return 0;
    if (!say(strfmt("PASS %.100s\r\n", pass)) || !ftp_response2(c, 230, 299, 0, nullptr, reason, status)) return 0;
    return 1;
}

int ftp_response2(Chan* c, int expected, int maxval, int allines, int* ismultiline, std::string& reason,
                  std::string& status) {
    return response_wait(c, expected, maxval, allines, ismultiline, reason, status, kChanLineWaitMs);
}

int ftp_response(Chan* c, int expected, int maxval, int allines, int* ismultiline, std::string& reason) {
    std::string status;
    return ftp_response2(c, expected, maxval, allines, ismultiline, reason, status);
}

int ftp_get_a_response(Chan* c, int expected, int maxval, std::string& reason) {
    reason = "No response from server";
    std::string status;
    std::string why;
    if (response_wait(c, expected, maxval, 0, nullptr, why, status, kChanLineWaitMs)) {
        reason = why;
        return 1;
    }
    if (why.compare(0, 19, "Connection problem ") == 0)
        reason = strfmt("Read %d %d failed %.500s", expected, maxval, why.c_str());
    else
        reason = why;
    return 0;
}

int ftp_result(ftplink* l, int expected, int maxval, std::string& reason) {
    return ftp_response(l->cmd.get(), expected, maxval, 0, nullptr, reason);
}

int ftp_printf(ftplink* l, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string s = vstrfmt(format, ap);
    va_end(ap);
    return send_line(l, s);
}

int ftp_decode_pasv(ftplink* l, const char* reply) {
    const char* open = reply != nullptr ? strchr(reply, '(') : nullptr;
    if (open == nullptr) {
        dbg("Unable to find information in pasv response %s\n", reply != nullptr ? reply : "");
        return 0;
    }
    std::string s = open + 1;
    int commas = 0;
    size_t i = 0;
    for (; i < s.size(); ++i) {
        if (s[i] != ',') continue;
        if (++commas == 4) break;
        s[i] = '.';
    }
    if (commas < 4) return 0;
    std::string addr = s.substr(0, i);
    const char* rest = s.c_str() + i + 1;
    char* end = nullptr;
    long hi = strtol(rest, &end, 10);
    if (end == rest || *end != ',') return 0;
    const char* lo_at = end + 1;
    long lo = strtol(lo_at, &end, 10);
    if (end == lo_at || hi < 0 || hi > 255 || lo < 0 || lo > 255) return 0;
    l->passive_host = use_host.load() ? l->host : addr;
    if (size_t colon = l->passive_host.find(':'); colon != std::string::npos) l->passive_host.resize(colon);
    l->passive_port = static_cast<unsigned short>(hi * 256 + lo);
    return 1;
}

int ftp_setup_data_port_link(ftplink* l, std::string& reason, const char* cmd, const char* args) {
    if (!l->cmd) {
        reason = "not connected";
        return 0;
    }
    std::string pret = strfmt("%s %s\r\n", cmd != nullptr ? cmd : "", args != nullptr ? args : "");
    char ip[64] = {};
    unsigned short lport = 0;
    if (!tcp_getipandports(l->cmd.get(), ip, &lport, nullptr, nullptr)) {
        reason = strfmt("can't get tcp info: %s", chan_error(l->cmd.get()).c_str());
        return 0;
    }
    int port = static_cast<int>(lport) - 1;
    if (port != 20 && port != 989) port = 0;
    ftp_release_port(l);
    if (!l->passive) {
        if (setup_port_port(l, ip, port, reason) && send_port_cmd(l, reason)) return 1;
        dbg("Tryng Passive mode...\n");
        ftp_release_port(l);
        l->passive = 1;
    }
    if (!send_pasv_cmd(l, pret, reason)) return 0;
    l->data = tcp_new_owned();
    return 1;
}

int ftp_initiate_data_port(ftplink* l, std::string& reason, std::string& status) {
    status.clear();
    if (l->passive) return open_pasv_port(l, reason, status);
    if (!l->listen) {
        reason = "no data port was set up";
        return 0;
    }
    return open_port_port(l, reason, status);
}

void ftp_release_port(ftplink* l) {
    l->listen.reset();
    l->data.reset();
}

int ftp_list_wordlist(ftplink* l, const char* /*fname*/, Chan* cdata, WordlistPtr& w, std::string& reason) {
    std::string pending;
    bool overlong = false;
    int lines = 0;
    std::string bf(static_cast<size_t>(kFtpBlockBuffer), '\0');
    auto take = [&](std::string line) -> int {
        if (size_t cut = line.find_first_of("\r\n"); cut != std::string::npos) line.resize(cut);
        if (++lines > l->list_max) {
            reason = strfmt("Listing too long, over %d lines", l->list_max);
            return 0;
        }
        word_add(w, line);
        if (l->fn != nullptr && !l->fn("list", lines, l->fntag)) {
            reason = "Listing stopped at users request.";
            ftp_do_abort(l);
            return 0;
        }
        return 1;
    };
    for (;;) {
        int n = data_read(l, cdata, bf.data(), static_cast<int>(bf.size()), 0, reason);
        if (n < 0) return 0;
        if (n == 0) break;
        size_t start = 0;
        for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
            if (bf[i] != '\n') continue;
            if (!overlong) {
                pending.append(bf, start, i - start);
                if (!take(pending)) return 0;
            } else {
                dbg("Listing line over %d bytes dropped\n", kFtpReplyLineMax);
            }
            pending.clear();
            overlong = false;
            start = i + 1;
        }
        if (!overlong) pending.append(bf, start, static_cast<size_t>(n) - start);
        // A line longer than any real listing line is dropped whole.
        if (pending.size() > static_cast<size_t>(kFtpReplyLineMax)) {
            pending.clear();
            overlong = true;
        }
    }
    if (!pending.empty() && !overlong && !take(pending)) return 0;
    return 1;
}

int ftp_link_list_wordlist(ftplink* l, const char* cmd, const char* rmtname, WordlistPtr& w, std::string& reason) {
    std::string status;
    l->held_reply.clear();
    int sent = rmtname != nullptr && *rmtname ? ftp_printf(l, "%.500s %.300s\r\n", cmd, rmtname)
                                              : ftp_printf(l, "%.500s\r\n", cmd);
    int ok = 0;
    if (sent < 0) {
        reason = "cannot write to command channel";
    } else if (ftp_initiate_data_port(l, reason, status)) {
        ok = ftp_list_wordlist(l, rmtname, l->data.get(), w, reason);
        ftp_release_port(l);
        if (status.empty()) status.swap(l->held_reply);
        l->held_reply.clear();
        std::string why;
        if (!response_wait(l->cmd.get(), 226, 299, 0, nullptr, why, status, kChanLineWaitMs)) {
            if (ok) reason = why;
            ok = 0;
        }
    } else {
        ftp_release_port(l);
        dbg("data connection failed, waiting on server response... %s\n", reason.c_str());
        std::string why;
        if (!refused_on_control(reason)) {
            response_wait(l->cmd.get(), 226, 299, 0, nullptr, why, status, kAbortReplyMs);
            if (why == "No response from server") ftp_do_abort(l);
        }
    }
    if (!ok) {
        word_free(w);
        dbg("link list word failed:%s\n", reason.c_str());
        return 0;
    }
    word_reverse(w);
    return 1;
}

int ftp_read_block(Chan* c, char* bf, int maxlen, int* ismore, std::string& reason) {
    unsigned char head[3];
    int got = 0;
    while (got < 3) {
        int n = tcp_read_timed(c, reinterpret_cast<char*>(head) + got, 3 - got, kFtpDefaultToutMs);
        if (n <= 0) {
            reason = n == 0 || got > 0 ? strfmt("Part of header receieved %d/%d bytes", got, 3)
                                       : strfmt("Socket closed on read %.500s", chan_error(c).c_str());
            return -1;
        }
        got += n;
    }
    *ismore = (head[0] & 0x40) ? 0 : 1;
    int len = (head[1] << 8) | head[2];
    if (len >= maxlen) {
        reason = strfmt("Buffer not big enough %d/%d wanted", maxlen, len);
        return -1;
    }
    int have = 0;
    while (have < len) {
        int n = tcp_read_timed(c, bf + have, len - have, kFtpDefaultToutMs);
        if (n <= 0) {
            reason = strfmt("Part of block missing %d bytes lost", len - have);
            return -1;
        }
        have += n;
    }
    return len;
}

int ftp_write_block(Chan* c, const char* bf, int len, int last) {
    if (len < 0 || len > 0xffff) return 0;
    char head[3] = {static_cast<char>(last ? 0x40 : 0), static_cast<char>((len >> 8) & 0xff),
                    static_cast<char>(len & 0xff)};
    if (tcp_write(c, head, 3) != 3) return 0;
    return len == 0 || tcp_write(c, bf, len) == len ? 1 : 0;
}

int ftp_get_block(ftplink* l, FILE* f, Chan* cdata, int isblock, std::string& reason, long long* sz) {
    std::string bf(static_cast<size_t>(isblock ? kFtpBlockBuffer : kFtpStreamBuffer), '\0');
    int blocks = 0;
    for (;;) {
        int n = 0;
        int more = 1;
        if (isblock) {
            if (!wait_data(l, cdata, *sz, reason)) return 0;
            n = ftp_read_block(cdata, bf.data(), static_cast<int>(bf.size()), &more, reason);
        } else {
            n = data_read(l, cdata, bf.data(), static_cast<int>(bf.size()), *sz, reason);
        }
        if (n < 0) return 0;
        if (n == 0 && !isblock) {
            dbg("Connection closed normally %lld\n", *sz);
            break;
        }
        ++blocks;
        std::string_view chunk(bf.data(), static_cast<size_t>(n));
        std::string conv;
        if (l->xisascii) {
            conv = ftp_cvt_crlf_lf(chunk);
            chunk = conv;
        }
        *sz += n;
        if (l->max_bytes > 0 && *sz > l->max_bytes) {
            reason = strfmt("Remote sent more than %lld bytes, transfer stopped", l->max_bytes);
            ftp_do_abort(l);
            return 0;
        }
        if (!chunk.empty() && fwrite(chunk.data(), 1, chunk.size(), f) != chunk.size()) {
            reason = strfmt("File write failed %.500s", strerror(errno));
            return 0;
        }
        if (l->fn != nullptr && !l->fn("read", *sz, l->fntag)) {
            reason = "Abort transfer at users request.";
            ftp_do_abort(l);
            return 0;
        }
        if (isblock && !more) break;
    }
    dbg("Read %d blocks %lld bytes\n", blocks, *sz);
    return 1;
}

int ftp_get_link(ftplink* l, const char* rmtname, const char* lclname, long long start, std::string& reason) {
    l->bytes_in = 0;
    std::string status;
    FILE* f = nullptr;
    auto fail = [&](const std::string& why) {
        reason = why;
        if (f != nullptr && fclose(f) != 0) reason += strfmt(" fclose - %s", strerror(errno));
        f = nullptr;
        done_failed(l, reason);
        return 0;
    };
    if (l->fn != nullptr) {
        l->fn("get", 0, l->fntag);
        if (ftp_printf(l, "SIZE %.200s\r\n", rmtname) < 0) return fail("cannot write to command channel");
        std::string why;
        if (ftp_result(l, 213, 299, why)) {
            long long sz = atoll(why.c_str() + (why.size() > 4 ? 4 : why.size()));
            if (sz > 0) l->fn("size", sz, l->fntag);
        } else if (why.find("550") != std::string::npos && why.find("No such file") != std::string::npos) {
            return fail(why);
        }
    }
    if (!ftp_setup_data_port_link(l, reason, "RETR", rmtname)) return fail(strfmt("can't reset port: %s", reason.c_str()));
    std::string mode = "w";
    std::string why;
    if (l->isblock) {
        if (ftp_printf(l, "MODE B\r\n") < 0 || !ftp_result(l, 200, 299, why)) return fail("can't set mode B");
    }
    if (l->xisascii) {
        if (ftp_printf(l, "TYPE A\r\n") < 0 || !ftp_result(l, 200, 299, why)) return fail("can't set type A");
    } else {
        if (ftp_printf(l, "TYPE I\r\n") < 0 || !ftp_result(l, 200, 299, why)) return fail("can't set type I");
        mode += "b";
    }
    if (start > 0) {
        if (ftp_printf(l, "REST %lld\r\n", start) < 0 || !ftp_result(l, 350, 399, why)) return fail("rest_failed");
        mode = l->xisascii ? "a+" : "a+b";
    }
    if (ftp_printf(l, "RETR %.200s\r\n", rmtname) < 0) return fail("cannot write to command channel");
    if (!ftp_initiate_data_port(l, reason, status)) {
        std::string first = reason;
        ftp_release_port(l);
        // The remote's own word on it, unless it was that word that ended the wait.
        std::string reply;
        if (!refused_on_control(first) &&
            !response_wait(l->cmd.get(), 226, 299, 0, nullptr, reply, status, kAbortReplyMs) && !reply.empty())
            first += " (" + reply + ")";
        return fail(strfmt("can't reset port: %s", first.c_str()));
    }
    if (l->fn != nullptr) l->fn("accept", 0, l->fntag);
    f = fopen(lclname, mode.c_str());
    if (f == nullptr) {
        dbg("Unable to write to (%.500s)(%s) %.500s\n", lclname, mode.c_str(), strerror(errno));
        ftp_do_abort(l);
        return fail(strfmt("cant open local file %.500s", strerror(errno)));
    }
    l->aborted_transfer = 0;
    l->held_reply.clear();
    long long sz = 0;
    int ok = ftp_get_block(l, f, l->data.get(), l->isblock, reason, &sz);
    l->bytes_in = sz;
    if (!ok) return fail(reason);
    FILE* closing = f;
    f = nullptr;
    if (fclose(closing) != 0) {
        dbg("fclose %.500s\n", strerror(errno));
        return fail("cant close local file, disk full? disk error?");
    }
    dbg("Stored (%.500s) successfully %lld bytes\n", lclname, sz);
    ftp_release_port(l);
    if (status.empty()) status.swap(l->held_reply);
    l->held_reply.clear();
    if (!response_wait(l->cmd.get(), 226, 299, 0, nullptr, reason, status, kChanLineWaitMs)) return fail(reason);
    if (l->fn != nullptr) l->fn("done_ok", sz, l->fntag);
    return 1;
}

int ftp_do_abort(ftplink* l) {
    if (!l->cmd) return 0;
    send_line(l, "ABOR\r\n");
    ftp_release_port(l);
    std::string why, status;
    if (!response_wait(l->cmd.get(), 226, 299, 0, nullptr, why, status, kAbortReplyMs))
        response_wait(l->cmd.get(), 226, 299, 0, nullptr, why, status, kAbortReplyMs);
    dbg("Abort respons (%s)\n", why.c_str());
    l->aborted_transfer = 1;
    return 1;
}

int ftp_isopen(ftplink* l) { return l != nullptr && l->cmd && tcp_isopen(l->cmd.get()) ? 1 : 0; }

int ftp_isalive(ftplink* l, std::string& reason) {
    if (!ftp_isopen(l)) {
        reason = "not connected";
        return 0;
    }
    if (ftp_printf(l, "NOOP\r\n") < 0) {
        reason = "cannot write to command channel";
        return 0;
    }
    return ftp_result(l, 200, 299, reason);
}

int ftp_getpwd(ftplink* l, std::string& out, std::string& reason) {
    if (ftp_printf(l, "PWD\r\n") < 0) {
        reason = "cannot write to command channel";
        return 0;
    }
    if (!ftp_result(l, 257, 299, reason)) return 0;
    size_t a = reason.find('"');
    size_t b = a == std::string::npos ? a : reason.find('"', a + 1);
    if (b == std::string::npos) return 0;
    out = reason.substr(a + 1, b - a - 1);
    return 1;
}

}  // namespace korv
