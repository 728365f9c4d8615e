// The server's use of the settings store: loading the file with the settings
// table, the readers by code, the choice of domain (by local address or by
// the domain in a user name) and of class at login, the deny list, the
// download and upload filters, and the per-domain file paths.
#include "server/settings/ini.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/fmt.h"
#include "base/wild.h"
#include "common/emsg.h"
#include "common/emsg_files.h"

namespace korv {

namespace {

constexpr size_t kBinNameMax = 999;
constexpr size_t kDomainPathMax = 998;

std::string g_bin_name;
std::atomic<bool> g_loaded{false};

const char* home_from_settings() { return vini_get(nullptr, INI_HOME); }
const char* log_home_from_settings() { return vini_get(nullptr, INI_LOG_HOME); }

std::atomic<IniDirFn> g_home_fn{home_from_settings};
std::atomic<IniDirFn> g_log_home_fn{log_home_from_settings};

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string cut(const char* s, size_t n) {
  if (s == nullptr) return {};
  return std::string(s, strnlen(s, n));
}

// Runs of separators become one slash: the native form of a real path.
std::string& fixslash_os(std::string& s) {
  bool unix_only = vini_true(nullptr, INI_GLOBAL_ONLY_UNIX) != 0;
  std::string out;
  out.reserve(s.size());
  bool in_run = false;
  for (char c : s) {
    bool sep = c == '/' || (!unix_only && c == '\\');
    if (sep) {
      if (!in_run) out.push_back('/');
      in_run = true;
    } else {
      out.push_back(c);
      in_run = false;
    }
  }
  s.swap(out);
  return s;
}

void ensure_handle(INILINK* l) {
  if (l->ini == nullptr) vini_gethandle_real(&l->ini, __FILE__, __LINE__);
}

// Moves the handle's reference from its table to `t` (lock held).
void move_ref(INIHANDLE* h, INITABLE* from, INITABLE* t) {
  h->cls = nullptr;
  h->v = nullptr;
  if (from != nullptr) vini_free_ref_real(from, h->n, h, __FILE__, __LINE__);
  h->tbl = nullptr;
  vini_get_ref_real(t, &h->n, h, __FILE__, __LINE__);
  h->tbl = t;
}

bool match_from(const std::string& list, const INILINK* l) {
  return lib_match_list(list.c_str(), l->ipname.c_str()) != 0 ||
         lib_match_list(list.c_str(), l->ipnum.c_str()) != 0;
}

}  // namespace

INILINK::~INILINK() { ini_free(this); }

int ini_read(const char* bin_name, const char* config_path) {
  g_bin_name = cut(bin_name, kBinNameMax);
  if (g_loaded.load()) {
    printf("Aborting ini_read\n");
    fflush(stdout);
    emsg("Aborting ini_read, already loaded.\n");
    return 0;
  }
  std::string path = ini_path(g_bin_name.c_str(), config_path);
  printf("Loading ini file (%s)\n", path.c_str());
  fflush(stdout);
  vini_init(path.c_str(), emsg);
  for (const ISYNTAX* r = isyntax; r->cmd != nullptr; r++)
    vini_add(r->code, r->cmd, r->dflt, r->type, r->description);
  vini_reload();
  g_loaded.store(true);
  return 1;
}

std::string ini_path(const char* bin_name, const char* config_path) {
  if (config_path != nullptr && *config_path != 0) return config_path;
  return strfmt("/etc/%s.ini", bin_name != nullptr ? bin_name : "");
}

int ini_readable(const char* path, std::string& reason) {
  int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    reason = errtext(errno);
    return 0;
  }
  // Opening a directory succeeds; reading it does not.
  char c;
  ssize_t n;
  do {
    n = ::read(fd, &c, 1);
  } while (n < 0 && errno == EINTR);
  int err = errno;
  ::close(fd);
  if (n < 0) {
    reason = errtext(err);
    return 0;
  }
  return 1;
}

void ini_free_all() {
  vini_exit();
  g_loaded.store(false);
}

const char* ini_bin_name() { return g_bin_name.c_str(); }

const char* ini_get(INILINK* l, int code) {
  return vini_get(l != nullptr ? l->ini : nullptr, code);
}

int ini_geti(INILINK* l, int code) { return atoi(ini_get(l, code)); }

int ini_true(INILINK* l, int code) { return vini_true(l != nullptr ? l->ini : nullptr, code); }

const char* ini_get_p(INILINK* l, int code, const char* param) {
  return vini_get_p(l != nullptr ? l->ini : nullptr, code, param);
}

void ini_free(INILINK* l) {
  if (l != nullptr && l->ini != nullptr) vini_freehandle_real(&l->ini, __FILE__, __LINE__);
}

