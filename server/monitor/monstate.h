// The monitor's module state, shared by its units: what the setters of
// monitor.h store. One thread only, so no lock.
#pragma once

#include <string>
#include <vector>

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

}  // namespace korv
