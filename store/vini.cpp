// The settings store's tables and their lifetime: definitions, the store's
// lock, references held by handles, the deep copies made for a change, the
// park list of replaced tables, reload and exit.
#include "store/vini.h"

#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fmt.h"
#include "store/vini_store.h"

namespace korv {

using namespace vini_detail;

namespace vini_detail {

namespace {
thread_local int t_lock_depth = 0;

const char* const kTypeWords[] = {"string", "path", "mb", "bool", "int"};
}  // namespace

Store& store() {
  static Store* s = new Store();  // lives until the process ends: readers may outlast exit
  return *s;
}

int lock_depth() { return t_lock_depth; }

void vlog(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string text = vstrfmt(format, ap);
  va_end(ap);
  ViniLogFn fn = store().logfn.load(std::memory_order_relaxed);
  if (fn != nullptr) {
    fn("%s", text.c_str());
  } else {
    fputs(text.c_str(), stdout);
    fflush(stdout);
  }
}

void vprint(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string text = vstrfmt(format, ap);
  va_end(ap);
  ViniPrintFn fn = store().printfn.load(std::memory_order_relaxed);
  if (fn != nullptr) {
    fn(text.c_str());
  } else {
    fputs(text.c_str(), stdout);
    fflush(stdout);
  }
}

void vini_abort() {
  Store& s = store();
  vprint("VINI_ABORT\n");
  if (s.lock_fname != nullptr) vprint("Last held at %s:%d\n", s.lock_fname, s.lock_line);
  fflush(stdout);
  fflush(stderr);
  std::abort();  // dumps the process
}

void vini_fault(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string text = vstrfmt(format, ap);
  va_end(ap);
  vprint("%s", text.c_str());
  vini_abort();
}

const INITYPE* def(int x) {
  Store& s = store();
  if (x < 0 || x >= s.ntable) return nullptr;
  return &s.itypes[static_cast<size_t>(x)];
}

int param_index(int x, const char* param) {
  const INITYPE* t = def(x);
  if (t != nullptr && param != nullptr) {
    for (int i = 0; i < t->np; i++) {
      const auto& pn = t->pname[static_cast<size_t>(i)];
      if (pn && *pn == param) return i;
    }
  }
  vini_fault("invalid parameter %d (%.500s)\n", x, param != nullptr ? param : "(null)");
}

std::unique_ptr<INIVAL> new_val(int x) {
  const INITYPE* t = def(x);
  size_t np = t != nullptr && t->np > 0 ? static_cast<size_t>(t->np) : 1;
  auto v = std::make_unique<INIVAL>();
  v->val.resize(np);
  v->vali.assign(np, 0);
  return v;
}

std::unique_ptr<INITABLE> new_table() {
  auto t = std::make_unique<INITABLE>();
  t->table.resize(static_cast<size_t>(store().ntable));
  return t;
}

INIVAL* append_val(INITABLE* t, int x) {
  std::unique_ptr<INIVAL>* slot = &t->table[static_cast<size_t>(x)];
  while (*slot) slot = &(*slot)->next;
  *slot = new_val(x);
  return slot->get();
}

void publish() {
  Store& s = store();
  INITABLE* first = s.vdomains.empty() ? nullptr : s.vdomains.front().get();
  {
    std::lock_guard<std::mutex> g(s.pub_mutex);
    s.published.store(first, std::memory_order_release);
  }
  s.pub_cond.notify_all();
}

void require_change(const char* what) {
  if (store().change_depth <= 0 || t_lock_depth <= 0)
    vini_fault("%s called outside vini_lock_all_x\n", what);
}

namespace {

std::unique_ptr<INITABLE> copy_table(const INITABLE& src) {
  auto t = std::make_unique<INITABLE>();
  t->table.resize(src.table.size());
  for (size_t x = 0; x < src.table.size(); x++) {
    std::unique_ptr<INIVAL>* slot = &t->table[x];
    for (const INIVAL* v = src.table[x].get(); v != nullptr; v = v->next.get()) {
      auto c = std::make_unique<INIVAL>();
      c->ref = v->ref;
      c->val = v->val;
      c->vali = v->vali;
      *slot = std::move(c);
      slot = &(*slot)->next;
    }
  }
  return t;
}

// A deep copy of a domain and all its classes, in order.
std::unique_ptr<INITABLE> vini_dangle(const INITABLE& t) {
  auto d = copy_table(t);
  for (const auto& c : t.classes) d->classes.push_back(copy_table(*c));
  return d;
}

void vini_free_dangling(std::unique_ptr<INITABLE> t, const char* file, int line) {
  (void)file;
  (void)line;
  if (!t) return;
  if (t->nref >= 1) {
    // Still held: keep it among the retired tables until its last release.
    store().zombies.push_back(std::move(t));
    return;
  }
  if (t->id != kViniTableAlive) vini_fault("vini_free_dangling failing %d %d\n", t->id, t->nref);
  if (t->nref < 0) vini_fault("vini_free_dangling failed nref=%d\n", t->nref);
  t.reset();
}

void lock_timed(const char* file, int line) {
  (void)file;
  (void)line;
  Store& s = store();
  if (!s.imutex.try_lock_for(std::chrono::milliseconds(kViniLockWaitMs))) {
    vini_fault("Thread %d could not get mutex\n", static_cast<int>(gettid()));
  }
  t_lock_depth++;
}

void unlock_one() {
  t_lock_depth--;
  store().imutex.unlock();
}

int type_code(const std::string& word) {
  for (int i = 0; i < 5; i++)
    if (word == kTypeWords[i]) return i;
  return -1;
}

}  // namespace

void vini_free_later(std::unique_ptr<INITABLE> t) {
  store().freelist.push_back(FREELIST{std::move(t), time(nullptr)});
}

}  // namespace vini_detail

// ---------------------------------------------------------------------------

INIVAL::~INIVAL() {
  std::unique_ptr<INIVAL> n = std::move(next);
  while (n) n = std::move(n->next);
}

INITABLE::INITABLE() = default;
INITABLE::~INITABLE() { id = kViniTableFreed; }

void IniHandleDeleter::operator()(INIHANDLE* h) const {
  if (h != nullptr) vini_freehandle_real(&h, __FILE__, __LINE__);
}

IniHandlePtr vini_handle(const char* file, int line) {
  INIHANDLE* h = nullptr;
  vini_gethandle_real(&h, file, line);
  return IniHandlePtr(h);
}

void vini_set_print(ViniPrintFn fn) { store().printfn.store(fn, std::memory_order_relaxed); }

const char* vini_inifile() { return store().inifile.c_str(); }

int vini_init(const char* fname, ViniLogFn logfn) {
  Store& s = store();
  s.logfn.store(logfn, std::memory_order_relaxed);
  std::lock_guard<ViniLock> g(s.imutex);
  s.inifile.assign(fname != nullptr ? fname : "");
  if (s.inifile.size() > static_cast<size_t>(kViniSetLineMax)) s.inifile.resize(kViniSetLineMax);
  if (s.itypes.capacity() < static_cast<size_t>(kViniMaxTable)) s.itypes.reserve(kViniMaxTable);
  return access(s.inifile.c_str(), F_OK) == 0 ? 1 : 0;
}

int vini_add(int code, const char* xcmd, const char* dflt, int type, const char* desc) {
  Store& s = store();
  if (xcmd == nullptr) return 0;
  std::vector<std::string> words;
  for (const char* p = xcmd; *p != 0;) {
    while (*p == ' ' || *p == '\t') p++;
    const char* b = p;
    while (*p != 0 && *p != ' ' && *p != '\t') p++;
    if (p > b) words.emplace_back(b, p);
  }
  if (words.empty()) return 0;
  if (code != s.ntable) {
    vini_fault("FAULT vini add (%d/%d) (%s) (%s) \n", code, s.ntable, xcmd,
               desc != nullptr ? desc : "");
  }
  if (s.ntable >= kViniMaxTable) vini_fault("Ini add, exceeded maxtable size\n");
  if (words.size() - 1 > static_cast<size_t>(kViniMaxParams)) {
    vini_fault("Too many parameters for a single ini setting %d %d\n",
               static_cast<int>(words.size() - 1), kViniMaxParams);
  }
  INITYPE t;
  t.name = words[0];
  for (char& c : t.name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  t.dflt = dflt != nullptr ? dflt : "";
  t.desc = desc != nullptr ? desc : "";
  t.type = type;
  t.ismulti = type & VINI_MULTI;
  for (size_t i = 1; i < words.size(); i++) {
    std::string w = words[i];
    size_t k = i - 1;
    if (w.size() >= 2 && w.front() == '[' && w.back() == ']') {
      t.isop[k] = 1;
      w = w.substr(1, w.size() - 2);
    }
    std::string tword = w;
    size_t eq = w.find('=');
    if (eq != std::string::npos) {
      t.pname[k] = w.substr(0, eq);
      tword = w.substr(eq + 1);
    }
    int pt = type_code(tword);
    if (pt < 0) vini_fault("Invalid ini parameter (%.500s) %s\n", words[i].c_str(), t.name.c_str());
    t.ptype[k] = pt;
    t.np++;
  }
  std::lock_guard<ViniLock> g(s.imutex);
  if (s.itypes.capacity() < static_cast<size_t>(kViniMaxTable)) s.itypes.reserve(kViniMaxTable);
  s.itypes.push_back(std::move(t));
  s.ntable++;
  return 1;
}

// ---- Locks ----

void vini_lock_x(const char* file, int line) { lock_timed(file, line); }
void vini_unlock() { unlock_one(); }
void vini_mutex_wait() { lock_timed(__FILE__, __LINE__); }
void vini_mutex_release() { unlock_one(); }

void vini_lock_all_x(const char* file, int line) {
  Store& s = store();
  lock_timed(file, line);
  s.lock_fname = file;
  s.lock_line = line;
  s.change_depth++;
  for (auto& d : s.vdomains) {
    std::unique_ptr<INITABLE> fresh = vini_dangle(*d);
    d->nref++;  // the park's own reference
    d->todel = 1;
    vini_free_later(std::move(d));
    d = std::move(fresh);
  }
}

void vini_unlock_all() {
  Store& s = store();
  s.lock_fname = nullptr;
  s.lock_line = 0;
  if (s.change_depth > 0) s.change_depth--;
  vini_free_idle(0);
  if (s.change_depth == 0) publish();
  unlock_one();
}

void vini_free_idle(int nowait) {
  Store& s = store();
  lock_timed(__FILE__, __LINE__);
  time_t now = time(nullptr);
  for (size_t i = 0; i < s.freelist.size();) {
    FREELIST& e = s.freelist[i];
    if ((nowait == 0 && now - e.when < kViniFreeDelaySec) || e.t->nref != 1) {
      i++;
      continue;
    }
    std::unique_ptr<INITABLE> t = std::move(e.t);
    s.freelist.erase(s.freelist.begin() + static_cast<std::ptrdiff_t>(i));
    t->nref--;
    vini_free_dangling(std::move(t), __FILE__, __LINE__);
  }
  unlock_one();
}

int vini_parked_count() {
  Store& s = store();
  std::lock_guard<ViniLock> g(s.imutex);
  return static_cast<int>(s.freelist.size());
}

int vini_retired_count() {
  Store& s = store();
  std::lock_guard<ViniLock> g(s.imutex);
  return static_cast<int>(s.freelist.size() + s.zombies.size());
}

// ---- References and handles ----

int vini_get_ref_real(INITABLE* t, int* n, const void* x, const char* file, int line) {
  lock_timed(file, line);
  if (t == nullptr) {
    vini_fault(
        "vini_get_ref_real failed as initable was null - velmar.ini corrupt or doesn't exist - "
        "examine it carefully\n");
  }
  int slot = -1;
  for (int i = 0; i < kViniMaxRef; i++) {
    if (t->ref[static_cast<size_t>(i)] == nullptr) {
      slot = i;
      t->ref[static_cast<size_t>(i)] = x;
      t->ref_file[static_cast<size_t>(i)] = file;
      t->ref_line[static_cast<size_t>(i)] = line;
      break;
    }
  }
  if (n != nullptr) *n = slot;
  t->nref++;
  unlock_one();
  return 1;
}

int vini_free_ref_real(INITABLE* t, int n, const void* x, const char* file, int line) {
  Store& s = store();
  lock_timed(file, line);
  if (t == nullptr || t->id != kViniTableAlive) {
    vini_fault("vini_free_ref_real failing %s:%d %d %d\n", file, line, t ? t->id : 0,
               t ? t->nref : 0);
  }
  if (n >= 0 && n < kViniMaxRef) {
    size_t k = static_cast<size_t>(n);
    if (t->ref[k] != x) {
      vini_fault("vini_free_ref_real bad pointer %d %p, %s:%d %d %d, was %s:%d %p\n", n, x, file,
                 line, t->id, t->nref, t->ref_file[k] ? t->ref_file[k] : "", t->ref_line[k],
                 t->ref[k]);
    }
    t->ref[k] = nullptr;
    t->ref_file[k] = nullptr;
    t->ref_line[k] = 0;
  }
  t->nref--;
  if (t->nref < 0) vini_fault("nref is less than zero %d %s:%d\n", t->nref, file, line);
  if (t->nref == 0 && t->todel != 0) {
    for (size_t i = 0; i < s.zombies.size(); i++) {
      if (s.zombies[i].get() == t) {
        std::unique_ptr<INITABLE> z = std::move(s.zombies[i]);
        s.zombies.erase(s.zombies.begin() + static_cast<std::ptrdiff_t>(i));
        vini_free_dangling(std::move(z), file, line);
        break;
      }
    }
  }
  unlock_one();
  return 1;
}

int vini_gethandle_real(INIHANDLE** h, const char* file, int line) {
  Store& s = store();
  lock_timed(file, line);
  auto nh = std::make_unique<INIHANDLE>();
  INITABLE* first = s.vdomains.empty() ? nullptr : s.vdomains.front().get();
  vini_get_ref_real(first, &nh->n, nh.get(), file, line);
  nh->tbl = first;
  *h = nh.release();
  unlock_one();
  return 1;
}

int vini_freehandle_real(INIHANDLE** h, const char* file, int line) {
  if (h == nullptr || *h == nullptr) return 0;
  lock_timed(file, line);
  std::unique_ptr<INIHANDLE> owned(*h);
  *h = nullptr;
  if (owned->tbl != nullptr) vini_free_ref_real(owned->tbl, owned->n, owned.get(), file, line);
  owned.reset();
  unlock_one();
  return 1;
}

int vini_switch_table(INIHANDLE* ini, INITABLE* t) {
  if (ini == nullptr) return 0;
  lock_timed(__FILE__, __LINE__);
  if (ini->tbl != nullptr) vini_free_ref_real(ini->tbl, ini->n, ini, __FILE__, __LINE__);
  // The class belonged to the old domain, which may go with its last reference.
  ini->tbl = nullptr;
  ini->cls = nullptr;
  ini->v = nullptr;
  vini_get_ref_real(t, &ini->n, ini, __FILE__, __LINE__);
  ini->tbl = t;
  unlock_one();
  return 1;
}

// ---- Reload and exit ----

int vini_reload() {
  Store& s = store();
  lock_timed(__FILE__, __LINE__);
  vini_lock_all_x(__FILE__, __LINE__);
  std::vector<std::unique_ptr<INITABLE>> detached = std::move(s.vdomains);
  s.vdomains.clear();
  vini_load();
  vini_unlock_all();
  for (auto& t : detached) {  // vini_free_slow
    t->nref++;
    t->todel = 1;
    vini_free_later(std::move(t));
  }
  unlock_one();
  return 1;
}

void vini_exit() {
  Store& s = store();
  lock_timed(__FILE__, __LINE__);
  vini_free_idle(1);
  for (auto& d : s.vdomains) {
    d->todel = 1;
    vini_free_dangling(std::move(d), __FILE__, __LINE__);
  }
  s.vdomains.clear();
  s.vdomains_count = 0;
  s.change_depth = 0;
  publish();
  s.itypes.clear();
  s.ntable = 0;
  unlock_one();
}

// ---- Definitions ----

int vini_max() { return store().ntable; }

int vini_find_name(const char* name) {
  if (name == nullptr) return -1;
  Store& s = store();
  for (int i = 0; i < s.ntable; i++)
    if (s.itypes[static_cast<size_t>(i)].name == name) return i;
  return -1;
}

const char* vini_setting_name(int x) {
  const INITYPE* t = def(x);
  return t != nullptr ? t->name.c_str() : nullptr;
}

const char* vini_get_varname(int x) { return vini_setting_name(x); }

int vini_get_vartype(int x) {
  const INITYPE* t = def(x);
  return t != nullptr ? t->type : 0;
}

int vini_get_ptype(int x, int i) {
  const INITYPE* t = def(x);
  if (t == nullptr || i < 0 || i >= t->np) return VINI_STRING;
  return t->ptype[static_cast<size_t>(i)];
}

const char* vini_get_vardesc(int x) {
  const INITYPE* t = def(x);
  return t != nullptr ? t->desc.c_str() : "";
}

const char* vini_get_default(int x) {
  const INITYPE* t = def(x);
  return t != nullptr ? t->dflt.c_str() : "";
}

int vini_get_np(int x) {
  const INITYPE* t = def(x);
  return t != nullptr ? t->np : 0;
}

const char* vini_get_pname(int x, int i) {
  const INITYPE* t = def(x);
  if (t == nullptr || i < 0 || i >= t->np) return "parameter";
  const auto& pn = t->pname[static_cast<size_t>(i)];
  return pn ? pn->c_str() : "parameter";
}

int vini_isbool(int x, int i) { return vini_get_ptype(x, i) == VINI_BOOL ? 1 : 0; }

int vini_type_domain(int x) {
  return (vini_get_vartype(x) & (VINI_VDOMAIN | VINI_CLASS | VINI_GLOBAL)) == 0 ? 1 : 0;
}
int vini_type_global(int x) {
  int t = vini_get_vartype(x);
  return (t & VINI_GLOBAL) != 0 && (t & VINI_MULTI) == 0 ? 1 : 0;
}
int vini_type_multi(int x) { return (vini_get_vartype(x) & VINI_MULTI) != 0 ? 1 : 0; }
int vini_type_gmulti(int x) {
  int t = vini_get_vartype(x);
  return (t & VINI_GLOBAL) != 0 && (t & VINI_MULTI) != 0 ? 1 : 0;
}

int vini_testdomains(const char* tag) {
  Store& s = store();
  lock_timed(__FILE__, __LINE__);
  const char* tg = tag != nullptr ? tag : "";
  int ok = 1;
  auto check = [&](const INITABLE* t, int d, int c) {
    if (t->id != kViniTableAlive) {
      vlog("vini_testdomains (%s) domain %d class %d bad guard %d\n", tg, d, c, t->id);
      ok = 0;
    }
    if (t->nref < 0) {
      vlog("vini_testdomains (%s) domain %d class %d nref %d\n", tg, d, c, t->nref);
      ok = 0;
    }
    if (t->table.size() != static_cast<size_t>(s.ntable)) {
      vlog("vini_testdomains (%s) domain %d class %d table size %d\n", tg, d, c,
           static_cast<int>(t->table.size()));
      ok = 0;
    }
  };
  for (size_t d = 0; d < s.vdomains.size(); d++) {
    check(s.vdomains[d].get(), static_cast<int>(d), -1);
    for (size_t c = 0; c < s.vdomains[d]->classes.size(); c++)
      check(s.vdomains[d]->classes[c].get(), static_cast<int>(d), static_cast<int>(c));
  }
  unlock_one();
  return ok;
}

}  // namespace korv
