// The domains as the admin pages see them: the snapshot of names and classes,
// the navigation tree of top.htm (||domain_tree||), the list callback of the
// domains, and the domain page itself.
#include <cstdlib>

#include "base/fmt.h"
#include "common/emsg.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/settings/ini.h"
#include "store/vini.h"

namespace korv {

namespace {

const char* table_p(const INITABLE* t, int code, const char* param) {
    if (t == nullptr || static_cast<size_t>(code) >= t->table.size()) return "";
    return vini_get_p_raw(t->table[static_cast<size_t>(code)].get(), code, param);
}

// Row 1 of the tree's texts: selected domain, selected class, plain domain,
// plain class (prefix and suffix each), then before and after a domain block.
constexpr const char* kTreeDefaults[10] = {
    "<b> [ ", " ] </b><BR>", "<b>&nbsp; &nbsp;", "</b><BR>", " [ ", " ] <BR>", "&nbsp; &nbsp;", "<BR>", "", "<br>",
};

constexpr const char* kTreeInputs[8] = {
    "domain_name_prefix_sel", "domain_name_suffix_sel", "class_name_prefix_sel", "class_name_suffix_sel",
    "domain_name_prefix",     "domain_name_suffix",     "class_name_prefix",     "class_name_suffix",
};

int input_int(const WINK* w, const char* name, int missing) {
    std::string v = web_input(w, name);
    return v.empty() ? missing : atoi(v.c_str());
}

}  // namespace

std::vector<ADMIN_DOMAIN> admin_domains() {
    std::vector<ADMIN_DOMAIN> out;
    vini_lock();
    for (const auto& d : vini_domains()) {
        ADMIN_DOMAIN ad;
        ad.name = table_p(d.get(), INI_VDOMAIN, "name");
        for (const auto& c : d->classes)
            ad.classes.push_back(ADMIN_CLASS{table_p(c.get(), INI_CLASS, "class_name"), table_p(c.get(), INI_CLASS, "type")});
        out.push_back(std::move(ad));
    }
    vini_unlock();
    return out;
}

std::string admin_domain_name(int domainid) {
    std::vector<ADMIN_DOMAIN> ds = admin_domains();
    if (domainid < 0 || static_cast<size_t>(domainid) >= ds.size()) return "";
    return ds[static_cast<size_t>(domainid)].name;
}

int admin_domain_index(const WINK* w) {
    int id = atoi(web_input(w, "domainid").c_str());
    int n = static_cast<int>(admin_domains().size());
    return id >= 0 && id < n ? id : 0;
}

void mgr_do_domain_tree(WINK* w) {
    // An override comes from the request: it is shown as text, never as markup.
    std::string t[10];
    for (int i = 0; i < 10; ++i) t[i] = kTreeDefaults[i];
    for (int i = 0; i < 8; ++i) {
        std::string v = web_input(w, kTreeInputs[i]);
        if (!v.empty()) t[i] = web_encode(v);
    }
    const int domainid = input_int(w, "domainid", -10);
    const int classid = input_int(w, "classid", -10);
    std::vector<ADMIN_DOMAIN> ds = admin_domains();
    if (ds.empty()) emsg("No domains?");
    std::string html;
    for (size_t di = 0; di < ds.size(); ++di) {
        const ADMIN_DOMAIN& d = ds[di];
        const int id = static_cast<int>(di);
        html += t[8];
        const bool dsel = id == domainid && classid < 0;
        std::string name = d.name.empty() ? strfmt("Domain %d", id) : web_encode(d.name);
        strfmt_append(html, "%s<A HREF=\"/cgi/korvanemgr.cgi?cmd=domain&domainid=%d\"%s>%s</A>%s\n",
                      (dsel ? t[0] : t[4]).c_str(), id, dsel ? " class=\"sel\"" : "", name.c_str(),
                      (dsel ? t[1] : t[5]).c_str());
        for (size_t ci = 0; ci < d.classes.size(); ++ci) {
            const ADMIN_CLASS& c = d.classes[ci];
            const bool csel = id == domainid && static_cast<int>(ci) == classid;
            std::string cname = c.class_name.empty() ? strfmt("%d %s", static_cast<int>(ci), web_encode(c.type).c_str())
                                                     : web_encode(c.class_name);
            strfmt_append(html, "%s<A HREF=\"/cgi/korvanemgr.cgi?cmd=class&domainid=%d&classid=%d\"%s>%s</A>%s\n",
                          (csel ? t[2] : t[6]).c_str(), id, static_cast<int>(ci), csel ? " class=\"sel\"" : "",
                          cname.c_str(), (csel ? t[3] : t[7]).c_str());
        }
        html += t[9];
    }
    web_out(w, html);
}

// Per domain: list_domainid, list_domain (its name, or "Domain N") and
// list_selected ("selected" for the domain of the request).
int mgr_cb_domains(WINK* w, const std::string& unit, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    std::vector<ADMIN_DOMAIN> ds = admin_domains();
    const int current = admin_domain_index(w);
    for (size_t i = 0; i < ds.size(); ++i) {
        const int id = static_cast<int>(i);
        web_var_add(w, "list_domainid", std::to_string(id));
        web_var_add(w, "list_domain", ds[i].name.empty() ? strfmt("Domain %d", id) : ds[i].name);
        web_var_add(w, "list_selected", id == current ? "selected" : "");
        if (!web_show_line(w, unit, mappings, filename)) return 0;
    }
    return 1;
}

int is_anon_class_in_this_domain(WINK*) {
    for (const ADMIN_DOMAIN& d : admin_domains())
        for (const ADMIN_CLASS& c : d.classes)
            if (c.type.find("anonymous") != std::string::npos) return 1;
    return 0;
}


}  // namespace korv
