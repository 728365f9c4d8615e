// The korvane program: installs what the upper layers give the process layer
// (the admin connections' routine and the admin.dat writer of the web
// administration), then everything happens in korv_main, except writing the
// built-in admin pages out, which needs no configuration.
#include <cstdio>
#include <cstring>

#include "server/admin/webadmin.h"
#include "server/admin/webfiles.h"
#include "server/admin/webio.h"
#include "server/process/korv.h"
#include "server/ftp/plog.h"
#include "server/process/control.h"
#include "server/process/password.h"
#include "server/report/ereport.h"

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-output_web_files") != 0) continue;
        if (i + 1 >= argc) {
            std::fprintf(stderr, "korvane: option -output_web_files needs a value\n");
            return 2;
        }
        return korv::output_web_files(argv[i + 1]) ? 0 : 1;
    }
    korv::korv_set_admin_dat_writer(korv::admin_dat_write);
    korv::korv_set_admin_handler(korv::mgr_main);
    korv::ereport_set_log_flush(korv::xlog_flush);
    korv::korv_add_background([] { korv::ereport_init(korv::korv_home()); });
    return korv::korv_main(argc, argv);
}
