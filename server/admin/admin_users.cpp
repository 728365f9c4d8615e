// The users page: look up, create, change, delete and search the users of
// the selected domain's authentication module, through the module's own
// requests. A value that the module's line protocol cannot carry (a double
// quote, a line end, a NUL) is refused and nothing is written.
#include <vector>

#include "base/fmt.h"
#include "base/str.h"
#include "net/tcp.h"
#include "server/admin/webadmin.h"
#include "server/auth/auth_setups.h"
#include "server/auth/mex_auths.h"
#include "server/auth/user_cache.h"

namespace korv {

namespace {

// The account fields a module keeps beside the password, in form order.
constexpr const char* kUserFields[] = {"ftphome",   "ftpuid",        "ftpgid",    "groups",
                                       "ftpquota",  "dailyquota",    "accountstatus", "ftpfromip"};

constexpr char kListVar[] = "user_list_lines";  // the search's "+DATA" lines for the generator

struct Target {
    std::string domain;  // as the modules know it: lower case
    std::string user;    // as sent to the module ("name@domain" where the domain asks for it)
};

Target target(const WINK* w) {
    Target t;
    t.domain = str_lower(admin_domain_name(admin_domain_index(w)));
    t.user = web_input(w, "user");
    if (!t.domain.empty() && !t.user.empty() && user_isauthdom(t.domain.c_str())) t.user += "@" + t.domain;
    return t;
}

void say(WINK* w, const std::string& text) { web_var_add(w, "user_message", text); }
void fail(WINK* w, const std::string& text) { web_var_add(w, "user_error", text); }

// The page after any action: the form keeps what was typed, never the password.
int show(WINK* w) {
    const std::string domain = admin_domain_name(admin_domain_index(w));
    web_var_add(w, "user_domain", domain.empty() ? "Domain 0" : domain);
    if (!isspawn(str_lower(domain).c_str()))
        web_var_add(w, "user_system", "This domain logs users in through the system's password files; the "
                                      "module's answers below come from the default module, if there is one.");
    web_var_add(w, "user", web_input(w, "user"));
    web_var_add(w, "wild", web_input(w, "wild"));
    for (const char* f : kUserFields) {
        std::string var = strfmt("user_%s", f);
        if (web_var_find(w, var).empty()) web_var_add(w, var, web_input(w, f));
    }
    return mgr_show(w, "user.htm");
}

// Checks the name and every value the form sends; "" when all may be written.
std::string refused(const WINK* w, bool need_password) {
    const std::string user = web_input(w, "user");
    if (user.empty()) return "Type a user name first.";
    if (!web_value_safe(user) || !mex_name_ok(user))
        return "A user name may not hold blanks, quotes, line ends, control characters or \"#\".";
    const std::string pass = web_input(w, "password");
    if (!web_value_safe(pass)) return "The password holds a double quote, a line end or a NUL; nothing was written.";
    if (pass.find(' ') != std::string::npos || pass.find('\t') != std::string::npos)
        return "A password may not hold blanks; nothing was written.";
    if (need_password && pass.empty()) return "A new user needs a password.";
    for (const char* f : kUserFields)
        if (!web_value_safe(web_input(w, f)))
            return strfmt("The field %s holds a double quote, a line end or a NUL; nothing was written.", f);
    return "";
}

// The fields of a module's answer line into user_<field> variables.
void take_fields(WINK* w, std::string line) {
    for (const char* f : kUserFields) {
        std::string v;
        web_var_add(w, strfmt("user_%s", f), mex_decode(line, f, v) ? v : std::string());
    }
}

void collect(void* p, const char* line) {
    auto* lines = static_cast<std::vector<std::string>*>(p);
    if (lines->size() < 10000) lines->push_back(line != nullptr ? line : "");
}

}  // namespace

int mgr_cmd_user_admin(WINK* w) { return show(w); }

int mgr_cmd_user_lookup(WINK* w) {
    std::string why = refused(w, false);
    if (!why.empty()) {
        fail(w, why);
        return show(w);
    }
    Target t = target(w);
    std::string result;
    if (mex_lookup(t.domain.c_str(), t.user.c_str(), result)) {
        take_fields(w, result);
        say(w, strfmt("Found %s.", web_input(w, "user").c_str()));
    } else {
        fail(w, strfmt("Not found: %s", result.c_str()));
    }
    web_var_add(w, "user_answer", result);
    return show(w);
}

int mgr_cmd_user_save(WINK* w, int create) {
    std::string why = refused(w, create != 0);
    if (!why.empty()) {
        fail(w, why);
        return show(w);
    }
    Target t = target(w);
    std::string result;
    const bool exists = mex_lookup(t.domain.c_str(), t.user.c_str(), result) != 0;
    if (create && exists) {
        fail(w, "That user exists already; change it with Save.");
        return show(w);
    }
    if (!create && !exists) {
        fail(w, "No such user; make it with Create.");
        return show(w);
    }
    std::string pass = web_input(w, "password");
    if (pass.empty()) pass = "-";  // keeps the stored password
    std::string info;
    for (const char* f : kUserFields) strfmt_append(info, "%s%s=\"%s\"", info.empty() ? "" : " ", f, web_input(w, f).c_str());
    if (strfmt("set %s %s %s", t.user.c_str(), pass.c_str(), info.c_str()).size() >= kMexRequestMax) {
        fail(w, "The values are too long for the module; nothing was written.");
        return show(w);
    }
    result.clear();
    if (mex_set(t.domain.c_str(), t.user.c_str(), pass.c_str(), info.c_str(), result)) {
        // Logins remembered from before the change must ask the module again.
        user_cache_clear();
        say(w, strfmt("%s %s.", create ? "Created" : "Saved", web_input(w, "user").c_str()));
    } else {
        fail(w, strfmt("The module refused: %s", result.c_str()));
    }
    web_var_add(w, "user_answer", result);
    return show(w);
}

int mgr_cmd_user_delete(WINK* w) {
    std::string why = refused(w, false);
    if (!why.empty()) {
        fail(w, why);
        return show(w);
    }
    Target t = target(w);
    std::string result;
    if (mex_del(t.domain.c_str(), t.user.c_str(), result)) {
        user_cache_clear();
        say(w, strfmt("Deleted %s.", web_input(w, "user").c_str()));
        for (const char* f : kUserFields) web_var_add(w, strfmt("user_%s", f), "");
    } else {
        fail(w, strfmt("The module refused: %s", result.c_str()));
    }
    web_var_add(w, "user_answer", result);
    return show(w);
}

int mgr_cmd_user_wild_search(WINK* w) {
    std::string wild = web_input(w, "wild");
    if (wild.empty()) wild = "*";
    if (!web_value_safe(wild) || wild.find(' ') != std::string::npos) {
        fail(w, "A search pattern may not hold blanks, quotes or line ends.");
        return show(w);
    }
    const std::string domain = str_lower(admin_domain_name(admin_domain_index(w)));
    std::vector<std::string> lines;
    std::string result;
    if (mex_search(domain.c_str(), wild.c_str(), result, collect, &lines)) {
        std::string joined;
        for (const std::string& l : lines) joined += l + "\n";
        web_var_add(w, kListVar, joined);
        say(w, strfmt("%d found.", static_cast<int>(lines.size())));
    } else {
        fail(w, strfmt("The module refused: %s", result.c_str()));
    }
    web_var_add(w, "user_answer", result);
    return show(w);
}

// The search's users as a table: name and fields, each escaped.
void mgr_do_user_list(WINK* w) {
    const std::string& all = web_var_find(w, kListVar);
    if (all.empty()) return;
    std::string h = "<table class=\"grid\">\n<tr><th>User</th>";
    for (const char* f : kUserFields) strfmt_append(h, "<th>%s</th>", f);
    h += "</tr>\n";
    size_t from = 0;
    while (from < all.size()) {
        size_t nl = all.find('\n', from);
        std::string line = all.substr(from, nl == std::string::npos ? std::string::npos : nl - from);
        from = nl == std::string::npos ? all.size() : nl + 1;
        // "+DATA name field="value" ..."
        if (line.rfind("+DATA ", 0) == 0) line.erase(0, 6);
        size_t blank = line.find(' ');
        std::string name = line.substr(0, blank);
        std::string rest = blank == std::string::npos ? std::string() : line.substr(blank);
        strfmt_append(h, "<tr><td>%s</td>", web_encode(name).c_str());
        for (const char* f : kUserFields) {
            std::string v;
            if (!mex_decode(rest, f, v)) v.clear();
            strfmt_append(h, "<td>%s</td>", web_encode(v).c_str());
        }
        h += "</tr>\n";
    }
    h += "</table>\n";
    web_out(w, h);
}

}  // namespace korv
