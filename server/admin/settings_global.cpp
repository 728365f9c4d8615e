// The global settings page: shows every global setting of the first domain's
// table and saves the form back, line by line, applying at once what the
// running server can change (log level and home, module, ciphers, client
// certificates, thread reuse, anonymous throttle); ports wait for a restart.
#include <strings.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/hammer.h"
#include "net/tls.h"
#include "server/admin/settings_pages.h"
#include "server/admin/webadmin.h"
#include "server/auth/auth_setups.h"
#include "server/ftp/plog.h"
#include "server/process/control.h"
#include "server/session/threadlist.h"
#include "server/settings/ini.h"

namespace korv {

namespace {

// What the page shows and the save writes, in the order it writes them.
constexpr const char* kGlobalSettings[] = {
    "log_level", "log_home", "log_dayly_roll", "log_cmd_size", "authent_process", "authent_cmdopts",
    "authent_number", "global_noquota", "global_nochmod", "global_utf8", "authent_nocache", "authent_domain",
    "no_suffix_default_domain", "global_strip_user_domain", "global_smtp", "global_ssl", "global_ssl_cipher_list",
    "global_ssl_require_client_certificate", "global_logon_mode", "global_log_host", "global_implicit_port",
    "global_style", "global_bind", "global_passive_ip", "global_passive_match", "global_adminip",
    "global_watcher_program_ul", "global_watcher_program_dl", "global_anon_hammer_active",
    "global_anon_hammer_over_time", "global_anon_hammer_max", "global_anon_hammer_block_time", "global_con_perip",
    "global_total_users", "global_port", "global_mgr_port", "global_noclass", "global_mgr_ssl_port",
    "global_lookup_names", "global_only_unix", "global_restart", "global_nosymlink", "global_thread_reuse",
    "global_log_flush", "unix_list", "global_ssl_disable_sslv2", "global_ssl_disable_tlsv1",
    // Kept by the page as well, so that every global setting has a field.
    "global_login_error", "global_nfs_impersonate", "global_nt_domain",
};

constexpr char kDefaultModule[] = "omauth";

const char* global_text(const char* name) {
    int x = vini_find_name(name);
    return x < 0 ? "" : vini_get(nullptr, x);
}

bool is_true(const std::string& s) { return strcasecmp(s.c_str(), "true") == 0; }

void set_global(const std::string& line) { vini_set(0, -1, -1, line.c_str()); }

// Moves the main log when its directory changed.
void apply_log_home(const std::string& value) {
    const char* now = korv_log_home();
    if (value == (now != nullptr ? now : "")) return;
    korv_set_log_home(value.c_str());
    if (!value.empty()) mkdir(value.c_str(), 0755);
    std::string logpath;
    const char* home = korv_home();
    get_log_file_path(logpath,
                      strfmt("%.500s/%.200s", home != nullptr ? home : ".", bin_file(".log").c_str()).c_str());
    emsg_flush();
    emsg_open(logpath.c_str());
}

void apply_module() {
    std::string process = global_text("authent_process");
    std::string opts = global_text("authent_cmdopts");
    imsg("global_save: multi_auth_apply process (%s)\n", process.c_str());
    // A bare module name means the default module.
    if (process.find_first_of("/\\") == std::string::npos) {
        process.clear();
        opts.clear();
    }
    imsg("global_save: multi_auth_apply process now (%s)\n", process.c_str());
    multi_auth_apply("", process.c_str(), opts.c_str(), 1);
}

// The effect of one saved setting on the running server, besides its value.
void apply_effect(const std::string& name, const std::string& value) {
    if (name == "log_level") {
        emsg_setlvl(value.c_str());
    } else if (name == "log_home") {
        apply_log_home(value);
    } else if (name == "log_dayly_roll") {
        emsg_setautoroll(is_true(global_text("log_dayly_roll")) ? 0 : 1);
    } else if (name == "authent_cmdopts") {
        apply_module();
    } else if (name == "authent_domain") {
        user_set_authent_domain(0, is_true(value) ? 1 : 0);
    } else if (name == "global_ssl_cipher_list") {
        korvane_set_cipher_list(value.c_str());
    } else if (name == "global_ssl_require_client_certificate") {
        korvane_set_require_client_certificates(value == "true" ? 1 : 0);
    } else if (name == "global_anon_hammer_block_time") {
        anon_hammering_set_default_values(atoi(global_text("global_anon_hammer_over_time")),
                                          atoi(global_text("global_anon_hammer_max")),
                                          atoi(global_text("global_anon_hammer_block_time")));
    } else if (name == "global_thread_reuse") {
        int want = is_true(value) ? 1 : 0;
        if (want != ftp_is_reuse()) {
            ftp_set_reuse(want);
            dmsg(want ? "Thread: set reuse TRUE\n" : "Thread: set reuse FALSE\n");
        }
    }
}

void save_one(WINK* w, const char* name) {
    std::string value = web_input(w, name);
    if (strcmp(name, "no_suffix_default_domain") == 0) {
        bool on = !value.empty();
        set_global(strfmt("%s \"%s\"", name, on ? "TRUE" : "FALSE"));
        std::string first = admin_domain_name(0);
        user_set_strip(on ? first.c_str() : "");
        return;
    }
    set_global(strfmt("%s \"%s\"", name, value.c_str()));
    apply_effect(name, value);
}

// The page's variables from the live tables (call under the store's lock).
void global_vars(WINK* w) {
    for (const char* name : kGlobalSettings) web_var_add(w, name, global_text(name));
    web_var_add(w, "home", global_text("home"));
    web_var_add(w, "domain", admin_domain_name(0));
    const std::string process = global_text("authent_process");
    bool is_default = process.empty() || process.find(kDefaultModule) != std::string::npos;
    web_var_add(w, "authent_name", is_default ? "Ombrix Authent Module" : "");
    const char* home = korv_home();
    web_var_add(w, "omauth_exe", strfmt("%s/%s", home != nullptr && *home ? home : ".", kDefaultModule));
}

}  // namespace

int mgr_cmd_global(WINK* w) {
    std::string page;
    vini_lock();
    global_vars(w);
    web_showfile_to(w, "global.htm", settings_mappings, page);
    vini_unlock();
    return settings_send(w, page);
}

int mgr_cmd_global_save(WINK* w) {
    web_var_add(w, "global_pressed", "_glow");
    std::string bad = settings_bad_field(w);
    if (!bad.empty()) {
        imsg("mgr: global_save refused, field %.100s\n", bad.c_str());
        web_var_add(w, "form_error", settings_refusal(bad));
        web_var_add(w, "form_error_field", bad);
        return mgr_cmd_global(w);
    }
    std::string page;
    vini_lock_all_x(__FILE__, __LINE__);
    imsg("mgr: global_save\n");
    for (const char* name : kGlobalSettings) save_one(w, name);
    vini_write();
    int flush = vini_global_istrue(INI_GLOBAL_LOG_FLUSH);
    emsg_setflush(flush);
    set_fx_log_flush(flush);
    global_vars(w);
    web_var_add(w, "domainid", "0");
    web_showfile_to(w, "global.htm", settings_mappings, page);
    vini_unlock_all();
    imsg("mgr: global_save_finished\n");
    return settings_send(w, page);
}

}  // namespace korv
