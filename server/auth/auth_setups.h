// The table of authentication setups: which domain logs in through which
// authentication module, and which through the system password files. Built
// from the settings at start-up, changed setting by setting at run time.
#pragma once

#include <string>
#include <vector>

#include "server/auth/mex_auths.h"

namespace korv {

inline constexpr int kAuthSpareRows = 10;    // rows beyond the domains, for domains added later
inline constexpr int kAuthCommandMax = 998;  // a module's command line is cut here

// Builds the table from the settings and starts the modules through mex_init.
// Returns the number of rows.
int start_multi_auth_scenario();
// The table as the settings describe it, and in `max` the rows to allocate
// (the domains, the default and kAuthSpareRows).
std::vector<MULTI_AUTH_SCENARIO> multi_auth_build(int* max);
// Applies a changed module setting of a domain, or of the default setup.
void multi_auth_apply(const char* domain, const char* auth_process, const char* cmdopts,
                      int is_default_domain);
// The command line of a setup: "<process> <opts>", and for a module that does
// not say where it lives a " -path \"<dir>\"" naming the process's folder
// (always for a domain's module; for the default only for omauth).
std::string multi_auth_command(const char* auth_process, const char* cmdopts, bool add_path);

// Sets row 0's domain_authentication; other rows have none.
void user_set_authent_domain(int domain, int truth);
// The domain whose logins never get "@domain". Returns 1.
int user_set_strip(const char* dom);
// Kept for global_nt_domain; unused on this system. Returns 1.
int user_set_ntdomain(const char* dom);
// 1 if logins of `dom` are sent to the module as "user@domain".
int user_isauthdom(const char* dom);
// 1 if `domain` logs in through a module rather than the system files.
int isspawn(const char* domain);

// A copy of the table, its allocated rows, and row 0's use_system.
std::vector<MULTI_AUTH_SCENARIO> multi_auth_settings_copy();
int multi_auth_settings_max();
int use_system_auth_as_default();
// Installs a table as it stands, starting no module (for a caller that
// starts the modules itself, and for tests).
void multi_auth_set(std::vector<MULTI_AUTH_SCENARIO> rows, int max);
// Empties the table (as before start-up: the system files for all).
void multi_auth_free();

}  // namespace korv
