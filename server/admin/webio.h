// The HTTP layer of the web administration: one record per admin connection
// (WINK) holding the decoded request head, query string and posted form; Basic
// authentication against admin.dat with the process-wide guess back-off; and
// the response heads, redirects and static files.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/lists.h"

namespace korv {

struct chan;
using Chan = chan;
struct LINK;

// Bounds a user or a file can see, kept exactly.
inline constexpr int kWebHeadFirst = 1000;       // first size of the input buffer
inline constexpr int kWebHeadMax = 32000;        // every later size: the largest request head
inline constexpr int kWebContentMax = 30000000;  // largest Content-Length taken
inline constexpr int kWebQueryNameMax = 200;     // query and form item names
inline constexpr int kWebQueryValueMax = 1000;   // query item values (form values are unbounded)
inline constexpr int kWebHeaderTextMax = 100;    // Content-Type, User-Agent kept
inline constexpr int kWebBodyReadMs = 6000;      // each read of a request body
inline constexpr int kWebGuessLock = 30;         // past this many differing wrong passwords nobody gets in
inline constexpr int kAdminDatLineMax = 1000;    // admin.dat is read with this line limit

// One template variable of a request.
struct VLIST {
    std::string var;
    std::string val;
    std::unique_ptr<VLIST> next;
    ~VLIST();  // iterative, like the other lists
};
using Vlist = VLIST;
using VlistPtr = std::unique_ptr<VLIST>;

// One admin connection's request. Made by wink_new, owned by the connection's
// thread (mgr_main) for the life of the connection.
struct WINK {
    Chan* c = nullptr;            // the connection (owned by the LINK)
    VlistPtr vlist;               // template variables
    std::string inbf;             // input buffer; inbf.size() is inmax
    int inlen = 0;                // bytes held
    int inupto = 0;               // first byte not yet consumed
    int inmax = 0;                // size of inbf
    int indata = 0;
    int contentlen = 0;           // Content-Length
    WordlistPtr head;             // every header line received, in order, the empty one included
    std::unique_ptr<std::string> tpl;  // list body being collected by the template engine
    PairPtr query;                // decoded query string
    PairPtr form;                 // decoded form body
    PairPtr headers;              // extra response headers (web_add_header)
    int wwwget = 0;               // 1 for every method but POST
    std::string ref;              // request target as received, query included
    std::string mod;              // If-Modified-Since text
    std::string cgi;              // request target up to the '?'
    int gotwebauth = 0;           // 1 once this request presented the right user and password
    int keepalive = 0;
    std::string contenttype;      // at most kWebHeaderTextMax characters
    std::string agent;            // at most kWebHeaderTextMax characters
    std::string hostname = "localhost";
    int hostport = -1;
    std::string origin;           // Origin header, empty when none came
    std::string referer;          // Referer header, empty when none came
    std::string client_ip;        // numeric address of the client, set by mgr_main
    std::string auth_user;        // the admin user name presented, for logs (never the password)
    LINK* p1 = nullptr;           // the owning LINK; argument of the page callbacks
    std::string* sink = nullptr;  // when set, pages render into it instead of the connection
    // Template skip state, per request (the engine never shares it between requests).
    int ifskip = 0;
    int nif = 0;
    int ifin = 0;
};
using Wink = WINK;
using WinkPtr = std::unique_ptr<WINK>;

WinkPtr wink_new();
void wink_free(WinkPtr& w);
// Grows inbf: to kWebHeadFirst when empty, to kWebHeadMax after. 1, or 0 when
// it cannot grow further.
int wink_growin(WINK* l);

// Request decoding. `bf` holds the head (and maybe body bytes after it).
int web_decode_head(WINK* l, char* bf, int* upto, int* nrest);
int web_read_content(WINK* l, char* bf, int* upto, int* nrest);
void web_decode_content(WINK* l, const char* bf);
void web_decode_ref(WINK* l, const char* ref);
void web_getword(char* word, char* line, char stop);
void web_plustospace(char* str);
void web_unescape_url(char* url, int max);
char x2c(const char* what);

// Inputs: the query value if not empty, else the form value, else "".
std::string web_input(const WINK* l, std::string_view var);
std::string web_inputn(const WINK* l, std::string_view var, int n);
WordlistPtr web_input_prefix(const WINK* l, std::string_view prefix);
WordlistPtr web_input_suffix(const WINK* l, std::string_view suffix);
const char* web_input_true(std::string_view val);
int web_pressed(const WINK* l, std::string_view s);

// A state-changing request (POST) whose Origin (or, without one, Referer)
// names another host and port than Host: 1 if it may go on, 0 if refused.
int web_same_origin(const WINK* l);
// Writes the 403 refusal of a cross-site request. 1, or 0 if a write failed.
int web_forbidden(WINK* l);
// 0 for a form value that may not be stored: one holding a double quote, a
// CR, a LF or a NUL; else 1.
int web_value_safe(std::string_view v);

// Responses. Each head carries the security headers after the listed ones.
void web_add_header(WINK* l, std::string_view header, std::string_view value);
int web_http_header(WINK* l);
int web_redirect(WINK* l, const char* url);
int web_needauth(WINK* l, const char* program_name);
void web_modified(WINK* l, const char* dte);
int web_showimage(WINK* l, const char* fname);
int web_show_file(WINK* l, const char* fname, const char* path);
// HTML escape of `s` ('<' '>' '&' '"' '\''), whole, never cut.
std::string web_encode(std::string_view s);
std::string wcode(std::string_view in);
const char* lib_guess_content(std::string_view name);

// Admin passwords and the guess back-off (process-wide).
int web_check_pass(WINK* l, const char* user, const char* pass);
int allow_login_attempt_to_take_place();
int secs_before_loging_in_again();
void bad_login();
int web_nguesses();
std::string web_guess_ip();
void web_guess_reset();  // a restart's clean state, for tests
// Writes `dir`/admin.dat (mode 0600) holding `user` and a SHA-512 crypt hash
// of `password` with a random salt. 1, or 0 with `reason`.
int admin_dat_write(const char* dir, const char* user, const char* password, std::string& reason);

}  // namespace korv