int ini_setdomain(INILINK* l, const char* domain) {
  if (l == nullptr) return 0;
  const char* want = domain != nullptr ? domain : "";
  ensure_handle(l);
  INIHANDLE* h = l->ini;
  vini_lock_x(__FILE__, __LINE__);
  h->cls = nullptr;
  h->v = nullptr;
  if (h->tbl != nullptr) vini_free_ref_real(h->tbl, h->n, h, __FILE__, __LINE__);
  h->tbl = nullptr;
  const auto& ds = vini_domains();
  INITABLE* found = nullptr;
  // Scanning points the handle at each candidate without a reference: the lock is held.
  for (const auto& d : ds) {
    h->tbl = d.get();
    if (strcmp(vini_get_p(h, INI_VDOMAIN, "address"), want) == 0) {
      dmsg("Found vdomain match %s %s\n", vini_get_p(h, INI_VDOMAIN, "name"), want);
      found = d.get();
      break;
    }
  }
  if (found == nullptr) {
    for (const auto& d : ds) {
      h->tbl = d.get();
      if (*vini_get_p(h, INI_VDOMAIN, "address") == 0) {
        dmsg("Assuming match %.500s\n", vini_get_p(h, INI_VDOMAIN, "name"));
        found = d.get();
        break;
      }
    }
  }
  h->tbl = nullptr;
  int result = 1;
  if (found == nullptr) {
    imsg("no matching vdomain, add a domain for address (%s), using default\n", want);
    found = ds.empty() ? nullptr : ds.front().get();
    result = 0;
  }
  if (found != nullptr) {
    vini_get_ref_real(found, &h->n, h, __FILE__, __LINE__);
    h->tbl = found;
  }
  vini_unlock();
  return result;
}

int ini_setdomain_byuser(INILINK* l, std::string& username) {
  if (l == nullptr) return 0;
  size_t at = username.find('@');
  if (at == std::string::npos) return 0;
  std::string dom = username.substr(at + 1);
  if (vini_global_istrue(INI_GLOBAL_STRIP_USER_DOMAIN)) username.resize(at);
  ensure_handle(l);
  INIHANDLE* h = l->ini;
  vini_lock_x(__FILE__, __LINE__);
  INITABLE* old = h->tbl;
  INITABLE* old_cls = h->cls;
  for (const auto& d : vini_domains()) {
    h->tbl = d.get();
    if (strcasecmp(vini_get_p(h, INI_VDOMAIN, "name"), dom.c_str()) == 0) {
      imsg("Setting DOMAIN to this one (%s) (%s)\n", dom.c_str(),
           vini_get_p(h, INI_VDOMAIN, "address"));
      move_ref(h, old, d.get());
      vini_unlock();
      return 1;
    }
  }
  h->tbl = old;
  h->cls = old_cls;
  vini_unlock();
  imsg("setdomain byuser failed (%.500s) no matching domain\n", dom.c_str());
  return 0;
}

int ini_setclass(INILINK* l, const char* user, std::string& reason) {
  const char* name = user != nullptr ? user : "";
  reason = cut(vini_get(nullptr, INI_GLOBAL_NOCLASS), kIniReasonMax);
  if (reason.empty()) reason = "No Domain or User Class defined for User.";
  if (l == nullptr || l->ini == nullptr || l->ini->tbl == nullptr) {
    emsg("No valid class found for this user\n");
    return 0;
  }
  // The identity is read before the lock: it belongs to the session.
  const std::vector<std::string> usergroups = l->ini_usergroups();
  const std::string from_ip = l->ini_from_ip();
  INIHANDLE* h = l->ini;
  vini_lock_x(__FILE__, __LINE__);
  dmsg("Locating domain and user class for \"%s\" @ \"%s\"\n", name, l->myip.c_str());
  INITABLE* match = nullptr;
  for (const auto& c : h->tbl->classes) {
    h->cls = c.get();
    const char* type = vini_get_p(h, INI_CLASS, "type");
    if (strstr(type, l->isanon != 0 ? "anonymous" : "real") == nullptr) continue;
    const char* users = vini_get_p(h, INI_CLASS, "users");
    const char* groups = vini_get_p(h, INI_CLASS, "groups");
    if (*users != 0) {
      if (lib_match_list(users, name) == 0) {
        reason = "Username not valid for this domain.";
        dmsg("User didn't match (%.500s) (%s)\n", users, name);
        continue;
      }
      dmsg("User matched ok %.500s=%.500s\n", users, name);
    } else if (*groups != 0) {
      std::string list = lower(cut(groups, kIniReasonMax));
      imsg("check group matches (%.100s)\n", list.c_str());
      bool ok = false;
      for (const std::string& g : usergroups) {
        imsg("login: check group matches: (%.100s) (%s)\n", list.c_str(), g.c_str());
        if (lib_match_list(list.c_str(), g.c_str()) != 0) {
          imsg("Usergroup matched ok (%.500s)=(%.500s)\n", list.c_str(), g.c_str());
          ok = true;
          break;
        }
      }
      if (!ok) {
        reason = strfmt("Username not valid for this usergroup (%s)", list.c_str());
        imsg("User didn't match usergroups (%.500s)\n", list.c_str());
        continue;
      }
    }
    if (!from_ip.empty()) {
      dmsg("utoken->from_ip = [%s]\n", from_ip.c_str());
      if (!match_from(from_ip, l)) {
        reason = "Username not valid for your IP, only specific IP's";
        imsg("UserIP token - User didn't match from (%.500s) (%.500s)\n", from_ip.c_str(),
             l->ipnum.c_str());
        continue;
      }
      dmsg("UserIP token - Address matched ok %.500s=%.500s\n", from_ip.c_str(), l->ipnum.c_str());
    } else {
      std::string from = vini_get_p(h, INI_CLASS, "from");
      if (!from.empty()) {
        if (!match_from(from, l)) {
          reason = "Username not valid for your IP, only class specific IP's";
          imsg("User didn't match from (%.500s) (%.500s)\n", from.c_str(), l->ipnum.c_str());
          continue;
        }
        dmsg("Address matched ok %.500s=%.500s\n", from.c_str(), l->ipnum.c_str());
      }
    }
    reason = "Username OK";
    match = c.get();  // the last class that fits governs
  }
  h->cls = match;
  if (match != nullptr) {
    dmsg("User \"%s\" belongs to domain \"%s\", user class \"%s\".\n", name,
         vini_get_p(h, INI_VDOMAIN, "name"), vini_get_p(h, INI_CLASS, "class_name"));
  } else {
    emsg("No valid class found for this user\n");
  }
  vini_unlock();
  return match != nullptr ? 1 : 0;
}

