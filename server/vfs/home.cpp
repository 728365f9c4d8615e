// Users' home directories: ftphome remapping, the class home with its hashing
// pattern, the mailbox-style hash, and the starting virtual directory.
#include "server/vfs/home.h"

#include <atomic>
#include <cctype>
#include <cstring>

#include "base/fmt.h"
#include "base/newhash.h"
#include "common/emsg.h"
#include "server/settings/ini.h"
#include "store/vini.h"

namespace korv {
namespace {

std::atomic<int> only_unix_slash{0};

// Squeezes each run of separators into one slash (the native form of a
// path); a backslash separates too unless only_unix_slash is set.
// TODO(vdir): call vdir_fixslash_os once the path unit exists.
std::string& fixslash_os(std::string& s) {
  bool back_is_sep = only_unix_slash.load() == 0;
  std::string out;
  out.reserve(s.size());
  bool in_run = false;
  for (char c : s) {
    bool sep = c == '/' || (back_is_sep && c == '\\');
    if (sep) {
      if (!in_run) out += '/';
      in_run = true;
    } else {
      out += c;
      in_run = false;
    }
  }
  s.swap(out);
  return s;
}

std::string lower(const char* s) {
  std::string out = s != nullptr ? s : "";
  for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

void replace_all(std::string& s, std::string_view from, std::string_view to) {
  for (size_t at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size()))
    s.replace(at, from.size(), to);
}

}  // namespace

void home_only_unix_slash(int x) { only_unix_slash.store(x); }

std::string& get_hashing_string(std::string& hashing_buffer, const char* hashing_pattern) {
  hashing_buffer.clear();
  for (const char* p = hashing_pattern; p != nullptr && *p != 0; p++) {
    if (static_cast<int>(hashing_buffer.size()) >= kHashPatternMax) break;
    if (*p == 'f' || *p == '/' || *p == 'o') hashing_buffer += *p;
  }
  if (hashing_buffer.empty()) hashing_buffer = "zz";  // adds nothing
  return hashing_buffer;
}

std::string& my_username_hash(const char* hashing_pattern, std::string& output, const char* path,
                              const char* user) {
  if (path == nullptr) path = "";
  if (user == nullptr) user = "";
  if (hashing_pattern == nullptr || *hashing_pattern == 0) {
    output = strfmt("%.200s/%.80s", path, user);
  } else if (strcmp(hashing_pattern, kVelmarPattern) == 0) {
    sm_userpath(output, path, user, ".");
  } else {
    std::string pattern;
    get_hashing_string(pattern, hashing_pattern);
    output = path;
    output += '/';
    const char* at = user;  // the "o" step's character
    for (char c : pattern) {
      if (c == 'f') {
        if (*user != 0) {
          output += user[0];
          at = user + 1;
        }
      } else if (c == 'o') {
        if (*at != 0) output += *at++;
      } else if (c == '/') {
        output += '/';
      }
    }
    strfmt_append(output, "/%.100s", user);
  }
  return fixslash_os(output);
}

std::string& make_link_user_ftphome(std::string& correct_ftpuser_home, const char* user,
                                    const char* hash_fmt, const char* homepathsetting,
                                    int do_force_lower, const char* ftphome) {
  const char* base = homepathsetting != nullptr && *homepathsetting != 0 ? homepathsetting : "/home";
  std::string name = do_force_lower ? lower(user) : std::string(user != nullptr ? user : "");
  my_username_hash(hash_fmt, correct_ftpuser_home, base, name.c_str());
  if (ftphome != nullptr) correct_ftpuser_home = ftphome;
  return correct_ftpuser_home;
}

std::string& do_ftphome_remapping(INILINK* l, std::string& output, const char* ftphome) {
  if (ftphome == nullptr) ftphome = "";
  INIPARAM ip;
  for (INIPARAM* p = vini_find_ptr(l != nullptr ? l->ini : nullptr, INI_FTPHOME_MAP, &ip);
       p != nullptr; p = vini_next_ptr(p) ? p : nullptr) {
    const char* find = vini_cur_ptr(p, "find");
    size_t n = strlen(find);
    if (n == 0 || strncmp(find, ftphome, n) != 0) continue;  // a blank row maps nothing
    output = strfmt("%s%s", vini_cur_ptr(p, "map"), ftphome + n);
    dmsg("FTPHOME_MAP remapping (%s) to (%s)\n", ftphome, output.c_str());
    return output;
  }
  output = ftphome;
  return output;
}

std::string& link_user_ftphome(Link* l, const char* user, std::string& correct_ftpuser_home) {
  if (l != nullptr && l->utoken && !l->utoken->ftphome.empty())
    return do_ftphome_remapping(l, correct_ftpuser_home, l->utoken->ftphome.c_str());
  return make_link_user_ftphome(correct_ftpuser_home, user, ini_get(l, INI_USER_HOME_HASHING),
                                ini_get(l, INI_USER_HOME), ini_true(l, INI_FORCE_LOWER_HOME),
                                nullptr);
}

int sm_userpath(std::string& tmp, const char* mailbox_path, const char* user, const char* fname) {
  if (mailbox_path == nullptr || user == nullptr || fname == nullptr) {
    tmp.clear();
    return 0;
  }
  // hash_new works on the caller's strings only, so no lock is needed here.
  std::string path = mailbox_path;
  std::string name;
  if (!hash_new(path, lower(user).c_str(), kVelmarInvalid, kVelmarLevel, 1, &name)) {
    tmp.clear();
    return 0;
  }
  if (strcmp(fname, ".") != 0) {
    path += '/';
    path += fname;
  }
  tmp = path.substr(0, kMailboxPathMax);
  return 1;
}

std::string& vdir_get_home_dir_path_rule(INILINK* l, std::string& output) {
  INIPARAM ip;
  if (vini_find_ptr(l != nullptr ? l->ini : nullptr, INI_DIR, &ip) != nullptr)
    output = vini_cur_ptr(&ip, "path");
  else
    output = "/";
  return output;
}

std::string& vdir_gethome_intobf(Link* l, std::string& bf) {
  INIPARAM ip;
  if (vini_find_ptr(l != nullptr ? l->ini : nullptr, INI_DIR, &ip) == nullptr) {
    bf = "/";
    return bf;
  }
  std::string alias = vini_cur_ptr(&ip, "alias");
  const char* user = l->user.c_str();
  if (alias.find('~') != std::string::npos) {
    std::string home;
    link_user_ftphome(l, user, home);
    replace_all(alias, "~", home);
  }
  replace_all(alias, "$username", user);
  bf = alias.substr(0, kHomeBufMax);
  return bf;
}

}  // namespace korv
