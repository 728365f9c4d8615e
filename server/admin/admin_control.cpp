// Server control from the admin pages: the on/off page, stopping and starting
// the FTP ports, the internal restart and the shutdown. Each page goes out
// before its action, so that the browser has it.
#include "server/admin/webadmin.h"
#include "server/process/korv.h"

namespace korv {

int mgr_cmd_onoff(WINK* w) { return mgr_show(w, "onoff.htm"); }

int mgr_cmd_shutdown(WINK* w) {
    mgr_show(w, "shutdown.htm");
    korvane_shutdown("Web Shutdown Request");
    return 1;
}

int mgr_cmd_restart(WINK* w) {
    web_var_add(w, "server_message", "Restarting Korvane Now.");
    mgr_show(w, "onoff.htm");
    korvane_restart("Web Restart Request");
    return 1;
}

int mgr_cmd_stop(WINK* w) {
    web_var_add(w, "server_message", "Stopping FTP Port Now.");
    mgr_show(w, "onoff.htm");
    korv_stopftp("Web Stop Request");
    return 1;
}

int mgr_cmd_start(WINK* w) {
    web_var_add(w, "server_message", "Starting FTP Port Now.");
    mgr_show(w, "onoff.htm");
    korv_startftp("Web Start Request");
    return 1;
}

}  // namespace korv
