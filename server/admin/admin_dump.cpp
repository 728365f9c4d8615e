// The dump page: the configuration as the server holds it now, in the file's
// own syntax, shown as text.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "server/admin/settings_pages.h"
#include "server/admin/webadmin.h"

namespace korv {

namespace {

struct MemFile {
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = nullptr;
    MemFile() { f = open_memstream(&buf, &len); }
    ~MemFile() {
        if (f != nullptr) fclose(f);
        free(buf);
    }
    std::string take() {
        if (f == nullptr) return "";
        fclose(f);
        f = nullptr;
        return std::string(buf, len);
    }
};

}  // namespace

void mgr_do_dump(WINK* w) {
    MemFile m;
    vini_lock();
    int n = vini_domains_count();
    for (int d = 0; d < n && m.f != nullptr; ++d) vini_showconfig(m.f, d);
    vini_unlock();
    std::string text = m.take();
    web_out(w, "<pre class=\"dump\">");
    web_out(w, web_encode(text));
    web_out(w, "</pre>\n");
}

int mgr_cmd_dump(WINK* w) {
    return mgr_show(w, "dump.htm");
}

}  // namespace korv
