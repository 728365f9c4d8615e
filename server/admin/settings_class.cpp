// The class page: who belongs to a class, its home, limits and rights, and
// its three row lists (paths, group resources, home mappings); the save that
// rewrites them (the lists cleared first and written again from the rows),
// and the delete.
#include <strings.h>

#include <cstdlib>
#include <string>

#include "base/fmt.h"
#include "base/webtext.h"
#include "common/emsg.h"
#include "server/admin/settings_pages.h"
#include "server/admin/webadmin.h"
#include "server/settings/ini.h"
#include "server/vfs/vdir_path.h"

namespace korv {

namespace {

int input_id(const WINK* w, const char* name) { return atoi(web_input(w, name).c_str()); }

const char* val_p(const INIVAL* v, int code, const char* param) { return vini_get_p_raw(v, code, param); }

const char* checked(const INIVAL* v, int code, const char* param) {
    return is_str_true(val_p(v, code, param)) ? "checked" : "";
}

// The class the page shows (null for a class not yet created).
const INITABLE* shown_class(const WINK* w) {
    std::string cid = web_var_find(w, "classid");
    if (cid.empty()) return nullptr;
    return vini_class_at(atoi(web_var_find(w, "domainid").c_str()), atoi(cid.c_str()));
}

const INIVAL* first_of(const INITABLE* c, int code) {
    if (c == nullptr || static_cast<size_t>(code) >= c->table.size()) return nullptr;
    return c->table[static_cast<size_t>(code)].get();
}

void limit_var(WINK* w, const char* var, const std::string& text, const char* form, const char* zero) {
    int n = atoi(text.c_str());
    web_var_add(w, var, n == 0 && zero != nullptr ? std::string(zero) : strfmt(form, n));
}

void class_vars(WINK* w, INIHANDLE* h, int domainid, int classid) {
    web_var_add(w, "classid", std::to_string(classid));
    web_var_add(w, "domainid", std::to_string(domainid));
    web_var_add(w, "domain", vini_get_p(h, INI_VDOMAIN, "name"));
    const bool is_new = classid < 0;
    web_var_add(w, "class_name", is_new ? "" : vini_get_p(h, INI_CLASS, "class_name"));
    if (is_new) {
        web_var_true(w, "type_real", 1);
        web_var_true(w, "type_anonymous", 0);
    } else {
        std::string type = vini_get_p(h, INI_CLASS, "type");
        web_var_true(w, "type_anonymous", type.find("anonymous") != std::string::npos);
        web_var_true(w, "type_real", type.find("real") != std::string::npos);
    }
    limit_var(w, "limit_users", vini_get(h, INI_LIMIT_USERS), "%d Users", nullptr);
    limit_var(w, "limit_peruser", vini_get(h, INI_LIMIT_PERUSER), "%d Connections", nullptr);
    web_var_add(w, "limit_speed", settings_speed_text(vini_get(h, INI_LIMIT_SPEED)));
    web_var_add(w, "limit_speed_up", settings_speed_text(vini_get(h, INI_LIMIT_SPEED_UP)));
    limit_var(w, "limit_mb", vini_get(h, INI_LIMIT_MB), "%dmb per day", "Unlimited");
    limit_var(w, "limit_time", vini_get(h, INI_LIMIT_TIME), "%d minutes", "Default");
    std::string perip = vini_get(h, INI_LIMIT_CON_PERIP);
    web_var_add(w, "limit_con_perip", atoi(perip.c_str()) == 0 ? std::string("Unlimited") : perip);
    for (const char* p : {"users", "name", "groups", "from"})
        web_var_add(w, p, is_new ? "" : vini_get_p(h, INI_CLASS, p));
    const std::pair<const char*, int> plain[] = {
        {"passive_ipnumber", INI_PASSIVE_IPNUMBER}, {"passive_port", INI_PASSIVE_PORT},
        {"passive_port_max", INI_PASSIVE_PORT_MAX}, {"user_home_hashing", INI_USER_HOME_HASHING},
        {"umask", INI_UMASK},                       {"actas_user", INI_ACTAS_USER},
        {"quota_default", INI_QUOTA_DEFAULT},       {"log_cmd_size", INI_LOG_CMD_SIZE},
        {"dailyquota", INI_DAILYQUOTA},             {"new_user_program", INI_NEW_USER_PROGRAM},
        {"noretrieve", INI_NORETRIEVE},             {"noupload", INI_NOUPLOAD},
        {"ssl", INI_SSL},
    };
    for (const auto& [var, code] : plain) web_var_add(w, var, vini_get(h, code));
    std::string home = vini_get(h, INI_USER_HOME);
    web_var_add(w, "user_home", vdir_fixslash_os(home));
    const std::pair<const char*, int> boxes[] = {
        {"ftp_proxy", INI_FTP_PROXY},
        {"user_noimpersonate", INI_USER_NOIMPERSONATE},
        {"mkdir_auto", INI_MKDIR_AUTO},
        {"force_lower_home", INI_FORCE_LOWER_HOME},
        {"list_aliases", INI_LIST_ALIASES},
    };
    for (const auto& [var, code] : boxes) web_var_true(w, var, is_str_true(vini_get(h, code)));
    web_var_true(w, "user_impersonate", 1);
    if (is_new) {
        web_var_add(w, "banner", "%virtual_paths%");
        web_var_true(w, "list_aliases", 1);
    } else {
        web_var_add(w, "banner", lib_cr_decode(vini_get(h, INI_BANNER)));
    }
}

// The class page into `page` (call under the store's lock).
int render_class(WINK* w, std::string& page) {
    const int domainid = input_id(w, "domainid");
    const int classid = input_id(w, "classid");
    // Without a class id the page would show (and a save write) the domain's table as a class.
    IniHandlePtr h = web_input(w, "classid").empty() ? nullptr : mgr_inihandle(w, domainid);
    if (!h) {
        web_var_add(w, "server_message",
                    strfmt("There is no class %d in domain %d: it may have been deleted.", classid, domainid));
        web_var_add(w, "classid", "");
        return web_showfile_to(w, "top.htm", settings_mappings, page);
    }
    class_vars(w, h.get(), domainid, classid);
    return web_showfile_to(w, "class.htm", settings_mappings, page);
}

std::string class_type(const WINK* w) {
    std::string t;
    if (strcasecmp(web_input(w, "type_real").c_str(), "true") == 0) t = "real";
    if (strcasecmp(web_input(w, "type_anonymous").c_str(), "true") == 0) t += t.empty() ? "anonymous" : ",anonymous";
    return t;
}

const char* box(const WINK* w, const std::string& name) { return web_input_true(web_input(w, name)); }

std::string row_line(const WINK* w, const std::string& pre, int n) {
    const std::string id = std::to_string(n);
    return strfmt("alias=\"%s\" path=\"%s\" read=%s write=%s nolist=%s nodel=%s nomkdir=%s",
                  settings_alias(web_input(w, pre + "alias_" + id)).c_str(),
                  web_input(w, pre + "path_" + id).c_str(), box(w, pre + "read_" + id), box(w, pre + "write_" + id),
                  box(w, pre + "nolist_" + id), box(w, pre + "nodel_" + id), box(w, pre + "nomkdir_" + id));
}

void save_rows(WINK* w) {
    const int d = input_id(w, "domainid"), c = input_id(w, "classid");
    mgr_class_clear(w, INI_DIR);
    for (int n = 0; n < kDirRowsMax; ++n)
        if (!web_input(w, "path_" + std::to_string(n)).empty())
            vini_set(d, c, -1, ("dir " + row_line(w, "", n)).c_str());
    mgr_class_clear(w, INI_GROUP_RESOURCE);
    for (int n = 0; n < kResourceRowsMax; ++n) {
        const std::string id = std::to_string(n);
        std::string group = web_input(w, "group_" + id);
        if (web_input(w, "grouppath_" + id).empty() || group.empty()) continue;
        vini_set(d, c, -1, strfmt("group_resource group=\"%s\" %s", group.c_str(), row_line(w, "group", n).c_str()).c_str());
    }
    mgr_class_clear(w, INI_FTPHOME_MAP);
    for (int n = 0; n < kResourceRowsMax; ++n) {
        const std::string id = std::to_string(n);
        std::string find = web_input(w, "find_" + id);
        if (find.empty()) continue;
        vini_set(d, c, -1,
                 strfmt("ftphome_map find=\"%s\" map=\"%s\"", find.c_str(), web_input(w, "map_" + id).c_str()).c_str());
    }
}

// One row of a path list: the stored occurrence `v`, or a fresh row.
int show_row(WINK* w, int code, const INIVAL* v, int id, const std::string& unit, const WEB_CB_MAPPINGS* m,
             const char* fname) {
    web_var_add(w, "dirid", std::to_string(id));
    web_var_add(w, "alias", v != nullptr ? val_p(v, code, "alias") : "");
    web_var_add(w, "path", v != nullptr ? val_p(v, code, "path") : "");
    if (code == INI_GROUP_RESOURCE) web_var_add(w, "group", v != nullptr ? val_p(v, code, "group") : "");
    web_var_add(w, "read", v != nullptr ? checked(v, code, "read") : "checked");
    web_var_add(w, "write", v != nullptr ? checked(v, code, "write") : "checked");
    for (const char* p : {"nodel", "nolist", "nomkdir"}) web_var_add(w, p, v != nullptr ? checked(v, code, p) : "");
    return web_show_line(w, unit, m, fname);
}

}  // namespace

std::string settings_speed_text(const std::string& stored) {
    int n = atoi(stored.c_str());
    if (n == 0) return "Unlimited";
    if (stored.find("MB") != std::string::npos) return strfmt("%dMB per second", n);
    if (stored.find("K bytes") != std::string::npos || stored.find("k bytes") != std::string::npos ||
        stored.size() <= 4)
        return strfmt("%dk bytes per second", n);
    return strfmt("%d bytes per second", n);
}

int mgr_cmd_class(WINK* w) {
    std::string page;
    vini_lock();
    render_class(w, page);
    vini_unlock();
    return settings_send(w, page);
}

int mgr_cmd_class_save(WINK* w) {
    std::string bad = settings_bad_field(w, "banner");
    if (!bad.empty()) {
        imsg("mgr: class_save refused, field %.100s\n", bad.c_str());
        web_var_add(w, "form_error", settings_refusal(bad));
        web_var_add(w, "form_error_field", bad);
        return mgr_cmd_class(w);
    }
    const int d = input_id(w, "domainid");
    int c = input_id(w, "classid");
    std::string page;
    vini_lock_all_x(__FILE__, __LINE__);
    if (vini_domain_at(d) == nullptr || (c >= 0 && vini_class_at(d, c) == nullptr) ||
        web_input(w, "classid").empty()) {
        vini_unlock_all();
        web_var_add(w, "server_message", strfmt("There is no class %d in domain %d: nothing was written.", c, d));
        web_var_add(w, "classid", "");
        return mgr_show(w, "top.htm");
    }
    if (c < 0) {
        c = vini_blank_class(d);
        settings_set_query(w, "classid", std::to_string(c));
        web_var_add(w, "classid", std::to_string(c));
        imsg("created new class %d, and saving settings...\n", c);
    }
    auto in = [w](const char* name) { return web_input(w, name); };
    vini_set(d, c, -1,
             strfmt("class type=\"%s\" users=\"%s\" from=\"%s\" groups=\"%s\" name=\"%s\" class_name=\"%s\"",
                    class_type(w).c_str(), in("users").c_str(), in("from").c_str(), in("groups").c_str(),
                    in("name").c_str(), in("class_name").c_str())
                 .c_str());
    for (const char* s : {"limit_time", "limit_users", "limit_peruser", "limit_mb"}) mgr_class_seti(w, s);
    for (const char* s : {"ftp_proxy", "user_impersonate", "user_noimpersonate", "mkdir_auto", "force_lower_home",
                          "list_aliases"})
        mgr_class_sett(w, s);
    for (const char* s : {"limit_speed", "limit_speed_up", "limit_con_perip", "passive_ipnumber", "passive_port",
                          "passive_port_max", "noretrieve", "umask", "noupload", "ssl"})
        mgr_class_set(w, s);
    mgr_class_set_file_path_setting(w, "user_home");
    for (const char* s : {"user_home_hashing", "actas_user", "new_user_program", "quota_default", "dailyquota"})
        mgr_class_set(w, s);
    mgr_class_set_val(w, "banner", lib_cr_encode(in("banner")));
    save_rows(w);
    vini_write();
    render_class(w, page);
    vini_unlock_all();
    return settings_send(w, page);
}

int mgr_cmd_class_delete(WINK* w) {
    const int d = input_id(w, "domainid"), c = input_id(w, "classid");
    std::string page;
    vini_lock();
    vini_lock_all_x(__FILE__, __LINE__);
    int done = web_input(w, "classid").empty() ? 0 : vini_class_delete(d, c);
    if (done) vini_write();
    vini_unlock_all();
    imsg("mgr: class_delete %d/%d %s\n", d, c, done ? "done" : "no such class");
    settings_set_query(w, "classid", "");
    if (!done) web_var_add(w, "server_message", strfmt("There is no class %d in domain %d: nothing was deleted.", c, d));
    vini_unlock();
    return mgr_cmd_domain_show(w, d);
}

int mgr_cb_class(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* m, const char* fname) {
    const INIVAL* v = first_of(shown_class(w), INI_DIR);
    int id = 0;
    if (v == nullptr) {
        // A class without paths starts with its home, read and write.
        web_var_add(w, "dirid", "0");
        web_var_add(w, "alias", "");
        web_var_add(w, "path", "~");
        web_var_add(w, "read", "checked");
        web_var_add(w, "write", "checked");
        for (const char* p : {"nodel", "nolist", "nomkdir"}) web_var_add(w, p, "");
        if (!web_show_line(w, unit, m, fname)) return 0;
        id = 1;
    }
    for (; v != nullptr; v = v->next.get(), ++id)
        if (!show_row(w, INI_DIR, v, id, unit, m, fname)) return 0;
    return show_row(w, INI_DIR, nullptr, id, unit, m, fname);
}

int mgr_cb_class_group_resource(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* m, const char* fname) {
    int id = 0;
    for (const INIVAL* v = first_of(shown_class(w), INI_GROUP_RESOURCE); v != nullptr; v = v->next.get(), ++id)
        if (!show_row(w, INI_GROUP_RESOURCE, v, id, unit, m, fname)) return 0;
    for (int k = 0; k < 2; ++k, ++id)
        if (!show_row(w, INI_GROUP_RESOURCE, nullptr, id, unit, m, fname)) return 0;
    return 1;
}

int mgr_cb_class_ftphome_mapping(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* m, const char* fname) {
    int id = 0;
    for (const INIVAL* v = first_of(shown_class(w), INI_FTPHOME_MAP); v != nullptr; v = v->next.get(), ++id) {
        web_var_add(w, "mapid", std::to_string(id));
        web_var_add(w, "find", val_p(v, INI_FTPHOME_MAP, "find"));
        web_var_add(w, "map", val_p(v, INI_FTPHOME_MAP, "map"));
        if (!web_show_line(w, unit, m, fname)) return 0;
    }
    web_var_add(w, "mapid", std::to_string(id));
    web_var_add(w, "find", "");
    web_var_add(w, "map", "");
    return web_show_line(w, unit, m, fname);
}

}  // namespace korv
