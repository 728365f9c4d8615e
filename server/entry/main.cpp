// The korvane program: installs what the upper layers give the process layer
// (the admin.dat writer of the web administration), then korv_main does the rest.
#include "server/admin/webio.h"
#include "server/process/korv.h"
#include "server/process/password.h"

int main(int argc, char** argv) {
    korv::korv_set_admin_dat_writer(korv::admin_dat_write);
    return korv::korv_main(argc, argv);
}
