// The server's settings: the table of its 94 settings and their codes, the
// load of the configuration file, the readers every other part uses, the
// choice of domain and class for a session, and three small policies (denied
// addresses, files that may not be fetched or stored).
#pragma once

#include <string>
#include <vector>

#include "store/vini.h"

namespace korv {

// Setting codes: the row of each setting in the table, and the order in
// which the configuration file is written.
enum IniCode : int {
  // Domain settings (vdomain opens a domain).
  INI_VDOMAIN = 0,
  INI_EMAIL,
  INI_DENY,
  INI_DENY_MSG,
  INI_DOMAIN_AUTHENTICATION_PREFIX,
  INI_DOMAIN_AUTHENTICATION_SUFFIX,
  INI_LOG_MAX_AGE,
  INI_LOGINFAILS,
  INI_GREETINGS,
  INI_PASSWD_CHECK,
  INI_DOMAIN_AUTHENT_PROCESS,
  INI_DOMAIN_AUTHENT_CMDOPTS,
  // Class settings (class opens a class).
  INI_CLASS = 12,
  INI_DIR,
  INI_GROUP_RESOURCE,
  INI_SSL,
  INI_LIMIT_SPEED,
  INI_LIMIT_SPEED_UP,
  INI_LIMIT_MB,
  INI_LIMIT_TIME,
  INI_LIMIT_USERS,
  INI_LIMIT_PERUSER,
  INI_NORETRIEVE,
  INI_NOUPLOAD,
  INI_QUOTA_DEFAULT,
  INI_DAILYQUOTA,
  INI_UMASK,
  INI_USER_HOME,
  INI_USER_HOME_HASHING,
  INI_LIMIT_CON_PERIP,
  INI_PASSIVE_IPNUMBER,
  INI_PASSIVE_PORT,
  INI_PASSIVE_PORT_MAX,
  INI_ACTAS_USER,
  INI_USER_IMPERSONATE,
  INI_USER_NOIMPERSONATE,
  INI_FTP_PROXY,
  INI_MKDIR_AUTO,
  INI_NEW_USER_PROGRAM,
  INI_FORCE_LOWER_HOME,
  INI_LIST_ALIASES,
  INI_FTPHOME_MAP = 41,
  INI_BANNER = 42,
  // Global settings, read from the first domain.
  INI_HOME = 43,
  INI_GLOBAL_STRIP_USER_DOMAIN,
  INI_AUTHENT_PROCESS,
  INI_AUTHENT_CMDOPTS,
  INI_AUTHENT_DOMAIN,
  INI_AUTHENT_NOCACHE,
  INI_NO_SUFFIX_DEFAULT_DOMAIN,
  INI_AUTHENT_NUMBER,
  INI_LOG_LEVEL,
  INI_LOG_HOME,
  INI_LOG_DAYLY_ROLL,
  INI_LOG_CMD_SIZE,
  INI_GLOBAL_ONLY_UNIX,
  INI_GLOBAL_STYLE,
  INI_GLOBAL_BIND,
  INI_GLOBAL_CON_PERIP,
  INI_GLOBAL_TOTAL_USERS,
  INI_GLOBAL_LOOKUP_NAMES,
  INI_GLOBAL_SMTP,
  INI_GLOBAL_PASSIVE_IP,
  INI_GLOBAL_PASSIVE_MATCH,
  INI_GLOBAL_NOSYMLINK,
  INI_GLOBAL_RESTART,
  INI_GLOBAL_LOG_FLUSH,
  INI_GLOBAL_LOGIN_ERROR,
  INI_GLOBAL_PORT,
  INI_GLOBAL_MGR_PORT,
  INI_GLOBAL_MGR_SSL_PORT,
  INI_GLOBAL_NOCLASS,
  INI_GLOBAL_SSL,
  INI_GLOBAL_SSL_CIPHER_LIST,
  INI_GLOBAL_SSL_DISABLE_SSLV2,
  INI_GLOBAL_SSL_DISABLE_TLSV1,
  INI_GLOBAL_SSL_REQUIRE_CLIENT_CERTIFICATE,
  INI_GLOBAL_IMPLICIT_PORT,
  INI_GLOBAL_THREAD_REUSE,
  INI_GLOBAL_ADMINIP,
  INI_GLOBAL_WATCHER_PROGRAM_UL,
  INI_GLOBAL_WATCHER_PROGRAM_DL,
  INI_GLOBAL_ANON_HAMMER_ACTIVE,
  INI_GLOBAL_ANON_HAMMER_OVER_TIME,
  INI_GLOBAL_ANON_HAMMER_MAX,
  INI_GLOBAL_ANON_HAMMER_BLOCK_TIME,
  INI_GLOBAL_NT_DOMAIN,
  INI_GLOBAL_LOGON_MODE,
  INI_GLOBAL_LOG_HOST,
  INI_GLOBAL_NOQUOTA,
  INI_GLOBAL_NOCHMOD,
  INI_GLOBAL_NFS_IMPERSONATE,
  INI_GLOBAL_UTF8,
  INI_UNIX_LIST,
  INI_COUNT  // 94
};

// One row of the settings table.
struct ISYNTAX {
  int code;
  const char* cmd;  // name, then one word per parameter, as vini_add reads it
  const char* dflt;
  int type;
  const char* description;
};
using Isyntax = ISYNTAX;

// The table, ending with a row whose cmd is null.
extern const ISYNTAX isyntax[];

inline constexpr size_t kIniReasonMax = 999;  // reason texts and copied lists

// What the settings code reads and writes of a session. The session record
// derives from it, so that the fields keep their names (`l->ini`, `l->user`);
// the two accessors reach the logged-in identity (its groups, lower case, in
// list order, and the address list an authentication module gave it).
struct INILINK {
  INIHANDLE* ini = nullptr;  // owned; released by ini_free or with the record
  int isanon = 0;
  std::string ipname;  // the client's name (its number when not looked up)
  std::string ipnum;   // the client's number
  std::string myip;    // the local address the connection came in on
  std::string user;

