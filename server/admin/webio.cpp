// The request side of an admin connection: the WINK record and its input
// buffer, the request head, the query string and the posted form, and the
// inputs pages read from them.
#include "server/admin/webio.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/fmt.h"
#include "common/emsg.h"
#include "net/tcp.h"
#include "server/admin/webauth.h"

namespace korv {

namespace {

constexpr int kWebHostMax = 999;          // host part of Host:
constexpr int kWebOriginMax = 1000;       // Origin and Referer kept for the same-origin check
constexpr int kWebBodyChunk = 8192;       // each read of a body
constexpr int kWebBodyWhole = 8500;       // a remainder up to this is read at once
constexpr int kFormLogMax = 100;
// Items kept from one query or form: far above any page's fields, and a bound
// on what a body of 30000000 bytes of tiny items can cost before any login.
constexpr int kWebItemsMax = 10000;

// Does `line` start with `prefix`, case ignored?
bool starts_nc(std::string_view line, std::string_view prefix) {
    return line.size() >= prefix.size() && strncasecmp(line.data(), prefix.data(), prefix.size()) == 0;
}

// The text of `line` from column `col`, or "" when the line is shorter.
std::string_view from_col(std::string_view line, size_t col) {
    return col < line.size() ? line.substr(col) : std::string_view();
}

// A decimal at the start of `s` (blanks first allowed), clamped to int.
int decimal(std::string_view s) {
    std::string t(s.substr(0, std::min<size_t>(s.size(), 40)));
    long long v = std::strtoll(t.c_str(), nullptr, 10);
    return static_cast<int>(std::clamp<long long>(v, INT_MIN, INT_MAX));
}

// The Host header: a name and maybe ":port". A bracketed IPv6 address keeps
// its colons.
void decode_host(WINK* l, std::string_view text) {
    size_t colon = std::string_view::npos;
    if (!text.empty() && text.front() == '[') {
        size_t close = text.find(']');
        if (close != std::string_view::npos && close + 1 < text.size() && text[close + 1] == ':') colon = close + 1;
    } else {
        colon = text.find(':');
    }
    std::string_view name = text.substr(0, colon);
    l->hostname.assign(name.substr(0, kWebHostMax));
    if (colon != std::string_view::npos) l->hostport = decimal(text.substr(colon + 1));
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// "scheme://host[:port]/..." into a lower-case host and a port (the scheme's
// own when none is given). False for anything else, "null" included.
bool origin_parts(std::string_view url, std::string& host, int& port, int& scheme_port) {
    size_t sep = url.find("://");
    if (sep == std::string_view::npos) return false;
    std::string_view scheme = url.substr(0, sep);
    if (scheme.size() == 5 && strncasecmp(scheme.data(), "https", 5) == 0) scheme_port = 443;
    else if (scheme.size() == 4 && strncasecmp(scheme.data(), "http", 4) == 0) scheme_port = 80;
    else return false;
    std::string_view rest = url.substr(sep + 3);
    rest = rest.substr(0, rest.find_first_of("/?#"));
    if (rest.find('@') != std::string_view::npos) return false;
    WINK tmp;
    decode_host(&tmp, rest);
    if (tmp.hostname.empty()) return false;
    host = tmp.hostname;
    port = tmp.hostport >= 0 ? tmp.hostport : scheme_port;
    for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return true;
}

// Splits `text` at '&' into name=value items added to `list`. Query values
// are bounded; form values are not.
// '+' to a blank and %XX to its byte over the whole item. A decoded NUL stays
// in the value, so that the pages can refuse it instead of storing a cut text.
void unescape_item(std::string& s) {
    size_t x = 0;
    for (size_t y = 0; y < s.size(); ++x, ++y) {
        char c = s[y];
        if (c == '+') {
            c = ' ';
        } else if (c == '%' && y + 2 < s.size()) {  // a '%' without two bytes after it stays
            c = x2c(s.data() + y + 1);
            y += 2;
        }
        s[x] = c;
    }
    s.resize(x);
}

void decode_items(PairPtr& list, std::string_view text, bool is_query) {
    size_t at = 0;
    int kept = 0;
    while (at <= text.size()) {
        if (kept == kWebItemsMax) {
            emsg("Request items past %d dropped\n", kWebItemsMax);
            break;
        }
        size_t amp = text.find('&', at);
        if (amp == std::string_view::npos) amp = text.size();
        std::string item(text.substr(at, amp - at));
        at = amp + 1;
        unescape_item(item);
        size_t eq = item.find('=');
        if (eq == std::string::npos) continue;
        std::string_view name(item.data(), eq);
        std::string_view value(item.data() + eq + 1, item.size() - eq - 1);
        if (name.size() > static_cast<size_t>(kWebQueryNameMax)) continue;
        if (is_query && value.size() > static_cast<size_t>(kWebQueryValueMax)) continue;
        pair_add(list, name, value, 1);
        ++kept;
    }
}

WordlistPtr names_matching(const Pair* p, std::string_view text, bool prefix) {
    WordlistPtr out;
    for (; p != nullptr; p = p->next.get()) {
        std::string_view n = p->var;
        if (n.size() < text.size()) continue;
        if (prefix ? n.substr(0, text.size()) == text : n.substr(n.size() - text.size()) == text)
            word_add(out, n);
    }
    return out;
}

}  // namespace

VLIST::~VLIST() {
    // Unlinked one by one, so that a long list never deepens the stack.
    VlistPtr n = std::move(next);
    while (n) n = std::move(n->next);
}

WinkPtr wink_new() { return std::make_unique<WINK>(); }

void wink_free(WinkPtr& w) { w.reset(); }

int wink_growin(WINK* l) {
    int want = l->inmax == 0 ? kWebHeadFirst : kWebHeadMax;
    if (want <= l->inmax) return 0;
    l->inbf.resize(static_cast<size_t>(want));
    l->inmax = want;
    return 1;
}

int web_decode_head(WINK* l, char* bf, int* upto, int* nrest) {
    (void)nrest;
    size_t len = upto != nullptr && *upto > 0 ? static_cast<size_t>(*upto) : std::strlen(bf);
    std::string_view head(bf, len);
    size_t eol = head.find('\n');
    std::string_view first = head.substr(0, eol);
    if (!first.empty() && first.back() == '\r') first.remove_suffix(1);

    l->wwwget = 1;
    size_t blank = first.find(' ');
    if (blank == std::string_view::npos) return 0;
    std::string_view method = first.substr(0, blank);
    std::string_view rest = first.substr(blank + 1);
    std::string_view target = rest.substr(0, rest.find(' '));
    if (method == "POST") l->wwwget = 0;
    l->ref.assign(target);
    web_decode_ref(l, l->ref.c_str());

    l->gotwebauth = 0;
    l->hostname = "localhost";
    l->hostport = -1;
    l->contentlen = 0;
    l->keepalive = 0;
    l->mod.clear();
    l->origin.clear();
    l->referer.clear();
    l->auth_user.clear();
    word_free(l->head);

    WordlistPtr* tail = &l->head;
    size_t at = eol == std::string_view::npos ? head.size() : eol + 1;
    while (at < head.size()) {
        size_t end = head.find('\n', at);
        if (end == std::string_view::npos) end = head.size();
        std::string_view line = head.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        // The line as a C string for the helpers that take one; a NUL inside
        // ends it there.
        std::string cline(line);
        line = std::string_view(cline.c_str());

        if (starts_nc(line, "Content-Length:")) l->contentlen = decimal(from_col(line, 16));
        if (starts_nc(line, "Content-Type:"))
            l->contenttype.assign(from_col(line, 14).substr(0, kWebHeaderTextMax));
        if (starts_nc(line, "Authorization:")) web_auth(l, cline.c_str());
        if (starts_nc(line, "If-Modified-Since: ")) web_modified(l, cline.c_str() + 19);
        if (starts_nc(line, "User-Agent: ")) l->agent.assign(from_col(line, 12).substr(0, kWebHeaderTextMax));
        if (starts_nc(line, "Connection: Keep-Alive")) l->keepalive = 1;
        if (starts_nc(line, "Host:")) decode_host(l, from_col(line, 6));
        if (starts_nc(line, "Origin:")) l->origin.assign(trim(from_col(line, 7)).substr(0, kWebOriginMax));
        if (starts_nc(line, "Referer:")) l->referer.assign(trim(from_col(line, 8)).substr(0, kWebOriginMax));

        *tail = std::make_unique<WORDLIST>(line);
        tail = &(*tail)->next;
        if (line.empty()) break;
    }
    return 1;
}

int web_read_content(WINK* l, char* bf, int* upto, int* nrest) {
    if (l->contentlen <= 0) return 1;
    if (l->contentlen > kWebContentMax) {
        emsg("Invalid content length\n");
        pair_free(l->form);
        return 0;
    }
    const size_t want = static_cast<size_t>(l->contentlen);
    std::string body;
    // Grown as bytes come rather than sized by the header: a client that
    // announces much and sends little costs little.
    body.reserve(std::min<size_t>(want, 65536));
    int inhand = std::min(std::max(*nrest, 0), l->contentlen);
    body.append(bf + *upto, static_cast<size_t>(inhand));
    *upto += inhand;
    *nrest -= inhand;
    for (char& ch : l->agent) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));

