// The session record LINK and the table of live sessions: creation, release of
// everything a session owns, the counters, and the counts the admission checks
// and the status page read.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/threads.h"
#include "net/tcp.h"
#include "server/auth/user.h"
#include "server/session/factset.h"
#include "server/session/linebuf.h"
#include "server/settings/ini.h"

namespace korv {

constexpr int kLinkStateMax = 999;  // the activity text is cut here

// One FTP session. Fields follow the order of the session table; the settings
// handle, `isanon`, the client's name and number, the local address and the
// login name sit in the base INILINK. The record belongs to the session's
// thread; other threads touch only `closing` (atomic) and `state` (through
// link_state_get/link_state_set).
struct LINK : INILINK {
    int get_accept = 0;             // time of acceptance
    ChanPtr c;                      // control channel
    ChanPtr listen;                 // passive listening socket
    ChanPtr cdata;                  // data channel
    unsigned short lclport = 0;     // source port of active data connections (control port - 1)
    unsigned short port = 0;        // client's data port
    long tick_start = 0;            // milliseconds at creation
    UtokenPtr utoken;               // the logged-in user
    Thread* th = nullptr;           // the session's thread; the thread registry owns it
    LineBuf w;                      // the control-line buffer (the web layer's WINK shares its form)
    FACT facts[kFactSlots];         // the MLST fact selection of this session
    long long dailyquota = 0;
    long long quota = 0;
    long long quota_was = 0;
    long long quota_change = 0;
    long long sent = 0;
    long long restart = 0;          // pending REST offset
    int SSCNisServer = 1;
    int hide = 0;
    int done_abort = 0;
    std::atomic<int> needauth{1};   // closed until a login completes (others count logins by it)
    std::atomic<int> login_claim{0};  // a login past the user check, not yet complete: counts as one
    std::atomic<int> closing{0};    // end the session at the next check
    int cur_umask = 022;
    int onlyepsv = 0;
    int idle_time_start = 0;
    int idle_time_limit = 0;        // minutes
    std::string tmp_virtual;
    std::string tmp_real;
    std::string alias_virtual;
    std::string alias_real;
    std::string useremail;
    std::string vcwd;
    std::string root;
    std::string rnfr;
    std::string to;                 // host of active data connections
    int append = 0;
    int ispassive = 0;
    int last_abort_time = 0;
    int mode = 0;                   // 0 stream, 1 block, 2 compressed
    int isbin = 0;
    int nfails = 0;
    int time_open = 0;
    int ssl_implicit = 0;
    int dirstyle = 0;
    int ssl_data = 0;
    int ssl_con = 0;
    int impersonate = 0;
    LINK* next = nullptr;           // next in link_list

    LINK() = default;
    ~LINK() override;
    std::vector<std::string> ini_usergroups() const override;
    std::string ini_from_ip() const override;

private:
    friend void link_state_set(LINK* l, std::string_view text);
    friend std::string link_state_get(LINK* l);
    mutable std::mutex state_mx_;
    std::string state_ = "Logging in";  // activity text for the status page
};
using Link = LINK;

// The table. Walk it only under MUTEX_LINK.
extern LINK* link_list;

// Makes a record, puts it at the head of the table and counts it. 1, or 0.
int link_new(Link** ll);
// Releases the login, the channels, the settings handle, takes the record out
// of the table and frees it; *ll becomes null. Null is allowed.
void link_free(Link** ll);
void link_remove(Link* l);

int link_peak();
int link_nlinks();
// Sessions in the table with the same client number, login name or class as
// `l`, `l` included.
int link_sameip(Link* l);
int link_sameuser(Link* l);
int link_sameclass(Link* l);
// Asks every session to end.
void link_exit();

// "<home>/<domain>/<fname>" and the same under the log home, with the domain's
// name in lower case ("default" for a domain without one).
std::string& link_file(Link* l, const char* fname, std::string& out);
std::string& link_log_file(Link* l, const char* fname, std::string& out);

// The activity text shown on the status page (cut at kLinkStateMax).
void link_state_set(LINK* l, std::string_view text);
std::string link_state_get(LINK* l);

// One line a session, for the status page.
void link_dump(Chan* out);

}  // namespace korv
