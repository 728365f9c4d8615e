// `korvane -password`: finds the server's home in the configuration, reads
// the admin password and has admin.dat written there.
#include "server/process/password.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "base/secret.h"
#include "server/process/control.h"
#include "server/settings/ini.h"

namespace korv {

namespace {

AdminDatWriter writer = nullptr;

int fail(const std::string& why) {
    std::fprintf(stderr, "korvane: -password: %s\n", why.c_str());
    return 1;
}

}  // namespace

void korv_set_admin_dat_writer(AdminDatWriter fn) { writer = fn; }

int korv_password(const KorvOptions& o) {
    if (writer == nullptr) return fail("this program cannot write admin.dat");
    std::string config = ini_path("korvane", o.config.c_str()), why;
    if (!ini_readable(config.c_str(), why)) return fail("cannot read configuration " + config + ": " + why);
    ini_read("korvane", o.config.c_str());
    const char* h = ini_get(nullptr, INI_HOME);
    std::string home = h != nullptr ? h : "";
    if (home.empty()) return fail("\"home\" is not set in " + config);
    std::string user = o.admin_user.empty() ? "admin" : o.admin_user;
    std::string pass, again;
    if (!read_secret("Admin password: ", pass)) return fail("no password given");
    if (::isatty(0) && (!read_secret("Again: ", again) || again != pass)) return fail("the passwords differ");
    if (!writer(home.c_str(), user.c_str(), pass.c_str(), why)) return fail(why);
    std::printf("korvane: admin password of %s set in %s/admin.dat\n", user.c_str(), home.c_str());
    std::fflush(stdout);
    return 0;
}

}  // namespace korv
