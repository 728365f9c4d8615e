// Listing lines and the small text rules around them: modes, owner names,
// dates, names relative to a prefix, alias levels and option words.
#include "server/ftp/listfmt.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <vector>

#include "base/dates.h"
#include "base/fmt.h"
#include "server/vfs/vdir_path.h"

namespace korv {
namespace {

bool is_sep(char c) { return c == '/' || c == '\\'; }
bool is_blank(char c) { return c == ' ' || c == '\t'; }

char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

std::string cut(std::string_view s, size_t max) { return std::string(s.substr(0, max)); }

// Room for getpwuid_r and getgrgid_r, grown when a record needs more.
size_t name_buf_size() {
  long n = sysconf(_SC_GETPW_R_SIZE_MAX);
  return n > 0 ? static_cast<size_t>(n) : 4096;
}

// The last id a thread looked up and its name, kept a few seconds: a big
// listing asks for the same owner thousands of times, and each lookup reads
// the account files.
struct NameMemo {
  int id = -1;
  time_t at = 0;
  std::string name;
  bool fresh(int want, time_t now) const { return id == want && now - at < 5 && now >= at; }
};
thread_local NameMemo user_memo, group_memo;

// The option letters of one word ("-lR").
void note_options(std::string_view word, int* isfull, int* isrec) {
  for (char c : word) {
    if (c == 'l') *isfull = 1;
    if (c == 'R') *isrec = 1;
  }
}

}  // namespace

std::string unix_mode_show(int mode, int isdir, int islink) {
  std::string s(10, '-');
  if (islink)
    s[0] = 'l';
  else if (isdir)
    s[0] = 'd';
  static const char kBits[] = "rwxrwxrwx";
  for (int i = 0; i < 9; ++i)
    if (mode & (0400 >> i)) s[1 + i] = kBits[i];
  return s;
}

std::string& unix_uid_user(int uid, std::string& out) {
  time_t now = time(nullptr);
  if (user_memo.fresh(uid, now)) return out = user_memo.name;
  std::vector<char> buf(name_buf_size());
  struct passwd pw {};
  struct passwd* res = nullptr;
  int rc;
  while ((rc = getpwuid_r(static_cast<uid_t>(uid), &pw, buf.data(), buf.size(), &res)) == ERANGE)
    buf.resize(buf.size() * 2);
  out = (rc == 0 && res != nullptr) ? std::string(res->pw_name) : strfmt("%d", uid);
  user_memo = {uid, now, out};
  return out;
}

std::string& unix_gid_group(int gid, std::string& out) {
  time_t now = time(nullptr);
  if (group_memo.fresh(gid, now)) return out = group_memo.name;
  std::vector<char> buf(name_buf_size());
  struct group gr {};
  struct group* res = nullptr;
  int rc;
  while ((rc = getgrgid_r(static_cast<gid_t>(gid), &gr, buf.data(), buf.size(), &res)) == ERANGE)
    buf.resize(buf.size() * 2);
  out = (rc == 0 && res != nullptr) ? std::string(res->gr_name) : strfmt("%d", gid);
  group_memo = {gid, now, out};
  return out;
}

std::string& lib_file_date(std::string& bf, time_t t, time_t now) {
  struct tm tf {};
  struct tm tn {};
  if (safe_localtime(&t, &tf) == nullptr || safe_localtime(&now, &tn) == nullptr ||
      tf.tm_mon < 0 || tf.tm_mon > 11) {
    bf = "Bad Time    ";
    return bf;
  }
  // Only the calendar year counts: a file of last December shows its year
  // on the first of January, one of eleven months ago this year its time.
  if (tf.tm_year == tn.tm_year)
    bf = strfmt("%.500s %2d %2d:%02d", months[tf.tm_mon], tf.tm_mday, tf.tm_hour, tf.tm_min);
  else
    bf = strfmt("%.500s %2d  %4d", months[tf.tm_mon], tf.tm_mday, tf.tm_year + 1900);
  return bf;
}

std::string& lib_file_date(std::string& bf, time_t t) { return lib_file_date(bf, t, time(nullptr)); }

std::string& showunix_on_unix(const WILD_DATA* d, long long filesize, std::string& tmp,
                              std::string_view xname, std::string_view prefix, time_t now) {
  std::string owner, group, date, name;
  unix_uid_user(d->uid, owner);
  unix_gid_group(d->gid, group);
  lib_file_date(date, d->time_write, now);
  if (d->islink) {
    std::string target;
    remove_prefix(d->symlink, prefix, target);
    name = cut(strfmt("%s -> %s", cut(xname, kListCopyMax).c_str(), target.c_str()), kListNameMax);
  } else {
    name = cut(xname, kListNameMax);
  }
  tmp = strfmt("%s %3d %-*s %-*s %8lld %.*s %.*s\r\n",
               unix_mode_show(d->mode, d->isdir, d->islink).c_str(), d->nlinks, kListOwnerPad,
               owner.c_str(), kListOwnerPad, group.c_str(), filesize, kListFieldArg, date.c_str(),
               kListFieldArg, name.c_str());
  return tmp;
}

std::string& showwindows_on_windows(const WILD_DATA* d, long long filesize, std::string& tmp,
                                    std::string_view xname, std::string_view, time_t) {
  struct tm tf {};
  if (safe_localtime(&d->time_write, &tf) == nullptr) tf = {};
  // Noon stays 12; the hour after midnight shows 00.
  int hour = tf.tm_hour == 12 ? 12 : tf.tm_hour % 12;
  std::string size = d->isdir ? std::string("      <DIR>         ") : strfmt("%20lld", filesize);
  tmp = strfmt("%02d-%02d-%02d  %02d:%02d%s %s %s\r\n", tf.tm_mon + 1, tf.tm_mday,
               (tf.tm_year + 1900) % 100, hour, tf.tm_min, tf.tm_hour >= 12 ? "PM" : "AM",
               size.c_str(), cut(xname, kListCopyMax).c_str());
  return tmp;
}

std::string& dir_format(int dirstyle, const WILD_DATA* d, long long filesize, std::string& tmp,
                        std::string_view prefix, time_t now) {
  std::string xname;
  remove_prefix(d->name, prefix, xname);
  if (xname.empty()) {
    std::string name = d->name;
    vdir_fixslash_os(name);
    size_t slash = name.rfind('/');
    xname = slash == std::string::npos ? name : name.substr(slash + 1);
  }
  if (dirstyle) return showwindows_on_windows(d, filesize, tmp, xname, prefix, now);
  return showunix_on_unix(d, filesize, tmp, xname, prefix, now);
}

size_t prefix_cmp(std::string_view a, std::string_view b) {
  size_t last_sep = 0;
  for (size_t i = 0;; ++i) {
    if (i == a.size()) return a.size();
    char x = a[i];
    char y = i < b.size() ? b[i] : '\0';
    bool same = (is_sep(x) && is_sep(y)) || lower(x) == lower(y);
    if (!same) return last_sep;
    if (is_sep(x)) last_sep = i;
  }
}

std::string& remove_prefix(std::string_view in, std::string_view prefix, std::string& out) {
  out = cut(in, kListCopyMax);
  if (prefix.empty()) return out;
  std::string p = cut(prefix, kListCopyMax);
  vdir_fixslash_os(out);
  vdir_fixslash_os(p);
  size_t at = prefix_cmp(p, out);
  if (at == 0) return out;
  out.erase(0, at);
  if (!out.empty() && is_sep(out[0])) out.erase(0, 1);
  return out;
}

int alias_matches(std::string_view alias, std::string_view showname, size_t n) {
  if (n > showname.size() || alias.size() <= n) return 0;
  if (alias.compare(0, n, showname.substr(0, n)) != 0) return 0;
  if (n == 1 && !is_sep(showname[0])) return 0;
  if (n >= 2 && !is_sep(alias[n])) return 0;
  return 1;
}

std::string alias_next_level(std::string_view alias, size_t n) {
  if (n >= alias.size()) return "";
  std::string_view rest = alias.substr(n);
  if (is_sep(rest[0])) rest.remove_prefix(1);
  size_t end = rest.find_first_of("/\\");
  return std::string(rest.substr(0, end));
}

void strip_options_pre(std::string& out, int* isfull, int* isrec) {
  *isfull = 0;
  *isrec = 0;
  if (out.empty() || out[0] != '-') return;
  size_t end = 0;
  while (end < out.size() && !is_blank(out[end])) ++end;
  note_options(std::string_view(out).substr(0, end), isfull, isrec);
  while (end < out.size() && is_blank(out[end])) ++end;
  out.erase(0, end);
}

void strip_options(std::string& out, int* isfull, int* isrec) {
  *isfull = 0;
  *isrec = 0;
  std::string kept;
  bool dropped = false;
  size_t i = 0;
  while (i < out.size()) {
    // A word starts here: at the start of the text or after a blank.
    size_t end = i;
    while (end < out.size() && !is_blank(out[end])) ++end;
    size_t next = end;
    while (next < out.size() && is_blank(out[next])) ++next;
    if (out[i] == '-') {
      note_options(std::string_view(out).substr(i, end - i), isfull, isrec);
      dropped = true;
    } else {
      kept.append(out, i, next - i);
    }
    i = next;
  }
  // A dropped last word leaves the blanks that stood before it.
  if (dropped)
    while (!kept.empty() && is_blank(kept.back())) kept.pop_back();
  out = std::move(kept);
}

}  // namespace korv
