// The configuration file: its tokeniser, the grammar that builds domains and
// classes from it with a message for every bad line, and the writer that
// rewrites it whole so that reading it back gives the same tables.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "store/vini.h"
#include "store/vini_store.h"

namespace korv {

using namespace vini_detail;

namespace {

char g_equals[] = "=";  // the token that a free-standing or closing '=' yields

bool is_blank(char c) { return c == ' ' || c == '\t'; }

void lower_in_place(char* s) {
  for (; *s != 0; s++) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c >= 'A' && c <= 'Z') *s = static_cast<char>(c - 'A' + 'a');
  }
}

std::string errno_text(int e) {
  char buf[256];
  const char* r = strerror_r(e, buf, sizeof buf);  // GNU form
  return r != nullptr ? r : "";
}

// One parameter given as name = value on a line of several parameters.
int vini_readone(INIVAL* v, int x, const char* name, const char* eq, const char* value) {
  const INITYPE* t = def(x);
  if (strcmp(eq, "=") != 0) {
    vlog("Equals sign missing after (%.500s)\n", name);
    return 0;
  }
  int i = -1;
  for (int k = 0; k < t->np; k++) {
    const auto& pn = t->pname[static_cast<size_t>(k)];
    if (pn && *pn == name) {
      i = k;
      break;
    }
  }
  if (i < 0) {
    vlog("Invalid parameter (%.500s)\n", name);
    for (int k = 0; k < t->np; k++)
      vlog("Valid parameters for %.500s (%.500s)\n", t->name.c_str(), vini_get_pname(x, k));
    return 0;
  }
  size_t k = static_cast<size_t>(i);
  if (v->val[k]) {
    // The first value stays; the line goes on with its next parameter.
    vlog("Duplicate paramter ignored (%.500s) was set to (%.500s)\n", name, v->val[k]->c_str());
    return 1;
  }
  std::string s = value;
  if (t->ptype[k] == VINI_BOOL) {
    if (strcasecmp(value, "on") == 0) s = "TRUE";
    v->vali[k] = s == "true" ? 1 : 0;
  } else {
    v->vali[k] = atoi(s.c_str());
  }
  v->val[k] = std::move(s);
  return 1;
}

// Writes the parameters of one value as a line body, each followed by a blank.
void write_value(FILE* f, const INITYPE& t, const INIVAL& v) {
  fprintf(f, "%.500s ", t.name.c_str());
  for (int i = 0; i < t.np && static_cast<size_t>(i) < v.val.size(); i++) {
    const auto& val = v.val[static_cast<size_t>(i)];
    if (!val) continue;
    const auto& pn = t.pname[static_cast<size_t>(i)];
    if (t.np == 1 || !pn)
      fprintf(f, "\"%.500s\" ", val->c_str());
    else
      fprintf(f, "%.500s=\"%.500s\" ", pn->c_str(), val->c_str());
  }
  fputc('\n', f);
}

const char* val0(const INIVAL* v) { return v->val.empty() || !v->val[0] ? "" : v->val[0]->c_str(); }

void vini_showclass(FILE* f, const INITABLE& c) {
  Store& s = store();
  for (int x = 0; x < s.ntable && static_cast<size_t>(x) < c.table.size(); x++) {
    const INITYPE& t = s.itypes[static_cast<size_t>(x)];
    for (const INIVAL* v = c.table[static_cast<size_t>(x)].get(); v != nullptr; v = v->next.get()) {
      if (t.np == 1) {
        if (t.dflt == val0(v)) continue;
        if (t.dflt.empty() && strcmp(val0(v), "false") == 0) continue;
      }
      fputs((t.type & VINI_CLASS) != 0 ? "\t" : "\t\t", f);
      write_value(f, t, *v);
    }
  }
}

}  // namespace

