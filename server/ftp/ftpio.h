// The session's control-channel reads (tcp_readmore) into its line buffer, the
// run of every complete line (tcp_process) and the abort poll of the transfer
// loops (cmd_abort).
#pragma once

#include "server/session/linebuf.h"

namespace korv {

struct LINK;

// Session side. Each runs on the session's own thread.
int tcp_process(LINK* ll);                       // runs every complete line; 1 always
int tcp_readmore(LINK* ll, int msec, int is_ftp);  // 1 to go on, 0 to end the session
int cmd_abort(LINK* ll);                           // 1 if the running transfer must stop

}  // namespace korv
