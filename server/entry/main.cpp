// The korvane program: installs what the upper layers give the process layer
// (the admin connections' routine and the admin.dat writer of the web
// administration, the monitor, the background work of reports and mirrors), then
// everything happens in korv_main, except writing the built-in admin pages out,
// which needs no configuration.
#include <cstdio>
#include <cstring>

#include "server/admin/webadmin.h"
#include "server/admin/webfiles.h"
#include "server/admin/webio.h"
#include "server/mirror/mirror.h"
#include "server/process/korv.h"
#include "server/ftp/plog.h"
#include "server/process/control.h"
#include "server/process/password.h"
#include "server/report/ereport.h"
#include "server/monitor/monitor.h"
#include "server/process/watch.h"
#include "server/session/runstate.h"

namespace {

void monitor_setup(const korv::MonitorStart& m) {
    korv::monitor_setname("korvane");
    korv::monitor_setver(korv::KORV_VERSION);
    korv::monitor_setport(m.port);
    korv::monitor_set_log(m.logname.c_str(), m.mainlog.c_str());
    korv::monitor_set_config(m.config.c_str());
}

int run_monitor(const korv::MonitorStart& m) {
    monitor_setup(m);
    korv::monitor_run(m.prog.c_str(), m.pid, m.smtp.c_str(), m.manager.c_str(), m.ip_to_scan.c_str(), m.isrestart);
    return 1;
}

int detach_monitor(const korv::MonitorStart& m) {
    monitor_setup(m);
    return korv::monitor_detach(m.prog.c_str(), m.smtp.c_str(), m.manager.c_str(), m.ip_to_scan.c_str(), m.isrestart,
                                nullptr);
}

}  // namespace

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
    korv::korv_add_background([] { korv::ereport_init(korv::korv_home()); }, nullptr);
    korv::korv_add_background([] { korv::mirror_init(korv::kMirrorFile); }, korv::mirror_free_all);
    korv::korv_set_monitor(run_monitor, detach_monitor);
    return korv::korv_main(argc, argv);
}
