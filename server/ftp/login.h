// The login sequence: USER and PASS, with every check between a proven
// password and the final 230 in its fixed order (throttles, account status,
// /etc/ftpusers, class, session limits, umask, TLS per class, the acting user,
// home directory, banner), the home creation with the new-user program, and
// the table of a user's aliases that a banner may show.
#pragma once

#include <string>

namespace korv {

struct LINK;

// Visible cuts and limits of the login replies and texts.
inline constexpr int kLoginNameMax = 999;        // a login name as the session keeps it
inline constexpr int kAnonEmailMax = 100;        // an anonymous password kept as the address
inline constexpr int kSslWordMax = 100;          // the ssl and global_ssl words are read this far
inline constexpr int kBannerMax = 4999;          // a decoded banner is cut here
inline constexpr int kFtpusersLineMax = 999;     // a line of /etc/ftpusers
inline constexpr int kLoginFailsDefault = 5;     // loginfails when the setting is 0
inline constexpr int kIdleDefaultLoginMinutes = 10;  // idle limit of a class without limit_time
inline constexpr int kAliasShowWidth = 18;       // the alias column of the alias table
inline constexpr int kRealShowWidth = 30;        // the real path column

// Deliberate delays before a refusal, so that guessing passwords is slow.
inline constexpr int kDelayThrottleMs = 5000;    // too many failures, /etc/ftpusers
inline constexpr int kDelayFailMs = 2000;        // wrong password, class, limits
inline constexpr int kDelayStatusMs = 1000;      // refused account status
inline constexpr int kModuleRetryMs = 300;       // between attempts while a module is failing
inline constexpr int kModuleRetryMax = 5;        // attempts while a module is failing
inline constexpr int kModuleRetrySecs = 4;       // ... and no new attempt after this long
inline constexpr int kNewUserProgramPolls = 30;  // one-second waits for the new-user program

// The start of a module's answer when the module itself failed.
inline constexpr const char* kExternalFailed = "-ERR External process failed";
inline constexpr const char* kFtpusersPath = "/etc/ftpusers";

int cmd_user(LINK* l, char** p, int np, const char* orig);
// p[1] is the whole rest of the line.
int cmd_pass(LINK* l, char** p, int np, const char* orig);

// 1 if a line of /etc/ftpusers equals `user`; 0 also when it cannot be read.
int isin_ftpusers(const char* user);
// The same over any file.
int isin_ftpusers_file(const char* path, const char* user);
// 1 if `s` holds an "@" and a "." and does not begin with "@".
int cmd_email_ok(LINK* l, const char* s);
// Sends the table of the session's aliases as 230- lines. Returns 1.
int cmd_show_paths(LINK* l);
// Sends the banner (or the default text) ending with the final 230. Returns 1.
int cmd_login_banner(LINK* l, const char* extra_msg);
// Makes the session's home directory (l->vcwd, the empty virtual path) with
// its parents, then runs the class's new_user_program for a new home. 1, or 0
// with `reason` set.
int cmd_create_home(LINK* l, const char* real_home, std::string& reason);
// Runs `script` with the user's details and waits up to 30 seconds for it.
// 1 when it ended (or could not start), 0 when it is still running.
int run_new_user_program(LINK* l, const char* script, const char* username, const char* hashedusername,
                         const char* domainname, const char* classname, const char* ftploginhome);

// After a login: takes the limit from the user token or the class's
// quota_default, and with a limit reads (or rebuilds) the count and tells the
// client "230-Quota Used ..." or "230-Quota Exceeded ...".
void cmd_quota_init(LINK* l);

}  // namespace korv
