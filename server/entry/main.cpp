// The korvane program: installs what the upper layers give the process layer
// (the admin connections' routine and the admin.dat writer of the web
// administration, the mirror thread's start and stop), then everything happens in korv_main, except writing the
// built-in admin pages out, which needs no configuration.
#include <cstdio>
#include <cstring>

#include "server/admin/webadmin.h"
#include "server/admin/webfiles.h"
#include "server/admin/webio.h"
#include "server/mirror/mirror.h"
#include "server/process/korv.h"
#include "server/process/password.h"

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
    korv::korv_set_background([] { korv::mirror_init(korv::kMirrorFile); }, korv::mirror_free_all);
    return korv::korv_main(argc, argv);
}
