// The template variables of one request (the WINK's list) and the
// substitution of ||name|| in a piece, every value escaped as HTML.
#include <strings.h>

#include <string>
#include <string_view>

#include "server/admin/webtpl.h"

namespace korv {

namespace {

const std::string kEmpty;

bool same_name(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

VLIST* var_lookup(const WINK* l, std::string_view var) {
    for (VLIST* v = l->vlist.get(); v != nullptr; v = v->next.get())
        if (same_name(v->var, var)) return v;
    return nullptr;
}

// Values come from people and clients; a page shows them as text.
void append_escaped(std::string& out, std::string_view s) { out += web_encode(s); }

// The text ||name|| stands for: the escaped value, or for an empty
// name_checked the word "checked" when `name` is true in any case.
std::string substituted(const WINK* l, std::string_view name) {
    const std::string& val = web_var_find(l, name);
    std::string out;
    if (!val.empty()) {
        append_escaped(out, val);
        return out;
    }
    size_t at = name.find("_checked");
    if (at != std::string_view::npos && strcasecmp(web_var_find(l, name.substr(0, at)).c_str(), "true") == 0)
        out = "checked";
    return out;
}

}  // namespace

void web_var_add(WINK* l, std::string_view var, const char* val) {
    if (val == nullptr) return;
    if (VLIST* v = var_lookup(l, var)) {
        v->val = val;
        return;
    }
    auto v = std::make_unique<VLIST>();
    v->var.assign(var);
    v->val = val;
    v->next = std::move(l->vlist);
    l->vlist = std::move(v);
}

void web_var_add(WINK* l, std::string_view var, const std::string& val) { web_var_add(l, var, val.c_str()); }

void web_var_true(WINK* l, std::string_view name, int t) { web_var_add(l, name, t ? "checked" : ""); }

const std::string& web_var_find(const WINK* l, std::string_view var) {
    const VLIST* v = var_lookup(l, var);
    return v != nullptr ? v->val : kEmpty;
}

void web_var_free(WINK* l) {
    l->head.reset();
    l->vlist.reset();
}

void web_var_replace(const WINK* l, std::string_view line, std::string& out, int outlen) {
    out.clear();
    size_t i = 0;
    while (i < line.size()) {
        if (line.compare(i, 2, "||") == 0) {
            size_t close = line.find("||", i + 2);
            if (close != std::string_view::npos) {
                // A value goes in whole or not at all, so an entity is never cut.
                std::string val = substituted(l, line.substr(i + 2, close - i - 2));
                outlen -= static_cast<int>(val.size());
                if (outlen > 0) out += val;
                i = close + 2;
                continue;
            }
            ++i;  // an unclosed pair loses its first bar
        }
        if (outlen <= 1) break;
        out += line[i++];
        --outlen;
    }
}

}  // namespace korv
