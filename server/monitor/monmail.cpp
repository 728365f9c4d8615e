// The monitor's mail to the manager: its own short SMTP exchange with the
// relay (host or host:port; TLS when the relay offers STARTTLS), at most kMonitorMailsMax mails in a process,
// with the tails of the logs dot-stuffed into the text.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "base/fmt.h"
#include "common/emsg.h"
#include "net/tls.h"
#include "server/monitor/monitor.h"
#include "server/monitor/monstate.h"

namespace korv {

namespace {

constexpr int kSmtpWaitMs = 30000;     // each reply of the relay
constexpr int kSmtpReplyMax = 8192;    // bytes of one reply kept
constexpr int kSmtpConnectMs = 20000;

int mails_sent = 0;

// One whole reply (the last line "ddd "); its code, or 0 on a silent or broken
// relay. `text` receives the reply's lines.
int smtp_reply(Chan* c, std::string* text = nullptr) {
    std::string local;
    std::string& got = text != nullptr ? *text : local;
    got.clear();
    char buf[1024];
    for (;;) {
        size_t start = 0;
        for (size_t nl; (nl = got.find('\n', start)) != std::string::npos; start = nl + 1) {
            std::string_view line(got.data() + start, nl - start);
            if (line.size() >= 4 && line[3] == ' ') return atoi(std::string(line.substr(0, 3)).c_str());
            if (line.size() == 3) return atoi(std::string(line).c_str());
        }
        if (static_cast<int>(got.size()) > kSmtpReplyMax) return 0;
        int r = tcp_read_timed(c, buf, sizeof buf, kSmtpWaitMs);
        if (r < 1) return 0;
        got.append(buf, static_cast<size_t>(r));
    }
}

// A command and its reply; true when the reply is a success (2xx or 3xx).
bool smtp_say(Chan* c, const std::string& line) {
    if (tcp_write(c, line.data(), static_cast<int>(line.size())) < 1) return false;
    int code = smtp_reply(c);
    if (code < 200 || code >= 400) {
        emsg("Mail relay refused (%.*s): %d\n", static_cast<int>(line.size() > 2 ? line.size() - 2 : 0), line.c_str(),
             code);
        return false;
    }
    return true;
}

// EHLO, and TLS when the relay offers STARTTLS (its certificate is not
// checked: relays on a LAN are often self-signed); HELO for a relay that
// does not know EHLO.
bool smtp_hello(Chan* c, const std::string& host) {
    const std::string ehlo = strfmt("EHLO %s\r\n", host.c_str());
    if (tcp_write(c, ehlo.data(), static_cast<int>(ehlo.size())) < 1) return false;
    std::string text;
    int code = smtp_reply(c, &text);
    if (code == 0) return false;
    if (code != 250) return smtp_say(c, strfmt("HELO %s\r\n", host.c_str()));
    for (char& ch : text) ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    if (text.find("STARTTLS") == std::string::npos) return true;
    if (!smtp_say(c, "STARTTLS\r\n")) return false;
    std::string why;
    if (SSLTcp_StartSSL(c->tcp.get(), nullptr, 0, why) != 1) {
        emsg("Mail relay TLS failed: %s\n", why.c_str());
        return false;
    }
    return smtp_say(c, ehlo);
}

bool split_relay(const char* smtp, std::string& host, int& port) {
    host = smtp != nullptr && *smtp ? smtp : "127.0.0.1";
    port = kSmtpDefaultPort;
    size_t colon = host.rfind(':');
    if (colon != std::string::npos && host.find(':') == colon) {
        port = atoi(host.c_str() + colon + 1);
        host.resize(colon);
    }
    return port > 0 && port < 65536 && !host.empty();
}

std::vector<std::string> addresses(const char* manager) {
    std::vector<std::string> out;
    std::string cur;
    for (const char* p = manager != nullptr ? manager : ""; ; ++p) {
        if (*p == 0 || strchr(" \t\n\r,", *p) != nullptr) {
            if (!cur.empty()) out.push_back(cur);
            cur.clear();
            if (*p == 0) break;
        } else {
            cur += *p;
        }
    }
    return out;
}

std::string local_host() {
    char host[256] = {0};
    if (tcp_hostname(host, sizeof host) == nullptr || host[0] == 0) snprintf(host, sizeof host, "localhost");
    std::string h = host;
    if (h.find('.') == std::string::npos) h += ".unknown";
    return h;
}

// The exchange itself, on an open channel; true when the relay took the mail.
bool monitor_exchange(Chan* c, const char* manager) {
    const MonitorState& st = monitor_state();
    const std::string host = local_host();
    const std::vector<std::string> to = addresses(manager);
    if (to.empty()) {
        emsg("No manager address to mail\n");
        return false;
    }
    if (smtp_reply(c) != 220) {
        emsg("Mail relay did not greet\n");
        return false;
    }
    if (!smtp_hello(c, host)) return false;
    if (!smtp_say(c, strfmt("MAIL FROM:<postmaster@%s>\r\n", host.c_str()))) return false;
    int accepted = 0;
    for (const std::string& a : to)
        if (smtp_say(c, strfmt("RCPT TO:<%s>\r\n", a.c_str()))) ++accepted;
    if (accepted == 0) return false;
    if (!smtp_say(c, "DATA\r\n")) return false;
    char when[64];
    time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    strftime(when, sizeof when, "%a, %d %b %Y %H:%M:%S %z", &tmv);
    std::string head;
    head += strfmt("Subject: %s Restarting Server %d times so far %s\r\n", host.c_str(), mails_sent, when);
    head += strfmt("To: %s\r\n", to.front().c_str());
    head += strfmt("From: \"Monitor %s\" <%s@%s>\r\n", st.progname.c_str(), st.progname.c_str(), host.c_str());
    head += "\r\n";
    head += strfmt("This email is to report that the FTP server on %s has restarted\r\n", host.c_str());
    head += "Please contact the administrator of this server for support, and\r\n";
    head += "Include the following files/information\r\n";
    head += strfmt("    Version %s\r\n", st.progver.c_str());
    head += strfmt("    Platform %s\r\n", kMonitorPlatform);
    head += strfmt("    %s.log\r\n", st.progname.c_str());
    head += strfmt("    %s_crash.log\r\n", st.progname.c_str());
    head += strfmt("    %s.ini (From /etc or /winnt directory)\r\n", st.progname.c_str());
    head += "    Operating system (Version) and hardware information\r\n";
    if (tcp_write(c, head.data(), static_cast<int>(head.size())) < 1) return false;
    for (const std::string& f : st.mail_files) monitor_add_file(c, f.c_str(), kMonitorMailTailBytes);
    if (!smtp_say(c, ".\r\n")) return false;
    tcp_write(c, "QUIT\r\n", 6);
    return true;
}

}  // namespace

int monitor_emails_sent() { return mails_sent; }

int monitor_add_file(Chan* c, const char* fname, int len) {
    FILE* in = fopen(fname, "rb");
    if (in == nullptr) {
        std::string line = strfmt("---- Could not read %s\r\n", fname);
        tcp_write(c, line.data(), static_cast<int>(line.size()));
        return 0;
    }
    std::string heading = strfmt("\r\n---- %s\r\n", fname);
    tcp_write(c, heading.data(), static_cast<int>(heading.size()));
    long start = 0;
    if (fseek(in, 0, SEEK_END) == 0) {
        long size = ftell(in);
        if (size > len) start = size - len;
    }
    fseek(in, start, SEEK_SET);
    std::string line;
    bool skipping = start > 0;
    auto flush = [&] {
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
        // A line that starts with a dot gets one more: the relay takes one
        // away, and a lone "." would end the text early.
        if (!line.empty() && line[0] == '.') line.insert(line.begin(), '.');
        line += "\r\n";
        tcp_write(c, line.data(), static_cast<int>(line.size()));
        line.clear();
    };
    int ch;
    while ((ch = fgetc(in)) != EOF) {
        if (skipping) {
            if (ch == '\n') skipping = false;
            continue;
        }
        line += static_cast<char>(ch);
        if (ch == '\n') flush();
    }
    if (!line.empty()) flush();
    fclose(in);
    return 1;
}

int monitor_email(const char* smtp, const char* manager) {
    if (mails_sent >= kMonitorMailsMax) {
        imsg("Not reporting further faults as more than 100 emails have been sent\n");
        return 0;
    }
    ++mails_sent;
    std::string host;
    int port = kSmtpDefaultPort;
    if (!split_relay(smtp, host, port)) {
        emsg("Could not open link to alert manager %s\n", smtp != nullptr ? smtp : "");
        return 0;
    }
    ChanPtr c = tcp_new_owned();
    std::string why;
    if (!monitor_connect(c.get(), host, port, kSmtpConnectMs, why)) {
        emsg("Could not open link to alert manager %s\n", why.c_str());
        tcp_close(c.get());
        if (!monitor_connect(c.get(), host, port, kSmtpConnectMs, why)) {
            emsg("Could not open link to alert manager - second time %s\n", why.c_str());
            emsg_flush();
            return 0;
        }
    }
    bool ok = monitor_exchange(c.get(), manager);
    imsg(ok ? "Mailed the manager (%s)\n" : "The mail to the manager (%s) failed\n", manager != nullptr ? manager : "");
    emsg_flush();
    return ok ? 1 : 0;
}

}  // namespace korv
