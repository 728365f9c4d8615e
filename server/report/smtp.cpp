// The SMTP sender: connect, greeting, EHLO (HELO for an old relay), STARTTLS
// when offered, the envelope, the callbacks' message, QUIT. Each reply is read
// whole, every line of it, within the wait limit.
#include "server/report/smtp.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/dates.h"
#include "base/fmt.h"
#include "common/emsg.h"
#include "net/tls.h"

namespace korv {

namespace {

std::atomic<int> g_wait_ms{kSmtpWaitMs};

constexpr char kProtocolWords[] = "smtp protocol, search log for\"Emailing: \"";

void set_reason(std::string& reason, std::string text) {
    if (text.size() > static_cast<size_t>(kSmtpReasonMax)) text.resize(kSmtpReasonMax);
    reason = std::move(text);
}

std::string one_line(std::string s) {
    for (char& ch : s)
        if (ch == '\r' || ch == '\n') ch = ' ';
    return s;
}

std::string chan_problem(Chan* c) {
    if (c->tcp->ErrorCode == EAGAIN || c->tcp->ErrorCode == ETIMEDOUT)
        return strfmt("no reply within %d ms", g_wait_ms.load());
    std::string e = one_line(tcp_error(c));
    return e.empty() ? std::string("connection closed") : e;
}

void tcp_problem(Chan* c, std::string& reason) {
    set_reason(reason, strfmt("Emailing: Error during report (tcp_problem | %s)", chan_problem(c).c_str()));
    emsg("Emailing: %s", reason.c_str());
}

// One whole reply into `text` (its lines joined by blanks). The code of its
// first line, -1 when the connection failed, -2 for a reply past the bound.
// Bytes behind the reply wait in the channel's buffer for the next one.
int read_reply(Chan* c, std::string& text) {
    text.clear();
    std::string acc(c->buffer, static_cast<size_t>(c->bfbytes));
    c->bfbytes = 0;
    int first_code = -1;
    size_t pos = 0;
    for (;;) {
        size_t eol;
        while ((eol = acc.find('\n', pos)) != std::string::npos) {
            std::string line = acc.substr(pos, eol - pos);
            pos = eol + 1;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (first_code < 0) first_code = atoi(line.c_str());
            if (!text.empty()) text += ' ';
            text += line;
            if (line.size() < 4 || line[3] != '-') {
                std::string rest = acc.substr(pos);
                size_t keep = std::min(rest.size(), sizeof c->buffer);
                memcpy(c->buffer, rest.data(), keep);
                c->bfbytes = static_cast<int>(keep);
                return first_code < 0 ? 0 : first_code;
            }
        }
        if (acc.size() > static_cast<size_t>(kSmtpReplyMax)) return -2;
        char bf[1000];
        int n = tcp_read_timed(c, bf, sizeof bf, g_wait_ms.load());
        if (n <= 0) return -1;
        acc.append(bf, static_cast<size_t>(n));
    }
}

// A reply whose code decides nothing yet: the text for the caller.
int read_any(Chan* c, std::string& text, std::string& reason) {
    int code = read_reply(c, text);
    if (code == -1) {
        tcp_problem(c, reason);
        return -1;
    }
    if (code == -2) {
        set_reason(reason, strfmt("Emailing: Error during report (%s | reply longer than %d bytes)", kProtocolWords,
                                  kSmtpReplyMax));
        emsg("Emailing: %s", reason.c_str());
        return -1;
    }
    dmsg("Emailing: %s", text.c_str());
    return code;
}

int send_cmd(Chan* c, const std::string& line, std::string& reason) {
    if (smtp_write(c, line)) return 1;
    tcp_problem(c, reason);
    return 0;
}

// A command and its reply: 1 when the reply's code is under 500.
int step(Chan* c, const std::string& line, std::string& reason) {
    return send_cmd(c, line, reason) && doread_get_smtp_response(c, reason);
}

bool offers_starttls(const std::string& ehlo_text) {
    // Lines are "250-WORD ..." joined by blanks; the keyword follows the code.
    for (size_t at = 0; (at = ehlo_text.find("STARTTLS", at)) != std::string::npos; at += 8) {
        if (at >= 4 && (ehlo_text[at - 1] == '-' || ehlo_text[at - 1] == ' ') &&
            (at + 8 == ehlo_text.size() || ehlo_text[at + 8] == ' '))
            return true;
    }
    return false;
}

// EHLO, falling back to HELO for a relay that does not know it; STARTTLS
// when the relay offers it. 1 on success.
int say_hello(Chan* c, const char* identity, std::string& reason) {
    const std::string ehlo = strfmt("EHLO %s%s", identity, kSmtpCR);
    if (!send_cmd(c, ehlo, reason)) return 0;
    std::string caps;
    int code = read_any(c, caps, reason);
    if (code < 0) return 0;
    if (code >= 500) return step(c, strfmt("HELO %s%s", identity, kSmtpCR), reason);
    if (!offers_starttls(caps)) return 1;
    if (!step(c, strfmt("STARTTLS%s", kSmtpCR), reason)) return 0;
    c->bfbytes = 0;  // nothing sent in clear before the handshake may count after it
    std::string why;
    if (!tcp_ssl_init(c, 0, nullptr, why)) {
        set_reason(reason, strfmt("Emailing: Error during report (tls | %s)", one_line(why).c_str()));
        emsg("Emailing: %s", reason.c_str());
        return 0;
    }
    return step(c, ehlo, reason);
}

bool address_ok(const char* a) {
    for (const char* p = a; *p; ++p)
        if (static_cast<unsigned char>(*p) < 32 || *p == '<' || *p == '>' || *p == 127) return false;
    return true;
}

}  // namespace

void smtp_set_wait_ms(int ms) { g_wait_ms.store(ms); }

int smtp_write(Chan* c, std::string_view text) {
    if (text.empty()) return 1;
    int n = tcp_write_timed(c, text.data(), static_cast<int>(text.size()), g_wait_ms.load());
    return n == static_cast<int>(text.size()) ? 1 : 0;
}

int smtp_body_line(Chan* c, std::string_view line, const char* emailCR) {
    std::string out;
    out.reserve(line.size() + 4);
    if (!line.empty() && line.front() == '.') out += '.';
    out.append(line);
    out += emailCR;
    return smtp_write(c, out);
}

int doread_get_smtp_response(Chan* c, std::string& reason) {
    std::string text;
    int code = read_any(c, text, reason);
    if (code < 0) return 0;
    if (code < 500) return 1;
    set_reason(reason, strfmt("Emailing: Error during report (%s | %s)", kProtocolWords, text.c_str()));
    emsg("Emailing: %s", reason.c_str());
    smtp_write(c, "QUIT\r\n");
    return 0;
}

std::string smtp_date_header(time_t event, const char* emailCR) {
    tm g{}, l{};
    if (!safe_gmtime(&event, &g) || !safe_localtime(&event, &l)) return strfmt("Date: %s", emailCR);
    tm g2 = g;
    g2.tm_isdst = l.tm_isdst;  // the same daylight rule for both, so that only the zone differs
    tm l2 = l;
    long offset = static_cast<long>(difftime(mktime(&l2), mktime(&g2)));
    char sign = offset < 0 ? '-' : '+';
    if (offset < 0) offset = -offset;
    return strfmt("Date: %s, %d %s %d %02d:%02d:%02d %c%02ld%02ld%s", sdays[l.tm_wday], l.tm_mday, months[l.tm_mon],
                  l.tm_year + 1900, l.tm_hour, l.tm_min, l.tm_sec, sign, offset / 3600, (offset % 3600) / 60,
                  emailCR);
}

int do_standard_date_header(Chan* c, time_t event, void* /*unused*/, const char* emailCR) {
    return smtp_write(c, smtp_date_header(event, emailCR));
}

int schedule_email(int /*regularity*/, const char* /*reason_for_email*/, const char* /*description*/) { return 1; }

int send_email(const char* smtpServer, const char* lcl_identity, const char* From, const char* To, time_t event,
               void* data, SmtpWriteFn do_headers, SmtpWriteFn do_body, std::string& reason) {
    const char* emailCR = kSmtpCR;
    std::string host = smtpServer != nullptr ? smtpServer : "";
    int port = kSmtpPort;
    if (size_t colon = host.find(':'); colon != std::string::npos) {
        port = atoi(host.c_str() + colon + 1);
        host.resize(colon);
        if (port <= 0 || port > 65535) port = kSmtpPort;
    }
    if (!address_ok(From) || !address_ok(To)) {
        set_reason(reason, "Emailing: Failure: an address holds a control character or an angle bracket.");
        emsg("Emailing: %s", reason.c_str());
        return 0;
    }
    ChanPtr c = tcp_new_owned();
    if (host.empty() || !tcp_open(c.get(), host.c_str(), static_cast<unsigned short>(port))) {
        imsg("Emailing: SMTP email server (%s) did not respond.", host.c_str());
        set_reason(reason, strfmt("Emailing: Failure: SMTP email server (%s) did not respond. - Global setting "
                                  "\"SMTP\"",
                                  host.c_str()));
        return 0;
    }
    Chan* ch = c.get();
    if (!doread_get_smtp_response(ch, reason)) return 0;  // the greeting
    if (!say_hello(ch, lcl_identity != nullptr && *lcl_identity ? lcl_identity : "korvane", reason)) return 0;
    if (!step(ch, strfmt("MAIL FROM:<%s>%s", From, emailCR), reason)) return 0;
    if (!step(ch, strfmt("RCPT TO:<%s>%s", To, emailCR), reason)) return 0;
    if (!step(ch, strfmt("DATA%s", emailCR), reason)) return 0;
    if ((do_headers != nullptr && !do_headers(ch, event, data, emailCR)) || !smtp_write(ch, emailCR) ||
        (do_body != nullptr && !do_body(ch, event, data, emailCR))) {
        tcp_problem(ch, reason);
        return 0;
    }
    if (!step(ch, "\r\n.\r\n", reason)) return 0;
    // The message is accepted; a relay that drops the line at QUIT changes nothing.
    std::string ignored;
    if (send_cmd(ch, strfmt("QUIT%s", emailCR), ignored)) {
        std::string text;
        read_reply(ch, text);
    }
    set_reason(reason, "Emailing: Report successfully sent to smtp server.");
    return 1;
}

}  // namespace korv
