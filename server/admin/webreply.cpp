// The response side of an admin connection: the heads of pages, redirects,
// the 401 and 403 answers, static files from the web directory, and the
// escapes and content types they use.
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/dates.h"
#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "net/tcp.h"
#include "server/admin/webio.h"
#include "server/process/control.h"

namespace korv {

namespace {

constexpr int kRealmHostMax = 998;
constexpr int kFileReadPiece = 999;
constexpr int kShowNameMax = 200;  // each half of "%.200s/%.200s"

// Closing every head, after the lines each answer lists: no framing by other
// sites, and no copy kept of pages that hold settings and logs.
constexpr char kSecurityLines[] =
    "X-Frame-Options: DENY\r\n"
    "Content-Security-Policy: frame-ancestors 'none'\r\n"
    "Cache-Control: no-store\r\n";

constexpr char kForbiddenPage[] =
    "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>Korvane - Forbidden</title></head>\r\n"
    "<body><h1>Forbidden</h1><p>This change came from a page of another site and was not made.</p></body></html>\r\n";

struct FileClose {
    void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

std::string realm_host() {
    char host[kRealmHostMax + 1] = {};
    MutexHold hold(MUTEX_WEB);
    if (tcp_hostname(host, sizeof host) == nullptr) return "localhost";
    return host;
}

std::string web_date_now() {
    char bf[100];
    return lib_web_date(bf);
}

// A header text with its line ends made blanks, so that no value can add a
// line of its own.
std::string one_line(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        if (c == '\r' || c == '\n' || c == 0) c = ' ';
    return out;
}

int send_all(WINK* l, const std::string& bytes) {
    if (l->c == nullptr) return 0;
    return tcp_write(l->c, bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size()) ? 1 : 0;
}

// The lines of a page head after the status line. `location`, when given,
// stands between the realm and the date.
std::string page_head_lines(const WINK* l, const char* location) {
    std::string h = "Server: KorvManager\r\nMIME-version: 1.0\r\n";
    strfmt_append(h, "WWW-Authenticate: Basic realm=\"%s.%s\"\r\n", "korvane", realm_host().c_str());
    if (location != nullptr) strfmt_append(h, "Location: %s\r\n", one_line(location).c_str());
    strfmt_append(h, "Date: %.200s\r\n", web_date_now().c_str());
    h += "Content-type: text/html\r\n";
    for (const Pair* p = l->headers.get(); p != nullptr; p = p->next.get())
        strfmt_append(h, "%s: %s\r\n", one_line(p->var).c_str(), one_line(p->val).c_str());
    h += kSecurityLines;
    h += "\r\n";
    return h;
}

// %XX resolved as web_unescape_url does, but a %00 stays in the result as a
// NUL, so that it can be refused rather than cut the name.
std::string percent_decode(std::string_view in) {
    std::string out;
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] == '%' && i + 2 < in.size()) {
            out += x2c(in.data() + i + 1);
            i += 2;
        } else {
            out += in[i];
        }
    }
    return out;
}

std::string home_file(const char* name) {
    const char* home = korv_home();
    return home != nullptr && *home ? strfmt("%s/%s", home, name) : std::string(name);
}

}  // namespace

void web_add_header(WINK* l, std::string_view header, std::string_view value) {
    pair_add(l->headers, header, value, 1);
}

int web_http_header(WINK* l) { return send_all(l, "HTTP/1.0 200 OK\r\n" + page_head_lines(l, nullptr)); }

int web_redirect(WINK* l, const char* url) {
    return send_all(l, "HTTP/1.0 302 Object moved\r\n" + page_head_lines(l, url != nullptr ? url : ""));
}

int web_forbidden(WINK* l) {
    return send_all(l, "HTTP/1.0 403 Forbidden\r\n" + page_head_lines(l, nullptr) + kForbiddenPage);
}

