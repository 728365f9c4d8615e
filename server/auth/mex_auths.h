// External authentication modules: one long-running child per authentication setup, spoken to
// with one-line requests ("check", "lookup", "set", "del", "search") over its standard input and
// output. Replies reach exactly the waiter that asked; a waiter sleeps on the module's pipe.
#pragma once

#include <string>
#include <string_view>

namespace korv {

constexpr int kMexRows = 100;             // rows of the module table
constexpr int kMexMaxInit = 99;           // rows that mex_init takes at most
constexpr int kMexReadBuf = 10000;        // a module's read buffer; a line may hold 9998 bytes
constexpr int kMexRequestMax = 700;       // request lines are cut to 699 bytes
constexpr int kMexSearchWildMax = 100;    // "search %.100s"
constexpr int kMexErrText = 100;          // the server's own "-ERR" texts are cut to 99 bytes
constexpr int kMexInitErrText = 1000;     // ... except "mex_init was not called ..."
constexpr int kMexRequestTimeout = 60;    // seconds a module has for a reply
constexpr int kMexAbortWait = 300;        // a waiter past this many seconds crashes the server
constexpr int kMexFieldMax = 999;         // the value of one field="..." that mex_decode gives

// One authentication setup, as the login engine builds them: row 0 is the default, the other
// rows are domains.
struct MULTI_AUTH_SCENARIO {
    std::string domain_name;                  // "" in row 0
    std::string authentication_command;       // whole command line, options included; "" = none
    std::string authentication_command_opts;  // the options as set
    int domain_authentication = 0;            // row 0 only: add "@domain" to user names sent out
    int use_system = 0;                       // row 0 only: the default is the system password files
};
using multi_auth_scenario = MULTI_AUTH_SCENARIO;

// Row states.
enum : int { P_UNSET = 0, P_READY = 1, P_BUSY = 2, P_SPAWN_FAILED = 3 };

using MexMsgFn = int (*)(const char* format, ...);      // imsg / emsg
using MexDataFn = void (*)(void* p1, const char* line);  // gets each "+DATA" line of a reply

// One request in flight: lives in the waiter's frame until `done`. The row that serves it holds a
// pointer to it and fills `result` with each reply line (the final one stays); completion also
// wakes the waiter's own descriptor.
struct MEX_WAIT;
using MexWait = MEX_WAIT;

// Start and stop.
int mex_init(MexMsgFn vimsg, MexMsgFn vemsg, int n, const multi_auth_scenario* scenario);
int mex_startall();
int mex_restart();
int mex_shutdown();
int mex_shutdown_raw(int force);  // force: the crash path, takes no row locks
void mex_crash_shutdown();        // mex_shutdown_raw(1), for mutex_set_crash_hook
int mex_restart_domain(const char* domain, const char* process, int do_default_domain);
int mex_restart_one(int active_id, const char* process);
int mex_reset(int active_id);
int end_external_process(int active_id);

// Requests. Each returns 1 if the final reply line, left in `result`, begins with '+'.
constexpr size_t kMexNameMax = 256;  // the longest user name a request carries

// 1 if `user` can travel as one word of a request line: not empty, at most
// kMexNameMax bytes, no blank, control byte, DEL or "#". The requests below
// refuse any other name (result kMexBadName) without asking the module.
int mex_name_ok(std::string_view user);
inline constexpr const char* kMexBadName = "Invalid user name";

// mex_check sends "check user pass", or "lookup user" for a null `pass`, and also insists that
// the reply names `user` in second place (a reply that does not restarts the module).
int mex_check(const char* domain, const char* user, const char* pass, std::string& result);
int mex_lookup(const char* domain, const char* user, std::string& result);
int mex_set(const char* domain, const char* user, const char* pass, const char* info, std::string& result);
int mex_del(const char* domain, const char* user, std::string& result);
int mex_search(const char* domain, const char* wild, std::string& result, MexDataFn fn, void* p1);

// The layers under the requests: choose a row and send (returns the row), and service rows.
int get_id_next_available_domain(const char* domain);
int mex_poll();  // any thread may call it; the idle loop does

// Takes `field="value"` out of `data`: `result` gets the value (cut to kMexFieldMax bytes), the
// field and the blanks after it leave `data`. 1 if found. The search matches inside longer names.
int mex_decode(std::string& data, std::string_view field, std::string& result);
// Reads one reply line into its parts for mex_check: 1 if the second word equals `user` exactly
// and there are at least three words; `word` gets the second word.
int mex_reply_names_user(std::string_view line, std::string_view user, std::string& word);

// Status.
int mex_n();
int mex_count_external_auth_processes();
int mex_information(std::string& bf);
void mex_setrestart(int x);
// The limit for one reply, normally kMexRequestTimeout; tests shorten it.
void mex_set_request_timeout(int seconds);

}  // namespace korv
