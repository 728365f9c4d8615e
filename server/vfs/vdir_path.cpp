// Separator forms of virtual paths and their simplification: the pure text
// step that every client path passes before any alias is looked at.
#include "server/vfs/vdir_path.h"

#include <atomic>
#include <vector>

#include "base/dirscan.h"
#include "server/session/link.h"

namespace korv {
namespace {

std::atomic<int> only_unix_slash{0};

bool is_sep(char c, bool back_is_sep) { return c == '/' || (back_is_sep && c == '\\'); }

bool back_separates() { return only_unix_slash.load(std::memory_order_relaxed) == 0; }

std::string_view up_to_nul(std::string_view s) {
  size_t nul = s.find('\0');
  return nul == std::string_view::npos ? s : s.substr(0, nul);
}

// Each run of separators in `in` becomes `sep`.
std::string& squeeze(std::string& in, char sep) {
  bool back = back_separates();
  size_t w = 0;
  bool in_run = false;
  for (char c : in) {
    if (is_sep(c, back)) {
      if (!in_run) in[w++] = sep;
      in_run = true;
    } else {
      in[w++] = c;
      in_run = false;
    }
  }
  in.resize(w);
  return in;
}

bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

}  // namespace

void vdir_only_unix_slash(int x) { only_unix_slash.store(x); }

int vdir_get_only_unix_slash() { return only_unix_slash.load(); }

std::string& vdir_fixslash(std::string& in) {
  if (!back_separates()) return in;
  for (char& c : in)
    if (c == '\\') c = '/';
  return in;
}

std::string& vdir_fixslash_show_linux(std::string& in) { return squeeze(in, '/'); }

std::string& vdir_fixslash_linux(std::string& in) { return vdir_fixslash_show_linux(in); }

std::string& vdir_fixslash_os(std::string& in) { return vdir_fixslash_show_linux(in); }

std::string& vdir_fixslash_show_dos(std::string& in) {
  bool back = back_separates();
  size_t lead = 0;
  while (lead < in.size() && is_sep(in[lead], back)) lead++;
  std::string out;
  out.reserve(in.size() + 1);
  size_t from = 0;
  if (lead > 0 && lead + 1 < in.size() && is_letter(in[lead]) && in[lead + 1] == ':') {
    from = lead;  // "/c:/x": the drive form leads
  } else if (lead >= 2) {
    out += '\\';  // "//host/share": a network name keeps its double backslash
    from = 1;
  }
  std::string rest = in.substr(from);
  out += squeeze(rest, '\\');
  in.swap(out);
  return in;
}

std::string& vdir_fixslash_show(const LINK* l, std::string& in) {
  if (l != nullptr && l->dirstyle) return vdir_fixslash_show_dos(in);
  return vdir_fixslash_show_linux(in);
}

int vdir_simplify(std::string& result, std::string_view path, std::string_view name) {
  result.clear();
  path = up_to_nul(path);
  name = up_to_nul(name);
  bool name_abs = !name.empty() && (name[0] == '/' || name[0] == '\\');
  std::string text;
  // Past a bound the path is refused, never cut: a cut path names another file.
  if (name_abs) {
    if (name.size() > kVdirNameCopyMax) return 0;
    text = name;
  } else {
    text.reserve(path.size() + name.size() + 1);
    text.append(path).append(1, '/').append(name);
    if (text.size() > kVdirJoinCopyMax) return 0;
  }
  vdir_fixslash_show_linux(text);
  // Three dots beside a slash are refused outright, whether they form a whole
  // component or only begin or end one.
  if (text.find("/...") != std::string::npos || text.find(".../") != std::string::npos) return 0;

  std::vector<std::string_view> parts;
  std::string_view rest(text);
  while (!rest.empty()) {
    size_t slash = rest.find('/');
    std::string_view part = rest.substr(0, slash);
    if (!part.empty()) {
      if (static_cast<int>(parts.size()) >= kVdirMaxParts) return 0;
      parts.push_back(part);
    }
    if (slash == std::string_view::npos) break;
    rest.remove_prefix(slash + 1);
  }

  // Walk with a write index; the first step above the root refuses the path.
  int d = 0;
  for (std::string_view part : parts) {
    if (part == ".") continue;
    if (part == "..") {
      if (--d < 0) return 0;
      continue;
    }
    parts[d++] = part;
  }

  // The result is absolute when the name was, or else when the directory was.
  bool lead = name_abs || (!path.empty() && (path[0] == '/' || path[0] == '\\'));
  if (lead) result = "/";
  for (int i = 0; i < d; i++) {
    if (result.size() >= kVdirJoinStop) {
      result.clear();
      return 0;
    }
    if (i > 0) result += '/';
    result.append(parts[i]);
  }
  if (result.empty()) return 0;
  vdir_fixslash_os(result);
  return 1;
}

std::string& vdir_remove_trailing(std::string& s) {
  if (s.size() >= 2 && s.back() == '/' && s.find('/') < s.size() - 1) s.pop_back();
  return s;
}

int vdir_xlate(std::string& out, std::string_view in, std::string_view from, std::string_view to) {
  if (in.size() == from.size()) {
    out = "/";
    return 1;
  }
  if (in.size() < from.size()) {
    out = in;
    return 0;
  }
  std::string base(to);
  std::string rest(in.substr(from.size() + 1));
  return tree_base(out, base.c_str(), rest.c_str());
}

int vdir_invalid(const char* fname) { return fname == nullptr || *fname == 0; }

}  // namespace korv