    char chunk[kWebBodyWhole];
    while (body.size() < want) {
        int missing = static_cast<int>(want - body.size());
        int ask = missing <= kWebBodyWhole ? missing : kWebBodyChunk;
        dmsg("Got %d of %d, read %d more\n", static_cast<int>(body.size()), l->contentlen, ask);
        int n = l->c != nullptr ? tcp_read_timed(l->c, chunk, ask, kWebBodyReadMs) : 0;
        if (n < 1) break;
        body.append(chunk, static_cast<size_t>(n));
    }
    web_decode_content(l, body.c_str());
    return 1;
}

void web_decode_content(WINK* l, const char* bf) {
    pair_free(l->form);
    std::string_view text(bf);
    decode_items(l->form, text, false);
    // Names only: a form may carry passwords, and no log holds one.
    std::string names;
    for (const Pair* p = l->form.get(); p != nullptr && names.size() < kFormLogMax; p = p->next.get()) {
        if (!names.empty()) names += '&';
        names += p->var;
    }
    dmsg("Form content (%.100s)\n", log_escape(names).c_str());
}

void web_decode_ref(WINK* l, const char* ref) {
    std::string_view r(ref);
    size_t q = r.find('?');
    if (q == std::string_view::npos) {
        l->cgi.assign(r);
        return;
    }
    std::string query(r.substr(q + 1));
    l->cgi.assign(r.substr(0, q));
    pair_free(l->query);
    decode_items(l->query, query, true);
}

