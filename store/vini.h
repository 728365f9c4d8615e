// The settings store: a typed configuration database of domains and classes,
// read from one text file and rewritten whole, answering lookups from every
// thread while an administrator changes settings. Knows nothing of FTP.
//
// Lifetime: tables reachable by readers are never changed. A change first
// replaces every domain by a deep copy (vini_lock_all_x), edits the copies and
// publishes them at vini_unlock_all. Sessions keep reading the tables their
// handle references; replaced tables are parked for two minutes and freed once
// only the park holds them.
#pragma once

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korv {

inline constexpr int kViniMaxParams = 18;        // parameters per setting
inline constexpr int kViniMaxTable = 500;        // setting definitions
inline constexpr int kViniMaxRef = 100;          // recorded references per table
inline constexpr int kViniMaxTokens = 80;        // tmax of a file or change line
inline constexpr int kViniLineSize = 999;        // a file line holds at most 998 characters
inline constexpr int kViniSetLineMax = 990;      // a change line is cut to this
inline constexpr int kViniWriteValueMax = 500;   // names and values are cut to this when written
inline constexpr int kViniLockWaitMs = 600000;   // any wait on the store's lock; expiry is fatal
inline constexpr int kViniFreeDelaySec = 121;    // a parked table is freed at this age
inline constexpr int kViniTableAlive = 1234;     // INITABLE::id while alive
inline constexpr int kViniTableFreed = 2222;     // INITABLE::id once freed

// Bits of INITYPE::type.
enum : int {
  VINI_MULTI = 1,    // each line adds one value to the chain
  VINI_DOMAIN = 4,   // domain-level: refused in a class, read from the domain
  VINI_VDOMAIN = 8,  // the line opens a new domain
  VINI_CLASS = 16,   // the line opens a new class
  VINI_GLOBAL = 32,  // read from the first domain, written under global_settings
};

// Parameter type codes.
enum : int { VINI_STRING = 0, VINI_PATH = 1, VINI_MB = 2, VINI_BOOL = 3, VINI_INT = 4 };

// One occurrence of a setting (one line of the file).
struct INIVAL {
  int ref = 0;                                   // unused by the store
  std::vector<std::optional<std::string>> val;   // per parameter; nullopt: not given
  std::vector<int> vali;                         // atoi of each, or 1/0 for a bool
  std::unique_ptr<INIVAL> next;                  // next occurrence in the same table

  INIVAL() = default;
  INIVAL(const INIVAL&) = delete;
  INIVAL& operator=(const INIVAL&) = delete;
  ~INIVAL();  // unwinds the chain without recursion
};
using IniVal = INIVAL;

// The definition of one setting.
struct INITYPE {
  std::string name;  // lower case
  std::string dflt;  // default of parameter 0
  std::string desc;
  int type = 0;
  int np = 0;
  std::array<char, kViniMaxParams> isop{};
  std::array<int, kViniMaxParams> ptype{};
  std::array<std::optional<std::string>, kViniMaxParams> pname;  // nullopt: unnamed
  int ismulti = 0;
};
using IniType = INITYPE;

// One domain or one class.
struct INITABLE {
  int id = kViniTableAlive;
  std::vector<std::unique_ptr<INIVAL>> table;  // heads of the chains, by setting code
  int nref = 0;
  std::array<const void*, kViniMaxRef> ref{};
  std::array<const char*, kViniMaxRef> ref_file{};
  std::array<int, kViniMaxRef> ref_line{};
  int todel = 0;
  std::vector<std::unique_ptr<INITABLE>> classes;  // domain tables only, in file order
  // Classes removed from this domain; kept with it so that no class pointer
  // taken from the domain can dangle while the domain lives.
  std::vector<std::unique_ptr<INITABLE>> removed_classes;

  INITABLE();
  INITABLE(const INITABLE&) = delete;
  INITABLE& operator=(const INITABLE&) = delete;
  ~INITABLE();
};
using IniTable = INITABLE;

// One reader's cursor. Made by vini_gethandle_real, owned by its maker.
struct INIHANDLE {
  int domain = 0;               // unused by the store
  int n = -1;                   // slot in tbl->ref, -1 if all were full
  const INIVAL* v = nullptr;    // cursor of vini_find / vini_next / vini_cur
  INITABLE* tbl = nullptr;      // the domain, referenced
  INITABLE* cls = nullptr;      // the class or null; lives with its domain
};
using IniHandle = INIHANDLE;

// A second, independent cursor over one multi-valued setting.
struct INIPARAM {
  const INIVAL* v = nullptr;
  const INITYPE* t = nullptr;
  INIHANDLE* h = nullptr;
  int x = -1;
};
using IniParam = INIPARAM;

using ViniLogFn = int (*)(const char* format, ...);
using ViniPrintFn = void (*)(const char* text);

// ---- Setup ----
int vini_init(const char* fname, ViniLogFn logfn);
int vini_add(int code, const char* xcmd, const char* dflt, int type, const char* desc);
int vini_reload();
void vini_exit();
// Where texts that the store "prints" go; standard output unless set. A null
// function restores standard output.
void vini_set_print(ViniPrintFn fn);
const char* vini_inifile();

// ---- Tokens and values ----
// Splits `line` in place into at most tmax - 5 tokens; `p` must hold tmax
// pointers. Returns the count.
int vini_token_quote(char* line, char** p, int tmax);
int is_str_true(const char* str);

// ---- Handles and references ----
int vini_gethandle_real(INIHANDLE** h, const char* file, int line);
int vini_freehandle_real(INIHANDLE** h, const char* file, int line);
inline int vini_gethandle(INIHANDLE** h, const char* file = __builtin_FILE(),
                          int line = __builtin_LINE()) {
  return vini_gethandle_real(h, file, line);
}
inline int vini_freehandle(INIHANDLE** h, const char* file = __builtin_FILE(),
                           int line = __builtin_LINE()) {
  return vini_freehandle_real(h, file, line);
}
int vini_switch_table(INIHANDLE* ini, INITABLE* t);
int vini_get_ref_real(INITABLE* t, int* n, const void* x, const char* file, int line);
int vini_free_ref_real(INITABLE* t, int n, const void* x, const char* file, int line);

// Owns a handle; releases it when it goes.
struct IniHandleDeleter {
  void operator()(INIHANDLE* h) const;
};
using IniHandlePtr = std::unique_ptr<INIHANDLE, IniHandleDeleter>;
IniHandlePtr vini_handle(const char* file = __builtin_FILE(), int line = __builtin_LINE());

// ---- Lookups, all by setting code ----
const INIVAL* vini_which(INIHANDLE* h, int x, const INITYPE** t);
const char* vini_get(INIHANDLE* h, int x);
int vini_true(INIHANDLE* h, int x);
int vini_global_istrue(int x);
int vini_geti(INIHANDLE* h, int x);
const char* vini_get_p(INIHANDLE* h, int x, const char* param);
const char* vini_get_p_raw(const INIVAL* v, int x, const char* param);
int vini_geti_p(INIHANDLE* h, int x, const char* param);
int vini_find(INIHANDLE* h, int x);
int vini_next(INIHANDLE* h, int x);
const char* vini_cur(INIHANDLE* h, int x);
const char* vini_cur_p(INIHANDLE* h, int x, const char* param);
int vini_curi_p(INIHANDLE* h, int x, const char* param);
int vini_cur_p_true(INIHANDLE* h, int x, const char* param);
INIPARAM* vini_find_ptr(INIHANDLE* h, int x, INIPARAM* inip);
int vini_next_ptr(INIPARAM* inip);
const char* vini_cur_ptr(INIPARAM* inip, const char* param);
int vini_cur_ptr_true(INIPARAM* inip, const char* param);
const char* vini_get_name(const char* name);

// ---- Definitions, for the settings pages ----
int vini_max();
int vini_find_name(const char* name);
const char* vini_setting_name(int x);
const char* vini_get_varname(int x);
int vini_get_vartype(int x);   // the type bits
int vini_get_ptype(int x, int i);
const char* vini_get_vardesc(int x);
const char* vini_get_default(int x);
int vini_get_np(int x);
const char* vini_get_pname(int x, int i);
int vini_isbool(int x, int i);
int vini_type_domain(int x);
int vini_type_global(int x);
int vini_type_multi(int x);
int vini_type_gmulti(int x);

// ---- Changes: between vini_lock_all_x and vini_unlock_all ----
const std::vector<std::unique_ptr<INITABLE>>& vini_domains();
int vini_domains_count();
INITABLE* vini_domain_at(int domainid);
INITABLE* vini_class_at(int domainid, int classid);
int vini_blank_domain();
int vini_blank_class(int domainid);
int vini_set(int domainid, int classid, int mid, const char* line);
int vini_set_oneof(INITABLE* tble, int mid, const char* xline);
int vini_clear(int domainid, int classid, int x);
int vini_dom_clear(int domainid, int x);
int vini_clear_one(INITABLE* tble, int x);
int vini_class_delete(int domainid, int classid);
int vini_domain_delete(int domainid);
int vini_write();
int vini_showconfig(FILE* f, int domain);
// Integrity check of the lists: guards, reference counts, class lists.
// 1 if sound; otherwise logs what is wrong, tagged, and returns 0.
int vini_testdomains(const char* tag);

// ---- Locks ----
void vini_lock_x(const char* file, int line);
void vini_unlock();
void vini_lock_all_x(const char* file, int line);
void vini_unlock_all();
void vini_mutex_wait();
void vini_mutex_release();
inline void vini_lock(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  vini_lock_x(file, line);
}
inline void vini_lock_all(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  vini_lock_all_x(file, line);
}

// Counts for diagnosis and tests: tables waiting in the park list, and
// tables retired (replaced or removed) that are not yet freed.
int vini_parked_count();
int vini_retired_count();
// Frees parked tables held only by the park; with nowait, regardless of age.
void vini_free_idle(int nowait);

}  // namespace korv
