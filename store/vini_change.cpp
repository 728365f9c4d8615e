// Changes to the settings store, made on the fresh copies between
// vini_lock_all_x and vini_unlock_all: set one line, clear a setting, add
// blank domains and classes, and remove them.
#include <cstring>

#include "store/vini.h"
#include "store/vini_store.h"

namespace korv {

using namespace vini_detail;

namespace {

void lower_in_place(char* s) {
  for (; *s != 0; s++) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c >= 'A' && c <= 'Z') *s = static_cast<char>(c - 'A' + 'a');
  }
}

}  // namespace

const std::vector<std::unique_ptr<INITABLE>>& vini_domains() { return store().vdomains; }

int vini_domains_count() { return static_cast<int>(store().vdomains.size()); }

INITABLE* vini_domain_at(int domainid) {
  Store& s = store();
  if (domainid < 0 || static_cast<size_t>(domainid) >= s.vdomains.size()) return nullptr;
  return s.vdomains[static_cast<size_t>(domainid)].get();
}

INITABLE* vini_class_at(int domainid, int classid) {
  INITABLE* d = vini_domain_at(domainid);
  if (d == nullptr || classid < 0 || static_cast<size_t>(classid) >= d->classes.size())
    return nullptr;
  return d->classes[static_cast<size_t>(classid)].get();
}

int vini_blank_domain() {
  require_change("vini_blank_domain");
  Store& s = store();
  s.vdomains.push_back(new_table());
  s.vdomains_count = static_cast<int>(s.vdomains.size());
  return static_cast<int>(s.vdomains.size()) - 1;
}

int vini_blank_class(int domainid) {
  require_change("vini_blank_class");
  INITABLE* d = vini_domain_at(domainid);
  if (d == nullptr) {
    vlog("blank_class failed\n");
    return -1;
  }
  d->classes.push_back(new_table());
  return static_cast<int>(d->classes.size()) - 1;
}

int vini_set(int domainid, int classid, int mid, const char* line) {
  require_change("vini_set");
  INITABLE* d = vini_domain_at(domainid);
  if (d == nullptr) {
    vlog("vini_set domainid %d doesn't exist\n", domainid);
    return 0;
  }
  INITABLE* t = d;
  if (classid >= 0) {
    t = vini_class_at(domainid, classid);
    if (t == nullptr) {
      vlog("vini_set classid %d:%d doesn't exist\n", domainid, classid);
      return 0;
    }
  }
  vini_set_oneof(t, mid, line);
  return 1;
}

int vini_set_oneof(INITABLE* tble, int mid, const char* xline) {
  if (tble == nullptr || xline == nullptr) return 0;
  char line[kViniSetLineMax + 1];
  size_t len = strnlen(xline, kViniSetLineMax);
  memcpy(line, xline, len);
  line[len] = 0;
  char* p[kViniMaxTokens];
  int n = vini_token_quote(line, p, kViniMaxTokens);
  if (n < 2) return 0;
  lower_in_place(p[0]);
  int x = vini_find_name(p[0]);
  if (x < 0) {
    vlog("Invalid ini setting (%.500s)\n", p[0]);
    return 0;
  }
  const INITYPE* t = def(x);
  std::unique_ptr<INIVAL>* slot = &tble->table[static_cast<size_t>(x)];
  if (mid >= 0) {
    for (int i = 0; i < mid && *slot; i++) slot = &(*slot)->next;
    if (!*slot) {
      vlog("Setting not defined (%.500s)\n", p[0]);
      vini_abort();
    }
    if (t->ismulti == 0) slot = &tble->table[static_cast<size_t>(x)];
  } else if (t->ismulti != 0) {
    while (*slot) slot = &(*slot)->next;
  }
  INIVAL* v;
  if (*slot) {
    v = slot->get();
    for (auto& s : v->val) s.reset();
    for (int& i : v->vali) i = 0;
  } else {
    *slot = new_val(x);
    v = slot->get();
  }
  vini_set_val(v, x, p, n);
  return 1;
}

int vini_clear_one(INITABLE* tble, int x) {
  if (tble == nullptr || x < 0 || static_cast<size_t>(x) >= tble->table.size()) return 0;
  tble->table[static_cast<size_t>(x)].reset();
  return 1;
}

int vini_clear(int domainid, int classid, int x) {
  require_change("vini_clear");
  return vini_clear_one(vini_class_at(domainid, classid), x);
}

int vini_dom_clear(int domainid, int x) {
  require_change("vini_dom_clear");
  return vini_clear_one(vini_domain_at(domainid), x);
}

int vini_class_delete(int domainid, int classid) {
  require_change("vini_class_delete");
  INITABLE* d = vini_domain_at(domainid);
  if (d == nullptr || classid < 0 || static_cast<size_t>(classid) >= d->classes.size()) return 0;
  auto it = d->classes.begin() + classid;
  std::unique_ptr<INITABLE> c = std::move(*it);
  d->classes.erase(it);
  c->todel = 1;
  d->removed_classes.push_back(std::move(c));
  return 1;
}

int vini_domain_delete(int domainid) {
  Store& s = store();
  vini_lock_x(__FILE__, __LINE__);
  require_change("vini_domain_delete");
  if (domainid < 0 || static_cast<size_t>(domainid) >= s.vdomains.size()) {
    vini_unlock();
    return 0;
  }
  auto it = s.vdomains.begin() + domainid;
  std::unique_ptr<INITABLE> d = std::move(*it);
  s.vdomains.erase(it);
  s.vdomains_count = static_cast<int>(s.vdomains.size());
  d->todel = 1;
  for (auto& c : d->classes) c->todel = 1;
  if (d->nref > 0)
    s.zombies.push_back(std::move(d));  // freed at its last release
  else
    d.reset();
  vini_unlock();
  return 1;
}

}  // namespace korv
