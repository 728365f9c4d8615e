// What the three settings editors share: the handle on the selected domain or
// class, the writers of one configuration line, the refusal of values that
// would break a line, and the list mappings of the settings pages.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "base/fmt.h"
#include "common/emsg.h"
#include "server/admin/settings_pages.h"
#include "server/admin/webadmin.h"
#include "server/process/control.h"
#include "server/vfs/vdir_path.h"

namespace korv {

const WEB_CB_MAPPINGS settings_mappings[] = {
    {"domain.htm", "", mgr_cb_classes},
    {"class.htm", "", mgr_cb_class},
    {"class.htm", "_group_resource", mgr_cb_class_group_resource},
    {"class.htm", "_map", mgr_cb_class_ftphome_mapping},
    {"top.htm", "", mgr_cb_domains},
    {nullptr, nullptr, nullptr},
};

namespace {

int input_id(const WINK* w, const char* name) { return atoi(web_input(w, name).c_str()); }

void class_line(WINK* w, const std::string& line) {
    vini_set(input_id(w, "domainid"), input_id(w, "classid"), -1, line.c_str());
}

}  // namespace

IniHandlePtr mgr_inihandle(WINK* w, int domainid) {
    INITABLE* d = vini_domain_at(domainid);
    if (d == nullptr) {
        if (domainid >= 0)
            emsg("No such domainid %d/%d\n", domainid, vini_domains_count());
        else
            dmsg("No such domainid %d\n", domainid);
        return nullptr;
    }
    IniHandlePtr h = vini_handle();
    if (!h) return nullptr;
    vini_switch_table(h.get(), d);
    std::string cid = web_input(w, "classid");
    // A negative class is one still to be made: the handle stays on the domain.
    if (!cid.empty() && atoi(cid.c_str()) >= 0) {
        INITABLE* c = vini_class_at(domainid, atoi(cid.c_str()));
        if (c == nullptr) {
            emsg("No such classid %d/%s\n", domainid, cid.c_str());
            return nullptr;
        }
        h->cls = c;
    }
    return h;
}

void mgr_domain_set(WINK*, int domainid, const std::string& line) {
    if (line.empty()) return;
    vini_set(domainid, -1, -1, line.c_str());
}

void mgr_class_set(WINK* w, const char* sym) {
    class_line(w, strfmt("%.400s \"%.800s\"", sym, wcode(web_input(w, sym)).c_str()));
}

void mgr_class_seti(WINK* w, const char* sym) {
    class_line(w, strfmt("%.400s %d", sym, atoi(web_input(w, sym).c_str())));
}

void mgr_class_sett(WINK* w, const char* sym) {
    if (strcasecmp(web_input(w, sym).c_str(), "true") == 0)
        class_line(w, strfmt("%.80s true", sym));
    else
        class_line(w, strfmt("%.400s false", sym));
}

void mgr_class_set_file_path_setting(WINK* w, const char* sym) {
    std::string v = web_input(w, sym);
    class_line(w, strfmt("%.400s \"%.800s\"", sym, vdir_fixslash_os(v).c_str()));
}

void mgr_class_set_val(WINK* w, const char* sym, const std::string& val) {
    class_line(w, strfmt("%.400s \"%.800s\"", sym, val.c_str()));
}

void mgr_class_clear(WINK* w, int x) { vini_clear(input_id(w, "domainid"), input_id(w, "classid"), x); }

void settings_set_query(WINK* w, const char* name, const std::string& value) {
    for (PAIR* p = w->query.get(); p != nullptr; p = p->next.get()) {
        if (p->var == name) {
            p->val = value;
            return;
        }
    }
    pair_add(w->query, name, value);
}

const char* settings_stored(const INITABLE* t, int code) {
    if (t == nullptr || code < 0 || static_cast<size_t>(code) >= t->table.size()) return "";
    const INIVAL* v = t->table[static_cast<size_t>(code)].get();
    if (v == nullptr || v->val.empty() || !v->val[0]) return "";
    return v->val[0]->c_str();
}

std::string settings_bad_field(const WINK* w, std::string_view multiline) {
    for (const PairPtr* list : {&w->query, &w->form}) {
        for (const PAIR* p = list->get(); p != nullptr; p = p->next.get()) {
            std::string_view v = p->val;
            bool ok = !multiline.empty() && p->var == multiline ? v.find_first_of(std::string_view("\"\0", 2)) == std::string_view::npos
                                           : web_value_safe(v) != 0;
            if (!ok) return p->var.substr(0, 100);
        }
    }
    return "";
}

std::string settings_refusal(std::string_view field) {
    return strfmt("The field %.*s holds a double quote, a line end or a NUL; nothing was written.",
                  static_cast<int>(field.size()), field.data());
}

std::string settings_alias(std::string alias) {
    while (alias.size() > 2 && (alias.back() == '/' || alias.back() == '\\')) alias.pop_back();
    if (alias.empty() || (alias.back() != '/' && alias.back() != '\\')) alias += '/';
    return alias;
}

int settings_send(WINK* w, const std::string& page) { return web_out(w, page); }

namespace {

// The authentication programs the server knows, first the bundled one.
struct KNOWN_AUTH {
    const char* exe;
    const char* description;
};
constexpr KNOWN_AUTH kKnownAuth[] = {
    {"omauth", "Ombrix Authent Module: users in its own files"},
};

bool is_file(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

void generate_known_auth_exe_list(WINK* w) {
    const char* home = korv_home();
    std::string base = home != nullptr && *home ? home : ".";
    std::string h;
    auto offer = [&h](const std::string& path, const char* what) {
        if (is_file(path))
            strfmt_append(h, "<option value=\"%s\">%s</option>\n", web_encode(path).c_str(), web_encode(what).c_str());
    };
    for (const KNOWN_AUTH& k : kKnownAuth) offer(base + "/" + k.exe, k.description);
    for (const ADMIN_DOMAIN& d : admin_domains()) {
        if (d.name.empty() || !admin_safe_file_name(d.name)) continue;
        for (const KNOWN_AUTH& k : kKnownAuth) offer(base + "/" + d.name + "/" + k.exe, k.description);
    }
    web_out(w, h);
}

void mgr_add_settings_callbacks() {
    web_callback_add("known_auth_exe_list", generate_known_auth_exe_list);
    web_callback_add("domain_option_list", generate_full_domain_list);
    web_callback_add("domain_auth_option_list", generate_domain_auth_list);
    web_callback_add("do_dump", mgr_do_dump);
    web_callback_add("setting_description", mgr_do_setting_description);
}

}  // namespace korv