int web_needauth(WINK* l, const char* program_name) {
    const char* prog = program_name != nullptr ? program_name : "korvane";
    std::string body;
    int length = 0;
    std::string custom = home_file("needauth.htm");
    struct stat st {};
    FilePtr f(stat(custom.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? std::fopen(custom.c_str(), "rb") : nullptr);
    if (f) {
        length = static_cast<int>(std::min<off_t>(st.st_size, INT_MAX));
        std::string text;
        char bf[4096];
        size_t n;
        while ((n = std::fread(bf, 1, sizeof bf, f.get())) > 0) text.append(bf, n);
        size_t at = 0;
        while (at < text.size()) {
            size_t end = text.find('\n', at);
            if (end == std::string::npos) end = text.size();
            std::string_view line(text.data() + at, end - at);
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            body.append(line);
            body += "\r\n";
            at = end + 1;
        }
    } else {
        // The built-in page: the announced length is the plain sum of the
        // pieces, while each goes out with a blank added.
        const char* const pieces[] = {
            "<HTML>\r\n<HEAD></HEAD>\r\n<BODY>\r\n",
            "<H3>Welcome to ",
            prog,
            " Manager CGI, to set the password create a SHELL/DOS prompt and type in:<BR><BR>\r\n",
            "<PRE>  ",
            prog,
            " -password<BR></PRE></H3>\r\n",
            "<P>If you do not get the login username/Password prompt, in IE go to Menu Tools, ",
            "Security, click Internet Icon, click \"Custom level\" Scroll to bottom of list, ",
            "User Authentication - Logon - Choose \"Prompt for user name and password\", click on Ok's.</P>\r\n",
            "</BODY></HTML>\r\n",
        };
        for (size_t i = 0; i < std::size(pieces); ++i) {
            length += static_cast<int>(std::strlen(pieces[i]));
            bool name_piece = i == 2 || i == 5;
            strfmt_append(body, name_piece ? "%s \r\n" : " %s", pieces[i]);
        }
    }
    std::string h = "HTTP/1.0 401 Unauthorized\r\nServer: KorvManager\r\nMIME-version: 1.0\r\nContent-type: text/html\r\n";
    strfmt_append(h, "Content-Length: %d\r\n", length);
    strfmt_append(h, "WWW-Authenticate: Basic realm=\"%s.%.200s\"\r\n", "korvane", realm_host().c_str());
    strfmt_append(h, "Date: %.200s\r\n", web_date_now().c_str());
    h += kSecurityLines;
    h += "\r\n";
    return send_all(l, h + body);
}

void web_modified(WINK* l, const char* dte) { l->mod = dte != nullptr ? dte : ""; }

int web_showimage(WINK* l, const char* fname) {
    FilePtr f(std::fopen(fname, "rb"));
    if (!f) {
        int err = errno;
        send_all(l, strfmt("HTTP/1.0 550 Sorry,cannot show template\r\n\r\nCant Show template (%.200s) - %s\r\n", fname,
                           std::strerror(err)));
        return 1;
    }
    struct stat st {};
    fstat(fileno(f.get()), &st);
    if (!l->mod.empty() && st.st_mtime <= web_date_get(l->mod.c_str())) {
        std::string h = "HTTP/1.0 304 Not modified\r\nServer: KorvManager\r\nMIME-version: 1.0\r\n";
        strfmt_append(h, "Date: %.200s\r\n", web_date_now().c_str());
        h += kSecurityLines;
        h += "\r\n";
        send_all(l, h);
        imsg("Sending HTTP/1.0 304 Not modified\n");
        return 1;
    }
    int size = static_cast<int>(std::min<off_t>(st.st_size, INT_MAX));
    std::string h = "HTTP/1.0 200 OK\r\nServer: KorvManager\r\nMIME-version: 1.0\r\n";
    strfmt_append(h, "WWW-Authenticate: Basic realm=\"%s.%.200s\"\r\n", "korvane", realm_host().c_str());
    strfmt_append(h, "Date: %.200s\r\n", web_date_now().c_str());
    strfmt_append(h, "Last-modified: %.200s\r\n", lib_web_date2(st.st_mtime).c_str());
    strfmt_append(h, "Content-type: %.200s\r\n", lib_guess_content(fname));
    strfmt_append(h, "Content-Length: %d\r\n", size);
    h += kSecurityLines;
    h += "\r\n";
    if (!send_all(l, h)) return 1;
    char bf[kFileReadPiece];
    int total = 0;
    size_t n;
    while ((n = std::fread(bf, 1, sizeof bf, f.get())) > 0) {
        int w = tcp_write(l->c, bf, static_cast<int>(n));
        if (w != static_cast<int>(n)) {
            web_log("tcp_write failed %d/%d %.200s\n", w, static_cast<int>(n), fname);
            break;
        }
        total += w;
    }
    if (total != size) web_log("ERROR Sending HTTP/1.0 200 OK len %d/%d\n", total, size);
    return 1;
}

int web_show_file(WINK* l, const char* fname, const char* path) {
    // The name is judged as the file system will see it: percent escapes
    // resolved first, so that %2e%2e is caught like "..".
    std::string name = percent_decode(fname != nullptr ? fname : "");
    if (name.empty() || name.find('\0') != std::string::npos || name.find("..") != std::string::npos ||
        name.front() == '/' || name.find('\\') != std::string::npos || name.size() > static_cast<size_t>(kShowNameMax) ||
        std::strlen(path) > static_cast<size_t>(kShowNameMax)) {
        web_log("Refused web file (%.200s)\n", log_escape(fname != nullptr ? fname : "").c_str());
        return 0;
    }
    std::string full = strfmt("%.200s/%.200s", path, name.c_str());
    // Links inside the web directory may point anywhere inside it, never out.
    char dir_real[PATH_MAX], file_real[PATH_MAX];
    if (realpath(path, dir_real) == nullptr) return 0;
    if (realpath(full.c_str(), file_real) == nullptr) {
        if (errno != ENOENT) return 0;
        // Nothing of that name: the usual answer for a missing file.
        return web_showimage(l, full.c_str());
    }
    std::string_view inside(file_real), root(dir_real);
    if (inside.size() <= root.size() || inside.substr(0, root.size()) != root ||
        (root != "/" && inside[root.size()] != '/')) {
        web_log("Refused web file outside %.200s (%.200s)\n", path, log_escape(name).c_str());
        return 0;
    }
    struct stat st {};
    if (stat(file_real, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    return web_showimage(l, file_real);
}

std::string web_encode(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (char c : s) {
        switch (c) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&#34;"; break;
        case '\'': out += "&#39;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string wcode(std::string_view in) {
    std::string out(in);
    for (char& c : out)
        if (c == '\\') c = '/';
    return out;
}

const char* lib_guess_content(std::string_view name) {
    std::string lower(name);
    for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    struct Type {
        const char* ext;
        const char* type;
    };
    static const Type kTypes[] = {
        {".jpg", "image/JPEG"}, {".jpeg", "image/JPEG"}, {".gif", "image/GIF"},
        {".png", "image/PNG"}, {".htm", "text/HTML"}, {".txt", "text/plain"},
        {".wml", "text/vnd.wap.wml"}, {".wap", "text/vnd.wap.wml"}, {".exe", "application/octet-stream"},
        {".doc", "application/octet-stream"}, {".xls", "application/octet-stream"}, {".com", "application/octet-stream"},
        {".zip", "application/x-zip-compressed"},
        // The stylesheet and drawings of the pages: browsers apply a
        // stylesheet only under its own type.
        {".css", "text/css"}, {".svg", "image/svg+xml"},
    };
    for (const Type& t : kTypes)
        if (lower.find(t.ext) != std::string::npos) return t.type;
    return "application/octet-stream";
}

}  // namespace korv