int vini_token_quote(char* line, char** p, int tmax) {
  int n = 0;
  char* s = line;
  if (s == nullptr) return 0;
  for (;;) {
    while (is_blank(*s)) s++;
    if (*s == 0) break;
    if (n + 5 >= tmax) {
      vlog("Too many tokens in this header line\n");
      break;
    }
    if (*s == '"') {
      s++;
      p[n++] = s;
      char* q = strchr(s, '"');
      if (q == nullptr) break;  // an open quote takes the rest of the line
      *q = 0;
      s = q + 1;
    } else if (*s == '=') {
      p[n++] = g_equals;
      s++;
    } else {
      p[n++] = s;
      while (*s != 0 && !is_blank(*s) && *s != '=') s++;
      if (*s == 0) break;
      bool eq = *s == '=';
      *s++ = 0;
      if (eq) {
        if (n + 5 >= tmax) {
          vlog("Too many tokens in this header line\n");
          break;
        }
        p[n++] = g_equals;
      }
    }
  }
  return n;
}

namespace vini_detail {

void vini_set_val(INIVAL* v, int x, char** p, int n) {
  const INITYPE* t = def(x);
  if (t == nullptr || n < 2) return;
  if (t->np == 1) {
    if (v->val[0]) vlog("Duplicate setting ignored (%.500s)\n", t->name.c_str());
    std::string s = p[1];
    if (t->ptype[0] == VINI_BOOL) {
      if (strcasecmp(p[1], "on") == 0) s = "TRUE";
      v->vali[0] = strcasecmp(s.c_str(), "true") == 0 || strcasecmp(s.c_str(), "\"true\"") == 0;
    } else {
      v->vali[0] = atoi(s.c_str());
    }
    v->val[0] = std::move(s);
    return;
  }
  for (int i = 1; i + 3 <= n; i += 3)
    if (!vini_readone(v, x, p[i], p[i + 1], p[i + 2])) break;
}

void vini_load() {
  Store& s = store();
  s.vdomains_count = 0;
  FILE* f = fopen(s.inifile.c_str(), "r");
  if (f == nullptr) {
    std::string err = errno_text(errno);
    vlog("Could not open (%.500s) %.500s\n", s.inifile.c_str(), err.c_str());
    vprint("Could not open (%.500s) %.500s\n", s.inifile.c_str(), err.c_str());
    vini_abort();
  }
  INITABLE* cur_domain = nullptr;
  INITABLE* cur = nullptr;
  bool in_global = false;
  bool in_class = false;
  // The chain tail of the last line, so that long runs of one setting load linearly.
  int last_x = -1;
  INITABLE* last_t = nullptr;
  INIVAL* last_tail = nullptr;

  auto new_domain = [&]() {
    s.vdomains.push_back(new_table());
    s.vdomains_count++;
    cur_domain = s.vdomains.back().get();
    cur = cur_domain;
  };

  char line[kViniLineSize];
  char* p[kViniMaxTokens];
  while (fgets(line, sizeof line, f) != nullptr) {
    line[strcspn(line, "\n")] = 0;
    line[strcspn(line, "\r")] = 0;
    int n = vini_token_quote(line, p, kViniMaxTokens);
    if (n == 0) continue;
    lower_in_place(p[0]);
    if (p[0][0] == '#') continue;
    if (strcmp(p[0], "global_settings") == 0) {
      new_domain();
      in_class = false;
      in_global = true;
      continue;
    }
    if (n == 1) continue;
    int x = vini_find_name(p[0]);
    if (x < 0) {
      vlog("Invalid ini setting (%.500s)\n", p[0]);
      continue;
    }
    const INITYPE& t = s.itypes[static_cast<size_t>(x)];
    if ((t.type & VINI_VDOMAIN) != 0) {
      if (!in_global) {
        new_domain();
        in_class = false;
      }
      in_global = false;
    }
    if ((t.type & VINI_CLASS) != 0 && cur_domain != nullptr) {
      cur_domain->classes.push_back(new_table());
      cur = cur_domain->classes.back().get();
      in_class = true;
      in_global = false;
    }
    if (cur == nullptr) {
      vlog("Invalid setting (%.500s) before vdomain line\n", p[0]);
      vprint("Invalid setting (%.500s) before vdomain line\n", p[0]);
      continue;
    }
    if (in_class && (t.type & VINI_DOMAIN) != 0) {
      vlog("Not a class setting (%.500s)\n", p[0]);
      vprint("Not a class setting (%.500s)\n", p[0]);
      continue;
    }
    if (!in_class && (t.type & VINI_DOMAIN) == 0) {
      vlog("Is a class setting but we are not in a class section (%.500s)\n", p[0]);
      vprint("Is a class setting but we are not in a class section (%.500s)\n", p[0]);
      continue;
    }
    std::unique_ptr<INIVAL>& head = cur->table[static_cast<size_t>(x)];
    if (head && t.ismulti == 0) vlog("Duplicate setting ignored (%.500s)\n", p[0]);
    INIVAL* v;
    if (head && last_x == x && last_t == cur && last_tail != nullptr) {
      last_tail->next = new_val(x);
      v = last_tail->next.get();
    } else {
      v = append_val(cur, x);
    }
    last_x = x;
    last_t = cur;
    last_tail = v;
    vini_set_val(v, x, p, n);
  }
  fclose(f);
}

}  // namespace vini_detail

