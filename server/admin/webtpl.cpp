// The page template engine: cuts lines into pieces, runs the directives
// (conditionals, includes, generators, list bodies) and writes the rest
// through substitution; also the process-wide generator list and the
// directory the pages are read from.
#include "server/admin/webtpl.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/fmt.h"
#include "common/emsg.h"
#include "net/tcp.h"

namespace korv {

namespace {

constexpr int kPieceMax = kTplLineArea - 2;  // web_show_line stops a piece here
constexpr int kIfdefNameMax = 100;
constexpr int kCallbackNameMax = 130;
constexpr int kIncludeDepthMax = 16;  // files open at once, the page itself included
constexpr int kListSlack = 10;

// How far a piece lets rendering go: on, stop this file (a list body too
// big), or stop the page (the connection failed).
enum class Go { On, StopFile, Failed };

std::mutex dir_mx;
std::string web_dir = "web";

struct Generator {
    std::string name;
    WebPageFn fn;
};
std::mutex cb_mx;
std::vector<Generator> cblist;  // the latest added is at the back

// Include depth of the page this thread is rendering.
thread_local int include_depth = 0;

bool starts(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

bool same_name(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The row of `mappings` for `filename` whose `directive` + id + "||" begins `piece`.
const WEB_CB_MAPPINGS* find_row(std::string_view piece, std::string_view directive,
                                const WEB_CB_MAPPINGS* mappings, const char* filename) {
    if (mappings == nullptr || filename == nullptr || !starts(piece, directive)) return nullptr;
    std::string_view rest = piece.substr(directive.size());
    for (const WEB_CB_MAPPINGS* m = mappings; m->begin_list_id != nullptr; ++m) {
        if (m->default_filename == nullptr || strcasecmp(m->default_filename, filename) != 0) continue;
        std::string_view id = m->begin_list_id;
        if (starts(rest, id) && starts(rest.substr(id.size()), "||")) return m;
    }
    return nullptr;
}

WebPageFn find_generator(std::string_view name) {
    std::lock_guard<std::mutex> g(cb_mx);
    for (auto it = cblist.rbegin(); it != cblist.rend(); ++it)
        if (same_name(it->name, name)) return it->fn;
    return nullptr;
}

// One side of ||ifequal||: the variable's value when it has one, else the text itself.
std::string_view ifequal_side(const WINK* l, std::string_view side) {
    const std::string& v = web_var_find(l, side);
    return v.empty() ? side : std::string_view(v);
}

bool ifequal_holds(const WINK* l, std::string_view args) {
    size_t bar = args.find('|');
    if (bar == std::string_view::npos) return false;
    std::string_view a = args.substr(0, bar);
    std::string_view rest = args.substr(bar + 1);
    if (starts(rest, "|")) rest.remove_prefix(1);
    bar = rest.find('|');
    if (bar == std::string_view::npos) return false;
    std::string_view b = rest.substr(0, bar);
    return ifequal_side(l, a) == ifequal_side(l, b);
}

void start_skip(WINK* l) {
    l->ifskip = 1;
    l->nif = 0;
}

Go show_file(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings);

Go show_skipping(WINK* l, std::string_view piece) {
    if (starts(piece, "||ifdef||") || starts(piece, "||ifequal||")) {
        l->nif++;
    } else if (starts(piece, "||else||")) {
        if (l->nif == 0) l->ifskip = 0;
    } else if (starts(piece, "||endif||")) {
        if (l->nif == 0)
            l->ifskip = 0;
        else
            l->nif--;
    }
    return Go::On;
}

Go show_piece(WINK* l, std::string_view piece, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    if (piece.empty()) return Go::On;
    if (l->ifskip) return show_skipping(l, piece);

    if (mappings_can_do_end_list(piece, mappings, filename)) {
        if (!l->tpl) return Go::On;
        std::unique_ptr<std::string> unit = std::move(l->tpl);
        return do_mapping_cb(piece, l, *unit, mappings, filename) ? Go::On : Go::Failed;
    }
    if (l->tpl) {
        if (l->tpl->size() + piece.size() + kListSlack > static_cast<size_t>(kTplListMax)) {
            imsg("List body in %s is over %d bytes, page cut", filename != nullptr ? filename : "", kTplListMax);
            return Go::StopFile;
        }
        l->tpl->append(piece);
        return Go::On;
    }
    if (starts(piece, "||ifdef||")) {
        std::string_view name = piece.substr(9, kIfdefNameMax);
        name = name.substr(0, name.find("||"));
        if (web_var_find(l, name).empty()) start_skip(l);
        return Go::On;
    }
    if (starts(piece, "||endif||")) return Go::On;
    if (starts(piece, "||else||")) {
        start_skip(l);
        return Go::On;
    }
    if (mappings_start_is_valid(piece, mappings, filename)) {
        l->tpl = std::make_unique<std::string>();
        l->tpl->reserve(kTplListMax);
        return Go::On;
    }
    if (starts(piece, "||ifequal||")) {
        if (!ifequal_holds(l, piece.substr(11))) start_skip(l);
        return Go::On;
    }
    if (starts(piece, "||include||")) {
        std::string_view name = piece.substr(11);
        name = name.substr(0, name.find('|'));
        return show_file(l, std::string(name).c_str(), mappings) == Go::Failed ? Go::Failed : Go::On;
    }
    if (starts(piece, "||")) {
        std::string_view name = piece.substr(2);
        size_t close = name.find("||");
        if (close != std::string_view::npos) {
            if (WebPageFn fn = find_generator(name.substr(0, std::min<size_t>(close, kCallbackNameMax)))) {
                fn(l);
                return Go::On;
            }
        }
    }
    std::string out;
    web_var_replace(l, piece, out, kTplPieceOut - 1);
    if (out.empty()) return Go::On;
    return web_out(l, out) ? Go::On : Go::Failed;
}

// Literal text up to a bar, then from the bar to a blank, '<' or '>'.
Go show_text(WINK* l, std::string_view bf, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    Go go = Go::On;
    size_t i = 0;
    bool token = false;
    while (i < bf.size() && go == Go::On) {
        size_t end = i;
        if (token) {
            while (end < bf.size() && bf[end] != ' ' && bf[end] != '<' && bf[end] != '>') ++end;
        } else {
            end = bf.find('|', i);
            if (end == std::string_view::npos) end = bf.size();
        }
        bool cut = end - i > static_cast<size_t>(kPieceMax);
        if (cut) end = i + kPieceMax;
        go = show_piece(l, bf.substr(i, end - i), mappings, filename);
        if (cut) break;  // the work area is full: the rest of the text is lost
        i = end;
        token = !token;
    }
    return go;
}

struct FileClose {
    void operator()(FILE* f) const { std::fclose(f); }
};

Go show_file(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings) {
    if (include_depth >= kIncludeDepthMax) {
        imsg("Template %s not shown: includes nest deeper than %d", fname, kIncludeDepthMax);
        web_log("Showfile (%s) refused, includes nest deeper than %d\n", fname, kIncludeDepthMax);
        return Go::On;
    }
    struct Depth {
        Depth() { ++include_depth; }
        ~Depth() { --include_depth; }
    } depth;

    l->ifskip = 0;
    l->ifin = 0;
    web_log("Showfile (%s)\n", fname);
    web_var_add(l, "unique", strfmt("%lld", static_cast<long long>(time(nullptr))));
    web_var_add(l, "showing_template", fname);

    std::string path = web_file(fname);
    std::unique_ptr<FILE, FileClose> f(std::fopen(path.c_str(), "r"));
    if (!f) {
        std::string text = strfmt("HTTP/1.0 550 Sorry, no such template (%.200s)\r\n\r\nNo such template\r\n", path.c_str());
        return web_out(l, text) ? Go::On : Go::Failed;
    }
    char line[kTplReadLine + 1];
    while (std::fgets(line, sizeof line, f.get()) != nullptr) {
        Go go = show_text(l, std::string_view(line, strlen(line)), mappings, fname);
        if (go == Go::Failed) return go;
        if (go == Go::StopFile) break;
    }
    return Go::On;
}

}  // namespace

void web_set_dir(std::string_view dir) {
    std::lock_guard<std::mutex> g(dir_mx);
    web_dir.assign(dir);
}

std::string web_file(std::string_view fname) {
    std::string dir;
    {
        std::lock_guard<std::mutex> g(dir_mx);
        dir = web_dir;
    }
    return strfmt("%.200s/%.*s", dir.c_str(), static_cast<int>(std::min<size_t>(fname.size(), 100)), fname.data());
}

int web_out(WINK* l, std::string_view bytes) {
    if (l->sink != nullptr) {
        l->sink->append(bytes);
        return 1;
    }
    if (l->c == nullptr) return 0;
    return tcp_write(l->c, bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size()) ? 1 : 0;
}

int web_showfile_to(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings, std::string& out) {
    std::string* before = l->sink;
    l->sink = &out;
    int r = web_showfile(l, fname, mappings);
    l->sink = before;
    return r;
}

int web_showfile(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings) {
    return show_file(l, fname, mappings) == Go::Failed ? 0 : 1;
}

int web_showfile_first(WINK* l, const char* fname, const WEB_CB_MAPPINGS* mappings) {
    return web_showfile(l, fname, mappings);
}

int web_show_line(WINK* l, std::string_view bf, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    return show_text(l, bf, mappings, filename) == Go::On ? 1 : 0;
}

int web_show_linex(WINK* l, std::string_view piece, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    return show_piece(l, piece, mappings, filename) == Go::On ? 1 : 0;
}

void web_callback_add(const char* name, WebPageFn fn) {
    if (name == nullptr || fn == nullptr) return;
    std::lock_guard<std::mutex> g(cb_mx);
    cblist.push_back(Generator{name, fn});
}

int web_callback_remove(const char* name) {
    if (name == nullptr) return 0;
    std::lock_guard<std::mutex> g(cb_mx);
    for (auto it = cblist.rbegin(); it != cblist.rend(); ++it) {
        if (same_name(it->name, name)) {
            cblist.erase(std::next(it).base());
            return 1;
        }
    }
    return 0;
}

void web_callback_free() {
    std::lock_guard<std::mutex> g(cb_mx);
    cblist.clear();
}

int mappings_start_is_valid(std::string_view begin, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    return find_row(begin, "||begin_list", mappings, filename) != nullptr;
}

int mappings_can_do_end_list(std::string_view end_list, const WEB_CB_MAPPINGS* mappings, const char* filename) {
    return find_row(end_list, "||end_list", mappings, filename) != nullptr;
}

int do_mapping_cb(std::string_view action, WINK* l, const std::string& unit, const WEB_CB_MAPPINGS* mappings,
                  const char* filename) {
    const WEB_CB_MAPPINGS* row = find_row(action, "||end_list", mappings, filename);
    if (row == nullptr || row->web_cb_fn == nullptr) return 1;
    return row->web_cb_fn(l, unit, mappings, filename);
}

}  // namespace korv
