// Fuzzes the change path: each input line is given to vini_set_oneof on a
// domain or a class of a loaded configuration, which is then written and read
// back. Files live in a private temporary directory and nothing is printed.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "server/settings/ini.h"
#include "store/vini.h"

namespace {

int quiet_log(const char*, ...) { return 1; }
void quiet_print(const char*) {}

const char kBase[] =
    "global_settings\n"
    "home \"/srv/k\"\n"
    "vdomain address=\"\" name=\"main\"\n"
    "email \"a@b\"\n"
    "class type=\"real\" users=\"*\" class_name=\"all\"\n"
    "dir alias=\"/\" path=\"~\" read=\"true\"\n"
    "dir alias=\"/pub\" path=\"/p\"\n"
    "limit_users \"3\"\n";

std::string path;

void setup() {
  static bool done = false;
  if (done) return;
  done = true;
  char tmpl[] = "/tmp/vini_set_oneof_fuzz_XXXXXX";
  const char* d = mkdtemp(tmpl);
  if (d == nullptr) abort();
  path = std::string(d) + "/k.ini";
  korv::vini_set_print(quiet_print);
  korv::vini_init(path.c_str(), quiet_log);
  for (const korv::ISYNTAX* r = korv::isyntax; r->cmd != nullptr; r++)
    korv::vini_add(r->code, r->cmd, r->dflt, r->type, r->description);
}

// Whether occurrence 0 of the line's setting exists in t, so that a change of
// occurrence 0 is a valid request rather than the store's deliberate abort.
bool head_exists(korv::INITABLE* t, const std::string& line) {
  std::vector<char> buf(line.begin(), line.end());
  buf.resize(korv::kViniSetLineMax);
  buf.push_back(0);
  char* p[korv::kViniMaxTokens];
  int n = korv::vini_token_quote(buf.data(), p, korv::kViniMaxTokens);
  if (n < 2) return false;
  for (char* s = p[0]; *s != 0; s++)
    if (*s >= 'A' && *s <= 'Z') *s = static_cast<char>(*s - 'A' + 'a');
  int x = korv::vini_find_name(p[0]);
  return x >= 0 && t->table[static_cast<size_t>(x)] != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  setup();
  FILE* f = fopen(path.c_str(), "w");
  if (f == nullptr) return 0;
  fputs(kBase, f);
  fclose(f);
  korv::vini_reload();
  std::string in(reinterpret_cast<const char*>(data), size);
  korv::vini_lock_all();
  size_t pos = 0;
  while (pos < in.size()) {
    size_t nl = in.find('\n', pos);
    std::string line = in.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
    pos = nl == std::string::npos ? in.size() : nl + 1;
    if (line.empty()) continue;
    unsigned char sel = static_cast<unsigned char>(line[0]);
    line.erase(0, 1);
    korv::INITABLE* t = (sel & 1) != 0 ? korv::vini_class_at(0, 0) : korv::vini_domain_at(0);
    int mid = -1;
    if ((sel & 2) != 0 && head_exists(t, line)) mid = 0;
    korv::vini_set_oneof(t, mid, line.c_str());
  }
  korv::vini_write();
  korv::vini_unlock_all();
  korv::vini_reload();
  korv::vini_free_idle(1);
  return 0;
}
