// The domain page: one virtual domain's settings and its classes, the save
// that writes them back (creating the domain for a negative id), the delete,
// and the <option> lists of domains.
#include <strings.h>

#include <cstdlib>
#include <string>

#include "base/fmt.h"
#include "common/emsg.h"
#include "server/admin/settings_pages.h"
#include "server/admin/webadmin.h"
#include "server/auth/auth_setups.h"
#include "server/settings/ini.h"

namespace korv {

namespace {

const char* tbl_p(const INITABLE* t, int code, const char* param) {
    if (t == nullptr || static_cast<size_t>(code) >= t->table.size()) return "";
    return vini_get_p_raw(t->table[static_cast<size_t>(code)].get(), code, param);
}

std::string domain_label(int id, const std::string& name) { return name.empty() ? strfmt("Domain %d", id) : name; }

// The page of `domainid` into `page` (call under the store's lock).
int render_domain(WINK* w, int domainid, std::string& page) {
    vini_testdomains("domain_show");
    web_var_add(w, "domainid", std::to_string(domainid));
    web_var_add(w, "classid", "");
    if (domainid >= 0) {
        IniHandlePtr h = vini_domain_at(domainid) != nullptr ? vini_handle() : nullptr;
        if (!h) {
            web_var_add(w, "server_message", strfmt("There is no domain %d: it may have been deleted.", domainid));
            return web_showfile_to(w, "top.htm", settings_mappings, page);
        }
        vini_switch_table(h.get(), vini_domain_at(domainid));
        std::string name = vini_get_p(h.get(), INI_VDOMAIN, "name");
        web_var_add(w, "domain", name);
        web_var_add(w, "name", name);
        web_var_add(w, "address", vini_get_p(h.get(), INI_VDOMAIN, "address"));
        const std::pair<const char*, int> plain[] = {
            {"deny", INI_DENY},
            {"email", INI_EMAIL},
            {"deny_msg", INI_DENY_MSG},
            {"domain_authent_process", INI_DOMAIN_AUTHENT_PROCESS},
            {"domain_authent_cmdopts", INI_DOMAIN_AUTHENT_CMDOPTS},
            {"domain_authentication_prefix", INI_DOMAIN_AUTHENTICATION_PREFIX},
            {"domain_authentication_suffix", INI_DOMAIN_AUTHENTICATION_SUFFIX},
            {"greetings", INI_GREETINGS},
            {"log_max_age", INI_LOG_MAX_AGE},
        };
        for (const auto& [var, code] : plain) web_var_add(w, var, vini_get(h.get(), code));
        web_var_add(w, "loginfails", strfmt("%d failures", vini_geti(h.get(), INI_LOGINFAILS)));
        std::string check = vini_get(h.get(), INI_PASSWD_CHECK);
        if (check.empty()) check = "none";
        web_var_add(w, "passwd_0", strcasecmp(check.c_str(), "none") == 0 ? "selected" : "");
        web_var_add(w, "passwd_1", strcasecmp(check.c_str(), "warn") == 0 ? "selected" : "");
        web_var_add(w, "passwd_2", strcasecmp(check.c_str(), "force") == 0 ? "selected" : "");
    } else {
        // A new domain starts from the defaults of its settings.
        web_var_add(w, "log_max_age", vini_get_default(INI_LOG_MAX_AGE));
        web_var_add(w, "loginfails", strfmt("%s failures", vini_get_default(INI_LOGINFAILS)));
        web_var_add(w, "passwd_0", "selected");
    }
    web_var_add(w, "is_domain", "true");
    if (domainid > 0) web_var_add(w, "candelete", "true");
    return web_showfile_to(w, "domain.htm", settings_mappings, page);
}

// The id the request names: the domain chosen by name from a list, else domainid.
int requested_domain(WINK* w) {
    std::string chosen = web_input(w, "choose_domain");
    if (!chosen.empty()) {
        std::vector<ADMIN_DOMAIN> ds = admin_domains();
        for (size_t i = 0; i < ds.size(); ++i)
            if (strcasecmp(ds[i].name.c_str(), chosen.c_str()) == 0) return static_cast<int>(i);
    }
    return atoi(web_input(w, "domainid").c_str());
}

}  // namespace

int mgr_cmd_domain_show(WINK* w, int domainid) {
    std::string page;
    vini_lock();
    render_domain(w, domainid, page);
    vini_unlock();
    return settings_send(w, page);
}

int mgr_cmd_domain(WINK* w) {
    // Without a domain the tree of all domains is the landing page.
    if (web_input(w, "domainid").empty() && web_input(w, "choose_domain").empty())
        return mgr_show(w, "top.htm");
    return mgr_cmd_domain_show(w, requested_domain(w));
}

int mgr_cmd_domain_save(WINK* w) {
    std::string bad = settings_bad_field(w);
    int id = atoi(web_input(w, "domainid").c_str());
    if (!bad.empty()) {
        web_var_add(w, "form_error", settings_refusal(bad));
        web_var_add(w, "form_error_field", bad);
        return mgr_cmd_domain_show(w, id);
    }
    std::string page;
    vini_lock_all_x(__FILE__, __LINE__);
    if (id >= vini_domains_count()) {
        vini_unlock_all();
        web_var_add(w, "server_message", strfmt("There is no domain %d: nothing was written.", id));
        return mgr_show(w, "top.htm");
    }
    imsg("mgr: domain_save %d\n", id);
    if (id < 0) id = vini_blank_domain();
    auto in = [w](const char* name) { return web_input(w, name); };
    if (id == 0 && strcasecmp(vini_get(nullptr, INI_NO_SUFFIX_DEFAULT_DOMAIN), "true") == 0)
        user_set_strip(in("name").c_str());
    const std::string ids = std::to_string(id);
    settings_set_query(w, "domainid", ids);
    mgr_domain_set(w, id, strfmt("vdomain name=\"%s\" address=\"%s\"", in("name").c_str(), in("address").c_str()));
    mgr_domain_set(w, id, strfmt("deny \"%s\"", in("deny").c_str()));
    mgr_domain_set(w, id, strfmt("deny_msg \"%s\"", in("deny_msg").c_str()));
    mgr_domain_set(w, id, strfmt("domain_authent_process \"%s\"", in("domain_authent_process").c_str()));
    mgr_domain_set(w, id, strfmt("domain_authent_cmdopts \"%s\"", in("domain_authent_cmdopts").c_str()));
    multi_auth_apply(in("name").c_str(), in("domain_authent_process").c_str(), in("domain_authent_cmdopts").c_str(),
                     0);
    mgr_domain_set(w, id, strfmt("domain_authentication_prefix \"%s\"", in("domain_authentication_prefix").c_str()));
    mgr_domain_set(w, id, strfmt("domain_authentication_suffix \"%s\"", in("domain_authentication_suffix").c_str()));
    mgr_domain_set(w, id, strfmt("email \"%s\"", in("email").c_str()));
    mgr_domain_set(w, id, strfmt("greetings \"%s\"", in("greetings").c_str()));
    mgr_domain_set(w, id, strfmt("log_max_age \"%s\"", in("log_max_age").c_str()));
    mgr_domain_set(w, id, strfmt("loginfails %d", atoi(in("loginfails").c_str())));
    mgr_domain_set(w, id, strfmt("passwd_check \"%s\"", in("passwd_check").c_str()));
    render_domain(w, id, page);
    vini_write();
    vini_unlock_all();
    return settings_send(w, page);
}

int mgr_cmd_domain_delete(WINK* w) {
    std::string v = web_input(w, "domainid");
    int id = atoi(v.c_str());
    if (id == 0) return 1;  // the first domain holds the global settings
    std::string page;
    vini_lock();
    vini_lock_all_x(__FILE__, __LINE__);
    int done = vini_domain_delete(id);
    if (done) vini_write();
    vini_unlock_all();
    vini_unlock();
    imsg("mgr: domain_delete %d %s\n", id, done ? "done" : "no such domain");
    web_var_add(w, "domainid", "");
    web_var_add(w, "classid", "");
    web_var_add(w, "server_message", done ? strfmt("Domain %d was deleted.", id)
                                          : strfmt("There is no domain %d: nothing was deleted.", id));
    web_showfile_to(w, "top.htm", settings_mappings, page);
    return settings_send(w, page);
}

int mgr_cb_classes(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    const std::string saved = web_var_find(w, "name");
    const int domainid = atoi(web_var_find(w, "domainid").c_str());
    INITABLE* d = vini_domain_at(domainid);
    if (d == nullptr) {
        if (domainid < 0) dmsg("empty class list, new domain\n");
        return 1;
    }
    const std::string dname = tbl_p(d, INI_VDOMAIN, "name");
    int ok = 1;
    for (size_t i = 0; i < d->classes.size() && ok; ++i) {
        const INITABLE* c = d->classes[i].get();
        std::string type = tbl_p(c, INI_CLASS, "type");
        std::string name = tbl_p(c, INI_CLASS, "name");
        web_var_add(w, "domain", dname);
        web_var_add(w, "classid", std::to_string(i));
        std::string class_name = tbl_p(c, INI_CLASS, "class_name");
        // A class without a display name is listed by its short name or type.
        web_var_add(w, "class_name", !class_name.empty() ? class_name : !name.empty() ? name : type);
        web_var_add(w, "type", type);
        web_var_add(w, "users", tbl_p(c, INI_CLASS, "users"));
        web_var_add(w, "name", name.empty() ? type : name);
        web_var_add(w, "groups", tbl_p(c, INI_CLASS, "groups"));
        web_var_add(w, "from", tbl_p(c, INI_CLASS, "from"));
        web_var_add(w, "address", tbl_p(d, INI_VDOMAIN, "address"));
        ok = web_show_line(w, unit, mappings, filename);
    }
    web_var_add(w, "name", saved);
    web_var_add(w, "classid", "");
    return ok;
}

void generate_domain_list(WINK* w, int filter_auth) {
    std::vector<ADMIN_DOMAIN> ds = admin_domains();
    std::string chosen = web_input(w, "choose_domain");
    if (chosen.empty()) chosen = web_input(w, "domain_option_list");
    if (chosen.empty()) chosen = web_var_find(w, "domain");
    bool global_module = *vini_get(nullptr, INI_AUTHENT_PROCESS) != 0;
    std::string h;
    vini_lock();
    for (size_t i = 0; i < ds.size(); ++i) {
        if (filter_auth && global_module) {
            INITABLE* d = vini_domain_at(static_cast<int>(i));
            if (d == nullptr || *settings_stored(d, INI_DOMAIN_AUTHENT_PROCESS) == 0) continue;
        }
        std::string label = domain_label(static_cast<int>(i), ds[i].name);
        bool sel = !chosen.empty() && strcasecmp(ds[i].name.c_str(), chosen.c_str()) == 0;
        strfmt_append(h, "<option value=\"%s\"%s>%s</option>\n", web_encode(ds[i].name).c_str(),
                      sel ? " selected" : "", web_encode(label).c_str());
    }
    vini_unlock();
    web_out(w, h);
}

void generate_full_domain_list(WINK* w) { generate_domain_list(w, 0); }
void generate_domain_auth_list(WINK* w) { generate_domain_list(w, 1); }

}  // namespace korv