  INILINK() = default;
  INILINK(const INILINK&) = delete;
  INILINK& operator=(const INILINK&) = delete;
  virtual ~INILINK();
  virtual std::vector<std::string> ini_usergroups() const { return {}; }
  virtual std::string ini_from_ip() const { return {}; }
};
using IniLink = INILINK;

// Loads the settings from `config_path`, or from "/etc/<bin_name>.ini" when
// that is null or empty. 1, or 0 if they were already loaded.
int ini_read(const char* bin_name, const char* config_path = nullptr);
// The file ini_read would load.
std::string ini_path(const char* bin_name, const char* config_path);
// Can `path` be opened and read? 1, or 0 with the system's text in `reason`
// ("No such file or directory", "Is a directory", ...).
int ini_readable(const char* path, std::string& reason);
void ini_free_all();
const char* ini_bin_name();

const char* ini_get(INILINK* l, int code);
int ini_geti(INILINK* l, int code);
int ini_true(INILINK* l, int code);
const char* ini_get_p(INILINK* l, int code, const char* param);

int ini_setdomain(INILINK* l, const char* domain);
int ini_setdomain_byuser(INILINK* l, std::string& username);
int ini_setclass(INILINK* l, const char* user, std::string& reason);
void ini_free(INILINK* l);
int ini_deny(INILINK* l, std::string& reason);

// 1 when `fnamex` matches `filter_list` (lower case) as a whole or in any one
// of its components: the action is then refused. Callers pass the simplified
// virtual path, so that "." and ".." and trailing slashes hide nothing.
int ini_is_file_allowable(const char* function, const char* fnamex, const char* filter_list);
int ini_noretrieve(INILINK* l, const char* fnamex);
int ini_noupload(INILINK* l, const char* fnamex);

// "<home>/<domain>/<file>" and the same under the log home, lower case.
std::string& ini_domain_file(std::string& bf, const char* dname, const char* fname);
std::string& ini_domain_log_file(std::string& bf, const char* dname, const char* fname);

// Where ini_domain_file and ini_domain_log_file find the server's home and
// log home. Until the server sets its own, they read the `home` and
// `log_home` settings.
using IniDirFn = const char* (*)();
void ini_set_dir_sources(IniDirFn home, IniDirFn log_home);

}  // namespace korv
