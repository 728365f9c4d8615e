// Directory scans: one-directory walks by wild-card (wild_first/next/end)
// and sorted in-memory scans (tree_simple, tree_first, recursive with an
// access callback). Each handle belongs to the thread that opened it; any
// number of threads may scan at once.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace korv {

inline constexpr size_t kWildPathMax = 999;     // wild_split keeps this much of its input
inline constexpr size_t kSymlinkMax = 999;      // a link's target is cut here
inline constexpr size_t kTreeBasePartMax = 500; // each half of tree_base's "%.500s/%.500s"
inline constexpr int kTreeNestMax = 40;         // levels a recursive scan goes below the top
inline constexpr int kTreePartsMax = 99;        // path parts tree_first walks

// One directory entry. `name` is the bare name from wild_next and the full
// path from the tree scans; `symlink` is the target of a link.
struct WILD_DATA {
    int dev = 0;
    int inode = 0;
    int isdir = 0;
    int islink = 0;
    int isnorm = 0;  // a plain file
    int issub = 0;   // found below the top level of a recursive scan
    off_t size = 0;
    int mode = 0;
    int nlinks = 0;
    int gid = 0;
    int uid = 0;
    std::string symlink;
    std::string name;
    time_t time_create = 0;  // st_ctime
    time_t time_access = 0;
    time_t time_write = 0;
};
using WildData = WILD_DATA;

struct DirCloser {
    void operator()(DIR* d) const { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

struct WILD_HANDLE {
    DirPtr h;
    std::string path;
    std::string wild;
};
using WildHandle = WILD_HANDLE;
using WildHandlePtr = std::unique_ptr<WILD_HANDLE>;

// The directory a recursive scan may enter: 0 skips it. `p1` is the
// caller's pointer given to tree_first.
using TreeAccessFn = int (*)(void* p1, const char* dir);

struct Tree_Handle {
    int recursive = 0;
    TreeAccessFn access_check = nullptr;
    void* p1 = nullptr;
    std::vector<WILD_DATA> wd;  // the entries, in the order they are handed out
    size_t cur = 0;
};
using TreeHandle = Tree_Handle;
using TreeHandlePtr = std::unique_ptr<Tree_Handle>;

// Splits a path with a wild-card into directory and pattern: "a/b*" gives
// "a" and "b*", "b*" gives "." and "b*", an existing directory gives itself
// and "*". One trailing "/" and then one trailing "\" are dropped first.
void wild_split(const char* in, std::string& path, std::string& wild);

// Opens the scan of `wild` and gives its first entry: 1, or 0 with `hh`
// null when the directory cannot be opened or nothing matches (errno then
// says why: that of opendir, or 0). "." and ".." are entries like others.
int wild_first(WildHandlePtr& hh, const char* wild, WILD_DATA* data);
// The next matching entry: 1, or 0 at the end. `name` is the bare name.
int wild_next(WILD_HANDLE* h, WILD_DATA* data);
void wild_end(WildHandlePtr& hh);  // null is fine

// One-level sorted scan of `wild` without "." and "..", full paths in
// `name`. 1 with the first entry in `data`; 0 and a null handle when there
// is none, with errno ENOENT if the directory holds no entries at all, 0 if
// entries exist but none matched, or the error of opening the directory.
// A handle that is not null on entry is a caller's bug: logged, then abort.
int tree_simple(TreeHandlePtr& th, const char* wild, void* p1, WILD_DATA* data);

// Scan of a path whose parts may hold "*" in any place ("/a/*/b*"). With
// `rec`, subdirectories are entered (never "." or "..", never links) down
// to kTreeNestMax levels, and their entries have `issub` 1; entries are
// sorted by level, each level before the levels below it. A directory
// scanned by a pattern with "*" is first offered to `access_check` (if
// set), which can skip it. Results and errno as tree_simple.
int tree_first(TreeHandlePtr& th, const char* wild, int rec, TreeAccessFn access_check, void* p1,
               WILD_DATA* data);
int tree_next(Tree_Handle* h, WILD_DATA* data);   // 1, or 0 at the end
int tree_reset(Tree_Handle* h, WILD_DATA* data);  // back to the first; 0 if empty
void tree_end(TreeHandlePtr& hh);                 // null is fine

// Sorts by `name`, byte order (so case-sensitive), ascending.
void tree_sort(std::vector<WILD_DATA>& dlist);

// The "total" of a directory in a recursive listing: the sizes of plain
// files found below the top whose directory is `path`, over 1000.
int tree_tot_subdir(const Tree_Handle* h, const char* path);

// `base`/`wild` ("%.500s/%.500s", with a doubled leading "/" closed up),
// or `wild` alone when `base` is empty. Returns 1.
int tree_base(std::string& bf, const char* base, const char* wild);

// Bare names of the entries matching `wild`, `namessize` at most; sets
// `*matches` and returns it. wild_free empties the list again.
int wild_find(const char* wild, std::vector<std::string>& names, int namessize, int* matches);
void wild_free(std::vector<std::string>& names, int* matches);

}  // namespace korv