void web_getword(char* word, char* line, char stop) {
    size_t x = 0;
    for (; line[x] != 0 && line[x] != stop; ++x) word[x] = line[x];
    word[x] = 0;
    if (line[x] != 0) ++x;
    size_t y = 0;
    while ((line[y] = line[x + y]) != 0) ++y;
}

void web_plustospace(char* str) {
    for (; *str != 0; ++str)
        if (*str == '+') *str = ' ';
}

char x2c(const char* what) {
    auto digit = [](char c) {
        return c >= 'A' ? (std::toupper(static_cast<unsigned char>(c)) - '7') : (c - '0');
    };
    return static_cast<char>(digit(what[0]) * 16 + digit(what[1]));
}

void web_unescape_url(char* url, int max) {
    int x = 0, y = 0;
    for (; url[y] != 0 && x < max; ++x, ++y) {
        // A '%' without two bytes after it stays a '%'.
        if (url[y] == '%' && url[y + 1] != 0 && url[y + 2] != 0) {
            url[x] = x2c(url + y + 1);
            y += 2;
        } else {
            url[x] = url[y];
        }
    }
    url[x] = 0;
}

std::string web_input(const WINK* l, std::string_view var) {
    // The whole value, NULs included: a cut value could be stored unnoticed.
    auto find = [var](const Pair* p) -> std::string_view {
        for (; p != nullptr; p = p->next.get())
            if (p->var == var) return p->val;
        return {};
    };
    std::string_view q = find(l->query.get());
    return std::string(q.empty() ? find(l->form.get()) : q);
}

std::string web_inputn(const WINK* l, std::string_view var, int n) {
    return web_input(l, strfmt("%.200s%d", std::string(var).c_str(), n));
}

WordlistPtr web_input_prefix(const WINK* l, std::string_view prefix) {
    WordlistPtr w = names_matching(l->query.get(), prefix, true);
    return w ? std::move(w) : names_matching(l->form.get(), prefix, true);
}

WordlistPtr web_input_suffix(const WINK* l, std::string_view suffix) {
    WordlistPtr w = names_matching(l->query.get(), suffix, false);
    return w ? std::move(w) : names_matching(l->form.get(), suffix, false);
}

const char* web_input_true(std::string_view val) { return val == "true" ? "true" : "false"; }

int web_pressed(const WINK* l, std::string_view s) {
    std::string name(s);
    if (!web_input(l, name).empty()) return 1;
    return web_input(l, strfmt("%.300s.x", name.c_str())).empty() ? 0 : 1;
}

int web_same_origin(const WINK* l) {
    if (l->wwwget) return 1;
    const std::string& from = !l->origin.empty() ? l->origin : l->referer;
    if (from.empty()) return 1;  // old clients and scripts send neither
    std::string host;
    int port = 0, scheme_port = 0;
    if (!origin_parts(from, host, port, scheme_port)) return 0;
    std::string own = l->hostname;
    for (char& c : own) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    int own_port = l->hostport >= 0 ? l->hostport : scheme_port;
    return host == own && port == own_port ? 1 : 0;
}

int web_value_safe(std::string_view v) { return v.find_first_of(std::string_view("\"\r\n\0", 4)) == std::string_view::npos; }

}  // namespace korv
