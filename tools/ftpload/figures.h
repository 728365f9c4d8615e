// ftpload's figures: each measurement against one server, its name in the table, its key in the
// machine-readable lines, and the reason when it could not be measured.
#pragma once

#include <string>
#include <vector>

#include "tools/ftpload/ftpclient.h"

namespace korv {

struct FIGURE {
    std::string key;   // machine name: stor_mbs, conc_login_s, ...
    std::string name;  // table name: "STOR (client -> server)", ...
    std::string unit;  // MB/s, secs, sess/s, us
    double value = 0;
    bool ok = false;
    std::string why;  // why there is no value
};
using Figure = FIGURE;

struct LOADOPTS {
    FtpTarget target;
    int clients = 200;          // N of the concurrent figures
    long long big_mib = 1000;   // the single large file
    long long tls_mib = 500;    // the same over TLS
    long long conc_mib = 10;    // the file of each concurrent client
    double session_secs = 2.0;  // how long the sessions-per-second loop runs
    int noops = 10000;          // NOOP round trips sampled
    bool with_tls = true;
};
using LoadOpts = LOADOPTS;

// Runs every figure against the target in a fixed order; failures become figures without value.
std::vector<Figure> ftpload_run(const LoadOpts& o);

// The raw loopback limits: `file` sent between two sockets with sendfile, and read into a buffer
// and sent, received into a buffer as ftpload receives a RETR.
std::vector<Figure> ftpload_loopback(const std::string& file);

}  // namespace korv
