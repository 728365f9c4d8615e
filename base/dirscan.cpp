// Directory scans by wild-card: the one-directory walk over a DIR owned by
// its handle, and the sorted tree scans (plain and recursive) built on it.
#include "base/dirscan.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/report.h"
#include "base/wild.h"

namespace korv {

namespace {

const char* or_empty(const char* s) { return s ? s : ""; }

bool is_dot_or_dotdot(const char* n) {
    return n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'));
}

bool has_star(const std::string& s) { return s.find('*') != std::string::npos; }

std::string join(const std::string& base, const std::string& name) {
    std::string out;
    tree_base(out, base.c_str(), name.c_str());
    return out;
}

// The next entry of a directory that only this thread reads: glibc's
// readdir is safe per DIR, which is all the reentrant form ever gave.
struct dirent* safe_readdir(DIR* d) { return readdir(d); }

void fill_data(const struct stat& st, const std::string& full, const char* name, WILD_DATA* data) {
    *data = WILD_DATA{};
    data->name = name;
    data->dev = static_cast<int>(st.st_dev);
    data->inode = static_cast<int>(st.st_ino);
    data->size = st.st_size;
    data->mode = static_cast<int>(st.st_mode);
    data->nlinks = static_cast<int>(st.st_nlink);
    data->uid = static_cast<int>(st.st_uid);
    data->gid = static_cast<int>(st.st_gid);
    data->time_create = st.st_ctime;
    data->time_access = st.st_atime;
    data->time_write = st.st_mtime;
    data->islink = S_ISLNK(st.st_mode) ? 1 : 0;
    data->isdir = S_ISDIR(st.st_mode) ? 1 : 0;
    data->isnorm = (S_ISREG(st.st_mode) && !data->isdir) ? 1 : 0;
    if (data->islink) {
        char target[kSymlinkMax + 1];
        const ssize_t n = readlink(full.c_str(), target, kSymlinkMax);
        data->symlink = n >= 0 ? std::string(target, static_cast<size_t>(n)) : "readlink_failed";
    }
}

// What a tree scan saw, to say afterwards why it found nothing.
struct ScanNote {
    bool opened = false;     // the top directory could be read
    bool any_entry = false;  // it held something besides "." and ".."
    int open_errno = 0;
};

// Reads the entries of `dir` that match `pat`, with full paths, sorted.
std::vector<WILD_DATA> read_level(const std::string& dir, const std::string& pat, int issub,
                                  bool skip_dots, ScanNote* note) {
    std::vector<WILD_DATA> out;
    WILD_HANDLE h;
    h.h.reset(opendir(dir.c_str()));
    if (!h.h) {
        if (note && !note->opened) note->open_errno = errno;
        return out;
    }
    if (note) note->opened = true;
    h.path = dir;
    h.wild = "*";
    WILD_DATA d;
    while (wild_next(&h, &d)) {
        if (!is_dot_or_dotdot(d.name.c_str()) && note) note->any_entry = true;
        if (skip_dots && is_dot_or_dotdot(d.name.c_str())) continue;
        if (!match_wild(pat.c_str(), d.name.c_str())) continue;
        d.name = join(dir, d.name);
        d.issub = issub;
        out.push_back(std::move(d));
    }
    tree_sort(out);
    return out;
}

const char* bare_name(const std::string& full) {
    const size_t slash = full.rfind('/');
    return full.c_str() + (slash == std::string::npos ? 0 : slash + 1);
}

// One level of a tree scan, then (when recursive) each subdirectory in turn.
void tree_scan2(Tree_Handle& h, const std::string& dir, const std::string& pat, int depth,
                ScanNote* note) {
    if (has_star(pat) && h.access_check && !h.access_check(h.p1, dir.c_str())) return;
    std::vector<WILD_DATA> level = read_level(dir, pat, depth > 0 ? 1 : 0, false, note);
    const size_t first = h.wd.size();
    h.wd.insert(h.wd.end(), std::make_move_iterator(level.begin()), std::make_move_iterator(level.end()));
    if (!h.recursive || depth >= kTreeNestMax) return;
    const size_t last = h.wd.size();
    for (size_t i = first; i < last; ++i) {
        if (!h.wd[i].isdir || h.wd[i].islink || is_dot_or_dotdot(bare_name(h.wd[i].name))) continue;
        const std::string sub = h.wd[i].name;  // copied: wd grows below
        tree_scan2(h, sub, "*", depth + 1, nullptr);
    }
}

// Walks the parts of a path: plain parts are descended at once; a part with
// "*" in the middle fans out over the directories it matches.
void tree_scan(Tree_Handle& h, std::string dir, const std::vector<std::string>& parts, size_t idx,
               ScanNote* note) {
    while (idx + 1 < parts.size() && !has_star(parts[idx])) dir = join(dir, parts[idx++]);
    const std::string& part = parts[idx];
    if (idx + 1 == parts.size()) {
        if (!has_star(part)) {
            const std::string full = join(dir, part);
            struct stat st {};
            if (stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
                tree_scan2(h, full, "*", 0, note);
                return;
            }
        }
        tree_scan2(h, dir.empty() ? "." : dir, part, 0, note);
        return;
    }
    const std::string from = dir.empty() ? "." : dir;
    if (h.access_check && !h.access_check(h.p1, from.c_str())) return;
    for (const WILD_DATA& d : read_level(from, part, 0, true, note)) {
        if (d.isdir && !d.islink) tree_scan(h, d.name, parts, idx + 1, nullptr);
    }
}

// Cuts a path at "/" into at most kTreePartsMax parts, the last keeping any
// rest; a leading "/" stays with the first part.
std::vector<std::string> tree_parts(const std::string& path) {
    std::vector<std::string> parts;
    size_t i = 0;
    std::string lead;
    if (!path.empty() && path[0] == '/') {
        lead = "/";
        while (i < path.size() && path[i] == '/') ++i;
    }
    while (i < path.size()) {
        if (parts.size() + 1 == static_cast<size_t>(kTreePartsMax)) {
            parts.push_back(path.substr(i));
            break;
        }
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        parts.push_back(path.substr(i, j - i));
        i = j;
        while (i < path.size() && path[i] == '/') ++i;
    }
    if (!lead.empty()) {
        if (parts.empty()) parts.push_back(lead);
        else parts[0] = lead + parts[0];
    }
    return parts;
}

// Ends a tree scan: the first entry out, or a null handle and the reason
// in errno.
int tree_finish(TreeHandlePtr& th, const ScanNote& note, WILD_DATA* data) {
    if (th->wd.empty()) {
        th.reset();
        if (!note.opened) errno = note.open_errno;
        else errno = note.any_entry ? 0 : ENOENT;
        return 0;
    }
    th->cur = 0;
    if (data) *data = th->wd[0];
    return 1;
}

void tree_handle_check(const TreeHandlePtr& th) {
    if (th) {
        base_report("Tree handle was not null\n");
        abort();
    }
}

}  // namespace

void wild_split(const char* in, std::string& path, std::string& wild) {
    in = or_empty(in);
    std::string s(in, strnlen(in, kWildPathMax));
    if (s.size() > 1 && s.back() == '/') s.pop_back();
    if (s.size() > 1 && s.back() == '\\') s.pop_back();
    const size_t slash = s.rfind('/');
    if (slash == std::string::npos) {
        path = ".";
        wild = s;
        return;
    }
    struct stat st {};
    if (stat(s.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        path = s;
        wild = "*";
        return;
    }
    path = slash == 0 ? "/" : s.substr(0, slash);
    wild = s.substr(slash + 1);
}

int wild_first(WildHandlePtr& hh, const char* wild, WILD_DATA* data) {
    hh.reset();
    auto h = std::make_unique<WILD_HANDLE>();
    wild_split(wild, h->path, h->wild);
    h->h.reset(opendir(h->path.c_str()));
    if (!h->h) return 0;
    if (!wild_next(h.get(), data)) {
        errno = 0;
        return 0;
    }
    hh = std::move(h);
    return 1;
}

int wild_next(WILD_HANDLE* h, WILD_DATA* data) {
    if (h == nullptr || !h->h) return 0;
    for (;;) {
        const struct dirent* e = safe_readdir(h->h.get());
        if (e == nullptr) return 0;
        if (!match_wild(h->wild.c_str(), e->d_name)) continue;
        const std::string full = join(h->path, e->d_name);
        struct stat st {};
        if (lstat(full.c_str(), &st) != 0) continue;
        WILD_DATA spare;
        fill_data(st, full, e->d_name, data ? data : &spare);
        return 1;
    }
}

void wild_end(WildHandlePtr& hh) { hh.reset(); }

int tree_simple(TreeHandlePtr& th, const char* wild, void* p1, WILD_DATA* data) {
    tree_handle_check(th);
    th = std::make_unique<Tree_Handle>();
    th->p1 = p1;
    std::string path, pat;
    wild_split(wild, path, pat);
    ScanNote note;
    th->wd = read_level(path, pat, 0, true, &note);
    return tree_finish(th, note, data);
}

int tree_first(TreeHandlePtr& th, const char* wild, int rec, TreeAccessFn access_check, void* p1,
               WILD_DATA* data) {
    tree_handle_check(th);
    th = std::make_unique<Tree_Handle>();
    th->recursive = rec;
    th->access_check = access_check;
    th->p1 = p1;
    ScanNote note;
    const std::vector<std::string> parts = tree_parts(or_empty(wild));
    if (!parts.empty()) tree_scan(*th, "", parts, 0, &note);
    else note.open_errno = ENOENT;
    return tree_finish(th, note, data);
}

int tree_next(Tree_Handle* h, WILD_DATA* data) {
    if (h == nullptr || h->cur + 1 >= h->wd.size()) return 0;
    ++h->cur;
    if (data) *data = h->wd[h->cur];
    return 1;
}

int tree_reset(Tree_Handle* h, WILD_DATA* data) {
    if (h == nullptr || h->wd.empty()) return 0;
    h->cur = 0;
    if (data) *data = h->wd[0];
    return 1;
}

void tree_end(TreeHandlePtr& hh) { hh.reset(); }

void tree_sort(std::vector<WILD_DATA>& dlist) {
    if (dlist.size() < 2) return;
    std::stable_sort(dlist.begin(), dlist.end(), [](const WILD_DATA& a, const WILD_DATA& b) {
        return strcmp(a.name.c_str(), b.name.c_str()) < 0;
    });
}

int tree_tot_subdir(const Tree_Handle* h, const char* path) {
    if (h == nullptr) return 0;
    std::string want = or_empty(path);
    if (want.size() > 1 && want.back() == '/') want.pop_back();
    double tot = 0;
    for (const WILD_DATA& d : h->wd) {
        if (!d.issub || !d.isnorm) continue;
        const size_t slash = d.name.rfind('/');
        if (slash == std::string::npos) continue;
        const std::string dir = slash == 0 ? std::string("/") : d.name.substr(0, slash);
        if (dir == want) tot += static_cast<double>(d.size);
    }
    return static_cast<int>(tot / 1000);
}

int tree_base(std::string& bf, const char* base, const char* wild) {
    base = or_empty(base);
    wild = or_empty(wild);
    if (*base == '\0') {
        bf = wild;
        return 1;
    }
    const std::string b(base, strnlen(base, kTreeBasePartMax));
    const std::string w(wild, strnlen(wild, kTreeBasePartMax));
    bf = b + "/" + w;
    if (bf.compare(0, 2, "//") == 0) bf = b + w;
    return 1;
}

int wild_find(const char* wild, std::vector<std::string>& names, int namessize, int* matches) {
    names.clear();
    WildHandlePtr h;
    WILD_DATA d;
    if (namessize > 0 && wild_first(h, wild, &d)) {
        do {
            names.push_back(d.name);
        } while (static_cast<int>(names.size()) < namessize && wild_next(h.get(), &d));
    }
    wild_end(h);
    const int n = static_cast<int>(names.size());
    if (matches) *matches = n;
    return n;
}

void wild_free(std::vector<std::string>& names, int* matches) {
    names.clear();
    names.shrink_to_fit();
    if (matches) *matches = 0;
}

}  // namespace korv
