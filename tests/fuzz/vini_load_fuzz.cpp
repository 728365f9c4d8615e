// Fuzzes the configuration loader: any bytes as the file, then a rewrite and
// a load of what was written. Files live in a private temporary directory and
// nothing is printed.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "server/settings/ini.h"
#include "store/vini.h"

namespace {

int quiet_log(const char*, ...) { return 1; }
void quiet_print(const char*) {}

std::string& work_dir() {
  static std::string dir = [] {
    char tmpl[] = "/tmp/vini_load_fuzz_XXXXXX";
    const char* d = mkdtemp(tmpl);
    if (d == nullptr) abort();
    return std::string(d);
  }();
  return dir;
}

void setup() {
  static bool done = false;
  if (done) return;
  done = true;
  std::string path = work_dir() + "/k.ini";
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) abort();
  fclose(f);
  korv::vini_set_print(quiet_print);
  korv::vini_init(path.c_str(), quiet_log);
  for (const korv::ISYNTAX* r = korv::isyntax; r->cmd != nullptr; r++)
    korv::vini_add(r->code, r->cmd, r->dflt, r->type, r->description);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setup();
  std::string path = work_dir() + "/k.ini";
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);
  korv::vini_reload();
  if (korv::vini_domains_count() > 0) {
    korv::vini_get(nullptr, korv::INI_HOME);
    korv::vini_global_istrue(korv::INI_GLOBAL_STRIP_USER_DOMAIN);
    korv::IniHandlePtr h = korv::vini_handle();
    for (const auto& c : h->tbl->classes) {
      h->cls = c.get();
      korv::INIPARAM ip;
      for (korv::INIPARAM* p = korv::vini_find_ptr(h.get(), korv::INI_DIR, &ip); p != nullptr;
           p = korv::vini_next_ptr(p) ? p : nullptr)
        korv::vini_cur_ptr_true(p, "read");
    }
  }
  korv::vini_write();
  korv::vini_reload();
  korv::vini_free_idle(1);
  return 0;
}
