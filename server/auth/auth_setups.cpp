// The table of authentication setups: row 0 is the default (a module, or the
// system password files), the other rows are domains with a module of their
// own. Read by every login; changed by start-up and by saved settings.
#include "server/auth/auth_setups.h"

#include <cstring>
#include <mutex>

#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "server/settings/ini.h"
#include "store/vini.h"

namespace korv {
namespace {

// Guards the table and strip_dom. Held only for copies and edits: modules are
// started and restarted outside it.
std::mutex table_mx;
std::vector<MULTI_AUTH_SCENARIO> table;  // multi_auth_settings; size() is the count
int table_max = 0;                       // multi_auth_settings_max
std::string strip_dom;
std::string ntdomain;

bool row0_use_system() { return table.empty() || table[0].use_system != 0; }

}  // namespace

std::string multi_auth_command(const char* auth_process, const char* cmdopts, bool add_path) {
  std::string process = auth_process != nullptr ? auth_process : "";
  std::string opts = cmdopts != nullptr ? cmdopts : "";
  std::string line = strfmt("%s%s%s", process.c_str(), opts.empty() ? "" : " ", opts.c_str());
  if (add_path && !process.empty() && line.find(" -path ") == std::string::npos) {
    size_t cut = process.find_last_of("/\\");
    // A bare program name has no folder to tell.
    if (cut != std::string::npos) strfmt_append(line, " -path \"%s\"", process.substr(0, cut).c_str());
  }
  if (line.size() > kAuthCommandMax) line.resize(kAuthCommandMax);
  return line;
}

std::vector<MULTI_AUTH_SCENARIO> multi_auth_build(int* max) {
  std::vector<MULTI_AUTH_SCENARIO> rows;
  {
    MULTI_AUTH_SCENARIO r0;
    const char* process = vini_get(nullptr, INI_AUTHENT_PROCESS);
    r0.authentication_command = process;
    r0.authentication_command_opts = vini_get(nullptr, INI_AUTHENT_CMDOPTS);
    r0.domain_authentication =
        str_lower(vini_get(nullptr, INI_AUTHENT_DOMAIN)).find("true") != std::string::npos;
    r0.use_system = *process == 0 ? 1 : 0;
    rows.push_back(std::move(r0));
  }
  vini_lock();
  IniHandlePtr h = vini_handle();
  int ndomains = 0;
  int d = 0;
  for (const auto& dom : vini_domains()) {
    ndomains++;
    h->tbl = dom.get();  // read without a reference: the lock is held
    h->cls = nullptr;
    std::string name = vini_get_p(h.get(), INI_VDOMAIN, "name");
    std::string process = vini_get(h.get(), INI_DOMAIN_AUTHENT_PROCESS);
    if (!process.empty() && name.empty())
      emsg("Domain %d does not have a Domain name for domain authentication process.", d);
    if (!name.empty() && !process.empty()) {
      MULTI_AUTH_SCENARIO r;
      r.domain_name = name;
      r.authentication_command = process;
      r.authentication_command_opts = vini_get(h.get(), INI_DOMAIN_AUTHENT_CMDOPTS);
      rows.push_back(std::move(r));
    }
    d++;
  }
  h->tbl = nullptr;
  h.reset();
  vini_unlock();

  for (size_t i = 0; i < rows.size(); i++) {
    MULTI_AUTH_SCENARIO& r = rows[i];
    bool add_path = i != 0 || strstrnc(r.authentication_command.c_str(), "omauth") != nullptr;
    r.authentication_command = multi_auth_command(r.authentication_command.c_str(),
                                                  r.authentication_command_opts.c_str(), add_path);
  }
  if (max != nullptr) *max = ndomains + 1 + kAuthSpareRows;
  return rows;
}

int start_multi_auth_scenario() {
  int max = 0;
  std::vector<MULTI_AUTH_SCENARIO> rows = multi_auth_build(&max);
  int count = static_cast<int>(rows.size());
  multi_auth_set(rows, max);
  mex_init(imsg, emsg, count, rows.data());
  return count;
}

void multi_auth_apply(const char* domain, const char* auth_process, const char* cmdopts,
                      int is_default_domain) {
  if (domain == nullptr) domain = "";
  bool add_path = !is_default_domain ||
                  (auth_process != nullptr && strstrnc(auth_process, "omauth") != nullptr);
  std::string command = multi_auth_command(auth_process, cmdopts, add_path);
  {
    std::lock_guard<std::mutex> lk(table_mx);
    if (is_default_domain) {
      if (table.empty()) table.emplace_back();
      table[0].authentication_command = command;
      table[0].authentication_command_opts = cmdopts != nullptr ? cmdopts : "";
      table[0].use_system = command.empty() ? 1 : 0;
    } else {
      MULTI_AUTH_SCENARIO* row = nullptr;
      for (size_t i = 1; i < table.size(); i++)
        if (table[i].domain_name == domain) row = &table[i];
      if (row != nullptr) {
        if (row->authentication_command == command) return;
        row->authentication_command = command;
        row->authentication_command_opts = cmdopts != nullptr ? cmdopts : "";
      } else {
        if (command.empty() || static_cast<int>(table.size()) >= table_max) return;  // full: ignored
        if (table.empty()) table.emplace_back().use_system = 1;
        MULTI_AUTH_SCENARIO r;
        r.domain_name = domain;
        r.authentication_command = command;
        r.authentication_command_opts = cmdopts != nullptr ? cmdopts : "";
        table.push_back(std::move(r));
      }
    }
  }
  mex_restart_domain(domain, command.c_str(), is_default_domain ? 1 : 0);
}

void user_set_authent_domain(int domain, int truth) {
  if (domain != 0) return;
  std::lock_guard<std::mutex> lk(table_mx);
  if (table.empty()) table.emplace_back().use_system = 1;
  table[0].domain_authentication = truth;
}

int user_set_strip(const char* dom) {
  std::lock_guard<std::mutex> lk(table_mx);
  strip_dom = dom != nullptr ? dom : "";
  return 1;
}

int user_set_ntdomain(const char* dom) {
  std::lock_guard<std::mutex> lk(table_mx);
  ntdomain = dom != nullptr ? dom : "";
  return 1;
}

int user_isauthdom(const char* dom) {
  std::lock_guard<std::mutex> lk(table_mx);
  if (table.empty() || table[0].domain_authentication == 0) return 0;
  if (strip_dom.empty()) return 1;
  return strcmpnc(dom != nullptr ? dom : "", strip_dom.c_str()) == 0 ? 0 : 1;
}

int isspawn(const char* domain) {
  if (domain == nullptr) domain = "";
  std::lock_guard<std::mutex> lk(table_mx);
  for (size_t i = 1; i < table.size(); i++)
    if (table[i].domain_name == domain && !table[i].authentication_command.empty()) return 1;
  return row0_use_system() ? 0 : 1;
}

std::vector<MULTI_AUTH_SCENARIO> multi_auth_settings_copy() {
  std::lock_guard<std::mutex> lk(table_mx);
  return table;
}

int multi_auth_settings_max() {
  std::lock_guard<std::mutex> lk(table_mx);
  return table_max;
}

int use_system_auth_as_default() {
  std::lock_guard<std::mutex> lk(table_mx);
  return row0_use_system() ? 1 : 0;
}

void multi_auth_set(std::vector<MULTI_AUTH_SCENARIO> rows, int max) {
  std::lock_guard<std::mutex> lk(table_mx);
  table = std::move(rows);
  table_max = max;
}

void multi_auth_free() {
  std::lock_guard<std::mutex> lk(table_mx);
  table.clear();
  table_max = 0;
}

}  // namespace korv
