// The session table: records made and freed under MUTEX_LINK, the session
// counters, the counts of sessions sharing an address, a user or a class, and
// the table dump of the status page.
#include "server/session/link.h"

#include <strings.h>

#include <algorithm>
#include <ctime>

#include "base/dates.h"
#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"

namespace korv {

LINK* link_list = nullptr;

namespace {

int nlinks = 0;
int peak = 0;

std::string lower_copy(const char* s) {
    std::string out = s != nullptr ? s : "";
    for (char& ch : out) ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    return out;
}

// The domain's name in lower case, or "default".
std::string domain_dir(Link* l) {
    const char* name = l != nullptr && l->ini != nullptr ? ini_get_p(l, INI_VDOMAIN, "name") : nullptr;
    if (name == nullptr || *name == 0) return "default";
    return lower_copy(name);
}

// A class is named by its domain and its class name; sessions that read older
// settings tables still count with the newer ones.
std::string class_key(Link* l) {
    if (l->ini == nullptr || l->ini->cls == nullptr) return {};
    const char* d = ini_get_p(l, INI_VDOMAIN, "name");
    const char* c = ini_get_p(l, INI_CLASS, "class_name");
    return strfmt("%s\n%s", d != nullptr ? d : "", c != nullptr ? c : "");
}

template <typename Same>
int link_count_same(Link* l, Same same) {
    MutexHold hold(MUTEX_LINK);
    int n = 0;
    for (Link* x = link_list; x != nullptr; x = x->next)
        if (x == l || same(x)) ++n;
    return n;
}

}  // namespace

LINK::~LINK() = default;

std::vector<std::string> LINK::ini_usergroups() const {
    std::vector<std::string> out;
    if (!utoken) return out;
    for (const Wordlist* w = utoken->usergroups.get(); w != nullptr; w = w->next.get()) out.push_back(w->word);
    return out;
}

std::string LINK::ini_from_ip() const { return utoken ? utoken->from_ip : std::string(); }

int link_new(Link** ll) {
    auto l = std::make_unique<Link>();
    time_t now = time(nullptr);
    l->tick_start = lib_msec_now();
    l->time_open = static_cast<int>(now);
    l->get_accept = static_cast<int>(now);
    fact_init(l->facts);
    const char* style = ini_get(nullptr, INI_GLOBAL_STYLE);
    if (style != nullptr && strcasecmp(style, "windows") == 0) l->dirstyle = 1;
    {
        MutexHold hold(MUTEX_LINK);
        l->next = link_list;
        link_list = l.get();
        ++nlinks;
        if (nlinks > peak) peak = nlinks;
    }
    *ll = l.release();
    return 1;
}

void link_remove(Link* l) {
    MutexHold hold(MUTEX_LINK);
    for (Link** p = &link_list; *p != nullptr; p = &(*p)->next) {
        if (*p == l) {
            *p = l->next;
            l->next = nullptr;
            --nlinks;
            return;
        }
    }
}

void link_free(Link** ll) {
    if (ll == nullptr || *ll == nullptr) return;
    Link* l = *ll;
    user_logoff(l->utoken);
    l->c.reset();
    l->listen.reset();
    l->cdata.reset();
    ini_free(l);
    link_remove(l);
    delete l;
    *ll = nullptr;
}

int link_peak() {
    MutexHold hold(MUTEX_LINK);
    return peak;
}

int link_nlinks() {
    MutexHold hold(MUTEX_LINK);
    return nlinks;
}

int link_sameip(Link* l) {
    return link_count_same(l, [l](Link* x) { return x->ipnum == l->ipnum; });
}

// Only logged-in sessions count: a session that has sent USER alone holds
// nothing of the user's.
int link_sameuser(Link* l) {
    return link_count_same(l, [l](Link* x) {
        return (x->needauth.load() == 0 || x->login_claim.load() != 0) &&
               strcasecmp(x->user.c_str(), l->user.c_str()) == 0;
    });
}

int link_sameclass(Link* l) {
    std::string mine = class_key(l);
    if (mine.empty()) return 1;
    return link_count_same(l, [&mine](Link* x) { return class_key(x) == mine; });
}

void link_exit() {
    MutexHold hold(MUTEX_LINK);
    for (Link* x = link_list; x != nullptr; x = x->next) x->closing.store(1);
}

std::string& link_file(Link* l, const char* fname, std::string& out) {
    std::string d = domain_dir(l);
    return ini_domain_file(out, d.c_str(), fname);
}

std::string& link_log_file(Link* l, const char* fname, std::string& out) {
    std::string d = domain_dir(l);
    return ini_domain_log_file(out, d.c_str(), fname);
}

void link_state_set(LINK* l, std::string_view text) {
    std::lock_guard<std::mutex> g(l->state_mx_);
    l->state_.assign(text.substr(0, kLinkStateMax));
}

std::string link_state_get(LINK* l) {
    std::lock_guard<std::mutex> g(l->state_mx_);
    return l->state_;
}

void link_dump(Chan* out) {
    MutexHold hold(MUTEX_LINK);
    int now = static_cast<int>(time(nullptr));
    for (Link* x = link_list; x != nullptr; x = x->next) {
        if (x->hide) continue;
        std::string st = link_state_get(x);
        tcp_printf(out, "%.100s %.100s %.100s %ds %.200s\r\n", x->ipnum.c_str(), x->myip.c_str(),
                   x->user.c_str(), now - x->time_open, st.c_str());
    }
}

}  // namespace korv
