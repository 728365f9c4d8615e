// The login sequence: USER, PASS and what runs between a proven password and
// the final 230 reply, in its fixed order; home creation, the new-user program
// and the banner with its alias table.
#include "server/ftp/login.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <thread>

#include "base/fmt.h"
#include "base/str.h"
#include "base/tokens.h"
#include "base/webtext.h"
#include "common/emsg.h"
#include "common/hammer.h"
#include "net/spawn.h"
#include "net/tcp.h"
#include "server/auth/passfail.h"
#include "server/auth/user.h"
#include "server/ftp/cmd.h"
#include "server/ftp/cmd_file.h"
#include "server/ftp/plog.h"
#include "server/session/link.h"
#include "server/session/threadlist.h"
#include "server/vfs/home.h"
#include "server/vfs/quota.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vdir_path.h"
#include "server/vfs/vfile.h"
#include "store/vini.h"

namespace korv {

namespace {

// A deliberate delay on the session's own thread before a refusal.
void login_delay(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

const char* sget(LINK* l, int code) {
  const char* v = ini_get(l, code);
  return v != nullptr ? v : "";
}

std::string cut(std::string_view s, size_t n) { return std::string(s.substr(0, n)); }

const char* status_text(int status) {
  if (status < 0 || status > kAccountStatusMax) return "";
  return accountstatus_messages[status];
}

// A session limit of the class read the same way for addresses and users: a
// count above the limit refuses (the count includes this session).
struct SessionLimit {
  int code;
  int (*count)(Link*);
  const char* name;
};

// Refuses when the count of sessions like this one is above the class's
// limit. 1 when the login may go on.
int check_limit(LINK* l, const SessionLimit& lim, const std::string& msg) {
  int limit = ini_geti(l, lim.code);
  if (limit == 0 || lim.count(l) <= limit) return 1;
  login_delay(kDelayFailMs);
  // Taken again after the delay: a session may have gone meanwhile.
  std::string text =
      strfmt("already %d/%d users connected sorry, setting %s.%s", lim.count(l), limit, lim.name, msg.c_str());
  cmd_write(l, "530 Login denied - %.500s\r\n", text.c_str());
  imsg("Rejected user %.500s %.500s\n", l->user.c_str(), text.c_str());
  return 0;
}

// The quota set-up of a fresh login: the limit, the count, the 230- line.
void login_quota_init(LINK* l) { cmd_quota_init(l); }

// Module logins, retried while the module itself is failing (for a moment
// after a restart), at most kModuleRetryMax times within kModuleRetrySecs.
int login_with_retries(LINK* l, const std::string& domain, const std::string& name, const char* pass,
                       std::string& result) {
  const time_t started = time(nullptr);
  for (int attempt = 1;; attempt++) {
    int ok = user_login_generic(domain.c_str(), name.c_str(), pass, l->utoken, result, l->ipnum.c_str());
    if (ok) return 1;
    if (result.compare(0, strlen(kExternalFailed), kExternalFailed) != 0 || attempt >= kModuleRetryMax ||
        time(nullptr) - started > kModuleRetrySecs)
      return 0;
    login_delay(kModuleRetryMs);
  }
}

}  // namespace

void cmd_quota_init(LINK* l) {
  l->quota = l->utoken ? l->utoken->quota : 0;
  if (l->quota == 0) {
    const char* def = ini_get(l, INI_QUOTA_DEFAULT);
    l->quota = static_cast<long long>(atof(def ? def : ""));
  }
  if (l->quota <= 0) return;
  cmd_quota_read(l);
  std::string text;
  if (vquota_exceeded(l, text))
    cmd_write(l, "230-Quota Exceeded %s\r\n", text.c_str());
  else
    cmd_write(l, "230-Quota Used %s\r\n", text.c_str());
}

int cmd_user(LINK* l, char** p, int, const char*) {
  if (l->utoken) user_logoff(l->utoken);
  if (str_lower(cut(sget(nullptr, INI_GLOBAL_SSL), kSslWordMax)) == "require" && !l->ssl_con) {
    cmd_write(l, "500 Sorry SSL encryption is required\r\n");
    return 1;
  }
  std::string name = p[1];
  if (name == "ftp" || name == "anonymous@") name = "anonymous";
  l->user = cut(name, kLoginNameMax);
  l->useremail = l->user;
  l->needauth = 1;
  l->isanon = strcasecmp(l->user.c_str(), "anonymous") == 0 || strcasecmp(l->user.c_str(), "guest") == 0;
  if (!l->isanon) {
    plog(l, "Login request user=%s ip=%s\n", l->user.c_str(), l->ipnum.c_str());
    cmd_write(l, "331 Password required for %.500s.\r\n", l->user.c_str());
  } else {
    if (vini_global_istrue(INI_GLOBAL_ANON_HAMMER_ACTIVE) && !anon_login_from_IP_str(l->ipnum.c_str())) {
      cmd_write(l, "450 Server Access temporially unavailable, please try again later.\r\n");
      l->user.clear();
      l->isanon = 0;
      return 1;
    }
    cmd_write(l, "331 Guest login ok, send your complete e-mail address as password.\r\n");
  }
  if (l->th != nullptr) main_thread_set_name(l->th, l->isanon ? THREAD_ID_STRING_ANONFTP : THREAD_ID_STRING_FTP, l);
  ini_setdomain_byuser(l, l->user);
  l->useremail = l->user;
  return 1;
}

int cmd_pass(LINK* l, char** p, int, const char*) {
  // The claim ends with the command: by then the login is complete or refused.
  struct ClaimEnd {
    LINK* l;
    ~ClaimEnd() { l->login_claim = 0; }
  } claim_end{l};
  const char* pass = p[1];
  std::string msg;  // the account's notice, carried to the end of the login
  std::string result;
  if (l->utoken) user_logoff(l->utoken);

  if (pass_fail_recent(l->ipnum.c_str())) {
    login_delay(kDelayThrottleMs);
    cmd_write(l, "530 Login incorrect - too many attempts try later (%s)\r\n", l->ipnum.c_str());
    l->closing = 1;
    return 1;
  }
  int loginfails = ini_geti(l, INI_LOGINFAILS);
  if (loginfails == 0) loginfails = kLoginFailsDefault;
  if (l->nfails > loginfails) {
    login_delay(kDelayThrottleMs);
    cmd_write(l, "530 Login incorrect %s\r\n", l->ipnum.c_str());
    l->closing = 1;
    return 1;
  }

  bool skip_class = false;
  if (l->isanon) {
    l->useremail = cut(pass, kAnonEmailMax);
    std::string check = sget(l, INI_PASSWD_CHECK);
    if (check.empty()) check = "none";
    if (strcasecmp(check.c_str(), "none") != 0 && !cmd_email_ok(l, pass)) {
      if (strcasecmp(check.c_str(), "warn") != 0) {
        cmd_write(l, "530 Login incorrect - invalid email address\r\n");
        return 1;
      }
      // "warn" admits at once: no class is chosen and no limit is tested.
      skip_class = true;
    }
  } else {
    const char* prefix = sget(l, INI_DOMAIN_AUTHENTICATION_PREFIX);
    const char* suffix = sget(l, INI_DOMAIN_AUTHENTICATION_SUFFIX);
    std::string name = *prefix == 0 && *suffix == 0 ? l->user : strfmt("%s%s%s", prefix, l->user.c_str(), suffix);
    const char* dname = ini_get_p(l, INI_VDOMAIN, "name");
    // The attempt counts as a failure from before it starts, so that parallel
    // sessions of one address cannot all pass the throttle together.
    if (pass_fail_try(l->ipnum.c_str())) {
      login_delay(kDelayThrottleMs);
      cmd_write(l, "530 Login incorrect - too many attempts try later (%s)\r\n", l->ipnum.c_str());
      l->closing = 1;
      return 1;
    }
    if (!login_with_retries(l, dname != nullptr ? dname : "", name, pass, result)) {
      if (result.compare(0, strlen(kExternalFailed), kExternalFailed) == 0) {
        // An outage of the module is no mark against the address.
        pass_fail_undo(l->ipnum.c_str());
        result = "Unable to authenticate at this time, please try again.";
      }
      imsg("User Lookup failed %.500s %.400s\n", l->user.c_str(), result.c_str());
      login_delay(kDelayFailMs);
      l->nfails++;
      cmd_write(l, "530 Login incorrect %.100s %.100s %.200s\r\n", l->user.c_str(), result.c_str(),
                sget(nullptr, INI_GLOBAL_LOGIN_ERROR));
      return 1;
    }
    pass_fail_undo(l->ipnum.c_str());
    // A name let in only on its lower-case retry: the session is the account
    // that was accepted, for its home, its limits and its logs alike.
    if (l->utoken && l->utoken->user != name && l->utoken->user == str_lower(name)) {
      l->user = str_lower(l->user);
      l->useremail = l->user;
    }
    int status = l->utoken ? l->utoken->accountstatus : 0;
    if (status != 0) {
      if (status != 1 && status != 6) {
        imsg("User lookup succeeded (%s) accountstatus (%d - %s)\n", l->user.c_str(), status, status_text(status));
        login_delay(kDelayStatusMs);
        l->nfails++;
        cmd_write(l, "530 Login Denied.%s\r\n", status_text(status));
        return 1;
      }
      if (status == 6) msg = status_text(status);
    }
    if (isin_ftpusers(l->user.c_str())) {
      login_delay(kDelayThrottleMs);
      imsg("User rejected as they are in ftpusers %.500s\n", l->user.c_str());
      l->nfails++;
      cmd_write(l, "530 Login incorrect - user found in /etc/ftpusers remove to fix\r\n");
      user_logoff(l->utoken);
      return 1;
    }
    login_log(l, "Time=%d User=%s IP=%s\n", static_cast<int>(time(nullptr)), l->user.c_str(), l->ipnum.c_str());
  }

  if (!skip_class) {
    if (!ini_setclass(l, l->user.c_str(), result)) {
      l->nfails++;
      login_delay(kDelayFailMs);
      cmd_write(l, "530 Login incorrect - (%.80s), %s%s\r\n", l->user.c_str(), result.c_str(), msg.c_str());
      return 1;
    }
    int limit_users = ini_geti(l, INI_LIMIT_USERS);
    if (limit_users != 0 && link_sameclass(l) > limit_users) {
      login_delay(kDelayFailMs);
      int n = link_sameclass(l);
      cmd_write(l, "530 Login denied - already %d/%d users connected sorry, setting LIMIT_USERS.%s\r\n", n,
                limit_users, msg.c_str());
      imsg("Rejected user %.500s because already %d/%d users connected to that class, see LIMIT_USERS.%s\n",
           l->user.c_str(), n, limit_users, msg.c_str());
      return 1;
    }
    // This login counts for the user before it is checked, so that two
    // parallel logins cannot both pass the limit; in a tie both may be refused.
    l->login_claim = 1;
    static const SessionLimit limits[] = {
        {INI_LIMIT_CON_PERIP, link_sameip, "LIMIT_CON_PERIP"},
        {INI_LIMIT_PERUSER, link_sameuser, "LIMIT_PERUSER"},
    };
    for (const SessionLimit& lim : limits) {
      if (!check_limit(l, lim, msg)) return 1;
    }
    const char* umask_word = sget(l, INI_UMASK);
    if (*umask_word != 0) {
      unsigned int m = 0;
      l->cur_umask = sscanf(umask_word, "%o", &m) == 1 ? static_cast<int>(m) : 022;
      imsg("umask: Set class umask to (%o) \n", static_cast<unsigned int>(l->cur_umask));
    }
    std::string ssl = str_lower(cut(sget(l, INI_SSL), kSslWordMax));
    if (ssl == "require" && !l->ssl_con) {
      imsg("SSL set to require and user is not using tls for control and data\n");
      cmd_write(l, "530 Login denied - SSL encryption is required for this class.%s\r\n", msg.c_str());
      return 1;
    }
    if (ssl == "disable" && (l->ssl_con || l->ssl_data)) {
      imsg("SSL set to disable and user is using tls for control and data\n");
      cmd_write(l, "530 Login denied - SSL encryption disabled for this class.%s\r\n", msg.c_str());
      return 1;
    }
    const char* actas = sget(l, INI_ACTAS_USER);
    if (!user_become(l->utoken, actas, result)) {
      std::string text = strfmt("%s (%.100s).%s", result.c_str(), actas, msg.c_str());
      cmd_write(l, "530 Login failed - %.500s\r\n", text.c_str());
      imsg("Rejected user %.500s %.500s\n", l->user.c_str(), text.c_str());
      return 1;
    }
  }

  vdir_gethome_intobf(l, l->vcwd);
  std::string real_home, virt;
  if (!vdir_fname(real_home, virt, l, "", result)) {
    cmd_write(l, "530 %s\r\n", result.c_str());
    emsg("%s\n", result.c_str());
    return 1;
  }
  if (ini_true(l, INI_MKDIR_AUTO) && !cmd_create_home(l, real_home.c_str(), result)) {
    cmd_write(l, "530 %s%s\r\n", result.c_str(), msg.c_str());
    imsg("Rejected user %s%s\n", result.c_str(), msg.c_str());
    return 1;
  }
  imsg("Users Home = %s maps to real dir %s\n", l->vcwd.c_str(), real_home.c_str());
  login_quota_init(l);
  if (!msg.empty()) cmd_write(l, "230-%s\r\n", msg.c_str());
  cmd_login_banner(l, msg.c_str());
  // The login is complete only now, after its reply has gone out.
  l->needauth = 0;
  int minutes = ini_geti(l, INI_LIMIT_TIME);
  l->idle_time_limit = minutes != 0 ? minutes : kIdleDefaultLoginMinutes;
  l->dailyquota = mynice_int64bit_atoi(sget(l, INI_DAILYQUOTA));
  if (l->utoken && l->utoken->dailyquota != 0) l->dailyquota = l->utoken->dailyquota;
  return 1;
}

int isin_ftpusers(const char* user) { return isin_ftpusers_file(kFtpusersPath, user); }

int isin_ftpusers_file(const char* path, const char* user) {
  if (user == nullptr) return 0;
  std::unique_ptr<FILE, int (*)(FILE*)> f(fopen(path, "re"), fclose);
  if (!f) return 0;
  // Pieces of up to 999 bytes, each cut at its line feed: a longer line is
  // compared piece by piece.
  char bf[kFtpusersLineMax + 1];
  while (fgets(bf, sizeof bf, f.get()) != nullptr) {
    if (char* nl = strchr(bf, '\n')) *nl = 0;
    if (strcmp(bf, user) == 0) return 1;
  }
  return 0;
}

int cmd_email_ok(LINK*, const char* s) {
  if (s == nullptr || *s == '@') return 0;
  return strchr(s, '@') != nullptr && strchr(s, '.') != nullptr ? 1 : 0;
}

int cmd_show_paths(LINK* l) {
  cmd_write(l, "230-  Alias                Real path                      Access\r\n");
  for (int code : {INI_DIR, INI_GROUP_RESOURCE}) {
    INIPARAM ip;
    for (INIPARAM* p = vini_find_ptr(l->ini, code, &ip); p != nullptr; p = vini_next_ptr(p) ? p : nullptr) {
      if (code == INI_GROUP_RESOURCE && !user_has_group_membership(l->utoken.get(), vini_cur_ptr(p, "group")))
        continue;
      std::string alias, real;
      vdir_path_alias_ini_p(p, alias, l, 0);
      vdir_path_alias_ini_p(p, real, l, 1);
      vdir_fixslash_show(l, alias);
      vdir_fixslash_os(real);
      cmd_write(l, "230-  %.500s   %.500s %.500s%s%s%s%s\r\n", lib_pad_right(alias, kAliasShowWidth).c_str(),
                lib_pad_right(real, kRealShowWidth).c_str(), vini_cur_ptr_true(p, "read") ? "read" : "",
                vini_cur_ptr_true(p, "write") ? "+write" : "", vini_cur_ptr_true(p, "nodel") ? "+nodel" : "",
                vini_cur_ptr_true(p, "nolist") ? "+nolist" : "", vini_cur_ptr_true(p, "nomkdir") ? "+nomkdir" : "");
    }
  }
  return 1;
}

int cmd_login_banner(LINK* l, const char* extra_msg) {
  const char* msg = extra_msg != nullptr ? extra_msg : "";
  std::string banner = lib_cr_decode(sget(l, INI_BANNER));
  if (banner.size() > static_cast<size_t>(kBannerMax)) banner.resize(kBannerMax);
  if (banner.empty()) {
    if (l->isanon) {
      // The login name stands where the notice would: this reply has always
      // ended with it.
      cmd_write(l, "230 Anonymous access granted, restrictions apply.%s\r\n", l->user.c_str());
    } else {
      cmd_write(l, "230 User %.400s logged in.%s\r\n", l->user.c_str(), msg);
    }
    return 1;
  }
  std::vector<std::string> lines;
  Strlines v;
  str_lines_start(&v, banner.data(), static_cast<int>(banner.size()));
  while (const char* line = str_lines_next(&v)) lines.emplace_back(line);
  str_lines_end(&v);
  for (const std::string& line : lines) {
    if (line == "%virtual_paths%") {
      cmd_show_paths(l);
    } else {
      cmd_write(l, "230-%.500s\r\n", line.c_str());
    }
  }
  cmd_readme(l, 230, ".message");
  cmd_write(l, "230 User %.400s logged in.%s\r\n", l->user.c_str(), msg);
  return 1;
}

int cmd_create_home(LINK* l, const char* real_home, std::string& reason) {
  errno = 0;
  std::string etext;
  if (vexists(l, "", etext)) {
    dmsg("Users directory already exists virtual:(%s) real:(%s)\n", l->vcwd.c_str(), real_home);
    return 1;
  }
  if (!do_vmkdir(l, "", etext, 1)) {
    reason = strfmt("Could not create users home directory (%.500s) (%.500s)\n", l->vcwd.c_str(), etext.c_str());
    return 0;
  }
  dmsg("Created users home directory virtual:(%s) real:(%s)\n", l->vcwd.c_str(), real_home);
  std::string program = sget(l, INI_NEW_USER_PROGRAM);
  if (program.empty()) return 1;
  std::string user = ini_true(l, INI_FORCE_LOWER_HOME) ? str_lower(l->user) : l->user;
  std::string hashed;
  my_username_hash(sget(l, INI_USER_HOME_HASHING), hashed, "", user.c_str());
  const char* cname = ini_get_p(l, INI_CLASS, "class_name");
  const char* dname = ini_get_p(l, INI_VDOMAIN, "name");
  if (!run_new_user_program(l, program.c_str(), user.c_str(), hashed.c_str(), dname != nullptr ? dname : "",
                            cname != nullptr ? cname : "", real_home)) {
    reason = "Home directory program did not complete, try again later.";
    return 0;
  }
  return 1;
}

int run_new_user_program(LINK* l, const char* script, const char* username, const char* hashedusername,
                         const char* domainname, const char* classname, const char* ftploginhome) {
  std::string cmd = strfmt("%s \"korvaneinfo\" \"%s\" \"%s\" \"%s\" \"%s\" \"%s\"", script, username, hashedusername,
                           domainname, classname, ftploginhome);
  imsg("Notifing New User Program - %s \n", cmd.c_str());
  // Each value is one argument as it stands: no shell, no splitting.
  const std::vector<std::string> args = {"korvaneinfo", username, hashedusername, domainname, classname, ftploginhome};
  osspawn_info info;
  std::string reason;
  if (!libspawn_create_args(script, args, &reason, 0, &info)) {
    emsg("Launch New User Program Failed: {%s} ERROR - %s\n", cmd.c_str(), reason.c_str());
    return 1;
  }
  imsg("Launched New User Program (%d)- {%s}\n", info.pid, cmd.c_str());
  for (int i = 0; i < kNewUserProgramPolls; i++) {
    if (libspawn_is_process_finished(&info, 1.0, &reason)) {
      imsg("New User Program Ended (%d)- {%s}\n", info.pid, cmd.c_str());
      if (l->c) tcp_printf(l->c.get(), "230-Home directory ready for first time use.\r\n");
      return 1;
    }
  }
  imsg("New User Program has not ended yet pid:%d\n", info.pid);
  libspawn_reap_later(&info);
  return 0;
}

}  // namespace korv
