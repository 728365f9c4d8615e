// The monitor's module state, shared by its units: what the setters of
// monitor.h store. One thread only, so no lock.
#pragma once

#include <string>
#include <vector>

#include "net/tcp.h"

namespace korv {

inline constexpr char kMonitorPlatform[] = "Linux64";

struct MonitorState {
    int testport = 25;
    std::string progver;
    std::string progname = "korvane";
    std::string logname = "monitor.log";  // the monitor's own log
    std::string mainlog = "korvane.log";  // the server's main log
    std::string config;                   // -config handed on; empty for the default
    std::vector<std::string> mail_files;  // whose tails the next mail carries
};

MonitorState& monitor_state();

// A connection within `msecs`, refused or not: the channel layer reports a
// refusal only at the first read, and a probe or a relay needs to know now.
bool monitor_connect(Chan* c, const std::string& host, int port, int msecs, std::string& reason);

}  // namespace korv
