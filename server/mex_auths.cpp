// External authentication modules: the table of module rows, the request path and the waiters.
#include "server/mex_auths.h"

namespace korv {

struct MEX_WAIT {
    std::string result;
};

int mex_init(MexMsgFn, MexMsgFn, int, const multi_auth_scenario*) { return 1; }
int mex_startall() { return 1; }
int mex_restart() { return 1; }
int mex_shutdown() { return 1; }
int mex_shutdown_raw(int) { return 1; }
void mex_crash_shutdown() {}
int mex_restart_domain(const char*, const char*, int) { return 1; }
int mex_restart_one(int, const char*) { return 1; }
int mex_reset(int) { return 1; }
int end_external_process(int) { return 1; }
int mex_check(const char*, const char*, const char*, std::string& result) {
    result = "-ERR No authent process, use system utilities or define authent_process";
    return 0;
}
int mex_lookup(const char* d, const char* u, std::string& r) { return mex_check(d, u, nullptr, r); }
int mex_set(const char* d, const char* u, const char*, const char*, std::string& r) { return mex_check(d, u, nullptr, r); }
int mex_del(const char* d, const char* u, std::string& r) { return mex_check(d, u, nullptr, r); }
int mex_search(const char* d, const char* w, std::string& r, MexDataFn, void*) { return mex_check(d, w, nullptr, r); }
int get_id_next_available_domain(const char*) { return -1; }
int mex_poll() { return 0; }
int mex_decode(std::string&, std::string_view, std::string& result) {
    result.clear();
    return 0;
}
int mex_reply_names_user(std::string_view, std::string_view, std::string& word) {
    word.clear();
    return 0;
}
int mex_n() { return 0; }
int mex_count_external_auth_processes() { return 0; }
int mex_information(std::string& bf) {
    bf.clear();
    return 1;
}
void mex_setrestart(int) {}
void mex_set_request_timeout(int) {}

}  // namespace korv
