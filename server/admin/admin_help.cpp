// The manual in the administration: /korvane/manual/<page>.htm and /help/
// render index.htm, whose ||setting_description|| is the page asked for, the
// reference of every setting, or the settings a search finds.
#include <strings.h>

#include <cstring>
#include <string>

#include "base/fmt.h"
#include "server/admin/manual.h"
#include "server/admin/settings_pages.h"
#include "server/admin/webadmin.h"

namespace korv {

namespace {

constexpr char kManualPrefix[] = "/korvane/manual/";
constexpr size_t kSearchMax = 100;

const MANUAL_PAGE* find_page(std::string_view name) {
    for (int i = 0; i < manual_page_count; ++i)
        if (name == manual_pages[i].name) return &manual_pages[i];
    return nullptr;
}

bool contains_nc(std::string_view hay, std::string_view needle) {
    if (needle.empty()) return true;
    for (size_t i = 0; i + needle.size() <= hay.size(); ++i)
        if (strncasecmp(hay.data() + i, needle.data(), needle.size()) == 0) return true;
    return false;
}

std::string setting_html(const MANUAL_SETTING& s) {
    return strfmt(
        "<article class=\"setting\" id=\"set-%s\">\n<h3><code>%s</code></h3>\n"
        "<p class=\"muted\">%s setting, type %s, default %s.</p>\n<p>%s</p>\n"
        "<p>Example: <code>%s</code></p>\n</article>\n",
        s.name, s.name, s.where, web_encode(s.type).c_str(),
        *s.dflt != 0 ? strfmt("<code>%s</code>", web_encode(s.dflt).c_str()).c_str() : "none",
        web_encode(s.what).c_str(), web_encode(s.example).c_str());
}

std::string reference(std::string_view screen) {
    std::string h;
    for (int i = 0; i < manual_setting_count; ++i)
        if (screen.empty() || screen == manual_settings[i].screen) h += setting_html(manual_settings[i]);
    return h;
}

std::string contents() {
    std::string h = "<nav class=\"card\"><h2>Screens</h2>\n<ul class=\"links\">\n";
    for (int i = 0; i < manual_page_count; ++i)
        strfmt_append(h, "<li id=\"%s\"><a href=\"%s%s.htm\">%s</a></li>\n", manual_pages[i].name, kManualPrefix,
                      manual_pages[i].name, manual_pages[i].title);
    h += "</ul></nav>\n";
    return h;
}

}  // namespace

void mgr_do_setting_description(WINK* w) {
    const std::string& search = web_var_find(w, "manual_search");
    if (!search.empty()) {
        std::string h;
        int found = 0;
        for (int i = 0; i < manual_setting_count; ++i) {
            const MANUAL_SETTING& s = manual_settings[i];
            if (contains_nc(s.name, search) || contains_nc(s.what, search) || contains_nc(s.example, search)) {
                h += setting_html(s);
                ++found;
            }
        }
        web_out(w, strfmt("<p class=\"msg\">%d settings mention &quot;%s&quot;.</p>\n", found,
                          web_encode(search).c_str()));
        web_out(w, h);
        return;
    }
    const MANUAL_PAGE* p = find_page(web_var_find(w, "manual_page"));
    if (p == nullptr) {
        web_out(w, contents());
        web_out(w, "<h2 id=\"reference\">Every setting</h2>\n");
        web_out(w, reference(""));
        return;
    }
    web_out(w, strfmt("<p><a href=\"%sindex.htm\">Manual</a> &rsaquo; %s</p>\n", kManualPrefix, p->title));
    web_out(w, p->html);
    web_out(w, "<h2>Its settings</h2>\n");
    web_out(w, reference(p->name));
}

int my_web_show_help(WINK* w, const char* path) {
    std::string_view p = path != nullptr ? path : "";
    std::string page = "index";
    if (p.substr(0, strlen(kManualPrefix)) == kManualPrefix) {
        std::string_view rest = p.substr(strlen(kManualPrefix));
        if (rest.size() > 4 && rest.substr(rest.size() - 4) == ".htm") rest.remove_suffix(4);
        if (find_page(rest) != nullptr) page = std::string(rest);
    }
    web_var_add(w, "manual_page", page);
    return mgr_show(w, "index.htm");
}

int mgr_cmd_search_help(WINK* w) {
    std::string q = web_input(w, "search");
    if (q.size() > kSearchMax) q.resize(kSearchMax);
    web_var_add(w, "search", q);
    web_var_add(w, "manual_search", q);
    return mgr_show(w, "index.htm");
}

}  // namespace korv
