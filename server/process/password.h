// `korvane -password`: sets the web administration's password in admin.dat
// in the home of the configuration, read from the terminal or a pipe. The
// file itself is written by the web administration, through the writer the
// program's entry installs.
#pragma once

#include <string>

namespace korv {

struct KORV_OPTIONS;

// Writes `dir`/admin.dat for `user` and `password`: 1, or 0 with `reason`.
using AdminDatWriter = int (*)(const char* dir, const char* user, const char* password, std::string& reason);
void korv_set_admin_dat_writer(AdminDatWriter fn);

// The whole command: the exit status (0, or 1 with a line on standard error).
int korv_password(const KORV_OPTIONS& o);

}  // namespace korv
