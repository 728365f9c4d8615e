// The MLST fact selection of a session.
#include "server/session/factset.h"

#include <vector>

#include "base/fmt.h"
#include "base/str.h"

namespace korv {
namespace {

const FACT kFactTable[] = {
    {"type", 0, 1},      {"size", 1, 1},       {"modify", 2, 1},
    {"create", 3, 0},    {"unique", 4, 1},     {"perm", 5, 0},
    {"unix.mode", 6, 0}, {"unix.owner", 7, 0}, {"unix.group", 8, 0},
    {nullptr, 0, 0},
};
static_assert(sizeof kFactTable / sizeof kFactTable[0] <= kFactSlots);

}  // namespace

void fact_init(FACT* facts) {
  for (int i = 0; i < kFactSlots; i++) facts[i] = FACT{};
  for (int i = 0; kFactTable[i].name != nullptr; i++) facts[i] = kFactTable[i];
}

int fact_setoptions(FACT* facts, std::string_view xflist, std::string& reason) {
  std::string flist = str_lower(xflist);
  std::vector<std::string> parts;
  size_t at = 0;
  while (at <= flist.size() && static_cast<int>(parts.size()) < kFactListParts) {
    size_t semi = flist.find(';', at);
    if (semi == std::string::npos) semi = flist.size();
    if (semi > at) parts.push_back(flist.substr(at, semi - at));
    at = semi + 1;
  }
  for (const std::string& part : parts) {
    bool known = false;
    for (const FACT* f = facts; f->name != nullptr; f++) known = known || part == f->name;
    if (!known) {
      reason = strfmt("Invalid option (%s)", part.c_str()).substr(0, kFactReasonMax);
      return 0;
    }
  }
  for (FACT* f = facts; f->name != nullptr; f++) {
    f->enabled = 0;
    for (const std::string& part : parts) {
      if (part == f->name) f->enabled = 1;
    }
  }
  return 1;
}

std::string& fact_showoptions(const FACT* facts, std::string& tmp, int showall) {
  tmp.clear();
  for (const FACT* f = facts; f->name != nullptr; f++) {
    if (!showall && !f->enabled) continue;
    if (!tmp.empty()) tmp += ',';
    tmp += f->name;
    if (showall && f->enabled) tmp += '*';
  }
  return tmp;
}

}  // namespace korv
