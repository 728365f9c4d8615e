// The korvane program: joins the admin layer to the process layer below it,
// then everything happens in korv_main.
#include "server/admin/webadmin.h"
#include "server/process/korv.h"

int main(int argc, char** argv) {
    korv::korv_set_admin_handler(korv::mgr_main);
    return korv::korv_main(argc, argv);
}
