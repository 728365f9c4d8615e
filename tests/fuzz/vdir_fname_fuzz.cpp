// Feeds arbitrary client paths through vdir_fname against a fixed class of
// aliases. Input: one flag byte (Windows-style session, backslash as a plain
// character, member of the group of the group rule), then the current
// directory up to the first newline, then the path. Whenever a path is
// accepted, its real path, resolved as the kernel would read it, must lie at
// or below the real path of one of the class's rules. Nothing touches the disk
// per input, and the log stays at error level.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/settings/ini.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vdir_rules.h"

namespace {

const char kConfig[] =
    "global_settings\n"
    "vdomain address=\"\" name=\"d\"\n"
    "class type=real\n"
    "user_home /jail/u\n"
    "dir alias=\"/\" path=\"~\" read=true\n"
    "dir alias=\"/pub\" path=\"/srv/pub\" read=true\n"
    "dir alias=\"/pub/in\" path=\"/srv/incoming/\" write=true\n"
    "dir alias=\"/~/$username\" path=\"/data/$username\" read=true\n"
    "dir alias=\"a\" path=\"/srv/a\"\n"
    "dir alias=\"/c:\" path=\"/srv/drive\"\n"
    "group_resource group=staff alias=\"/staff\" path=\"/srv/staff\" read=true\n"
    "group_resource group=staff alias=\"/\" path=\"/srv/staffroot\" read=true\n";

void check(bool ok, const std::string& what) {
  if (!ok) fprintf(stderr, "vdir_fname_fuzz: %s\n", what.c_str()), abort();
}

// The path as the kernel walks it: "/" separates, "." stays, ".." climbs and
// stops at the root.
std::string resolve(const char* path) {
  std::vector<std::string> parts;
  std::string cur;
  for (const char* p = path;; p++) {
    if (*p == '/' || *p == 0) {
      if (cur == "..") {
        if (!parts.empty()) parts.pop_back();
      } else if (!cur.empty() && cur != ".") {
        parts.push_back(cur);
      }
      cur.clear();
      if (*p == 0) break;
    } else {
      cur += *p;
    }
  }
  std::string out;
  for (const std::string& s : parts) out += "/" + s;
  return out.empty() ? "/" : out;
}

bool under(const std::string& path, const std::string& root) {
  if (root == "/") return true;
  return path == root || (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                          path[root.size()] == '/');
}

struct World {
  korv::Link* l = nullptr;
  std::vector<std::string> roots;  // every rule's real path, resolved
};

World& world() {
  static World w = [] {
    World x;
    korv::mutex_init();
    char tmpl[] = "/tmp/vdir_fname_fuzz_XXXXXX";
    if (mkdtemp(tmpl) == nullptr) abort();
    std::string dir = tmpl;
    korv::emsg_open((dir + "/korvane.log").c_str());
    std::string path = dir + "/k.ini";
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr || fputs(kConfig, f) < 0 || fclose(f) != 0) abort();
    if (korv::ini_read("korvane", path.c_str()) != 1) abort();
    korv::emsg_setlvl("error");
    // The session lives for the whole run and is never torn down, so no
    // exit-time destructor races the settings store.
    x.l = std::make_unique<korv::Link>().release();
    x.l->user = "fuzz";
    std::string reason;
    if (!korv::ini_setdomain(x.l, "") || !korv::ini_setclass(x.l, "fuzz", reason)) abort();
    x.l->utoken.reset(new korv::UTOKEN);
    for (int code : {korv::INI_DIR, korv::INI_GROUP_RESOURCE}) {
      korv::INIPARAM ip;
      for (korv::INIPARAM* p = korv::vini_find_ptr(x.l->ini, code, &ip); p != nullptr;
           p = korv::vini_next_ptr(p) ? p : nullptr) {
        std::string real;
        korv::vdir_path_alias_ini_p(p, real, x.l, 1);
        x.roots.push_back(resolve(real.c_str()));
      }
    }
    if (x.roots.size() != 8) abort();
    return x;
  }();
  return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  World& w = world();
  if (size == 0) return 0;
  int flags = data[0];
  std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  size_t nl = text.find('\n');
  std::string fname = nl == std::string::npos ? text : text.substr(nl + 1);
  korv::Link* l = w.l;
  l->vcwd = nl == std::string::npos ? "/" : text.substr(0, nl);
  l->dirstyle = flags & 1;
  korv::vdir_only_unix_slash((flags >> 1) & 1);
  l->utoken->usergroups.reset();
  if (flags & 4) korv::word_add(l->utoken->usergroups, "staff");

  std::string realpath, virt, etext;
  if (korv::vdir_fname(realpath, virt, l, fname, etext)) {
    std::string got = resolve(realpath.c_str());
    bool ok = false;
    for (const std::string& root : w.roots) ok = ok || under(got, root);
    check(ok, "escaped: (" + l->vcwd + ") (" + fname + ") -> " + realpath);
    check(etext.empty(), "a success left a reason");
  } else {
    check(!etext.empty(), "a refusal without a reason");
  }
  korv::vdir_access(l, fname, "read", etext);
  check(!etext.empty(), "vdir_access left no text");
  return 0;
}