int ini_deny(INILINK* l, std::string& reason) {
  const char* deny = ini_get(l, INI_DENY);
  if (*deny == 0) return 0;  // an empty list would match everyone
  const char* ipname = l != nullptr ? l->ipname.c_str() : "";
  const char* ipnum = l != nullptr ? l->ipnum.c_str() : "";
  if (lib_match_list(deny, ipname) != 0 || lib_match_list(deny, ipnum) != 0) {
    reason = cut(ini_get(l, INI_DENY_MSG), kIniReasonMax);
    return 1;
  }
  return 0;
}

int ini_is_file_allowable(const char* function, const char* fnamex, const char* filter_list) {
  std::string list = lower(cut(filter_list, kIniReasonMax));
  std::string name = lower(cut(fnamex, kIniReasonMax));
  if (list.empty() || name.empty()) return 0;
  dmsg("%s (%.80s) (%.80s) \n", function != nullptr ? function : "", name.c_str(), list.c_str());
  if (lib_match_list(list.c_str(), name.c_str()) != 0) return 1;
  // Every component, not only the last: ".ssh" also guards ".ssh/id_rsa", and
  // a name given with a trailing slash is still that name.
  size_t from = 0;
  while (from <= name.size()) {
    size_t sep = name.find_first_of("/\\", from);
    if (sep == std::string::npos) sep = name.size();
    std::string part = name.substr(from, sep - from);
    if (!part.empty() && lib_match_list(list.c_str(), part.c_str()) != 0) return 1;
    from = sep + 1;
  }
  return 0;
}

int ini_noretrieve(INILINK* l, const char* fnamex) {
  return ini_is_file_allowable("noretrieve", fnamex, ini_get(l, INI_NORETRIEVE));
}

int ini_noupload(INILINK* l, const char* fnamex) {
  return ini_is_file_allowable("noupload", fnamex, ini_get(l, INI_NOUPLOAD));
}

void ini_set_dir_sources(IniDirFn home, IniDirFn log_home) {
  g_home_fn.store(home != nullptr ? home : home_from_settings);
  g_log_home_fn.store(log_home != nullptr ? log_home : log_home_from_settings);
}

std::string& ini_domain_file(std::string& bf, const char* dname, const char* fname) {
  const char* home = g_home_fn.load()();
  bf = strfmt("%.500s/%.500s/%.500s", home != nullptr ? home : "", dname != nullptr ? dname : "",
              fname != nullptr ? fname : "");
  if (bf.size() > kDomainPathMax) bf.resize(kDomainPathMax);
  return fixslash_os(bf);
}

std::string& ini_domain_log_file(std::string& bf, const char* dname, const char* fname) {
  const char* base = g_log_home_fn.load()();
  if (base == nullptr || *base == 0) base = g_home_fn.load()();
  bf = strfmt("%.500s/%.500s/%.500s", base != nullptr ? base : "", dname != nullptr ? dname : "",
              fname != nullptr ? fname : "");
  if (bf.size() > kDomainPathMax) bf.resize(kDomainPathMax);
  fixslash_os(bf);
  bf = lower(bf);
  return bf;
}

}  // namespace korv