int vini_showconfig(FILE* f, int domain) {
  Store& s = store();
  if (domain < 0 || static_cast<size_t>(domain) >= s.vdomains.size()) return 0;
  const INITABLE& d = *s.vdomains[static_cast<size_t>(domain)];
  if (domain == 0) {
    fputs("global_settings\n", f);
    for (int x = 0; x < s.ntable; x++) {
      const INITYPE& t = s.itypes[static_cast<size_t>(x)];
      if ((t.type & VINI_GLOBAL) == 0) continue;
      const INIVAL* head = d.table[static_cast<size_t>(x)].get();
      if (head == nullptr) continue;
      if (t.np == 1 && t.dflt == val0(head)) continue;  // the whole chain
      for (const INIVAL* v = head; v != nullptr; v = v->next.get()) {
        fputc('\t', f);
        write_value(f, t, *v);
      }
    }
  }
  for (int x = 0; x < s.ntable; x++) {
    const INITYPE& t = s.itypes[static_cast<size_t>(x)];
    if ((t.type & VINI_GLOBAL) != 0) continue;
    for (const INIVAL* v = d.table[static_cast<size_t>(x)].get(); v != nullptr; v = v->next.get()) {
      if (t.np == 1 && t.dflt == val0(v)) continue;
      if ((t.type & VINI_VDOMAIN) == 0) fputc('\t', f);
      write_value(f, t, *v);
    }
  }
  for (const auto& c : d.classes) vini_showclass(f, *c);
  return 1;
}

int vini_write() {
  Store& s = store();
  vini_lock_x(__FILE__, __LINE__);
  std::string backup = s.inifile + "_old";
  struct stat st {};
  bool had_mode = stat(s.inifile.c_str(), &st) == 0;
  // A missing backup or file is the normal first case and not worth a line.
  if (remove(backup.c_str()) != 0 && errno != ENOENT)
    vprint("Remove (%s) failed %s\n", backup.c_str(), errno_text(errno).c_str());
  if (rename(s.inifile.c_str(), backup.c_str()) != 0 && errno != ENOENT)
    vprint("Rename (%s) failed %s\n", s.inifile.c_str(), errno_text(errno).c_str());
  FILE* f = fopen(s.inifile.c_str(), "w");
  if (f == nullptr) {
    std::string err = errno_text(errno);
    vlog("Could not write korv.new %.500s\n", err.c_str());
    vprint("Could not write korv.new %.500s\n", err.c_str());
    vini_unlock();
    return 0;
  }
  if (had_mode) fchmod(fileno(f), st.st_mode & 07777);  // keep the administrator's mode
  fputs("# WARNING - so you think you can modify this file by hand?  Not so fast!!!\n", f);
  fputs("# Ok, you can IF you stop the server process first OR do a RELOAD after making your\n", f);
  fputs("# changes OR don't modify anything with the web admin tool before the next restart\n", f);
  fputs("# otherwise your changes will be lost.\n", f);
  fputs("# ", f);
  for (int i = 0; i < 98; i++) fputc('-', f);
  fputc('\n', f);
  for (size_t d = 0; d < s.vdomains.size(); d++) vini_showconfig(f, static_cast<int>(d));
  bool bad = ferror(f) != 0;
  if (fclose(f) != 0) bad = true;
  int err = errno;
  vini_unlock();
  if (bad) {
    vlog("Could not write korv.new %.500s\n", errno_text(err).c_str());
    return 0;
  }
  return 1;
}

}  // namespace korv
