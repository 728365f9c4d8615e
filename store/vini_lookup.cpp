// Lookups in the settings store: where a value comes from (vini_which), the
// text, number and bool getters, and the two kinds of cursor over a chain.
// The read path takes no lock and allocates nothing: a handle's tables are
// immutable while it references them, and the first domain is read through
// an atomic pointer that is only ever set to a complete table.
#include <strings.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "store/vini.h"
#include "store/vini_store.h"

namespace korv {

using namespace vini_detail;

namespace {

constexpr int kDomainWaitMs = 10000;  // 1000 rounds of 10 ms

// The table that holds the global settings, as this thread may see it.
const INITABLE* first_domain(bool need) {
  Store& s = store();
  // A thread that holds the store's lock sees the list it may be changing.
  if (lock_depth() > 0 && !s.vdomains.empty()) return s.vdomains.front().get();
  const INITABLE* t = s.published.load(std::memory_order_acquire);
  if (t != nullptr || !need) return t;
  std::unique_lock<std::mutex> g(s.pub_mutex);
  s.pub_cond.wait_for(g, std::chrono::milliseconds(kDomainWaitMs),
                      [&] { return s.published.load(std::memory_order_acquire) != nullptr; });
  return s.published.load(std::memory_order_acquire);
}

const char* param_at(const INIVAL* v, int i) {
  if (v == nullptr || i < 0 || static_cast<size_t>(i) >= v->val.size()) return nullptr;
  const auto& s = v->val[static_cast<size_t>(i)];
  return s ? s->c_str() : nullptr;
}

// Lower-cased comparison with "true" of at most 990 characters.
int text_is_true(const char* s) {
  if (s == nullptr) return 0;
  size_t n = strnlen(s, kViniSetLineMax);
  return n == 4 && strncasecmp(s, "true", 4) == 0 ? 1 : 0;
}

}  // namespace

const INIVAL* vini_which(INIHANDLE* h, int x, const INITYPE** tp) {
  if (x < 0) {
    vprint("vini_which x<0");
    vini_abort();
  }
  const INITYPE* t = def(x);
  if (t == nullptr || t->name.empty()) {
    vprint("vini_which name==null");
    vini_abort();
  }
  if (tp != nullptr) *tp = t;
  const INITABLE* tbl;
  if (h == nullptr) {
    tbl = first_domain(true);
    if (tbl == nullptr) {
      vprint("No domains defined, server cannot run without any domains");
      fflush(stdout);
      _exit(1);
    }
  } else if ((t->type & VINI_GLOBAL) != 0) {
    tbl = first_domain(true);
  } else {
    tbl = h->tbl;
  }
  if ((t->type & VINI_DOMAIN) == 0 && h != nullptr && h->cls != nullptr) tbl = h->cls;
  if (tbl == nullptr || static_cast<size_t>(x) >= tbl->table.size()) return nullptr;
  return tbl->table[static_cast<size_t>(x)].get();
}

const char* vini_get(INIHANDLE* h, int x) {
  const INITYPE* t = nullptr;
  const INIVAL* v = vini_which(h, x, &t);
  const char* s = param_at(v, 0);
  return s != nullptr ? s : t->dflt.c_str();
}

int vini_true(INIHANDLE* h, int x) {
  const INIVAL* v = vini_which(h, x, nullptr);
  return v != nullptr && !v->vali.empty() ? v->vali[0] : 0;
}

int is_str_true(const char* str) {
  if (str == nullptr) return 0;
  return strncasecmp(str, "true", 4) == 0 ? 1 : 0;
}

int vini_global_istrue(int x) {
  const INITYPE* t = nullptr;
  const INIVAL* v = vini_which(nullptr, x, &t);
  const char* s = param_at(v, 0);
  return is_str_true(s != nullptr ? s : t->dflt.c_str());
}

int vini_geti(INIHANDLE* h, int x) { return atoi(vini_get(h, x)); }

const char* vini_get_p_raw(const INIVAL* v, int x, const char* param) {
  int i = param_index(x, param);
  const char* s = param_at(v, i);
  return s != nullptr ? s : "";
}

const char* vini_get_p(INIHANDLE* h, int x, const char* param) {
  param_index(x, param);  // an unknown name is fatal even when the value is absent
  return vini_get_p_raw(vini_which(h, x, nullptr), x, param);
}

int vini_geti_p(INIHANDLE* h, int x, const char* param) { return atoi(vini_get_p(h, x, param)); }

int vini_find(INIHANDLE* h, int x) {
  if (h == nullptr) return 0;
  h->v = vini_which(h, x, nullptr);
  return h->v != nullptr ? 1 : 0;
}

int vini_next(INIHANDLE* h, int x) {
  (void)x;
  if (h == nullptr || h->v == nullptr || !h->v->next) return 0;
  h->v = h->v->next.get();
  return 1;
}

const char* vini_cur(INIHANDLE* h, int x) {
  (void)x;
  const char* s = h != nullptr ? param_at(h->v, 0) : nullptr;
  return s != nullptr ? s : "";
}

const char* vini_cur_p(INIHANDLE* h, int x, const char* param) {
  int i = param_index(x, param);
  const char* s = h != nullptr ? param_at(h->v, i) : nullptr;
  return s != nullptr ? s : "";
}

int vini_curi_p(INIHANDLE* h, int x, const char* param) { return atoi(vini_cur_p(h, x, param)); }

int vini_cur_p_true(INIHANDLE* h, int x, const char* param) {
  int i = param_index(x, param);
  return text_is_true(h != nullptr ? param_at(h->v, i) : nullptr);
}

INIPARAM* vini_find_ptr(INIHANDLE* h, int x, INIPARAM* inip) {
  if (inip == nullptr) return nullptr;
  inip->h = h;
  inip->x = x;
  inip->v = vini_which(h, x, &inip->t);
  return inip->v != nullptr ? inip : nullptr;
}

int vini_next_ptr(INIPARAM* inip) {
  if (inip == nullptr || inip->v == nullptr || !inip->v->next) return 0;
  inip->v = inip->v->next.get();
  return 1;
}

const char* vini_cur_ptr(INIPARAM* inip, const char* param) {
  if (inip == nullptr) return "";
  int i = param_index(inip->x, param);
  const char* s = param_at(inip->v, i);
  return s != nullptr ? s : "";
}

int vini_cur_ptr_true(INIPARAM* inip, const char* param) {
  if (inip == nullptr) return 0;
  int i = param_index(inip->x, param);
  return text_is_true(param_at(inip->v, i));
}

const char* vini_get_name(const char* name) {
  if (name == nullptr) return "";
  Store& s = store();
  for (int i = 0; i < s.ntable; i++)
    if (strcasecmp(s.itypes[static_cast<size_t>(i)].name.c_str(), name) == 0)
      return vini_get(nullptr, i);
  return "";
}

}  // namespace korv
